// A value in the course of a computation.
#pragma once

#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>

#include "codec/point.h"

namespace metricdb::influxql {

class Number {
 public:
  // A missing value.
  Number() = default;
  // NaN is a missing value.
  explicit Number(double real)
      : kind_(std::isnan(real) ? Kind::missing : Kind::real), bits_(std::bit_cast<uint64_t>(real)) {}
  explicit Number(int64_t integer) : kind_(Kind::integer), bits_(static_cast<uint64_t>(integer)) {}

  static Number of(const Point &point, ValueType type) {
    return type == ValueType::integer ? Number(integer_of(point)) : Number(point.value);
  }

  bool is_missing() const { return kind_ == Kind::missing; }
  bool is_integer() const { return kind_ == Kind::integer; }
  int64_t integer() const { return static_cast<int64_t>(bits_); }
  // NaN if the value is missing. Integers above 2^53 are rounded.
  double real() const {
    if (kind_ == Kind::integer) return static_cast<double>(integer());
    return kind_ == Kind::real ? std::bit_cast<double>(bits_) : std::numeric_limits<double>::quiet_NaN();
  }

 private:
  enum class Kind : uint8_t { missing, real, integer };

  Kind kind_ = Kind::missing;
  uint64_t bits_ = 0;
};

}  // namespace metricdb::influxql
