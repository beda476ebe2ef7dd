// What a pool's header and its slots say about the chunks in them.
#include <algorithm>
#include <cstddef>

#include "analysis_internal.h"

namespace inspect {

bool analysis_t::pool_sizes_fit() {
  const location_t mslot_sz_at = {0, sizeof(DynHdr_t) + offsetof(DynMemHdr_t, mslot_sz)};
  const bool fits = uint64_t{pool_hdr_.mslot_sz} + sizeof(MemSlot_t) == geometry().record_bytes;
  if (!fits)
    fault(mslot_sz_at, "mslot_sz {} does not go with record_size {}", pool_hdr_.mslot_sz, geometry().record_bytes);
  else if (pool_hdr_.mslot_sz % sizeof(uint32_t) != 0)
    fault(mslot_sz_at, "mslot_sz {} is no multiple of {}", pool_hdr_.mslot_sz, sizeof(uint32_t));
  // Slots without room for their two counters hold nothing that could be told.
  return geometry().record_bytes >= sizeof(MemSlot_t);
}

void analysis_t::audit_cursor() {
  const geometry_t &g = geometry();
  const uint32_t idx = tslb_stored_cursor_slot(pool_hdr_.cur_slot_addr),
                 off = tslb_stored_cursor_off(pool_hdr_.cur_slot_addr);
  const location_t at = {0, sizeof(DynHdr_t) + offsetof(DynMemHdr_t, cur_slot_addr)};
  const bool has_slot = idx != TSLB_DA_NIL_IDX && idx < g.n_used;
  if (idx != TSLB_DA_NIL_IDX && !has_slot) fault(at, "cur_slot_addr names slot {} of {}", idx, g.n_used);
  if (off > pool_hdr_.mslot_sz)
    fault({0, at.offset + offsetof(MemSlotAddr_t, byte_off)}, "cur_slot_addr stands at byte {} of a slot of {}", off,
          pool_hdr_.mslot_sz);
  else if (has_slot && idx == g.n_used - 1)
    cut_bytes_ = off + g.shift + sizeof(MemSlot_t);
}

void analysis_t::audit_pool() {
  pool_t &pool = report_.pool.emplace();
  pool.kind = is_bitvector() ? "bit-vector" : "big-buffer";
  pool.slot_capacity = std::min<uint64_t>(pool_hdr_.mslot_sz, geometry().record_bytes - sizeof(MemSlot_t));
  for (uint64_t idx = 0; idx < geometry().n_present; ++idx)
    pool.slots.push_back(read_pool_slot(static_cast<uint32_t>(idx)));
  sum_pool();
}

pool_slot_t analysis_t::read_pool_slot(uint32_t idx) {
  const uint32_t status = report_.has_nodes ? report_.slots[idx].status : TSLB_DA_SLOT_ACTIVE;
  const bool is_current = idx == tslb_stored_cursor_slot(pool_hdr_.cur_slot_addr);
  if (is_current && status != TSLB_DA_SLOT_ACTIVE)
    fault(slot_at(idx), "status {} of the current slot, {}", status, idx);
  // What a freed slot's counters say has been written over.
  if (status == TSLB_DA_SLOT_FREE) return {pool_slot_state_t::FREE, 0, 0, 0};
  if (status == TSLB_DA_SLOT_UNSET) return {pool_slot_state_t::UNSET, 0, 0, 0};
  location_t at = slot_at(idx);
  at.offset += geometry().shift;
  MemSlot_t stored = read_value<MemSlot_t>(at);
  pool_slot_t slot = {is_current ? pool_slot_state_t::CURRENT : pool_slot_state_t::FILLED, stored.bytes_used,
                      stored.bytes_del, 0};
  audit_pool_slot(idx, slot);
  const uint64_t reached =
      is_current ? std::max(tslb_stored_cursor_off(pool_hdr_.cur_slot_addr), slot.used) : slot.used;
  const uint64_t capacity = report_.pool->slot_capacity;
  slot.tail = reached < capacity ? static_cast<uint32_t>(capacity - reached) : 0;
  return slot;
}

void analysis_t::audit_pool_slot(uint32_t idx, const pool_slot_t &slot) {
  location_t at = slot_at(idx);
  at.offset += geometry().shift;
  const location_t deleted_at = {at.block_num, at.offset + offsetof(MemSlot_t, bytes_del)};
  if (slot.deleted > slot.used)
    fault(deleted_at, "bytes_del {} of slot {}, where bytes_used is {}", slot.deleted, idx, slot.used);
  // A ring's counters go on where its slots begin anew.
  const uint64_t capacity = report_.pool->slot_capacity;
  if (slot.used > capacity && !is_ring_shaped())
    fault(at, "bytes_used {} of slot {}, which has {}", slot.used, idx, capacity);
  else if (slot.state == pool_slot_state_t::CURRENT && !is_ring_shaped() &&
           slot.used != tslb_stored_cursor_off(pool_hdr_.cur_slot_addr))
    remark(at, "bytes_used {} of the current slot, {}, where the cursor has reached {}", slot.used, idx,
           tslb_stored_cursor_off(pool_hdr_.cur_slot_addr));
}

void analysis_t::sum_pool() {
  pool_t &pool = *report_.pool;
  for (const pool_slot_t &slot : pool.slots) {
    pool.n_filled += slot.state == pool_slot_state_t::FILLED ? 1 : 0;
    pool.n_free += slot.state == pool_slot_state_t::FREE ? 1 : 0;
    pool.n_unset += slot.state == pool_slot_state_t::UNSET ? 1 : 0;
    pool.used += slot.used;
    pool.deleted += slot.deleted;
    (slot.state == pool_slot_state_t::CURRENT ? pool.tail_open : pool.tail_lost) += slot.tail;
  }
}

}  // namespace inspect
