// A second reader of line protocol, for checks: written for plainness, with no code and no shortcut of the
// parser in line_protocol.h, so that a fault of either shows as a difference between them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace metricdb {

struct ReferencePoint {
  std::string key;
  int64_t ts_ns;
  double value;
};

// The points of one line, in its order: none for a blank line, a comment or a malformed one.
//
// ns_per_unit  of the timestamp.
// now_ns       the time if the line brings none.
std::vector<ReferencePoint> reference_points(std::string_view line, int64_t ns_per_unit, int64_t now_ns);

}  // namespace metricdb
