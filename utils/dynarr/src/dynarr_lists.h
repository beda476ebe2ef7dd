// List operations of slot allocation and release: inline functions of the hot paths, and declarations of the others.
// Roots, counters and nodes change under the handle's spin lock. Private: never installed.
#ifndef DYNARR_LISTS_H
#define DYNARR_LISTS_H

#include "dynarr_lock.h"
#include "dynarr_lookup.h"
#include "dynarr_redo.h"
#include "tslb_dynarr.h"
#include "tslb_probes.h"
#include "tslb_util.h"

// Values that list operations use repeatedly. They are constant while the array lives. Passed only to inline functions;
// see docs/performance.md, "Slot taken".
struct list_array_t {
  DynArrHandle_t *array;
  DynArrHdr_t *hdr;
  DynArrLLI_t *lli;
  uint32_t node_bytes;  // nodes of one slot

  bool has_inactive_list() const { return node_bytes != TSLB_NODE_BYTES; }
  // Returns null if there is no such slot.
  void *slot(uint32_t idx) const { return idx < get32(hdr, &DynArrHdr_t::n_used) ? issued_slot(idx) : nullptr; }
  void *issued_slot(uint32_t idx) const {
    return lookup_byte(array, hdr, idx, hdr->record_size + node_bytes, TSLB_NODE_BYTES);
  }
  node_bw *bw(void *slot_ptr) const { return bw_of(slot_ptr, hdr->record_size); }
};

static inline list_array_t list_array_of(DynArrHandle_t *array) {
  // A product instead of a branch; see docs/performance.md, "Slot taken".
  const uint32_t second_node = (array->daflag & TSLB_DA_DAFLAG_INLL) * (TSLB_NODE_BYTES / TSLB_DA_DAFLAG_INLL);
  return {array, arr_hdr_of(array), lli_of(array), TSLB_NODE_BYTES + second_node};
}

// Log a slot, and a slot's forward node. The called functions test redo_is_on too; the test here saves the call while
// logging is off.
static inline void log_slot(dynarr_t *array, uint32_t idx) {
  if (redo_is_on(array)) tslb_redo_log_da(array, idx, NO_TXN, TSLB_REDO_SLOT);
}
static inline void log_forward_node(dynarr_t *array, uint32_t idx) {
  if (redo_is_on(array)) tslb_redo_log_da_ex(array, idx, NO_TXN, TSLB_REDO_SLOT, 1);
}

// tslb_da_get_newptr for an array without lists. The clock is read for every slot, also for arrays that store no time.
static inline void *take_plain_slot(DynArrHandle_t *array, uint32_t *idx) {
  tslb_get_time(nullptr);
  void *slot_ptr;
  *idx = static_cast<uint32_t>(new_record_id(array, &slot_ptr, array->daflag));
  if (slot_ptr == nullptr) return nullptr;
  set_gatekeeper(slot_ptr);
  TSLB_PROBE_SLOT_TAKEN(array, *idx, slot_ptr);
  return slot_ptr;
}

// ---- Out of line ---------------------------------------------------------------------------------------------------

// tslb_da_get_newptr for an array with lists.
void *lists_take(dynarr_t *array, uint32_t *new_idx);

// Moves a slot from the inactive list to the free list.
void lists_free_inactive(dynarr_t *array, uint32_t idx, void *slot_ptr);

// Reports a damaged free list and empties it.
__attribute__((cold)) void lists_repair_free(dynarr_t *array);

// Writes the redo records of a slot that was freed, after the lock is released.
__attribute__((noinline)) void lists_write_freed(dynarr_t *array, uint32_t idx);
static inline void lists_log_freed(dynarr_t *array, uint32_t idx) {
  if (redo_is_on(array)) lists_write_freed(array, idx);
}

// ---- In line -------------------------------------------------------------------------------------------------------

// Change a neighbour's forward or back link, and log that whole slot. In an array that another program wrote, a stored
// index can name a slot that does not exist. Such an index is skipped.
static inline void lists_relink_next(const list_array_t &list, uint32_t idx, uint32_t next) {
  void *const slot_ptr = list.slot(idx);
  if (slot_ptr != nullptr) set32(fw_of(slot_ptr), &node_fw::next, next);
  log_slot(list.array, idx);
}
static inline void lists_relink_prev(const list_array_t &list, uint32_t idx, uint32_t prev) {
  void *const slot_ptr = list.slot(idx);
  if (slot_ptr != nullptr) set32(list.bw(slot_ptr), &node_bw::prev, prev);
  log_slot(list.array, idx);
}

static inline void lists_append_free(const list_array_t &list, uint32_t idx, void *slot_ptr) {
  DynArrLLI_t *const lli = list.lli;
  const uint32_t head = get32(lli, &DynArrLLI_t::free_head);
  if (head == TSLB_DA_NIL_IDX && get32(lli, &DynArrLLI_t::n_free) != 0) lists_repair_free(list.array);
  const uint32_t tail = get32(lli, &DynArrLLI_t::free_tail);
  if (__builtin_expect(tail != TSLB_DA_NIL_IDX, 1)) {
    void *const tail_ptr = list.slot(tail);
    if (tail_ptr != nullptr) set32(fw_of(tail_ptr), &node_fw::next, idx);
    log_forward_node(list.array, tail);
  }
  set32(lli, &DynArrLLI_t::free_tail, idx);
  set32(lli, &DynArrLLI_t::n_free, get32(lli, &DynArrLLI_t::n_free) + 1);
  if (__builtin_expect(head == TSLB_DA_NIL_IDX, 0)) set32(lli, &DynArrLLI_t::free_head, idx);
  set_status(slot_ptr, TSLB_DA_SLOT_FREE);
  set32(fw_of(slot_ptr), &node_fw::next, TSLB_DA_NIL_IDX);
}

// tslb_da_free_idx for a caller that holds the lock, with the same result. After a result of 0 the caller releases the
// lock and calls lists_log_freed.
static inline int lists_free(const list_array_t &list, uint32_t idx, void *slot_ptr) {
  // Read under the lock: of two concurrent frees the second one finds the slot free.
  const uint32_t status = status_of(slot_ptr);
  if (__builtin_expect(status == TSLB_DA_SLOT_ACTIVE, 1))
    lists_append_free(list, idx, slot_ptr);
  else if (status == TSLB_DA_SLOT_FREE)
    return 1;
  else if (status == TSLB_DA_SLOT_INACTIVE)
    lists_free_inactive(list.array, idx, slot_ptr);
  // Other values are not statuses of this library: no list contains the slot, and it is added to none.
  set_gatekeeper(slot_ptr);
  TSLB_PROBE_SLOT_FREED(list.array, idx, slot_ptr);
  return 0;
}

#endif
