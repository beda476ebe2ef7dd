// SELECT of points: rows of fields with the same time and tags, and derivatives of fields.
#include <fmt/format.h>

#include <numeric>
#include <optional>

#include "query/influxql_select.h"

namespace metricdb::influxql {
namespace {

constexpr int64_t DERIVATIVE_UNIT_NS = 1'000'000'000;
constexpr size_t UNSORTED_ROWS = 500;

void check_cells(const Selection &selection, const ResultSeries &result) {
  const size_t n_max = selection.environment.limits.n_cells;
  if (std::max(result.cells.size(), result.texts.size()) > n_max)
    throw ExecutionFailed(fmt::format("more than {} values in the result", n_max));
}

void erase_rows(ResultSeries &result, size_t begin, size_t n) {
  const auto time = result.times_ns.begin() + static_cast<ptrdiff_t>(begin);
  result.times_ns.erase(time, time + static_cast<ptrdiff_t>(n));
  const auto n_cells = static_cast<ptrdiff_t>(result.n_cells_of_row());
  const auto cell = result.cells.begin() + static_cast<ptrdiff_t>(begin) * n_cells;
  result.cells.erase(cell, cell + static_cast<ptrdiff_t>(n) * n_cells);
}

// Erases rows after `begin` that are not in the page, since they are sorted by time.
void cut_rows(const SelectStatement &select, size_t begin, ResultSeries &result) {
  const uint64_t n_max = n_rows_to_page(select);
  const size_t n = result.times_ns.size() - begin;
  if (n > n_max) erase_rows(result, begin + (select.is_descending ? 0 : n_max), n - n_max);
}

// Reads the points of series with the same tags, and appends their rows.
class RowSelector {
 public:
  RowSelector(const Selection &selection, ResultSeries &result)
      : selection_(selection), result_(result), lists_(selection.columns.leaves.size()) {}

  void add(std::span<const FoundSeries *const> members) {
    PointList list;
    size_t n_held = 0;
    lists_.assign(lists_.size(), {});
    for (const FoundSeries *const member : members) {
      read_points(selection_.environment, *member, selection_.from_ns, selection_.to_ns, list);
      cut_points(selection_.select, list);
      for (size_t i = 0; i < lists_.size(); ++i) {
        const Leaf &leaf = selection_.columns.leaves[i];
        if (leaf.reference_kind == ReferenceKind::field && leaf.name == member->name.field) {
          n_held += list.points.size();
          check_points(selection_.environment, n_held);
          lists_[i] = list;
        }
      }
    }
    set_texts(*members[0]);
    const size_t n_before = result_.times_ns.size();
    const size_t n_max = selection_.select.is_descending ? SIZE_MAX : n_rows_to_page(selection_.select);
    merge_by_time(lists_, [&](int64_t ts_ns, std::span<const Number> values) {
      if (result_.times_ns.size() - n_before >= n_max) return;
      if (has_many_more_rows(result_.times_ns.size() - n_before)) cut_rows(selection_.select, n_before, result_);
      add_row(ts_ns, values);
    });
    cut_rows(selection_.select, n_before, result_);
  }

  // Whether so many rows, of which a page has few, need memory for nothing.
  bool has_many_more_rows(size_t n) const {
    return n / 2 >= UNSORTED_ROWS && n / 2 >= n_rows_to_page(selection_.select);
  }

 private:
  // Tags have the same texts in all rows of a call.
  void set_texts(const FoundSeries &series) {
    texts_.assign(lists_.size(), std::nullopt);
    for (const Column &column : selection_.columns.columns) {
      const std::optional<size_t> i = column.only_leaf();
      if (!i || selection_.columns.leaves[*i].reference_kind != ReferenceKind::tag) continue;
      const std::string &value = tag_value_of(series.name, selection_.columns.leaves[*i].name);
      if (value.empty()) continue;
      texts_[*i] = static_cast<uint32_t>(result_.texts.size());
      result_.texts.push_back(value);
    }
  }

  void add_row(int64_t ts_ns, std::span<const Number> values) {
    result_.times_ns.push_back(ts_ns);
    for (const Column &column : selection_.columns.columns) {
      const std::optional<size_t> i = column.only_leaf();
      if (i && texts_[*i])
        result_.cells.push_back(Cell::of_text(*texts_[*i]));
      else
        result_.cells.push_back(cell_of(calculator_.value(column, values)));
    }
    check_cells(selection_, result_);
  }

