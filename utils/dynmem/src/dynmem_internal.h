// Functions shared by the modules of the chunk pool. Private: never installed.
#ifndef DYNMEM_INTERNAL_H
#define DYNMEM_INTERNAL_H

#include "dynarr_handle.h"
#include "dynarr_lookup.h"
#include "tslb_dynmem.h"

static_assert(offsetof(DynMemHdr_t, cur_slot_addr) == TSLB_POOL_CURSOR_AT &&
              offsetof(DynMemHdr_t, mslot_sz) == TSLB_POOL_MSLOT_SZ_AT);
static_assert(sizeof(DynMemHdr_t) == TSLB_POOL_HDR_BYTES && sizeof(MemSlot_t) == TSLB_MEM_SLOT_HDR_BYTES);
static_assert(sizeof(compat_t) == TSLB_COMPAT_BYTES && sizeof(compat64_t) == TSLB_COMPAT_BYTES);

// Always aligned: it starts at byte 8 of block 0, before any part of odd length.
static inline DynMemHdr_t *pool_hdr_of(const dynmem_t *pool) {
  return static_cast<DynMemHdr_t *>(user_hdr_of(pool));
}

static inline bool has_compat(const DynMemHdr_t *hdr) {
  return (hdr->flag & MPOOL_FLAG_COMPAT) != 0;
}
static inline bool is_bitvector(const DynMemHdr_t *hdr) {
  return (hdr->flag & MPOOL_FLAG_BV) != 0;
}

// A ring reuses its slots in turn once all of them exist, whatever the lists contain.
static inline bool is_ring(const dynmem_t *pool) {
  return is_bitvector(pool_hdr_of(pool)) && pool->mem_type == MPOOL_TYPE_DRAM_TMP;
}
static inline bool is_complete_ring(const dynmem_t *pool) {
  return is_ring(pool) && get32(arr_hdr_of(pool), &DynArrHdr_t::n_used) >= TSLB_RING_SLOTS;
}

static inline maddr_t encode_address(const DynMemHdr_t *hdr, tslb_chunk_place_t place) {
  const uint32_t word = is_bitvector(hdr) ? tslb_stored_encode_bitvector(place) : tslb_stored_encode_bigbuffer(place);
  maddr_t address;
  __builtin_memcpy(&address, &word, sizeof(address));
  return address;
}

static inline uint32_t word_of(maddr_t address) {
  uint32_t word;
  __builtin_memcpy(&word, &address, sizeof(word));
  return word;
}
static inline tslb_chunk_place_t decode_address(const DynMemHdr_t *hdr, maddr_t address) {
  return is_bitvector(hdr) ? tslb_stored_decode_bitvector(word_of(address))
                           : tslb_stored_decode_bigbuffer(word_of(address));
}

// ---- Unsettled slots ------------------------------------------------------------------------------------------------
// An unsettled slot stopped being current before all reservations in it had reached its counter. The handle's module
// state holds a list of notes, one per unsettled slot, under the spin lock.

// Adds a note if not all of the `end.byte_off` bytes reserved in a slot that stopped being current have reached its
// counter.
void note_if_unsettled(dynmem_t *pool, tslb_chunk_place_t end);

// Drops the notes of a slot that becomes current again. A host can free a slot itself, and a note of its earlier use
// would keep it from being released.
void drop_existing_notes_of(dynmem_t *pool, uint32_t slot_idx);

static inline bool has_notes(dynmem_t *pool) {
  return private_of(pool)->module_state != nullptr;
}
static inline void drop_notes_of(dynmem_t *pool, uint32_t slot_idx) {
  if (has_notes(pool)) drop_existing_notes_of(pool, slot_idx);
}

static inline MemSlot_t *slot_of(dynmem_t *pool, uint32_t slot_idx) {
  return static_cast<MemSlot_t *>(lookup_slot(pool, slot_idx));
}

#endif
