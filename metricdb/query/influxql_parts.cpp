#include "query/influxql_parts.h"

#include <algorithm>
#include <map>
#include <tuple>

#include "query/influxql_render.h"
#include "query/influxql_select.h"
#include "query/influxql_series.h"

namespace metricdb::influxql {
namespace {

constexpr std::string_view HEADING = "metricdb parts 1\n";
constexpr size_t MIN_PART_BYTES = 5 * sizeof(uint64_t);  // of a series

// Points and aggregations are as large as the limits of a statement permit, so the size is checked before and after each.
void put_part(std::string &bytes, const SeriesPart &part) {
  put_text(bytes, part.name.measurement);
  put(bytes, static_cast<uint64_t>(part.name.tags.size()));
  for (const auto &[name, value] : part.name.tags) {
    put_text(bytes, name);
    put_text(bytes, value);
  }
  put_text(bytes, part.name.field);
  put(bytes, part.points.type);
  check_size(bytes, part.points.points.size() * sizeof(Point));
  put_all(bytes, part.points.points);
  put(bytes, static_cast<uint64_t>(part.aggregated.aggregations.size()));
  if (part.aggregated.aggregations.empty()) return;
  put(bytes, part.aggregated.first_number);
  for (const Aggregation &aggregation : part.aggregated.aggregations) {
    aggregation.put_to(bytes);
    check_size(bytes);
  }
}

SeriesPart get_part(ByteReader &reader) {
  SeriesPart part;
  part.name.measurement = reader.text();
  for (size_t n = reader.count(2 * sizeof(uint64_t)); n != 0; --n) {
    const std::string_view name = reader.text();
    part.name.tags.emplace_back(name, reader.text());
  }
  part.name.field = reader.text();
  part.points.type = reader.get<ValueType>();
  if (part.points.type > ValueType::integer) throw BytesDamaged("an unknown type");
  part.points.points = reader.all<Point>();
  const size_t n = reader.count(sizeof(uint64_t));
  if (n == 0) return part;
  part.aggregated.first_number = reader.get<int64_t>();
  std::vector<Aggregation> &aggregations = part.aggregated.aggregations;
  while (aggregations.size() < n) {
    aggregations.push_back(Aggregation::of_bytes(reader));
    const size_t n_windows = aggregations.back().n_windows();
    if (n_windows == 0 || n_windows != aggregations[0].n_windows()) throw BytesDamaged("windows are missing");
  }
  return part;
}

// Series of all servers. Those with the same name are one if they have points.
class PartsSource : public SeriesSource {
 public:
  explicit PartsSource(std::span<const std::vector<SeriesPart>> of_servers) {
    std::map<std::tuple<std::string_view, const decltype(SeriesName::tags) &, std::string_view>, size_t> by_name;
    for (const std::vector<SeriesPart> &of_server : of_servers)
      for (const SeriesPart &part : of_server) {
        if (part.aggregated.aggregations.empty()) {
          const SeriesName &name = part.name;
          const auto [at, is_new] = by_name.try_emplace({name.measurement, name.tags, name.field}, series_.size());
          if (!is_new) {
            series_[at->second].push_back(&part);
            continue;
          }
        }
        series_.push_back({&part});
      }
  }

  void for_each_series(const SeriesFilter & /*filter*/, const Visit &visit) const override {
    for (uint32_t i = 0; i < series_.size(); ++i) visit(i, series_[i][0]->name);
  }

  void read(uint32_t series, const SeriesRead & /*what*/, PointList &list) const override {
    list = series_[series][0]->points;
    if (series_[series].size() == 1) return;
    for (const SeriesPart *const part : std::span(series_[series]).subspan(1)) append_points(part->points, list);
    std::stable_sort(list.points.begin(), list.points.end(),
                     [](const Point &a, const Point &b) { return a.ts_ns < b.ts_ns; });
  }

  std::optional<ValueType> type(uint32_t series) const override {
    const auto is_integer = [](const SeriesPart *part) { return part->points.type == ValueType::integer; };
    const auto &parts = series_[series];
    return std::all_of(parts.begin(), parts.end(), is_integer) ? ValueType::integer : ValueType::real;
  }

  const AggregatedSeries *aggregated(uint32_t series) const override {
    const AggregatedSeries &aggregated = series_[series][0]->aggregated;
    return aggregated.aggregations.empty() ? nullptr : &aggregated;
  }

 private:
  std::vector<std::vector<const SeriesPart *>> series_;
};

}  // namespace

std::vector<SeriesPart> parts_of(const Environment &environment, const Statement &statement) {
  if (const auto *const select = std::get_if<SelectStatement>(&statement)) return parts_of_select(environment, *select);
  const auto &show = std::get<ShowStatement>(statement);
  std::vector<SeriesPart> parts;
  std::vector<uint32_t> numbers;
  for_each_matching(environment, show.sources, show.condition, {}, [&](uint32_t series, const SeriesName &name) {
    parts.push_back({name});
    numbers.push_back(series);
  });
  for (size_t i = 0; show.shown == Shown::field_keys && i < parts.size(); ++i)
    parts[i].points.type = environment.source.type(numbers[i]).value_or(ValueType::integer);
  return parts;
}

PartsWriter::PartsWriter(std::string &bytes, size_t n_statements) : bytes_(bytes) {
  bytes_ = HEADING;
  put(bytes_, static_cast<uint64_t>(n_statements));
}

void PartsWriter::add(StatementParts parts) {
  put_text(bytes_, parts.error);
  put(bytes_, static_cast<uint64_t>(parts.series.size()));
  for (SeriesPart &part : parts.series) {
    put_part(bytes_, part);
    part = {};
  }
}

std::vector<StatementParts> parts_of_bytes(std::string_view bytes) {
  if (!bytes.starts_with(HEADING)) throw BytesDamaged("not of this version of metricdb");
  ByteReader reader(bytes.substr(HEADING.size()));
  std::vector<StatementParts> statements(reader.count(2 * sizeof(uint64_t)));
  for (StatementParts &parts : statements) {
    parts.error = reader.text();
    for (size_t n = reader.count(MIN_PART_BYTES); n != 0; --n) parts.series.push_back(get_part(reader));
  }
  if (!reader.is_at_end()) throw BytesDamaged("more bytes than expected");
  return statements;
}

std::vector<ResultSeries> execute_on_parts(const Environment &environment, const Statement &statement,
                                           std::span<const std::vector<SeriesPart>> of_servers) {
  const PartsSource source(of_servers);
  const Environment of_parts = {source,
                                environment.databases,
                                environment.now_ns,
                                environment.limits,
                                environment.is_interrupted,
                                environment.n_threads};
  // The servers have applied the conditions already, to all tags of the series.
  Statement of_all = statement;
  if (auto *const select = std::get_if<SelectStatement>(&of_all)) select->condition = {};
  if (auto *const show = std::get_if<ShowStatement>(&of_all)) show->condition = {};
  return execute(of_parts, of_all);
}

}  // namespace metricdb::influxql
