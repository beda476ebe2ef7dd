#include "redo_recorder.h"

#include <string.h>

#include <mutex>
#include <utility>

RedoHandler_t *g_redo_handle = nullptr;

static redo_recorder_t *recorder;
static std::mutex recorder_mutex;  // the hook is called by many threads

redo_recorder_t::redo_recorder_t(const uint16_t *watched_lock) : lock_(watched_lock) {
  recorder = this;
  // The library only tests the pointer; nothing of the structure behind it is read.
  g_redo_handle = reinterpret_cast<RedoHandler_t *>(this);
}

redo_recorder_t::~redo_recorder_t() {
  g_redo_handle = nullptr;
  recorder = nullptr;
}

std::vector<redo_record_t> redo_recorder_t::take() {
  return std::exchange(records_, {});
}
void redo_recorder_t::add(redo_record_t record) {
  records_.push_back(std::move(record));
}

int tslb_redo_log_ex(uint64_t txn_id, char rec_type, char *ctx_name, uint32_t tbl_id, uint64_t data_off,
                     uint32_t aux_idx, void *data_ptr, unsigned int data_sz) {
  const std::lock_guard guard(recorder_mutex);
  if (recorder == nullptr) return -1;
  const uint16_t *const lock = recorder->watched_lock();
  uint32_t word = 0;
  if (recorder->watched_word() != nullptr) memcpy(&word, recorder->watched_word(), sizeof(word));
  recorder->add({txn_id, rec_type, ctx_name, tbl_id, data_off, aux_idx, data_ptr,
                 std::string(static_cast<const char *>(data_ptr), data_sz), lock != nullptr && *lock != 0, word});
  return 0;
}
