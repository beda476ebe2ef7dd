#include "query/influxql.h"

#include <fmt/format.h>

#include <algorithm>
#include <optional>
#include <utility>

#include "codec/printable.h"
#include "query/influxql_change.h"
#include "query/influxql_execute.h"
#include "query/influxql_parser.h"
#include "query/influxql_parts.h"
#include "query/influxql_render.h"

namespace metricdb {
namespace {

// The database of the request is not there, so its statements have no meaning.
class DefaultNotFound : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

constexpr const char *NOT_OF_SEVERAL = "the statement needs a single server";

class NoSeries : public SeriesSource {
 public:
  void for_each_series(const SeriesFilter &, const Visit &) const override {}
  void read(uint32_t, const SeriesRead &, PointList &list) const override { list.points.clear(); }
  std::optional<ValueType> type(uint32_t) const override { return std::nullopt; }
};

// One source, whatever the name. Nothing can be changed.
class FixedDatabases : public InfluxqlDatabases {
 public:
  FixedDatabases(const SeriesSource &source, const std::vector<std::string> &names, int64_t retention_ns)
      : source_(source), names_(names), retention_ns_(retention_ns) {}

  std::vector<std::string> names() const override { return names_; }
  bool has(const std::string &) const override { return true; }
  void read(const std::string &, const Use &use) const override { use(source_); }
  void erase(const std::string &, const Choose &, int64_t, int64_t) override { refuse(); }
  int64_t retention_ns(const std::string &) const override { return retention_ns_; }
  void set_retention(const std::string &, int64_t) override { refuse(); }
  void create(const std::string &, std::optional<int64_t> retention_ns) override {
    if (retention_ns.value_or(retention_ns_) != retention_ns_)
      throw influxql::ExecutionFailed("retention policy conflicts with an existing policy");
  }
  void drop(const std::string &) override { refuse(); }

 private:
  [[noreturn]] static void refuse() { throw influxql::ExecutionFailed("the database is open for reading only"); }

  const SeriesSource &source_;
  const std::vector<std::string> names_;
  const int64_t retention_ns_;
};

// Of one statement: the databases before it can have been changed.
class Execution {
 public:
  Execution(InfluxqlDatabases &databases, const InfluxqlRequest &request)
      : databases_(databases), request_(request), names_(databases.names()) {}

  std::vector<influxql::ResultSeries> execute(const influxql::Statement &statement) const {
    if (influxql::is_about_series(statement)) return read(statement, influxql::execute);
    const std::string database = influxql::database_of(statement, request_.database);
    if (needs_database(statement)) check(database);
    return influxql::execute_on(databases_, environment_of(NoSeries()), statement, database);
  }

  std::vector<influxql::SeriesPart> parts(const influxql::Statement &statement) const {
    if (!influxql::is_about_series(statement)) throw influxql::ExecutionFailed(NOT_OF_SEVERAL);
    return read(statement, influxql::parts_of);
  }

 private:
  template <class Item>
  std::vector<Item> read(const influxql::Statement &statement,
                         std::vector<Item> (*function)(const influxql::Environment &,
                                                       const influxql::Statement &)) const {
    const std::string database = influxql::database_of(statement, request_.database);
    check(database);
    std::vector<Item> result;
    databases_.read(database,
                    [&](const SeriesSource &source) { result = function(environment_of(source), statement); });
    return result;
  }

  influxql::Environment environment_of(const SeriesSource &source) const {
    return {source, names_, request_.now_ns, {}, request_.is_interrupted, request_.n_threads};
  }

  static bool needs_database(const influxql::Statement &statement) {
    const auto *const show = std::get_if<influxql::ShowStatement>(&statement);
    return show != nullptr ? show->shown != influxql::Shown::databases
                           : std::holds_alternative<influxql::EraseStatement>(statement) ||
                                 std::holds_alternative<influxql::RetentionStatement>(statement);
  }

  void check(const std::string &database) const {
    if (databases_.has(database)) return;
    if (database.empty()) throw influxql::ExecutionFailed("database name required");
    if (database == request_.database) throw DefaultNotFound(fmt::format("database not found: \"{}\"", database));
    throw influxql::ExecutionFailed(fmt::format("database not found: {}", printable(database)));
  }

