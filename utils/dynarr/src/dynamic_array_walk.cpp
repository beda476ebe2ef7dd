// Release and sync of whole arrays.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>

#include "dynamic_array.h"
#include "dynarr_handle.h"
#include "dynarr_layout.h"
#include "dynarr_walk.h"

// ---- Release -------------------------------------------------------------------------------------------------------

static void release_block(const DynArrHandle_t *array, void *block, size_t bytes) {
  if (array->mem_type == MPOOL_TYPE_SHM)
    munmap(block, bytes);
  else
    free(block);
}

// Releases everything below a table, then the table. `tiers` is the number of table levels down to the blocks, this one
// included. An entry can be null between others if a lookup was refused memory.
static void release_tree(const DynArrHandle_t *array, void **table, unsigned tiers, size_t block_bytes) {
  for (uint32_t i = 0; i < TSLB_ENTRIES_PER_TABLE; ++i) {
    if (table[i] == nullptr) continue;
    if (tiers > 1)
      release_tree(array, static_cast<void **>(table[i]), tiers - 1, block_bytes);
    else
      release_block(array, table[i], block_bytes);
  }
  free(table);
}

static void release_levels(const DynArrHandle_t *array, size_t block_bytes) {
  void **const roots = reinterpret_cast<void **>(array->ir_base);
  for (unsigned level = 1; level <= TSLB_LEVELS; ++level) {
    void *const root = roots[level - 1];
    if (root != nullptr) release_tree(array, static_cast<void **>(root), level, block_bytes);
  }
  free(roots);
}

void destroy_dyn_arr(DynamicArray_t array) {
  if (array == nullptr) return;
  // Sizes first, since they are in block 0. n_direct comes from the handle: another process can write a mapped block 0.
  const size_t slot_bytes = slot_bytes_of(array);
  const size_t block0_bytes = header_bytes_of(array) + slot_bytes * array->n_direct;
  if (array->ir_base != nullptr) release_levels(array, slot_bytes * TSLB_SLOTS_PER_BLOCK);
  const array_private_t *const own = private_of(array);
  if (own->module_state != nullptr) own->release_module_state(own->module_state);
  release_block(array, array->arr_base, block0_bytes);
  free(array);
}

// ---- Sync ----------------------------------------------------------------------------------------------------------

// `shown_bytes` is the size that the report shows. For block 0 it is the direct area alone, although its headers are
// synced too.
static void sync_block(const DynArrHandle_t *array, void *block, size_t bytes, size_t shown_bytes, unsigned level) {
  if (msync(block, bytes, MS_SYNC) == 0) return;
  const int err = errno;
  fprintf(stderr,
          "msync failed for ctx - %s, mpool - %p, indirection level - %d, block addr - %p, size - %ld, record_size - "
          "%u, error - %s",
          array->ctx_name, static_cast<const void *>(array), static_cast<int>(level), block,
          static_cast<long>(shown_bytes), slot_bytes_of(array), strerror(err));
}

void tslb_syn_shm_dynarr(DynamicArray_t array) {
  const DynArrHdr_t *const hdr = arr_hdr_of(array);
  const size_t slot_bytes = slot_bytes_of(array);
  const size_t direct_bytes = slot_bytes * hdr->n_direct;
  sync_block(array, array->arr_base, header_bytes_of(array) + direct_bytes, direct_bytes, 0);

  // Counts slots, not records in use. n_used is read again for each block, so ids issued meanwhile are included.
  uint64_t num_ele_synced = hdr->n_direct;
  if (num_ele_synced >= get32(hdr, &DynArrHdr_t::n_used)) return;
  walk_data_blocks(array, [&](void *block, unsigned level) {
    const size_t bytes = slot_bytes * TSLB_SLOTS_PER_BLOCK;
    sync_block(array, block, bytes, bytes, level);
    num_ele_synced += TSLB_SLOTS_PER_BLOCK;
    return num_ele_synced < get32(hdr, &DynArrHdr_t::n_used);
  });
}
