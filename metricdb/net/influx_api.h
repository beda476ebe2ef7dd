// The requests of agents and clients of InfluxDB 1.x that metricdb supports.
//
//   POST /write?precision=ns|n|us|u|ms|s|m|h   lines of line protocol, plain or in gzip
//   GET, HEAD /ping                            checks the connection; the header has the version
//   GET /health                                the same, as JSON
//   GET, POST /query?q=...                     InfluxQL, also as the text of a form. CREATE DATABASE is accepted
//
// There is one database. The parameter `db` is ignored.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <variant>

#include "net/http.h"
#include "net/query_workers.h"
#include "store/ingest.h"

namespace metricdb {

struct WriteRequest {
  Precision precision = Precision::ns;  // or a multiple of s without a name: minutes and hours
  bool is_gzip = false;
};

class InfluxApi {
 public:
  // Returns the write or the query to execute, or the answer to any other request.
  std::variant<WriteRequest, QueryRequest, HttpAnswer> route(const HttpRequest &request);

  // The answer to a request whose header is known, if no body can change it.
  static std::optional<HttpAnswer> answer_to_head(const HttpRequest &request);

 private:
  std::variant<WriteRequest, QueryRequest, HttpAnswer> query(const HttpRequest &request, std::string_view arguments);

  std::set<std::string> databases_{"metricdb"};  // names that clients have created
};

HttpAnswer error_answer(http_status status, std::string reason);

// The answer to a write whose points are durable.
HttpAnswer answer_to(const IngestResult &result);

}  // namespace metricdb
