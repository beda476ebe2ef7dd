// Converts arguments of the command line for the other classes.
#pragma once

#include <string>

#include "cli/commands.h"
#include "codec/line_protocol.h"
#include "store/database_writer.h"

namespace metricdb {

Precision precision_of(const std::string &unit);
WriterOptions writer_options_of(const WriteArguments &arguments);

// Opens a database for reading. Prints warnings about it.
OpenDatabase open_to_read(const std::string &db, bool salvage);

// Prints warnings to stderr and the log, line by line.
void report_warnings(const std::string &lines);

}  // namespace metricdb
