// Reports as text, as JSON, as a picture and as a page. None of them fails, whatever a report holds.
#ifndef TSLB_INSPECT_RENDER_H
#define TSLB_INSPECT_RENDER_H

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "report.h"

namespace inspect {

using reports_t = std::vector<report_t>;

// For a terminal. Slots of a pool are shown up to MAX_POOL_ROWS, a user header that nobody here can read up to
// MAX_RAW_BYTES. Names of files have their control characters escaped.
constexpr size_t MAX_RAW_BYTES = 1024;
std::string text_of(const report_t &report);

// One object with the member "arrays", written piece by piece. Offsets and sizes are numbers, the bytes of records
// hexadecimal digits.
class json_writer_t {
 public:
  // Takes the pieces, in order.
  using sink_t = std::function<void(const std::string &)>;
  explicit json_writer_t(sink_t sink) : sink_(std::move(sink)) {}

  // One array. Slots are written as they are read.
  void add(const report_t &report, slot_rows_t *rows);
  // After the last array.
  void end();

 private:
  void flush_at(size_t bytes);
  void add_slots(const report_t &report, slot_rows_t *rows);
  void add_pool(const report_t &report, slot_rows_t *rows);

  const sink_t sink_;
  std::string pending_;
  bool has_arrays_ = false;
};

// SVG 1.1 by itself, which follows the viewer's choice of light or dark.
std::string svg_of(const reports_t &reports);

// HTML that loads nothing and runs no script, with the same pictures in it.
std::string html_of(const reports_t &reports);

// What all of them call a value.
std::string printable(const std::string &text);  // with control characters and backslashes escaped
std::string value_text(const field_t &field);
std::string index_text(uint32_t idx);  // "none" for no slot
const char *state_text(pool_slot_state_t state);
std::string kind_text(const report_t &report);
std::string verdict_text(const report_t &report);

}  // namespace inspect

#endif
