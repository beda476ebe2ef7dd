// Operations on slots after allocation: free, inactivate, activate, inspect. Slots join a list at its tail and leave it
// by their own links, so no list is walked. Roots, counters and nodes change under the handle's spin lock. Redo records
// of a slot's neighbours are written under it; records of the slot itself after it is released.
#include <stdio.h>

#include "dynarr_lists.h"
#include "tslb_dynarr.h"
#include "tslb_probes.h"
#include "tslb_report.h"

// ---- List operations ----------------------------------------------------------------------------------------------

// A count without a head means that the list is lost. It is emptied. Its slots keep their status and are not used
// again.
void lists_repair_free(dynarr_t *array) {
  DynArrLLI_t *const lli = lli_of(array);
  fprintf(stderr,
          "%s:%d:%s: Warning: Trying to get slot from NULL free_head, resetting n_free,n_free - %d, ctx_name - %s, "
          "tbl_id - %d",
          __FILE_NAME__, __LINE__, "tslb_da_free_idx", static_cast<int>(get32(lli, &DynArrLLI_t::n_free)),
          array->ctx_name, static_cast<int>(array->tbl_id));
  set32(lli, &DynArrLLI_t::n_free, 0);
  set32(lli, &DynArrLLI_t::free_tail, TSLB_DA_NIL_IDX);
}

__attribute__((noinline, cold)) static void repair_inactive_list(dynarr_t *array) {
  DynArrLLI_t *const lli = lli_of(array);
  fprintf(stderr,
          "%s:%d:%s: Warning: Trying to get slot from NULL inact_head, resetting n_inact, n_inact - %d, ctx_name - "
          "%s, tbl_id - %d",
          __FILE_NAME__, __LINE__, "tslb_da_inactivate_idx", static_cast<int>(get32(lli, &DynArrLLI_t::n_inact)),
          array->ctx_name, static_cast<int>(array->tbl_id));
  set32(lli, &DynArrLLI_t::n_inact, 0);
  set32(lli, &DynArrLLI_t::inact_tail, TSLB_DA_NIL_IDX);
}

static inline void append_inactive(const list_array_t &list, uint32_t idx, void *slot_ptr, uint32_t ts) {
  DynArrLLI_t *const lli = list.lli;
  const uint32_t head = get32(lli, &DynArrLLI_t::inact_head);
  if (head == TSLB_DA_NIL_IDX && get32(lli, &DynArrLLI_t::n_inact) != 0) repair_inactive_list(list.array);
  const uint32_t tail = get32(lli, &DynArrLLI_t::inact_tail);
  if (tail != TSLB_DA_NIL_IDX) lists_relink_next(list, tail, idx);
  node_bw *const bw = list.bw(slot_ptr);
  set32(bw, &node_bw::prev, tail);
  set32(fw_of(slot_ptr), &node_fw::next, TSLB_DA_NIL_IDX);
  set32(bw, &node_bw::ts, ts);
  set_status(slot_ptr, TSLB_DA_SLOT_INACTIVE);
  set32(lli, &DynArrLLI_t::inact_tail, idx);
  set32(lli, &DynArrLLI_t::n_inact, get32(lli, &DynArrLLI_t::n_inact) + 1);
  if (head == TSLB_DA_NIL_IDX) set32(lli, &DynArrLLI_t::inact_head, idx);
}

// Removes a slot from the inactive list. The two tests cover the head, the tail, the middle and the only member.
static void remove_from_inactive(const list_array_t &list, void *slot_ptr, uint32_t status) {
  DynArrLLI_t *const lli = list.lli;
  node_fw *const fw = fw_of(slot_ptr);
  node_bw *const bw = list.bw(slot_ptr);
  const uint32_t prev = get32(bw, &node_bw::prev), next = get32(fw, &node_fw::next);
  if (prev == TSLB_DA_NIL_IDX)
    set32(lli, &DynArrLLI_t::inact_head, next);
  else
    lists_relink_next(list, prev, next);
  if (next == TSLB_DA_NIL_IDX)
    set32(lli, &DynArrLLI_t::inact_tail, prev);
  else
    lists_relink_prev(list, next, prev);
  set32(bw, &node_bw::prev, TSLB_DA_NIL_IDX);
  set32(fw, &node_fw::next, TSLB_DA_NIL_IDX);
  set_status(slot_ptr, status);
  set32(lli, &DynArrLLI_t::n_inact, get32(lli, &DynArrLLI_t::n_inact) - 1);
}

// ---- Free ---------------------------------------------------------------------------------------------------------

void lists_free_inactive(dynarr_t *array, uint32_t idx, void *slot_ptr) {
  const list_array_t list = list_array_of(array);
  remove_from_inactive(list, slot_ptr, TSLB_DA_SLOT_FREE);
  lists_append_free(list, idx, slot_ptr);
}

void lists_write_freed(dynarr_t *array, uint32_t idx) {
  log_forward_node(array, idx);
  tslb_redo_log_da_hdr(array, idx, NO_TXN, TSLB_REDO_SLOT);
}

