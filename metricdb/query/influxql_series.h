// The series that a statement is about.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "query/influxql_execute.h"

namespace metricdb::influxql {

// Returns the value of a tag; empty if the series does not have it.
const std::string &tag_value_of(const SeriesName &name, const std::string &tag);

bool fulfils(const Condition &condition, const SeriesName &name);

// Visits the series of these measurements, or of all if there are none, that fulfil the condition. `field`: only series
// of this field. Throws ExecutionFailed.
void for_each_matching(const Environment &environment, const std::vector<Source> &sources, const Condition &condition,
                       const std::optional<std::string> &field, const SeriesSource::Visit &visit);

struct FoundSeries {
  uint32_t series;
  SeriesName name;
};

using SeriesByMeasurement = std::map<std::string, std::vector<FoundSeries>>;

}  // namespace metricdb::influxql
