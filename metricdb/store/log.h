// Levels of metricdb's messages in the library's debug log. Nothing is written unless the program started the log.
#pragma once

#include <tslb/tslb_dlog_macros.h>

#include <string>

namespace metricdb {

inline constexpr int LOG_REFUSALS = 1;
inline constexpr int LOG_PROGRESS = 2;  // starts, files, generations
inline constexpr int LOG_DETAILS = 3;   // sweeps, arrays, malformed lines

// Reports a loss or a failure after which the program continues, to the log and to stderr.
void report_refusal(const std::string &what);

}  // namespace metricdb
