// Deletes the points of some series in a range of time, in steps, so that points are stored and read meanwhile.
//
// A sealed chunk that lies in the range is deleted, and one that lies partly in it is replaced by a chunk of the other
// points. The open chunk keeps its room. A series that has no points then is forgotten as if all had been too old
// (forgetting.h). Points that arrive meanwhile are deleted if they are in the range and in a chunk that was not reached yet.
#pragma once

#include <memory>
#include <vector>

#include "store/store.h"

namespace metricdb {

struct Erasure {
  std::vector<LiveSeries> series;  // those that exist no more are skipped
  TimeRange range = {};
  // Progress: series, and the place in the next one, if it has begun. While the place exists, that series is not joined,
  // packed or moved.
  size_t n_done = 0;
  std::shared_ptr<ChainPlace> place = {};
};

}  // namespace metricdb
