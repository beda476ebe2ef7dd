// Series and points as a query language reads them: of a database that is open, or of one that a server feeds meanwhile.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "codec/point.h"
#include "store/series_name.h"

namespace metricdb {

class SeriesSource {
 public:
  using Visit = std::function<void(uint32_t series, const SeriesName &name)>;

  virtual ~SeriesSource() = default;

  // Visits the series that the filter admits, in any order. `visit` does not call the source.
  virtual void for_each_series(const SeriesFilter &filter, const Visit &visit) const = 0;

  // Sets `list` to the visible points of a series from `from_ns` to `to_ns`, both included, in order of time; points with
  // the same time stay in order of arrival. Empty if the series does not exist any more.
  virtual void read(uint32_t series, int64_t from_ns, int64_t to_ns, PointList &list) const = 0;

  // The same, but points that are older than the newest number may be missing. Of several numbers with its time only the
  // last to arrive must be there.
  virtual void read_newest(uint32_t series, int64_t from_ns, int64_t to_ns, PointList &list) const {
    read(series, from_ns, to_ns, list);
  }
};

}  // namespace metricdb
