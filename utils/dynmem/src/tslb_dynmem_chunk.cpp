// Chunk allocation. Bytes of the current slot are won by one swap of the pool's cursor; only the change to a
// new slot takes the handle's spin lock. One reservation serves both address widths: an address policy says
// how a chunk is named and what happens when the current slot has no room.
#include <stdio.h>
#include <stdlib.h>

#include "dynarr_lock.h"
#include "dynarr_redo.h"
#include "dynmem_internal.h"
#include "tslb_dynmem.h"
#include "tslb_probes.h"
#include "tslb_report.h"

// The pool promises to stop when the array below has no slot for it: in every build.
#undef NDEBUG
#include <assert.h>

constexpr uint32_t CHUNK_OVERHEAD = 16;  // what total_mwast counts for a chunk, with or without a compaction header
constexpr uint32_t SLOT_OVERHEAD = 8;    // and for a slot that made the pool grow

constexpr uint32_t BITVEC_WARN_SLOTS = 255;  // a warning each time so many have been filled

// Reports name the public function, whichever helper writes them.
constexpr const char *ALLOCATOR32 = "tslb_dynmem_get_mchunk";

// ---- Reservation --------------------------------------------------------------------------------------------------

// Whether the current slot can hold a chunk of `len` bytes. Slots above `last_slot` count as full, because the caller's
// addresses cannot name them; TSLB_DA_NIL_IDX, the largest number, is above all.
static inline bool has_room(const DynMemHdr_t *hdr, uint64_t cursor, uint32_t len, uint32_t last_slot) {
  return hdr->mslot_sz - tslb_stored_cursor_off(cursor) >= len && tslb_stored_cursor_slot(cursor) <= last_slot;
}

enum claim_t { CLAIM_WON, CLAIM_RACED, CLAIM_NO_ROOM };

// Tries once to reserve `len` bytes at the cursor. `*seen` receives the cursor as it was read.
static inline claim_t try_claim(DynMemHdr_t *hdr, uint32_t len, uint32_t last_slot, uint64_t *seen) {
  // Relaxed: nothing is read through these bits before the swap, and the swap is a full barrier.
  *seen = get64(hdr, &DynMemHdr_t::cur_slot_addr);
  if (!has_room(hdr, *seen, len, last_slot)) return CLAIM_NO_ROOM;
  // The sum stays in the upper half: a slot's size bounds it.
  return cas64(&hdr->cur_slot_addr, *seen, *seen + tslb_stored_cursor(0, len)) != 0 ? CLAIM_WON : CLAIM_RACED;
}

// What a caller does when the current slot has no room.
enum no_room_t { CHANGE_SLOT, TRY_AGAIN, REFUSE };

[[noreturn]] __attribute__((noinline, cold)) static void stop_exhausted(dynmem_t *pool) {
  if (is_bitvector(pool_hdr_of(pool)))
    fprintf(stderr, "%s:%s:%d: Error: %s exhausted. %s\n", __FILE_NAME__, ALLOCATOR32, __LINE__, "BitVector pool",
            tslb_print_poolhdr(pool));
  else
    fprintf(stderr, "%s:%s:%d: Warning: %s exhausted. %s\n", __FILE_NAME__, ALLOCATOR32, __LINE__, "Bigbuffer pool",
            tslb_print_poolhdr(pool));
  abort();
}

// Where a ring goes from a slot. Slots above the ring hold 64-bit chunks of the same pool.
static uint32_t slot_after(uint32_t slot_idx) {
  return slot_idx >= TSLB_RING_SLOTS - 1 && slot_idx != TSLB_DA_NIL_IDX ? 0 : slot_idx + 1;
}

static no_room_t no_room_in_ring(uint32_t slot_idx) {
  if (slot_idx != TSLB_DA_NIL_IDX && slot_after(slot_idx) == 0) puts("Bitvect tmp pool, switching into slot it 0");
  return CHANGE_SLOT;
}

