#include "cli/write_options.h"

#include <fmt/format.h>

#include "cli/output.h"
#include "journal/log.h"

namespace metricdb {

Precision precision_of(const std::string &unit) {
  if (unit == "us") return Precision::us;
  if (unit == "ms") return Precision::ms;
  return unit == "s" ? Precision::s : Precision::ns;
}

WriterOptions writer_options_of(const WriteArguments &arguments) {
  WriterOptions options;
  options.sync = arguments.sync == "always" ? Sync::always : arguments.sync == "none" ? Sync::none : Sync::batch;
  options.snapshot_bytes = arguments.snapshot_mb << 20;
  options.salvage = arguments.salvage;
  if (arguments.layout) options.layout = static_cast<uint8_t>(*arguments.layout);
  options.forgetting = arguments.forgetting;
  return options;
}

LoadedDatabase open_to_read(const std::string &db, bool salvage) {
  OpenOptions options;
  options.salvage = salvage;
  LoadedDatabase opened = Database(db, Database::Use::read).open(options);
  report_warnings(opened.warnings());
  return opened;
}

void report_warnings(const std::string &lines) {
  std::string_view rest = lines;
  for (std::string_view line; next_line(rest, line);) {
    print_error(fmt::format("metricdb: {}", line));
    TSLB_DLOG(LOG_PROGRESS, "%.*s", static_cast<int>(line.size()), line.data());
  }
}

}  // namespace metricdb
