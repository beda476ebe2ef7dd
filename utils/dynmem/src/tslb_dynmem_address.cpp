// Resolves addresses to chunks, for 32-bit and 64-bit addresses.
#include <stddef.h>

#include "dynmem_internal.h"
#include "tslb_dynmem.h"

// Returns the bytes of a chunk before its data. A product instead of a branch; see docs/performance.md, "Address".
static inline uint32_t compat_bytes_of(const DynMemHdr_t *hdr) {
  static_assert(MPOOL_FLAG_COMPAT == 1, "the bit is a factor");
  return (hdr->flag & MPOOL_FLAG_COMPAT) * TSLB_COMPAT_BYTES;
}

// Returns a chunk's data; null if the pool never took such a slot. Ends in a tail call; see docs/performance.md,
// "Address".
static inline void *data_of(dynmem_t *pool, const DynMemHdr_t *hdr, tslb_chunk_place_t place) {
  const uint32_t data_off = place.byte_off + compat_bytes_of(hdr);
  return lookup(pool, place.slot_idx, pool->daflag, offsetof(MemSlot_t, mslot) + data_off);
}

// Hosts keep data offsets as signed numbers. No chunk has an offset beyond their range.
static inline bool is_in_range(const DynMemHdr_t *hdr, maddr64_t maddr) {
  return maddr.mchunk_idx <= INT32_MAX - compat_bytes_of(hdr);
}

// A chunk's data and the length in its compaction header.
struct chunk_data_t {
  char *data;  // null: the pool never took such a slot
  uint32_t mchunk_len;
};

static chunk_data_t resolve(dynmem_t *pool, const DynMemHdr_t *hdr, tslb_chunk_place_t place) {
  MemSlot_t *const slot = slot_of(pool, place.slot_idx);
  if (slot == nullptr) return {nullptr, 0};
  char *const chunk = slot->mslot + place.byte_off;
  if (!has_compat(hdr)) return {chunk, 0};
  return {chunk + TSLB_COMPAT_BYTES, reinterpret_cast<const compat_t *>(chunk)->mchunk_len};
}

void *tslb_dynmem_get_maddr2ptr_ex(dynmem_t *dynmem_handle, maddr_t maddr, uint32_t *data_sz) {
  const DynMemHdr_t *const hdr = pool_hdr_of(dynmem_handle);
  const chunk_data_t chunk = resolve(dynmem_handle, hdr, decode_address(hdr, maddr));
  // This function returns the stored length less one; the 64-bit form returns the length itself. A length of 0 wraps.
  *data_sz = chunk.data != nullptr && has_compat(hdr) ? chunk.mchunk_len - 1 : 0;
  return chunk.data;
}

void *tslb_dynmem_get_maddr2ptr(dynmem_t *dynmem_handle, maddr_t maddr) {
  const DynMemHdr_t *const hdr = pool_hdr_of(dynmem_handle);
  // Two complete paths; see docs/performance.md, "Address".
  if (is_bitvector(hdr)) return data_of(dynmem_handle, hdr, tslb_stored_decode_bitvector(word_of(maddr)));
  return data_of(dynmem_handle, hdr, tslb_stored_decode_bigbuffer(word_of(maddr)));
}

void *tslb_dynmem_get_maddr2ptr64_ex(dynmem_t *dynmem_handle, maddr64_t maddr, uint32_t *data_sz) {
  const DynMemHdr_t *const hdr = pool_hdr_of(dynmem_handle);
  chunk_data_t chunk = {nullptr, 0};
  if (is_in_range(hdr, maddr)) chunk = resolve(dynmem_handle, hdr, {maddr.mslot_idx, maddr.mchunk_idx});
  if (data_sz != nullptr) *data_sz = chunk.mchunk_len;
  return chunk.data;
}

void *tslb_dynmem_get_maddr2ptr64(dynmem_t *dynmem_handle, maddr64_t maddr) {
  const DynMemHdr_t *const hdr = pool_hdr_of(dynmem_handle);
  if (!is_in_range(hdr, maddr)) return nullptr;
  return data_of(dynmem_handle, hdr, {maddr.mslot_idx, maddr.mchunk_idx});
}
