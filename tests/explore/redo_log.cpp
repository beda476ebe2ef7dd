#include "redo_log.h"

#include <string.h>

#include <tslb/array_loader.h>
#include <tslb/redo_applier.h>
#include <tslb/tslb_rd_api.h>
#include "access.h"
#include "machine.h"
#include "scenario.h"

namespace {
struct record_t {
  uint64_t data_off;
  uint32_t bytes_at, n_bytes;
  char type;
};
struct log_t {
  bool is_on;
  int n_records;
  uint32_t n_bytes;
  record_t records[64];
  char bytes[16384];
} redo_log;
int n_kept_records;
uint32_t n_kept_bytes;
}  // namespace

RedoHandler_t *g_redo_handle = nullptr;

void switch_log(bool on) {
  // The library only compares the pointer with null.
  g_redo_handle = on ? reinterpret_cast<RedoHandler_t *>(&redo_log) : nullptr;
  redo_log.n_records = 0;
  redo_log.n_bytes = 0;
}

void keep_log() {
  n_kept_records = redo_log.n_records;
  n_kept_bytes = redo_log.n_bytes;
}
void restore_log() {
  redo_log.n_records = n_kept_records;
  redo_log.n_bytes = n_kept_bytes;
}

int tslb_redo_log_ex(uint64_t, char rec_type, char *, uint32_t, uint64_t data_off, uint32_t, void *data_ptr,
                     unsigned int data_sz) {
  reach_hook(data_ptr, data_sz, __builtin_return_address(0));
  if (redo_log.n_records == 64 || redo_log.n_bytes + data_sz > sizeof(redo_log.bytes)) {
    machine.violation("too many redo records");
    return -1;
  }
  redo_log.records[redo_log.n_records++] = {data_off, redo_log.n_bytes, data_sz, rec_type};
  if (data_sz != 0) memcpy(redo_log.bytes + redo_log.n_bytes, data_ptr, data_sz);
  redo_log.n_bytes += data_sz;
  return 0;
}

bool apply_log() {
  // The replica's own changes are not logged.
  RedoHandler_t *const handle = g_redo_handle;
  g_redo_handle = nullptr;
  bool all_applied = true;
  for (int i = 0; i < redo_log.n_records && all_applied; ++i) {
    const record_t &record = redo_log.records[i];
    const char *const name = scene.replica->ctx_name;
    const redo_args_t args = {~uint64_t{0},
                              record.type,
                              name,
                              strlen(name),
                              scene.replica->tbl_id,
                              record.data_off,
                              0xFFFFFFFFu,
                              record.n_bytes != 0 ? redo_log.bytes + record.bytes_at : nullptr,
                              record.n_bytes};
    char error[256] = "";
    const bool is_pool = static_cast<const DynHdr_t *>(scene.replica->arr_base)->hdr_size == sizeof(DynMemHdr_t);
    all_applied =
        redo_apply(scene.replica, &args, is_pool ? ARRAY_LOAD_POOL : ARRAY_LOAD_ANY, 64, error, sizeof(error)) == 0;
    if (!all_applied) machine.violation("record %d of the log is refused: %s", i, error);
  }
  g_redo_handle = handle;
  return all_applied;
}
