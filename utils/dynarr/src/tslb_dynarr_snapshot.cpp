// Walks for the host: one passes each block to a callback, the other writes each block to a descriptor. The second
// writes the array's flat image up to its last slot, the stored form of a whole array.
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "dynarr_lookup.h"
#include "dynarr_walk.h"
#include "tslb_dynarr.h"
#include "tslb_probes.h"
#include "tslb_rd_api.h"
#include "tslb_settings.h"

// A block of the walk and its slots in use.
struct used_block_t {
  void *at;  // block 0: its headers
  int n_block_elem;
  int hdr_size;         // bytes of headers at the block's start
  unsigned level;       // 0 for block 0
  bool ends_the_array;  // no later slot is in use
};

enum walk_end_t { WALK_ENDED, WALK_RAN_OUT };

// visit(block) returns a value other than 0 to end the walk. Slots issued after n_used is read here are not visited.
template <class Visit>
static walk_end_t walk_blocks(DynArrHandle_t *array, Visit visit) {
  const DynArrHdr_t *const hdr = arr_hdr_of(array);
  const uint32_t n_used = get32(hdr, &DynArrHdr_t::n_used);
  int num_elem_left = static_cast<int>(n_used);
  const int in_block0 = static_cast<int>(hdr->n_direct < n_used ? hdr->n_direct : n_used);
  const int outcome = visit(used_block_t{array->arr_base, in_block0, static_cast<int>(header_bytes_of(array)), 0,
                                         num_elem_left == in_block0});
  num_elem_left -= in_block0;
  if (num_elem_left == 0 || outcome != 0 || __atomic_load_n(&array->ir_base, __ATOMIC_ACQUIRE) == nullptr)
    return WALK_ENDED;

  const bool ran_out = walk_data_blocks(array, [&](void *block, unsigned level) {
    const int per_block = static_cast<int>(TSLB_SLOTS_PER_BLOCK);
    const int in_block = num_elem_left <= per_block ? num_elem_left : per_block;
    const bool goes_on = visit(used_block_t{block, in_block, 0, level, num_elem_left == in_block}) == 0;
    num_elem_left -= in_block;
    return goes_on && num_elem_left != 0;
  });
  return ran_out ? WALK_RAN_OUT : WALK_ENDED;
}

static size_t bytes_of(const used_block_t &block, uint32_t slot_bytes) {
  return static_cast<uint32_t>(block.hdr_size) + static_cast<uint32_t>(block.n_block_elem) * slot_bytes;
}

// ---- Callback ------------------------------------------------------------------------------------------------------

void tslb_iterate_dyn_array_blocks(DynamicArray_t dyn_handle, tslb_dyn_arr_block_iterator_t iterator_fn,
                                   void *user_data) {
  const uint32_t slot_bytes = slot_bytes_of(dyn_handle);
  const int record_size = static_cast<int>(arr_hdr_of(dyn_handle)->record_size);
  walk_blocks(dyn_handle, [&](const used_block_t &block) {
    return iterator_fn(dyn_handle, block.at, block.n_block_elem, bytes_of(block, slot_bytes), block.hdr_size,
                       static_cast<int>(block.level), record_size, 0, user_data);
  });
}

// ---- Snapshot ------------------------------------------------------------------------------------------------------

int tslb_dump_data_into_dds_file(const char *ctx_name, void *blk_ptr, int num_elements, DynArrHdr_t *dyn_handle_hdr,
                                 int depth, int hdr_size, unsigned int record_sz, int fd, int *num_elem_dumped,
                                 uint32_t last_slot_byte_off) {
  const int64_t size = int64_t{hdr_size} + int64_t{num_elements} * record_sz;
  int64_t amt_written = 0;
  int64_t amt_to_copy = last_slot_byte_off != 0 ? size - record_sz + last_slot_byte_off : size;
  while (amt_to_copy != 0) {
    const ssize_t ret = write(fd, static_cast<const char *>(blk_ptr) + amt_written, static_cast<size_t>(amt_to_copy));
    const int err = errno;
    if (ret >= 0) {
      amt_written += ret;
      amt_to_copy -= ret;
    } else if (err != EINTR) {
      fprintf(stderr,
              "failed to write data in dds snapshot file. ctx_name %s, mpool - %p, indirection level - %d,block addr - "
              "%p, size - %ld, amt_written - %ld, amt_to_copy - %ld, ret - %d, error - %s\n",
              ctx_name, static_cast<void *>(dyn_handle_hdr), depth, blk_ptr, static_cast<long>(size),
              static_cast<long>(amt_written), static_cast<long>(amt_to_copy), static_cast<int>(ret), strerror(err));
      return -1;
    }
  }
  *num_elem_dumped += num_elements;
  return static_cast<uint32_t>(*num_elem_dumped) >= get32(dyn_handle_hdr, &DynArrHdr_t::n_used) ? 1 : 0;
}

// Returns the number of bytes of the array's last slot to store, if the host enabled the cut: the bytes below the
// pool's cursor, if that slot is current. 0: the slot is stored whole.
static uint32_t short_last_slot_bytes(const DynArrHandle_t *array) {
  const int32_t tbl_id = static_cast<int32_t>(array->tbl_id);
  const uint8_t test_mode = static_cast<uint8_t>(tslb_test_mode);
  if (tbl_id != BBP_TBLID && tbl_id != BVP_TBLID) return 0;
  if (test_mode == 0xFF || (test_mode & 1) != 0 || (lib_config.tslb_enable_file_trimming_flag & 1) == 0) return 0;
  // The host can give a pool's table id to another array.
  if (dyn_hdr_of(array)->hdr_size < TSLB_POOL_HDR_BYTES) return 0;
  const void *const cursor_at = static_cast<const char *>(user_hdr_of(array)) + TSLB_POOL_CURSOR_AT;
  const uint64_t cursor = __atomic_load_n(static_cast<const uint64_t *>(cursor_at), __ATOMIC_RELAXED);
  const uint32_t n_used = get32(arr_hdr_of(array), &DynArrHdr_t::n_used);
  if (n_used == 0 || tslb_stored_cursor_slot(cursor) != n_used - 1) return 0;
  return tslb_stored_cursor_off(cursor) + tslb_stored_shift(array->daflag) + TSLB_MEM_SLOT_HDR_BYTES;
}

int tslb_create_dump_for_dynarr(DynamicArray_t dyn_handle, int fd, uint8_t, size_t *total_write_sz) {
  const uint32_t slot_bytes = slot_bytes_of(dyn_handle);
  const uint32_t last_slot_byte_off = short_last_slot_bytes(dyn_handle);
  int num_elem_dumped = 0;
  int outcome = 0;
  const walk_end_t end = walk_blocks(dyn_handle, [&](const used_block_t &block) {
    outcome = tslb_dump_data_into_dds_file(dyn_handle->ctx_name, block.at, block.n_block_elem, arr_hdr_of(dyn_handle),
                                           static_cast<int>(block.level), block.hdr_size, slot_bytes, fd,
                                           &num_elem_dumped, block.ends_the_array ? last_slot_byte_off : 0);
    *total_write_sz += bytes_of(block, slot_bytes);
    if (outcome >= 0) TSLB_PROBE_SNAPSHOT_BLOCK(dyn_handle, block.level, block.at, bytes_of(block, slot_bytes));
    return outcome;
  });
  // A failed write also returns -1: the host must not use an incomplete stream.
  return end == WALK_RAN_OUT || outcome < 0 ? -1 : 0;
}
