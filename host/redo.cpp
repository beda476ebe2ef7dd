// No redo log: the handle is null, and the hook does nothing.
#include <tslb/tslb_rd_api.h>

RedoHandler_t *g_redo_handle = nullptr;

int tslb_redo_log_ex(uint64_t, char, char *, uint32_t, uint64_t, uint32_t, void *, unsigned int) {
  return 0;
}
