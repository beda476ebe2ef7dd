#include "cli/write_options.h"

#include <fmt/format.h>

#include "cli/output.h"
#include "store/log.h"

namespace metricdb {

Precision precision_of(const std::string &unit) {
  if (unit == "us") return Precision::us;
  if (unit == "ms") return Precision::ms;
  return unit == "s" ? Precision::s : Precision::ns;
}

WriterOptions writer_options_of(const WriteArguments &arguments) {
  WriterOptions options;
  options.sync = arguments.sync == "always" ? TSLB_SYNC_ALWAYS
                 : arguments.sync == "none" ? TSLB_SYNC_NONE
                                            : TSLB_SYNC_GROUP;
<<<<<<< HEAD
  options.snapshot_bytes = static_cast<uint64_t>(arguments.snapshot_mb * (1 << 20));
=======
  options.snapshot_bytes = arguments.snapshot_mb << 20;
>>>>>>> 849eaa61c1ff322441a9fbfeece636806ef785c7
  options.salvage = arguments.salvage;
  if (arguments.layout) options.layout = static_cast<uint8_t>(*arguments.layout);
  options.forgetting = arguments.forgetting;
  return options;
}

OpenDatabase open_to_read(const std::string &db, bool salvage) {
  OpenOptions options;
  options.salvage = salvage;
  OpenDatabase opened(db, options);
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
