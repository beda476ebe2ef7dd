#include "query/store_source.h"

#include <algorithm>

namespace metricdb {

void StoreSource::for_each_series(const SeriesFilter &filter, const Visit &visit) const {
  store_.live()->index.for_each(filter, [&](uint32_t series, uint32_t stamp, const SeriesName &name) {
    stamps_[series] = stamp;
    visit(series, name);
  });
}

void StoreSource::read(uint32_t series, int64_t from_ns, int64_t to_ns, std::vector<Point> &points) const {
  points.clear();
  const auto stamp = stamps_.find(series);
  if (stamp == stamps_.end()) return;
  read_live(store_, {series, stamp->second}, {from_ns, to_ns}, points);
  const auto is_earlier = [](const Point &a, const Point &b) { return a.ts_ns < b.ts_ns; };
  if (!std::is_sorted(points.begin(), points.end(), is_earlier))
    std::stable_sort(points.begin(), points.end(), is_earlier);
}

}  // namespace metricdb
