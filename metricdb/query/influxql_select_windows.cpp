// SELECT of aggregates: one row, or one for each window of GROUP BY time.
#include <fmt/format.h>

#include "query/influxql_select.h"
#include "query/influxql_windows.h"

namespace metricdb::influxql {
namespace {

using Values = std::vector<Number>;  // by window

void fill_previous(Values &values) {
  for (size_t i = 1; i < values.size(); ++i)
    if (values[i].is_missing()) values[i] = values[i - 1];
}

void fill_linear(Values &values) {
  size_t known = values.size();
  for (size_t i = 0; i < values.size(); ++i) {
    if (values[i].is_missing()) continue;
    const double before = known == values.size() ? 0.0 : values[known].real();
    for (size_t gap = known; gap + 1 < i && known != values.size(); ++gap)
      values[gap + 1] = Number(before + (values[i].real() - before) * static_cast<double>(gap + 1 - known) /
                                            static_cast<double>(i - known));
    known = i;
  }
}

void fill_number(Values &values, const Number &number) {
  std::replace_if(
      values.begin(), values.end(), [](const Number &value) { return value.is_missing(); }, number);
}

class WindowSelector {
 public:
  WindowSelector(const Selection &selection, const Group &group)
      : selection_(selection), group_(group), grid_(selection.select.every_ns, selection.select.offset_ns) {
    for (const Leaf &leaf : selection.columns.leaves) aggregations_.emplace_back(*leaf.aggregate, leaf.percent);
    const bool has_derivative = std::any_of(selection.columns.leaves.begin(), selection.columns.leaves.end(),
                                            [](const Leaf &leaf) { return leaf.derivative.has_value(); });
    // A derivative has a value in the first window if there is one before it.
    if (has_derivative && selection.select.range.from_ns &&
        !__builtin_sub_overflow(selection.from_ns, selection.select.every_ns, &from_ns_))
      n_extra_ = 1;
    else
      from_ns_ = selection.from_ns;
  }

  void select(ResultSeries &result) {
    for (const FoundSeries *const member : group_.members) add_points(*member);
    if (!has_points_) return;
    std::vector<Values> values;
    for (size_t i = 0; i < aggregations_.size(); ++i) values.push_back(values_of(i));
    Values row(values.size());
    for (size_t window = n_extra_of(); window < n_windows_; ++window) {
      for (size_t i = 0; i < values.size(); ++i) row[i] = values[i][window];
      if (is_wanted(row)) add_row(window, row, result);
    }
  }

 private:
  void add_points(const FoundSeries &member) {
    read_points(selection_.environment, member, from_ns_, selection_.to_ns, list_, wanted_of(member));
    const std::vector<Point> &points = list_.points;
    if (points.empty()) return;
    cover(grid_.number_of(points.front().ts_ns), grid_.number_of(points.back().ts_ns));
    if (!has_points_) cover_range();
    has_points_ = true;
    std::vector<Aggregation *> of_integers, of_reals;
    for (size_t i = 0; i < aggregations_.size(); ++i) {
      if (selection_.columns.leaves[i].name != member.name.field) continue;
      if (list_.type == ValueType::real) aggregations_[i].make_real();
      (aggregations_[i].type() == ValueType::integer ? of_integers : of_reals).push_back(&aggregations_[i]);
    }
    add_to_all(of_integers);
    if (of_reals.empty()) return;
    list_.make_real();
    add_to_all(of_reals);
  }

  void add_to_all(std::span<Aggregation *const> aggregations) {
    if (aggregations.empty()) return;
    for (std::span<const Point> rest(list_.points); !rest.empty();) {
      const size_t n = grid_.length_of_run(rest);
      const auto window = static_cast<size_t>(grid_.number_of(rest[0].ts_ns) - first_number_);
      for (Aggregation *const aggregation : aggregations) add(*aggregation, window, rest.first(n));
      rest = rest.subspan(n);
    }
  }

  // Whether the newest point of the series is all that the functions need.
  Wanted wanted_of(const FoundSeries &member) const {
    if (selection_.select.every_ns != 0) return Wanted::all;
    const auto needs_newest = [&](const Leaf &leaf) {
      return leaf.name != member.name.field || leaf.aggregate == Function::last;
    };
    return std::all_of(selection_.columns.leaves.begin(), selection_.columns.leaves.end(), needs_newest)
               ? Wanted::newest
               : Wanted::all;
  }

  void add(Aggregation &aggregation, size_t window, std::span<const Point> points) {
    if (aggregation.keeps_points() && (n_kept_ += points.size()) > selection_.environment.limits.n_points)
      throw ExecutionFailed(
          fmt::format("more than {} points for a percentile", selection_.environment.limits.n_points));
    aggregation.add(window, points);
  }

