// Chunk allocation. A swap of the pool's cursor reserves bytes of the current slot; only the change to another slot
// takes the handle's spin lock. Both address widths use the same reservation. An address policy defines how a chunk is
// named and what happens if the current slot has no room.
#include <stdio.h>
#include <stdlib.h>

#include "dynarr_lock.h"
#include "dynarr_redo.h"
#include "dynmem_internal.h"
#include "tslb_dynmem.h"
#include "tslb_probes.h"
#include "tslb_report.h"

// A pool must stop the process in every build if its array has no slot.
#undef NDEBUG
#include <assert.h>

constexpr uint32_t CHUNK_OVERHEAD = 16;  // total_mwast counts this for a chunk, with or without a compaction header
constexpr uint32_t SLOT_OVERHEAD = 8;    // and this for a slot that made the pool grow

constexpr uint32_t BITVEC_WARN_SLOTS = 255;  // a warning after each such number of filled slots

// Messages name the public function, whichever helper writes them.
constexpr const char *ALLOCATOR32 = "tslb_dynmem_get_mchunk";

// ---- Reservation --------------------------------------------------------------------------------------------------

// Whether the current slot cannot hold a chunk of `len` bytes. Slots above `last_slot` count as full, because the
// caller's addresses cannot name them; TSLB_DA_NIL_IDX, the largest number, is above all.
static inline bool is_full(const DynMemHdr_t *hdr, uint64_t cursor, uint32_t len, uint32_t last_slot) {
  return tslb_stored_cursor_slot(cursor) > last_slot || hdr->mslot_sz - tslb_stored_cursor_off(cursor) < len;
}

enum claim_t { CLAIM_WON, CLAIM_RACED, CLAIM_NO_ROOM };

// Tries once to reserve `len` bytes at the cursor. `*seen` receives the cursor as it was read.
static inline claim_t try_claim(DynMemHdr_t *hdr, uint32_t len, uint32_t last_slot, uint64_t *seen) {
  // Relaxed: nothing is read through these bits before the swap, and the swap is a full barrier.
  *seen = get64(hdr, &DynMemHdr_t::cur_slot_addr);
  if (is_full(hdr, *seen, len, last_slot)) return CLAIM_NO_ROOM;
  // The sum stays in the upper half: a slot's size bounds it.
  return cas64(&hdr->cur_slot_addr, *seen, *seen + tslb_stored_cursor(0, len)) != 0 ? CLAIM_WON : CLAIM_RACED;
}

// What the allocator does if the current slot has no room.
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

// Returns the slot that follows a slot in a ring. Slots above the ring hold 64-bit chunks of the same pool.
static uint32_t slot_after(uint32_t slot_idx) {
  return slot_idx >= TSLB_RING_SLOTS - 1 && slot_idx != TSLB_DA_NIL_IDX ? 0 : slot_idx + 1;
}

static no_room_t no_room_in_ring(uint32_t slot_idx) {
  if (slot_idx != TSLB_DA_NIL_IDX && slot_after(slot_idx) == 0) puts("Bitvect tmp pool, switching into slot it 0");
  return CHANGE_SLOT;
}

// Moves the cursor of a complete ring from `seen` to the next slot. One attempt: it fails if another thread reserved in
// the old slot meanwhile, and the caller's next attempt reads the cursor again. Called under the lock, like every
// change of the cursor's slot.
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
  // The limit is compared with the number of slots whose memory exists. It is sign-extended, so a negative limit never
  // applies.
  const bool at_limit = hdr->max_slots != 0 && get32(arr_hdr_of(pool), &DynArrHdr_t::n_alloc) >=
                                                   static_cast<uint32_t>(int32_t{hdr->max_slots});
  if (!at_limit) return CHANGE_SLOT;
  // The slot with which the pool reached its limit can be a new current slot with room, or become it in a moment. No
  // change of the slot is in progress under the lock, so the cursor shows which is the case.
  lock_array(pool);
  const bool is_left = get64(hdr, &DynMemHdr_t::cur_slot_addr) != seen;
  unlock_array(pool);
  return is_left ? TRY_AGAIN : REFUSE;
}

// ---- Address policies ---------------------------------------------------------------------------------------------

