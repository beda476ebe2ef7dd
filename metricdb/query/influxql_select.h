// Answers SELECT statements.
#pragma once

#include <algorithm>
#include <cstdint>
#include <limits>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "query/influxql_columns.h"
#include "query/influxql_execute.h"
#include "query/influxql_parts.h"
#include "query/influxql_series.h"
#include "query/influxql_windows.h"

namespace metricdb::influxql {

// Throws ExecutionFailed.
std::vector<ResultSeries> execute_select(const Environment &environment, const SelectStatement &select);

// What several sources together make the rows of a SELECT of. Throws ExecutionFailed.
std::vector<SeriesPart> parts_of_select(const Environment &environment, const SelectStatement &select);

// What the parts of an execution share. All series are of one measurement.
struct Selection {
  const Environment &environment;
  const SelectStatement &select;
  Columns columns;
  int64_t from_ns = INT64_MIN;
  int64_t to_ns = INT64_MAX;
};

// The series of one result series. Without aggregates they are sorted by tags and field.
struct Group {
  std::vector<std::pair<std::string, std::string>> tags;
  std::vector<const FoundSeries *> members;
};

enum class Wanted {
  all,
  newest  // older points may be missing
};

// Sets the points of a series in a range of time: one for each time, and with a number. The last one to arrive at a time
// is used. Some can be in summaries, for whose time span is_summary_enough(oldest_ns, newest_ns) is true.
void read_points(const Environment &environment, const FoundSeries &series, int64_t from_ns, int64_t to_ns,
                 PointList &list, Wanted wanted = Wanted::all,
                 const std::function<bool(int64_t, int64_t)> &is_summary_enough = {});

// Calls row(ts_ns, values) for each time at which one of the lists has a point, in order. The times of each list are
// ascending and different.
template <class Row>
void merge_by_time(std::span<const PointList> lists, Row row) {
  std::vector<size_t> next(lists.size());
  std::vector<Number> values(lists.size());
  while (true) {
    bool is_end = true;
    int64_t ts_ns = INT64_MAX;
    for (size_t i = 0; i < lists.size(); ++i) {
      if (next[i] == lists[i].points.size()) continue;
      is_end = false;
      ts_ns = std::min(ts_ns, lists[i].points[next[i]].ts_ns);
    }
    if (is_end) return;
    for (size_t i = 0; i < lists.size(); ++i) {
      const std::vector<Point> &points = lists[i].points;
      const bool has_point = next[i] < points.size() && points[next[i]].ts_ns == ts_ns;
      values[i] = has_point ? Number::of(points[next[i]++], lists[i].type) : Number();
    }
    row(ts_ns, std::span<const Number>(values));
  }
}

// Append the rows of a group, in order of time.
void select_rows(const Selection &selection, const Group &group, ResultSeries &result);  // influxql_select_rows.cpp
void select_derivatives(const Selection &selection, const Group &group, ResultSeries &result);  // the same
void select_windows(const Selection &selection, const Group &group,
                    ResultSeries &result);  // influxql_select_windows.cpp

// What select_windows makes its rows of, by field.
std::vector<std::pair<std::string, AggregatedSeries>> aggregate(const Selection &selection, const Group &group);

// The number of rows from which the page is cut; the maximum for all.
uint64_t n_rows_to_page(const SelectStatement &select);

// Leaves out points of a series that are in no row of the page: a row among the first ones has none of the later points.
void cut_points(const SelectStatement &select, PointList &list);

// Throws ExecutionFailed if a statement holds more points than it may.
void check_points(const Environment &environment, size_t n_held);

// The result has real values if one of the lists has.
void append_points(const PointList &more, PointList &all);

// The rate of change of points in order of time, for each pair of following ones.
PointList derivative_of(const PointList &list, Function function, int64_t unit_ns);

}  // namespace metricdb::influxql
