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
  if (arguments.retain_s) options.retain_ns = *arguments.retain_s * NS_PER_S;
  if (arguments.idle_s) options.idle_ns = *arguments.idle_s * NS_PER_S;
  if (arguments.reuse_inactive_pct) options.reuse_inactive_pct = static_cast<uint8_t>(*arguments.reuse_inactive_pct);
  return options;
}

Opened open_to_read(const std::string &db, bool salvage) {
  OpenOptions options;
  options.salvage = salvage;
  Opened opened = Database(db, Database::Use::read).open(options);
  tell_found(opened.found());
  return opened;
}

void tell_found(const std::string &lines) {
  std::string_view rest = lines;
  for (std::string_view line; next_line(rest, line);) {
    complain(fmt::format("metricdb: {}", line));
    TSLB_DLOG(LOG_PROGRESS, "%.*s", static_cast<int>(line.size()), line.data());
  }
}

}  // namespace metricdb
