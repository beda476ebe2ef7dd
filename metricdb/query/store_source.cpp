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

void StoreSource::read(uint32_t series, const SeriesRead &what, PointList &list) const {
  read_as(what.is_newest_enough ? LiveRead::newest : LiveRead::all, series, what, list);
  // A chunk without a summary does not say whether its newest point is a number.
  const bool has_newest = list.points.empty()
                              ? !list.summaries.empty()
                              : list.type == ValueType::integer || !std::isnan(list.points.back().value);
  if (what.is_newest_enough && !has_newest) read_as(LiveRead::all, series, what, list);
}

std::optional<ValueType> StoreSource::type(uint32_t series) const {
  PointList list;
  return read_as(LiveRead::type, series, {}, list) ? std::optional(list.type) : std::nullopt;
}

bool StoreSource::read_as(LiveRead how, uint32_t series, const SeriesRead &what, PointList &list) const {
  list.points.clear();
  list.summaries.clear();
  const auto stamp = stamps_.find(series);
  if (stamp == stamps_.end()) return false;
  const bool is_there = read_live(store_, {series, stamp->second}, {what.from_ns, what.to_ns}, list, how, what.goes_on,
                                  what.is_summary_enough);
  std::vector<Point> &points = list.points;
  const auto is_earlier = [](const Point &a, const Point &b) { return a.ts_ns < b.ts_ns; };
  if (!std::is_sorted(points.begin(), points.end(), is_earlier))
    std::stable_sort(points.begin(), points.end(), is_earlier);
  return is_there;
}

}  // namespace metricdb
