#include "cli/output.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "codec/printable.h"

namespace metricdb {
namespace {

constexpr std::chrono::milliseconds UPDATE_INTERVAL{250};

std::string shown_on(int fd, const std::string &text) {
  return isatty(fd) != 0 ? printable(text, "\n\t") : text;
}

}  // namespace

void fail_output(const std::string &name) {
  const int error = errno;
  throw std::runtime_error(fmt::format("{}: cannot be written: {}", name, std::strerror(error)));
}

void print_error(const std::string &line) {
  const std::string whole = shown_on(STDERR_FILENO, line) + "\n";
  std::fwrite(whole.data(), 1, whole.size(), stderr);
}

void print(const std::string &text) {
  const std::string shown = shown_on(STDOUT_FILENO, text);
  if (std::fwrite(shown.data(), 1, shown.size(), stdout) != shown.size() || std::fflush(stdout) != 0)
    fail_output("stdout");
}

void print_if_read(const std::string &text) {
  std::fwrite(text.data(), 1, text.size(), stdout);
  std::fflush(stdout);
}

Progress::Progress(uint64_t total, const char *unit)
    : total_(total), unit_(unit), is_shown_(isatty(STDERR_FILENO) != 0) {}

Progress::~Progress() {
  if (has_line_) std::fputs("\r\033[K", stderr);
}

void Progress::update(uint64_t done, uint64_t count) {
  if (!is_shown_) return;
  const Clock::time_point now = Clock::now();
  if (now < next_) return;
  next_ = now + UPDATE_INTERVAL;
  has_line_ = true;
  const double seconds = std::chrono::duration<double>(now - begin_).count();
  std::string line = fmt::format("{} {}, {:.0f} a second", count, unit_, static_cast<double>(count) / seconds);
  if (total_ != 0 && done != 0) {
    const double share = std::min(1.0, static_cast<double>(done) / static_cast<double>(total_));
    line += fmt::format(", {:.0f} %, {:.0f} s left", share * 100, seconds / share - seconds);
  }
  std::fputs(fmt::format("\r{}\033[K", line).c_str(), stderr);
}

}  // namespace metricdb
