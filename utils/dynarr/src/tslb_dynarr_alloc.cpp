// Slot allocation: from the free list, else from the inactive list, else a new id. In an array with lists, the choice
// of the slot and the change of its status happen under one hold of the handle's spin lock. A plain array takes no lock
// here.
#include <stdio.h>
#include <string.h>
#include <time.h>

#include "dynarr_lists.h"
#include "tslb_dynarr.h"
#include "tslb_dynmem.h"
#include "tslb_probes.h"
#include "tslb_report.h"
#include "tslb_settings.h"
#include "tslb_util.h"

// Takes the head of the free list; null if it gives none. An inconsistent control block (a count without a head, a head
// without a count or without a slot) is skipped and not changed.
static inline void *take_free_head(const list_array_t &list, uint32_t *idx) {
  DynArrLLI_t *const lli = list.lli;
  const uint32_t head = get32(lli, &DynArrLLI_t::free_head);
  const uint32_t n_free = get32(lli, &DynArrLLI_t::n_free);
  if (n_free == 0 || head == TSLB_DA_NIL_IDX) return nullptr;
  void *const slot_ptr = list.slot(head);
  if (slot_ptr == nullptr) return nullptr;
  if (head == get32(lli, &DynArrLLI_t::free_tail)) {
    set32(lli, &DynArrLLI_t::free_tail, TSLB_DA_NIL_IDX);
    set32(lli, &DynArrLLI_t::free_head, TSLB_DA_NIL_IDX);
  } else {
    set32(lli, &DynArrLLI_t::free_head, get32(fw_of(slot_ptr), &node_fw::next));
  }
  set32(lli, &DynArrLLI_t::n_free, n_free - 1);
  *idx = head;
  return slot_ptr;
}

// ---- Reuse of inactive slots --------------------------------------------------------------------------------------

// Share of inactive slots in percent, rounded down. The quotient is computed first, so 29 of 100 gives 28. The result
// has 8 bits, like the limits.
static uint8_t inactive_percent(uint32_t n_inact, uint32_t n_used) {
  if (n_used == 0) return 0;
  return static_cast<uint8_t>(
      static_cast<uint64_t>(100.0 * (static_cast<double>(n_inact) / static_cast<double>(n_used))));
}

static bool passes(tsdb_inactive_thshld_policy_t set, uint32_t n_used, uint32_t n_inact, uint8_t percent) {
  return n_used >= set.min_overall_cnt &&
         (percent >= set.inactive_threshold_pct || n_inact >= set.inactive_threshold_cnt);
}

// Returns whether the share or count of inactive slots allows reuse under the array's policy. The policy is in use.
static inline bool policy_wants_reuse(const list_array_t &list) {
  const DynArrLLI_t *const lli = list.lli;
  const tsdb_mem_pressure_config_t policy = lli->mem_pressure_conf;  // a copy: the field is not aligned
  const uint32_t n_inact = get32(lli, &DynArrLLI_t::n_inact);
  if (n_inact == 0 || get32(lli, &DynArrLLI_t::inact_head) == TSLB_DA_NIL_IDX) return false;
  const uint32_t n_used = get32(list.hdr, &DynArrHdr_t::n_used);
  const uint8_t percent = inactive_percent(n_inact, n_used);
  return passes(policy.major, n_used, n_inact, percent) || passes(policy.critical, n_used, n_inact, percent);
}

// Takes the head of the inactive list if policy and age allow it; else returns null. `*head_ts` receives the head's
// time if a head was examined. No other slot is examined: the head has been inactive longest.
__attribute__((always_inline)) static inline void *take_inactive_head(const list_array_t &list, uint32_t *idx,
                                                                      uint32_t *head_ts) {
  DynArrLLI_t *const lli = list.lli;
  if (!policy_wants_reuse(list)) return nullptr;
  const uint32_t head = get32(lli, &DynArrLLI_t::inact_head);
  void *const slot_ptr = list.slot(head);
  if (slot_ptr == nullptr) return nullptr;
  *head_ts = get32(list.bw(slot_ptr), &node_bw::ts);
  // The age limit comes from `critical`, whichever set passed.
  const uint32_t min_age = lli->mem_pressure_conf.critical.min_days_since_inactive;
  if (tslb_validate_days_since_node_inact(*head_ts, static_cast<int>(min_age)) == 0) return nullptr;

  if (head == get32(lli, &DynArrLLI_t::inact_tail)) {
    set32(lli, &DynArrLLI_t::inact_tail, TSLB_DA_NIL_IDX);
    set32(lli, &DynArrLLI_t::inact_head, TSLB_DA_NIL_IDX);
  } else {
    const uint32_t next = get32(fw_of(slot_ptr), &node_fw::next);
    set32(lli, &DynArrLLI_t::inact_head, next);
    lists_relink_prev(list, next, TSLB_DA_NIL_IDX);
  }
  set32(lli, &DynArrLLI_t::n_inact, get32(lli, &DynArrLLI_t::n_inact) - 1);
  *idx = head;
  return slot_ptr;
}

