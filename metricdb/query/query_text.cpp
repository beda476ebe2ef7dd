#include "query/query_text.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <iterator>
#include <vector>

#include "query/escape.h"
#include "query/report.h"
#include "query/time_text.h"

namespace metricdb {
namespace {

constexpr size_t SPARK_CELLS = 60;

// The maximum over all points, so that all times have the same width.
int decimals_of(std::span<const Point> points) {
  int decimals = 0;
  for (const Point &point : points) decimals = std::max(decimals, time_decimals(point.ts_ns));
  return decimals;
}

// A sparkline. Each cell is the mean of equally many finite values, in order of time.
std::string sparkline_of(std::span<const Point> points) {
  std::vector<double> values;
  for (const Point &point : points)
    if (std::isfinite(point.value)) values.push_back(point.value);
  const size_t n_cells = std::min(values.size(), SPARK_CELLS);
  std::vector<double> cells;
  for (size_t cell = 0; cell < n_cells; ++cell) {
    const size_t begin = cell * values.size() / n_cells;
    const size_t end = (cell + 1) * values.size() / n_cells;
    long double sum = 0.0L;  // its range holds the sum of any number of doubles
    for (size_t i = begin; i < end; ++i) sum += static_cast<long double>(values[i]);
    cells.push_back(static_cast<double>(sum / static_cast<long double>(end - begin)));
  }
  return sparkline(cells);
}

std::string duration_text(int64_t ns) {
  static constexpr std::pair<int64_t, const char *> UNITS[] = {{604'800'000'000'000, "w"},
                                                               {86'400'000'000'000, "d"},
                                                               {3'600'000'000'000, "h"},
                                                               {60'000'000'000, "m"},
                                                               {1'000'000'000, "s"},
                                                               {1'000'000, "ms"},
                                                               {1'000, "us"},
                                                               {1, "ns"}};
  std::string text;
  for (const auto &[unit_ns, name] : UNITS) {
    if (ns >= unit_ns) text += fmt::format("{}{}", ns / unit_ns, name);
    ns %= unit_ns;
  }
  return text;
}

// Heading of the values.
const char *value_name(const Query &query) {
  return query.every_ns == 0 ? "value" : name_of(query.fn);
}

}  // namespace

std::string title_of(const SeriesQuery &query) {
  if (query.query.every_ns == 0) return std::string(query.key);
  return fmt::format("{}, {} of {}", query.key, name_of(query.query.fn), duration_text(query.query.every_ns));
}

std::string answer_table(const SeriesQuery &query, std::span<const Point> points) {
  if (points.empty()) return fmt::format("{}\nno points\n", title_of(query));
  const int decimals = decimals_of(points);
  std::vector<std::string> values;
  size_t width = std::string_view(value_name(query.query)).size();
  for (const Point &point : points)
    width = std::max(width, values.emplace_back(fmt::format("{:.10g}", point.value)).size());
  std::string table = title_of(query) + "\n";
  const auto out = std::back_inserter(table);
  fmt::format_to(out, "{:<{}}  {:>{}}\n", "time", time_text(0, decimals).size(), value_name(query.query), width);
  for (size_t i = 0; i < points.size(); ++i)
    fmt::format_to(out, "{}  {:>{}}\n", time_text(points[i].ts_ns, decimals), values[i], width);
  const std::string spark = sparkline_of(points);
  fmt::format_to(out, "{} {}{}{}\n", points.size(), points.size() == 1 ? "point" : "points", spark.empty() ? "" : "  ",
                 spark);
  return table;
}

std::string answer_csv(const SeriesQuery &query, std::span<const Point> points) {
  const int decimals = decimals_of(points);
  std::string text = fmt::format("time,{}\r\n", csv_field(query.key));
  for (const Point &point : points)
    fmt::format_to(std::back_inserter(text), "{},{}\r\n", time_text(point.ts_ns, decimals), point.value);
  return text;
}

std::string answer_json(const SeriesQuery &query, std::span<const Point> points) {
  std::string text = fmt::format("{{\"key\": {}", json_string(query.key));
  const auto out = std::back_inserter(text);
  if (query.query.every_ns != 0)
    fmt::format_to(out, ", \"fn\": \"{}\", \"every_ns\": {}", name_of(query.query.fn), query.query.every_ns);
  text += ", \"points\": [";
  const int decimals = decimals_of(points);
  for (size_t i = 0; i < points.size(); ++i)
    fmt::format_to(out, "{}\n[\"{}\", {}]", i == 0 ? "" : ",", time_text(points[i].ts_ns, decimals),
                   std::isfinite(points[i].value) ? fmt::format("{}", points[i].value) : "null");
  return text + "]}\n";
}

}  // namespace metricdb
