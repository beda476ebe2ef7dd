#include "store.h"

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string_view>

#include <tslb/tslb_dynarr.h>

namespace inspect {

const stored_file_t *store_t::file_of(uint32_t block_num) const {
  const auto at = std::lower_bound(files().begin(), files().end(), block_num,
                                   [](const stored_file_t &file, uint32_t num) { return file.block_num < num; });
  return at != files().end() && at->block_num == block_num ? &*at : nullptr;
}

namespace {

// Maximum length of a context name in the directory of data blocks.
constexpr size_t NAME_CHARS = sizeof(DynArrHandle_t::ctx_name) - 1;
constexpr std::string_view SUFFIX = TSLB_BLOCK_FILE_SUFFIX;

[[noreturn]] void throw_unreadable(const std::string &path) {
  const int error = errno;
  throw unreadable_t(fmt::format("{}: cannot be read: {}", path, std::strerror(error)));
}

// ---- Reading -------------------------------------------------------------------------------------------------------

// Reads one file at a time through a window. Slots can be a few bytes, and most are read in order.
class file_reader_t {
 public:
  file_reader_t() = default;
  file_reader_t(const file_reader_t &) = delete;
  ~file_reader_t() { close_file(); }

  void open_file(const std::string &path) {
    if (path == path_ && fd_ >= 0) return;
    close_file();
    // O_NONBLOCK: if the path is a FIFO, open would wait for a writer.
    fd_ = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    struct stat about;
    if (fd_ < 0 || fstat(fd_, &about) != 0) throw_unreadable(path);
    if (!S_ISREG(about.st_mode)) throw unreadable_t(path + ": not a regular file");
    path_ = path;
    bytes_ = static_cast<uint64_t>(about.st_size);
  }

  uint64_t bytes() const { return bytes_; }

  size_t read(uint64_t offset, void *to, size_t bytes) {
    if (bytes > sizeof(window_)) return pread_fully(offset, static_cast<char *>(to), bytes);
    if (offset < window_at_ || offset - window_at_ + bytes > window_bytes_) {
      // Fills the whole window if the reads are in order, else only a part of it.
      const bool is_in_order = offset >= window_at_ && offset - window_at_ <= sizeof(window_) + bytes;
      window_bytes_ = pread_fully(offset, window_, is_in_order ? sizeof(window_) : std::max(bytes, SCATTERED_BYTES));
      window_at_ = offset;
    }
    const size_t skipped = static_cast<size_t>(offset - window_at_);
    const size_t got = std::min(bytes, window_bytes_ - skipped);
    std::memcpy(to, window_ + skipped, got);
    return got;
  }

 private:
  void close_file() {
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
    window_bytes_ = 0;
  }

  size_t pread_fully(uint64_t offset, char *to, size_t bytes) const {
    size_t filled = 0;
    while (filled < bytes) {
      const ssize_t got = pread(fd_, to + filled, bytes - filled, static_cast<off_t>(offset + filled));
      if (got == 0) break;
      if (got > 0)
        filled += static_cast<size_t>(got);
      else if (errno != EINTR)
        throw_unreadable(path_);
    }
    return filled;
  }

  static constexpr size_t SCATTERED_BYTES = 512;

  std::string path_;
  int fd_ = -1;
  uint64_t bytes_ = 0;
  uint64_t window_at_ = 0;
  size_t window_bytes_ = 0;
  char window_[1 << 16];
};

// ---- Streams -------------------------------------------------------------------------------------------------------

class stream_store_t final : public store_t {
 public:
  explicit stream_store_t(const std::string &path) {
    reader_.open_file(path);
    files_.push_back({path, 0, reader_.bytes()});
  }

  std::string name() const override { return files_.front().name; }
  bool is_stream() const override { return true; }
  const std::vector<stored_file_t> &files() const override { return files_; }
  std::string file_name(uint32_t) const override { return name(); }
  size_t read(const stored_file_t &, uint64_t offset, void *to, size_t bytes) override {
    return reader_.read(offset, to, bytes);
  }

