// The requests of agents and clients of InfluxDB 1.x that metricdb supports.
//
//   POST /write?precision=ns|n|us|u|ms|s|m|h   lines of line protocol, plain or in gzip
//   GET, HEAD /ping                            checks the connection; the header has the version
//   GET /health                                whether points can be made durable, as JSON; 503 if not
//   GET /metrics                               the server's figures for Prometheus
//   POST /promote                              makes a follower the leader (promote_api.h)
//   POST /backup?name=NAME&db=NAME             a backup of a database (backup_api.h)
//   GET, POST /query?q=...&db=NAME             InfluxQL, also as the text of a form. GET only reads
//
// Only /write and /query have a body. `metricdb query` asks several servers with parts=true, and all with the same now=NS.
// They answer with bytes of which it makes the answer. /write has a parameter `db` too. A server with one database ignores
// it. If there are users, all but /ping and /health need a user with a right: read for /metrics and statements that read,
// write for /write, /backup, /promote and statements that change a database. The credentials are those of the parameters u
// and p, or else those of the header Authorization.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

#include "net/access.h"
#include "net/http.h"
#include "net/query_workers.h"
#include "store/ingest.h"

namespace metricdb {

struct WriteRequest {
  Precision precision = Precision::ns;  // or a multiple of s without a name: minutes and hours
  bool is_gzip = false;
  std::string database = {};
};

struct BackupRequest {
  std::string name;
  std::string database;
};

struct PromoteRequest {};

using RoutedRequest = std::variant<WriteRequest, QueryRequest, BackupRequest, PromoteRequest, HttpAnswer>;

// What the server says about itself.
struct OperatorView {
  std::function<std::string()> why_unhealthy;  // empty if it is healthy
  std::function<std::string()> warning;        // that points do not arrive on one path; empty if they do on all
  std::function<std::string()> metrics;
  std::function<std::optional<ReplicaFigures>()> replica;
};

// Requests that were answered without their effect, by the reason.
struct DeniedRequests {
  uint64_t unknown = 0, forbidden = 0, busy = 0;
};

class InfluxApi {
 public:
  InfluxApi(OperatorView view, Access &access) : view_(std::move(view)), access_(access) {}

  // Returns the write, the query or the backup to execute, or the answer to any other request.
  RoutedRequest route(const HttpRequest &request);

  // Of a request whose header is known. Returns the answer if its sender may send no body: without the right, and to the
  // paths that use none.
  std::optional<HttpAnswer> denial_of_head(const HttpRequest &request);
  // Of such a request. Returns the answer if no body can change it.
  static std::optional<HttpAnswer> answer_to_head(const HttpRequest &request);

  const DeniedRequests &denied() const { return denied_; }

 private:
  std::optional<HttpAnswer> denial(const HttpRequest &request, std::string_view arguments, Right right);
  std::string refusal(const HttpRequest &request, std::string_view arguments, Right right) const;
  RoutedRequest route_without_body(const HttpRequest &request, std::string_view path, std::string_view arguments);
  RoutedRequest query(const HttpRequest &request, std::string_view arguments);
  HttpAnswer health() const;
  HttpAnswer metrics() const;

  const OperatorView view_;
  Access &access_;
  DeniedRequests denied_;
};

// The names of the parts of a replica, for answers and metrics.
const char *role_name(ReplicaFigures::Role role);

HttpAnswer error_answer(http_status status, std::string reason);

// The answer to a write to a database that does not exist.
HttpAnswer unknown_database(const std::string &name);

// The answer to a write whose points are durable.
HttpAnswer answer_to(const IngestResult &result);

}  // namespace metricdb
