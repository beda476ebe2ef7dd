// Chunk allocation. Bytes of the current slot are won by one swap of the pool's cursor; only the change to a
// new slot takes the handle's spin lock. One reservation serves both address widths: an address policy says
// how a chunk is named and what happens when the current slot has no room.
#include <stdio.h>
#include <stdlib.h>

#include "dynmem_internal.h"
#include "tslb_dynmem.h"
#include "tslb_probes.h"
#include "tslb_report.h"

// The pool promises to stop when the array below has no slot for it: in every build.
#undef NDEBUG
#include <assert.h>

constexpr uint32_t CHUNK_OVERHEAD = 16;  // what total_mwast counts for a chunk, with or without a compaction header
constexpr uint32_t SLOT_OVERHEAD = 8;    // and for a slot that made the pool grow

constexpr uint32_t BIGBUF_LAST_SLOT = 255;   // what 8 bits of an address can name
constexpr uint32_t BITVEC_LAST_SLOT = 2040;  // the last one in use, a little short of what 11 bits can name
constexpr uint32_t BITVEC_WARN_SLOTS = 255;  // a warning each time so many have been filled

// Reports name the public function, whichever helper writes them.
constexpr const char *ALLOCATOR32 = "tslb_dynmem_get_mchunk";

// ---- Reservation --------------------------------------------------------------------------------------------------

enum claim_t { CLAIM_WON, CLAIM_RACED, CLAIM_NO_ROOM };

// One attempt to reserve `len` bytes at the cursor, which is told in `*seen` as it was. Slots above `last_slot` have no
// room for whoever cannot name them; NO_SLOT, the largest number, is above all.
static inline claim_t try_claim(DynMemHdr_t *hdr, uint32_t len, uint32_t last_slot, uint64_t *seen) {
  // Relaxed: nothing is read through these bits before the swap, and the swap is a full barrier.
  *seen = get64(&hdr->cur_slot_addr);
  if (hdr->mslot_sz - cursor_off(*seen) < len || cursor_slot(*seen) > last_slot) return CLAIM_NO_ROOM;
  // The sum stays in the upper half: a slot's size bounds it.
  return cas64(&hdr->cur_slot_addr, *seen, *seen + cursor_of(0, len)) != 0 ? CLAIM_WON : CLAIM_RACED;
}

// What is to be done about a slot without room.
enum no_room_t { TAKE_NEW_SLOT, TRY_AGAIN, REFUSE };

[[noreturn]] __attribute__((noinline, cold)) static void stop_exhausted(dynmem_t *pool) {
  if (is_bitvector(pool_hdr_of(pool)))
    fprintf(stderr, "%s:%s:%d: Error: %s exhausted. %s\n", __FILE_NAME__, ALLOCATOR32, __LINE__, "BitVector pool",
            tslb_print_poolhdr(pool));
  else
    fprintf(stderr, "%s:%s:%d: Warning: %s exhausted. %s\n", __FILE_NAME__, ALLOCATOR32, __LINE__, "Bigbuffer pool",
            tslb_print_poolhdr(pool));
  abort();
}

// Moves the cursor of a ring whose slots all exist to the next one. One attempt: if it fails, another thread moved it.
// Under the lock, so that the slot half of a cursor changes nowhere else: a thread that is still setting up the ring's
// last slot must not find it taken.
static no_room_t no_room_in_ring(dynmem_t *pool, DynMemHdr_t *hdr, uint64_t seen, uint32_t n_used) {
  const uint32_t slot_idx = cursor_slot(seen);
  // Above the last one is where 64-bit chunks of the same pool have gone.
  const bool wraps = slot_idx >= RING_SLOTS - 1 && slot_idx != NO_SLOT;
  if (wraps) puts("Bitvect tmp pool, switching into slot it 0");
  // n_used may be stale: where it stands at less although the last slot was seen, the next attempt reads it anew.
  if (n_used < RING_SLOTS) return wraps ? TRY_AGAIN : TAKE_NEW_SLOT;
  spin_lock(&pool->spinlock);
  const uint32_t next_slot = wraps ? 0 : slot_idx + 1;
  if (cas64(&hdr->cur_slot_addr, seen, cursor_of(next_slot, 0)) != 0)
    TSLB_PROBE_POOL_SLOT(pool, next_slot, slot_idx, cursor_off(seen));
  spin_unlock(&pool->spinlock);
  return TRY_AGAIN;
}

