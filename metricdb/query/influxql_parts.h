// What one of several servers contributes to the answer of a statement, as bytes. The answer of all is made of these parts
// by the same rules as that of one server: counts, sums, extremes and last values are exact; a percentile has all values.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "query/influxql_execute.h"
#include "query/influxql_windows.h"

namespace metricdb::influxql {

// A series. For aggregates: one series for each field of a group, with the tags of the group.
struct SeriesPart {
  SeriesName name;
  PointList points = {};
  AggregatedSeries aggregated = {};  // without aggregations: the series has points, or only its name is needed
};

// Of a statement. With an error there are no series.
struct StatementParts {
  std::vector<SeriesPart> series = {};
  std::string error = {};
};

// Of a SELECT or a SHOW about series. Throws ExecutionFailed.
std::vector<SeriesPart> parts_of(const Environment &environment, const Statement &statement);

// Writes what is returned of each statement of a request, in their order.
class PartsWriter {
 public:
  // `bytes` gets them, and lives longer.
  PartsWriter(std::string &bytes, size_t n_statements);
  // Throws AnswerTooLarge. Then the bytes are not complete.
  void add(StatementParts parts);

 private:
  std::string &bytes_;
};

std::vector<StatementParts> parts_of_bytes(std::string_view bytes);  // throws BytesDamaged

// Executes a statement on the parts of all servers. Of points with the same time in several servers the last one is used,
// in the order of the servers. Throws ExecutionFailed.
//
// environment  its source is not used
std::vector<ResultSeries> execute_on_parts(const Environment &environment, const Statement &statement,
                                           std::span<const std::vector<SeriesPart>> of_servers);

}  // namespace metricdb::influxql
