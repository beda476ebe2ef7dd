// Aggregates of points in consecutive windows of time.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "codec/point.h"
#include "query/byte_text.h"
#include "query/influxql_ast.h"
#include "query/influxql_number.h"

namespace metricdb::influxql {

// Windows are numbered; one begins at offset_ns after 1970.
class WindowGrid {
 public:
  // every_ns  length of a window; 0: one window of all times
  WindowGrid(int64_t every_ns, int64_t offset_ns) : every_ns_(every_ns), offset_ns_(offset_ns) {}

  int64_t number_of(int64_t ts_ns) const;
  // The minimum time for the first window that contains representable times.
  int64_t begin_of(int64_t number) const;
  // The number of points at the front that are in the window of the first one.
  size_t length_of_run(std::span<const Point> points) const;

 private:
  int64_t every_ns_;
  int64_t offset_ns_;
};

// The result of a function in a window, and the time of the point that it is, if the function selects one.
struct WindowResult {
  int64_t ts_ns = 0;
  Number value;
};

// One aggregate function in each window. It computes with integers until it gets the first real value.
class Aggregation {
 public:
  Aggregation(Function function, double percent);

  // Adds empty windows before and after the others.
  void extend(size_t n_before, size_t n_after);

  // Adds points, in order of time, to a window. Points of several series follow each other in any order. Values are
  // numbers of the aggregation's type.
  void add(size_t window, std::span<const Point> points);

  // The same for points of which only this is known.
  void add(size_t window, const PointSummary &summary);

  // Adds all windows of another aggregation of the same function. Its first one is window `at` here.
  void merge(Aggregation &other, size_t at);

  ValueType type() const { return type_; }
  // From here on all values are real.
  void make_real();

  // The result of a window; none if there is none. Reorders the points that a percentile keeps.
  std::optional<WindowResult> result(size_t window);

  bool keeps_points() const { return function_ == Function::percentile; }
  bool takes_summaries() const { return !keeps_points() && function_ != Function::stddev; }
  Function function() const { return function_; }
  bool has_function(Function function, double percent) const { return function_ == function && percent_ == percent; }
  size_t n_windows() const { return cells_.size(); }
  size_t n_kept() const;  // points of percentiles in all windows

  void put_to(std::string &bytes) const;
  static Aggregation of_bytes(ByteReader &reader);  // throws BytesDamaged

 private:
  struct Cell {
    uint64_t n = 0;
    Point a{0, 0.0};  // sum, mean, selected point, or minimum; a sum of integers wraps
    Point b{0, 0.0};  // sum of squared distances, or maximum
  };

  template <class Value>
  void add_typed(Cell &cell, std::span<const Point> points);
  void add_values(Cell &cell, std::span<const Point> points);
  std::optional<WindowResult> percentile_of(std::vector<Point> &points) const;

  Function function_;
  double percent_;
  ValueType type_;
  std::vector<Cell> cells_;
  std::vector<std::vector<Point>> kept_;  // of a percentile
};

// Series of one field that were aggregated elsewhere. All aggregations have as many windows, at least one.
struct AggregatedSeries {
  int64_t first_number = 0;  // of the windows
  std::vector<Aggregation> aggregations = {};
};

}  // namespace metricdb::influxql
