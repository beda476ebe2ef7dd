// Series and points as a query language reads them: of a database that is open, or of one that a server feeds meanwhile.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

#include "codec/point.h"
#include "store/series_name.h"

namespace metricdb {

namespace influxql {
struct AggregatedSeries;
}

struct SeriesRead {
  int64_t from_ns = INT64_MIN;  // both included
  int64_t to_ns = INT64_MAX;
  // Points that are older than the newest number in the range may be missing. Of several numbers with its time only the last
  // to arrive must be there.
  bool is_newest_enough = false;
  // Called now and then with the number of points so far. If it returns false the reading ends, with any points.
  std::function<bool(size_t n_points)> goes_on = {};
  // With one, the list may get summaries of points for whose time span it returns true, in place of these points. No two
  // points of a summary, and none of the list, have the same time as another.
  std::function<bool(int64_t oldest_ns, int64_t newest_ns)> is_summary_enough = {};
};

class SeriesSource {
 public:
  using Visit = std::function<void(uint32_t series, const SeriesName &name)>;

  virtual ~SeriesSource() = default;

  // Visits the series that the filter admits, in any order. `visit` does not call the source.
  virtual void for_each_series(const SeriesFilter &filter, const Visit &visit) const = 0;

  // Sets `list` to the visible points of a series, in order of time; points with the same time stay in order of arrival.
  // Empty if the series does not exist any more. Threads: any number at a time, while none visits series.
  virtual void read(uint32_t series, const SeriesRead &what, PointList &list) const = 0;

  // Nothing if the series does not exist any more. Threads: as for `read`.
  virtual std::optional<ValueType> type(uint32_t series) const = 0;

  // Null, or what the points of the series were aggregated to. Then the series is not read. Threads: as for `read`.
  virtual const influxql::AggregatedSeries *aggregated(uint32_t /*series*/) const { return nullptr; }
};

}  // namespace metricdb
