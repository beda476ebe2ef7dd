#include "query/influxql_render.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <iterator>
#include <string_view>

#include "query/escape.h"
#include "query/time_text.h"

namespace metricdb::influxql {
namespace {

constexpr int INDENT = 4;

// Writes JSON without spaces, or with a line for each value.
class JsonWriter {
 public:
  JsonWriter(std::string &text, bool is_pretty) : text_(text), is_pretty_(is_pretty) {}

  void begin(char bracket) {
    begin_value();
    text_ += bracket;
    is_first_ = true;
    ++depth_;
  }

  void end(char bracket) {
    --depth_;
    if (!is_first_) break_line();
    text_ += bracket;
    is_first_ = false;
  }

  void key(std::string_view name) {
    begin_value();
    text_ += json_string(name);
    text_ += is_pretty_ ? ": " : ":";
    is_after_key_ = true;
  }

  // Begins a value, whose text the caller appends.
  void begin_value() {
    if (is_after_key_) {
      is_after_key_ = false;
      return;
    }
    if (depth_ == 0) return;
    if (!is_first_) text_ += ',';
    is_first_ = false;
    break_line();
  }

  void value(std::string_view text) {
    begin_value();
    text_ += text;
  }

 private:
  void break_line() {
    if (!is_pretty_) return;
    text_ += '\n';
    text_.append(static_cast<size_t>(depth_ * INDENT), ' ');
  }

  std::string &text_;
  bool is_pretty_;
  bool is_first_ = true;
  bool is_after_key_ = false;
  int depth_ = 0;
};

void append_chars(std::string &text, double number, std::chars_format format) {
  char buffer[400];  // the longest fixed text is that of the smallest number
  const auto [end, error] = std::to_chars(std::begin(buffer), std::end(buffer), number, format);
  text.append(buffer, error == std::errc() ? end : buffer);
}

// The shortest text with the same value. Very large and very small numbers have an exponent, of one digit if possible.
void append_json_number(std::string &text, double number) {
  const double size = std::fabs(number);
  if (size == 0.0 || (size >= 1e-6 && size < 1e21)) {
    append_fixed(text, number);
    return;
  }
  append_chars(text, number, std::chars_format::scientific);
  const size_t n = text.size();
  if (n >= 4 && text[n - 4] == 'e' && text[n - 3] == '-' && text[n - 2] == '0') text.erase(n - 2, 1);
}

// The shortest form of RFC 3339.
std::string short_time_text(int64_t ts_ns) {
  std::string text = time_text(ts_ns, 9);
  text.pop_back();
  text.erase(text.find_last_not_of('0') + 1);
  if (text.ends_with('.')) text.pop_back();
  return text + 'Z';
}

// Some rows of a series.
struct Slice {
  const ResultSeries *series;
  size_t begin;
  size_t end;
  bool is_partial;  // others of the series follow
};

class JsonRenderer : public Renderer {
 public:
  JsonRenderer(const InfluxqlRequest &request, std::string &body)
      : request_(request), body_(body), writer_(body, request.pretty) {
    if (!request_.chunked) begin_document();
  }

  void add(const StatementResult &result) override {
    if (!request_.chunked) {
      std::vector<Slice> slices;
      for (const ResultSeries &series : result.series) slices.push_back({&series, 0, series.n_rows(), false});
      add_result(result, slices, false);
      return;
    }
    const std::vector<Slice> slices = chunks_of(result);
    for (size_t i = 0; i < slices.size() || i == 0; ++i) {
      begin_document();
      const auto begin = slices.begin() + static_cast<ptrdiff_t>(i);
      add_result(result, slices.empty() ? slices : std::vector<Slice>(begin, begin + 1), i + 1 < slices.size());
      end_document();
    }
  }

  void finish() override {
    if (!request_.chunked) end_document();
  }

 private:
  std::vector<Slice> chunks_of(const StatementResult &result) const {
    const size_t size = std::max<size_t>(request_.chunk_size, 1);
    std::vector<Slice> slices;
    for (const ResultSeries &series : result.series)
      for (size_t begin = 0, n = series.n_rows(); begin < n; begin += std::min(size, n - begin)) {
        const size_t end = begin + std::min(size, n - begin);
        slices.push_back({&series, begin, end, end < n});
      }
    return slices;
  }