  // Makes the windows from one number to another exist.
  void cover(int64_t first, int64_t last) {
    const int64_t old_first = n_windows_ == 0 ? first : first_number_;
    first = std::min(first, old_first);
    last = n_windows_ == 0 ? last : std::max(last, last_number());
    // Numbers of short windows differ by more than the signed type holds.
    const uint64_t n_before = static_cast<uint64_t>(old_first) - static_cast<uint64_t>(first);
    const uint64_t n_windows = static_cast<uint64_t>(last) - static_cast<uint64_t>(first) + 1;
    const Limits &limits = selection_.environment.limits;
    if (n_windows - 1 >= limits.n_windows)
      throw ExecutionFailed(fmt::format("GROUP BY time makes more than {} windows", limits.n_windows));
    if (n_windows * aggregations_.size() > limits.n_cells)
      throw ExecutionFailed(fmt::format("more than {} values in the result", limits.n_cells));
    for (Aggregation &aggregation : aggregations_) aggregation.extend(n_before, n_windows - n_before - n_windows_);
    first_number_ = first;
    n_windows_ = n_windows;
  }

  int64_t last_number() const { return first_number_ + static_cast<int64_t>(n_windows_ - 1); }

  // Adds empty windows up to the limits of the statement.
  void cover_range() {
    if (selection_.select.every_ns == 0 || selection_.select.fill == Fill::none) return;
    const TimeRange &range = selection_.select.range;
    const int64_t first = range.from_ns ? grid_.number_of(from_ns_) : first_number_;
    const bool has_end = range.from_ns || range.to_ns;
    cover(first, has_end ? grid_.number_of(selection_.to_ns) : last_number());
  }

  Values values_of(size_t i) {
    Values values(n_windows_);
    for (size_t window = 0; window < n_windows_; ++window) {
      const std::optional<WindowResult> result = aggregations_[i].result(window);
      if (result) values[window] = result->value;
    }
    if (selection_.select.every_ns != 0) fill(aggregations_[i].function(), values);
    const Leaf &leaf = selection_.columns.leaves[i];
    return leaf.derivative ? derivatives_of(leaf, values) : values;
  }

  void fill(Function function, Values &values) const {
    switch (selection_.select.fill) {
      case Fill::previous:
        fill_previous(values);
        break;
      case Fill::linear:
        fill_linear(values);
        break;
      case Fill::number:
        fill_number(values, Number(selection_.select.fill_number));
        break;
      case Fill::null:
        if (function == Function::count) fill_number(values, Number(int64_t{0}));
        break;
      case Fill::none:
        break;
    }
  }

  Values derivatives_of(const Leaf &leaf, const Values &values) const {
    PointList list;
    for (size_t window = 0; window < values.size(); ++window)
      if (!values[window].is_missing()) list.points.push_back({time_of_window(window), values[window].real()});
    Values rates(values.size());
    const int64_t unit_ns = leaf.unit_ns.value_or(selection_.select.every_ns);
    for (const Point &rate : derivative_of(list, *leaf.derivative, unit_ns).points)
      rates[static_cast<size_t>(grid_.number_of(rate.ts_ns) - first_number_)] = Number(rate.value);
    return rates;
  }

  int64_t time_of_window(size_t window) const { return grid_.begin_of(first_number_ + static_cast<int64_t>(window)); }

  // Windows before the first one of the statement.
  size_t n_extra_of() const {
    return n_extra_ != 0 && first_number_ < grid_.number_of(selection_.from_ns) ? n_extra_ : 0;
  }

  // Rows without a value are left out if they are not filled, and of derivatives always.
  bool is_wanted(const Values &row) const {
    const auto is_missing = [](const Number &value) { return value.is_missing(); };
    if (!std::all_of(row.begin(), row.end(), is_missing)) return true;
    return selection_.select.every_ns != 0 && selection_.select.fill != Fill::none &&
           !std::all_of(selection_.columns.leaves.begin(), selection_.columns.leaves.end(),
                        [](const Leaf &leaf) { return leaf.derivative.has_value(); });
  }

  void add_row(size_t window, const Values &row, ResultSeries &result) {
    result.times_ns.push_back(time_of_row(window));
    for (const Column &column : selection_.columns.columns)
      result.cells.push_back(cell_of(calculator_.value(column, row)));
  }

  // A single selected point has its own time. Other rows have the beginning of the window, or of the statement's range.
  int64_t time_of_row(size_t window) {
    if (selection_.select.every_ns != 0) return time_of_window(window);
    if (aggregations_.size() == 1 && is_selector(aggregations_[0].function())) return aggregations_[0].result(0)->ts_ns;
    return selection_.select.range.from_ns.value_or(0);
  }

  const Selection &selection_;
  const Group &group_;
  WindowGrid grid_;
  std::vector<Aggregation> aggregations_;  // by leaf
  int64_t from_ns_ = 0;
  size_t n_extra_ = 0;
  int64_t first_number_ = 0;
  size_t n_windows_ = 0;
  bool has_points_ = false;
  size_t n_kept_ = 0;
  PointList list_;  // of the current series
  Calculator calculator_;
};

}  // namespace

void select_windows(const Selection &selection, const Group &group, ResultSeries &result) {
  WindowSelector(selection, group).select(result);
}

}  // namespace metricdb::influxql
