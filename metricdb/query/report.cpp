#include "query/report.h"

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <fnmatch.h>

#include <algorithm>
#include <chrono>
#include <iterator>
#include <string_view>
#include <vector>

namespace metricdb {
namespace {

constexpr size_t SERIES_CELLS = 32;
constexpr const char *LEVELS[] = {"▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
constexpr size_t N_LEVELS = std::size(LEVELS);

// Sums in long double, whose range holds the sum of any number of doubles.
struct Mean {
  long double sum = 0.0L;
  uint64_t count = 0;

  void add(double value) {
    sum += static_cast<long double>(value);
    ++count;
  }
  double value() const { return static_cast<double>(sum / static_cast<long double>(count)); }
};

struct Row {
  std::string key;
  std::string count, min, max, mean, last;
  std::string spark;
};

std::string number(double value) {
  return fmt::format("{:.6g}", value);
}

uint64_t count_visible(const Store &store, uint32_t series) {
  uint64_t count = 0;
  PointCursor cursor(store, series);
  for (Point point; cursor.next(point);) ++count;
  return count;
}

// For a series with at least one visible point.
Row row_of(const Store &store, uint32_t series) {
  const uint64_t n_points = count_visible(store, series);
  std::vector<Mean> cells(std::min<uint64_t>(n_points, SERIES_CELLS));
  Mean all;
  Point point{0, 0.0};
  double min = 0.0;
  double max = 0.0;
  for (PointCursor cursor(store, series); cursor.next_real(point);) {
    min = all.count == 0 ? point.value : std::min(min, point.value);
    max = all.count == 0 ? point.value : std::max(max, point.value);
    cells[all.count * cells.size() / n_points].add(point.value);
    all.add(point.value);
  }
  std::vector<double> values;
  for (const Mean &cell : cells) values.push_back(cell.value());
  return {std::string(store.key(series)),
          std::to_string(all.count),
          number(min),
          number(max),
          number(all.value()),
          number(point.value),
          sparkline(values) + (store.is_inactive(series) ? "  inactive" : "")};
}

std::string sweep_line(const char *name, const PoolSweep &pool, uint64_t slots_released) {
  return fmt::format(
      "{:<17}{} memory slots released; last sweep: {} free before, {} after; {} bytes used, {} of them deleted, of {} "
      "bytes\n",
      name, slots_released, pool.free_before, pool.free_after, pool.used_bytes, pool.deleted_bytes, pool.total_bytes);
}

std::string forget_lines(const Store &store, uint64_t n_visible, const Sweep &last) {
  const ForgetCounts &counts = store.forgotten();
  std::string text = fmt::format("visible points   {}, {} hidden\n", n_visible, store.n_points() - n_visible);
  text += fmt::format("forgotten        {} points in {} chunks, {} late; {} series aged, {} reused\n", counts.points,
                      counts.chunks, counts.late_points, counts.series_aged, counts.series_reused);
  text += sweep_line("keys swept", last.keys, counts.key_slots);
  return text + sweep_line("points swept", last.points, counts.point_slots);
}

// The visible points of a store.
struct Span {
  uint64_t n_visible = 0;
  int64_t oldest_ns = INT64_MAX;
  int64_t newest_ns = INT64_MIN;
};

Span span_of(const Store &store) {
  Span span;
  for (uint32_t series = 0; series < store.n_slots(); ++series) {
    if (!store.holds_series(series)) continue;
    PointCursor cursor(store, series);
    for (Point point; cursor.next(point); ++span.n_visible) {
      span.oldest_ns = std::min(span.oldest_ns, point.ts_ns);
      span.newest_ns = std::max(span.newest_ns, point.ts_ns);
    }
  }
  return span;
}

std::string shown_time(int64_t ts_ns) {
  constexpr int64_t NS_PER_S = 1'000'000'000;
  const int64_t rest = ts_ns % NS_PER_S;
  const int64_t ns = rest < 0 ? rest + NS_PER_S : rest;
  const std::time_t seconds = ts_ns / NS_PER_S - (rest < 0 ? 1 : 0);
  return fmt::format("{} ({:%F %T}.{:09} UTC)", ts_ns, fmt::gmtime(seconds), ns);
}

std::string array_lines(const char *name, DynArrHandle_t *array, const ArrayFiles &files, const PoolBytes *bytes) {
  const auto *const lists = static_cast<const DynArrLLI_t *>(tslb_da_get_lli(array));
  std::string text =
      fmt::format("{:<17}{} slots used, {} of them free, {} inactive; {} bytes in its file, {} on the disk\n", name,
                  tslb_da_get_size(array), lists->n_free, lists->n_inact, files.bytes, files.allocated_bytes);
  if (bytes != nullptr)
    text += fmt::format("{:17}{} bytes of chunks, {} of them deleted\n", "", bytes->used, bytes->deleted);
  return text;
}

// The headers in memory, to locate faults.
std::string headers_of(const Store &store) {
  std::string text = "the headers of the arrays, as the library prints them\n";
  text += fmt::format("  catalogue      {}\n", tslb_da_get_hdr_str(store.catalogue()));
  text += fmt::format("  keys           {}\n", tslb_print_poolhdr(store.keys()));
  return text + fmt::format("  points         {}\n", tslb_print_poolhdr(store.points()));
}

std::string table_of(const std::vector<Row> &rows) {
  size_t widths[6] = {};
  const auto cells_of = [](const Row &row) {
    return std::vector<std::string_view>{row.key, row.count, row.min, row.max, row.mean, row.last};
  };
  for (const Row &row : rows) {
    const auto cells = cells_of(row);
    for (size_t i = 0; i < cells.size(); ++i) widths[i] = std::max(widths[i], fmt::formatted_size("{:1}", cells[i]));
  }
  std::string table;
  for (const Row &row : rows)
    fmt::format_to(std::back_inserter(table), "{:<{}}  {:>{}}  {:>{}}  {:>{}}  {:>{}}  {:>{}}  {}\n", row.key,
                   widths[0], row.count, widths[1], row.min, widths[2], row.max, widths[3], row.mean, widths[4],
                   row.last, widths[5], row.spark);
  return table;
}

}  // namespace

std::string sparkline(std::span<const double> values) {
  std::string line;
  if (values.empty()) return line;
  const auto [min, max] = std::minmax_element(values.begin(), values.end());
  // In long double: the difference of two doubles can exceed the range of double.
  const long double low = *min;
  const long double height = static_cast<long double>(*max) - low;
  for (const double value : values) {
    const long double share = height > 0 ? (static_cast<long double>(value) - low) / height : 0.5L;
    line += LEVELS[std::min(static_cast<size_t>(share * N_LEVELS), N_LEVELS - 1)];
  }
  return line;
}

std::string series_table(const Store &store, const std::string &pattern) {
  std::vector<Row> rows;
  for (uint32_t series = 0; series < store.n_slots(); ++series)
    if (store.holds_series(series) && fnmatch(pattern.c_str(), store.key(series).data(), 0) == 0 &&
        count_visible(store, series) != 0)
      rows.push_back(row_of(store, series));
  if (rows.empty()) return fmt::format("no series matches {}\n", pattern);
  std::sort(rows.begin(), rows.end(), [](const Row &a, const Row &b) { return a.key < b.key; });
  rows.insert(rows.begin(), {"series", "count", "min", "max", "mean", "last", "in order of arrival"});
  return table_of(rows);
}

std::string load_summary(const Store &store, const LoadStats &stats, const Sweep &last, double seconds) {
  const uint64_t n_visible = store.n_visible();
  const double n_points = static_cast<double>(std::max<uint64_t>(n_visible, 1));
  std::string text;
  const auto out = std::back_inserter(text);
  fmt::format_to(out, "lines            {}\n", stats.lines);
  fmt::format_to(out, "series           {}{}\n", store.n_series(),
                 store.config().forgetting.idle_ns != 0 ? fmt::format(", {} inactive", store.n_inactive()) : "");
  fmt::format_to(out, "points           {}\n", stats.points);
  fmt::format_to(out, "strings skipped  {}\n", stats.strings_skipped);
  fmt::format_to(out, "malformed lines  {}\n", stats.malformed);
  fmt::format_to(out, "bytes per point  {:.2f} in use, {:.2f} reserved\n",
                 static_cast<double>(store.bytes_in_use()) / n_points,
                 static_cast<double>(store.bytes_reserved()) / n_points);
  if (store.config().forgetting.is_by_sweeps()) text += forget_lines(store, n_visible, last);
  fmt::format_to(out, "points per s     {:.0f} ({:.3f} s without reading the inputs)\n",
                 seconds > 0.0 ? static_cast<double>(stats.points) / seconds : 0.0, seconds);
  return text + headers_of(store);
}

std::string database_summary(const std::string &folder, const Store &store, const GenerationInfo &stored,
                             double seconds) {
  const Span span = span_of(store);
  const double n_points = static_cast<double>(std::max<uint64_t>(span.n_visible, 1));
  const ForgetCounts &counts = store.forgotten();
  std::string text;
  const auto out = std::back_inserter(text);
  fmt::format_to(out, "database         {}: generation {}, opened and checked in {:.3f} s\n", folder, stored.number,
                 seconds);
  fmt::format_to(out, "series           {}, {} inactive\n", store.n_series(), store.n_inactive());
  fmt::format_to(out, "visible points   {}, {} hidden\n", span.n_visible, store.n_points() - span.n_visible);
  if (span.n_visible != 0) {
    fmt::format_to(out, "oldest           {}\n", shown_time(span.oldest_ns));
    fmt::format_to(out, "newest           {}\n", shown_time(span.newest_ns));
  }
  fmt::format_to(out, "forgotten        {} points in {} chunks, {} late; {} series aged, {} reused\n", counts.points,
                 counts.chunks, counts.late_points, counts.series_aged, counts.series_reused);
  fmt::format_to(out, "bytes per point  {:.2f} in files, {:.2f} on the disk\n",
                 static_cast<double>(stored.bytes()) / n_points,
                 static_cast<double>(stored.allocated_bytes()) / n_points);
  const PoolBytes keys = store.key_bytes();
  const PoolBytes points = store.point_bytes();
  text += array_lines("catalogue", store.catalogue(), stored.arrays[0], nullptr);
  text += array_lines("keys", store.keys(), stored.arrays[1], &keys);
  text += array_lines("points", store.points(), stored.arrays[2], &points);
  return text + headers_of(store);
}

}  // namespace metricdb
