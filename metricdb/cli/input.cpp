#include "cli/input.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace metricdb {
namespace {

class InputFile {
 public:
  explicit InputFile(const std::string &path)
      : fd_(path == "-" ? dup(STDIN_FILENO) : open(path.c_str(), O_RDONLY | O_CLOEXEC)) {}
  ~InputFile() {
    if (fd_ >= 0) close(fd_);
  }
  InputFile(const InputFile &) = delete;
  InputFile &operator=(const InputFile &) = delete;
  int get() const { return fd_; }

 private:
  const int fd_;
};

[[noreturn]] void fail_input(const std::string &name) {
  const int error = errno;
  throw InputError(fmt::format("{}: cannot be read: {}", name, std::strerror(error)));
}

}  // namespace

Input::Input(std::string path) : path_(std::move(path)), name_(path_ == "-" ? "stdin" : path_) {}

std::string_view Input::text() {
  if (text_) return *text_;
  const InputFile file(path_);
  struct stat status {};
  if (file.get() < 0 || fstat(file.get(), &status) != 0) fail_input(name_);
  readable_again_ = S_ISREG(status.st_mode) && path_ != "-";

  constexpr size_t SMALLEST_READ = 1 << 16;
  std::string text;
  size_t used = 0;
  // One byte more than the size, so that the end is detected without growth.
  text.resize(S_ISREG(status.st_mode) ? static_cast<size_t>(status.st_size) + 1 : SMALLEST_READ);
  for (;;) {
    if (used == text.size()) text.resize(text.size() * 2);
    const ssize_t got = read(file.get(), text.data() + used, text.size() - used);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) fail_input(name_);
    if (got == 0) break;
    used += static_cast<size_t>(got);
  }
  text.resize(used);
  return text_.emplace(std::move(text));
}

void Input::release(bool needed_again) {
  if (readable_again_ || !needed_again) text_.reset();
}

}  // namespace metricdb
