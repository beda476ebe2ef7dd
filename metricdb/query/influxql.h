// InfluxQL: answers the text of a query as the endpoint /query of InfluxDB 1.x does. docs/metricdb.md, "Queries", lists
// the supported statements and the differences.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

#include "query/influxql_databases.h"

namespace metricdb {

struct InfluxqlRequest {
  std::string text = {};    // statements, separated by semicolons
  std::string epoch = {};   // unit of the times in the answer: ns, u, ms, s, m, h; empty: texts
  bool pretty = false;      // JSON with indentation
  bool chunked = false;     // several documents of JSON, each with rows of one series, at most chunk_size
  bool csv = false;         // CSV instead of JSON; its times are always numbers
  bool is_partial = false;  // what this server contributes to an answer of several (influxql_parts.h), instead of JSON
  size_t chunk_size = 10000;  // at least 1
  int64_t now_ns = 0;         // value of now()
  std::string database = {};  // of statements that name none
  // Why statements that only read, CREATE DATABASE, and those that change a database, are refused; empty: they are not. If
  // one of the statements is refused, none is executed.
  std::string refusal_of_reads = {}, refusal_of_creations = {}, refusal_of_changes = {};
  // Asked again and again, on any thread of the query, at least for each sealed chunk that is read. If it returns true the
  // statement fails with "query interrupted", and the others are not executed. None: nothing interrupts a query.
  std::function<bool()> is_interrupted = {};
  // The most threads that read at a time. The result does not depend on it.
  unsigned n_threads = 1;
};

struct InfluxqlAnswer {
  bool is_forbidden = false;    // by the request's refusals: HTTP 403
  bool is_bad_request = false;  // the text is not valid: HTTP 400. Errors of single statements are in the body only.
  bool is_not_found = false;    // the database of the request does not exist: HTTP 404
  std::string content_type;
  std::string body;
  std::string first_error = {};  // of a statement; empty if none has failed
};

// Executes the statements of a request. Threads: any number, if the databases allow it.
InfluxqlAnswer answer_influxql(InfluxqlDatabases &databases, const InfluxqlRequest &request);

// The same for one database that is read only. Statements can use any name for it.
//
// databases     the names that SHOW DATABASES has
// retention_ns  its retention; 0: all points stay
InfluxqlAnswer answer_influxql(const SeriesSource &source, const InfluxqlRequest &request,
                               const std::vector<std::string> &databases, int64_t retention_ns = 0);

// Answers a request from what each of several servers has returned to the same request with is_partial. Its first error is
// that of the answer.
//
// bodies  by server. Throws BytesDamaged if one is no such answer.
InfluxqlAnswer answer_of_servers(std::span<const std::string> bodies, const InfluxqlRequest &request);

// Whether the request has statements that InfluxqlRequest::refusal_of_changes refuses.
bool changes_databases(const InfluxqlRequest &request);

}  // namespace metricdb
