// Access to files. Every change is synced only on request, and every error contains the path. All
// changes of the disk use these functions, so tests can make each of them fail (io_faults.h).
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "store_error.h"

namespace tslb_durable {

// Throws "path: what: why" with TSLB_DURABLE_IO, and the last from errno.
[[noreturn]] void fail_file(const std::string &path, std::string_view what);

class File {
 public:
  // All throw StoreError. For regular files only, and `folder` for folders, because opening a pipe would block.
  static File open(const std::string &path);
  static File open_to_write(const std::string &path);  // must exist
  static File create(const std::string &path);         // must not exist
  static File open_or_create(const std::string &path);
  static File folder(const std::string &path);
  static File adopt(int fd, const std::string &what);  // owns the descriptor from here on
  static File event();                                 // an eventfd, not blocking

  ~File();
  File(File &&other) noexcept;
  File &operator=(File &&) = delete;

  int fd() const { return fd_; }
  const std::string &path() const { return path_; }
  uint64_t bytes() const;
  void write(std::string_view text) const;  // at the position of the file, and moves it
  void write_at(uint64_t at, std::string_view text) const;
  // Returns fewer than `count` bytes only at the end of the file.
  size_t read_at(uint64_t at, char *to, size_t count) const;
  void sync() const;
  void sync_data() const;  // data and length, but no other attribute
  // Locks the file for its readers, or for one writer. Returns false if another open file has a lock that excludes it. A
  // file system without locks gives each.
  bool try_lock(bool is_exclusive) const;
  // Releases disk space that was reserved after the new end, too.
  void truncate(uint64_t bytes) const;
  // Reserves disk space for later writes. The length of the file stays. Returns 0 or the error.
  int reserve(uint64_t at, uint64_t bytes) const;
  // Returns 0 or the error. Fewer zeros may have been written then.
  int write_zeros(uint64_t at, uint64_t bytes) const;

 private:
  File(int fd, std::string path);

  int fd_;
  std::string path_;
};

// All throw StoreError, and do not sync the folder.
void make_folder(const std::string &path);
bool make_folder_if_missing(const std::string &path);              // returns whether it was missing
void rename_file(const std::string &from, const std::string &to);  // files and folders; replaces an existing file
void remove_file(const std::string &path);                         // no error if it is missing
void remove_folder_if_empty(const std::string &path);
void remove_tree(const std::string &path);  // a file, or a folder with its content
void remove_content(const std::string &folder);

// Calls `visit` for each name in the folder, except "." and "..".
void for_each_name(const std::string &folder, const std::function<void(const std::string &name)> &visit);

// Replaces a file as a whole: a reader sees the old or the new content, also after a crash. Syncs file and folder.
void replace_file(const std::string &path, std::string_view text);

// Copies `bytes` bytes of a file to a new file, and syncs it.
void copy_file(const std::string &from, const std::string &to, uint64_t bytes);

// Returns whether an existing path leads to a folder or to something in it.
bool is_within(const std::string &path, const std::string &folder);

// Returns the folder that contains a path.
std::string folder_of(const std::string &path);

// Size and checksum of a file.
struct FileSum {
  uint64_t bytes = 0;
  uint64_t allocated_bytes = 0;  // on the disk; fewer for a file with holes
  uint32_t crc32c = 0;
};

// Reads the whole file. Does not use its position.
FileSum sum_of(const File &file);

// Returns the whole content. Throws StoreError, also for a file of more than `max_bytes`.
std::string text_of(const File &file, size_t max_bytes);

}  // namespace tslb_durable
