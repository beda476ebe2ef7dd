// The parts of a series key, and conditions on them.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace metricdb {

// A series key "cpu,host=a,zone=b idle" taken apart, without escapes.
struct SeriesName {
  std::string measurement;
  std::vector<std::pair<std::string, std::string>> tags;  // sorted by name
  std::string field;
};

// Conditions that each wanted series fulfils. An index uses them to visit fewer series.
struct SeriesFilter {
  std::optional<std::string> measurement;
  std::optional<std::string> field;
  std::vector<std::pair<std::string, std::string>> tags;  // with exactly these values
};

// Takes the key of a series apart.
SeriesName series_name_of(std::string_view key);

}  // namespace metricdb
