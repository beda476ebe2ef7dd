// SELECT of aggregates: one row, or one for each window of GROUP BY time.
#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <utility>

#include "query/influxql_select.h"
#include "query/influxql_windows.h"
#include "query/parallel.h"

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

// What the parts of one selection share.
struct WindowPlan {
  const Selection &selection;
  const Group &group;
  WindowGrid grid;
  int64_t from_ns;         // of the points that are read
  int64_t gap_from_ns;     // the beginning of the range's first window; points from here to the range are left out
  size_t n_cells_max = 0;  // of a part
  std::atomic<size_t> n_kept = 0;  // points of percentiles in all parts
};

// A part would have more windows than it may. Then there are no parts.
struct TooManyWindows {};

// The aggregates of some members of a group.
class WindowPart {
 public:
  explicit WindowPart(WindowPlan &plan) : plan_(plan) {
    for (const Leaf &leaf : plan.selection.columns.leaves) aggregations_.emplace_back(*leaf.aggregate, leaf.percent);
  }

  void add(const FoundSeries &member) {
    const Selection &selection = plan_.selection;
    if (const AggregatedSeries *const aggregated = selection.environment.source.aggregated(member.series)) {
      add_aggregated(member.name.field, *aggregated);
      return;
    }
    read_points(selection.environment, member, plan_.from_ns, selection.to_ns, list_, wanted_of(member),
                summaries_of(member));
    leave_gap();
    if (list_.is_empty()) return;
    cover_list();
    std::vector<Aggregation *> of_integers, of_reals;
    for (size_t i = 0; i < aggregations_.size(); ++i) {
      if (selection.columns.leaves[i].name != member.name.field) continue;
      if (list_.type == ValueType::real) aggregations_[i].make_real();
      (aggregations_[i].type() == ValueType::integer ? of_integers : of_reals).push_back(&aggregations_[i]);
    }
    add_to_all(of_integers);
    if (of_reals.empty()) return;
    list_.make_real();
    add_to_all(of_reals);
  }

  void merge(WindowPart &other) {
    if (!other.has_points()) return;
    cover(other.first_number_, other.last_number());
    const auto at = static_cast<size_t>(other.first_number_ - first_number_);
    for (size_t i = 0; i < aggregations_.size(); ++i) aggregations_[i].merge(other.aggregations_[i], at);
  }

  // Makes the windows from one number to another exist.
  void cover(int64_t first, int64_t last) {
    const int64_t old_first = n_windows_ == 0 ? first : first_number_;
    first = std::min(first, old_first);
    last = n_windows_ == 0 ? last : std::max(last, last_number());
    // Numbers of short windows differ by more than the signed type holds.
    const uint64_t n_before = static_cast<uint64_t>(old_first) - static_cast<uint64_t>(first);
    const uint64_t n_windows = static_cast<uint64_t>(last) - static_cast<uint64_t>(first) + 1;
    const Limits &limits = plan_.selection.environment.limits;
    if (n_windows - 1 >= limits.n_windows)
      throw ExecutionFailed(fmt::format("GROUP BY time makes more than {} windows", limits.n_windows));
    if (n_windows * aggregations_.size() > limits.n_cells)
      throw ExecutionFailed(fmt::format("more than {} values in the result", limits.n_cells));
    if (n_windows * aggregations_.size() > plan_.n_cells_max) throw TooManyWindows();
    for (Aggregation &aggregation : aggregations_) aggregation.extend(n_before, n_windows - n_before - n_windows_);
    first_number_ = first;
    n_windows_ = n_windows;
  }

  bool has_points() const { return n_windows_ != 0; }
  int64_t first_number() const { return first_number_; }
  int64_t last_number() const { return first_number_ + static_cast<int64_t>(n_windows_ - 1); }
  size_t n_windows() const { return n_windows_; }
  std::vector<Aggregation> &aggregations() { return aggregations_; }

 private:
  // Leaves out the points before the range that are in its first window.
  void leave_gap() {
    const auto is_before = [](const Point &point, int64_t ts_ns) { return point.ts_ns < ts_ns; };
    std::vector<Point> &points = list_.points;
    const auto begin = std::lower_bound(points.begin(), points.end(), plan_.gap_from_ns, is_before);
    points.erase(begin, std::lower_bound(begin, points.end(), plan_.selection.from_ns, is_before));
  }

