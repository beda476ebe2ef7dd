// Parses any bytes as HTTP requests, at once and in pieces: the requests must be the same.
#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "net/http.h"

using namespace metricdb;

namespace {

constexpr size_t MAX_BODY_BYTES = 1000, MAX_BLOCK_BYTES = 1 << 20;

void need(bool holds, const char *what) {
  if (holds) return;
  std::fprintf(stderr, "does not hold: %s\n", what);
  std::abort();
}

std::string text_of(const HttpRequest &request) {
  need(request.body.size() <= MAX_BODY_BYTES, "a body within the limit");
  return fmt::format("{} {} {} {} {} {} {} {}\n", static_cast<int>(request.method), request.target,
                     request.content_encoding, request.content_type, request.expect, request.keep_alive,
                     request.is_http_1_0, request.body);
}

// Returns all requests, and the refusal after which nothing is parsed.
std::string requests_in(std::string_view text, size_t piece_bytes) {
  BlockPool pool(MAX_BLOCK_BYTES);
  ByteBuffer input(pool);
  HttpReader reader(MAX_BODY_BYTES);
  std::string requests;
  while (!text.empty()) {
    const size_t count = std::min(piece_bytes, text.size());
    need(input.make_room(std::max(count, reader.room_wanted(input))) && input.room() >= count,
         "room for the next bytes");
    std::memcpy(input.tail(), text.data(), count);
    input.append_room(count);
    text.remove_prefix(count);
    for (;;) {
      const HttpReader::Outcome outcome = reader.read(input);
      if (outcome == HttpReader::Outcome::more) break;
      if (outcome == HttpReader::Outcome::refused) {
        const HttpAnswer &answer = reader.refusal();
        need(answer.status >= 400 && !answer.error.empty(), "a refusal has a status and a reason");
        return requests + fmt::format("refused {}\n", static_cast<int>(answer.status)) +
               answer_text(answer, HTTP_GET, false, false).substr(0, 8);
      }
      requests += text_of(reader.request());
      reader.done(input);
    }
  }
  return requests;
}

}  // namespace

// The first byte is the size of the pieces.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 2) return 0;
  const std::string_view text(reinterpret_cast<const char *>(data) + 1, size - 1);
  const std::string whole = requests_in(text, text.size());
  need(requests_in(text, size_t{1} + data[0]) == whole, "pieces give the same requests");
  return 0;
}
