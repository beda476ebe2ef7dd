#include "files.h"

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <utility>
#include <vector>

#include "checksum.h"
#include "io_faults.h"

namespace tslb_durable {
namespace {

namespace fs = std::filesystem;

constexpr size_t READ_BYTES = 1 << 20;
constexpr mode_t FILE_MODE = 0666;
constexpr mode_t FOLDER_MODE = 0777;
constexpr uint64_t STAT_BLOCK_BYTES = 512;

// Returns fewer than `count` bytes only at the end of the file.
size_t read_some(const File &file, char *to, size_t count) {
  size_t filled = 0;
  while (filled < count) {
    const ssize_t got = read(file.fd(), to + filled, count - filled);
    if (got == 0) break;
    if (got > 0)
      filled += static_cast<size_t>(got);
    else if (errno != EINTR)
      fail_file(file.path(), "cannot be read");
  }
  return filled;
}

// Counts a step of the file layer. Returns false and sets errno if a test makes it fail.
bool begin_step() {
  errno = take_io_step();
  return errno == 0;
}

// put(bytes, count) writes some bytes and returns their number.
template <class Put>
bool put_all(std::string_view text, Put put) {
  while (!text.empty()) {
    const ssize_t written = put(text.data(), text.size());
    if (written >= 0)
      text.remove_prefix(static_cast<size_t>(written));
    else if (errno != EINTR)
      return false;
  }
  return true;
}

template <class Put>
bool put_in_two_steps(std::string_view text, Put put) {
  if (!begin_step()) return false;
  const size_t first_half = io_faults_are_armed() ? text.size() / 2 : 0;
  return put_all(text.substr(0, first_half), put) && begin_step() && put_all(text.substr(first_half), put);
}

template <class Call>
bool sync_with(Call call, int fd) {
  if (!begin_step()) return false;
  return call(fd) == 0;
}

// Not with std::filesystem::directory_iterator, which ends the process if memory is refused.
void visit_names(const std::string &folder, std::string_view what,
                 const std::function<void(const std::string &)> &visit) {
  const std::unique_ptr<DIR, int (*)(DIR *)> names(opendir(folder.c_str()), closedir);
  if (!names) fail_file(folder, what);
  for (;;) {
    errno = 0;
    const dirent *const entry = readdir(names.get());
    if (entry == nullptr) break;
    const std::string name = entry->d_name;
    if (name != "." && name != "..") visit(name);
  }
  if (errno != 0) fail_file(folder, what);
}

// Returns the descriptor of an existing regular file.
int regular_file(const std::string &path, int access) {
  const int fd = ::open(path.c_str(), access | O_CLOEXEC | O_NONBLOCK);
  struct stat about;
  if (fd < 0 || fstat(fd, &about) != 0) fail_file(path, "cannot be opened");
  if (S_ISREG(about.st_mode)) return fd;
  close(fd);
  throw StoreError(TSLB_DURABLE_IO, path + ": not a regular file", path);
}

}  // namespace

void copy_text(std::string_view text, char *to, size_t size) {
  const size_t length = std::min(text.size(), size - 1);
  std::memcpy(to, text.data(), length);
  to[length] = '\0';
}

StoreError damaged(const std::string &path, const std::string &what) {
  return StoreError(TSLB_DURABLE_DAMAGED, fmt::format("{}: {}", path, what), path);
}

StoreError damaged_at(const std::string &path, uint64_t byte, const std::string &what) {
  return StoreError(TSLB_DURABLE_DAMAGED, fmt::format("{}: byte {}: {}", path, byte, what), path, byte);
}

void fail_file(const std::string &path, std::string_view what) {
  const int error = errno;
  throw StoreError(TSLB_DURABLE_IO, fmt::format("{}: {}: {}", path, what, std::strerror(error)), path, 0, error);
}

File::File(int fd, std::string path) : fd_(fd), path_(std::move(path)) {}

File::File(File &&other) noexcept : fd_(std::exchange(other.fd_, -1)), path_(std::move(other.path_)) {}

File::~File() {
  if (fd_ >= 0) close(fd_);
}

File File::open(const std::string &path) {
  return File(regular_file(path, O_RDONLY), path);
}

File File::open_to_write(const std::string &path) {
  return File(regular_file(path, O_RDWR), path);
}

File File::create(const std::string &path) {
  File file(begin_step() ? ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, FILE_MODE) : -1, path);
  if (file.fd_ < 0) fail_file(path, "cannot be created");
  return file;
}

