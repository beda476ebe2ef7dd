#include "query/influxql.h"

#include <fmt/format.h>

#include "query/influxql_execute.h"
#include "query/influxql_parser.h"
#include "query/influxql_render.h"

namespace metricdb {
namespace {

influxql::StatementResult result_of_statement(const influxql::Environment &environment,
                                              const influxql::Statement &statement, size_t id) {
  influxql::StatementResult result;
  result.id = id;
  try {
    result.series = influxql::execute(environment, statement);
  } catch (const influxql::ExecutionFailed &error) {
    result.error = error.what();
  }
  return result;
}

// Like InfluxDB, executes no statement after one that failed.
void answer_statements(const influxql::Environment &environment, const std::vector<influxql::Statement> &statements,
                       influxql::Renderer &renderer) {
  bool has_failed = false;
  for (size_t id = 0; id < statements.size(); ++id) {
    influxql::StatementResult result;
    result.id = id;
    if (has_failed)
      result.error = "not executed";
    else
      result = result_of_statement(environment, statements[id], id);
    has_failed = has_failed || !result.error.empty();
    renderer.add(result);
  }
}

}  // namespace

InfluxqlAnswer answer_influxql(const SeriesSource &source, const InfluxqlRequest &request,
                               const std::vector<std::string> &databases) {
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
  const auto renderer = request.csv ? influxql::make_csv_renderer(request, answer.body)
                                    : influxql::make_json_renderer(request, answer.body);
  try {
    answer_statements({source, databases, request.now_ns, {}, request.is_interrupted, request.n_threads}, statements, *renderer);
    renderer->finish();
  } catch (const influxql::AnswerTooLarge &error) {
    answer.is_bad_request = true;
    answer.body = influxql::error_text(request, error.what());
  }
  return answer;
}

}  // namespace metricdb
