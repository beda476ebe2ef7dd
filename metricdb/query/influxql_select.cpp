#include "query/influxql_select.h"

#include <fmt/format.h>

#include <atomic>
#include <cmath>
#include <map>
#include <set>
#include <tuple>

#include "query/influxql_show.h"
#include "query/parallel.h"

namespace metricdb::influxql {
namespace {

using Names = std::set<std::string>;

// The field, if the statement needs no other series. Patterns of dimensions need all series, for their tags.
std::optional<std::string> only_field_of(const SelectStatement &select) {
  const bool has_pattern =
      std::any_of(select.dimensions.begin(), select.dimensions.end(),
                  [](const Dimension &dimension) { return dimension.kind != Dimension::Kind::tag; });
  if (select.fields.size() != 1 || has_pattern) return std::nullopt;
  const Expression *part = &select.fields[0].expression;
  while (part->kind == Expression::Kind::call) part = part->args.data();
  if (part->kind != Expression::Kind::reference || part->reference_kind == ReferenceKind::tag) return std::nullopt;
  return part->name;
}

SeriesByMeasurement series_of(const Environment &environment, const SelectStatement &select) {
  SeriesByMeasurement found;
  for_each_matching(environment, select.sources, select.condition, only_field_of(select),
                    [&](uint32_t series, const SeriesName &name) {
                      found[name.measurement].push_back({series, name});
                    });
  return found;
}

Names tags_of(const std::vector<FoundSeries> &series) {
  Names names;
  for (const FoundSeries &one : series)
    for (const auto &[tag, value] : one.name.tags) names.insert(tag);
  return names;
}

Names fields_of(const std::vector<FoundSeries> &series) {
  Names names;
  for (const FoundSeries &one : series) names.insert(one.name.field);
  return names;
}

bool is_admitted(const Dimension &dimension, const std::string &tag) {
  if (dimension.kind == Dimension::Kind::tag) return dimension.tag == tag;
  return dimension.kind == Dimension::Kind::wildcard || dimension.pattern->matches(tag);
}

Names dimensions_of(const SelectStatement &select, const Names &tags) {
  Names dimensions;
  for (const Dimension &dimension : select.dimensions) {
    if (dimension.kind == Dimension::Kind::tag) dimensions.insert(dimension.tag);
    for (const std::string &tag : tags)
      if (is_admitted(dimension, tag)) dimensions.insert(tag);
  }
  return dimensions;
}

// Wildcards expand to names of all measurements, so that all result series have the same columns. Tags that are
// dimensions are not columns.
Columns columns_of_all(const SelectStatement &select, const SeriesByMeasurement &found) {
  Names fields;
  Names tags;
  for (const auto &[measurement, series] : found) {
    fields.merge(fields_of(series));
    tags.merge(tags_of(series));
  }
  for (const std::string &dimension : dimensions_of(select, tags)) tags.erase(dimension);
  return columns_of(select, fields, tags);
}

// A name without a kind is that of a field if the measurement has one.
void resolve_references(Columns &columns, const std::vector<FoundSeries> &series) {
  const Names fields = fields_of(series);
  for (Leaf &leaf : columns.leaves)
    if (leaf.reference_kind == ReferenceKind::any)
      leaf.reference_kind =
          leaf.aggregate || leaf.derivative || fields.count(leaf.name) != 0 ? ReferenceKind::field : ReferenceKind::tag;
}

bool is_read(const Columns &columns, const FoundSeries &series) {
  return std::any_of(columns.leaves.begin(), columns.leaves.end(), [&](const Leaf &leaf) {
    return leaf.reference_kind == ReferenceKind::field && leaf.name == series.name.field;
  });
}

// Rows of points are made of series with the same tags, one after another. Aggregates only need an order that is always
// the same, since a sum depends on it.
void sort_members(const Columns &columns, Group &group) {
  if (columns.leaves[0].aggregate)
    std::sort(group.members.begin(), group.members.end(),
              [](const FoundSeries *a, const FoundSeries *b) { return a->series < b->series; });
  else
    std::sort(group.members.begin(), group.members.end(), [](const FoundSeries *a, const FoundSeries *b) {
      return std::tie(a->name.tags, a->name.field) < std::tie(b->name.tags, b->name.field);
    });
}

std::vector<Group> groups_of(const SelectStatement &select, const Columns &columns,
                             const std::vector<FoundSeries> &series) {
  const Names dimensions = dimensions_of(select, tags_of(series));
  std::map<std::vector<std::string>, Group> groups;
  for (const FoundSeries &one : series) {
    if (!is_read(columns, one)) continue;
    std::vector<std::string> values;
    for (const std::string &dimension : dimensions) values.push_back(tag_value_of(one.name, dimension));
    groups[std::move(values)].members.push_back(&one);
  }
  std::vector<Group> sorted;
  for (auto &[values, group] : groups) {
    auto value = values.begin();
    for (const std::string &dimension : dimensions) group.tags.emplace_back(dimension, *value++);
    sort_members(columns, group);
    sorted.push_back(std::move(group));
  }
  return sorted;
}

template <class T>
void cut_page(std::vector<T> &all, const Page &page, size_t n_of_one = 1) {
  const size_t n = all.size() / n_of_one;
  const size_t begin = std::min<uint64_t>(page.offset, n);
  const size_t end = page.limit == 0 ? n : begin + std::min<uint64_t>(page.limit, n - begin);
  all.erase(all.begin() + static_cast<ptrdiff_t>(end * n_of_one), all.end());
  all.erase(all.begin(), all.begin() + static_cast<ptrdiff_t>(begin * n_of_one));
}

void reverse_rows(ResultSeries &result) {
  const size_t n_cells = result.n_cells_of_row();
  std::reverse(result.times_ns.begin(), result.times_ns.end());
  std::reverse(result.cells.begin(), result.cells.end());
  for (auto row = result.cells.begin(); row != result.cells.end(); row += static_cast<ptrdiff_t>(n_cells))
    std::reverse(row, row + static_cast<ptrdiff_t>(n_cells));
}

ResultSeries result_of_group(const Selection &selection, const Group &group) {
  const SelectStatement &select = selection.select;
  ResultSeries result;
  result.name = group.members[0]->name.measurement;
  result.tags = group.tags;
  result.has_times = true;
  result.columns.push_back(select.time_name);
  for (const Column &column : selection.columns.columns) result.columns.push_back(column.name);
  const Leaf &leaf = selection.columns.leaves[0];
  if (leaf.aggregate)
    select_windows(selection, group, result);
  else if (leaf.derivative)
    select_derivatives(selection, group, result);
  else
    select_rows(selection, group, result);
  if (select.is_descending) reverse_rows(result);
  cut_page(result.times_ns, select.rows);
  cut_page(result.cells, select.rows, result.n_cells_of_row());
  return result;
}

// Without an end, windows go to the present, as those of InfluxDB do. Without a beginning too, they have all points.
void set_range(const Environment &environment, Selection &selection) {
  const TimeRange &range = selection.select.range;
  selection.from_ns = range.from_ns.value_or(INT64_MIN);
  const bool is_to_present = selection.select.every_ns != 0 && range.from_ns && !range.to_ns;
  selection.to_ns = is_to_present ? environment.now_ns : range.to_ns.value_or(INT64_MAX);
}

}  // namespace

namespace {

// Calls use(selection, series) for each measurement whose series a statement reads. `series` are all that match.
template <class Use>
void for_each_measurement(const Environment &environment, const SelectStatement &select, Use use) {
  const SeriesByMeasurement found = series_of(environment, select);
  const Columns columns = columns_of_all(select, found);
  for (const auto &[measurement, series] : found) {
    Selection selection{environment, select, columns};
    set_range(environment, selection);
    if (select.range.is_empty || selection.from_ns > selection.to_ns) continue;
    resolve_references(selection.columns, series);
    use(selection, series);
  }
}

// Calls work(selection, group, i) for each group, on several threads: several groups at a time, or several parts of one.
template <class Work>
void for_each_group(const Selection &selection, const std::vector<Group> &groups, Work work) {
  Environment of_group = selection.environment;
  if (groups.size() > 1) of_group.n_threads = 1;
  const Selection of_groups{of_group, selection.select, selection.columns, selection.from_ns, selection.to_ns};
  parallel_for(groups.size(), selection.environment.n_threads, [&](size_t i) { work(of_groups, groups[i], i); });
}

void check_cells(const Environment &environment, size_t n_cells) {
  if (n_cells > environment.limits.n_cells)
    throw ExecutionFailed(fmt::format("more than {} values in the result", environment.limits.n_cells));
}

// What the parts of a statement hold.
struct HeldByParts {
  std::atomic<size_t> n_cells{0}, n_points{0};
};

// The groups, each as one series for each field that has aggregates.
void add_aggregated(const Selection &selection, const std::vector<FoundSeries> &series, HeldByParts &held,
                    std::vector<SeriesPart> &parts) {
  const std::vector<Group> groups = groups_of(selection.select, selection.columns, series);
  std::vector<std::vector<SeriesPart>> of_groups(groups.size());
  const Names fields = fields_of(series);
  for_each_group(selection, groups, [&](const Selection &of_group, const Group &group, size_t i) {
    for (auto &[field, aggregated] : aggregate(of_group, group)) {
      if (fields.count(field) == 0) continue;
      const size_t n_added = aggregated.aggregations.size() * aggregated.aggregations[0].n_windows();
      check_cells(selection.environment, held.n_cells += n_added);
      for (const Aggregation &aggregation : aggregated.aggregations)
        check_points(selection.environment, held.n_points += aggregation.n_kept());
      SeriesName name = {group.members[0]->name.measurement, group.tags, field};
      std::erase_if(name.tags, [](const auto &tag) { return tag.second.empty(); });
      of_groups[i].push_back({std::move(name), {}, std::move(aggregated)});
    }
  });
  for (std::vector<SeriesPart> &of_group : of_groups)
    parts.insert(parts.end(), std::make_move_iterator(of_group.begin()), std::make_move_iterator(of_group.end()));
}

// The names of the other series, with the tags of their groups. Groups and fields without points count for pages and
// wildcards.
void add_names(const Selection &selection, const std::vector<FoundSeries> &series, size_t n_before,
               std::vector<SeriesPart> &parts) {
  using Name = std::tuple<decltype(SeriesName::tags), std::string>;
  std::set<Name> known;
  for (size_t i = n_before; i < parts.size(); ++i) known.emplace(parts[i].name.tags, parts[i].name.field);
  const Names dimensions = dimensions_of(selection.select, tags_of(series));
  for (const FoundSeries &one : series) {
    SeriesName name = one.name;
    std::erase_if(name.tags, [&](const auto &tag) { return dimensions.count(tag.first) == 0; });
    if (known.emplace(name.tags, name.field).second) parts.push_back({std::move(name)});
  }
}

}  // namespace

std::vector<ResultSeries> execute_select(const Environment &environment, const SelectStatement &select) {
  std::vector<ResultSeries> results;
  std::atomic<size_t> n_cells{0};
  for_each_measurement(environment, select, [&](const Selection &selection, const std::vector<FoundSeries> &series) {
    if (selection.columns.leaves.empty()) return;
    std::vector<Group> groups = groups_of(select, selection.columns, series);
    cut_page(groups, select.series);
    std::vector<ResultSeries> of_groups(groups.size());
    for_each_group(selection, groups, [&](const Selection &of_group, const Group &group, size_t i) {
      of_groups[i] = result_of_group(of_group, group);
      check_cells(environment, n_cells.fetch_add(of_groups[i].cells.size()) + of_groups[i].cells.size());
    });
    for (ResultSeries &result : of_groups)
      if (!result.times_ns.empty()) results.push_back(std::move(result));
  });
  return results;
}

std::vector<SeriesPart> parts_of_select(const Environment &environment, const SelectStatement &select) {
  std::vector<SeriesPart> parts;
  HeldByParts held;
  for_each_measurement(environment, select, [&](const Selection &selection, const std::vector<FoundSeries> &series) {
    const std::vector<Leaf> &leaves = selection.columns.leaves;
    if (!leaves.empty() && leaves[0].aggregate) {
      const size_t n_before = parts.size();
      add_aggregated(selection, series, held, parts);
      return add_names(selection, series, n_before, parts);
    }
    for (const FoundSeries &one : series) {
      parts.push_back({one.name, {}, {}});
      if (!is_read(selection.columns, one)) continue;
      PointList &list = parts.back().points;
      read_points(selection.environment, one, selection.from_ns, selection.to_ns, list);
      if (!leaves[0].derivative) cut_points(select, list);
      check_points(environment, held.n_points += list.points.size());
    }
  });
  return parts;
}

namespace {

// The number of points at the front with different times and with numbers: usually all.
size_t n_regular(const PointList &list) {
  const std::vector<Point> &points = list.points;
  size_t n = 0;
  const auto has_own_time = [&points](size_t i) { return i == 0 || points[i - 1].ts_ns != points[i].ts_ns; };
  if (list.type == ValueType::integer)
    while (n < points.size() && has_own_time(n)) ++n;
  else
    while (n < points.size() && has_own_time(n) && !std::isnan(points[n].value)) ++n;
  return n;
}

}  // namespace

void read_points(const Environment &environment, const FoundSeries &series, int64_t from_ns, int64_t to_ns,
                 PointList &list, Wanted wanted, const std::function<bool(int64_t, int64_t)> &is_summary_enough) {
  check_interruption(environment);
  const size_t n_max = environment.limits.n_points;
  bool is_cut = false;
  environment.source.read(series.series,
                          {.from_ns = from_ns,
                           .to_ns = to_ns,
                           .is_newest_enough = wanted == Wanted::newest,
                           .goes_on =
                               [&](size_t n_points) {
                                 is_cut = n_points > n_max || is_interrupted(environment);
                                 return !is_cut;
                               },
                           .is_summary_enough = is_summary_enough},
                          list);
  if (is_cut) check_interruption(environment);
  if (is_cut || list.points.size() > n_max)
    throw ExecutionFailed(fmt::format("more than {} points of a series", n_max));
  std::vector<Point> &points = list.points;
  size_t n = n_regular(list);
  for (size_t i = n; i < points.size(); ++i) {
    if (list.type == ValueType::real && std::isnan(points[i].value)) continue;
    if (n != 0 && points[n - 1].ts_ns == points[i].ts_ns) --n;
    points[n++] = points[i];
  }
  points.resize(n);
}

namespace {

// Exact for integers, whose differences are small in relation to them if they are counters.
double change_of(const Point &before, const Point &after, ValueType type) {
  int64_t change;
  if (type == ValueType::integer && !__builtin_sub_overflow(integer_of(after), integer_of(before), &change))
    return static_cast<double>(change);
  return real_of(after, type) - real_of(before, type);
}

}  // namespace

PointList derivative_of(const PointList &list, Function function, int64_t unit_ns) {
  const std::vector<Point> &points = list.points;
  PointList rates;
  for (size_t i = 1, previous = 0; i < points.size(); ++i) {
    if (points[i].ts_ns == points[previous].ts_ns) continue;
    // Times in order can differ by more than the signed type holds.
    const uint64_t elapsed_ns = static_cast<uint64_t>(points[i].ts_ns) - static_cast<uint64_t>(points[previous].ts_ns);
    const double change = change_of(points[previous], points[i], list.type);
    previous = i;
    if (function == Function::non_negative_derivative && change < 0.0) continue;
    rates.points.push_back(
        {points[i].ts_ns, change / (static_cast<double>(elapsed_ns) / static_cast<double>(unit_ns))});
  }
  return rates;
}

std::vector<ResultSeries> execute(const Environment &environment, const Statement &statement) {
  if (const auto *const select = std::get_if<SelectStatement>(&statement)) return execute_select(environment, *select);
  if (const auto *const show = std::get_if<ShowStatement>(&statement)) return execute_show(environment, *show);
  return {};  // others are executed by influxql_change.h
}

}  // namespace metricdb::influxql
