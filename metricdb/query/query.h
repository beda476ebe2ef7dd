// A question about the points of one series, and its answer.
//
// Points come in order of arrival, which need not be the order of their times; answers are in order of time. A value
// that is not a number stands for one that is missing: it is a point, but no function of values counts it in.
#pragma once

#include <cstdint>
#include <functional>
#include <iterator>
#include <optional>
#include <string_view>
#include <vector>

#include "codec/point.h"

namespace metricdb {

// Gives one point with each call, in order of arrival, and false behind the last.
using NextPoint = std::function<bool(Point &)>;

// What becomes of the points in one window.
enum class Fn { mean, max, min, sum, count, last };
inline constexpr const char *FN_NAMES[] = {"mean", "max", "min", "sum", "count", "last"};

inline const char *name_of(Fn fn) {
  return FN_NAMES[static_cast<int>(fn)];
}

struct Query {
  int64_t from_ns = INT64_MIN;                  // the first time that counts
  std::optional<int64_t> to_ns = std::nullopt;  // the first one that does not any more; none: all later ones count
  int64_t every_ns = 0;                         // length of a window; 0: the points themselves are the answer
  Fn fn = Fn::mean;                             // with windows only
};

// Without windows: the points in the range, those of one time in order of arrival.
// With windows: one point for each window that has points, at its begin. Windows lie end to end from 1970 on, before
// and after it; the first one that 64 bits can tell times of begins earlier, and stands at its first such time.
//   mean, max, min, sum  of the values that are numbers; not a number if there is none
//   count                of all points
//   last                 the value latest in time, and of those the one that came last
std::vector<Point> answer(const Query &query, const NextPoint &next);

}  // namespace metricdb