// Both values are seconds of the library's clock, in spite of the name. The result depends on single precision.
int tslb_validate_days_since_node_inact(time_t node_ts, int days_since_node_for_reuse) {
  const float time_duration = static_cast<float>(difftime(tslb_get_time(nullptr), node_ts));
  const int32_t seconds = time_duration >= 0x1p31f    ? INT32_MAX
                          : time_duration <= -0x1p31f ? INT32_MIN
                                                      : static_cast<int32_t>(time_duration);
  return days_since_node_for_reuse <= seconds ? 1 : 0;
}

void tslb_da_register_reuse_policy(dynarr_t *handle_dynarr, tsdb_mem_pressure_config_t *mvt_reuse_policy) {
  if (mvt_reuse_policy == nullptr) return;
  if (!has_inactive_list(handle_dynarr)) {
    fprintf(stderr,
            "%s:%d:%s: Warrning: Trying to set reuse policy with dynamic array which do not have inactive linked "
            "list. DAInfo: %s",
            TSLB_FILE_LINE_FUNC, tslb_print_poolhdr(handle_dynarr));
    return;
  }
  lli_of(handle_dynarr)->mem_pressure_conf = *mvt_reuse_policy;
  if (redo_is_on_by_name(handle_dynarr)) redo_header(handle_dynarr);
}

// ---- Allocation ---------------------------------------------------------------------------------------------------

// Status last: a reader that sees the slot active also sees its links.
static inline void write_nodes(const list_array_t &list, void *slot_ptr, uint32_t now) {
  if (list.has_inactive_list()) {
    node_bw *const bw = list.bw(slot_ptr);
    set32(bw, &node_bw::prev, TSLB_DA_NIL_IDX);
    set32(bw, &node_bw::ts, now);
  }
  set32(fw_of(slot_ptr), &node_fw::next, TSLB_DA_NIL_IDX);
  set_status(slot_ptr, TSLB_DA_SLOT_ACTIVE);
}

// Result of an allocation, with the slot's previous state.
struct allocation_t {
  void *slot_ptr;  // null: the array is full or memory was refused
  uint32_t idx;
  uint32_t last_ts;
  uint8_t last_status;
};

// Other threads read the first two words of a payload without the lock: the gatekeeper word and a memory slot's
// counters. Each word changes in one store. The other bytes have no concurrent reader.
static inline void clear_payload(void *payload, uint32_t record_size) {
  if (__builtin_expect(record_size >= 8, 1)) {
    __atomic_store_n(static_cast<uint64_t *>(payload), 0, __ATOMIC_RELAXED);
    memset(static_cast<char *>(payload) + 8, 0, record_size - 8);
  } else {
    if (record_size >= 4) __atomic_store_n(static_cast<uint32_t *>(payload), 0, __ATOMIC_RELAXED);
    memset(static_cast<char *>(payload) + (record_size & 4), 0, record_size & 3);
  }
}

// Takes a free slot, else an inactive slot that the policy allows, else a new id. Does not change the payload.
__attribute__((always_inline)) static inline void choose_slot(const list_array_t &list, uint32_t now, bool may_reuse,
                                                              allocation_t *taken) {
  *taken = {nullptr, TSLB_DA_NIL_IDX, now, TSLB_DA_SLOT_FREE};
  taken->slot_ptr = take_free_head(list, &taken->idx);
  if (taken->slot_ptr != nullptr) return;
  if (may_reuse && list.lli->mem_pressure_conf.mvt_reuse_policy_use != 0) {
    taken->slot_ptr = take_inactive_head(list, &taken->idx, &taken->last_ts);
    taken->last_status = TSLB_DA_SLOT_INACTIVE;
    if (taken->slot_ptr != nullptr) return;
  }
  const int32_t id = issue_id(list.hdr, &taken->slot_ptr, [&](uint32_t issued) { return list.issued_slot(issued); });
  taken->idx = static_cast<uint32_t>(id);
  taken->last_status = TSLB_DA_SLOT_UNSET;
}

// Takes a slot of an array with lists and writes its nodes. Copies the payload of a used slot to `last_value` if that
// is not null. The caller holds the lock.
__attribute__((always_inline)) static inline allocation_t take_slot(dynarr_t *array, uint32_t now, bool may_reuse,
                                                                    void *last_value) {
  const list_array_t list = list_array_of(array);
  allocation_t taken;
  choose_slot(list, now, may_reuse, &taken);
  if (taken.slot_ptr == nullptr) return taken;
  if (taken.last_status != TSLB_DA_SLOT_UNSET) {
    const uint32_t record_size = list.hdr->record_size;
    if (last_value != nullptr) memcpy(last_value, taken.slot_ptr, record_size);
    clear_payload(taken.slot_ptr, record_size);
  }
  write_nodes(list, taken.slot_ptr, now);
  return taken;
}

