#include "cli/log_file.h"

#include <tslb/tslb_dlog.h>

namespace metricdb {
namespace {

constexpr int FILE_MIB = 10;

}  // namespace

void start_log(const LogArguments &arguments, const char *command) {
  if (arguments.base.empty()) return;
  TSLB_DLOG_INIT(arguments.base.c_str(), arguments.level, FILE_MIB);
  TSLB_DLOG_THREAD_NAME("metricdb");
  TSLB_DLOG(LOG_PROGRESS, "start: %s", command);
}

void reopen_log() {
  if (g_dl == nullptr || g_dl->fname_abs[0] == '\0') return;
  TSLB_DLOG_INIT(g_dl->fname_abs, g_dl->level, FILE_MIB);
  TSLB_DLOG_THREAD_NAME("metricdb");
  TSLB_DLOG(LOG_PROGRESS, "the log was opened again");
}

}  // namespace metricdb