  void begin_document() {
    writer_.begin('{');
    writer_.key("results");
    writer_.begin('[');
  }

  void end_document() {
    writer_.end(']');
    writer_.end('}');
    body_ += '\n';
  }

  void add_result(const StatementResult &result, const std::vector<Slice> &slices, bool is_partial) {
    writer_.begin('{');
    writer_.key("statement_id");
    writer_.value(std::to_string(result.id));
    if (!slices.empty()) {
      writer_.key("series");
      writer_.begin('[');
      for (const Slice &slice : slices) add_series(slice);
      writer_.end(']');
    }
    if (is_partial) add_true("partial");
    if (!result.error.empty()) {
      writer_.key("error");
      writer_.value(json_string(result.error));
    }
    writer_.end('}');
  }

  void add_true(std::string_view name) {
    writer_.key(name);
    writer_.value("true");
  }

  void add_series(const Slice &slice) {
    const ResultSeries &series = *slice.series;
    writer_.begin('{');
    if (!series.name.empty()) {
      writer_.key("name");
      writer_.value(json_string(series.name));
    }
    if (!series.tags.empty()) add_tags(series);
    writer_.key("columns");
    writer_.begin('[');
    for (const std::string &column : series.columns) writer_.value(json_string(column));
    writer_.end(']');
    writer_.key("values");
    writer_.begin('[');
    for (size_t row = slice.begin; row < slice.end; ++row) add_row(series, row);
    writer_.end(']');
    if (slice.is_partial) add_true("partial");
    writer_.end('}');
  }

  void add_tags(const ResultSeries &series) {
    writer_.key("tags");
    writer_.begin('{');
    for (const auto &[tag, value] : series.tags) {
      writer_.key(tag);
      writer_.value(json_string(value));
    }
    writer_.end('}');
  }

  void add_row(const ResultSeries &series, size_t row) {
    check_size(body_);
    writer_.begin('[');
    if (series.has_times) add_time(series.times_ns[row]);
    const size_t n_cells = series.n_cells_of_row();
    for (size_t i = row * n_cells; i < (row + 1) * n_cells; ++i) {
      const Cell &cell = series.cells[i];
      writer_.begin_value();
      if (cell.kind == Cell::Kind::number)
        append_json_number(body_, cell.number);
      else if (cell.kind == Cell::Kind::integer)
        append_integer(body_, cell.integer);
      else
        body_ += cell.kind == Cell::Kind::text ? json_string(series.texts[cell.text]) : "null";
    }
    writer_.end(']');
  }

  void add_time(int64_t ts_ns) {
    writer_.begin_value();
    if (request_.epoch.empty())
      body_ += json_string(short_time_text(ts_ns));
    else
      append_integer(body_, ts_ns / epoch_unit_ns(request_.epoch));
  }

  const InfluxqlRequest &request_;
  std::string &body_;
  JsonWriter writer_;
};

}  // namespace

int64_t epoch_unit_ns(const std::string &epoch) {
  if (epoch == "u" || epoch == "us" || epoch == "\xc2\xb5") return 1'000;
  if (epoch == "ms") return 1'000'000;
  if (epoch == "s") return 1'000'000'000;
  if (epoch == "m") return 60'000'000'000;
  if (epoch == "h") return 3'600'000'000'000;
  return 1;
}

void append_integer(std::string &text, int64_t number) {
  fmt::format_to(std::back_inserter(text), "{}", number);
}

void append_fixed(std::string &text, double number) {
  append_chars(text, number, std::chars_format::fixed);
}

AnswerTooLarge::AnswerTooLarge()
    : std::runtime_error(fmt::format("the answer is larger than {} bytes", BODY_BYTES_MAX)) {}

std::unique_ptr<Renderer> make_json_renderer(const InfluxqlRequest &request, std::string &body) {
  return std::make_unique<JsonRenderer>(request, body);
}

std::string error_text(const InfluxqlRequest &request, const std::string &error) {
  if (request.csv) return fmt::format("error\n{}\n", csv_field(error));
  std::string text;
  JsonWriter writer(text, request.pretty);
  writer.begin('{');
  writer.key("error");
  writer.value(json_string(error));
  writer.end('}');
  return text + '\n';
}

}  // namespace metricdb::influxql
