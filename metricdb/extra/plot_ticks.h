// Positions and labels of axis ticks: round values and round times.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace metricdb {

struct ValueTick {
  long double value;
  std::string label;
};

// Ticks for values from `low` to `high`, both finite: up to `max_ticks` + 2, with equal distances. The first is at or
// below `low` and the last at or above `high`, with a tolerance of a millionth of a step. Each is a multiple of 1, 2 or
// 5 times a power of ten. In long double, which holds the difference of any two doubles.
std::vector<ValueTick> value_ticks(double low, double high, int max_ticks);

struct TimeTick {
  int64_t ts_ns;
  std::string label;  // the time of day, or the day, month or year, depending on the step
  std::string date;   // if the label is a time of day: at the first tick, and where a new day begins
};

// Up to `max_ticks` ticks between `first_ns` and `last_ns`: at whole fractions of seconds, minutes, hours and days, or
// at the first days of months and years, in UTC. None if there is no such time. A single time gets one tick.
std::vector<TimeTick> time_ticks(int64_t first_ns, int64_t last_ns, int max_ticks);

}  // namespace metricdb
