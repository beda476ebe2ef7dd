// The requests of agents and clients of InfluxDB 1.x that metricdb supports.
//
//   POST /write?precision=ns|n|us|u|ms|s|m|h   lines of line protocol, plain or in gzip
//   GET, HEAD /ping                            checks the connection; the header has the version
//   GET /health                                whether points can be made durable, as JSON; 503 if not
//   GET /metrics                               the server's figures for Prometheus
//   GET, POST /query?q=...&db=NAME             InfluxQL, also as the text of a form. GET only reads
//
// /write has a parameter `db` too. A server with one database ignores it.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

#include "net/http.h"
#include "net/query_workers.h"
#include "store/ingest.h"

namespace metricdb {

struct WriteRequest {
  Precision precision = Precision::ns;  // or a multiple of s without a name: minutes and hours
  bool is_gzip = false;
  std::string database = {};
};

// What the server says about itself.
struct OperatorView {
  std::function<std::string()> why_unhealthy;  // empty if it is healthy
  std::function<std::string()> metrics;
};

class InfluxApi {
 public:
  explicit InfluxApi(OperatorView view) : view_(std::move(view)) {}

  // Returns the write or the query to execute, or the answer to any other request.
  std::variant<WriteRequest, QueryRequest, HttpAnswer> route(const HttpRequest &request);

  // The answer to a request whose header is known, if no body can change it.
  static std::optional<HttpAnswer> answer_to_head(const HttpRequest &request);

 private:
  static std::variant<WriteRequest, QueryRequest, HttpAnswer> query(const HttpRequest &request,
                                                                    std::string_view arguments);
  HttpAnswer health() const;
  HttpAnswer metrics() const;

  const OperatorView view_;
};

HttpAnswer error_answer(http_status status, std::string reason);

// The answer to a write to a database that does not exist.
HttpAnswer unknown_database(const std::string &name);

// The answer to a write whose points are durable.
HttpAnswer answer_to(const IngestResult &result);

}  // namespace metricdb
