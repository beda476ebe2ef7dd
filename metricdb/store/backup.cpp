#include "store/backup.h"

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string_view>
#include <vector>

#include "store/database_writer.h"
#include "store/folder_sync.h"
#include "store/log.h"

namespace metricdb {
namespace {

namespace fs = std::filesystem;

[[noreturn]] void fail_backup(const std::string &path, const char *what) {
  const int error = errno;
  throw DatabaseError(fmt::format("{}: {}: {}", path, what, std::strerror(error)));
}

using OpenFile = std::unique_ptr<std::FILE, int (*)(std::FILE *)>;

// mode  as for fopen.
OpenFile opened(const std::string &path, const char *mode) {
  OpenFile file(std::fopen(path.c_str(), mode), std::fclose);
  if (!file) fail_backup(path, "cannot be opened");
  return file;
}

void write_copy(const std::string &from, const std::string &to) {
  const OpenFile source = opened(from, "rb"), copy = opened(to, "wbx");
  std::vector<char> bytes(1 << 20);
  while (const size_t got = std::fread(bytes.data(), 1, bytes.size(), source.get()))
    if (std::fwrite(bytes.data(), 1, got, copy.get()) != got) fail_backup(to, "cannot be written");
  if (std::ferror(source.get()) != 0) fail_backup(from, "cannot be read");
  if (std::fflush(copy.get()) != 0 || fsync(fileno(copy.get())) != 0) fail_backup(to, "cannot be written");
}

// A folder that is filled as `path()`. `finish` gives it its name; without that it is removed.
class NewFolder {
 public:
  explicit NewFolder(std::string to) : to_(std::move(to)) {
    while (to_.size() > 1 && to_.back() == '/') to_.pop_back();
    path_ = to_ + ".partial";
    std::error_code error;
    if (fs::exists(fs::symlink_status(to_, error)) && (!fs::is_directory(to_, error) || !fs::is_empty(to_, error)))
      throw DatabaseError(to_ + ": exists already");
    if (mkdir(path_.c_str(), 0777) == 0) return;
    if (errno != EEXIST) fail_backup(path_, "cannot be created");
    throw DatabaseError(path_ +
                        ": is left by a backup or a restoration that was killed, or is being written: remove it");
  }
  ~NewFolder() {
    std::error_code ignored;
    if (!path_.empty()) fs::remove_all(path_, ignored);
  }
  NewFolder(const NewFolder &) = delete;
  NewFolder &operator=(const NewFolder &) = delete;

  const std::string &path() const { return path_; }
  void finish() {
    if (rename(path_.c_str(), to_.c_str()) != 0) fail_backup(to_, "cannot be renamed to");
    path_.clear();
    sync_folder(fs::absolute(to_).parent_path());
  }

 private:
  std::string to_;
  std::string path_;
};

BackupInfo info_of(const std::string &folder) {
  constexpr std::string_view GENERATION = "generation.";
  BackupInfo info;
  for (const auto &entry : fs::recursive_directory_iterator(folder)) {
    const std::string name = entry.path().filename();
    if (entry.is_regular_file()) info.bytes += entry.file_size();
    if (name.starts_with(GENERATION))
      std::from_chars(name.data() + GENERATION.size(), name.data() + name.size(), info.generation);
  }
  return info;
}

// A copy of a database that no process writes to. It has no lock.
void copy_database(const std::string &from, const std::string &to) {
  for (const auto &entry : fs::directory_iterator(from)) {
    const std::string name = entry.path().filename(), copy = to + "/" + name;
    if (entry.is_regular_file() && name != "lock") write_copy(entry.path(), copy);
    if (!entry.is_directory()) continue;
    if (mkdir(copy.c_str(), 0777) != 0) fail_backup(copy, "cannot be created");
    copy_database(entry.path(), copy);
  }
  sync_folder(to);
}

}  // namespace

BackupInfo write_backup(tslb_store_t *store, const std::string &to) {
  NewFolder folder(to);
  tslb_error_t error;
  if (tslb_store_backup(store, folder.path().c_str(), &error) != 0) throw DatabaseError(error.text);
  const BackupInfo info = info_of(folder.path());
  folder.finish();
  return info;
}

BackupInfo backup_database(const std::string &db, const std::string &to) {
  if (!stored_parameters(db)) throw DatabaseError(db + ": holds no database");
  WriterOptions options;
  options.snapshot_bytes = 0;  // so that closing writes no generation
  DatabaseWriter writer(db, options);
  const BackupInfo info = writer.backup(to);
  try {
    writer.close();
  } catch (const DatabaseError &error) {
    report_refusal(fmt::format("the backup is complete, but the database was not closed: {}", error.what()));
  }
  return info;
}

BackupInfo restore_backup(const std::string &from, const std::string &db) {
  NewFolder folder(db);
  { const OpenDatabase verified(from); }  // its errors name the files of the backup
  copy_database(from, folder.path());
  const OpenDatabase copied(folder.path());
  const BackupInfo info = info_of(folder.path());
  folder.finish();
  return info;
}

}  // namespace metricdb