// Moves the cursor of a complete ring from `seen` to the next slot. One attempt: it fails if another thread reserved in
// the old slot meanwhile, and the caller's next attempt sees the cursor as it is then. Under the lock, like every change
// of the cursor's slot.
static void step_ring(dynmem_t *pool, DynMemHdr_t *hdr, uint64_t seen) {
  const uint32_t next_slot = slot_after(tslb_stored_cursor_slot(seen));
  if (cas64(&hdr->cur_slot_addr, seen, tslb_stored_cursor(next_slot, 0)) != 0)
    TSLB_PROBE_POOL_SLOT(pool, next_slot, tslb_stored_cursor_slot(seen), tslb_stored_cursor_off(seen));
}

static no_room_t no_room_in_bitvector(dynmem_t *pool, uint32_t slot_idx) {
  if (slot_idx != TSLB_DA_NIL_IDX && slot_idx >= TSLB_BITVEC_LAST_SLOT) stop_exhausted(pool);
  if (slot_idx != TSLB_DA_NIL_IDX && slot_idx > 0 && slot_idx % BITVEC_WARN_SLOTS == 0)
    fprintf(stderr, "%s:%s:%d: BitVector overusage Warning: %s [%s], it has already used %d slot index.\n",
            __FILE_NAME__, ALLOCATOR32, __LINE__, "Bitvect pool", tslb_print_poolhdr(pool), static_cast<int>(slot_idx));
  return CHANGE_SLOT;
}

static no_room_t no_room_in_bigbuffer(dynmem_t *pool, DynMemHdr_t *hdr, uint64_t seen) {
  if (tslb_stored_cursor_slot(seen) == TSLB_BIGBUF_LAST_SLOT) stop_exhausted(pool);
  // Compared with the slots that memory exists for, and sign-extended: a negative limit never limits.
  const bool at_limit = hdr->max_slots != 0 && get32(arr_hdr_of(pool), &DynArrHdr_t::n_alloc) >=
                                                   static_cast<uint32_t>(int32_t{hdr->max_slots});
  if (!at_limit) return CHANGE_SLOT;
  // The slot that brought the pool to its limit can be a new current slot, with room: the cursor shows it.
  return get64(hdr, &DynMemHdr_t::cur_slot_addr) == seen ? REFUSE : TRY_AGAIN;
}

// ---- Address policies ---------------------------------------------------------------------------------------------

// Chunks named by 32 bits, whose reading and limits depend on the pool's kind.
struct address32_t {
  using name_t = maddr_t;
  using source_t = srcaddr_t;
  using header_t = compat_t;
  static constexpr const char *FUNCTION = ALLOCATOR32;

  static no_room_t no_room(dynmem_t *pool, DynMemHdr_t *hdr, uint64_t seen) {
    if (is_ring(pool)) return no_room_in_ring(tslb_stored_cursor_slot(seen));
    if (is_bitvector(hdr)) return no_room_in_bitvector(pool, tslb_stored_cursor_slot(seen));
    return no_room_in_bigbuffer(pool, hdr, seen);
  }
  static bool goes_round(const dynmem_t *pool) { return is_complete_ring(pool); }

  // In a pool with lists the current slot can be a reused one below the limit while the ids stand at it: then it is
  // the fresh index that no address can have.
  static uint32_t last_slot(const DynMemHdr_t *hdr) {
    return is_bitvector(hdr) ? TSLB_BITVEC_LAST_SLOT : TSLB_BIGBUF_LAST_SLOT;
  }

  // The expression is what the process says when it stops.
  static void assert_slot(MemSlot_t *slot) {
    MemSlot_t **const mslot_ref = &slot;
    assert(*mslot_ref);
  }

  // Bytes of the pool up to the new slot, and whether that is news: a slot from the free list can lie below
  // others.
  static uint32_t grown_size(dynmem_t *pool, uint32_t slot_idx) {
    return slot_bytes_of(pool) * (slot_idx + 1) + header_bytes_of(pool);
  }
  static bool counts_growth(uint64_t size, uint64_t total_msz) { return size >= total_msz; }

