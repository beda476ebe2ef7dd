// Deletion of chunks and the way of emptied slots back to the free list.
//
// A slot is given back when it is not current, everything that was reserved in it has reached bytes_used, and bytes_del
// has come up to that. All three are looked at under the handle's spin lock and the slot is freed in the same hold: the
// slot half of the cursor changes under that lock alone, so a slot that was given back and taken again meanwhile shows
// as current, or as filled anew, and is left.
//
// The second condition needs memory beside the counters. A reservation is a swap of the cursor, and its counter follows
// a few instructions later. Whoever moves the cursor on knows how far the old slot was reserved; where the counter has
// not come so far, it is noted behind the handle. The reservation that is late owns a chunk whose deletion comes later
// still, and asks again: no release is lost.
#include <stdlib.h>

#include "dynarr_lists.h"
#include "dynmem_internal.h"
#include "tslb_dynmem.h"
#include "tslb_probes.h"

// ---- Slots that were left before they were settled -----------------------------------------------------------------

// A memory slot that stopped being current while reservations in it had not reached its counter yet.
struct unsettled_slot_t {
  unsettled_slot_t *next;
  uint32_t slot_idx;
  uint32_t bytes_reserved;  // bytes_used once all of them have
};

static unsettled_slot_t *notes_of(dynmem_t *pool) {
  return static_cast<unsettled_slot_t *>(private_of(pool)->module_state);
}

static void release_notes(void *module_state) {
  for (unsettled_slot_t *noted = static_cast<unsettled_slot_t *>(module_state); noted != nullptr;) {
    unsettled_slot_t *const next = noted->next;
    free(noted);
    noted = next;
  }
}

// Greater counts as settled: the slots of a ring keep the counts of earlier rounds, and are not released.
static bool has_settled(const MemSlot_t *slot, uint32_t bytes_reserved) {
  return get32(slot, &MemSlot_t::bytes_used) >= bytes_reserved;
}

template <class Predicate>
static void drop_notes(dynmem_t *pool, Predicate is_done) {
  unsettled_slot_t *first = notes_of(pool);
  for (unsettled_slot_t **at = &first; *at != nullptr;) {
    unsettled_slot_t *const noted = *at;
    if (!is_done(noted)) {
      at = &noted->next;
      continue;
    }
    *at = noted->next;
    free(noted);
  }
  private_of(pool)->module_state = first;
}

static void drop_settled(dynmem_t *pool) {
  drop_notes(pool, [=](const unsettled_slot_t *noted) {
    return has_settled(slot_of(pool, noted->slot_idx), noted->bytes_reserved);
  });
}

void forget_notes_of(dynmem_t *pool, uint32_t slot_idx) {
  drop_notes(pool, [=](const unsettled_slot_t *noted) { return noted->slot_idx == slot_idx; });
}

void note_slot_left(dynmem_t *pool, tslb_chunk_place_t end) {
  // Other pools never release a slot.
  if (!has_compat(pool_hdr_of(pool)) || !has_lists(pool)) return;
  drop_settled(pool);
  const MemSlot_t *const slot = slot_of(pool, end.slot_idx);
  if (slot == nullptr || has_settled(slot, end.byte_off)) return;
  unsettled_slot_t *const noted = static_cast<unsettled_slot_t *>(malloc(sizeof(unsettled_slot_t)));
  if (noted == nullptr) {
    // No memory for a note: wait for the other threads. They need a few instructions, or the time of the host's redo
    // hook if one of them made the slot.
    while (!has_settled(slot, end.byte_off)) {
    }
    return;
  }
  *noted = {notes_of(pool), end.slot_idx, end.byte_off};
  private_of(pool)->release_module_state = release_notes;
  private_of(pool)->module_state = noted;
}

__attribute__((noinline, cold)) static bool is_noted(dynmem_t *pool, uint32_t slot_idx) {
  drop_settled(pool);
  for (const unsettled_slot_t *noted = notes_of(pool); noted != nullptr; noted = noted->next) {
    if (noted->slot_idx == slot_idx) return true;
  }
  return false;
}

static inline bool is_settled(dynmem_t *pool, uint32_t slot_idx) {
  return !has_notes(pool) || !is_noted(pool, slot_idx);
}

// ---- Release -------------------------------------------------------------------------------------------------------

// Whether everything in a slot looks deleted. Acquire, paired with the barrier of the addition to bytes_del: who sees
// the last deletion may clear what the deleters had in hand.
static bool looks_empty(const MemSlot_t *slot) {
  return __atomic_load_n(&slot->bytes_del, __ATOMIC_ACQUIRE) == get32(slot, &MemSlot_t::bytes_used);
}

static bool is_current(const dynmem_t *pool, uint32_t slot_idx) {
  return tslb_stored_cursor_slot(get64(pool_hdr_of(pool), &DynMemHdr_t::cur_slot_addr)) == slot_idx;
}