  void add_aggregated(const std::string &field, const AggregatedSeries &added) {
    cover(added.first_number, added.first_number + static_cast<int64_t>(added.aggregations[0].n_windows() - 1));
    const auto at = static_cast<size_t>(added.first_number - first_number_);
    const std::vector<Leaf> &leaves = plan_.selection.columns.leaves;
    for (size_t i = 0; i < leaves.size(); ++i) {
      const auto same = std::find_if(added.aggregations.begin(), added.aggregations.end(), [&](const Aggregation &one) {
        return one.has_function(*leaves[i].aggregate, leaves[i].percent);
      });
      if (leaves[i].name != field || same == added.aggregations.end()) continue;
      check_kept(same->n_kept());
      Aggregation copy = *same;
      aggregations_[i].merge(copy, at);
    }
  }

  void cover_list() {
    const WindowGrid &grid = plan_.grid;
    if (!list_.points.empty())
      cover(grid.number_of(list_.points.front().ts_ns), grid.number_of(list_.points.back().ts_ns));
    for (const PointSummary &summary : list_.summaries)
      cover(grid.number_of(summary.first.ts_ns), grid.number_of(summary.last.ts_ns));
  }

  void add_to_all(std::span<Aggregation *const> aggregations) {
    if (aggregations.empty()) return;
    for (const PointSummary &summary : list_.summaries) {
      const auto window = static_cast<size_t>(plan_.grid.number_of(summary.first.ts_ns) - first_number_);
      for (Aggregation *const aggregation : aggregations) aggregation->add(window, summary);
    }
    for (std::span<const Point> rest(list_.points); !rest.empty();) {
      const size_t n = plan_.grid.length_of_run(rest);
      const auto window = static_cast<size_t>(plan_.grid.number_of(rest[0].ts_ns) - first_number_);
      for (Aggregation *const aggregation : aggregations) add(*aggregation, window, rest.first(n));
      rest = rest.subspan(n);
    }
  }

  // Whether the newest point of the series is all that the functions need.
  Wanted wanted_of(const FoundSeries &member) const {
    if (plan_.selection.select.every_ns != 0) return Wanted::all;
    const auto needs_newest = [&](const Leaf &leaf) {
      return leaf.name != member.name.field || leaf.aggregate == Function::last;
    };
    const std::vector<Leaf> &leaves = plan_.selection.columns.leaves;
    return std::all_of(leaves.begin(), leaves.end(), needs_newest) ? Wanted::newest : Wanted::all;
  }

  // Which summaries of the series' points have all that the functions need: of points in one window.
  std::function<bool(int64_t, int64_t)> summaries_of(const FoundSeries &member) const {
    for (size_t i = 0; i < aggregations_.size(); ++i)
      if (plan_.selection.columns.leaves[i].name == member.name.field && !aggregations_[i].takes_summaries()) return {};
    return [&plan = plan_](int64_t oldest_ns, int64_t newest_ns) {
      return plan.grid.number_of(oldest_ns) == plan.grid.number_of(newest_ns) &&
             (oldest_ns >= plan.selection.from_ns || newest_ns < plan.gap_from_ns);
    };
  }

  void check_kept(size_t n_more) {
    const size_t n_max = plan_.selection.environment.limits.n_points;
    if (plan_.n_kept.fetch_add(n_more) + n_more > n_max)
      throw ExecutionFailed(fmt::format("more than {} points for a percentile", n_max));
  }

  void add(Aggregation &aggregation, size_t window, std::span<const Point> points) {
    if (aggregation.keeps_points()) check_kept(points.size());
    aggregation.add(window, points);
  }

  WindowPlan &plan_;
  std::vector<Aggregation> aggregations_;  // by leaf
  int64_t first_number_ = 0;
  size_t n_windows_ = 0;
  PointList list_;  // of the current series
};

class WindowSelector {
 public:
  WindowSelector(const Selection &selection, const Group &group)
      : selection_(selection),
        plan_{selection,
              group,
              {selection.select.every_ns, selection.select.offset_ns},
              selection.from_ns,
              selection.from_ns},
        all_(plan_) {
    const bool has_derivative = std::any_of(selection.columns.leaves.begin(), selection.columns.leaves.end(),
                                            [](const Leaf &leaf) { return leaf.derivative.has_value(); });
    // A derivative has a value in the first window if there is one before it.
    if (has_derivative && selection.select.range.from_ns &&
        !__builtin_sub_overflow(selection.from_ns, selection.select.every_ns, &plan_.from_ns)) {
      n_extra_ = 1;
      plan_.gap_from_ns = plan_.grid.begin_of(plan_.grid.number_of(selection.from_ns));
    } else {
      plan_.from_ns = selection.from_ns;
    }
  }

