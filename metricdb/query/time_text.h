// Times and durations as people write and read them. Times are UTC; a duration is a sum of numbers with their units.
//
//   time      2026-01-02T03:04:05.123456789Z, with as many decimals as one likes, or 2026-01-02, which is its midnight;
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

// A text is none of the above, or what it says is out of range: the message is one line, and says which text.
class BadText : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Nanoseconds since 1970. Throws BadText.
int64_t time_of(std::string_view text, int64_t now_ns);

// Nanoseconds, 1 at least. Throws BadText.
int64_t duration_of(std::string_view text);

// The time that is so long after the begin of a day, less than a day; none if 64 bits do not hold it.
std::optional<int64_t> time_on(std::chrono::sys_days date, int64_t of_day_ns);

// 2026-01-02T03:04:05.123456789Z, with that many decimals (0 to 9; those behind them are cut off).
std::string time_text(int64_t ts_ns, int decimals);

// The decimals that a time needs: 0, 3, 6 or 9.
int time_decimals(int64_t ts_ns);

}  // namespace metricdb
