// Stores of the durable tests: their declarations, random batches on them, and the content of their arrays as text.
#pragma once

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <tslb/durable.h>
#include <tslb/tslb_rd_api.h>
#include <tslb/tslb_settings.h>
#include <tslb/tslb_stored.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <random>
#include <string>
#include <vector>

namespace fs = std::filesystem;

inline constexpr uint32_t RECORDS = 0, SLOTS = 1, BITS = 2, BYTES = 3;

struct TestRecord {
  uint32_t gatekeeper;
  uint32_t value;
  maddr_t chunk;
  uint32_t chunk_bytes;  // of data; 0: the record has no chunk
  uint8_t rest[24];
};

inline tslb_array_decl_t decl_of(const char *name, tslb_array_kind_t kind, int32_t tbl_id, uint32_t record_bytes,
                                 uint32_t n_direct, uint8_t daflag) {
  tslb_array_decl_t decl = {};
  decl.name = name;
  decl.kind = kind;
  decl.tbl_id = tbl_id;
  decl.record_bytes = record_bytes;
  decl.n_direct = n_direct;
  decl.daflag = daflag;
  return decl;
}

// The pools have the library's ids of pools, whose streams it cuts.
inline std::vector<tslb_array_decl_t> test_decls() {
  std::vector<tslb_array_decl_t> decls = {
      decl_of("records", TSLB_ARRAY_RECORDS, 1, 20, 3, 0),
      decl_of("slots", TSLB_ARRAY_SLOTS, 2, sizeof(TestRecord), 5, TSLB_DA_DAFLAG_INLL),
      decl_of("bits", TSLB_POOL_BIT_VECTOR, BVP_TBLID, 512, 0, TSLB_DA_DAFLAG_LL),
      decl_of("bytes", TSLB_POOL_BIG_BUFFER, BBP_TBLID, 400, 0, 0),
  };
  decls[BITS].has_compat = 1;
  return decls;
}

// All bytes of an array that a recovery must restore.
inline std::string content_of(DynamicArray_t array) {
  const auto header_bytes = static_cast<size_t>(tslb_dynmem_get_hdrsz(array));
  std::string content(static_cast<const char *>(array->arr_base), header_bytes);
  // n_alloc counts the memory of one process.
  std::memset(content.data() + header_bytes - sizeof(DynArrHdr_t), 0, sizeof(uint32_t));
  int shift = 0;
  const uint32_t slot_bytes = tslb_da_get_slotsz(array, &shift);
  for (uint32_t idx = 0; idx < tslb_da_get_size(array); ++idx)
    content.append(static_cast<const char *>(tslb_da_get_ptr(array, idx)) - shift, slot_bytes);
  return content;
}

class TestStore {
 public:
  explicit TestStore(std::vector<tslb_array_decl_t> decls = test_decls()) : decls_(std::move(decls)) {}
  ~TestStore() { tslb_store_close(store_, nullptr); }
  TestStore(const TestStore &) = delete;
  TestStore &operator=(const TestStore &) = delete;

  bool open(const std::string &folder, uint32_t flags = TSLB_STORE_CREATE | TSLB_STORE_SHADOW) {
    options.flags = flags;
    error = {};
    store_ = tslb_store_open(folder.c_str(), decls_.data(), static_cast<uint32_t>(decls_.size()), &options, &error);
    return store_ != nullptr;
  }
  int close() { return tslb_store_close(std::exchange(store_, nullptr), &error); }
  // A store that another object opened, and closes after abandon().
  void use(tslb_store_t *store) { store_ = store; }
  // As a killed process leaves it: nothing is written any more. The memory is lost.
  tslb_store_t *abandon() { return std::exchange(store_, nullptr); }

  tslb_store_t *get() const { return store_; }
  DynamicArray_t array(uint32_t idx) const { return tslb_store_array(store_, idx); }
  tslb_batch_t *begin() { return tslb_batch_begin(store_, &error); }
  tslb_store_info_t info() const {
    tslb_store_info_t info;
    tslb_store_get_info(store_, &info);
    return info;
  }
  std::string payload() const {
    size_t size;
    const void *const bytes = tslb_store_payload(store_, &size);
    return bytes == nullptr ? "none" : std::string(static_cast<const char *>(bytes), size);
  }
  std::string content() const {
    std::string all;
    for (uint32_t i = 0; i < decls_.size(); ++i) all += content_of(array(i));
    return all;
  }

  // Takes a slot, and a chunk for it.
  uint32_t add_slot(tslb_batch_t *batch, uint32_t value, uint32_t chunk_bytes) {
    uint32_t idx;
    auto *const record = static_cast<TestRecord *>(tslb_da_get_newptr(array(SLOTS), &idx));
    *record = {1, value, {}, 0, {}};
    if (chunk_bytes != 0) {
      const srcaddr_t referrer = {2, idx, offsetof(TestRecord, chunk), {0, 0}};
      void *const chunk = tslb_batch_take_chunk(batch, BITS, chunk_bytes, referrer, &record->chunk, &error);
      if (chunk != nullptr) {
        record->chunk_bytes = chunk_bytes;
        std::memset(chunk, static_cast<int>(value), chunk_bytes);
        tslb_batch_log_chunk(batch, BITS, record->chunk, 0, chunk_bytes);
      }
    }
    tslb_batch_log_record(batch, SLOTS, idx);
    return idx;
  }

