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

// Points of one type.
struct PointList {
  ValueType type = ValueType::real;
  std::vector<Point> points = {};

  // Rounds integers above 2^53.
  void make_real() {
    for (Point &point : points) point.value = real_of(point, type);
    type = ValueType::real;
  }
};

}  // namespace metricdb
