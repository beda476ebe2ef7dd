// Loads block files: first file 0 up to its last used slot, then the data blocks in order.
#include <tslb/block_files.h>

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "array_reader.h"
#include "block_files_internal.h"

namespace {

constexpr int NAME_CHARS = sizeof(DynArrHandle_t::ctx_name) - 1;  // maximum length of a context name in a handle

struct path_t {
  char text[PATH_MAX];
};

class block_files_t final : public image_source_t {
 public:
  block_files_t(const char *base_path, const array_load_options_t *options)
      : base_path_(base_path != nullptr ? base_path : ""),
        ctx_name_(options->ctx_name != nullptr ? options->ctx_name : ""),
        tbl_id_(static_cast<int32_t>(options->tbl_id)) {}
  ~block_files_t() { close_file(); }
  block_files_t(const block_files_t &) = delete;

  bool open_block0(refusal_t *refusal) { return open_file(0, refusal); }

  // No slot crosses files, and the headers are in file 0. So the next file is opened only at the start of a block.
  ssize_t read(void *to, size_t bytes, refusal_t *refusal) override {
    if (pos_ == block_end_) {
      if (!open_file(block_num_ + 1, refusal) || !has_size(block_bytes_, refusal)) return -1;
      block_end_ += block_bytes_;
    }
    const ssize_t got = read_fully(fd_, to, bytes);
    if (got < 0) {
      const int err = errno;
      add_place(pos_, refusal);
      refusal->add(": the file cannot be read: %s", strerror(err));
      return -1;
    }
    pos_ += static_cast<uint64_t>(got);
    return got;
  }

  bool expect(const image_shape_t &shape, refusal_t *refusal) override {
    block_bytes_ = shape.slot_bytes * TSLB_SLOTS_PER_BLOCK;
    block0_bytes_ = shape.header_bytes + shape.slot_bytes * shape.n_direct;
    block_end_ = block0_bytes_;
    return has_size(block0_bytes_, refusal);
  }

  int ends_here(refusal_t *) override { return 1; }  // has_size compared the sizes when the files were opened

  bool may_be_cut() const override { return false; }

  void add_place(uint64_t pos, refusal_t *refusal) const override {
    // block_bytes_ is 0 before the headers are read and if slots have no bytes. Every position is then in block 0.
    const bool in_block0 = block_bytes_ == 0 || pos < block0_bytes_;
    const uint64_t beyond = in_block0 ? 0 : pos - block0_bytes_;
    add_file(in_block0 ? 0 : beyond / block_bytes_ + 1, refusal);
    refusal->add("byte %llu", static_cast<unsigned long long>(in_block0 ? pos : beyond % block_bytes_));
  }

 private:
  bool format_path(uint64_t block_num, path_t *path) const {
    const int name_chars = block_num == 0 ? INT_MAX : NAME_CHARS;
    const int len =
        snprintf(path->text, sizeof(path->text), "%s%s%.*s/" TSLB_BLOCK_FILE_FORMAT, base_path_,
                 base_path_[0] != '\0' ? "/" : "", name_chars, ctx_name_, tbl_id_, static_cast<int>(block_num));
    return len >= 0 && static_cast<size_t>(len) < sizeof(path->text);
  }

  void add_file(uint64_t block_num, refusal_t *refusal) const {
    path_t path;
    format_path(block_num, &path);
    refusal->add("%s: ", path.text);
  }

  void close_file() {
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
  }

  bool refuse_file(uint64_t block_num, const char *why, refusal_t *refusal) const {
    add_file(block_num, refusal);
    refusal->add("%s", why);
    return false;
  }