// Gives a slot back if it is empty still, and says whether it did. Not in line: who finds nothing to give back saves no
// registers for it.
__attribute__((noinline)) static bool release_if_empty(dynmem_t *pool, uint32_t slot_idx, MemSlot_t *slot) {
  if (__builtin_expect(!has_lists(pool), 0)) return tslb_da_free_idx(pool, slot_idx) == 0;  // which says why it cannot
  lock_array(pool);
  const list_array_t list = list_array_of(pool);
  // A complete ring comes to the slot again without asking any list: on one, it would be free and current at once.
  // Settled first: a counter that catches up between the two must be seen by the comparison.
  const bool is_empty =
      !is_complete_ring(pool) && !is_current(pool, slot_idx) && is_settled(pool, slot_idx) && looks_empty(slot);
  const bool released = __builtin_expect(is_empty, 1) && lists_free(list, slot_idx, slot) == 0;
  unlock_array(pool);
  if (__builtin_expect(!released, 0)) return false;
  lists_log_freed(pool, slot_idx);
  return true;
}

__attribute__((always_inline)) static inline void delete_chunk(dynmem_t *pool, tslb_chunk_place_t place) {
  MemSlot_t *const slot = slot_of(pool, place.slot_idx);
  if (slot == nullptr) return;
  compat_t *const compat = reinterpret_cast<compat_t *>(slot->mslot + place.byte_off);
  if ((compat->flag & MCHUNK_FLAG_DELETED) != 0) return;
  const uint32_t mchunk_len = compat->mchunk_len;
  // Ahead of the mark: behind it the compiler would save another register.
  TSLB_PROBE_CHUNK_DELETED(pool, place.slot_idx, place.byte_off, mchunk_len, compat);
  compat->flag = static_cast<char>(compat->flag | MCHUNK_FLAG_DELETED);
  if (mchunk_len == 0) return;
  // The last touch of the chunk: from here on another deletion can give the slot away.
  add32(slot, &MemSlot_t::bytes_del, mchunk_len + TSLB_COMPAT_BYTES);
  if (looks_empty(slot) && !is_current(pool, place.slot_idx)) release_if_empty(pool, place.slot_idx, slot);
}

void tslb_dynmem_del_mchunk(dynmem_t *dynmem_handle, maddr_t maddr) {
  const DynMemHdr_t *const hdr = pool_hdr_of(dynmem_handle);
  if (!has_compat(hdr)) return;
  // Two whole ways, as where addresses are resolved.
  if (is_bitvector(hdr)) return delete_chunk(dynmem_handle, tslb_stored_decode_bitvector(word_of(maddr)));
  delete_chunk(dynmem_handle, tslb_stored_decode_bigbuffer(word_of(maddr)));
}

// The two counters of a slot, both of one moment.
struct slot_counts_t {
  uint32_t bytes_used, bytes_del;
};

// A slot that is released and taken again between two loads mixes the counts of two uses, so the pair is read until two
// readings agree. More deleted than used is accepted then: a stored pool can say so.
static slot_counts_t read_counts(const MemSlot_t *slot) {
  slot_counts_t last = {get32(slot, &MemSlot_t::bytes_used), 0};
  for (bool agrees = false; !agrees;) {
    // Acquire: bytes_used is read after the deletions that bytes_del counts, and includes their chunks.
    const uint32_t bytes_del = __atomic_load_n(&slot->bytes_del, __ATOMIC_ACQUIRE);
    const uint32_t bytes_used = __atomic_load_n(&slot->bytes_used, __ATOMIC_ACQUIRE);
    agrees = bytes_used == last.bytes_used && (bytes_del == last.bytes_del || bytes_del <= bytes_used);
    last = {bytes_used, bytes_del};
  }
  return last;
}

static inline void sweep_slot(dynmem_t *pool, uint32_t slot_idx, MemSlot_t *slot, size_t *used_sz, size_t *del_sz) {
  if (status_of(slot) != TSLB_DA_SLOT_ACTIVE) return;
  const slot_counts_t counts = read_counts(slot);
  if (counts.bytes_del == counts.bytes_used && !is_current(pool, slot_idx) && release_if_empty(pool, slot_idx, slot))
    return;
  // A slot that is being set up still shows the slot layer's mark in place of a count.
  if (counts.bytes_used == TSLB_GATEKEEPER_WORD) return;
  *used_sz += counts.bytes_used;
  *del_sz += counts.bytes_del;
}

void tslb_dynmem_update_free_list(dynmem_t *dynmem_handle, size_t *total_sz, size_t *used_sz, size_t *del_sz) {
  const DynMemHdr_t *const hdr = pool_hdr_of(dynmem_handle);
  *del_sz = *used_sz = 0;
  *total_sz = get64(hdr, &DynMemHdr_t::total_msz);
  if (!has_compat(hdr) || (dynmem_handle->daflag & TSLB_DA_DAFLAG_LL) == 0) return;
  const uint32_t n_slots = tslb_da_get_size(dynmem_handle);
  const uint32_t slot_bytes = slot_bytes_of(dynmem_handle);
  for (uint32_t first = 0; first < n_slots;) {
    const slot_run_t run = run_at(dynmem_handle, first, n_slots);
    for (uint32_t i = 0; run.slot != nullptr && i < run.count; ++i) {
      MemSlot_t *const slot = reinterpret_cast<MemSlot_t *>(run.slot + size_t{i} * slot_bytes);
      sweep_slot(dynmem_handle, first + i, slot, used_sz, del_sz);
    }
    first += run.count;
  }
}

// Nothing moves yet. What stands ready: chunks of a slot can be walked by their headers, the deleted bit tells which
// are dead, and srcaddr names the place that holds a chunk's address.
void tslb_dynmem_memcompat(dynmem_t *) {}