  const Selection &selection_;
  ResultSeries &result_;
  std::vector<PointList> lists_;  // by leaf
  std::vector<std::optional<uint32_t>> texts_;
  Calculator calculator_;
};

// Rows with the same time stay in order of their tags.
void sort_by_time(ResultSeries &result) {
  if (std::is_sorted(result.times_ns.begin(), result.times_ns.end())) return;
  std::vector<size_t> order(result.times_ns.size());
  std::iota(order.begin(), order.end(), size_t{0});
  std::stable_sort(order.begin(), order.end(),
                   [&](size_t a, size_t b) { return result.times_ns[a] < result.times_ns[b]; });
  const size_t n_cells = result.n_cells_of_row();
  std::vector<int64_t> times_ns;
  std::vector<Cell> cells;
  times_ns.reserve(order.size());
  cells.reserve(result.cells.size());
  for (const size_t row : order) {
    times_ns.push_back(result.times_ns[row]);
    const auto begin = result.cells.begin() + static_cast<ptrdiff_t>(row * n_cells);
    cells.insert(cells.end(), begin, begin + static_cast<ptrdiff_t>(n_cells));
  }
  result.times_ns = std::move(times_ns);
  result.cells = std::move(cells);
}

// The points of all series of the field, in order of time.
PointList points_of_field(const Selection &selection, const Group &group, const std::string &field) {
  PointList all;
  PointList list;
  for (const FoundSeries *const member : group.members) {
    if (member->name.field != field) continue;
    read_points(selection.environment, *member, selection.from_ns, selection.to_ns, list);
    append_points(list, all);
    if (all.points.size() > selection.environment.limits.n_points)
      throw ExecutionFailed(fmt::format("more than {} points for a derivative", selection.environment.limits.n_points));
  }
  std::stable_sort(all.points.begin(), all.points.end(),
                   [](const Point &a, const Point &b) { return a.ts_ns < b.ts_ns; });
  return all;
}

}  // namespace

uint64_t n_rows_to_page(const SelectStatement &select) {
  const Page &page = select.rows;
  uint64_t n_max;
  return page.limit == 0 || __builtin_add_overflow(page.limit, page.offset, &n_max) ? UINT64_MAX : n_max;
}

void cut_points(const SelectStatement &select, PointList &list) {
  const uint64_t n_max = n_rows_to_page(select);
  std::vector<Point> &points = list.points;
  if (points.size() <= n_max) return;
  if (select.is_descending)
    points.erase(points.begin(), points.end() - static_cast<ptrdiff_t>(n_max));
  else
    points.resize(n_max);
}

void check_points(const Environment &environment, size_t n_held) {
  if (n_held > environment.limits.n_points)
    throw ExecutionFailed(fmt::format("more than {} points at a time", environment.limits.n_points));
}

void append_points(const PointList &more, PointList &all) {
  if (all.points.empty()) all.type = more.type;
  if (all.type != more.type) all.make_real();
  if (all.type == more.type)
    all.points.insert(all.points.end(), more.points.begin(), more.points.end());
  else
    for (const Point &point : more.points) all.points.push_back({point.ts_ns, real_of(point, more.type)});
}

void select_rows(const Selection &selection, const Group &group, ResultSeries &result) {
  RowSelector selector(selection, result);
  const std::span<const FoundSeries *const> all(group.members);
  for (size_t begin = 0, end = 0; begin < all.size(); begin = end) {
    while (end < all.size() && all[end]->name.tags == all[begin]->name.tags) ++end;
    selector.add(all.subspan(begin, end - begin));
    if (!selector.has_many_more_rows(result.times_ns.size())) continue;
    sort_by_time(result);
    cut_rows(selection.select, 0, result);
  }
  sort_by_time(result);
}

void select_derivatives(const Selection &selection, const Group &group, ResultSeries &result) {
  std::vector<PointList> lists;
  size_t n_held = 0;
  for (const Leaf &leaf : selection.columns.leaves) {
    lists.push_back(derivative_of(points_of_field(selection, group, leaf.name), *leaf.derivative,
                                  leaf.unit_ns.value_or(DERIVATIVE_UNIT_NS)));
    n_held += lists.back().points.size();
    check_points(selection.environment, n_held);
  }
  Calculator calculator;
  merge_by_time(lists, [&](int64_t ts_ns, std::span<const Number> values) {
    result.times_ns.push_back(ts_ns);
    for (const Column &column : selection.columns.columns)
      result.cells.push_back(cell_of(calculator.value(column, values)));
    check_cells(selection, result);
  });
}

}  // namespace metricdb::influxql