// Inlined once per use of the lock; see docs/performance.md, "Slot taken".
enum lock_use_t { CALLER_HOLDS_LOCK, TAKES_LOCK };
__attribute__((always_inline)) static inline void *take_and_log(dynarr_t *array, uint32_t *new_idx,
                                                                lock_use_t lock_use) {
  const uint32_t now = static_cast<uint32_t>(tslb_get_time(nullptr));
  if (lock_use == TAKES_LOCK) lock_array(array);
  const allocation_t taken = take_slot(array, now, true, nullptr);
  if (lock_use == TAKES_LOCK) unlock_array(array);
  if (taken.slot_ptr != nullptr) {
    if (redo_is_on_by_name(array)) {
      redo_header(array);
      redo_nodes(array, taken.idx, taken.slot_ptr);
    }
    set_gatekeeper(taken.slot_ptr);
    TSLB_PROBE_SLOT_TAKEN(array, taken.idx, taken.slot_ptr);
  }
  *new_idx = taken.idx;
  return taken.slot_ptr;
}

void *lists_take(dynarr_t *array, uint32_t *new_idx) {
  return take_and_log(array, new_idx, TAKES_LOCK);
}
__attribute__((noinline)) static void *take_under_lock(dynarr_t *array, uint32_t *new_idx) {
  return take_and_log(array, new_idx, CALLER_HOLDS_LOCK);
}
__attribute__((noinline)) static void *take_plain(dynarr_t *array, uint32_t *new_idx) {
  return take_plain_slot(array, new_idx);
}

void *tslb_da_get_newptr(dynarr_t *handle_dynarr, uint32_t *new_idx) {
  return handle_dynarr != nullptr ? tslb_da_get_newptr_ex(handle_dynarr, new_idx, 1) : nullptr;
}

void *tslb_da_get_newptr_ex(dynarr_t *handle_dynarr, uint32_t *new_idx, uint8_t lock_off) {
  if (!has_lists(handle_dynarr)) return take_plain(handle_dynarr, new_idx);
  return lock_off != 0 ? lists_take(handle_dynarr, new_idx) : take_under_lock(handle_dynarr, new_idx);
}

void *tslb_da_get_newptr_inll(dynarr_t *handle_dynarr, uint32_t *new_idx, uint32_t *slot_last_ts,
                              uint8_t *slot_last_status) {
  return tslb_da_get_newptr_inll_ex(handle_dynarr, new_idx, slot_last_ts, slot_last_status, nullptr);
}

void *tslb_da_get_newptr_inll_ex(dynarr_t *handle_dynarr, uint32_t *new_idx, uint32_t *slot_last_ts,
                                 uint8_t *slot_last_status, void *last_slot_val) {
  const uint32_t now = static_cast<uint32_t>(tslb_get_time(nullptr));
  allocation_t taken = {nullptr, TSLB_DA_NIL_IDX, now, TSLB_DA_SLOT_UNSET};
  if (!has_lists(handle_dynarr)) {
    taken.idx = static_cast<uint32_t>(new_record_id(handle_dynarr, &taken.slot_ptr, handle_dynarr->daflag));
  } else {
    lock_array(handle_dynarr);
    const bool may_reuse = __atomic_load_n(&lib_config.tslb_mvt_reuse_enabled, __ATOMIC_RELAXED) != 0;
    taken = take_slot(handle_dynarr, now, may_reuse, last_slot_val);
    unlock_array(handle_dynarr);
  }
  if (taken.slot_ptr != nullptr) {
    set_gatekeeper(taken.slot_ptr);
    TSLB_PROBE_SLOT_TAKEN(handle_dynarr, taken.idx, taken.slot_ptr);
  }
  *new_idx = taken.idx;
  *slot_last_ts = taken.last_ts;
  *slot_last_status = taken.last_status;
  return taken.slot_ptr;
}

uint32_t tslb_da_get_range(dynarr_t *handle_dynarr, uint32_t num_entries) {
  uint32_t start_idx = TSLB_DA_NIL_IDX;
  lock_array(handle_dynarr);
  for (uint32_t i = 0; i < num_entries; ++i) {
    uint32_t idx;
    if (tslb_da_get_newptr_ex(handle_dynarr, &idx, 0) == nullptr) {
      start_idx = TSLB_DA_NIL_IDX;
      break;
    }
    if (start_idx == TSLB_DA_NIL_IDX) start_idx = idx;
  }
  unlock_array(handle_dynarr);
  return start_idx;
}

unsigned int tslb_da_get_newidx(dynarr_t *handle_dynarr) {
  return static_cast<unsigned int>(get_dyn_arr_new_record_id(handle_dynarr));
}