static no_room_t no_room_in_bitvector(dynmem_t *pool, uint32_t slot_idx) {
  if (slot_idx != NO_SLOT && slot_idx >= BITVEC_LAST_SLOT) stop_exhausted(pool);
  if (slot_idx != NO_SLOT && slot_idx > 0 && slot_idx % BITVEC_WARN_SLOTS == 0)
    fprintf(stderr, "%s:%s:%d: BitVector overusage Warning: %s [%s], it has already used %d slot index.\n",
            __FILE_NAME__, ALLOCATOR32, __LINE__, "Bitvect pool", tslb_print_poolhdr(pool), static_cast<int>(slot_idx));
  return TAKE_NEW_SLOT;
}

static no_room_t no_room_in_bigbuffer(dynmem_t *pool, DynMemHdr_t *hdr, uint32_t slot_idx) {
  if (slot_idx == BIGBUF_LAST_SLOT) stop_exhausted(pool);
  // Against the slots that memory exists for, and sign-extended: a negative limit never limits.
  if (hdr->max_slots != 0 && get32(&arr_hdr_of(pool)->n_alloc) >= static_cast<uint32_t>(int32_t{hdr->max_slots}))
    return REFUSE;
  return TAKE_NEW_SLOT;
}

// ---- Address policies ---------------------------------------------------------------------------------------------

// Chunks named by 32 bits, whose reading and limits depend on the pool's kind.
struct address32_t {
  using name_t = maddr_t;
  using source_t = srcaddr_t;
  using header_t = compat_t;
  static constexpr const char *FUNCTION = ALLOCATOR32;
  static constexpr bool CLEARS_DELETED = true;

  // Slots that exist, read ahead of the cursor (acquire keeps the two in this order): a ring whose last slot was seen
  // full is then at worst seen as not complete yet, and looked at again.
  static uint32_t slots_ahead_of_cursor(dynmem_t *pool) {
    return __atomic_load_n(static_cast<uint32_t *>(static_cast<void *>(&arr_hdr_of(pool)->n_used)), __ATOMIC_ACQUIRE);
  }

  static no_room_t no_room(dynmem_t *pool, DynMemHdr_t *hdr, uint64_t seen, uint32_t n_used) {
    if (is_ring(pool)) return no_room_in_ring(pool, hdr, seen, n_used);
    if (is_bitvector(hdr)) return no_room_in_bitvector(pool, cursor_slot(seen));
    return no_room_in_bigbuffer(pool, hdr, cursor_slot(seen));
  }

  // In a pool with lists the current slot can be a reused one below the limit while the ids stand at it: then it is
  // the fresh index that no address can have.
  static uint32_t last_slot(const DynMemHdr_t *hdr) { return is_bitvector(hdr) ? BITVEC_LAST_SLOT : BIGBUF_LAST_SLOT; }

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

