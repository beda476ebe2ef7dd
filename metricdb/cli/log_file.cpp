#include "cli/log_file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <tslb/tslb_dlog.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace metricdb {
namespace {

constexpr int FILE_MIB = 10;

// Throws if the first file cannot be opened. Otherwise every line would be lost, and the operator would miss them later.
void expect_usable(const std::string &base) {
  if (base == "stdout") return;
  const std::string name = fmt::format("{}.{}.0", base, getpid());
  const bool existed = access(name.c_str(), F_OK) == 0;
  const int fd = open(name.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_NONBLOCK | O_CLOEXEC, 0644);
  if (fd < 0) throw std::runtime_error(fmt::format("{}: the log cannot be opened: {}", base, std::strerror(errno)));
  close(fd);
  if (!existed) unlink(name.c_str());
}

}  // namespace

void start_log(const LogArguments &arguments, const char *command) {
  if (arguments.base.empty()) return;
  expect_usable(arguments.base);
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
