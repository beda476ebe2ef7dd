// What the modules of the chunk pool share. Private: never installed.
#ifndef DYNMEM_INTERNAL_H
#define DYNMEM_INTERNAL_H

#include "dynarr_internal.h"
#include "tslb_dynmem.h"

constexpr uint32_t NO_SLOT = 0xFFFFFFFFu;  // mslot_idx of a cursor before the first chunk
constexpr uint32_t COMPAT_BYTES = sizeof(compat_t);
static_assert(sizeof(compat_t) == sizeof(compat64_t), "both allocators reserve the same header");

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

// A ring goes round its slots by itself once all of them exist.
constexpr uint32_t RING_SLOTS = 254;
static inline bool is_ring(const dynmem_t *pool) {
  return is_bitvector(pool_hdr_of(pool)) && pool->mem_type == MPOOL_TYPE_DRAM_TMP;
}
static inline bool is_complete_ring(const dynmem_t *pool) {
  return is_ring(pool) && get32(&arr_hdr_of(pool)->n_used) >= RING_SLOTS;
}

// Counters that other threads move meanwhile; each reading is true of some moment, and nothing is read
// through it.
static inline uint64_t get64(const uint64_t *word) {
  return __atomic_load_n(word, __ATOMIC_RELAXED);
}

// The cursor: both halves in one word, so that no thread pairs an old slot with a new offset.
static inline uint64_t cursor_of(uint32_t slot_idx, uint32_t byte_off) {
  return slot_idx | (static_cast<uint64_t>(byte_off) << 32);
}
static inline uint32_t cursor_slot(uint64_t cursor) {
  return static_cast<uint32_t>(cursor);
}
static inline uint32_t cursor_off(uint64_t cursor) {
  return static_cast<uint32_t>(cursor >> 32);
}

// A chunk's place, whatever kind of address named it.
struct chunk_place_t {
  uint32_t slot_idx;
  uint32_t byte_off;
};

constexpr uint32_t BV_UNIT_BYTES = 8;  // a bit-vector address keeps offsets in these
constexpr uint32_t BV_SLOT_BITS = 11;  // its slot index, whose low 8 bits and high 3 bits lie side by side

// Whole words: from the two fields of a slot index a compiler makes more than one mask.
static inline maddr_t encode_address(const DynMemHdr_t *hdr, chunk_place_t place) {
  maddr_t address;
  if (is_bitvector(hdr)) {
    const uint32_t word = place.slot_idx % (1u << BV_SLOT_BITS) | place.byte_off / BV_UNIT_BYTES << BV_SLOT_BITS;
    __builtin_memcpy(&address, &word, sizeof(address));
  } else {
    address.mslot_idx = place.slot_idx & 0xFF;
    address.mchunk_idx = place.byte_off & 0xFFFFFF;
  }
  return address;
}

static inline chunk_place_t decode_bitvector(maddr_t address) {
  uint32_t word;
  __builtin_memcpy(&word, &address, sizeof(word));
  return {word % (1u << BV_SLOT_BITS), (word >> BV_SLOT_BITS) * BV_UNIT_BYTES};
}
static inline chunk_place_t decode_bigbuffer(maddr_t address) {
  return {address.mslot_idx, address.mchunk_idx};
}
static inline chunk_place_t decode_address(const DynMemHdr_t *hdr, maddr_t address) {
  return is_bitvector(hdr) ? decode_bitvector(address) : decode_bigbuffer(address);
}

// Notes that a slot stopped being current with `end.byte_off` bytes reserved in it, if not all of them have reached its
// counter yet. Under the spin lock.
void note_slot_left(dynmem_t *pool, chunk_place_t end);

// Drops what was noted of an index whose slot becomes current again: a host can free a slot itself, and a note of its
// earlier use would keep the new one from being released. Under the spin lock.
void forget_notes_of(dynmem_t *pool, uint32_t slot_idx);
static inline void forget_slot_left(dynmem_t *pool, uint32_t slot_idx) {
  if (private_of(pool)->unsettled != nullptr) forget_notes_of(pool, slot_idx);
}

static inline MemSlot_t *slot_of(dynmem_t *pool, uint32_t slot_idx) {
  return static_cast<MemSlot_t *>(slot_ptr_of(pool, slot_idx));
}

#endif
