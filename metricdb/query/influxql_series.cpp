#include "query/influxql_series.h"

#include <fmt/format.h>

#include <algorithm>
#include <set>

#include "query/influxql_lexer.h"

namespace metricdb::influxql {
namespace {

constexpr size_t VISITS_OF_CHECK = 256;  // few, since a condition can have a thousand comparisons

// The values that every series has that fulfils the condition.
void collect_exact_tags(const Condition &condition, SeriesFilter &filter) {
  if (condition.kind == Condition::Kind::equal && !condition.value.empty())
    filter.tags.emplace_back(condition.tag, condition.value);
  if (condition.kind != Condition::Kind::all_of) return;
  for (const Condition &part : condition.parts) collect_exact_tags(part, filter);
}

bool is_from(const std::vector<Source> &sources, const std::string &measurement) {
  return sources.empty() || std::any_of(sources.begin(), sources.end(), [&](const Source &source) {
           return source.pattern ? source.pattern->matches(measurement) : source.measurement == measurement;
         });
}

bool has_pattern(const std::vector<Source> &sources) {
  return std::any_of(sources.begin(), sources.end(), [](const Source &source) { return source.pattern.has_value(); });
}

}  // namespace

const std::string &tag_value_of(const SeriesName &name, const std::string &tag) {
  static const std::string none;
  for (const auto &[key, value] : name.tags)
    if (key == tag) return value;
  return none;
}

bool fulfils(const Condition &condition, const SeriesName &name) {
  const auto is_fulfilled = [&](const Condition &part) { return fulfils(part, name); };
  switch (condition.kind) {
    case Condition::Kind::all_of:
      return std::all_of(condition.parts.begin(), condition.parts.end(), is_fulfilled);
    case Condition::Kind::any_of:
      return std::any_of(condition.parts.begin(), condition.parts.end(), is_fulfilled);
    case Condition::Kind::equal:
      return tag_value_of(name, condition.tag) == condition.value;
    case Condition::Kind::not_equal:
      return tag_value_of(name, condition.tag) != condition.value;
    case Condition::Kind::match:
      return condition.pattern->matches(tag_value_of(name, condition.tag));
    case Condition::Kind::no_match:
      return !condition.pattern->matches(tag_value_of(name, condition.tag));
  }
  return false;
}

bool is_interrupted(const Environment &environment) {
  return environment.is_interrupted && environment.is_interrupted();
}

void check_interruption(const Environment &environment) {
  if (is_interrupted(environment)) throw ExecutionFailed("query interrupted");
}

void for_each_matching(const Environment &environment, const std::vector<Source> &sources, const Condition &condition,
                       const std::optional<std::string> &field, const SeriesSource::Visit &visit) {
  SeriesFilter filter;
  filter.field = field;
  collect_exact_tags(condition, filter);
  size_t n_found = 0;
  size_t n_visited = 0;
  const auto visit_matching = [&](uint32_t series, const SeriesName &name) {
    if (n_visited++ % VISITS_OF_CHECK == 0) check_interruption(environment);
    if (field && name.field != *field) return;
    if (!fulfils(condition, name)) return;
    if (++n_found > environment.limits.n_series)
      throw ExecutionFailed(fmt::format("more than {} series match", environment.limits.n_series));
    visit(series, name);
  };
  if (sources.empty() || has_pattern(sources)) {
    environment.source.for_each_series(filter, [&](uint32_t series, const SeriesName &name) {
      if (is_from(sources, name.measurement)) visit_matching(series, name);
    });
    return;
  }
  std::set<std::string> measurements;
  for (const Source &source : sources) measurements.insert(source.measurement);
  for (const std::string &measurement : measurements) {
    filter.measurement = measurement;
    environment.source.for_each_series(filter, [&](uint32_t series, const SeriesName &name) {
      // A filter is a hint, and a series must not be visited for two measurements.
      if (name.measurement == measurement) visit_matching(series, name);
    });
  }
}

}  // namespace metricdb::influxql
