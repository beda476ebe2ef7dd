// Converts the plaintext protocol of Graphite to line protocol.
//
//   path value timestamp          cpu.load;host=a 0.5 1700000000.25
//   measurement,tags value=..     cpu.load,host=a value=0.5 1700000000250000000
//
// The path up to the first semicolon is the measurement, and each `;tag=value` after it is a tag. Timestamps are in
// seconds, with a precision of a nanosecond. `-1` or `N` means the time of arrival. Malformed lines are skipped.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace metricdb {

class GraphiteConverter {
 public:
  // Converts complete lines. Afterwards `text()` contains the valid lines, for nanoseconds, until the next call. A tag that
  // is given twice is left to the parser of line protocol, and so is a path that begins with '#', a comment there.
  void convert(std::string_view lines);

  const std::string &text() const { return text_; }
  uint64_t malformed() const { return malformed_; }            // lines of the last call
  const std::string &first_reason() const { return reason_; }  // for the first malformed line

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
