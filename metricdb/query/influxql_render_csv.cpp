// CSV: one table for each statement, with the measurement and the tags of each row.
#include <fmt/format.h>

#include "codec/line_protocol.h"
#include "query/escape.h"
#include "query/influxql_render.h"

namespace metricdb::influxql {
namespace {

class CsvRenderer : public Renderer {
 public:
  CsvRenderer(const InfluxqlRequest &request, std::string &body)
      : body_(body), unit_ns_(epoch_unit_ns(request.epoch)) {}

  void add(const StatementResult &result) override {
    if (result.series.empty() && result.error.empty()) return;
    if (!body_.empty()) body_ += '\n';
    const std::vector<std::string> *columns = nullptr;
    for (const ResultSeries &series : result.series) {
      if (columns == nullptr || *columns != series.columns) {
        if (columns != nullptr) body_ += '\n';
        add_header(series.columns);
      }
      columns = &series.columns;
      add_rows(series);
    }
    if (!result.error.empty()) body_ += fmt::format("error\n{}\n", csv_field(result.error));
  }

  void finish() override {}

 private:
  void add_header(const std::vector<std::string> &columns) {
    body_ += "name,tags";
    for (const std::string &column : columns) body_ += ',' + csv_field(column);
    body_ += '\n';
  }

  static std::string tags_text(const ResultSeries &series) {
    std::string text;
    for (const auto &[tag, value] : series.tags) {
      if (value.empty()) continue;
      text += fmt::format("{}{}={}", text.empty() ? "" : ",", escaped_name(tag), escaped_name(value));
    }
    return text;
  }

  void add_rows(const ResultSeries &series) {
    const std::string begin = fmt::format("{},{}", csv_field(series.name), csv_field(tags_text(series)));
    const size_t n_cells = series.n_cells_of_row();
    for (size_t row = 0; row < series.n_rows(); ++row) {
      check_size(body_);
      body_ += begin;
      if (series.has_times) {
        body_ += ',';
        append_integer(body_, series.times_ns[row] / unit_ns_);
      }
      for (size_t i = row * n_cells; i < (row + 1) * n_cells; ++i) {
        body_ += ',';
        add_cell(series, series.cells[i]);
      }
      body_ += '\n';
    }
  }

  void add_cell(const ResultSeries &series, const Cell &cell) {
    if (cell.kind == Cell::Kind::number) append_fixed(body_, cell.number);
    if (cell.kind == Cell::Kind::integer) append_integer(body_, cell.integer);
    if (cell.kind == Cell::Kind::text) body_ += csv_field(series.texts[cell.text]);
  }

  std::string &body_;
  int64_t unit_ns_;
};

}  // namespace

std::unique_ptr<Renderer> make_csv_renderer(const InfluxqlRequest &request, std::string &body) {
  return std::make_unique<CsvRenderer>(request, body);
}

}  // namespace metricdb::influxql