File File::open_or_create(const std::string &path) {
  File file(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NONBLOCK, FILE_MODE), path);
  if (file.fd_ < 0) fail_file(path, "cannot be opened");
  return file;
}

File File::adopt(int fd, const std::string &what) {
  return File(fd, what);
}

File File::folder(const std::string &path) {
  File file(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC), path);
  if (file.fd_ < 0) fail_file(path, "cannot be opened");
  return file;
}

File File::event() {
  File file(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "an event");
  if (file.fd_ < 0) fail_file(file.path_, "cannot be created");
  return file;
}

uint64_t File::bytes() const {
  struct stat about;
  if (fstat(fd_, &about) != 0) fail_file(path_, "cannot be read");
  return static_cast<uint64_t>(about.st_size);
}

void File::write(std::string_view text) const {
  const auto put = [this](const char *bytes, size_t count) { return ::write(fd_, bytes, count); };
  if (!put_in_two_steps(text, put)) fail_file(path_, "cannot be written");
}

void File::write_at(uint64_t at, std::string_view text) const {
  const auto put = [this, &at](const char *bytes, size_t count) {
    const ssize_t written = pwrite(fd_, bytes, count, static_cast<off_t>(at));
    if (written > 0) at += static_cast<uint64_t>(written);
    return written;
  };
  if (!put_in_two_steps(text, put)) fail_file(path_, "cannot be written");
}

size_t File::read_at(uint64_t at, char *to, size_t count) const {
  size_t filled = 0;
  while (filled < count) {
    const ssize_t got = pread(fd_, to + filled, count - filled, static_cast<off_t>(at + filled));
    if (got == 0) break;
    if (got > 0)
      filled += static_cast<size_t>(got);
    else if (errno != EINTR)
      fail_file(path_, "cannot be read");
  }
  return filled;
}

void File::sync() const {
  if (!sync_with(fsync, fd_)) fail_file(path_, "cannot be synced");
}

void File::sync_data() const {
  if (!sync_with(fdatasync, fd_)) fail_file(path_, "cannot be synced");
}

bool File::try_lock(bool is_exclusive) const {
  int result;
  do {
    result = flock(fd_, (is_exclusive ? LOCK_EX : LOCK_SH) | LOCK_NB);
  } while (result != 0 && errno == EINTR);
  return result == 0 || errno != EWOULDBLOCK;
}

void File::truncate(uint64_t bytes) const {
  if (!begin_step() || ftruncate(fd_, static_cast<off_t>(bytes)) != 0) fail_file(path_, "cannot be truncated");
}

int File::reserve(uint64_t at, uint64_t bytes) const {
  if (!begin_step()) return errno;
  int result;
  do {
    result = fallocate(fd_, FALLOC_FL_KEEP_SIZE, static_cast<off_t>(at), static_cast<off_t>(bytes));
  } while (result != 0 && errno == EINTR);
  return result != 0 ? errno : 0;
}

int File::write_zeros(uint64_t at, uint64_t bytes) const {
  static constexpr char ZEROS[1 << 16] = {};
  if (!begin_step()) return errno;
  while (bytes != 0) {
    const ssize_t written =
        pwrite(fd_, ZEROS, static_cast<size_t>(std::min<uint64_t>(bytes, sizeof ZEROS)), static_cast<off_t>(at));
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return errno;
    at += static_cast<uint64_t>(written);
    bytes -= static_cast<uint64_t>(written);
  }
  return 0;
}

void make_folder(const std::string &path) {
  if (!begin_step() || mkdir(path.c_str(), FOLDER_MODE) != 0) fail_file(path, "cannot be created");
}

