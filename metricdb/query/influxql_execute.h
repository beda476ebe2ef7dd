// Answers statements from a source of series.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

#include "query/influxql_ast.h"
#include "query/influxql_table.h"
#include "query/series_source.h"

namespace metricdb::influxql {

// Maxima for one statement. A statement that exceeds one throws ExecutionFailed.
struct Limits {
  size_t n_series = 1'000'000;   // that fulfil its condition
  uint64_t n_windows = 100'000;  // of GROUP BY time, in each result series
  size_t n_cells = 5'000'000;    // of its result, without the times
  size_t n_points = 20'000'000;  // that are in memory at a time: of a series, for percentiles, for derivatives
};

struct Environment {
  const SeriesSource &source;
  std::span<const std::string> databases;  // for SHOW DATABASES
  int64_t now_ns = 0;
  Limits limits = {};
  std::function<bool()> is_interrupted = {};
  unsigned n_threads = 1;
};

bool is_interrupted(const Environment &environment);

// Throws ExecutionFailed if the query is interrupted.
void check_interruption(const Environment &environment);

// Throws ExecutionFailed.
std::vector<ResultSeries> execute(const Environment &environment, const Statement &statement);

}  // namespace metricdb::influxql
