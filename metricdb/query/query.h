// Queries the points of one series.
//
// Points arrive in order of arrival, which can differ from the order of their times. Results are in order of time. NaN
// means a missing value: it is a point, but functions of values ignore it.
#pragma once

#include <cstdint>
#include <functional>
#include <iterator>
#include <optional>
#include <string_view>
#include <vector>

#include "codec/point.h"

namespace metricdb {

// Sets the next point in order of arrival. Returns false after the last one.
using NextPoint = std::function<bool(Point &)>;

// Functions of the points in one window.
enum class Fn { mean, max, min, sum, count, last };
inline constexpr const char *FN_NAMES[] = {"mean", "max", "min", "sum", "count", "last"};

inline const char *name_of(Fn fn) {
  return FN_NAMES[static_cast<int>(fn)];
}

struct Query {
  int64_t from_ns = INT64_MIN;                  // the first time in the range
  std::optional<int64_t> to_ns = std::nullopt;  // the first time after the range; none: no limit
  int64_t every_ns = 0;                         // length of a window; 0: no windows, the points themselves
  Fn fn = Fn::mean;                             // used with windows only
};

// Without windows: the points in the range; points with the same time stay in order of arrival. With windows: one point
// for each window that has points, at the beginning of the window. Windows are consecutive, and one begins at 1970. The
// first window that contains representable times is placed at the minimum time.
//   mean, max, min, sum  of the values that are not NaN; NaN if there is none
//   count                of all points
//   last                 the value with the latest time; of several, the last to arrive
std::vector<Point> answer(const Query &query, const NextPoint &next);

}  // namespace metricdb