  static tslb_chunk_place_t name(const DynMemHdr_t *hdr, maddr_t *maddr, tslb_chunk_place_t place) {
    *maddr = encode_address(hdr, place);
    // As the address reads: in a bit-vector pool an odd length would leave the chunk where no address points.
    return {place.slot_idx, decode_address(hdr, *maddr).byte_off};
  }
};

// Chunks named by 64 bits, alike in pools of every kind: no limit, no warning, no ring.
struct address64_t {
  using name_t = maddr64_t;
  using source_t = srcaddr64_t;
  using header_t = compat64_t;
  static constexpr const char *FUNCTION = "tslb_dynmem_get_mchunk64";

  static no_room_t no_room(dynmem_t *, DynMemHdr_t *, uint64_t) { return CHANGE_SLOT; }
  static bool goes_round(const dynmem_t *) { return false; }
  static uint32_t last_slot(const DynMemHdr_t *) { return TSLB_DA_NIL_IDX - 1; }
  static void assert_slot(MemSlot_t *cur_mslot) { assert(cur_mslot); }

  // Without the slots' nodes, and told for every new slot: one below the highest lowers the figure.
  static uint32_t grown_size(dynmem_t *pool, uint32_t slot_idx) {
    return arr_hdr_of(pool)->record_size * (slot_idx + 1) + header_bytes_of(pool);
  }
  static bool counts_growth(uint64_t, uint64_t) { return true; }

  static tslb_chunk_place_t name(const DynMemHdr_t *, maddr64_t *maddr, tslb_chunk_place_t place) {
    *maddr = {place.slot_idx, place.byte_off};
    return place;
  }
};

// ---- New slot ------------------------------------------------------------------------------------------------------

// Leaves the current slot, which the caller saw as `cslot_idx` without room for `chunk_sz` bytes. Makes a new slot
// current with these bytes reserved at its start and returns it. Returns null if the caller has to try again: another
// thread moved the cursor first, or the cursor moved to the next slot of a complete ring.
template <class Address>
static MemSlot_t *tslb_dynmem_get_newslot(dynmem_t *dynmem_handle, DynMemHdr_t *dynmem_hdr, uint32_t cslot_idx,
                                          uint32_t *new_mslot_idx_ref, uint32_t chunk_sz) {
  const uint32_t last_slot = Address::last_slot(dynmem_hdr);
  lock_array(dynmem_handle);
  // What the caller saw can be old. The slot index decides, and a slot that came round again with room is not left.
  uint64_t seen = get64(dynmem_hdr, &DynMemHdr_t::cur_slot_addr);
  const bool is_stale = tslb_stored_cursor_slot(seen) != cslot_idx || has_room(dynmem_hdr, seen, chunk_sz, last_slot);
  // Whether a ring is complete is read here too: ids of a pool are issued under this lock.
  if (is_stale || Address::goes_round(dynmem_handle)) {
    if (!is_stale) step_ring(dynmem_handle, dynmem_hdr, seen);
    unlock_array(dynmem_handle);
    return nullptr;
  }
  MemSlot_t *const slot = static_cast<MemSlot_t *>(tslb_da_get_newptr_ex(dynmem_handle, new_mslot_idx_ref, 0));
  Address::assert_slot(slot);
  if (*new_mslot_idx_ref > last_slot) stop_exhausted(dynmem_handle);
  // Before the cursor moves: a reservation by another thread must not be wiped out. The first word also loses the mark
  // that slot allocation left there. A new id in a block file that existed before brings old bytes in both words.
  set32(slot, &MemSlot_t::bytes_used, 0);
  set32(slot, &MemSlot_t::bytes_del, 0);
  forget_slot_left(dynmem_handle, *new_mslot_idx_ref);
  // Other threads can reserve in the old slot until this swap and not after it: the offset that it replaces is all that
  // was ever reserved there.
  const uint64_t moved = tslb_stored_cursor(*new_mslot_idx_ref, chunk_sz);
  while (cas64(&dynmem_hdr->cur_slot_addr, seen, moved) == 0) seen = get64(dynmem_hdr, &DynMemHdr_t::cur_slot_addr);
  TSLB_PROBE_POOL_SLOT(dynmem_handle, *new_mslot_idx_ref, cslot_idx, tslb_stored_cursor_off(seen));
  if (cslot_idx != TSLB_DA_NIL_IDX) note_slot_left(dynmem_handle, {cslot_idx, tslb_stored_cursor_off(seen)});
  unlock_array(dynmem_handle);
  return slot;
}

