// Answers SHOW statements.
#pragma once

#include <vector>

#include "query/influxql_execute.h"

namespace metricdb::influxql {

// Throws ExecutionFailed.
std::vector<ResultSeries> execute_show(const Environment &environment, const ShowStatement &show);

}  // namespace metricdb::influxql
