#include "files.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>

#include "checksum.h"

namespace metricdb {
namespace {

constexpr size_t READ_BYTES = 1 << 20;
constexpr mode_t FILE_MODE = 0666;
constexpr uint64_t STAT_BLOCK_BYTES = 512;

// Fewer than `most` only at the end of the file.
size_t read_some(const File &file, char *to, size_t most) {
  size_t filled = 0;
  while (filled < most) {
    const ssize_t got = read(file.fd(), to + filled, most - filled);
    if (got == 0) break;
    if (got > 0)
      filled += static_cast<size_t>(got);
    else if (errno != EINTR)
      fail_file(file.path(), "cannot be read");
  }
  return filled;
}

}  // namespace

void fail_file(const std::string &path, std::string_view what) {
  const int error = errno;
  throw FileError(fmt::format("{}: {}: {}", path, what, std::strerror(error)));
}

File::File(int fd, std::string path) : fd_(fd), path_(std::move(path)) {}

File::File(File &&other) noexcept : fd_(std::exchange(other.fd_, -1)), path_(std::move(other.path_)) {}

File::~File() {
  if (fd_ >= 0) close(fd_);
}

File File::open(const std::string &path) {
  File file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK), path);
  struct stat about;
  if (file.fd_ < 0 || fstat(file.fd_, &about) != 0) fail_file(path, "cannot be opened");
  if (!S_ISREG(about.st_mode)) throw FileError(path + ": is not a regular file");
  return file;
}

File File::create(const std::string &path) {
  File file(::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, FILE_MODE), path);
  if (file.fd_ < 0) fail_file(path, "cannot be made");
  return file;
}

File File::folder(const std::string &path) {
  File file(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC), path);
  if (file.fd_ < 0) fail_file(path, "cannot be opened");
  return file;
}

void File::write(std::string_view text) const {
  while (!text.empty()) {
    const ssize_t put = ::write(fd_, text.data(), text.size());
    if (put >= 0)
      text.remove_prefix(static_cast<size_t>(put));
    else if (errno != EINTR)
      fail_file(path_, "cannot be written");
  }
}

void File::sync() const {
  if (fsync(fd_) != 0) fail_file(path_, "cannot be synced");
}

FileSum sum_of(const File &file) {
  const auto buffer = std::make_unique<char[]>(READ_BYTES);
  struct stat about;
  if (lseek(file.fd(), 0, SEEK_SET) != 0 || fstat(file.fd(), &about) != 0) fail_file(file.path(), "cannot be read");
  FileSum sum;
  sum.allocated_bytes = static_cast<uint64_t>(about.st_blocks) * STAT_BLOCK_BYTES;
  for (size_t got = READ_BYTES; got == READ_BYTES;) {
    got = read_some(file, buffer.get(), READ_BYTES);
    sum.crc32c = crc32c(buffer.get(), got, sum.crc32c);
    sum.bytes += got;
  }
  if (lseek(file.fd(), 0, SEEK_SET) != 0) fail_file(file.path(), "cannot be read");
  return sum;
}

std::string text_of(const File &file, size_t most) {
  struct stat about;
  if (fstat(file.fd(), &about) != 0) fail_file(file.path(), "cannot be read");
  if (static_cast<uint64_t>(about.st_size) > most)
    throw FileError(fmt::format("{}: has more than {} bytes", file.path(), most));
  std::string text(static_cast<size_t>(about.st_size), '\0');
  text.resize(read_some(file, text.data(), text.size()));
  return text;
}

}  // namespace metricdb
