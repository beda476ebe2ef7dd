// From addresses back to chunks.
#include "dynmem_internal.h"
#include "tslb_dynmem.h"

void *tslb_dynmem_get_maddr2ptr_ex(dynmem_t *dynmem_handle, maddr_t maddr, uint32_t *data_sz) {
  *data_sz = 0;
  const DynMemHdr_t *const hdr = pool_hdr_of(dynmem_handle);
  const chunk_place_t place = decode_address(hdr, maddr);
  MemSlot_t *const slot = slot_of(dynmem_handle, place.slot_idx);
  if (slot == nullptr) return nullptr;
  char *const chunk = slot->mslot + place.byte_off;
  if (!has_compat(hdr)) return chunk;
  // One less than the length: the callers of this form store a terminator that they do not count.
  *data_sz = reinterpret_cast<const compat_t *>(chunk)->mchunk_len - 1u;
  return chunk + COMPAT_BYTES;
}

void *tslb_dynmem_get_maddr2ptr(dynmem_t *dynmem_handle, maddr_t maddr) {
  uint32_t data_sz;
  return tslb_dynmem_get_maddr2ptr_ex(dynmem_handle, maddr, &data_sz);
}
