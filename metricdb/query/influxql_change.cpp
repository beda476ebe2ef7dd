#include "query/influxql_change.h"

#include <fmt/format.h>

#include <limits>

#include "codec/printable.h"
#include "query/influxql_series.h"

namespace metricdb::influxql {
namespace {

constexpr int64_t NS_PER_SECOND = 1'000'000'000, NS_PER_MINUTE = 60 * NS_PER_SECOND, NS_PER_HOUR = 60 * NS_PER_MINUTE;
constexpr int64_t MIN_RETENTION_NS = NS_PER_HOUR;

// 168h0m0s
std::string duration_text(int64_t ns) {
  if (ns == 0) return "0s";
  return fmt::format("{}h{}m{}s", ns / NS_PER_HOUR, ns % NS_PER_HOUR / NS_PER_MINUTE,
                     static_cast<double>(ns % NS_PER_MINUTE) / static_cast<double>(NS_PER_SECOND));
}

void check_retention(std::optional<int64_t> ns) {
  if (ns && *ns != 0 && *ns < MIN_RETENTION_NS)
    throw ExecutionFailed("retention policy duration must be at least 1h0m0s");
}

std::vector<ResultSeries> show_retention(const InfluxqlDatabases &databases, const std::string &database) {
  ResultSeries table;
  table.columns = {"name", "duration", "shardGroupDuration", "replicaN", "default"};
  table.add_text("autogen");
  table.add_text(duration_text(databases.retention_ns(database)));
  table.add_text("0s");  // there are no shards
  table.cells.push_back({Cell::Kind::number, 0, 1.0});
  table.cells.push_back({Cell::Kind::truth, 0, 1.0});
  return {table};
}

void erase(InfluxqlDatabases &databases, const Environment &environment, const EraseStatement &statement,
           const std::string &database) {
  if (statement.range.is_empty) return;
  const auto choose = [&](const SeriesSource &source) {
    std::vector<uint32_t> chosen;
    const Environment here = {source, environment.databases, environment.now_ns, environment.limits,
                              environment.is_interrupted};
    for_each_matching(here, statement.sources, statement.condition, std::nullopt,
                      [&](uint32_t series, const SeriesName &) { chosen.push_back(series); });
    return chosen;
  };
  databases.erase(database, choose, statement.range.from_ns.value_or(std::numeric_limits<int64_t>::min()),
                  statement.range.to_ns.value_or(std::numeric_limits<int64_t>::max()));
}

void change_retention(InfluxqlDatabases &databases, const RetentionStatement &statement) {
  if (statement.policy != "autogen")
    throw ExecutionFailed(
        fmt::format("retention policy not found: {}: the only one is autogen, which ALTER RETENTION "
                    "POLICY changes",
                    printable(statement.policy)));
  check_retention(statement.duration_ns);
  if (statement.is_new && statement.duration_ns != databases.retention_ns(statement.database))
    throw ExecutionFailed("retention policy already exists");
  if (statement.duration_ns) databases.set_retention(statement.database, *statement.duration_ns);
}

// The database of one source after the other.
void take_database(std::string &found, const std::string &name) {
  if (found.empty()) found = name;
  if (found != name) throw ExecutionFailed("a statement about several databases is not supported");
}

}  // namespace

std::string database_of(const Statement &statement, const std::string &default_name) {
  std::string found;
  const auto take_sources = [&](const std::vector<Source> &sources) {
    const std::string unnamed = found.empty() ? default_name : found;
    for (const Source &source : sources) take_database(found, source.database.empty() ? unnamed : source.database);
  };
  if (const auto *const select = std::get_if<SelectStatement>(&statement)) take_sources(select->sources);
  if (const auto *const erase = std::get_if<EraseStatement>(&statement)) take_sources(erase->sources);
  if (const auto *const show = std::get_if<ShowStatement>(&statement)) {
    found = show->database;
    take_sources(show->sources);
  }
  if (const auto *const retention = std::get_if<RetentionStatement>(&statement)) found = retention->database;
  return found.empty() ? default_name : found;
}

Need need_of(const Statement &statement) {
  if (std::holds_alternative<CreateDatabaseStatement>(statement)) return Need::writing;
  const bool is_change = std::holds_alternative<EraseStatement>(statement) ||
                         std::holds_alternative<RetentionStatement>(statement) ||
                         std::holds_alternative<DropDatabaseStatement>(statement);
  return is_change ? Need::changing : Need::reading;
}

bool is_about_series(const Statement &statement) {
  const auto *const show = std::get_if<ShowStatement>(&statement);
  return std::holds_alternative<SelectStatement>(statement) ||
         (show != nullptr && show->shown != Shown::databases && show->shown != Shown::retention_policies);
}

std::vector<ResultSeries> execute_on(InfluxqlDatabases &databases, const Environment &environment,
                                     const Statement &statement, const std::string &database) {
  if (const auto *const show = std::get_if<ShowStatement>(&statement))
    return show->shown == Shown::retention_policies ? show_retention(databases, database)
                                                    : execute(environment, statement);
  if (const auto *const statement_of_erasing = std::get_if<EraseStatement>(&statement)) {
    erase(databases, environment, *statement_of_erasing, database);
  } else if (const auto *const retention = std::get_if<RetentionStatement>(&statement)) {
    change_retention(databases, *retention);
  } else if (const auto *const create = std::get_if<CreateDatabaseStatement>(&statement)) {
    check_retention(create->duration_ns);
    databases.create(create->name, create->duration_ns);
  } else if (const auto *const drop = std::get_if<DropDatabaseStatement>(&statement)) {
    databases.drop(drop->name);
  }
  return {};
}

}  // namespace metricdb::influxql
