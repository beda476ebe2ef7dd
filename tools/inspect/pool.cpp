// Counters of a pool's slots and their sums.
#include <algorithm>
#include <cstddef>

#include "analysis_internal.h"
#include "heat_map.h"

namespace inspect {

slot_source_t::counters_t analysis_t::counters_of(uint32_t idx) {
  location_t at = slot_at(idx);
  at.offset += geometry().shift;
  static_assert(sizeof(counters_t) == sizeof(MemSlot_t));
  return read_value<counters_t>(at);
}

pool_slot_t analysis_t::pool_slot(uint32_t idx) {
  const uint32_t status = report_.has_nodes ? status_of(idx) : TSLB_DA_SLOT_ACTIVE;
  // Freeing a slot overwrites its counters.
  if (status == TSLB_DA_SLOT_FREE) return {pool_slot_state_t::FREE, 0, 0, 0};
  if (status == TSLB_DA_SLOT_UNSET) return {pool_slot_state_t::UNSET, 0, 0, 0};
  const bool is_current = idx == rules_.current_slot();
  const counters_t stored = counters_of(idx);
  const uint32_t reached = is_current ? std::max(rules_.cursor_off(), stored.used) : stored.used;
  const uint32_t capacity = rules_.slot_capacity();
  return {is_current ? pool_slot_state_t::CURRENT : pool_slot_state_t::FILLED, stored.used, stored.deleted,
          reached < capacity ? capacity - reached : 0};
}

void analysis_t::sum_pool() {
  pool_t &pool = report_.pool.emplace();
  pool.kind = (rules_.pool_hdr().flag & MPOOL_FLAG_BV) != 0 ? "bit-vector" : "big-buffer";
  pool.slot_capacity = rules_.slot_capacity();
  pool.n_slots = n_present_;
  pool.current = rules_.current_slot();
  for (uint64_t idx = 0; idx < n_present_; ++idx) {
    const pool_slot_t slot = pool_slot(static_cast<uint32_t>(idx));
    if (idx < MAX_POOL_ROWS) pool.first_slots.push_back(slot);
    add_to_sums(static_cast<uint32_t>(idx), slot);
  }
}

void analysis_t::add_to_sums(uint32_t idx, const pool_slot_t &slot) {
  pool_t &pool = *report_.pool;
  pool.n_filled += slot.state == pool_slot_state_t::FILLED ? 1 : 0;
  pool.n_free += slot.state == pool_slot_state_t::FREE ? 1 : 0;
  pool.n_unset += slot.state == pool_slot_state_t::UNSET ? 1 : 0;
  pool.used += slot.used;
  pool.deleted += slot.deleted;
  (slot.state == pool_slot_state_t::CURRENT ? pool.tail_open : pool.tail_lost) += slot.tail;
  count_pool_slot(idx, slot, pool.slot_capacity, &report_.page_map);
}

}  // namespace inspect
