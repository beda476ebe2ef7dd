#include "net/http_connection.h"

#include <fmt/format.h>

#include <variant>

namespace metricdb {

void HttpConnection::consume() {
  while (may_take()) {
    switch (reader_.read(input())) {
      case HttpReader::Outcome::more:
        if (!is_continued_ && reader_.is_asked_to_continue(input())) answer_expectation();
        return;
      case HttpReader::Outcome::refused:
        return refuse_the_rest(reader_.refusal());
      case HttpReader::Outcome::request:
        answer_request();
        if (!reader_.request().keep_alive) end_input();
        is_continued_ = false;
        reader_.done(input());
        request_taken();
    }
  }
}

void HttpConnection::answer_request() {
  hub().requests.add(1);
  const auto routed = api_.route(reader_.request());
  if (const auto *request = std::get_if<WriteRequest>(&routed))
    write(*request);
  else
    owe_answer(std::get<HttpAnswer>(routed));
}

void HttpConnection::write(const WriteRequest &request) {
  const std::string_view body = reader_.request().body;
  if (!request.is_gzip) return write_lines(body, request.precision);
  ByteBuffer plain(hub().blocks);
  const size_t most_bytes = hub().options.max_body_bytes;
  switch (gunzip_.inflate_into(plain, body, most_bytes)) {
    case Gunzip::Outcome::good:
      return write_lines(plain.text(), request.precision);
    case Gunzip::Outcome::broken:
      return owe_answer(error_answer(HTTP_STATUS_BAD_REQUEST, "the body is not whole in gzip"));
    case Gunzip::Outcome::too_long:
      return owe_answer(error_answer(HTTP_STATUS_PAYLOAD_TOO_LARGE,
                                     fmt::format("the body has more than {} bytes in plain", most_bytes)));
    case Gunzip::Outcome::no_room:
      return owe_answer(error_answer(HTTP_STATUS_SERVICE_UNAVAILABLE, "too much is being received, try again"));
  }
}

void HttpConnection::write_lines(std::string_view lines, Precision precision) {
  try {
    const IngestResult taken = hub().take(lines, precision);
    // What left no point needs no batch to wait for.
    owe_answer(answer_to(taken), taken.points == 0 ? 0 : OPEN_TICKET, taken.points == 0 ? 0 : lines.size());
  } catch (const IngestRefused &refusal) {
    owe_answer(error_answer(HTTP_STATUS_SERVICE_UNAVAILABLE, refusal.what()));
  }
}

void HttpConnection::answer_expectation() {
  if (const auto answer = InfluxApi::answer_to_head(reader_.request())) return refuse_the_rest(*answer);
  is_continued_ = true;
  owe({0, 0, "HTTP/1.1 100 Continue\r\n\r\n"});
}

void HttpConnection::refuse_the_rest(const HttpAnswer &answer) {
  hub().requests.add(1);
  log(answer.error + "; connection closed");
  end_input();
  const HttpAnswer told = answer.json.empty() ? error_answer(answer.status, answer.error) : answer;
  owe({0, 0, answer_text(told, HTTP_POST, false, false)});
}

void HttpConnection::refuse_room() {
  refuse_the_rest(error_answer(HTTP_STATUS_SERVICE_UNAVAILABLE, "too much is being received, try again"));
}

void HttpConnection::owe_answer(const HttpAnswer &answer, uint64_t ticket, size_t bytes) {
  const HttpRequest &request = reader_.request();
  owe({ticket, bytes, answer_text(answer, request.method, request.keep_alive, request.is_old)});
}

// The next requests may have been read since: what this one's answer said of the connection is all that is left of it.
void HttpConnection::refuse(Owed &owed, const std::string &reason) {
  const bool keep_alive = owed.text.find("\r\nConnection: close\r\n") == owed.text.npos;
  const bool is_old = owed.text.find("\r\nConnection: keep-alive\r\n") != owed.text.npos;
  owed.text = answer_text(error_answer(HTTP_STATUS_INSUFFICIENT_STORAGE, reason), HTTP_POST, keep_alive, is_old);
}

}  // namespace metricdb
