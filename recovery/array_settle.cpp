// Adds unaccounted bytes of a pool's current slot to its counters.
#include <tslb/array_settle.h>

#include <tslb/tslb_dynarr.h>
#include <tslb/tslb_dynmem.h>

static DynMemHdr_t *pool_header_of(DynArrHandle_t *array) {
  const DynHdr_t *const hdr = static_cast<const DynHdr_t *>(tslb_da_get_dynhdr(array));
  if (hdr->hdr_size != sizeof(DynMemHdr_t)) return nullptr;
  DynMemHdr_t *const pool = static_cast<DynMemHdr_t *>(tslb_da_get_usrhdr(array));
  return uint64_t{pool->mslot_sz} + sizeof(MemSlot_t) == tslb_da_get_record_size(array) ? pool : nullptr;
}

int array_settle(DynamicArray_t array) {
  const DynMemHdr_t *const pool = pool_header_of(array);
  if (pool == nullptr) return 0;
  const uint32_t slot_idx = static_cast<uint32_t>(pool->cur_slot_addr);
  const uint32_t reserved = static_cast<uint32_t>(pool->cur_slot_addr >> 32);
  if (slot_idx == TSLB_DA_NIL_IDX) return 0;
  MemSlot_t *const slot = static_cast<MemSlot_t *>(tslb_da_get_ptr(array, slot_idx));
  if (slot == nullptr) return -1;
  // bytes_used can exceed the cursor in a ring, whose slots keep the counts of earlier rounds.
  if (slot->bytes_used >= reserved) return 0;
  slot->bytes_del += reserved - slot->bytes_used;
  slot->bytes_used = reserved;
  return 0;
}
