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

// Moves `end_` after the next line, or removes the next line if it is too long. Returns `nothing` if its end is not there.
LineSource::Found LineSource::find_line() {
  const size_t found = scanner_.end_of_line(std::string_view(buffer_).substr(scanned_));
  const bool is_whole = found != buffer_.npos || (at_end_ && end_ < buffer_.size());
  const size_t line_end = found != buffer_.npos ? scanned_ + found : buffer_.size();
  const bool is_too_long = line_end - end_ > MAX_LINE_BYTES + 1;
  if (is_too_long && !skips_) ++n_too_long_;
  if (is_too_long || skips_) {
    buffer_.erase(end_, line_end - end_);
    scanned_ = end_;
    skips_ = !is_whole;
    return is_whole ? Found::too_long : Found::nothing;
  }
  scanned_ = line_end;
  if (is_whole) end_ = line_end;
  return is_whole ? Found::line : Found::nothing;
}

std::string_view LineSource::next(uint64_t max_lines) {
  buffer_.erase(0, end_);
  scanned_ -= end_;
  end_ = 0;
  for (uint64_t n_lines = 0; n_lines < max_lines && end_ < MAX_TEXT_BYTES;) {
    const Found found = find_line();
    if (found == Found::line) ++n_lines;
    if (found != Found::nothing) continue;
    if (n_lines != 0 && waits_for_more()) break;
    if (!at_end_ && read_more()) continue;
    if (end_ == buffer_.size()) break;
  }
  return std::string_view(buffer_).substr(0, end_);
}

}  // namespace metricdb
