// InfluxQL: answers the text of a query as the endpoint /query of InfluxDB 1.x does. docs/metricdb.md, "Queries", lists
// the supported statements and the differences.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "query/series_source.h"

namespace metricdb {

struct InfluxqlRequest {
  std::string text = {};      // statements, separated by semicolons
  std::string epoch = {};     // unit of the times in the answer: ns, u, ms, s, m, h; empty: texts
  bool pretty = false;        // JSON with indentation
  bool chunked = false;       // several documents of JSON, each with rows of one series, at most chunk_size
  bool csv = false;           // CSV instead of JSON; its times are always numbers
  size_t chunk_size = 10000;  // at least 1
  int64_t now_ns = 0;         // value of now()
  // Asked again and again, on any thread of the query, at least for each sealed chunk that is read. If it returns true the
  // statement fails with "query interrupted", and the others are not executed. None: nothing interrupts a query.
  std::function<bool()> is_interrupted = {};
  // The most threads that read at a time. The result does not depend on it.
  unsigned n_threads = 1;
};

struct InfluxqlAnswer {
  bool is_bad_request = false;  // the text is not valid: HTTP 400. Errors of single statements are in the body only.
  std::string content_type;
  std::string body;
};

// databases  the names of all; the first is not special
// Threads    any number, if the source allows it
InfluxqlAnswer answer_influxql(const SeriesSource &source, const InfluxqlRequest &request,
                               const std::vector<std::string> &databases);

}  // namespace metricdb