  static chunk_place_t name(const DynMemHdr_t *hdr, maddr_t *maddr, chunk_place_t place) {
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
  static constexpr bool CLEARS_DELETED = false;  // a slot comes from the slot layer with 0 there

  static uint32_t slots_ahead_of_cursor(dynmem_t *) { return 0; }
  static no_room_t no_room(dynmem_t *, DynMemHdr_t *, uint64_t, uint32_t) { return TAKE_NEW_SLOT; }
  static uint32_t last_slot(const DynMemHdr_t *) { return NO_SLOT - 1; }
  static void assert_slot(MemSlot_t *cur_mslot) { assert(cur_mslot); }

  // Without the slots' nodes, and told for every new slot: one below the highest lowers the figure.
  static uint32_t grown_size(dynmem_t *pool, uint32_t slot_idx) {
    return arr_hdr_of(pool)->record_size * (slot_idx + 1) + header_bytes_of(pool);
  }
  static bool counts_growth(uint64_t, uint64_t) { return true; }

  static chunk_place_t name(const DynMemHdr_t *, maddr64_t *maddr, chunk_place_t place) {
    *maddr = {place.slot_idx, place.byte_off};
    return place;
  }
};

// ---- New slot ------------------------------------------------------------------------------------------------------

// Makes a new slot current, with the caller's `chunk_sz` bytes at its start reserved. Null if another thread moved the
// cursor away from `cslot_idx` first; the caller tries again then.
template <class Address>
static MemSlot_t *tslb_dynmem_get_newslot(dynmem_t *dynmem_handle, DynMemHdr_t *dynmem_hdr, uint32_t cslot_idx,
                                          uint32_t *new_mslot_idx_ref, uint32_t chunk_sz) {
  spin_lock(&dynmem_handle->spinlock);
  // The slot index alone: what others reserved in the same slot meanwhile does not matter.
  uint64_t seen = get64(&dynmem_hdr->cur_slot_addr);
  if (cursor_slot(seen) != cslot_idx) {
    spin_unlock(&dynmem_handle->spinlock);
    return nullptr;
  }
  MemSlot_t *const slot = static_cast<MemSlot_t *>(tslb_da_get_newptr_ex(dynmem_handle, new_mslot_idx_ref, 0));
  Address::assert_slot(slot);
  if (*new_mslot_idx_ref > Address::last_slot(dynmem_hdr)) stop_exhausted(dynmem_handle);
  // Ahead of the cursor: a reservation by another thread must not be wiped out. The first word also loses the mark that
  // slot allocation left there.
  set32(&slot->bytes_used, 0);
  if (Address::CLEARS_DELETED) set32(&slot->bytes_del, 0);
  // Rivals can still reserve in the old slot until this swap, and no longer after it: the offset that it replaces is
  // all that was ever reserved there.
  const uint64_t moved = cursor_of(*new_mslot_idx_ref, chunk_sz);
  while (cas64(&dynmem_hdr->cur_slot_addr, seen, moved) == 0) seen = get64(&dynmem_hdr->cur_slot_addr);
  TSLB_PROBE_POOL_SLOT(dynmem_handle, *new_mslot_idx_ref, cslot_idx, cursor_off(seen));
  if (cslot_idx != NO_SLOT) note_slot_left(dynmem_handle, {cslot_idx, cursor_off(seen)});
  spin_unlock(&dynmem_handle->spinlock);
  return slot;
}

// The pool's size after a new slot. One attempt, no retry: a rival's figure is as good.
template <class Address>
static void account_new_slot(dynmem_t *pool, DynMemHdr_t *hdr, uint32_t slot_idx) {
  const uint64_t size = Address::grown_size(pool, slot_idx);
  const uint64_t total_msz = get64(&hdr->total_msz);
  if (!Address::counts_growth(size, total_msz)) return;
  cas64(&hdr->total_msz, total_msz, size);
  get_and_inc64(&hdr->total_mwast, SLOT_OVERHEAD);
  if (__atomic_load_n(&g_redo_handle, __ATOMIC_RELAXED) != nullptr && (hdr->flag & MPOOL_FLAG_PERSIST) != 0)
    tslb_redo_log_ex(NO_TXN, TSLB_REDO_GROWTH, pool->ctx_name, pool->tbl_id, get64(&hdr->total_msz), NO_AUX, nullptr,
                     0);
}

// ---- Allocation ---------------------------------------------------------------------------------------------------

static inline void account_chunk(dynmem_t *pool, DynMemHdr_t *hdr, MemSlot_t *slot, uint32_t len) {
  add32(&slot->bytes_used, len);
  get_and_inc64(&hdr->total_mused, len);
  get_and_inc64(&g_mem_st.total_mused, len);
  get_and_inc64(&hdr->total_mwast, CHUNK_OVERHEAD);
  const uint64_t avail =
      get64(&hdr->total_msz) - (header_bytes_of(pool) + get64(&hdr->total_mused) + get64(&hdr->total_mwast));
  // One attempt each: these two are figures of a moment, and whichever thread's stands is as good.
  cas64(&hdr->total_mavail, get64(&hdr->total_mavail), avail);
  cas64(&g_mem_st.total_mavail, get64(&g_mem_st.total_mavail), avail);
}

__attribute__((noinline, cold)) static void *refuse_length(const char *function, const DynMemHdr_t *hdr, uint32_t len,
                                                           int mchunk_len) {
  fprintf(stderr,
          "Error: (%s:%d): Memory chunk len %d(Hdr:%lu + Data:%d) should not be greater than memory slot "
          "length %d.\n",
          function, __LINE__, static_cast<int>(len), static_cast<unsigned long>(COMPAT_BYTES), mchunk_len,
          static_cast<int>(hdr->mslot_sz));
  return nullptr;
}

// A chunk's slot and its place there, once it is won.
struct won_t {
  MemSlot_t *slot;  // null: not yet
  chunk_place_t place;
};

// Deals with a slot that was seen without room: makes a new one with the chunk at its start, or leaves `won` empty for
// another attempt. False if the request is refused.
template <class Address>
__attribute__((noinline, cold)) static bool change_slot(dynmem_t *pool, DynMemHdr_t *hdr, uint64_t seen,
                                                        uint32_t n_used, uint32_t len, won_t *won) {
  const no_room_t answer = Address::no_room(pool, hdr, seen, n_used);
  if (answer != TAKE_NEW_SLOT) return answer != REFUSE;
  won->place.byte_off = 0;
  won->slot = tslb_dynmem_get_newslot<Address>(pool, hdr, cursor_slot(seen), &won->place.slot_idx, len);
  if (won->slot != nullptr) account_new_slot<Address>(pool, hdr, won->place.slot_idx);
  return true;
}

// What the swap of a cursor won.
template <class Address>
static inline won_t won_at(dynmem_t *pool, uint64_t cursor) {
  MemSlot_t *const slot = slot_of(pool, cursor_slot(cursor));
  Address::assert_slot(slot);
  return {slot, {cursor_slot(cursor), cursor_off(cursor)}};
}

// Attempts until one succeeds, with what has to be known about a slot without room; a null slot if the request is
// refused.
template <class Address>
__attribute__((noinline, cold)) static won_t win_later(dynmem_t *pool, DynMemHdr_t *hdr, uint32_t len) {
  won_t won = {nullptr, {0, 0}};
  while (won.slot == nullptr) {
    const uint32_t n_used = Address::slots_ahead_of_cursor(pool);
    uint64_t seen;
    const claim_t claim = try_claim(hdr, len, Address::last_slot(hdr), &seen);
    if (claim == CLAIM_WON)
      won = won_at<Address>(pool, seen);
    else if (claim == CLAIM_NO_ROOM && !change_slot<Address>(pool, hdr, seen, n_used, len, &won))
      return {nullptr, {0, 0}};
  }
  return won;
}

template <class Address>
static inline void *take_chunk(dynmem_t *pool, typename Address::name_t *maddr, int mchunk_len,
                               const typename Address::source_t &saddr) {
  DynMemHdr_t *const hdr = pool_hdr_of(pool);
  const uint32_t len = static_cast<uint32_t>(mchunk_len) + (has_compat(hdr) ? COMPAT_BYTES : 0);
  // A negative length is tested by itself: the header can lift it to a small positive one.
  if (__builtin_expect(mchunk_len < 0 || hdr->mslot_sz < len, 0))
    return refuse_length(Address::FUNCTION, hdr, len, mchunk_len);

  // The first attempt needs nothing but the cursor, and is nearly always the last.
  uint64_t seen;
  const bool at_once = try_claim(hdr, len, Address::last_slot(hdr), &seen) == CLAIM_WON;
  const won_t won = __builtin_expect(at_once, 1) ? won_at<Address>(pool, seen) : win_later<Address>(pool, hdr, len);
  if (won.slot == nullptr) return nullptr;

  const chunk_place_t named = Address::name(hdr, maddr, won.place);
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
