#include "cli/line_source.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "cli/input.h"

namespace metricdb {
namespace {

constexpr size_t READ_BYTES = 256 << 10;
constexpr size_t MAX_TEXT_BYTES = 8 << 20;

[[noreturn]] void fail(const std::string &name) {
  const int error = errno;
  throw InputError(fmt::format("{}: cannot be read: {}", name, std::strerror(error)));
}

}  // namespace

LineSource::LineSource(const std::string &path)
    : name_(path == "-" ? "stdin" : path),
      fd_(path == "-" ? dup(STDIN_FILENO) : open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
  struct stat status {};
  if (fd_ < 0 || fstat(fd_, &status) != 0) fail(name_);
  if (S_ISREG(status.st_mode)) total_bytes_ = static_cast<uint64_t>(status.st_size);
}

LineSource::~LineSource() {
  close(fd_);
}

bool LineSource::waits_for_more() const {
  struct pollfd ready = {fd_, POLLIN, 0};
  return poll(&ready, 1, 0) == 0;
}

bool LineSource::read_more() {
  const size_t used = buffer_.size();
  buffer_.resize(used + READ_BYTES);
  ssize_t got;
  do got = read(fd_, buffer_.data() + used, READ_BYTES);
  while (got < 0 && errno == EINTR);
  if (got < 0) fail(name_);
  buffer_.resize(used + static_cast<size_t>(got));
  bytes_read_ += static_cast<uint64_t>(got);
  at_end_ = got == 0;
  return !at_end_;
}

// Moves `end_` after the next line. Returns false if the line is incomplete, or was too long and was removed.
bool LineSource::find_line() {
  const size_t feed = buffer_.find('\n', end_);
  const bool is_whole = feed != buffer_.npos || (at_end_ && end_ < buffer_.size());
  const size_t line_end = feed != buffer_.npos ? feed + 1 : buffer_.size();
  const bool is_too_long = line_end - end_ > MAX_LINE_BYTES + 1;
  if (is_too_long && !skips_) ++n_too_long_;
  if (is_too_long || skips_) {
    buffer_.erase(end_, line_end - end_);
    skips_ = !is_whole;
    return false;
  }
  if (is_whole) end_ = line_end;
  return is_whole;
}

std::string_view LineSource::next(uint64_t max_lines) {
  buffer_.erase(0, end_);
  end_ = 0;
  for (uint64_t n_lines = 0; n_lines < max_lines && end_ < MAX_TEXT_BYTES;) {
    if (find_line()) {
      ++n_lines;
      continue;
    }
    if (buffer_.find('\n', end_) != buffer_.npos) continue;
    if (n_lines != 0 && waits_for_more()) break;
    if (!at_end_ && read_more()) continue;
    if (end_ == buffer_.size()) break;
  }
  return std::string_view(buffer_).substr(0, end_);
}

}  // namespace metricdb
