// What the modules of the chunk pool share. Private: never installed.
#ifndef DYNMEM_INTERNAL_H
#define DYNMEM_INTERNAL_H

#include "dynarr_handle.h"
#include "dynarr_lookup.h"
#include "tslb_dynmem.h"

static_assert(offsetof(DynMemHdr_t, cur_slot_addr) == TSLB_POOL_CURSOR_AT &&
              offsetof(DynMemHdr_t, mslot_sz) == TSLB_POOL_MSLOT_SZ_AT);
static_assert(sizeof(DynMemHdr_t) == TSLB_POOL_HDR_BYTES && sizeof(MemSlot_t) == TSLB_MEM_SLOT_HDR_BYTES);
static_assert(sizeof(compat_t) == TSLB_COMPAT_BYTES && sizeof(compat64_t) == TSLB_COMPAT_BYTES);

// Always aligned: it stands 8 bytes into block 0, ahead of everything of odd length.
static inline DynMemHdr_t *pool_hdr_of(const dynmem_t *pool) {
  return static_cast<DynMemHdr_t *>(user_hdr_of(pool));
}

static inline bool has_compat(const DynMemHdr_t *hdr) {
  return (hdr->flag & MPOOL_FLAG_COMPAT) != 0;
}
static inline bool is_bitvector(const DynMemHdr_t *hdr) {
  return (hdr->flag & MPOOL_FLAG_BV) != 0;
}

// A ring goes round its slots once all of them exist, whatever the lists say.
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

// ---- Slots that were left before they were settled ------------------------------------------------------------------
// A list of notes in the handle's module state, under the spin lock.

// Notes that a slot stopped being current with `end.byte_off` bytes reserved in it, if not all of them have reached its
// counter yet.
void note_slot_left(dynmem_t *pool, tslb_chunk_place_t end);

// Drops what was noted of an index whose slot becomes current again: a host can free a slot itself, and a note of its
// earlier use would keep the new one from being released.
void forget_notes_of(dynmem_t *pool, uint32_t slot_idx);

static inline bool has_notes(dynmem_t *pool) {
  return private_of(pool)->module_state != nullptr;
}
static inline void forget_slot_left(dynmem_t *pool, uint32_t slot_idx) {
  if (has_notes(pool)) forget_notes_of(pool, slot_idx);
}

static inline MemSlot_t *slot_of(dynmem_t *pool, uint32_t slot_idx) {
  return static_cast<MemSlot_t *>(lookup_slot(pool, slot_idx));
}

#endif
