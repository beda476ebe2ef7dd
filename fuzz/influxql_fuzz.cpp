// Parses any text as InfluxQL, and executes what is accepted on a few series. A refusal must have a position in the text,
// and an answer must be JSON.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "query/influxql_execute.h"
#include "query/influxql_parser.h"
#include "query/influxql_render.h"

namespace {

constexpr int64_t PRESENT_NS = 1'767'323'045'000'000'000;
// Small, so that each input is fast.
constexpr metricdb::influxql::Limits LIMITS{100, 200, 2'000, 1'000};

class FewSeries : public metricdb::SeriesSource {
 public:
  void for_each_series(const metricdb::SeriesFilter &, const Visit &visit) const override {
    // A filter is a hint, and this source ignores it.
    for (uint32_t i = 0; i < names_.size(); ++i) visit(i, names_[i]);
  }

  void read(uint32_t series, const metricdb::SeriesRead &what, metricdb::PointList &list) const override {
    list = {*type(series)};
    const int64_t times_ns[] = {INT64_MIN, -1, 0, 0, 1'000'000'000, PRESENT_NS, PRESENT_NS + 1, INT64_MAX};
    for (const int64_t ts_ns : times_ns)
      if (ts_ns >= what.from_ns && ts_ns <= what.to_ns)
        list.points.push_back({ts_ns, static_cast<double>(series) - 1.5});
  }

  std::optional<metricdb::ValueType> type(uint32_t series) const override {
    return series % 2 == 0 ? metricdb::ValueType::real : metricdb::ValueType::integer;
  }

 private:
  std::vector<metricdb::SeriesName> names_ = {{"cpu", {{"host", "a"}, {"zone", "x"}}, "load"},
                                              {"cpu", {{"host", "a"}, {"zone", "x"}}, "idle"},
                                              {"cpu", {{"host", "b"}}, "load"},
                                              {"mem", {}, "free"}};
};

void expect_that(bool holds) {
  if (!holds) abort();
}

// "... at line 1, char 8"
void expect_position(std::string_view message, std::string_view text) {
  size_t line = 0;
  size_t character = 0;
  const size_t at = message.rfind(" at line ");
  expect_that(message.starts_with("error parsing query: ") && at != message.npos);
  expect_that(sscanf(std::string(message.substr(at)).c_str(), " at line %zu, char %zu", &line, &character) == 2);
  for (; line > 1; --line) {
    const size_t feed = text.find('\n');
    expect_that(feed != text.npos);
    text.remove_prefix(feed + 1);
  }
  expect_that(line == 1 && character >= 1 && character <= text.substr(0, text.find('\n')).size() + 1);
}

// What a statement of these limits can make. Messages of others are errors.
void execute_statement(const metricdb::influxql::Statement &statement, metricdb::influxql::Renderer &renderer,
                       size_t id) {
  const FewSeries source;
  metricdb::influxql::StatementResult result;
  result.id = id;
  try {
    result.series = metricdb::influxql::execute({source, {}, PRESENT_NS, LIMITS}, statement);
  } catch (const metricdb::influxql::ExecutionFailed &error) {
    result.error = error.what();
    expect_that(!result.error.empty());
  }
  for (const metricdb::influxql::ResultSeries &series : result.series)
    expect_that(series.cells.size() == series.n_rows() * series.n_cells_of_row());
  renderer.add(result);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string text(reinterpret_cast<const char *>(data), size);
  std::vector<metricdb::influxql::Statement> statements;
  try {
    statements = metricdb::influxql::parse_statements(text, PRESENT_NS);
  } catch (const metricdb::influxql::BadStatement &error) {
    expect_position(error.what(), text);
    return 0;
  }
  std::string body;
  std::string csv_body;
  const metricdb::InfluxqlRequest request{};
  const auto json = metricdb::influxql::make_json_renderer(request, body);
  const auto csv = metricdb::influxql::make_csv_renderer(request, csv_body);
  for (size_t id = 0; id < statements.size(); ++id) {
    execute_statement(statements[id], *json, id);
    execute_statement(statements[id], *csv, id);
  }
  json->finish();
  expect_that(nlohmann::json::accept(body));
  return 0;
}
