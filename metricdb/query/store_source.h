// The series of a store that is live (Store::go_live), also while its own thread changes it.
#pragma once

#include <unordered_map>

#include "query/series_source.h"
#include "store/live_reader.h"

namespace metricdb {

// One for each query. A series that was visited is read as that one: nothing if its number belongs
// to another series now.
class StoreSource : public SeriesSource {
 public:
  explicit StoreSource(const Store &store) : store_(store) {}

  void for_each_series(const SeriesFilter &filter, const Visit &visit) const override;
  void read(uint32_t series, const SeriesRead &what, PointList &list) const override;
  std::optional<ValueType> type(uint32_t series) const override;

  // Of a number that was visited.
  LiveSeries live_series(uint32_t series) const { return {series, stamps_.at(series)}; }

 private:
  bool read_as(LiveRead how, uint32_t series, const SeriesRead &what, PointList &list) const;

  const Store &store_;
  mutable std::unordered_map<uint32_t, uint32_t> stamps_;  // of the series that were visited
};

}  // namespace metricdb