  bool open_file(uint64_t block_num, refusal_t *refusal) {
    close_file();
    path_t path;
    if (!format_path(block_num, &path)) return refuse_file(block_num, strerror(ENAMETOOLONG), refusal);
    // O_NONBLOCK: if the path is a FIFO, open would wait for a writer.
    fd_ = open(path.text, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    struct stat about;
    if (fd_ < 0 || fstat(fd_, &about) != 0) return refuse_file(block_num, strerror(errno), refusal);
    if (!S_ISREG(about.st_mode)) return refuse_file(block_num, "not a regular file", refusal);
    block_num_ = block_num;
    file_bytes_ = static_cast<uint64_t>(about.st_size);
    return true;
  }

  bool has_size(uint64_t bytes, refusal_t *refusal) const {
    if (file_bytes_ == bytes) return true;
    add_file(block_num_, refusal);
    refusal->add("%llu bytes long, but its block has %llu", static_cast<unsigned long long>(file_bytes_),
                 static_cast<unsigned long long>(bytes));
    return false;
  }

  const char *base_path_;
  const char *ctx_name_;
  int32_t tbl_id_;
  int fd_ = -1;
  uint64_t block_num_ = 0;
  uint64_t file_bytes_ = 0;
  uint64_t block0_bytes_ = 0;        // 0 until the headers are known
  uint64_t block_bytes_ = 0;         // size of a data block
  uint64_t pos_ = 0;                 // position in the flat image
  uint64_t block_end_ = UINT64_MAX;  // position at which the next file begins
};

}  // namespace

DynamicArray_t array_load_block_files(const char *base_path, const array_load_options_t *options, char *error,
                                      size_t error_size) {
  refusal_t refusal(error, error_size);
  block_files_t files(base_path, options);
  return files.open_block0(&refusal) ? load_image(&files, options, &refusal) : nullptr;
}

// ---- Folders -------------------------------------------------------------------------------------------------------

static bool is_block_file_of(const char *name, int32_t tbl_id) {
  int found_id, block_num, length = 0;
  return sscanf(name, TSLB_BLOCK_FILE_FORMAT "%n", &found_id, &block_num, &length) == 2 && length != 0 &&
         name[length] == '\0' && found_id == tbl_id;
}

// Calls use(descriptor of the folder, name of the file) for each file of the array until a result is not 0. Returns the
// last result, or -1 with errno. A folder that does not exist has no file.
template <class Use>
static int use_files_in(const char *path, int32_t tbl_id, Use use) {
  DIR *const folder = opendir(path);
  if (folder == nullptr) return errno == ENOENT ? 0 : -1;
  int result = 0;
  errno = 0;
  while (result == 0) {
    const dirent *const entry = readdir(folder);
    if (entry == nullptr) break;
    if (is_block_file_of(entry->d_name, tbl_id)) result = use(dirfd(folder), entry->d_name);
  }
  const int err = errno;
  closedir(folder);
  errno = err;
  return result == 0 && err != 0 ? -1 : result;
}

template <class Use>
static int use_files(const char *base_path, const char *ctx_name, int32_t tbl_id, Use use) {
  const char *const base = base_path != nullptr ? base_path : "";
  const char *const name = ctx_name != nullptr ? ctx_name : "";
  path_t path;
  // Block 0 and the data blocks can be in different folders.
  for (const int chars : {INT_MAX, NAME_CHARS}) {
    const int length =
        snprintf(path.text, sizeof(path.text), "%s%s%.*s", base, base[0] != '\0' ? "/" : "", chars, name);
    if (length < 0 || static_cast<size_t>(length) >= sizeof(path.text)) {
      errno = ENAMETOOLONG;
      return -1;
    }
    if (const int result = use_files_in(path.text, tbl_id, use); result != 0) return result;
  }
  return 0;
}

int block_files_exist(const char *base_path, const char *ctx_name, int32_t tbl_id) {
  return use_files(base_path, ctx_name, tbl_id, [](int, const char *) { return 1; });
}

int remove_block_files(const char *base_path, const char *ctx_name, int32_t tbl_id) {
  return use_files(base_path, ctx_name, tbl_id, [](int folder, const char *name) { return unlinkat(folder, name, 0); });
}
