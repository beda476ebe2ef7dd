// Files as a database needs them: whole, synced, and with their name in whatever goes wrong.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

namespace metricdb {

class FileError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// "path: what: why", the last from errno.
[[noreturn]] void fail_file(const std::string &path, std::string_view what);

class File {
 public:
  // All throw FileError. Regular files only, and folders for `folder`: a pipe in a file's place would hold us.
  static File open(const std::string &path);
  static File create(const std::string &path);  // which must not exist yet
  static File folder(const std::string &path);

  ~File();
  File(File &&other) noexcept;
  File &operator=(File &&) = delete;

  int fd() const { return fd_; }
  const std::string &path() const { return path_; }
  void write(std::string_view text) const;
  void sync() const;

 private:
  File(int fd, std::string path);

  int fd_;
  std::string path_;
};

// What a file holds, in figures.
struct FileSum {
  uint64_t bytes = 0;
  uint64_t allocated_bytes = 0;  // on the disk: less for a file with holes
  uint32_t crc32c = 0;
};

// Reads the file from its start to its end, and leaves the position at its start.
FileSum sum_of(const File &file);

// The whole content. Throws FileError, and so for a file of more than `most` bytes.
std::string text_of(const File &file, size_t most);

}  // namespace metricdb
