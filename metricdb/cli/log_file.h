// The program's log, in a file.
#pragma once

#include <string>

#include "store/log.h"

namespace metricdb {

struct LogArguments {
  std::string base;  // empty: no log
  int level = LOG_PROGRESS;
};

// Throws std::runtime_error if the file cannot be opened.
void start_log(const LogArguments &arguments, const char *command);

// Closes the file. The next line opens the first file again, which is a new one if the old one was renamed.
void reopen_log();

}  // namespace metricdb
