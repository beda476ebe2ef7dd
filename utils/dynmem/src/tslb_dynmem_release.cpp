// Deletion of chunks, and the return of empty slots to the free list.
//
// A slot is freed if it is not current, everything reserved in it has reached bytes_used, and bytes_del equals
// bytes_used. All three conditions are tested under the handle's spin lock, and the slot is freed under the same hold.
// The slot half of the cursor changes only under that lock. A slot that was freed and taken again meanwhile is
// therefore current or filled again, and is not freed.
//
// The second condition needs memory beside the counters. A reservation is a swap of the cursor, and its counter follows
// a few instructions later. The thread that moves the cursor to another slot knows how many bytes of the old slot were
// reserved. If the counter has not reached that number, it adds a note to the handle's list. The late reservation owns
// a chunk whose deletion comes later and tests again, so no release is lost.
#include <stdlib.h>

#include "dynarr_lists.h"
#include "dynmem_internal.h"
#include "tslb_dynmem.h"
#include "tslb_probes.h"

// ---- Unsettled slots -----------------------------------------------------------------------------------------------

// A memory slot that stopped being current before all reservations in it had reached its counter.
struct unsettled_slot_t {
  unsettled_slot_t *next;
  uint32_t slot_idx;
  uint32_t bytes_reserved;  // value of bytes_used when all of them have
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

// A greater count is settled too: the slots of a ring keep the counts of earlier rounds, and are not released.
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

void drop_existing_notes_of(dynmem_t *pool, uint32_t slot_idx) {
  drop_notes(pool, [=](const unsettled_slot_t *noted) { return noted->slot_idx == slot_idx; });
}

void note_if_unsettled(dynmem_t *pool, tslb_chunk_place_t end) {
  // Other pools never release a slot.
  if (!has_compat(pool_hdr_of(pool)) || !has_lists(pool)) return;
  drop_settled(pool);
  const MemSlot_t *const slot = slot_of(pool, end.slot_idx);
  if (slot == nullptr || has_settled(slot, end.byte_off)) return;
  unsettled_slot_t *const noted = static_cast<unsettled_slot_t *>(malloc(sizeof(unsettled_slot_t)));
  if (noted == nullptr) {
    // No memory for a note: waits for the other threads. They need a few instructions, or the time of the host's redo
    // hook if one of them created the slot.
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

// Returns whether everything in a slot looks deleted. Acquire. Pairs with the barrier of the addition to bytes_del: a
// thread that sees the last deletion may overwrite the chunks.
static bool looks_empty(const MemSlot_t *slot) {
  return __atomic_load_n(&slot->bytes_del, __ATOMIC_ACQUIRE) == get32(slot, &MemSlot_t::bytes_used);
}

static bool is_current(const dynmem_t *pool, uint32_t slot_idx) {
  return tslb_stored_cursor_slot(get64(pool_hdr_of(pool), &DynMemHdr_t::cur_slot_addr)) == slot_idx;
}

// Frees a slot if it is still empty. Returns whether it did. Not inlined; see docs/performance.md, "Chunk deleted".
__attribute__((noinline)) static bool release_if_empty(dynmem_t *pool, uint32_t slot_idx, MemSlot_t *slot) {
  if (__builtin_expect(!has_lists(pool), 0)) return tslb_da_free_idx(pool, slot_idx) == 0;  // which reports the refusal
  lock_array(pool);
  const list_array_t list = list_array_of(pool);
  // A complete ring reaches the slot again without a list: a freed slot would be free and current at once. is_settled
  // before looks_empty: a counter that reaches its value between the two must be seen by the comparison.
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
  // The probe comes before the flag is set; see docs/performance.md, "Chunk deleted".
  TSLB_PROBE_CHUNK_DELETED(pool, place.slot_idx, place.byte_off, mchunk_len, compat);
  compat->flag = static_cast<char>(compat->flag | MCHUNK_FLAG_DELETED);
  if (mchunk_len == 0) return;
  // The last access to the chunk: from here on another deletion can free the slot.
  add32(slot, &MemSlot_t::bytes_del, mchunk_len + TSLB_COMPAT_BYTES);
  if (looks_empty(slot) && !is_current(pool, place.slot_idx)) release_if_empty(pool, place.slot_idx, slot);
}

void tslb_dynmem_del_mchunk(dynmem_t *dynmem_handle, maddr_t maddr) {
  const DynMemHdr_t *const hdr = pool_hdr_of(dynmem_handle);
  if (!has_compat(hdr)) return;
  // Two complete paths; see docs/performance.md, "Address".
  if (is_bitvector(hdr)) return delete_chunk(dynmem_handle, tslb_stored_decode_bitvector(word_of(maddr)));
  delete_chunk(dynmem_handle, tslb_stored_decode_bigbuffer(word_of(maddr)));
}

// The two counters of a slot at one moment.
struct slot_counts_t {
  uint32_t bytes_used, bytes_del;
};

// If a slot is released and taken again between two loads, they mix the counts of two uses. The pair is therefore read
// until two readings agree. Then bytes_del above bytes_used is accepted: a stored pool can contain it.
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
  // While a slot is being set up, its first word holds the gatekeeper word instead of a count.
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

// Not implemented. The stored data would allow it: chunks of a slot can be walked by their headers, the deleted bit
// marks the dead ones, and srcaddr names the field that holds a chunk's address.
void tslb_dynmem_memcompat(dynmem_t *) {}
