#include "query/influxql_windows.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>

namespace metricdb::influxql {
namespace {

template <class Value>
Value value_of(const Point &point) {
  return std::bit_cast<Value>(point.value);
}

template <class Value>
Point point_of(int64_t ts_ns, Value value) {
  return {ts_ns, std::bit_cast<double>(value)};
}

// Replaces the selected point by the first one that is better.
template <class Cell, class IsBetter>
void select_point(Cell &cell, std::span<const Point> points, IsBetter is_better) {
  Point best = cell.n == 0 ? points[0] : cell.a;
  for (const Point &point : points)
    if (is_better(point, best)) best = point;
  cell.a = best;
}

// Of points with the same value, the earliest is selected. Of points with the same time, that with the greater value.
template <class Value>
bool is_smaller(const Point &a, const Point &b) {
  return value_of<Value>(a) < value_of<Value>(b) || (value_of<Value>(a) == value_of<Value>(b) && a.ts_ns < b.ts_ns);
}

template <class Value>
bool is_greater(const Point &a, const Point &b) {
  return value_of<Value>(a) > value_of<Value>(b) || (value_of<Value>(a) == value_of<Value>(b) && a.ts_ns < b.ts_ns);
}

template <class Value>
bool is_earlier(const Point &a, const Point &b) {
  return a.ts_ns < b.ts_ns || (a.ts_ns == b.ts_ns && value_of<Value>(a) > value_of<Value>(b));
}

template <class Value>
bool is_later(const Point &a, const Point &b) {
  return a.ts_ns > b.ts_ns || (a.ts_ns == b.ts_ns && value_of<Value>(a) > value_of<Value>(b));
}

double plus(double a, double b) {
  return a + b;
}

int64_t plus(int64_t a, int64_t b) {
  return static_cast<int64_t>(static_cast<uint64_t>(a) + static_cast<uint64_t>(b));
}

template <class Value, class Cell>
void add_sum(Cell &cell, std::span<const Point> points) {
  Value sum = value_of<Value>(cell.a);
  for (const Point &point : points) sum = plus(sum, value_of<Value>(point));
  cell.a = point_of(0, sum);
}

template <class Value, class Cell>
void add_range(Cell &cell, std::span<const Point> points) {
  Value min = value_of<Value>(cell.n == 0 ? points[0] : cell.a);
  Value max = value_of<Value>(cell.n == 0 ? points[0] : cell.b);
  for (const Point &point : points) {
    min = std::min(min, value_of<Value>(point));
    max = std::max(max, value_of<Value>(point));
  }
  cell.a = point_of(0, min);
  cell.b = point_of(0, max);
}

// Welford's method: a difference of sums of squares would lose all digits of large values.
template <class Cell>
void add_deviations(Cell &cell, std::span<const Point> points) {
  uint64_t n = cell.n;
  for (const Point &point : points) {
    const double distance = point.value - cell.a.value;
    cell.a.value += distance / static_cast<double>(++n);
    cell.b.value += distance * (point.value - cell.a.value);
  }
}

// As of the points of both (Chan, Golub and LeVeque).
template <class Cell>
void merge_deviations(Cell &cell, const Cell &added) {
  const auto n = static_cast<double>(cell.n), n_added = static_cast<double>(added.n);
  const double distance = added.a.value - cell.a.value;
  cell.a.value += distance * n_added / (n + n_added);
  cell.b.value += added.b.value + distance * distance * n * n_added / (n + n_added);
}

// Real if the range of integers is no integer of 64 bits.
Number range_of(const Point &min, const Point &max, ValueType type) {
  int64_t range;
  if (type == ValueType::integer && !__builtin_sub_overflow(integer_of(max), integer_of(min), &range))
    return Number(range);
  return Number(real_of(max, type) - real_of(min, type));
}

// Whether the function of integers is no integer.
bool is_always_real(Function function) {
  return function == Function::mean || function == Function::stddev;
}

}  // namespace

int64_t WindowGrid::number_of(int64_t ts_ns) const {
  if (every_ns_ == 0) return 0;
  const int64_t rest_ns = ts_ns % every_ns_;
  const bool is_before = rest_ns < 0;  // the division rounds towards zero
  const int64_t into_ns = rest_ns + (is_before ? every_ns_ : 0);
  return ts_ns / every_ns_ - (is_before ? 1 : 0) - (into_ns < offset_ns_ ? 1 : 0);
}

int64_t WindowGrid::begin_of(int64_t number) const {
  // Wraps around if the beginning of the first window is not representable. Then the result is not negative.
  const uint64_t wrapped = static_cast<uint64_t>(number) * static_cast<uint64_t>(every_ns_);
  const auto begin_ns = static_cast<int64_t>(wrapped + static_cast<uint64_t>(offset_ns_));
  return number < 0 && begin_ns >= 0 ? INT64_MIN : begin_ns;
}

size_t WindowGrid::length_of_run(std::span<const Point> points) const {
  if (every_ns_ == 0) return points.size();
  const int64_t rest_ns = points[0].ts_ns % every_ns_;
  int64_t into_ns = rest_ns + (rest_ns < 0 ? every_ns_ : 0) - offset_ns_;
  if (into_ns < 0) into_ns += every_ns_;
  // Differences of times in order do not fit into the signed type, but do into the unsigned one.
  const auto first = static_cast<uint64_t>(points[0].ts_ns);
  const auto left_ns = static_cast<uint64_t>(every_ns_ - into_ns);
  const auto is_inside = [&](const Point &point) { return static_cast<uint64_t>(point.ts_ns) - first < left_ns; };
  // Doubled while it is inside, and then halved: windows have few points, or many.
  size_t inside = 1, step = 1;
  while (inside + step <= points.size() && is_inside(points[inside + step - 1])) {
    inside += step;
    step *= 2;
  }
  const auto end = points.begin() + static_cast<ptrdiff_t>(std::min(inside + step, points.size()));
  return static_cast<size_t>(std::partition_point(points.begin() + static_cast<ptrdiff_t>(inside), end, is_inside) -
                             points.begin());
}

void Aggregation::extend(size_t n_before, size_t n_after) {
  cells_.insert(cells_.begin(), n_before, Cell());
  cells_.resize(cells_.size() + n_after);
  if (!keeps_points()) return;
  kept_.insert(kept_.begin(), n_before, {});
  kept_.resize(kept_.size() + n_after);
}

Aggregation::Aggregation(Function function, double percent)
    : function_(function), percent_(percent), type_(is_always_real(function) ? ValueType::real : ValueType::integer) {}

void Aggregation::make_real() {
  if (type_ == ValueType::real) return;
  const auto convert = [](Point &point) { point.value = real_of(point, ValueType::integer); };
  for (Cell &cell : cells_) {
    convert(cell.a);
    convert(cell.b);
  }
  for (std::vector<Point> &points : kept_) std::for_each(points.begin(), points.end(), convert);
  type_ = ValueType::real;
}

template <class Value>
void Aggregation::add_typed(Cell &cell, std::span<const Point> points) {
  switch (function_) {
    case Function::sum:
    case Function::mean:
      add_sum<Value>(cell, points);
      break;
    case Function::min:
      select_point(cell, points, is_smaller<Value>);
      break;
    case Function::max:
      select_point(cell, points, is_greater<Value>);
      break;
    case Function::first:
      select_point(cell, points.first(1), is_earlier<Value>);
      break;
    case Function::last:
      select_point(cell, points.last(1), is_later<Value>);
      break;
    case Function::spread:
      add_range<Value>(cell, points);
      break;
    default:
      break;  // a count has the number only
  }
}

void Aggregation::add_values(Cell &cell, std::span<const Point> points) {
  if (type_ == ValueType::integer)
    add_typed<int64_t>(cell, points);
  else
    add_typed<double>(cell, points);
}

void Aggregation::add(size_t window, std::span<const Point> points) {
  if (points.empty()) return;
  Cell &cell = cells_[window];
  if (function_ == Function::percentile)
    kept_[window].insert(kept_[window].end(), points.begin(), points.end());
  else if (function_ == Function::stddev)
    add_deviations(cell, points);
  else
    add_values(cell, points);
  cell.n += points.size();
}

void Aggregation::add(size_t window, const PointSummary &summary) {
  Cell &cell = cells_[window];
  switch (function_) {
    case Function::sum:
    case Function::mean:
      add_values(cell, std::array{Point{0, summary.sum}});
      break;
    case Function::first:
      add_values(cell, {&summary.first, 1});
      break;
    case Function::last:
      add_values(cell, {&summary.last, 1});
      break;
    default:
      add_values(cell, std::array{summary.min, summary.max});  // of no use to a count
      break;
  }
  cell.n += summary.n;
}

void Aggregation::merge(Aggregation &other, size_t at) {
  if (type_ == ValueType::real) other.make_real();
  if (other.type_ == ValueType::real) make_real();
  for (size_t window = 0; window < other.cells_.size(); ++window) {
    Cell &cell = cells_[at + window];
    const Cell &added = other.cells_[window];
    if (added.n == 0) continue;
    if (keeps_points())
      kept_[at + window].insert(kept_[at + window].end(), other.kept_[window].begin(), other.kept_[window].end());
    else if (function_ == Function::stddev)
      merge_deviations(cell, added);
    else if (function_ == Function::spread)
      add_values(cell, std::array{added.a, added.b});
    else
      add_values(cell, {&added.a, 1});
    cell.n += added.n;
  }
}

std::optional<WindowResult> Aggregation::result(size_t window) {
  const Cell &cell = cells_[window];
  const auto n = static_cast<double>(cell.n);
  if (cell.n == 0) return std::nullopt;
  switch (function_) {
    case Function::count:
      return WindowResult{0, Number(static_cast<int64_t>(cell.n))};
    case Function::mean:
      return WindowResult{0, Number(cell.a.value / n)};
    case Function::spread:
      return WindowResult{0, range_of(cell.a, cell.b, type_)};
    case Function::stddev:
      if (cell.n < 2) return std::nullopt;
      return WindowResult{0, Number(std::sqrt(cell.b.value / (n - 1.0)))};
    case Function::percentile:
      return percentile_of(kept_[window]);
    default:
      return WindowResult{cell.a.ts_ns, Number::of(cell.a, type_)};
  }
}

size_t Aggregation::n_kept() const {
  size_t n = 0;
  for (const std::vector<Point> &points : kept_) n += points.size();
  return n;
}

void Aggregation::put_to(std::string &bytes) const {
  put(bytes, function_);
  put(bytes, percent_);
  put(bytes, type_);
  put_all(bytes, cells_);
  for (const std::vector<Point> &points : kept_) put_all(bytes, points);
}

Aggregation Aggregation::of_bytes(ByteReader &reader) {
  const auto function = reader.get<Function>();
  if (function < Function::count || function >= Function::derivative) throw BytesDamaged("an unknown function");
  Aggregation aggregation(function, reader.get<double>());
  aggregation.type_ = reader.get<ValueType>();
  if (aggregation.type_ > ValueType::integer) throw BytesDamaged("an unknown type");
  aggregation.cells_ = reader.all<Cell>();
  if (aggregation.keeps_points())
    for (size_t i = 0; i < aggregation.cells_.size(); ++i) aggregation.kept_.push_back(reader.all<Point>());
  return aggregation;
}

// The nearest rank, rounded as InfluxDB does.
std::optional<WindowResult> Aggregation::percentile_of(std::vector<Point> &points) const {
  const double rank = std::floor(static_cast<double>(points.size()) * percent_ / 100.0 + 0.5) - 1.0;
  if (rank < 0.0 || rank >= static_cast<double>(points.size())) return std::nullopt;
  const auto at = points.begin() + static_cast<ptrdiff_t>(rank);
  std::nth_element(points.begin(), at, points.end(),
                   type_ == ValueType::integer ? is_smaller<int64_t> : is_smaller<double>);
  return WindowResult{at->ts_ns, Number::of(*at, type_)};
}

}  // namespace metricdb::influxql
