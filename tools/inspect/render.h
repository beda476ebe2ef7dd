// Reports as text, as JSON, as a picture and as a page. None of them fails, whatever a report holds.
#ifndef TSLB_INSPECT_RENDER_H
#define TSLB_INSPECT_RENDER_H

#include <string>
#include <vector>

#include "report.h"

namespace inspect {

using reports_t = std::vector<report_t>;

// For a terminal. Slots of a pool are shown up to MAX_POOL_ROWS, a user header that nobody here can read up to
// MAX_RAW_BYTES.
constexpr size_t MAX_POOL_ROWS = 64;
constexpr size_t MAX_RAW_BYTES = 1024;
std::string text_of(const report_t &report);

// One object with the member "arrays". Offsets and sizes are numbers, the bytes of records hexadecimal digits.
std::string json_of(const reports_t &reports);

// SVG 1.1 by itself, which follows the viewer's choice of light or dark.
std::string svg_of(const reports_t &reports);

// HTML that loads nothing and runs no script, with the same pictures in it.
std::string html_of(const reports_t &reports);

// What all of them call a value.
std::string value_text(const field_t &field);
std::string index_text(uint32_t idx);  // "none" for no slot
const char *state_text(pool_slot_state_t state);
std::string kind_text(const report_t &report);
std::string verdict_text(const report_t &report);

}  // namespace inspect

#endif
