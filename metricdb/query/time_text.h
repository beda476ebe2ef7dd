// Parses and formats times and durations. Times are UTC. A duration is a sum of numbers with units.
//
//   time      2026-01-02T03:04:05.123456789Z, with any number of decimals, or 2026-01-02, which is its midnight;
//             1767322800000000000, nanoseconds since 1970, also negative; now, now-15m, now+1h30m
//   duration  250ms, 10s, 1h30m: units are ns, us, ms, s, m, h, d (24 hours) and w (7 days)
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace metricdb {

// A text is not valid, or its value is out of range. The message is one line and quotes the text.
class BadText : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Nanoseconds since 1970. Throws BadText.
int64_t time_of(std::string_view text, int64_t now_ns);

// Nanoseconds, at least 1. Throws BadText.
int64_t duration_of(std::string_view text);

// Returns the time of_day_ns after the beginning of a day; none if 64 bits do not hold it. of_day_ns is less than a
// day.
std::optional<int64_t> time_on(std::chrono::sys_days date, int64_t of_day_ns);

// 2026-01-02T03:04:05.123456789Z, with 0 to 9 decimals; further decimals are cut.
std::string time_text(int64_t ts_ns, int decimals);

// The number of decimals that a time needs: 0, 3, 6 or 9.
int time_decimals(int64_t ts_ns);

}  // namespace metricdb
