// Reads the points of one series on any thread, while the store's own thread adds and deletes points.
#pragma once

#include <cstdint>
#include <vector>

#include "store/store.h"

namespace metricdb {

enum class LiveRead {
  all,
  newest  // may leave out points that are older than the newest one
};

// Appends the visible points of the series in the range to `points`, in order of arrival: those of one moment between call
// and return, perhaps not durable yet. Nothing if the series does not exist any more.
//
// It takes no lock, unless what it reads was moved many times meanwhile; then it holds the lock of `changes` for this
// series, for which the store's thread can wait.
void read_live(const Store &store, const LiveSeries &which, const TimeRange &range, std::vector<Point> &points,
               LiveRead what = LiveRead::all);

// Attempts that had to be repeated, and those that took the lock, of all threads since the process began.
struct LiveReadCounts {
  uint64_t repeated;
  uint64_t locked;
};
LiveReadCounts live_read_counts();

}  // namespace metricdb
