// The databases that statements of InfluxQL read and change.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "query/series_source.h"

namespace metricdb {

// One for each request. Functions that return nothing end when the change is durable. They throw influxql::ExecutionFailed
// with a message for the client. Databases are in `names`, or are other names of one of those.
class InfluxqlDatabases {
 public:
  using Use = std::function<void(const SeriesSource &)>;
  using Choose = std::function<std::vector<uint32_t>(const SeriesSource &)>;

  virtual ~InfluxqlDatabases() = default;

  virtual std::vector<std::string> names() const = 0;
  virtual bool has(const std::string &database) const = 0;

  virtual void read(const std::string &database, const Use &use) const = 0;

  // Deletes the points from from_ns to to_ns, both included, of the series that `choose` returns. Series without points are
  // forgotten.
  virtual void erase(const std::string &database, const Choose &choose, int64_t from_ns, int64_t to_ns) = 0;

  // 0: all points stay.
  virtual int64_t retention_ns(const std::string &database) const = 0;
  virtual void set_retention(const std::string &database, int64_t retention_ns) = 0;

  // A database that exists stays as it is.
  virtual void create(const std::string &name, std::optional<int64_t> retention_ns) = 0;
  virtual void drop(const std::string &name) = 0;
};

}  // namespace metricdb
