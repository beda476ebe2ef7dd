// Writes results as JSON and as CSV, like InfluxDB 1.x.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "query/influxql.h"
#include "query/influxql_table.h"

namespace metricdb::influxql {

struct StatementResult {
  size_t id = 0;  // of the statement, from 0
  std::vector<ResultSeries> series;
  std::string error;  // empty: none
};

// The text of an answer is larger than a maximum. It is not complete.
class AnswerTooLarge : public std::runtime_error {
 public:
  AnswerTooLarge();
};

// Throws AnswerTooLarge. Called for each row: a row repeats texts that its result has once.
//
// n_more  bytes that are to be added
inline constexpr size_t BODY_BYTES_MAX = size_t{256} << 20;
inline void check_size(const std::string &body, size_t n_more = 0) {
  if (body.size() + n_more > BODY_BYTES_MAX) throw AnswerTooLarge();
}

// Results are added in order of their statements.
class Renderer {
 public:
  virtual ~Renderer() = default;
  virtual void add(const StatementResult &result) = 0;
  // Ends the text. Called once, after the results.
  virtual void finish() = 0;
};

// `body` gets the text, and lives longer.
std::unique_ptr<Renderer> make_json_renderer(const InfluxqlRequest &request, std::string &body);
std::unique_ptr<Renderer> make_csv_renderer(const InfluxqlRequest &request, std::string &body);

// The text of an answer that has only an error.
std::string error_text(const InfluxqlRequest &request, const std::string &error);

// Shared by the formats.
int64_t epoch_unit_ns(const std::string &epoch);  // 1 for unknown units
void append_integer(std::string &text, int64_t number);
void append_fixed(std::string &text, double number);  // the shortest text without an exponent

}  // namespace metricdb::influxql
