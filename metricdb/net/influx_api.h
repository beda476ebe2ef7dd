// What agents and clients of InfluxDB 1.x ask for, as far as a store of lines can say something to it.
//
//   POST /write?precision=ns|n|us|u|ms|s|m|h   lines of line protocol, plain or in gzip
//   GET, HEAD /ping                            whether we are there, and our version
//   GET /health                                the same in words
//   GET, POST /query?q=...                     CREATE DATABASE and SHOW DATABASES; an error in the answer for others
//
// There is one database: a name given by `db` is neither asked for nor looked up.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <variant>

#include "net/http.h"
#include "store/ingest.h"

namespace metricdb {

struct WriteRequest {
  Precision precision = Precision::ns;  // or a multiple of s that has no name: minutes and hours
  bool is_gzip = false;
};

class InfluxApi {
 public:
  // A write that may be done, or the answer to any other request.
  std::variant<WriteRequest, HttpAnswer> route(const HttpRequest &request);

  // Of a request of which only the head is known: the answer that no body could change, if there is one.
  static std::optional<HttpAnswer> answer_to_head(const HttpRequest &request);

 private:
  HttpAnswer query(const HttpRequest &request, std::string_view arguments);
  std::string run_statement(std::string_view statement);

  std::set<std::string> databases_{"metricdb"};  // names that clients have used
};

HttpAnswer error_answer(http_status status, std::string reason);

// To a write whose points are durable.
HttpAnswer answer_to(const IngestResult &taken);

}  // namespace metricdb
