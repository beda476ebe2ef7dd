// A redo log that remembers. Linking it shows that a program can define this pair of hooks and take all
// others from the stand-in.
#ifndef TSLB_TESTS_REDO_RECORDER_H
#define TSLB_TESTS_REDO_RECORDER_H

#include <ostream>
#include <string>
#include <vector>

#include "tslb_rd_api.h"

struct redo_record_t {
  uint64_t txn_id;
  int rec_type;
  std::string ctx_name;
  uint32_t tbl_id;
  uint64_t data_off;
  uint32_t aux_idx;
  const void *data_ptr;
  std::string bytes;  // as they were when the hook was called
  bool locked;        // the watched spin lock was held
  uint32_t word;      // what the watched word held
};

// Records everything while it lives, with logging switched on.
class redo_recorder_t {
 public:
  explicit redo_recorder_t(const uint16_t *watched_lock = nullptr);
  ~redo_recorder_t();
  redo_recorder_t(const redo_recorder_t &) = delete;

  void watch(const uint16_t *lock) { lock_ = lock; }
  void watch_word(const void *word) { word_ = word; }
  std::vector<redo_record_t> take();  // what came since the last call
  void add(redo_record_t record);
  const uint16_t *watched_lock() const { return lock_; }
  const void *watched_word() const { return word_; }

 private:
  const uint16_t *lock_;
  const void *word_ = nullptr;
  std::vector<redo_record_t> records_;
};

#endif
