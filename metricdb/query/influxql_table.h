// Results of statements, before they become JSON or CSV.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace metricdb::influxql {

// A statement cannot be answered. The message is part of the answer.
class ExecutionFailed : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct Cell {
  enum class Kind : uint8_t { null, number, integer, text };

  static Cell of_text(uint32_t index) { return {Kind::text, index, 0.0, 0}; }

  Kind kind = Kind::null;
  uint32_t text = 0;  // index in `ResultSeries::texts`
  double number = 0.0;
  int64_t integer = 0;
};

// Rows with the same measurement and tags.
struct ResultSeries {
  std::string name;                                       // empty: none
  std::vector<std::pair<std::string, std::string>> tags;  // sorted by name
  std::vector<std::string> columns;                       // the first is the time, if there are times
  bool has_times = false;
  std::vector<int64_t> times_ns;
  std::vector<Cell> cells;  // row by row, without the times
  std::vector<std::string> texts;

  size_t n_cells_of_row() const { return columns.size() - (has_times ? 1 : 0); }
  size_t n_rows() const { return has_times ? times_ns.size() : cells.size() / n_cells_of_row(); }

  void add_text(std::string text) {
    cells.push_back(Cell::of_text(static_cast<uint32_t>(texts.size())));
    texts.push_back(std::move(text));
  }
};

}  // namespace metricdb::influxql
