// A redo log in memory. A program that includes this header defines the two redo hooks itself and takes all other hooks
// from the stand-in.
#ifndef TSLB_TESTS_REDO_RECORDER_H
#define TSLB_TESTS_REDO_RECORDER_H

#include <string.h>

#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <tslb/tslb_rd_api.h>

struct redo_record_t {
  uint64_t txn_id;
  int rec_type;
  std::string ctx_name;
  uint32_t tbl_id;
  uint64_t data_off;
  uint32_t aux_idx;
  const void *data_ptr;
  std::string bytes;    // at the time of the hook's call
  bool locked = false;  // the watched spin lock was held
  uint32_t word = 0;    // value of the watched word
};

// Switches logging on for its lifetime and records everything.
class redo_recorder_t {
 public:
  explicit redo_recorder_t(const uint16_t *watched_lock = nullptr) : lock_(watched_lock) {
    current = this;
    // The library only tests the pointer and reads nothing through it.
    g_redo_handle = reinterpret_cast<RedoHandler_t *>(this);
  }
  ~redo_recorder_t() {
    g_redo_handle = nullptr;
    current = nullptr;
  }
  redo_recorder_t(const redo_recorder_t &) = delete;

  void watch(const uint16_t *lock) { lock_ = lock; }
  void watch_word(const void *word) { word_ = word; }
  // Returns the records since the last call.
  std::vector<redo_record_t> take() { return std::exchange(records_, {}); }

  static int add(redo_record_t record) {
    const std::lock_guard guard(mutex);  // many threads call the hook
    if (current == nullptr) return -1;
    record.locked = current->lock_ != nullptr && *current->lock_ != 0;
    if (current->word_ != nullptr) memcpy(&record.word, current->word_, sizeof(record.word));
    current->records_.push_back(std::move(record));
    return 0;
  }

 private:
  static inline redo_recorder_t *current;
  static inline std::mutex mutex;
  const uint16_t *lock_;
  const void *word_ = nullptr;
  std::vector<redo_record_t> records_;
};

RedoHandler_t *g_redo_handle = nullptr;

int tslb_redo_log_ex(uint64_t txn_id, char rec_type, char *ctx_name, uint32_t tbl_id, uint64_t data_off,
                     uint32_t aux_idx, void *data_ptr, unsigned int data_sz) {
  return redo_recorder_t::add({txn_id, rec_type, ctx_name, tbl_id, data_off, aux_idx, data_ptr,
                               std::string(static_cast<const char *>(data_ptr), data_sz)});
}

#endif