// The pool's size after a new slot. One attempt, no retry: if another thread's size replaced the one read here, that one
// stays, also if it is smaller. total_msz and the growth records are therefore approximate under concurrency; a host logs
// the pool's header with each batch.
template <class Address>
static void account_new_slot(dynmem_t *pool, DynMemHdr_t *hdr, uint32_t slot_idx) {
  const uint64_t size = Address::grown_size(pool, slot_idx);
  const uint64_t total_msz = get64(hdr, &DynMemHdr_t::total_msz);
  if (!Address::counts_growth(size, total_msz)) return;
  cas64(&hdr->total_msz, total_msz, size);
  get_and_inc64(&hdr->total_mwast, SLOT_OVERHEAD);
  if (redo_log_exists() && (hdr->flag & MPOOL_FLAG_PERSIST) != 0)
    tslb_redo_log_ex(NO_TXN, TSLB_REDO_GROWTH, pool->ctx_name, pool->tbl_id, get64(hdr, &DynMemHdr_t::total_msz),
                     NO_AUX, nullptr, 0);
}

// ---- Allocation ---------------------------------------------------------------------------------------------------

static inline void account_chunk(dynmem_t *pool, DynMemHdr_t *hdr, MemSlot_t *slot, uint32_t len) {
  add32(slot, &MemSlot_t::bytes_used, len);
  get_and_inc64(&hdr->total_mused, len);
  get_and_inc64(&g_mem_st.total_mused, len);
  get_and_inc64(&hdr->total_mwast, CHUNK_OVERHEAD);
  const uint64_t avail =
      get64(hdr, &DynMemHdr_t::total_msz) -
      (header_bytes_of(pool) + get64(hdr, &DynMemHdr_t::total_mused) + get64(hdr, &DynMemHdr_t::total_mwast));
  // One attempt each: these two are figures of a moment, and whichever thread's stands is as good.
  cas64(&hdr->total_mavail, get64(hdr, &DynMemHdr_t::total_mavail), avail);
  cas64(&g_mem_st.total_mavail, get64(&g_mem_st, &GlobalMemStats_t::total_mavail), avail);
}

__attribute__((noinline, cold)) static void *refuse_length(const char *function, const DynMemHdr_t *hdr, uint32_t len,
                                                           int mchunk_len) {
  fprintf(stderr,
          "Error: (%s:%d): Memory chunk len %d(Hdr:%lu + Data:%d) should not be greater than memory slot "
          "length %d.\n",
          function, __LINE__, static_cast<int>(len), static_cast<unsigned long>(TSLB_COMPAT_BYTES), mchunk_len,
          static_cast<int>(hdr->mslot_sz));
  return nullptr;
}

// A chunk's slot and its place there, once it is won.
struct won_t {
  MemSlot_t *slot;  // null: not yet
  tslb_chunk_place_t place;
};

