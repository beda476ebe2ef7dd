// Deletes the points of some series in a range of time, in steps, so that points are stored and read meanwhile.
//
// A sealed chunk that lies in the range is deleted, and one that lies partly in it is replaced by a chunk of the other
// points. The open chunk keeps its room. A series that has no points then is forgotten as if all had been too old
// (forgetting.h). Points that arrive meanwhile are deleted if they are in the range and in a chunk that was not reached yet.
#pragma once

#include <vector>

#include "store/store.h"

namespace metricdb {

struct Erasure {
  std::vector<LiveSeries> series;  // those that exist no more are skipped
  TimeRange range = {};
  // Progress.
  size_t n_done = 0;       // series
  bool has_begun = false;  // with the next one
};

}  // namespace metricdb
