#include "query/query.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <map>

namespace metricdb {
namespace {

// Aggregates the points of one window.
class Window {
 public:
  void add(const Point &point) {
    if (n_points_ == 0 || point.ts_ns >= last_.ts_ns) last_ = point;
    ++n_points_;
    if (std::isnan(point.value)) return;
    min_ = n_numbers_ == 0 ? point.value : std::min(min_, point.value);
    max_ = n_numbers_ == 0 ? point.value : std::max(max_, point.value);
    sum_ += static_cast<long double>(point.value);
    ++n_numbers_;
  }

  double value(Fn fn) const {
    if (fn == Fn::count) return static_cast<double>(n_points_);
    if (fn == Fn::last) return last_.value;
    if (n_numbers_ == 0) return std::numeric_limits<double>::quiet_NaN();
    if (fn == Fn::min) return min_;
    if (fn == Fn::max) return max_;
    return static_cast<double>(fn == Fn::sum ? sum_ : sum_ / static_cast<long double>(n_numbers_));
  }

 private:
  uint64_t n_points_ = 0;
  uint64_t n_numbers_ = 0;
  Point last_{};
  double min_ = 0.0;
  double max_ = 0.0;
  long double sum_ = 0.0L;  // its range holds the sum of any number of doubles, so a mean is between its values
};

bool is_in_range(const Query &query, int64_t ts_ns) {
  return ts_ns >= query.from_ns && (!query.to_ns || ts_ns < *query.to_ns);
}

// Rounded down, also before 1970.
int64_t window_number(int64_t ts_ns, int64_t every_ns) {
  return ts_ns / every_ns - (ts_ns % every_ns < 0 ? 1 : 0);
}

int64_t window_begin(int64_t number, int64_t every_ns) {
  int64_t begin_ns;
  return __builtin_mul_overflow(number, every_ns, &begin_ns) ? INT64_MIN : begin_ns;
}

std::vector<Point> points_in_range(const Query &query, const NextPoint &next) {
  std::vector<Point> points;
  for (Point point; next(point);)
    if (is_in_range(query, point.ts_ns)) points.push_back(point);
  const auto is_earlier = [](const Point &a, const Point &b) { return a.ts_ns < b.ts_ns; };
  if (!std::is_sorted(points.begin(), points.end(), is_earlier))
    std::stable_sort(points.begin(), points.end(), is_earlier);
  return points;
}

std::vector<Point> windows_in_range(const Query &query, const NextPoint &next) {
  std::map<int64_t, Window> windows;
  auto current = windows.end();
  for (Point point; next(point);) {
    if (!is_in_range(query, point.ts_ns)) continue;
    const int64_t number = window_number(point.ts_ns, query.every_ns);
    // Usually the window of the previous point.
    if (current == windows.end() || current->first != number) current = windows.try_emplace(number).first;
    current->second.add(point);
  }
  std::vector<Point> points;
  for (const auto &[number, window] : windows)
    points.push_back({window_begin(number, query.every_ns), window.value(query.fn)});
  return points;
}

}  // namespace

std::vector<Point> answer(const Query &query, const NextPoint &next) {
  return query.every_ns == 0 ? points_in_range(query, next) : windows_in_range(query, next);
}

}  // namespace metricdb