int tslb_da_free_idx(dynarr_t *handle_dynarr, uint32_t idx) {
  if (!has_lists(handle_dynarr)) {
    printf("%s:%d:%s: Warning: provided dynamic array has not advance features but using APIs for the same.\n",
           TSLB_FILE_LINE_FUNC);
    return 1;
  }
  const list_array_t list = list_array_of(handle_dynarr);
  void *const slot_ptr = list.slot(idx);
  if (slot_ptr == nullptr) return -1;
  lock_array(handle_dynarr);
  const int refused = lists_free(list, idx, slot_ptr);
  unlock_array(handle_dynarr);
  if (refused == 0) lists_log_freed(handle_dynarr, idx);
  return refused;
}

// ---- Inactivate and activate --------------------------------------------------------------------------------------

// Takes the lock if the slot has the status `wanted`, and returns true with the lock held. The status is tested first
// without the lock, so that a refusal takes no lock, and again under the lock, since another thread may have changed
// it.
static bool lock_if_status(dynarr_t *array, const void *slot_ptr, uint32_t wanted, uint32_t *status) {
  if ((*status = status_of(slot_ptr)) != wanted) return false;
  lock_array(array);
  if ((*status = status_of(slot_ptr)) == wanted) return true;
  unlock_array(array);
  return false;
}

int tslb_da_inactivate_idx(dynarr_t *handle_dynarr, uint32_t idx, time_t ts) {
  if (!has_inactive_list(handle_dynarr)) {
    printf(
        "%s:%d:%s: Warning: can not inactive idx %u because given dynamic array %p has not initialized by flag "
        "TSLB_DA_DAFLAG_INLL\n",
        TSLB_FILE_LINE_FUNC, idx, static_cast<void *>(handle_dynarr));
    return 1;
  }
  const list_array_t list = list_array_of(handle_dynarr);
  void *const slot_ptr = list.slot(idx);
  if (slot_ptr == nullptr) return -1;
  uint32_t status;
  if (!lock_if_status(handle_dynarr, slot_ptr, TSLB_DA_SLOT_ACTIVE, &status)) {
    fprintf(stderr, "%s:%d:%s: Warning: cannot inactivate idx %u as its status is not active, slot status is %u\n",
            TSLB_FILE_LINE_FUNC, idx, status);
    return 1;
  }
  append_inactive(list, idx, slot_ptr, static_cast<uint32_t>(ts));
  unlock_array(handle_dynarr);
  log_slot(handle_dynarr, idx);
  return 0;
}

int tslb_da_activate_idx(dynarr_t *handle_dynarr, uint32_t idx) {
  if (!has_inactive_list(handle_dynarr)) {
    printf(
        "%s:%d:%s: Warning: idx %u cannot be activate because dynamic array %p is not initialized by "
        "TSLB_DA_DAFLAG_INLL\n",
        TSLB_FILE_LINE_FUNC, idx, static_cast<void *>(handle_dynarr));
    return 1;
  }
  const list_array_t list = list_array_of(handle_dynarr);
  void *const slot_ptr = list.slot(idx);
  if (slot_ptr == nullptr) return -1;
  uint32_t status;
  if (!lock_if_status(handle_dynarr, slot_ptr, TSLB_DA_SLOT_INACTIVE, &status)) {
    fprintf(stderr, "%s:%d:%s: Warning: cannot activate idx %u as not exist into inactive list, slot status is %u\n",
            TSLB_FILE_LINE_FUNC, idx, status);
    return 1;
  }
  remove_from_inactive(list, slot_ptr, TSLB_DA_SLOT_ACTIVE);
  unlock_array(handle_dynarr);
  log_slot(handle_dynarr, idx);
  return 0;
}

// ---- Readiness, and the head of the inactive list -----------------------------------------------------------------

void tslb_da_make_ready(dynarr_t *handle_dynarr, void *slot_ptr) {
  if (!has_lists(handle_dynarr)) return;
  lock_array(handle_dynarr);
  if (status_of(slot_ptr) == TSLB_DA_SLOT_NOT_READY) set_status(slot_ptr, TSLB_DA_SLOT_ACTIVE);
  unlock_array(handle_dynarr);
}

int tslb_da_is_ready(dynarr_t *, void *slot_ptr) {
  return status_of(slot_ptr) != TSLB_DA_SLOT_NOT_READY ? 1 : 0;
}

void *tslb_da_get_inactive_head_ptr(dynarr_t *handle_dynarr, uint32_t *head_idx) {
  if (handle_dynarr == nullptr) {
    printf("%s:%d:%s: failed to get inactive head pointer because handle of dynamic array is NULL.\n",
           TSLB_FILE_LINE_FUNC);
    return nullptr;
  }
  *head_idx = get32(lli_of(handle_dynarr), &DynArrLLI_t::inact_head);
  return tslb_da_get_ptr(handle_dynarr, *head_idx);
}
