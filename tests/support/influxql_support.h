// Series in memory, as a source of queries.
#ifndef INFLUXQL_SUPPORT_H
#define INFLUXQL_SUPPORT_H

#include <algorithm>
#include <atomic>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "query/series_source.h"

namespace metricdb {

class MemorySource : public SeriesSource {
 public:
  void add(const std::string &measurement, std::vector<std::pair<std::string, std::string>> tags,
           const std::string &field, std::vector<Point> points) {
    series_.push_back({{measurement, std::move(tags), field}, {ValueType::real, std::move(points)}});
  }
  void add_integers(const std::string &measurement, std::vector<std::pair<std::string, std::string>> tags,
                    const std::string &field, const std::vector<std::pair<int64_t, int64_t>> &values) {
    add(measurement, std::move(tags), field, {});
    std::vector<Point> points;
    for (const auto &[ts_ns, value] : values) points.push_back(integer_point(ts_ns, value));
    set_last(points, ValueType::integer);
  }
  // Replaces the points of the series that was added last.
  void set_last(const std::vector<Point> &points, ValueType type) { series_.back().second = {type, points}; }

  // Every `step`-th series.
  MemorySource part(size_t first, size_t step) const {
    MemorySource part;
    for (size_t i = first; i < series_.size(); i += step) part.series_.push_back(series_[i]);
    return part;
  }

  void for_each_series(const SeriesFilter &filter, const Visit &visit) const override {
    for (uint32_t i = 0; i < series_.size(); ++i) {
      if (!is_admitted(filter, series_[i].first)) continue;
      ++n_visited;
      visit(i, series_[i].first);
    }
  }

  void read(uint32_t series, const SeriesRead &what, PointList &list) const override {
    list = {series_[series].second.type};
    for (const Point &point : series_[series].second.points)
      if (point.ts_ns >= what.from_ns && point.ts_ns <= what.to_ns) list.points.push_back(point);
    std::atomic_ref(n_read) += list.points.size();
  }

  std::optional<ValueType> type(uint32_t series) const override { return series_[series].second.type; }

  mutable size_t n_visited = 0;
  mutable size_t n_read = 0;

 private:
  static bool is_admitted(const SeriesFilter &filter, const SeriesName &name) {
    return (!filter.measurement || *filter.measurement == name.measurement) &&
           (!filter.field || *filter.field == name.field) &&
           std::all_of(filter.tags.begin(), filter.tags.end(), [&](const auto &tag) {
             return std::find(name.tags.begin(), name.tags.end(), tag) != name.tags.end();
           });
  }

  std::vector<std::pair<SeriesName, PointList>> series_;
};

}  // namespace metricdb

#endif
