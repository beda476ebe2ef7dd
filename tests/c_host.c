/* A host in C11: the headers, the types and the link hold their promise there too. */
#include <stdio.h>
#include <string.h>

#include "tsdb_multi_thread_trace_log.h"
#include "tsdb_recovery_version_compatibility.h"
#include "tslb_dynarr.h"
#include "tslb_dynmem.h"
#include "tslb_rd_api.h"
#include "tslb_settings.h"
#include "tslb_util.h"

#define CHECK(what)                                              \
  do {                                                           \
    if (!(what)) {                                               \
      fprintf(stderr, "line %d: not so: %s\n", __LINE__, #what); \
      return 1;                                                  \
    }                                                            \
  } while (0)

static int pools(void) {
  dynmem_t *pool = tslb_init_dynmem(1000, 2, MPOOL_FLAG_COMPAT, MPOOL_TYPE_DRAM, 0, "names", BBP_TBLID, 0);
  srcaddr_t source = {1, 2, 3, {0, 0}};
  maddr_t address;
  uint32_t size;
  compat_t *chunk = (compat_t *)tslb_dynmem_get_mchunk(pool, &address, 6, source);
  CHECK(chunk != NULL);
  memcpy(chunk->mchunk, "hello", 6);
  CHECK(chunk->mchunk_len == 6 && chunk->srcaddr.tbl_idx == 2);
  CHECK(strcmp((char *)tslb_dynmem_get_maddr2ptr_ex(pool, address, &size), "hello") == 0 && size == 5);
  destroy_dyn_arr(pool);
  return 0;
}

static int slots(void) {
  dynarr_t *array = tslb_da_init_ll(13, 4, MPOOL_TYPE_DRAM, "slots", 1, TSLB_DA_DAFLAG_INLL);
  uint32_t idx = 9;
  char *slot = (char *)tslb_da_get_newptr(array, &idx);
  const node_fw *node = (const node_fw *)(slot - 8);
  CHECK(idx == 0 && node->status == TSLB_DA_SLOT_ACTIVE);
  tslb_redo_log_da(array, idx, 1, 0);
  CHECK(g_redo_handle == NULL && trace_log_key == NULL && lib_config.tslb_mvt_reuse_enabled == 0);
  CHECK(strstr(tslb_print_poolhdr(array), "ctx_name = slots, tbl_id = 1") != NULL);
  tslb_set_timestamp_offset(-1000000);
  CHECK(tslb_get_time(NULL) <= time(NULL) - 1000000);
  destroy_dyn_arr(array);
  return 0;
}

int main(void) {
  return pools() != 0 || slots() != 0;
}
