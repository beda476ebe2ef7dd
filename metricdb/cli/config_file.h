// Options of a command from a file.
#pragma once

#include <CLI/CLI.hpp>

namespace metricdb {

// Adds `--config FILE` to a command. Call it before other options are added. The file is TOML without tables: its keys are
// the long options of the command and of the program, without dashes, and its values are texts, numbers and booleans, which
// are checked as those of the command line are. An option on the command line replaces that of the file. Unknown keys and
// invalid values end the parsing with CLI::ConfigError, whose message begins with file and line.
void add_config_file(CLI::App *command);

}  // namespace metricdb