 private:
  file_reader_t reader_;
  std::vector<stored_file_t> files_;
};

// ---- Block files ---------------------------------------------------------------------------------------------------

struct block_name_t {
  std::string directory;  // empty, or ending with a slash
  std::string table;
  uint32_t block_num;
};

template <class Number>
bool is_number(std::string_view text, Number *value) {
  const auto [end, fault] = std::from_chars(text.data(), text.data() + text.size(), *value);
  return fault == std::errc() && end == text.data() + text.size() && std::to_string(*value) == text;
}

std::optional<block_name_t> parse_block_name(std::string_view path) {
  const size_t base = path.rfind('/') == std::string_view::npos ? 0 : path.rfind('/') + 1;
  std::string_view name = path.substr(base);
  if (!name.ends_with(SUFFIX)) return std::nullopt;
  name.remove_suffix(SUFFIX.size());
  const size_t dot = name.find('.');
  int32_t table;
  block_name_t parsed;
  if (dot == std::string_view::npos || !is_number(name.substr(0, dot), &table) ||
      !is_number(name.substr(dot + 1), &parsed.block_num))
    return std::nullopt;
  parsed.directory = path.substr(0, base);
  parsed.table = name.substr(0, dot);
  return parsed;
}

// File 0 is in the folder with the whole context name, data blocks in the folder with its first NAME_CHARS characters.
// A path such as "./" does not end with that name.
std::string data_directory_of(const std::string &directory) {
  const size_t end = directory.find_last_not_of('/') + 1;
  const size_t begin = end == 0 ? 0 : directory.rfind('/', end - 1) + 1;
  std::string name = directory.substr(begin, end - begin), parent = directory.substr(0, begin);
  if (name.empty() || name == "." || name == "..") {
    std::error_code ignored;
    name = std::filesystem::canonical(directory.empty() ? "." : directory, ignored).filename();
    parent = directory + "../";
  }
  return name.size() > NAME_CHARS ? parent + name.substr(0, NAME_CHARS) + "/" : directory;
}

class block_store_t final : public store_t {
 public:
  explicit block_store_t(const block_name_t &name)
      : directory_(name.directory), data_directory_(data_directory_of(name.directory)), table_(name.table) {
    add_file(0);
    find_data_blocks();
    std::sort(files_.begin(), files_.end(),
              [](const stored_file_t &a, const stored_file_t &b) { return a.block_num < b.block_num; });
  }

  std::string name() const override { return file_name(0); }
  bool is_stream() const override { return false; }
  const std::vector<stored_file_t> &files() const override { return files_; }
  std::string file_name(uint32_t block_num) const override {
    return fmt::format("{}{}.{}{}", block_num == 0 ? directory_ : data_directory_, table_, block_num, SUFFIX);
  }
  size_t read(const stored_file_t &file, uint64_t offset, void *to, size_t bytes) override {
    reader_.open_file(file.name);
    return reader_.read(offset, to, bytes);
  }

 private:
  void add_file(uint32_t block_num) {
    const std::string path = file_name(block_num);
    reader_.open_file(path);
    files_.push_back({path, block_num, reader_.bytes()});
  }

  // Lists the existing files, whatever file 0 claims. If the directory does not exist there are none.
  void find_data_blocks() {
    const std::unique_ptr<DIR, int (*)(DIR *)> opened(opendir(data_directory_.empty() ? "." : data_directory_.c_str()),
                                                      closedir);
    if (opened == nullptr) {
      if (errno == ENOENT) return;
      throw_unreadable(data_directory_);
    }
    while (const dirent *entry = readdir(opened.get())) {
      const auto parsed = parse_block_name(entry->d_name);
      if (parsed && parsed->table == table_ && parsed->block_num != 0) add_file(parsed->block_num);
    }
  }

  const std::string directory_, data_directory_, table_;
  file_reader_t reader_;
  std::vector<stored_file_t> files_;
};

}  // namespace

std::unique_ptr<store_t> open_store(const std::string &path) {
  const auto block_name = parse_block_name(path);
  if (block_name) return std::make_unique<block_store_t>(*block_name);
  return std::make_unique<stream_store_t>(path);
}

std::string store_key(const std::string &path) {
  const auto block_name = parse_block_name(path);
  return block_name ? fmt::format("{}{}.0{}", block_name->directory, block_name->table, SUFFIX) : path;
}

}  // namespace inspect