// Chunks with 32-bit addresses. Their form and limits depend on the pool's kind.
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
  static bool steps_ring(const dynmem_t *pool) { return is_complete_ring(pool); }

  // In a pool with lists the current slot can be a reused slot below the limit although all ids below the limit are
  // issued. The next new slot then has an index that no address can name.
  static uint32_t last_slot(const DynMemHdr_t *hdr) {
    return is_bitvector(hdr) ? TSLB_BITVEC_LAST_SLOT : TSLB_BIGBUF_LAST_SLOT;
  }

  // The message of the assertion shows this expression.
  static void assert_slot(MemSlot_t *slot) {
    MemSlot_t **const mslot_ref = &slot;
    assert(*mslot_ref);
  }

  // grown_size returns the bytes of the pool up to the new slot. counts_growth is false if the pool was larger already:
  // a slot from the free list can lie below others.
  static uint32_t grown_size(dynmem_t *pool, uint32_t slot_idx) {
    return slot_bytes_of(pool) * (slot_idx + 1) + header_bytes_of(pool);
  }
  static bool counts_growth(uint64_t size, uint64_t total_msz) { return size >= total_msz; }

  static tslb_chunk_place_t name(const DynMemHdr_t *hdr, maddr_t *maddr, tslb_chunk_place_t place) {
    *maddr = encode_address(hdr, place);
    // The chunk lies where the decoded address points. In a bit-vector pool an odd length would otherwise put it
    // elsewhere.
    return {place.slot_idx, decode_address(hdr, *maddr).byte_off};
  }
};

// Chunks with 64-bit addresses. The same in pools of every kind: no limit, no warning, no ring.
struct address64_t {
  using name_t = maddr64_t;
  using source_t = srcaddr64_t;
  using header_t = compat64_t;
  static constexpr const char *FUNCTION = "tslb_dynmem_get_mchunk64";

  static no_room_t no_room(dynmem_t *, DynMemHdr_t *, uint64_t) { return CHANGE_SLOT; }
  static bool steps_ring(const dynmem_t *) { return false; }
  static uint32_t last_slot(const DynMemHdr_t *) { return TSLB_DA_NIL_IDX - 1; }
  static void assert_slot(MemSlot_t *cur_mslot) { assert(cur_mslot); }

  // Without the slots' nodes, and set for every new slot: a slot below the highest lowers the figure.
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
  // The caller's view of the cursor can be out of date. The slot index decides; a slot that became current again
  // and has room is not left.
  uint64_t seen = get64(dynmem_hdr, &DynMemHdr_t::cur_slot_addr);
  const bool is_stale = tslb_stored_cursor_slot(seen) != cslot_idx || !is_full(dynmem_hdr, seen, chunk_sz, last_slot);
  // Whether a ring is complete is read under the lock too: ids of a pool are issued under it.
  if (is_stale || Address::steps_ring(dynmem_handle)) {
    if (!is_stale) step_ring(dynmem_handle, dynmem_hdr, seen);
    unlock_array(dynmem_handle);
    return nullptr;
  }
  MemSlot_t *const slot = static_cast<MemSlot_t *>(tslb_da_get_newptr_ex(dynmem_handle, new_mslot_idx_ref, 0));
  Address::assert_slot(slot);
  if (*new_mslot_idx_ref > last_slot) stop_exhausted(dynmem_handle);
  // Before the cursor moves, so that no reservation by another thread is lost. This also overwrites the gatekeeper word
  // that slot allocation stored. A new id in an old block file starts with old bytes in both words.
  set32(slot, &MemSlot_t::bytes_used, 0);
  set32(slot, &MemSlot_t::bytes_del, 0);
  drop_notes_of(dynmem_handle, *new_mslot_idx_ref);
  // Other threads can reserve in the old slot until this swap and not after it. The offset that the swap replaces is
  // therefore all that was ever reserved there.
  const uint64_t moved = tslb_stored_cursor(*new_mslot_idx_ref, chunk_sz);
  while (cas64(&dynmem_hdr->cur_slot_addr, seen, moved) == 0) seen = get64(dynmem_hdr, &DynMemHdr_t::cur_slot_addr);
  TSLB_PROBE_POOL_SLOT(dynmem_handle, *new_mslot_idx_ref, cslot_idx, tslb_stored_cursor_off(seen));
  if (cslot_idx != TSLB_DA_NIL_IDX) note_if_unsettled(dynmem_handle, {cslot_idx, tslb_stored_cursor_off(seen)});
  unlock_array(dynmem_handle);
  return slot;
}

