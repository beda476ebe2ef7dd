#include "extra/plot_ticks.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <optional>

#include "query/time_text.h"

namespace metricdb {
namespace {

constexpr int64_t US = 1'000;
constexpr int64_t MS = 1'000 * US;
constexpr int64_t S = 1'000 * MS;
constexpr int64_t M = 60 * S;
constexpr int64_t H = 60 * M;
constexpr int64_t D = 24 * H;

// Steps that divide a day, and steps of some days. Longer steps follow the calendar.
constexpr int64_t STEPS_NS[] = {
    1,        2,        5,        10,       20,       50,       100,    200,    500,    US,      2 * US,  5 * US,
    10 * US,  20 * US,  50 * US,  100 * US, 200 * US, 500 * US, MS,     2 * MS, 5 * MS, 10 * MS, 20 * MS, 50 * MS,
    100 * MS, 200 * MS, 500 * MS, S,        2 * S,    5 * S,    10 * S, 15 * S, 30 * S, M,       2 * M,   5 * M,
    10 * M,   15 * M,   30 * M,   H,        2 * H,    3 * H,    6 * H,  12 * H, D,      2 * D,   5 * D,   10 * D};
constexpr int STEPS_MONTHS[] = {1, 2, 3, 6, 12, 24, 60, 120, 240, 600, 1200};

uint64_t distance(int64_t from, int64_t to) {
  return static_cast<uint64_t>(to) - static_cast<uint64_t>(from);
}

// The smallest step of 1, 2 or 5 times a power of ten so that at max_ticks `max_steps` cover the height.
long double value_step(long double height, int max_steps) {
  const long double min_step = height / static_cast<long double>(max_steps);
  const long double power = std::pow(10.0L, std::floor(std::log10(min_step)));
  for (const int factor : {1, 2, 5})
    if (power * factor >= min_step) return power * factor;
  return power * 10;
}

std::string value_label(long double value, long double step, long double largest) {
  const int step_digit = static_cast<int>(std::floor(std::log10(step) + 1e-9L));
  if (largest < 1e7L && step_digit > -6) return fmt::format("{:.{}f}", value, std::max(0, -step_digit));
  const int first_digit = static_cast<int>(std::floor(std::log10(largest)));
  return fmt::format("{:.{}g}", value, std::clamp(first_digit - step_digit + 1, 1, 17));
}

std::string time_label(int64_t ts_ns, int64_t step_ns) {
  const std::string text = time_text(ts_ns, 9);
  if (step_ns >= D) return text.substr(0, 10);
  if (step_ns >= M) return text.substr(11, 5);
  return text.substr(11, 8 + (step_ns >= S ? 0 : 1 + static_cast<size_t>(time_decimals(step_ns))));
}

TimeTick one_time(int64_t ts_ns) {
  const std::string text = time_text(ts_ns, time_decimals(ts_ns));
  return {ts_ns, text.substr(11, text.size() - 12), text.substr(0, 10)};
}

std::vector<TimeTick> even_ticks(int64_t first_ns, int64_t last_ns, int64_t step_ns) {
  std::vector<TimeTick> ticks;
  const int64_t rest_ns = first_ns % step_ns;
  const uint64_t offset_ns = rest_ns > 0 ? static_cast<uint64_t>(step_ns - rest_ns) : static_cast<uint64_t>(-rest_ns);
  std::string day;
  for (uint64_t at = offset_ns; at <= distance(first_ns, last_ns); at += static_cast<uint64_t>(step_ns)) {
    const auto ts_ns = static_cast<int64_t>(static_cast<uint64_t>(first_ns) + at);
    const std::string day_here = step_ns < D ? time_text(ts_ns, 0).substr(0, 10) : "";
    ticks.push_back({ts_ns, time_label(ts_ns, step_ns), day_here == day ? "" : day_here});
    day = day_here;
  }
  return ticks;
}

// Number of the month since the year 0.
int month_of(int64_t ts_ns) {
  const std::string text = time_text(ts_ns, 0);
  return std::stoi(text.substr(0, 4)) * 12 + std::stoi(text.substr(5, 2)) - 1;
}

std::vector<TimeTick> month_ticks(int64_t first_ns, int64_t last_ns, int step) {
  std::vector<TimeTick> ticks;
  for (int month = month_of(first_ns) / step * step; month <= month_of(last_ns); month += step) {
    const std::string label = fmt::format("{:04}-{:02}", month / 12, month % 12 + 1);
    const std::chrono::sys_days begin(std::chrono::year(month / 12) /
                                      std::chrono::month(static_cast<unsigned>(month % 12 + 1)) / 1);
    const std::optional<int64_t> ts_ns = time_on(begin, 0);
    if (!ts_ns || *ts_ns < first_ns || *ts_ns > last_ns) continue;
    ticks.push_back({*ts_ns, step % 12 == 0 ? label.substr(0, 4) : label, ""});
  }
  return ticks;
}

}  // namespace

std::vector<ValueTick> value_ticks(double low, double high, int max_ticks) {
  long double bottom = low;
  long double top = high;
  if (bottom == top) {
    // A constant line is in the middle.
    const long double margin = low == 0.0 ? 1.0L : std::fabs(bottom) / 10;
    bottom -= margin;
    top += margin;
  }
  const long double step = value_step(top - bottom, max_ticks);
  // Tolerance for rounding errors of the steps.
  constexpr long double TOLERANCE = 1e-6L;
  const long double first = std::floor(bottom / step + TOLERANCE);
  const auto n_steps = static_cast<int>(std::ceil(top / step - TOLERANCE) - first);
  const long double largest = std::max(std::fabs(bottom), std::fabs(top));
  std::vector<ValueTick> ticks;
  for (int i = 0; i <= n_steps; ++i)
    ticks.push_back({(first + i) * step, value_label((first + i) * step, step, largest)});
  return ticks;
}

std::vector<TimeTick> time_ticks(int64_t first_ns, int64_t last_ns, int max_ticks) {
  const uint64_t length_ns = distance(first_ns, last_ns);
  if (length_ns == 0) return {one_time(first_ns)};
  for (const int64_t step_ns : STEPS_NS)
    if (length_ns / static_cast<uint64_t>(step_ns) < static_cast<uint64_t>(max_ticks))
      return even_ticks(first_ns, last_ns, step_ns);
  for (const int step : STEPS_MONTHS)
    if ((month_of(last_ns) - month_of(first_ns)) / step < max_ticks) return month_ticks(first_ns, last_ns, step);
  return {};
}

}  // namespace metricdb
