#include "query/influxql.h"

#include <fmt/format.h>

#include <algorithm>

#include "codec/printable.h"
#include "query/influxql_change.h"
#include "query/influxql_execute.h"
#include "query/influxql_parser.h"
#include "query/influxql_render.h"

namespace metricdb {
namespace {

// The database of the request is not there, so its statements have no meaning.
class DefaultNotFound : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class NoSeries : public SeriesSource {
 public:
  void for_each_series(const SeriesFilter &, const Visit &) const override {}
  void read(uint32_t, const SeriesRead &, PointList &list) const override { list.points.clear(); }
};

// One source, whatever the name. Nothing can be changed.
class FixedDatabases : public InfluxqlDatabases {
 public:
  FixedDatabases(const SeriesSource &source, const std::vector<std::string> &names) : source_(source), names_(names) {}

  std::vector<std::string> names() const override { return names_; }
  bool has(const std::string &) const override { return true; }
  void read(const std::string &, const Use &use) const override { use(source_); }
  void erase(const std::string &, const Choose &, int64_t, int64_t) override { refuse(); }
  int64_t retention_ns(const std::string &) const override { return 0; }
  void set_retention(const std::string &, int64_t) override { refuse(); }
  void create(const std::string &, std::optional<int64_t>) override {}
  void drop(const std::string &) override { refuse(); }

 private:
  [[noreturn]] static void refuse() { throw influxql::ExecutionFailed("the database is open for reading only"); }

  const SeriesSource &source_;
  const std::vector<std::string> names_;
};

class Execution {
 public:
  Execution(InfluxqlDatabases &databases, const InfluxqlRequest &request)
      : databases_(databases), request_(request), names_(databases.names()) {}

  std::vector<influxql::ResultSeries> execute(const influxql::Statement &statement) const {
    const std::string database = influxql::database_of(statement, request_.database);
    if (!influxql::is_about_series(statement)) {
      if (needs_database(statement)) check(database);
      return influxql::execute_on(databases_, environment_of(NoSeries()), statement, database);
    }
    check(database);
    std::vector<influxql::ResultSeries> result;
    databases_.read(database,
                    [&](const SeriesSource &source) { result = influxql::execute(environment_of(source), statement); });
    return result;
  }

 private:
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

influxql::StatementResult result_of_statement(InfluxqlDatabases &databases, const InfluxqlRequest &request,
                                              const influxql::Statement &statement, size_t id) {
  influxql::StatementResult result;
  result.id = id;
  try {
    result.series = Execution(databases, request).execute(statement);
  } catch (const influxql::ExecutionFailed &error) {
    result.error = error.what();
  }
  return result;
}

// Like InfluxDB, executes no statement after one that failed.
void answer_statements(InfluxqlDatabases &databases, const InfluxqlRequest &request,
                       const std::vector<influxql::Statement> &statements, influxql::Renderer &renderer) {
  bool has_failed = false;
  for (size_t id = 0; id < statements.size(); ++id) {
    influxql::StatementResult result;
    result.id = id;
    if (has_failed)
      result.error = "not executed";
    else
      result = result_of_statement(databases, request, statements[id], id);
    has_failed = has_failed || !result.error.empty();
    renderer.add(result);
  }
}

}  // namespace

InfluxqlAnswer answer_influxql(InfluxqlDatabases &databases, const InfluxqlRequest &request) {
  InfluxqlAnswer answer;
  answer.content_type = request.csv ? "text/csv" : "application/json";
  std::vector<influxql::Statement> statements;
  try {
    statements = influxql::parse_statements(request.text, request.now_ns);
  } catch (const influxql::BadStatement &error) {
    answer.is_bad_request = true;
    answer.body = influxql::error_text(request, error.what());
    return answer;
  }
  for (const influxql::Statement &statement : statements) {
    const std::string &refusal = influxql::is_change(statement) ? request.refusal_of_changes : request.refusal_of_reads;
    if (refusal.empty()) continue;
    answer.is_forbidden = true;
    answer.body = influxql::error_text(request, refusal);
    return answer;
  }
  const auto renderer = request.csv ? influxql::make_csv_renderer(request, answer.body)
                                    : influxql::make_json_renderer(request, answer.body);
  try {
    answer_statements(databases, request, statements, *renderer);
    renderer->finish();
  } catch (const influxql::AnswerTooLarge &error) {
    answer.is_bad_request = true;
    answer.body = influxql::error_text(request, error.what());
  } catch (const DefaultNotFound &error) {
    answer.is_not_found = true;
    answer.body = influxql::error_text(request, error.what());
  }
  return answer;
}

InfluxqlAnswer answer_influxql(const SeriesSource &source, const InfluxqlRequest &request,
                               const std::vector<std::string> &databases) {
  FixedDatabases fixed(source, databases);
  return answer_influxql(fixed, request);
}

bool changes_databases(const std::string &text) {
  try {
    const auto statements = influxql::parse_statements(text, 0);
    return std::any_of(statements.begin(), statements.end(), influxql::is_change);
  } catch (const influxql::BadStatement &) {
    return false;
  }
}

}  // namespace metricdb