// Updates the pool's size after a new slot. One attempt, no retry: if another thread stored its size first, that size
// stays, even if it is smaller. total_msz and the growth records are therefore approximate under concurrency. A host
// logs the pool's header with each batch.
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
  // One attempt each: both figures describe one moment, and either thread's value is good.
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

// A reserved chunk: its slot and its place.
struct reservation_t {
  MemSlot_t *slot;  // null: no reservation yet
  tslb_chunk_place_t place;
};

// Handles a slot that was seen without room: takes another slot and reserves the chunk at its start, or leaves
// `reservation` empty for another attempt. Returns false if the request is refused.
template <class Address>
__attribute__((noinline, cold)) static bool change_slot(dynmem_t *pool, DynMemHdr_t *hdr, uint64_t seen, uint32_t len,
                                                        reservation_t *reservation) {
  const no_room_t answer = Address::no_room(pool, hdr, seen);
  if (answer != CHANGE_SLOT) return answer != REFUSE;
  reservation->place.byte_off = 0;
  reservation->slot =
      tslb_dynmem_get_newslot<Address>(pool, hdr, tslb_stored_cursor_slot(seen), &reservation->place.slot_idx, len);
  if (reservation->slot != nullptr) account_new_slot<Address>(pool, hdr, reservation->place.slot_idx);
  return true;
}

// Returns the reservation that a swap of the cursor made.
template <class Address>
static inline reservation_t reservation_at(dynmem_t *pool, uint64_t cursor) {
  MemSlot_t *const slot = slot_of(pool, tslb_stored_cursor_slot(cursor));
  Address::assert_slot(slot);
  return {slot, {tslb_stored_cursor_slot(cursor), tslb_stored_cursor_off(cursor)}};
}

// Tries until a reservation succeeds, and leaves slots without room. Returns a null slot if the request is refused.
template <class Address>
__attribute__((noinline, cold)) static reservation_t reserve_with_retries(dynmem_t *pool, DynMemHdr_t *hdr,
                                                                          uint32_t len) {
  reservation_t reservation = {nullptr, {0, 0}};
  while (reservation.slot == nullptr) {
    uint64_t seen;
    const claim_t claim = try_claim(hdr, len, Address::last_slot(hdr), &seen);
    if (claim == CLAIM_WON)
      reservation = reservation_at<Address>(pool, seen);
    else if (claim == CLAIM_NO_ROOM && !change_slot<Address>(pool, hdr, seen, len, &reservation))
      return {nullptr, {0, 0}};
  }
  return reservation;
}

template <class Address>
static inline void *take_chunk(dynmem_t *pool, typename Address::name_t *maddr, int mchunk_len,
                               const typename Address::source_t &saddr) {
  DynMemHdr_t *const hdr = pool_hdr_of(pool);
  const uint32_t len = static_cast<uint32_t>(mchunk_len) + (has_compat(hdr) ? TSLB_COMPAT_BYTES : 0);
  // A negative length needs its own test: with the header it can become a small positive number.
  if (__builtin_expect(mchunk_len < 0 || hdr->mslot_sz < len, 0))
    return refuse_length(Address::FUNCTION, hdr, len, mchunk_len);

  // The first attempt needs only the cursor and nearly always succeeds.
  uint64_t seen;
  const bool at_once = try_claim(hdr, len, Address::last_slot(hdr), &seen) == CLAIM_WON;
  const reservation_t reservation = __builtin_expect(at_once, 1) ? reservation_at<Address>(pool, seen)
                                                                 : reserve_with_retries<Address>(pool, hdr, len);
  if (reservation.slot == nullptr) return nullptr;

  const tslb_chunk_place_t named = Address::name(hdr, maddr, reservation.place);
  char *const chunk = reservation.slot->mslot + named.byte_off;
  TSLB_PROBE_CHUNK_TAKEN(pool, named.slot_idx, named.byte_off, len, chunk);
  account_chunk(pool, hdr, reservation.slot, len);
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
