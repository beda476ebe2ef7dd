#include "journal/redo_hook.h"

#include <tslb/tslb_rd_api.h>

#include <utility>

// The host's symbols. This object comes ahead of the stand-in's, which then stays in its archive.
RedoHandler_t *g_redo_handle = nullptr;

namespace metricdb {
namespace {

Journal *journal_on = nullptr;

// The library only tests its pointer; nothing of the structure behind it is read.
void switch_to(Journal *journal) {
  journal_on = journal;
  g_redo_handle = reinterpret_cast<RedoHandler_t *>(journal);
}

}  // namespace

RedoTo::RedoTo(Journal &journal) : before_(journal_on) {
  switch_to(&journal);
}

RedoTo::~RedoTo() {
  switch_to(before_);
}

}  // namespace metricdb

int tslb_redo_log_ex(uint64_t txn_id, char rec_type, char *ctx_name, uint32_t tbl_id, uint64_t data_off,
                     uint32_t aux_idx, void *data_ptr, unsigned int data_sz) {
  if (metricdb::journal_on == nullptr) return -1;
  metricdb::journal_on->append({txn_id, rec_type, ctx_name, tbl_id, data_off, aux_idx, data_ptr, data_sz});
  return 0;
}