  void select(ResultSeries &result) {
    add_members();
    if (!all_.has_points()) return;
    cover_range();
    std::vector<Values> values;
    for (size_t i = 0; i < all_.aggregations().size(); ++i) values.push_back(values_of(i));
    Values row(values.size());
    for (size_t window = n_extra_of(); window < all_.n_windows(); ++window) {
      for (size_t i = 0; i < values.size(); ++i) row[i] = values[i][window];
      if (is_wanted(row)) add_row(window, row, result);
    }
  }

  std::vector<std::pair<std::string, AggregatedSeries>> aggregated() {
    add_members();
    std::map<std::string, AggregatedSeries> by_field;
    if (!all_.has_points()) return {};
    for (size_t i = 0; i < all_.aggregations().size(); ++i) {
      AggregatedSeries &series = by_field[selection_.columns.leaves[i].name];
      series.first_number = all_.first_number();
      series.aggregations.push_back(std::move(all_.aggregations()[i]));
    }
    return {by_field.begin(), by_field.end()};
  }

 private:
  // The parts depend only on the members, so that a sum has the same rounding with any number of threads.
  void add_members() {
    constexpr size_t MEMBERS_OF_PART = 16, MAX_PARTS = 4;
    const size_t n_members = plan_.group.members.size();
    const size_t n_parts = std::clamp<size_t>(n_members / MEMBERS_OF_PART, 1, MAX_PARTS);
    const size_t n_cells_max = selection_.environment.limits.n_cells;
    plan_.n_cells_max = n_cells_max / n_parts;
    if (n_parts == 1) return add_to_one();
    try {
      std::vector<WindowPart> parts(n_parts, WindowPart(plan_));
      parallel_for(n_parts, selection_.environment.n_threads, [&](size_t i) {
        for (size_t m = n_members * i / n_parts; m < n_members * (i + 1) / n_parts; ++m)
          parts[i].add(*plan_.group.members[m]);
      });
      plan_.n_cells_max = n_cells_max;
      for (WindowPart &part : parts) all_.merge(part);
    } catch (const TooManyWindows &) {
      plan_.n_cells_max = n_cells_max;
      plan_.n_kept = 0;
      add_to_one();
    }
  }

  void add_to_one() {
    for (const FoundSeries *const member : plan_.group.members) all_.add(*member);
  }

  // Adds empty windows up to the limits of the statement.
  void cover_range() {
    if (selection_.select.every_ns == 0 || selection_.select.fill == Fill::none) return;
    const TimeRange &range = selection_.select.range;
    const int64_t first = range.from_ns ? plan_.grid.number_of(plan_.from_ns) : all_.first_number();
    const bool has_end = range.from_ns || range.to_ns;
    all_.cover(first, has_end ? plan_.grid.number_of(selection_.to_ns) : all_.last_number());
  }

  Values values_of(size_t i) {
    Aggregation &aggregation = all_.aggregations()[i];
    Values values(all_.n_windows());
    for (size_t window = 0; window < values.size(); ++window) {
      const std::optional<WindowResult> result = aggregation.result(window);
      if (result) values[window] = result->value;
    }
    if (selection_.select.every_ns != 0) fill(aggregation.function(), values);
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
      rates[static_cast<size_t>(plan_.grid.number_of(rate.ts_ns) - all_.first_number())] = Number(rate.value);
    return rates;
  }

  int64_t time_of_window(size_t window) const {
    return plan_.grid.begin_of(all_.first_number() + static_cast<int64_t>(window));
  }

  // Windows before the first one of the statement.
  size_t n_extra_of() const {
    return n_extra_ != 0 && all_.first_number() < plan_.grid.number_of(selection_.from_ns) ? n_extra_ : 0;
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
    std::vector<Aggregation> &aggregations = all_.aggregations();
    if (aggregations.size() == 1 && is_selector(aggregations[0].function())) return aggregations[0].result(0)->ts_ns;
    return selection_.select.range.from_ns.value_or(0);
  }

  const Selection &selection_;
  WindowPlan plan_;
  WindowPart all_;
  size_t n_extra_ = 0;
  Calculator calculator_;
};

}  // namespace

void select_windows(const Selection &selection, const Group &group, ResultSeries &result) {
  WindowSelector(selection, group).select(result);
}

std::vector<std::pair<std::string, AggregatedSeries>> aggregate(const Selection &selection, const Group &group) {
  return WindowSelector(selection, group).aggregated();
}

}  // namespace metricdb::influxql
