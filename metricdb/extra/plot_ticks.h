// Where an axis is marked: at round values, at round times.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace metricdb {

struct ValueTick {
  long double value;
  std::string label;
};

// Ticks for values from `low` to `high`, both finite: up to `most` + 2 of them, evenly, the first at or below `low` and
// the last at or above `high`, but for a millionth of a step, each a whole multiple of 1, 2 or 5 times a power of ten.
// In long double: it holds the distance of any two doubles.
std::vector<ValueTick> value_ticks(double low, double high, int most);

struct TimeTick {
  int64_t ts_ns;
  std::string label;  // of the time of day, or of the day, month or year if the ticks are that far apart
  std::string date;   // where the labels are of times of day: at the first tick, and where another day begins
};

// Up to `most` ticks within the times `first_ns` to `last_ns`: at whole parts of seconds, minutes, hours and days, at
// the first days of months and years, all UTC. None if no such time is within. A single time is marked as it is.
std::vector<TimeTick> time_ticks(int64_t first_ns, int64_t last_ns, int most);

}  // namespace metricdb
