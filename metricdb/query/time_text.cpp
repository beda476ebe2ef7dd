#include "query/time_text.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <utility>

namespace metricdb {
namespace {

using std::chrono::day;
using std::chrono::days;
using std::chrono::month;
using std::chrono::sys_days;
using std::chrono::year;
using std::chrono::year_month_day;

constexpr int64_t S = 1'000'000'000;
constexpr int64_t DAY_NS = 86'400 * S;
constexpr int DECIMALS_OF_NS = 9;

constexpr std::array<std::pair<std::string_view, int64_t>, 8> UNITS = {{{"ns", 1},
                                                                        {"us", 1'000},
                                                                        {"ms", 1'000'000},
                                                                        {"s", S},
                                                                        {"m", 60 * S},
                                                                        {"h", 3'600 * S},
                                                                        {"d", DAY_NS},
                                                                        {"w", 7 * DAY_NS}}};

std::string shown(std::string_view text) {
  std::string quoted = "\"";
  for (const char byte : text.substr(0, 60)) quoted += static_cast<unsigned char>(byte) < ' ' ? '?' : byte;
  return quoted + "\"";
}

[[noreturn]] void refuse_time(std::string_view text, std::string_view why) {
  throw BadText(
      fmt::format("{} is not a time{}: expected 2026-01-02T03:04:05Z, 2026-01-02, nanoseconds since 1970, or now-15m",
                  shown(text), why));
}

[[noreturn]] void refuse_duration(std::string_view text) {
  throw BadText(
      fmt::format("{} is not a duration: expected 250ms, 10s, 1h30m or the like (ns us ms s m h d w)", shown(text)));
}

[[noreturn]] void refuse_range(std::string_view text, const char *what) {
  throw BadText(fmt::format("{}: {} is out of range: 64 bits hold 292 years of nanoseconds before and after 1970",
                            shown(text), what));
}

bool is_digit(char byte) {
  return byte >= '0' && byte <= '9';
}

// Removes `n` digits from the front.
bool read_number(std::string_view &text, size_t n, int &number) {
  number = 0;
  if (text.size() < n) return false;
  for (const char byte : text.substr(0, n)) {
    if (!is_digit(byte)) return false;
    number = number * 10 + (byte - '0');
  }
  text.remove_prefix(n);
  return true;
}

bool skip_byte(std::string_view &text, char byte) {
  if (!text.starts_with(byte)) return false;
  text.remove_prefix(1);
  return true;
}

// Removes a point and the following digits from the front, if they are there. Digits after nanoseconds are ignored.
bool read_fraction(std::string_view &text, int64_t &ns) {
  ns = 0;
  if (!skip_byte(text, '.')) return true;
  int n_digits = 0;
  for (; !text.empty() && is_digit(text.front()); text.remove_prefix(1), ++n_digits)
    if (n_digits < DECIMALS_OF_NS) ns = ns * 10 + (text.front() - '0');
  for (int i = n_digits; i < DECIMALS_OF_NS; ++i) ns *= 10;
  return n_digits != 0;
}

// Removes `03:04:05.123Z` from the front.
bool read_time_of_day(std::string_view &text, int64_t &ns) {
  int hours, minutes, seconds;
  int64_t fraction_ns;
  if (!read_number(text, 2, hours) || !skip_byte(text, ':') || !read_number(text, 2, minutes) ||
      !skip_byte(text, ':') || !read_number(text, 2, seconds) || !read_fraction(text, fraction_ns) ||
      !skip_byte(text, 'Z'))
    return false;
  ns = ((hours * 60 + minutes) * 60 + seconds) * S + fraction_ns;
  return hours < 24 && minutes < 60 && seconds < 60;
}

int64_t calendar_time_of(std::string_view text) {
  std::string_view rest = text;
  int y, m, d;
  int64_t of_day_ns = 0;
  if (!read_number(rest, 4, y) || !skip_byte(rest, '-') || !read_number(rest, 2, m) || !skip_byte(rest, '-') ||
      !read_number(rest, 2, d) || (skip_byte(rest, 'T') && !read_time_of_day(rest, of_day_ns)) || !rest.empty())
    refuse_time(text, "");
  const year_month_day date = year(y) / month(static_cast<unsigned>(m)) / day(static_cast<unsigned>(d));
  if (!date.ok()) refuse_time(text, ", the calendar has no such day");
  const std::optional<int64_t> ts_ns = time_on(date, of_day_ns);
  if (!ts_ns) refuse_range(text, "the time");
  return *ts_ns;
}

int64_t relative_time_of(std::string_view text, int64_t now_ns) {
  const std::string_view distance = text.substr(3);
  if (distance.empty()) return now_ns;
  if (distance.front() != '-' && distance.front() != '+') refuse_time(text, "");
  const int64_t distance_ns = duration_of(distance.substr(1));
  int64_t ts_ns;
  if (distance.front() == '-' ? __builtin_sub_overflow(now_ns, distance_ns, &ts_ns)
                              : __builtin_add_overflow(now_ns, distance_ns, &ts_ns))
    refuse_range(text, "the time");
  return ts_ns;
}

}  // namespace

int64_t time_of(std::string_view text, int64_t now_ns) {
  if (text.starts_with("now")) return relative_time_of(text, now_ns);
  int64_t ns = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), ns);
  if (end != text.data() + text.size() || error == std::errc::invalid_argument) return calendar_time_of(text);
  if (error == std::errc::result_out_of_range) refuse_range(text, "the time");
  return ns;
}

int64_t duration_of(std::string_view text) {
  int64_t sum_ns = 0;
  for (std::string_view rest = text; !rest.empty() || sum_ns == 0;) {
    int64_t number = 0;
    const auto [end, error] = std::from_chars(rest.data(), rest.data() + rest.size(), number);
    if (error == std::errc::result_out_of_range) refuse_range(text, "the duration");
    if (error != std::errc() || number <= 0) refuse_duration(text);
    rest.remove_prefix(static_cast<size_t>(end - rest.data()));
    // A unit ends at the next digit: "ms" is not "m" and a rest.
    const std::string_view name = rest.substr(0, std::min(rest.find_first_of("0123456789"), rest.size()));
    const auto *const unit =
        std::find_if(UNITS.begin(), UNITS.end(), [&](const auto &one) { return one.first == name; });
    if (unit == UNITS.end()) refuse_duration(text);
    int64_t part_ns;
    if (__builtin_mul_overflow(number, unit->second, &part_ns) || __builtin_add_overflow(sum_ns, part_ns, &sum_ns))
      refuse_range(text, "the duration");
    rest.remove_prefix(name.size());
  }
  return sum_ns;
}

int time_decimals(int64_t ts_ns) {
  if (ts_ns % S == 0) return 0;
  if (ts_ns % 1'000'000 == 0) return 3;
  return ts_ns % 1'000 == 0 ? 6 : 9;
}

std::optional<int64_t> time_on(sys_days date, int64_t of_day_ns) {
  // Before 1970 computed from the end of the day, because the beginning of the first representable day is not
  // representable.
  const int64_t number = date.time_since_epoch().count();
  const int64_t before_1970 = number < 0 ? 1 : 0;
  int64_t ts_ns;
  if (__builtin_mul_overflow(number + before_1970, DAY_NS, &ts_ns) ||
      __builtin_add_overflow(ts_ns, of_day_ns - before_1970 * DAY_NS, &ts_ns))
    return std::nullopt;
  return ts_ns;
}

std::string time_text(int64_t ts_ns, int decimals) {
  // Rounded down, also before 1970. The beginning of the day is not computed, because that of the first day is not
  // representable.
  const int64_t rest_ns = ts_ns % DAY_NS;
  const int64_t day_number = ts_ns / DAY_NS - (rest_ns < 0 ? 1 : 0);
  const int64_t of_day_ns = rest_ns + (rest_ns < 0 ? DAY_NS : 0);
  const year_month_day date = sys_days(days(day_number));
  std::string text = fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}", static_cast<int>(date.year()),
                                 static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                                 of_day_ns / (3'600 * S), of_day_ns / (60 * S) % 60, of_day_ns / S % 60);
  if (decimals > 0) text += fmt::format(".{:09}", of_day_ns % S).substr(0, static_cast<size_t>(decimals) + 1);
  return text + "Z";
}

}  // namespace metricdb
