// A measured value.
#pragma once

#include <tslb/tslb_decl.h>

#include <bit>
#include <cstdint>
#include <vector>

namespace metricdb {

struct Point {
  int64_t ts_ns;
  double value;  // in a series of integers: the bits of an int64_t
};
TSLB_STORED_SIZE(Point, 16);

// All values of a series have one type.
enum class ValueType : uint8_t { real, integer };

inline int64_t integer_of(const Point &point) {
  return std::bit_cast<int64_t>(point.value);
}

inline Point integer_point(int64_t ts_ns, int64_t value) {
  return {ts_ns, std::bit_cast<double>(value)};
}

inline double real_of(const Point &point, ValueType type) {
  return type == ValueType::integer ? static_cast<double>(integer_of(point)) : point.value;
}

// Several points of one type with different times, at least one.
struct PointSummary {
  uint64_t n;
  Point first, last;  // in time
  Point min, max;     // the earliest of those with this value
  double sum;         // in a series of integers: the bits of an int64_t, which has not wrapped
};

// Points of one type.
struct PointList {
  ValueType type = ValueType::real;
  std::vector<Point> points = {};
  std::vector<PointSummary> summaries = {};  // of further points

  bool is_empty() const { return points.empty() && summaries.empty(); }

  // Rounds integers above 2^53.
  void make_real() {
    const auto convert = [this](Point &point) { point.value = real_of(point, type); };
    for (Point &point : points) convert(point);
    for (PointSummary &summary : summaries) {
      for (Point *const point : {&summary.first, &summary.last, &summary.min, &summary.max}) convert(*point);
      summary.sum = real_of({0, summary.sum}, type);
    }
    type = ValueType::real;
  }
};

}  // namespace metricdb
