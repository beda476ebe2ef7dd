// A second parser for line protocol, for checks. It is simple and shares no code with line_protocol.h, so that a fault
// of one of them shows as a difference.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace metricdb {

struct ReferencePoint {
  std::string key;
  int64_t ts_ns;
  double value;
  std::optional<int64_t> integer = {};  // the value, if it is written as an integer
};

// Removes the next line from the front of `text`, and sets `line` without its line end. Returns false at the end.
bool next_reference_line(std::string_view &text, std::string_view &line);

// Returns the points of one line, in its order; none for an empty line, a comment or a malformed line.
//
// ns_per_unit  of the timestamps.
// now_ns       the time of a line without a timestamp.
std::vector<ReferencePoint> reference_points(std::string_view line, int64_t ns_per_unit, int64_t now_ns);

}  // namespace metricdb
