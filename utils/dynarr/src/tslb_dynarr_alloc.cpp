// Slot allocation: free list, then inactive list, then a fresh id. With lists, everything from the choice of
// the slot to its status happens under the handle's spin lock; a plain array has no lock on this path.
#include <string.h>

#include "dynarr_internal.h"
#include "tslb_dynarr.h"
#include "tslb_util.h"

// First word of a payload after taking or freeing it.
constexpr uint32_t GATEKEEPER = 0xFFFFFFFFu;

// Takes the head of the free list; null if the list gives none. A control block that contradicts itself (a
// count without a head, a head without a count or without a slot) is passed over and left as it is.
static void *take_free_head(dynarr_t *array, uint32_t *idx) {
  DynArrLLI_t *const lli = lli_of(array);
  const uint32_t head = get32(&lli->free_head);
  if (get32(&lli->n_free) == 0 || head == TSLB_DA_NIL_IDX) return nullptr;
  void *const slot_ptr = slot_ptr_of(array, head);
  if (slot_ptr == nullptr) return nullptr;
  if (head == get32(&lli->free_tail)) {
    set32(&lli->free_tail, TSLB_DA_NIL_IDX);
    set32(&lli->free_head, TSLB_DA_NIL_IDX);
  } else {
    set32(&lli->free_head, get32(&fw_of(slot_ptr)->next));
  }
  set32(&lli->n_free, get32(&lli->n_free) - 1);
  *idx = head;
  return slot_ptr;
}

// Takes the head of the inactive list if the array's policy allows it. No policy can be registered yet, so
// none does.
static void *take_inactive_head(dynarr_t *, uint32_t *) {
  return nullptr;
}

static void *take_fresh(dynarr_t *array, uint32_t *idx) {
  void *slot_ptr;
  *idx = static_cast<uint32_t>(get_dyn_arr_new_record_id_ex(array, &slot_ptr, array->daflag));
  return slot_ptr;
}

// Status last: a reader that finds the slot active finds its links settled.
static void write_nodes(dynarr_t *array, void *slot_ptr, uint32_t now) {
  if (has_inactive_list(array)) {
    node_bw *const bw = bw_of(slot_ptr, arr_hdr_of(array)->record_size);
    set32(&bw->prev, TSLB_DA_NIL_IDX);
    set32(&bw->ts, now);
  }
  set32(&fw_of(slot_ptr)->next, TSLB_DA_NIL_IDX);
  set32(&fw_of(slot_ptr)->status, TSLB_DA_SLOT_ACTIVE);
}

// A slot of a list array, its nodes written; null if there is none. Under the lock.
static void *take_slot(dynarr_t *array, uint32_t *idx, uint32_t now) {
  void *slot_ptr = take_free_head(array, idx);
  if (slot_ptr == nullptr) slot_ptr = take_inactive_head(array, idx);
  if (slot_ptr != nullptr)
    memset(slot_ptr, 0, arr_hdr_of(array)->record_size);
  else
    slot_ptr = take_fresh(array, idx);
  if (slot_ptr != nullptr) write_nodes(array, slot_ptr, now);
  return slot_ptr;
}

void *tslb_da_get_newptr(dynarr_t *handle_dynarr, uint32_t *new_idx) {
  return handle_dynarr != nullptr ? tslb_da_get_newptr_ex(handle_dynarr, new_idx, 1) : nullptr;
}

void *tslb_da_get_newptr_ex(dynarr_t *handle_dynarr, uint32_t *new_idx, uint8_t lock_off) {
  const uint32_t now = static_cast<uint32_t>(tslb_get_time(nullptr));
  const bool lists = has_lists(handle_dynarr);
  uint32_t idx;
  void *slot_ptr;
  if (!lists) {
    slot_ptr = take_fresh(handle_dynarr, &idx);
  } else {
    if (lock_off != 0) tslb_da_spin_lock16(&handle_dynarr->spinlock);
    slot_ptr = take_slot(handle_dynarr, &idx, now);
    if (lock_off != 0) tslb_da_spin_unlock16(&handle_dynarr->spinlock);
  }
  *new_idx = idx;
  if (slot_ptr == nullptr) return nullptr;

  if (lists && redo_is_on_by_name(handle_dynarr)) {
    redo_header(handle_dynarr, NO_TXN, TSLB_REDO_SLOT);
    redo_nodes(handle_dynarr, idx, slot_ptr);
  }
  set32(slot_ptr, GATEKEEPER);
  return slot_ptr;
}

uint32_t tslb_da_get_range(dynarr_t *handle_dynarr, uint32_t num_entries) {
  uint32_t start_idx = TSLB_DA_NIL_IDX;
  tslb_da_spin_lock16(&handle_dynarr->spinlock);
  for (uint32_t i = 0; i < num_entries; ++i) {
    uint32_t idx;
    if (tslb_da_get_newptr_ex(handle_dynarr, &idx, 0) == nullptr) {
      start_idx = TSLB_DA_NIL_IDX;
      break;
    }
    if (start_idx == TSLB_DA_NIL_IDX) start_idx = idx;
  }
  tslb_da_spin_unlock16(&handle_dynarr->spinlock);
  return start_idx;
}

unsigned int tslb_da_get_newidx(dynarr_t *handle_dynarr) {
  return static_cast<unsigned int>(get_dyn_arr_new_record_id(handle_dynarr));
}
