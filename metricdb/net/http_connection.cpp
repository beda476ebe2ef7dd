#include "net/http_connection.h"

#include <fmt/format.h>

#include <utility>
#include <variant>

namespace metricdb {

HttpConnection::~HttpConnection() {
  for (const auto &[id, form] : queries_) {
    hub().query_fds.erase(id);
    hub().queries.interrupt(id);
  }
}

// A client that ends while it waits closes its side in the same way as one that only sends nothing more. The first kind is
// common, and its queries would delay others.
void HttpConnection::on_hung_up() {
  for (const auto &[id, form] : queries_) hub().queries.interrupt(id);
}

void HttpConnection::consume() {
  while (is_within_limits()) {
    switch (reader_.read(input())) {
      case HttpReader::Outcome::more:
        if (reader_.has_head_only()) check_head();
        return;
      case HttpReader::Outcome::refused:
        return refuse_connection(reader_.refusal());
      case HttpReader::Outcome::request:
        answer_request();
        if (!reader_.request().keep_alive) end_input();
        is_head_checked_ = is_continued_ = false;
        reader_.done(input());
        begin_next_request();
    }
  }
}

void HttpConnection::answer_request() {
  hub().requests.add(1);
  const auto routed = api_.route(reader_.request());
  if (const auto *request = std::get_if<WriteRequest>(&routed)) {
    write(*request);
  } else if (const auto *query = std::get_if<QueryRequest>(&routed)) {
    begin_query(*query);
  } else if (const auto *backup = std::get_if<BackupRequest>(&routed)) {
    begin_backup(*backup);
  } else if (std::holds_alternative<PromoteRequest>(routed)) {
    begin_promotion();
  } else {
    const HttpAnswer &answer = std::get<HttpAnswer>(routed);
    if (!answer.log.empty()) log(answer.log, LogTopic::denials);
    queue_answer(answer);
  }
}

void HttpConnection::begin_query(const QueryRequest &query) {
  if (!hub().options.query) return queue_answer(error_answer(HTTP_STATUS_NOT_IMPLEMENTED, "queries are not answered"));
  const uint64_t id = ++hub().last_query;
  if (hub().query_bytes > hub().options.max_query_bytes || !hub().queries.submit(id, query)) {
    hub().queries_refused.add(1);
    return queue_answer(error_answer(HTTP_STATUS_SERVICE_UNAVAILABLE, "too many queries wait, try again"));
  }
  wait_for_query(id);
}

void HttpConnection::begin_backup(const BackupRequest &backup) {
  if (!hub().options.backup)
    return queue_answer(error_answer(HTTP_STATUS_FORBIDDEN, "backups are off: the server has no --backup-folder"));
  const uint64_t id = ++hub().last_query;
  QueryRequest request;
  request.text = backup.name;
  request.database = backup.database;
  if (!hub().backups.submit(id, std::move(request)))
    return queue_answer(error_answer(HTTP_STATUS_SERVICE_UNAVAILABLE, "another backup waits, try again"));
  wait_for_query(id);
}

void HttpConnection::begin_promotion() {
  if (!hub().options.promote)
    return queue_answer(error_answer(HTTP_STATUS_FORBIDDEN, "this server is no replica: it has no --replica"));
  const uint64_t id = ++hub().last_query;
  if (!hub().promotions.submit(id, {}))
    return queue_answer(error_answer(HTTP_STATUS_SERVICE_UNAVAILABLE, "another promotion waits, try again"));
  wait_for_query(id);
}

void HttpConnection::wait_for_query(uint64_t id) {
  const HttpRequest &request = reader_.request();
  queries_[id] = {request.method, request.keep_alive, request.is_http_1_0};
  hub().query_fds[id] = fd();
  PendingAnswer answer;
  answer.ticket = QUERY_TICKET;
  answer.query = id;
  queue(std::move(answer));
}

std::string HttpConnection::text_of(uint64_t query, const QueryAnswer &answer) {
  const Form form = queries_.at(query);
  queries_.erase(query);
  HttpAnswer http;
  http.status = answer.status;
  http.json = answer.body;
  http.content_type = answer.content_type;
  http.error = answer.error;
  return answer_text(http, form.method, form.keep_alive, form.is_http_1_0);
}

void HttpConnection::write(const WriteRequest &request) {
  const std::string_view body = reader_.request().body;
  if (hub().ingest != nullptr && !hub().ingest->has(request.database))
    return queue_answer(unknown_database(request.database));
  if (!request.is_gzip) return write_lines(request, body);
  ByteBuffer plain(hub().blocks);
  const size_t max_bytes = hub().options.max_body_bytes;
  switch (gunzip_.inflate_into(plain, body, max_bytes)) {
    case Gunzip::Outcome::good:
      return write_lines(request, plain.text());
    case Gunzip::Outcome::broken:
      return queue_answer(error_answer(HTTP_STATUS_BAD_REQUEST, "the body is not valid gzip"));
    case Gunzip::Outcome::too_long:
      return queue_answer(error_answer(HTTP_STATUS_PAYLOAD_TOO_LARGE,
                                       fmt::format("the decompressed body has more than {} bytes", max_bytes)));
    case Gunzip::Outcome::no_room:
      return queue_answer(
          error_answer(HTTP_STATUS_SERVICE_UNAVAILABLE, "too many bytes are being received, try again"));
  }
}

void HttpConnection::write_lines(const WriteRequest &request, std::string_view lines) {
  try {
    const IngestResult result = hub().take(request.database, lines, request.precision);
    if (result.n_skipped() != 0)
      log(fmt::format("{} lines were skipped; the first: {}", result.n_skipped(), result.first_reason),
          LogTopic::skipped_lines);
    // Without points there is no batch to wait for.
    queue_answer(answer_to(result), result.points == 0 ? 0 : OPEN_TICKET, result.points == 0 ? 0 : lines.size(),
                 request.database);
  } catch (const IngestRefused &refusal) {
    log(fmt::format("{} bytes of lines were refused: {}", lines.size(), refusal.what()), LogTopic::refusals);
    queue_answer(error_answer(HTTP_STATUS_SERVICE_UNAVAILABLE, refusal.what()));
  }
}

void HttpConnection::check_head() {
  if (!std::exchange(is_head_checked_, true))
    if (const auto denial = api_.denial_of_head(reader_.request())) return refuse_connection(*denial);
  if (!is_continued_ && reader_.is_asked_to_continue(input())) answer_expectation();
}

void HttpConnection::answer_expectation() {
  if (const auto answer = InfluxApi::answer_to_head(reader_.request())) return refuse_connection(*answer);
  is_continued_ = true;
  queue({0, 0, "HTTP/1.1 100 Continue\r\n\r\n"});
}

void HttpConnection::refuse_connection(const HttpAnswer &answer) {
  hub().requests.add(1);
  if (answer.log.empty())
    log(answer.error + "; connection closed");
  else
    log(answer.log + "; connection closed", LogTopic::denials);
  end_input();
  const HttpAnswer with_body = answer.json.empty() ? error_answer(answer.status, answer.error) : answer;
  queue({0, 0, answer_text(with_body, HTTP_POST, false, false)});
}

void HttpConnection::refuse_room() {
  refuse_connection(error_answer(HTTP_STATUS_SERVICE_UNAVAILABLE, "too many bytes are being received, try again"));
}

void HttpConnection::queue_answer(const HttpAnswer &answer, uint64_t ticket, size_t bytes,
                                  const std::string &database) {
  const HttpRequest &request = reader_.request();
  queue({ticket, bytes, answer_text(answer, request.method, request.keep_alive, request.is_http_1_0), database});
}

// Later requests may have been parsed since. The pending answer says whether the connection is kept.
void HttpConnection::refuse(PendingAnswer &answer, const std::string &reason) {
  const bool keep_alive = answer.text.find("\r\nConnection: close\r\n") == answer.text.npos;
  const bool is_http_1_0 = answer.text.find("\r\nConnection: keep-alive\r\n") != answer.text.npos;
  // If another server leads now, the lines are to be sent to it.
  const bool is_read_only = hub().ingest != nullptr && !hub().ingest->why_read_only().empty();
  const http_status status = is_read_only ? HTTP_STATUS_SERVICE_UNAVAILABLE : HTTP_STATUS_INSUFFICIENT_STORAGE;
  answer.text = answer_text(error_answer(status, reason), HTTP_POST, keep_alive, is_http_1_0);
}

}  // namespace metricdb
