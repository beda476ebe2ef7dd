// No redo log: the handle is null, and the hook does nothing.
//
// Weak, so that a program can link this archive before one that defines the hook, such as libtslb_durable.a.
#include <tslb/tslb_rd_api.h>

__attribute__((weak)) RedoHandler_t *g_redo_handle = nullptr;

__attribute__((weak)) int tslb_redo_log_ex(uint64_t, char, char *, uint32_t, uint64_t, uint32_t, void *, unsigned int) {
  return 0;
}
