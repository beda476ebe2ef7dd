// Files as a database needs them: whole, synced, and with their name in whatever goes wrong. Whatever changes the disk
// goes through here, and can be made to fail (io_faults.h).
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
  static File open_to_write(const std::string &path);  // which must exist
  static File create(const std::string &path);         // which must not exist yet
  static File folder(const std::string &path);
  static File event();       // an eventfd, which is no file; not blocking
  static File poll_group();  // an epoll instance, likewise

  ~File();
  File(File &&other) noexcept;
  File &operator=(File &&) = delete;

  int fd() const { return fd_; }
  const std::string &path() const { return path_; }
  uint64_t bytes() const;
  void write(std::string_view text) const;  // at the file's position, which moves on
  void write_at(uint64_t at, std::string_view text) const;
  // Fewer than `most` only where the file ends.
  size_t read_at(uint64_t at, char *to, size_t most) const;
  void sync() const;
  void sync_data() const;  // of the other facts only what reading the data back needs: the length
  // Gives back what was reserved behind the new end too.
  void truncate(uint64_t bytes) const;
  // Room on the disk for bytes that are still to be written; the length stays. 0, or the error.
  int reserve(uint64_t at, uint64_t bytes) const;

 private:
  File(int fd, std::string path);

  int fd_;
  std::string path_;
};

// All throw FileError, and sync nothing: that is the folder's to do.
void make_folder(const std::string &path);
bool make_folder_if_missing(const std::string &path);              // whether it was
void rename_file(const std::string &from, const std::string &to);  // files and folders, over a file that is there
void remove_file(const std::string &path);                         // one that is not there is removed, too
void remove_folder_if_empty(const std::string &path);
void remove_tree(const std::string &path);  // a file or a folder with all in it

// The folder that a path lies in.
std::string folder_of(const std::string &path);

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
