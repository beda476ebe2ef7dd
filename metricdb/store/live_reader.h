// Reads the points of one series on any thread, while the store's own thread adds and deletes points.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "store/store.h"

namespace metricdb {

enum class LiveRead {
  all,
  newest,  // may leave out points that are older than the newest one
  type     // no points
};

// Asked for the time span of points; true if a summary of them is enough.
using IsSummaryEnough = std::function<bool(int64_t oldest_ns, int64_t newest_ns)>;

// Sets `list` to the visible points of the series in the range, in order of arrival: those of one moment between call and
// return, perhaps not durable yet. Returns false, with no points, if the series does not exist any more.
//
// goes_on  asked after each sealed chunk with the number of points so far; if it returns false the reading ends, and `list`
//          has any points. Not called without one.
// is_summary_enough
//          with one, the list gets summaries where it can, in place of points: of chunks that lie in the range and share no
//          time with other points of the series.
//
// It takes no lock, unless what it reads was moved many times meanwhile; then it holds the lock of `changes` for this
// series, for which the store's thread can wait.
bool read_live(const Store &store, const LiveSeries &which, const TimeRange &range, PointList &list,
               LiveRead what = LiveRead::all, const std::function<bool(size_t n_points)> &goes_on = {},
               const IsSummaryEnough &is_summary_enough = {});

// Attempts that had to be repeated, and those that took the lock, of all threads since the process began.
struct LiveReadCounts {
  uint64_t repeated;
  uint64_t locked;
};
LiveReadCounts live_read_counts();

}  // namespace metricdb