  // Makes a batch of these changes, and waits for it. Returns whether it is durable.
  template <class Changes>
  bool commit(Changes changes) {
    tslb_batch_t *const batch = begin();
    if (batch == nullptr) return false;
    changes(batch);
    return tslb_batch_commit(batch, &error) == 0;
  }
  bool commit_slot(uint32_t value, uint32_t chunk_bytes) {
    return commit([&](tslb_batch_t *batch) { add_slot(batch, value, chunk_bytes); });
  }
  bool commit_changes(std::mt19937 &random, int n_batches = 1) {
    bool is_durable = true;
    for (; n_batches > 0 && is_durable; --n_batches)
      is_durable = commit([&](tslb_batch_t *batch) { change(batch, random); });
    return is_durable;
  }

  uint32_t status_of(uint32_t idx) const { return tslb_da_slot_status(array(SLOTS), idx); }

  // Some changes of every kind.
  void change(tslb_batch_t *batch, std::mt19937 &random) {
    const auto below = [&random](uint32_t n) { return static_cast<uint32_t>(random() % n); };
    for (uint32_t left = 1 + below(6); left > 0; --left) {
      const uint32_t n_slots = tslb_da_get_size(array(SLOTS));
      const uint32_t idx = n_slots != 0 ? below(n_slots) : 0;
      switch (n_slots != 0 ? below(8) : 0) {
        case 0:
        case 1:
          add_slot(batch, below(1000), 8 * below(20));
          break;
        case 2: {  // bytes of a record of an array without nodes
          const int32_t id = get_dyn_arr_new_record_id(array(RECORDS));
          auto *const record =
              static_cast<char *>(get_dyn_arr_record_position(array(RECORDS), static_cast<uint32_t>(id)));
          std::memset(record + 4, static_cast<int>(below(256)), 8);
          tslb_batch_log_bytes(batch, RECORDS, static_cast<uint32_t>(id), 4, 8);
          break;
        }
        case 3: {
          maddr64_t address;
          const uint32_t bytes = 1 + below(100);
          void *const chunk = tslb_batch_take_chunk64(batch, BYTES, bytes, {}, &address, &error);
          ASSERT_NE(chunk, nullptr) << error.text;
          std::memset(chunk, static_cast<int>(below(256)), bytes);
          tslb_batch_log_chunk64(batch, BYTES, address, 0, bytes);
          break;
        }
        case 4:
          if (status_of(idx) == TSLB_DA_SLOT_ACTIVE) tslb_da_inactivate_idx(array(SLOTS), idx, 77);
          break;
        case 5:
          if (status_of(idx) == TSLB_DA_SLOT_INACTIVE) tslb_da_activate_idx(array(SLOTS), idx);
          break;
        case 6: {
          if (status_of(idx) == TSLB_DA_SLOT_FREE) break;
          auto *const record = static_cast<TestRecord *>(tslb_da_get_ptr(array(SLOTS), idx));
          if (record->chunk_bytes != 0) tslb_batch_delete_chunk(batch, BITS, record->chunk);
          record->chunk_bytes = 0;
          tslb_batch_log_record(batch, SLOTS, idx);
          tslb_da_free_idx(array(SLOTS), idx);
          break;
        }
        default:
          tslb_batch_sweep(batch, BITS);
      }
    }
  }

  tslb_store_options_t options = {};
  tslb_error_t error = {};

 private:
  std::vector<tslb_array_decl_t> decls_;
  tslb_store_t *store_ = nullptr;
};

// Files of this process cannot become longer, as if the disk were full.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(uint64_t bytes) {
    std::signal(SIGXFSZ, SIG_IGN);
    getrlimit(RLIMIT_FSIZE, &before_);
    const rlimit limit = {bytes, before_.rlim_max};
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~FileSizeLimit() { setrlimit(RLIMIT_FSIZE, &before_); }
  FileSizeLimit(const FileSizeLimit &) = delete;
  FileSizeLimit &operator=(const FileSizeLimit &) = delete;

 private:
  rlimit before_;
};

class DurableTest : public testing::Test {
 protected:
  // In memory if possible: the tests sync thousands of times, and kill processes, not the machine.
  DurableTest() {
    std::string pattern = std::string(access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp") + "/tslb_durable_XXXXXX";
    root_ = mkdtemp(pattern.data());
    folder_ = root_ + "/store";
  }
  ~DurableTest() override { fs::remove_all(root_); }

  static std::string bytes_of(const fs::path &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  static void put_bytes(const fs::path &path, const std::string &bytes) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
  }

  // Runs a function in a child process. Returns its exit code, or minus the signal that ended it.
  static int in_child(const std::function<int()> &run) {
    const pid_t child = fork();
    if (child == 0) _exit(run());
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }

  std::string root_;
  std::string folder_;
};