bool make_folder_if_missing(const std::string &path) {
  if (begin_step() && mkdir(path.c_str(), FOLDER_MODE) == 0) return true;
  if (errno != EEXIST) fail_file(path, "cannot be created");
  return false;
}

void rename_file(const std::string &from, const std::string &to) {
  if (!begin_step() || rename(from.c_str(), to.c_str()) != 0) fail_file(to, "cannot be put into place");
}

void remove_file(const std::string &path) {
  if ((!begin_step() || unlink(path.c_str()) != 0) && errno != ENOENT) fail_file(path, "cannot be removed");
}

void remove_folder_if_empty(const std::string &path) {
  if (begin_step() && rmdir(path.c_str()) == 0) return;
  if (errno != ENOENT && errno != ENOTEMPTY) fail_file(path, "cannot be removed");
}

void remove_tree(const std::string &path) {
  std::error_code error;
  if (!fs::is_directory(fs::symlink_status(path, error))) return remove_file(path);
  remove_content(path);
  remove_folder_if_empty(path);
}

void remove_content(const std::string &folder) {
  std::vector<std::string> members;  // listed first, because removing changes the listing
  visit_names(folder, "cannot be removed", [&](const std::string &name) { members.push_back(folder + "/" + name); });
  for (const std::string &member : members) remove_tree(member);
}

void for_each_name(const std::string &folder, const std::function<void(const std::string &name)> &visit) {
  visit_names(folder, "cannot be read", visit);
}

void replace_file(const std::string &path, std::string_view text) {
  const std::string temporary = path + ".new";
  remove_file(temporary);
  {
    const File file = File::create(temporary);
    file.write(text);
    file.sync();
  }
  rename_file(temporary, path);
  File::folder(folder_of(path)).sync();
}

void copy_file(const std::string &from, const std::string &to, uint64_t bytes) {
  const File source = File::open(from);
  const File copy = File::create(to);
  const auto buffer = std::make_unique<char[]>(READ_BYTES);
  for (uint64_t at = 0; at < bytes;) {
    const size_t wanted = static_cast<size_t>(std::min<uint64_t>(READ_BYTES, bytes - at));
    const size_t got = source.read_at(at, buffer.get(), wanted);
    if (got < wanted) throw damaged_at(from, at + got, "the file ends here");
    copy.write({buffer.get(), got});
    at += got;
  }
  copy.sync();
}

bool is_within(const std::string &path, const std::string &folder) {
  std::error_code error;
  const fs::path inner = fs::canonical(path, error), outer = fs::canonical(folder, error);
  return !error && std::mismatch(outer.begin(), outer.end(), inner.begin(), inner.end()).first == outer.end();
}

std::string folder_of(const std::string &path) {
  return fs::absolute(path).parent_path().string();
}

FileSum sum_of(const File &file) {
  const auto buffer = std::make_unique<char[]>(READ_BYTES);
  struct stat about;
  if (fstat(file.fd(), &about) != 0) fail_file(file.path(), "cannot be read");
  FileSum sum;
  sum.allocated_bytes = static_cast<uint64_t>(about.st_blocks) * STAT_BLOCK_BYTES;
  for (size_t got = READ_BYTES; got == READ_BYTES;) {
    got = file.read_at(sum.bytes, buffer.get(), READ_BYTES);
    sum.crc32c = crc32c(buffer.get(), got, sum.crc32c);
    sum.bytes += got;
  }
  return sum;
}

std::string text_of(const File &file, size_t max_bytes) {
  struct stat about;
  if (fstat(file.fd(), &about) != 0) fail_file(file.path(), "cannot be read");
  if (static_cast<uint64_t>(about.st_size) > max_bytes)
    throw damaged(file.path(), fmt::format("has more than {} bytes", max_bytes));
  std::string text(static_cast<size_t>(about.st_size), '\0');
  text.resize(read_some(file, text.data(), text.size()));
  return text;
}

}  // namespace tslb_durable
