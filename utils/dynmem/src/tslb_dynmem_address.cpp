// From addresses back to chunks: one decoder and one resolver for both widths.
#include "dynmem_internal.h"
#include "tslb_dynmem.h"

// A chunk's data, and the length that its compaction header keeps.
struct resolved_t {
  char *data;  // null: the pool never took such a slot
  uint32_t mchunk_len;
};

static resolved_t resolve(dynmem_t *pool, const DynMemHdr_t *hdr, chunk_place_t place) {
  MemSlot_t *const slot = slot_of(pool, place.slot_idx);
  if (slot == nullptr) return {nullptr, 0};
  char *const chunk = slot->mslot + place.byte_off;
  if (!has_compat(hdr)) return {chunk, 0};
  return {chunk + COMPAT_BYTES, reinterpret_cast<const compat_t *>(chunk)->mchunk_len};
}

void *tslb_dynmem_get_maddr2ptr_ex(dynmem_t *dynmem_handle, maddr_t maddr, uint32_t *data_sz) {
  const DynMemHdr_t *const hdr = pool_hdr_of(dynmem_handle);
  const resolved_t chunk = resolve(dynmem_handle, hdr, decode_address(hdr, maddr));
  // One byte less than is stored, which is this form's convention; the 64-bit form gives the length itself. A chunk of
  // length 0 wraps.
  *data_sz = chunk.data != nullptr && has_compat(hdr) ? chunk.mchunk_len - 1 : 0;
  return chunk.data;
}

void *tslb_dynmem_get_maddr2ptr(dynmem_t *dynmem_handle, maddr_t maddr) {
  const DynMemHdr_t *const hdr = pool_hdr_of(dynmem_handle);
  return resolve(dynmem_handle, hdr, decode_address(hdr, maddr)).data;
}

void *tslb_dynmem_get_maddr2ptr64_ex(dynmem_t *dynmem_handle, maddr64_t maddr, uint32_t *data_sz) {
  const DynMemHdr_t *const hdr = pool_hdr_of(dynmem_handle);
  resolved_t chunk = {nullptr, 0};
  // Offsets of data are signed where hosts keep them: none beyond their range is a chunk's.
  if (maddr.mchunk_idx <= INT32_MAX - (has_compat(hdr) ? COMPAT_BYTES : 0))
    chunk = resolve(dynmem_handle, hdr, {maddr.mslot_idx, maddr.mchunk_idx});
  if (data_sz != nullptr) *data_sz = chunk.mchunk_len;
  return chunk.data;
}

void *tslb_dynmem_get_maddr2ptr64(dynmem_t *dynmem_handle, maddr64_t maddr) {
  return tslb_dynmem_get_maddr2ptr64_ex(dynmem_handle, maddr, nullptr);
}
