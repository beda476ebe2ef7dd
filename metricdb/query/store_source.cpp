#include "query/store_source.h"

#include <algorithm>
#include <cmath>

namespace metricdb {

void StoreSource::for_each_series(const SeriesFilter &filter, const Visit &visit) const {
  store_.live()->index.for_each(filter, [&](uint32_t series, uint32_t stamp, const SeriesName &name) {
    // A number that another series has since an earlier visit stays that of the earlier one, which is gone.
    if (stamps_.emplace(series, stamp).first->second == stamp) visit(series, name);
  });
}

void StoreSource::read(uint32_t series, int64_t from_ns, int64_t to_ns, PointList &list) const {
  read_as(LiveRead::all, series, {from_ns, to_ns}, list);
}

void StoreSource::read_newest(uint32_t series, int64_t from_ns, int64_t to_ns, PointList &list) const {
  read_as(LiveRead::newest, series, {from_ns, to_ns}, list);
  // A chunk does not say whether its newest point is a number.
  if (list.points.empty() || (list.type == ValueType::real && std::isnan(list.points.back().value)))
    read(series, from_ns, to_ns, list);
}

void StoreSource::read_as(LiveRead what, uint32_t series, const TimeRange &range, PointList &list) const {
  list = {};
  const auto stamp = stamps_.find(series);
  if (stamp == stamps_.end()) return;
  read_live(store_, {series, stamp->second}, range, list, what);
  std::vector<Point> &points = list.points;
  const auto is_earlier = [](const Point &a, const Point &b) { return a.ts_ns < b.ts_ns; };
  if (!std::is_sorted(points.begin(), points.end(), is_earlier))
    std::stable_sort(points.begin(), points.end(), is_earlier);
}

}  // namespace metricdb
