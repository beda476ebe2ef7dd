// A measured value.
#pragma once

#include <tslb/tslb_decl.h>

#include <cstdint>

namespace metricdb {

struct Point {
  int64_t ts_ns;
  double value;
};
TSLB_STORED_SIZE(Point, 16);

}  // namespace metricdb
