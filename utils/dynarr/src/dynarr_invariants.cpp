// Compiled with TSLB_CHECK_INVARIANTS. Checks the rules for lists and for a pool's cursor (tslb_stored.h) when the lock of a
// small array is taken, and before it is released. The process ends if an operation breaks a rule. An array that violated a
// rule before the operation is not checked.
#include <stdio.h>
#include <stdlib.h>

#include "dynarr_layout.h"
#include "dynarr_lock.h"

constexpr uint32_t CHECKED_SLOTS_MAX = 64;  // a check reads every slot
constexpr tslb_rule_t NO_RULE = TSLB_N_RULES;

// The lock that this thread holds, and whether the array was sound when it was taken.
static thread_local const DynArrHandle_t *held;
static thread_local bool was_sound;

static const char *text_of(tslb_rule_t rule) {
#define TEXT(id, severity, text) #id ": " text,
  static const char *const TEXTS[] = {TSLB_STORED_RULES(TEXT)};
#undef TEXT
  return TEXTS[rule];
}

// Slots of the direct area only: a lookup beyond it would allocate missing memory.
static void *slot_at(const DynArrHandle_t *array, uint32_t idx) {
  return arr_hdr_of(array)->elem_direct + size_t{idx} * slot_bytes_of(array) + TSLB_NODE_BYTES;
}

struct list_t {
  uint32_t head, tail, count, status;
  bool has_prev;
};

static tslb_rule_t broken_by_list(const DynArrHandle_t *array, const list_t &list, uint32_t n_used, uint64_t *members) {
  const uint32_t record_size = arr_hdr_of(array)->record_size;
  uint32_t n_members = 0, before = TSLB_DA_NIL_IDX;
  for (uint32_t idx = list.head; idx != TSLB_DA_NIL_IDX;) {
    if (idx >= n_used) return TSLB_RULE_LIST_LINK;
    if ((*members >> idx & 1) != 0) return TSLB_RULE_LIST_RING;
    *members |= uint64_t{1} << idx;
    ++n_members;
    void *const slot_ptr = slot_at(array, idx);
    if (status_of(slot_ptr) != list.status) return TSLB_RULE_LIST_STATUS;
    if (list.has_prev && get32(bw_of(slot_ptr, record_size), &node_bw::prev) != before) return TSLB_RULE_LIST_PREV;
    before = idx;
    idx = get32(fw_of(slot_ptr), &node_fw::next);
  }
  if (n_members != list.count) return TSLB_RULE_LIST_COUNT;
  return list.tail == before ? NO_RULE : TSLB_RULE_LIST_TAIL;
}

static tslb_rule_t broken_by_lists(const DynArrHandle_t *array, uint32_t n_used) {
  const DynArrLLI_t *const lli = lli_of(array);
  const list_t free_list = {get32(lli, &DynArrLLI_t::free_head), get32(lli, &DynArrLLI_t::free_tail),
                            get32(lli, &DynArrLLI_t::n_free), TSLB_DA_SLOT_FREE, false};
  const list_t inactive_list = {get32(lli, &DynArrLLI_t::inact_head), get32(lli, &DynArrLLI_t::inact_tail),
                                get32(lli, &DynArrLLI_t::n_inact), TSLB_DA_SLOT_INACTIVE, has_inactive_list(array)};
  uint64_t members = 0;
  tslb_rule_t broken = broken_by_list(array, free_list, n_used, &members);
  if (broken == NO_RULE) broken = broken_by_list(array, inactive_list, n_used, &members);
  for (uint32_t idx = 0; broken == NO_RULE && idx < n_used; ++idx) {
    const uint32_t status = status_of(slot_at(array, idx));
    const bool claims_a_list = status == TSLB_DA_SLOT_FREE || status == TSLB_DA_SLOT_INACTIVE;
    if (claims_a_list && (members >> idx & 1) == 0) broken = TSLB_RULE_LIST_STRAY;
  }
  return broken;
}

// A pool is recognised by the size of its header and by mslot_sz.
static tslb_rule_t broken_by_cursor(const DynArrHandle_t *array, uint32_t n_used) {
  if (dyn_hdr_of(array)->hdr_size != TSLB_POOL_HDR_BYTES) return NO_RULE;
  const char *const hdr = static_cast<const char *>(user_hdr_of(array));
  uint32_t mslot_sz;
  __builtin_memcpy(&mslot_sz, hdr + TSLB_POOL_MSLOT_SZ_AT, sizeof(mslot_sz));
  if (uint64_t{mslot_sz} + TSLB_MEM_SLOT_HDR_BYTES != arr_hdr_of(array)->record_size) return NO_RULE;
  const uint64_t cursor =
      __atomic_load_n(reinterpret_cast<const uint64_t *>(hdr + TSLB_POOL_CURSOR_AT), __ATOMIC_RELAXED);
  const uint32_t slot_idx = tslb_stored_cursor_slot(cursor);
  if (slot_idx != TSLB_DA_NIL_IDX && slot_idx >= n_used) return TSLB_RULE_POOL_CURSOR_SLOT;
  return tslb_stored_cursor_off(cursor) <= mslot_sz ? NO_RULE : TSLB_RULE_POOL_CURSOR_BYTE;
}

static bool is_small(const DynArrHandle_t *array) {
  const uint32_t n_used = get32(arr_hdr_of(array), &DynArrHdr_t::n_used);
  return has_lists(array) && n_used <= CHECKED_SLOTS_MAX && n_used <= array->n_direct;
}

static tslb_rule_t broken_rule(const DynArrHandle_t *array) {
  const uint32_t n_used = get32(arr_hdr_of(array), &DynArrHdr_t::n_used);
  const tslb_rule_t broken = broken_by_lists(array, n_used);
  return broken != NO_RULE ? broken : broken_by_cursor(array, n_used);
}

void lock_array(DynArrHandle_t *array) {
  spin_lock(&array->spinlock);
  held = array;
  was_sound = is_small(array) && broken_rule(array) == NO_RULE;
}

void unlock_array(DynArrHandle_t *array) {
  if (held == array && was_sound && is_small(array)) {
    const tslb_rule_t broken = broken_rule(array);
    if (broken != NO_RULE) {
      fprintf(stderr, "tslb: an operation broke an invariant of array %p, %s\n", static_cast<void *>(array),
              text_of(broken));
      abort();
    }
  }
  held = nullptr;
  spin_unlock(&array->spinlock);
}
