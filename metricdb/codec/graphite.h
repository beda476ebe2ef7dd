// The plaintext protocol of Graphite as line protocol.
//
//   path value timestamp          cpu.load;host=a 0.5 1700000000.25
//   measurement,tags value=..     cpu.load,host=a value=0.5 1700000000250000000
//
// The path up to the first semicolon is the measurement, `;tag=value` behind it are tags. Timestamps are in seconds, a
// fraction counts to the nanosecond, and `-1` or `N` is the time of arrival. A line that is none is skipped.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace metricdb {

class GraphiteConverter {
 public:
  // Converts whole lines. `text()` then has those that are good, for nanoseconds, until the next call.
  void convert(std::string_view lines);

  const std::string &text() const { return text_; }
  uint64_t malformed() const { return malformed_; }            // lines of this call
  const std::string &first_reason() const { return reason_; }  // of the first of them

 private:
  bool convert_line(std::string_view line);
  bool append_path(std::string_view path);
  bool append_name(std::string_view name, bool is_measurement);
  bool append_value(std::string_view value);
  bool append_time(std::string_view time);
  bool fail(std::string_view reason);

  std::string text_;
  uint64_t malformed_ = 0;
  std::string reason_;
};

}  // namespace metricdb
