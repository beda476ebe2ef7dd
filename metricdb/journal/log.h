// Levels of what metricdb writes to the library's debug log. Nothing is written unless the program started that log.
#pragma once

#include <tslb/tslb_dlog_macros.h>

#include <string>

namespace metricdb {

inline constexpr int LOG_REFUSALS = 1;
inline constexpr int LOG_PROGRESS = 2;  // what was begun, files, generations
inline constexpr int LOG_DETAILS = 3;   // sweeps, arrays, malformed lines

// Reports what was lost or could not be done while the program goes on: to the log, and to stderr, which exists without
// one.
void report_refusal(const std::string &what);

}  // namespace metricdb
