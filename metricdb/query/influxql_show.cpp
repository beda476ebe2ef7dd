#include "query/influxql_show.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <set>
#include <utility>

#include "codec/line_protocol.h"
#include "query/influxql_series.h"

namespace metricdb::influxql {
namespace {

using Row = std::vector<std::string>;

// The range of `n` results that a page contains.
std::pair<size_t, size_t> range_of(const Page &page, size_t n) {
  const size_t begin = std::min<uint64_t>(page.offset, n);
  const size_t n_rest = n - begin;
  return {begin, begin + (page.limit == 0 ? n_rest : std::min<uint64_t>(page.limit, n_rest))};
}

template <class Rows>
ResultSeries table_of(std::string name, std::vector<std::string> columns, const Rows &rows, const Page &page) {
  ResultSeries table;
  table.name = std::move(name);
  table.columns = std::move(columns);
  const auto [begin, end] = range_of(page, rows.size());
  size_t i = 0;
  for (const Row &row : rows) {
    if (i >= begin && i < end)
      for (const std::string &text : row) table.add_text(text);
    ++i;
  }
  return table;
}

// The text of a series without its field, as line protocol has it.
std::string key_of(const SeriesName &name) {
  std::string key;
  for (const char byte : name.measurement) {
    if (byte == ',' || byte == ' ') key += '\\';
    key += byte;
  }
  for (const auto &[tag, value] : name.tags) key += fmt::format(",{}={}", escaped_name(tag), escaped_name(value));
  return key;
}

// Sorted rows by measurement.
class Listing {
 public:
  explicit Listing(size_t n_rows_max) : n_rows_max_(n_rows_max) {}

  void add(const std::string &measurement, Row row) {
    if (!rows_[measurement].insert(std::move(row)).second) return;
    if (++n_rows_ > n_rows_max_) throw ExecutionFailed(fmt::format("more than {} results", n_rows_max_));
  }

  std::vector<ResultSeries> tables(const ShowStatement &show, const std::vector<std::string> &columns) const {
    std::vector<ResultSeries> tables;
    const auto [begin, end] = range_of(show.series, rows_.size());
    size_t i = 0;
    for (const auto &[measurement, rows] : rows_) {
      if (i >= begin && i < end) tables.push_back(table_of(measurement, columns, rows, show.rows));
      ++i;
    }
    std::erase_if(tables, [](const ResultSeries &table) { return table.cells.empty(); });
    return tables;
  }

 private:
  std::map<std::string, std::set<Row>> rows_;
  size_t n_rows_ = 0;
  size_t n_rows_max_;
};

void add_rows(const ShowStatement &show, const SeriesName &name, Listing &listing) {
  switch (show.shown) {
    case Shown::measurements:
      if (!show.key || show.key->admits(name.measurement)) listing.add("measurements", {name.measurement});
      break;
    case Shown::series:
      listing.add("", {key_of(name)});
      break;
    case Shown::tag_keys:
      for (const auto &[tag, value] : name.tags) listing.add(name.measurement, {tag});
      break;
    case Shown::tag_values:
      for (const auto &[tag, value] : name.tags)
        if (show.key->admits(tag)) listing.add(name.measurement, {tag, value});
      break;
    case Shown::field_keys:
    case Shown::databases:
    case Shown::retention_policies:
      break;
  }
}

// A field is an integer if it is one in all its series: a statement over series of both types computes with floats.
void add_field_keys(const Environment &environment, const ShowStatement &show, Listing &listing) {
  std::map<std::pair<std::string, std::string>, std::vector<uint32_t>> fields;
  for_each_matching(environment, show.sources, show.condition, std::nullopt,
                    [&](uint32_t series, const SeriesName &name) {
                      fields[{name.measurement, name.field}].push_back(series);
                    });
  for (const auto &[name, all_series] : fields) {
    check_interruption(environment);
    // A series that is gone has no type.
    const bool is_integer = std::all_of(all_series.begin(), all_series.end(), [&](uint32_t series) {
      return environment.source.type(series).value_or(ValueType::integer) == ValueType::integer;
    });
    listing.add(name.first, {name.second, is_integer ? "integer" : "float"});
  }
}

std::vector<std::string> columns_of(Shown shown) {
  switch (shown) {
    case Shown::series:
      return {"key"};
    case Shown::tag_keys:
      return {"tagKey"};
    case Shown::tag_values:
      return {"key", "value"};
    case Shown::field_keys:
      return {"fieldKey", "fieldType"};
    default:
      return {"name"};
  }
}

}  // namespace

std::vector<ResultSeries> execute_show(const Environment &environment, const ShowStatement &show) {
  if (show.shown == Shown::databases) {
    std::vector<Row> rows;
    for (const std::string &database : environment.databases) rows.push_back({database});
    return {table_of("databases", columns_of(show.shown), rows, show.rows)};
  }
  Listing listing(environment.limits.n_cells);
  if (show.shown == Shown::field_keys) {
    add_field_keys(environment, show, listing);
    return listing.tables(show, columns_of(show.shown));
  }
  for_each_matching(environment, show.sources, show.condition, std::nullopt,
                    [&](uint32_t, const SeriesName &name) { add_rows(show, name, listing); });
  return listing.tables(show, columns_of(show.shown));
}

}  // namespace metricdb::influxql
