#include "journal_format.h"

#include <zstd.h>
#include <zstd_errors.h>

#include <cstring>
#include <memory>
#include <new>

#include "checksum.h"

namespace tslb_durable {
namespace {

constexpr size_t SUMMED_FROM = offsetof(FrameHead, sequence);
constexpr size_t MIN_COMPRESSED_BYTES = 256;  // shorter bodies gain nothing

struct ReleaseContext {
  void operator()(ZSTD_CCtx *context) const { ZSTD_freeCCtx(context); }
};

template <class Head>
std::string_view bytes_of(const Head &head) {
  return {reinterpret_cast<const char *>(&head), sizeof head};
}

uint32_t sum_of_place(const JournalName &name, uint64_t position, uint32_t length) {
  char before[36];
  std::memcpy(before, name.identity.data(), 16);
  std::memcpy(before + 16, &name.generation, 8);
  std::memcpy(before + 24, &position, 8);
  std::memcpy(before + 32, &length, 4);
  return crc32c(before, sizeof before);
}

}  // namespace

JournalHead make_head(const JournalName &name) {
  JournalHead head = {};
  std::memcpy(head.magic, JOURNAL_MAGIC.data(), sizeof head.magic);
  head.version = JOURNAL_VERSION;
  std::memcpy(head.identity, name.identity.data(), sizeof head.identity);
  head.generation = name.generation;
  const std::string_view bytes = bytes_of(head);
  const uint32_t first_part = crc32c(bytes.data(), offsetof(JournalHead, crc32c));
  constexpr size_t SECOND_PART = offsetof(JournalHead, identity);
  head.crc32c = crc32c(bytes.data() + SECOND_PART, bytes.size() - SECOND_PART, first_part);
  return head;
}

FrameHead make_frame_head(const JournalName &name, const JournalPlace &place, const Frame &frame, uint64_t durable,
                          std::string_view body) {
  FrameHead head = {};
  head.length = static_cast<uint32_t>(sizeof head + body.size());
  head.sequence = place.next_sequence;
  head.kind = frame.kind;
  head.compression = frame.compression;
  head.raw_bytes = frame.raw_bytes;
  head.n_batches = frame.n_batches;
  head.durable = durable;
  const uint32_t sum = crc32c(bytes_of(head).data() + SUMMED_FROM, sizeof head - SUMMED_FROM,
                              sum_of_place(name, place.position, head.length));
  head.crc32c = crc32c(body.data(), body.size(), sum);
  return head;
}

uint32_t sum_of_frame(const JournalName &name, uint64_t position, std::string_view frame) {
  return crc32c(frame.data() + SUMMED_FROM, frame.size() - SUMMED_FROM,
                sum_of_place(name, position, static_cast<uint32_t>(frame.size())));
}

std::string_view compress(std::string_view body, int level, std::string &buffer, Compression &compression) {
  compression = Compression::none;
  if (level == 0 || body.size() < MIN_COMPRESSED_BYTES) return body;
  thread_local const std::unique_ptr<ZSTD_CCtx, ReleaseContext> context(ZSTD_createCCtx());
  if (!context) return body;
  buffer.resize(ZSTD_compressBound(body.size()));
  const size_t size = ZSTD_compressCCtx(context.get(), buffer.data(), buffer.size(), body.data(), body.size(), level);
  if (ZSTD_isError(size) != 0 || size >= body.size()) return body;
  compression = Compression::zstd;
  return std::string_view(buffer).substr(0, size);
}

std::string_view decompress(const FrameHead &head, std::string_view stored, std::string &buffer, bool &ok) {
  if (head.compression == Compression::none) {
    ok = stored.size() == head.raw_bytes;
    return stored;
  }
  buffer.resize(head.raw_bytes);
  const size_t size = ZSTD_decompress(buffer.data(), buffer.size(), stored.data(), stored.size());
  // Otherwise a sound frame would be reported as damaged, and the last group of a journal would be cut.
  if (ZSTD_getErrorCode(size) == ZSTD_error_memory_allocation) throw std::bad_alloc();
  ok = head.compression == Compression::zstd && size == head.raw_bytes;
  return buffer;
}

}  // namespace tslb_durable
