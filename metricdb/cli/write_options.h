// From the words of the command line to what the classes behind it take.
#pragma once

#include <string>

#include "cli/commands.h"
#include "codec/line_protocol.h"
#include "store/database_writer.h"

namespace metricdb {

Precision precision_of(const std::string &unit);
WriterOptions writer_options_of(const WriteArguments &arguments);

// A database as it is now, to be read. What is not as it should be is told.
LoadedDatabase open_to_read(const std::string &db, bool salvage);

// What was found at an opening that is not as it should be, line by line, goes to stderr and the log.
void report_warnings(const std::string &lines);

}  // namespace metricdb