  InfluxqlDatabases &databases_;
  const InfluxqlRequest &request_;
  const std::vector<std::string> names_;
};

// Executes the statements of a request, one after another: execute(i) returns the result of statement i, or throws
// ExecutionFailed. Like InfluxDB, executes no statement after one that failed. `add` gets each result or error. Returns the
// first error; empty if there is none.
template <class Execute, class Add>
std::string execute_each(size_t n_statements, Execute execute, Add add) {
  std::string first_error;
  for (size_t i = 0; i < n_statements; ++i) {
    decltype(execute(i)) result;
    std::string error = first_error.empty() ? "" : "not executed";
    try {
      if (first_error.empty()) result = execute(i);
    } catch (const influxql::ExecutionFailed &failed) {
      error = first_error = failed.what();
    }
    add(i, std::move(result), std::move(error));
  }
  return first_error;
}

void refuse_size(const InfluxqlRequest &request, const influxql::AnswerTooLarge &error, InfluxqlAnswer &answer) {
  answer.is_bad_request = true;
  answer.body = influxql::error_text(request, error.what());
}

// Fills an answer with the results.
template <class Execute>
void render(const InfluxqlRequest &request, size_t n_statements, Execute execute, InfluxqlAnswer &answer) {
  const auto renderer = request.csv ? influxql::make_csv_renderer(request, answer.body)
                                    : influxql::make_json_renderer(request, answer.body);
  try {
    answer.first_error = execute_each(n_statements, execute,
                                      [&](size_t i, std::vector<influxql::ResultSeries> series, std::string error) {
                                        renderer->add({i, std::move(series), std::move(error)});
                                      });
    renderer->finish();
  } catch (const influxql::AnswerTooLarge &error) {
    refuse_size(request, error, answer);
  }
}

// Fills an answer with what this server contributes.
void answer_partially(InfluxqlDatabases &databases, const InfluxqlRequest &request,
                      const std::vector<influxql::Statement> &statements, InfluxqlAnswer &answer) {
  influxql::PartsWriter writer(answer.body, statements.size());
  try {
    answer.first_error = execute_each(
        statements.size(), [&](size_t i) { return Execution(databases, request).parts(statements[i]); },
        [&](size_t, std::vector<influxql::SeriesPart> series, std::string error) {
          writer.add({std::move(series), std::move(error)});
        });
    answer.content_type = "application/octet-stream";
  } catch (const influxql::AnswerTooLarge &error) {
    refuse_size(request, error, answer);
  }
}

const std::string &refusal_of(const influxql::Statement &statement, const InfluxqlRequest &request) {
  switch (influxql::need_of(statement)) {
    case influxql::Need::writing:
      return request.refusal_of_creations;
    case influxql::Need::changing:
      return request.refusal_of_changes;
    case influxql::Need::reading:
      break;
  }
  return request.refusal_of_reads;
}

// Returns the statements of a request; nothing if one is not valid or refused, and the answer says so.
std::optional<std::vector<influxql::Statement>> admitted_statements(const InfluxqlRequest &request,
                                                                    InfluxqlAnswer &answer) {
  answer.content_type = request.csv ? "text/csv" : "application/json";
  std::vector<influxql::Statement> statements;
  try {
    statements = influxql::parse_statements(request.text, request.now_ns);
  } catch (const influxql::BadStatement &error) {
    answer.is_bad_request = true;
    answer.body = influxql::error_text(request, error.what());
    return std::nullopt;
  }
  for (const influxql::Statement &statement : statements) {
    const std::string &refusal = refusal_of(statement, request);
    if (refusal.empty()) continue;
    answer.is_forbidden = true;
    answer.body = influxql::error_text(request, refusal);
    return std::nullopt;
  }
  return statements;
}

}  // namespace

InfluxqlAnswer answer_influxql(InfluxqlDatabases &databases, const InfluxqlRequest &request) {
  InfluxqlAnswer answer;
  const auto statements = admitted_statements(request, answer);
  if (!statements) return answer;
  const auto execute = [&](size_t i) { return Execution(databases, request).execute((*statements)[i]); };
  try {
    if (request.is_partial)
      answer_partially(databases, request, *statements, answer);
    else
      render(request, statements->size(), execute, answer);
  } catch (const DefaultNotFound &error) {
    answer.is_not_found = true;
    answer.body = influxql::error_text(request, error.what());
  }
  return answer;
}

InfluxqlAnswer answer_of_servers(std::span<const std::string> bodies, const InfluxqlRequest &request) {
  InfluxqlAnswer answer;
  const auto statements = admitted_statements(request, answer);
  if (!statements) return answer;
  std::vector<std::vector<influxql::StatementParts>> of_servers;
  for (const std::string &body : bodies) {
    of_servers.push_back(influxql::parts_of_bytes(body));
    if (of_servers.back().size() != statements->size()) throw BytesDamaged("the answer is to other statements");
  }
  const NoSeries none;
  const auto execute = [&](size_t i) {
    if (!influxql::is_about_series((*statements)[i])) throw influxql::ExecutionFailed(NOT_OF_SEVERAL);
    std::vector<std::vector<influxql::SeriesPart>> parts;
    for (std::vector<influxql::StatementParts> &of_server : of_servers) {
      if (!of_server[i].error.empty()) throw influxql::ExecutionFailed(of_server[i].error);
      parts.push_back(std::move(of_server[i].series));
    }
    return influxql::execute_on_parts({none, {}, request.now_ns, {}, request.is_interrupted, request.n_threads},
                                      (*statements)[i], parts);
  };
  render(request, statements->size(), execute, answer);
  return answer;
}

InfluxqlAnswer answer_influxql(const SeriesSource &source, const InfluxqlRequest &request,
                               const std::vector<std::string> &databases, int64_t retention_ns) {
  FixedDatabases fixed(source, databases, retention_ns);
  return answer_influxql(fixed, request);
}

bool changes_databases(const InfluxqlRequest &request) {
  try {
    const auto statements = influxql::parse_statements(request.text, request.now_ns);
    return std::any_of(statements.begin(), statements.end(), [](const influxql::Statement &statement) {
      return influxql::need_of(statement) == influxql::Need::changing;
    });
  } catch (const influxql::BadStatement &) {
    return false;
  }
}

}  // namespace metricdb
