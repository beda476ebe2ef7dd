#include "query/influxql_windows.h"

#include <algorithm>
#include <cmath>
#include <tuple>

namespace metricdb::influxql {
namespace {

// Replaces the selected value by the first point that is better.
template <class Cell, class IsBetter>
void select_point(Cell &cell, std::span<const Point> points, IsBetter is_better) {
  Point best{cell.ts_ns, cell.a};
  if (cell.n == 0) best = points[0];
  for (const Point &point : points)
    if (is_better(point, best)) best = point;
  cell.a = best.value;
  cell.ts_ns = best.ts_ns;
}

// Of points with the same value, the earliest is selected. Of points with the same time, that with the greater value.
bool is_smaller(const Point &a, const Point &b) {
  return a.value < b.value || (a.value == b.value && a.ts_ns < b.ts_ns);
}

bool is_greater(const Point &a, const Point &b) {
  return a.value > b.value || (a.value == b.value && a.ts_ns < b.ts_ns);
}

bool is_earlier(const Point &a, const Point &b) {
  return a.ts_ns < b.ts_ns || (a.ts_ns == b.ts_ns && a.value > b.value);
}

bool is_later(const Point &a, const Point &b) {
  return a.ts_ns > b.ts_ns || (a.ts_ns == b.ts_ns && a.value > b.value);
}

template <class Cell>
void add_sum(Cell &cell, std::span<const Point> points) {
  double sum = cell.a;
  for (const Point &point : points) sum += point.value;
  cell.a = sum;
}

template <class Cell>
void add_range(Cell &cell, std::span<const Point> points) {
  double min = cell.n == 0 ? points[0].value : cell.a;
  double max = cell.n == 0 ? points[0].value : cell.b;
  for (const Point &point : points) {
    min = std::min(min, point.value);
    max = std::max(max, point.value);
  }
  cell.a = min;
  cell.b = max;
}

// Welford's method: a difference of sums of squares would lose all digits of large values.
template <class Cell>
void add_deviations(Cell &cell, std::span<const Point> points) {
  uint64_t n = cell.n;
  for (const Point &point : points) {
    const double distance = point.value - cell.a;
    cell.a += distance / static_cast<double>(++n);
    cell.b += distance * (point.value - cell.a);
  }
}

}  // namespace

int64_t WindowGrid::number_of(int64_t ts_ns) const {
  if (every_ns_ == 0) return 0;
  const int64_t rest_ns = ts_ns % every_ns_;
  const bool is_before = rest_ns < 0;  // the division rounds towards zero
  const int64_t into_ns = rest_ns + (is_before ? every_ns_ : 0);
  return ts_ns / every_ns_ - (is_before ? 1 : 0) - (into_ns < offset_ns_ ? 1 : 0);
}

int64_t WindowGrid::begin_of(int64_t number) const {
  // Wraps around if the beginning of the first window is not representable. Then the result is not negative.
  const uint64_t wrapped = static_cast<uint64_t>(number) * static_cast<uint64_t>(every_ns_);
  const auto begin_ns = static_cast<int64_t>(wrapped + static_cast<uint64_t>(offset_ns_));
  return number < 0 && begin_ns >= 0 ? INT64_MIN : begin_ns;
}

size_t WindowGrid::length_of_run(std::span<const Point> points) const {
  if (every_ns_ == 0) return points.size();
  const int64_t rest_ns = points[0].ts_ns % every_ns_;
  int64_t into_ns = rest_ns + (rest_ns < 0 ? every_ns_ : 0) - offset_ns_;
  if (into_ns < 0) into_ns += every_ns_;
  // Differences of times in order do not fit into the signed type, but do into the unsigned one.
  const auto first = static_cast<uint64_t>(points[0].ts_ns);
  const auto left_ns = static_cast<uint64_t>(every_ns_ - into_ns);
  size_t length = 1;
  while (length < points.size() && static_cast<uint64_t>(points[length].ts_ns) - first < left_ns) ++length;
  return length;
}

void Aggregation::extend(size_t n_before, size_t n_after) {
  cells_.insert(cells_.begin(), n_before, Cell());
  cells_.resize(cells_.size() + n_after);
  if (!keeps_points()) return;
  kept_.insert(kept_.begin(), n_before, {});
  kept_.resize(kept_.size() + n_after);
}

void Aggregation::add(size_t window, std::span<const Point> points) {
  if (points.empty()) return;
  Cell &cell = cells_[window];
  switch (function_) {
    case Function::sum:
    case Function::mean:
      add_sum(cell, points);
      break;
    case Function::min:
      select_point(cell, points, is_smaller);
      break;
    case Function::max:
      select_point(cell, points, is_greater);
      break;
    case Function::first:
      select_point(cell, points.first(1), is_earlier);
      break;
    case Function::last:
      select_point(cell, points.last(1), is_later);
      break;
    case Function::spread:
      add_range(cell, points);
      break;
    case Function::stddev:
      add_deviations(cell, points);
      break;
    case Function::percentile:
      kept_[window].insert(kept_[window].end(), points.begin(), points.end());
      break;
    default:
      break;  // a count has the number only
  }
  cell.n += points.size();
}

std::optional<Point> Aggregation::result(size_t window) {
  const Cell &cell = cells_[window];
  const auto n = static_cast<double>(cell.n);
  if (cell.n == 0) return std::nullopt;
  switch (function_) {
    case Function::count:
      return Point{0, n};
    case Function::mean:
      return Point{0, cell.a / n};
    case Function::spread:
      return Point{0, cell.b - cell.a};
    case Function::stddev:
      if (cell.n < 2) return std::nullopt;
      return Point{0, std::sqrt(cell.b / (n - 1.0))};
    case Function::percentile:
      return percentile_of(kept_[window]);
    default:
      return Point{cell.ts_ns, cell.a};
  }
}

// The nearest rank, rounded as InfluxDB does.
std::optional<Point> Aggregation::percentile_of(std::vector<Point> &points) const {
  const double rank = std::floor(static_cast<double>(points.size()) * percent_ / 100.0 + 0.5) - 1.0;
  if (rank < 0.0 || rank >= static_cast<double>(points.size())) return std::nullopt;
  const auto at = points.begin() + static_cast<ptrdiff_t>(rank);
  std::nth_element(points.begin(), at, points.end(), [](const Point &a, const Point &b) {
    return std::tie(a.value, a.ts_ns) < std::tie(b.value, b.ts_ns);
  });
  return *at;
}

}  // namespace metricdb::influxql
