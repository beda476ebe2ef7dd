#include "codec/graphite.h"

#include <algorithm>
#include <charconv>
#include <cmath>

#include "codec/line_protocol.h"

namespace metricdb {
namespace {

constexpr size_t FRACTION_DIGITS = 9;
constexpr size_t MAX_SECONDS_DIGITS = 10;
// The last whole second that is representable in nanoseconds.
constexpr uint64_t MAX_SECONDS = 9'223'372'035;

bool is_blank(char byte) {
  return byte == ' ' || byte == '\t';
}

bool is_digits(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char byte) { return byte >= '0' && byte <= '9'; });
}

bool is_control(char byte) {
  return static_cast<unsigned char>(byte) < 0x20 || byte == 0x7f;
}

// Removes the next word from the front of `rest`. Returns an empty word at the end.
std::string_view next_word(std::string_view &rest) {
  size_t begin = 0;
  while (begin < rest.size() && is_blank(rest[begin])) ++begin;
  size_t end = begin;
  while (end < rest.size() && !is_blank(rest[end])) ++end;
  const std::string_view word = rest.substr(begin, end - begin);
  rest.remove_prefix(end);
  return word;
}

}  // namespace

void GraphiteConverter::convert(std::string_view lines) {
  text_.clear();
  malformed_ = 0;
  reason_.clear();
  std::string_view line;
  while (next_line(lines, line)) {
    const size_t begin = text_.size();
    if (line.empty() || convert_line(line)) continue;
    text_.resize(begin);
    ++malformed_;
  }
}

bool GraphiteConverter::fail(std::string_view reason) {
  if (reason_.empty()) reason_ = reason;
  return false;
}

bool GraphiteConverter::convert_line(std::string_view line) {
  const std::string_view path = next_word(line);
  const std::string_view value = next_word(line);
  const std::string_view time = next_word(line);
  if (time.empty() || !next_word(line).empty()) return fail("expected: path value timestamp");
  if (!append_path(path) || !append_value(value) || !append_time(time)) return false;
  text_ += '\n';
  return true;
}

bool GraphiteConverter::append_path(std::string_view path) {
  size_t end = std::min(path.find(';'), path.size());
  // Otherwise the line would be a comment in line protocol.
  if (path.starts_with('#')) return fail("the path begins with #");
  if (!append_name(path.substr(0, end), true)) return false;
  while (end < path.size()) {
    path.remove_prefix(end + 1);
    end = std::min(path.find(';'), path.size());
    const std::string_view tag = path.substr(0, end);
    const size_t equals = tag.find('=');
    if (equals == tag.npos) return fail("a tag has no value");
    text_ += ',';
    if (!append_name(tag.substr(0, equals), false)) return false;
    text_ += '=';
    if (!append_name(tag.substr(equals + 1), false)) return false;
  }
  return true;
}

bool GraphiteConverter::append_name(std::string_view name, bool is_measurement) {
  if (name.empty()) return fail("a name is empty");
  // In line protocol the backslash would escape the next byte, and cannot be escaped itself.
  if (name.ends_with('\\')) return fail("a name ends with a backslash");
  size_t copied = 0;
  for (size_t i = 0; i < name.size(); ++i) {
    if (is_control(name[i])) return fail("a name has a control character");
    if (name[i] != ',' && (name[i] != '=' || is_measurement)) continue;
    text_.append(name, copied, i - copied).append(1, '\\');
    copied = i;
  }
  text_.append(name, copied);
  return true;
}

bool GraphiteConverter::append_value(std::string_view value) {
  if (value.starts_with('+')) value.remove_prefix(1);
  double number = 0.0;
  const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), number);
  if (error != std::errc() || end != value.data() + value.size() || !std::isfinite(number))
    return fail("the value is not a finite number");
  // The text is copied, because line protocol uses the same conversion.
  text_.append(" value=").append(value);
  return true;
}

bool GraphiteConverter::append_time(std::string_view time) {
  // A point without a time gets the time of arrival.
  if (time == "-1" || time == "N") return true;
  const size_t point = std::min(time.find('.'), time.size());
  const std::string_view seconds = time.substr(0, point);
  std::string_view fraction = time.substr(std::min(point + 1, time.size()));
  if (seconds.empty() || !is_digits(seconds) || !is_digits(fraction)) return fail("the timestamp is not in seconds");
  uint64_t number = 0;
  const auto result = std::from_chars(seconds.data(), seconds.data() + seconds.size(), number);
  if (result.ec != std::errc() || seconds.size() > MAX_SECONDS_DIGITS || number > MAX_SECONDS)
    return fail("the timestamp is out of range");
  fraction = fraction.substr(0, FRACTION_DIGITS);
  text_.append(1, ' ').append(seconds).append(fraction).append(FRACTION_DIGITS - fraction.size(), '0');
  return true;
}

}  // namespace metricdb