// Handles a slot that was seen without room: takes a new one with the chunk at its start, or leaves `won` empty for
// another attempt. Returns false if the request is refused.
template <class Address>
__attribute__((noinline, cold)) static bool change_slot(dynmem_t *pool, DynMemHdr_t *hdr, uint64_t seen, uint32_t len,
                                                        won_t *won) {
  const no_room_t answer = Address::no_room(pool, hdr, seen);
  if (answer != CHANGE_SLOT) return answer != REFUSE;
  won->place.byte_off = 0;
  won->slot = tslb_dynmem_get_newslot<Address>(pool, hdr, tslb_stored_cursor_slot(seen), &won->place.slot_idx, len);
  if (won->slot != nullptr) account_new_slot<Address>(pool, hdr, won->place.slot_idx);
  return true;
}

// What the swap of a cursor won.
template <class Address>
static inline won_t won_at(dynmem_t *pool, uint64_t cursor) {
  MemSlot_t *const slot = slot_of(pool, tslb_stored_cursor_slot(cursor));
  Address::assert_slot(slot);
  return {slot, {tslb_stored_cursor_slot(cursor), tslb_stored_cursor_off(cursor)}};
}

// Tries until a reservation succeeds, and leaves slots without room. A null slot if the request is refused.
template <class Address>
__attribute__((noinline, cold)) static won_t win_later(dynmem_t *pool, DynMemHdr_t *hdr, uint32_t len) {
  won_t won = {nullptr, {0, 0}};
  while (won.slot == nullptr) {
    uint64_t seen;
    const claim_t claim = try_claim(hdr, len, Address::last_slot(hdr), &seen);
    if (claim == CLAIM_WON)
      won = won_at<Address>(pool, seen);
    else if (claim == CLAIM_NO_ROOM && !change_slot<Address>(pool, hdr, seen, len, &won))
      return {nullptr, {0, 0}};
  }
  return won;
}

template <class Address>
static inline void *take_chunk(dynmem_t *pool, typename Address::name_t *maddr, int mchunk_len,
                               const typename Address::source_t &saddr) {
  DynMemHdr_t *const hdr = pool_hdr_of(pool);
  const uint32_t len = static_cast<uint32_t>(mchunk_len) + (has_compat(hdr) ? TSLB_COMPAT_BYTES : 0);
  // A negative length is tested by itself: the header can lift it to a small positive one.
  if (__builtin_expect(mchunk_len < 0 || hdr->mslot_sz < len, 0))
    return refuse_length(Address::FUNCTION, hdr, len, mchunk_len);

  // The first attempt needs nothing but the cursor, and is nearly always the last.
  uint64_t seen;
  const bool at_once = try_claim(hdr, len, Address::last_slot(hdr), &seen) == CLAIM_WON;
  const won_t won = __builtin_expect(at_once, 1) ? won_at<Address>(pool, seen) : win_later<Address>(pool, hdr, len);
  if (won.slot == nullptr) return nullptr;

  const tslb_chunk_place_t named = Address::name(hdr, maddr, won.place);
  char *const chunk = won.slot->mslot + named.byte_off;
  TSLB_PROBE_CHUNK_TAKEN(pool, named.slot_idx, named.byte_off, len, chunk);
  account_chunk(pool, hdr, won.slot, len);
  if (has_compat(hdr)) {
    auto *const compat = reinterpret_cast<typename Address::header_t *>(chunk);
    compat->srcaddr = saddr;
    compat->flag = static_cast<char>(compat->flag & ~MCHUNK_FLAG_DELETED);
    compat->mchunk_len = static_cast<uint16_t>(mchunk_len);
  }
  return chunk;
}

void *tslb_dynmem_get_mchunk(dynmem_t *dynmem_handle, maddr_t *maddr, int mchunk_len, srcaddr_t saddr) {
  return take_chunk<address32_t>(dynmem_handle, maddr, mchunk_len, saddr);
}

void *tslb_dynmem_get_mchunk64(dynmem_t *dynmem_handle, maddr64_t *maddr, int mchunk_len, srcaddr64_t saddr) {
  return take_chunk<address64_t>(dynmem_handle, maddr, mchunk_len, saddr);
}
