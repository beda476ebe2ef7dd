#include "journal/redo_hook.h"

#include <tslb/tslb_rd_api.h>

#include <cstring>

// The host's symbols. The linker finds them in this object, so it does not take those of libtslb_host.a.
RedoHandler_t *g_redo_handle = nullptr;

namespace metricdb {
namespace {

Journal *current_journal = nullptr;

// The library only compares the handle with null, and never reads the structure.
void set_current(Journal *journal) {
  current_journal = journal;
  g_redo_handle = reinterpret_cast<RedoHandler_t *>(journal);
}

}  // namespace

RedoScope::RedoScope(Journal &journal) : previous_(current_journal) {
  set_current(&journal);
}

RedoScope::~RedoScope() {
  set_current(previous_);
}

}  // namespace metricdb

int tslb_redo_log_ex(uint64_t txn_id, char rec_type, char *ctx_name, uint32_t tbl_id, uint64_t data_off,
                     uint32_t aux_idx, void *data_ptr, unsigned int data_sz) {
  if (metricdb::current_journal == nullptr) return -1;
  metricdb::current_journal->append(
      {txn_id, rec_type, ctx_name, std::strlen(ctx_name), tbl_id, data_off, aux_idx, data_ptr, data_sz});
  return 0;
}
