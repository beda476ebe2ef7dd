// Formats of a result: a table, CSV and JSON.
#pragma once

#include <span>
#include <string>
#include <string_view>

#include "query/query.h"

namespace metricdb {

// The query and its series.
struct SeriesQuery {
  std::string_view key;
  Query query;
};

// Aligned times and values, their number, and a sparkline. Values have up to ten digits.
std::string answer_table(const SeriesQuery &query, std::span<const Point> points);

// RFC 4180, with the first line `time,KEY`. Values have all digits; special values are nan, inf and -inf.
std::string answer_csv(const SeriesQuery &query, std::span<const Point> points);

// {"key": KEY, "fn": "mean", "every_ns": 60000000000, "points": [["2026-01-02T03:04:05Z", 1.5], ...]}, with line ends;
// fn and every_ns with windows only. Values have all digits; a value that is not finite is null.
std::string answer_json(const SeriesQuery &query, std::span<const Point> points);

// A heading: the key, and with windows their function and length.
std::string title_of(const SeriesQuery &query);

}  // namespace metricdb
