// Renders reports as text, JSON, SVG and HTML. Every report can be rendered.
#ifndef TSLB_INSPECT_RENDER_H
#define TSLB_INSPECT_RENDER_H

#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "report.h"

namespace inspect {

using reports_t = std::vector<report_t>;

// Text for a terminal. It has at most MAX_POOL_ROWS slots of a pool and MAX_RAW_BYTES of a user header that is not a
// pool's. Control characters in file names are escaped.
constexpr size_t MAX_RAW_BYTES = 1024;
std::string text_of(const report_t &report);

// Writes one object with the member "arrays", in pieces. Offsets and sizes are numbers. Bytes of records are
// hexadecimal digits.
class json_writer_t {
 public:
  // Receives the pieces in order.
  using sink_t = std::function<void(const std::string &)>;
  explicit json_writer_t(sink_t sink) : sink_(std::move(sink)) {}

  // Writes one array. Slots are written while they are read.
  void add(const report_t &report, slot_rows_t *rows);
  // Call it after the last array.
  void end();

 private:
  void flush_at(size_t bytes);
  void add_slots(const report_t &report, slot_rows_t *rows);
  void add_pool(const report_t &report, slot_rows_t *rows);

  const sink_t sink_;
  std::string pending_;
  bool has_arrays_ = false;
};

// A complete SVG 1.1 file. Its colours follow the viewer's light or dark setting.
std::string svg_of(const reports_t &reports);

// An HTML page with a map of the slots that can be zoomed, and with tables that can be searched and sorted. It loads
// nothing. Its size is bounded by that of its parts: at most MAX_PAGE_CELLS cells, the samples, and the findings.
std::string html_of(const reports_t &reports);
// The cells and the samples of a report, as JSON that can be in an HTML element "script".
std::string page_data_of(const report_t &report);

// Texts of values that all renderers use.
std::string printable(const std::string &text);  // with control characters and backslashes escaped
std::string value_text(const field_t &field);
std::string index_text(uint32_t idx);  // "none" for TSLB_DA_NIL_IDX
const char *state_text(pool_slot_state_t state);
std::string kind_text(const report_t &report);
std::string verdict_text(const report_t &report);
std::string seal_text(const seal_t &seal);           // "contents verified", without paths
std::string status_text(uint32_t status);            // "2 (active)"
std::string_view record_of(const record_t &record);  // its bytes without the nodes

}  // namespace inspect

#endif
