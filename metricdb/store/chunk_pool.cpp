#include "store/chunk_pool.h"

#include <fmt/format.h>

#include <algorithm>

#include "store/store_internal.h"

namespace metricdb {

char *ChunkPool::data(const maddr_t &address) const {
  return static_cast<char *>(tslb_dynmem_get_maddr2ptr(array(), address));
}

uint32_t ChunkPool::n_free_slots() const {
  return lists_of(array())->n_free;
}

PoolBytes ChunkPool::bytes() const {
  PoolBytes bytes;
  for (uint32_t index = 0; index < tslb_da_get_size(array()); ++index) {
    const auto *const slot = static_cast<const MemSlot_t *>(tslb_da_get_ptr(array(), index));
    if (slot == nullptr || status_of(slot) != TSLB_DA_SLOT_ACTIVE) continue;
    bytes.used += slot->bytes_used;
    bytes.deleted += slot->bytes_del;
  }
  return bytes;
}

// The library stops the process if a pool needs a slot beyond its addresses, so such a chunk is refused before. A chunk
// that does not fit the current slot takes a slot from the free list, and a new slot only if that list is empty.
char *ChunkPool::take(size_t bytes, const srcaddr_t &referrer, maddr_t &address) {
  const DynMemHdr_t *const header = header_of(array());
  const size_t total = bytes + TSLB_COMPAT_BYTES;
  if (total > header->mslot_sz)
    throw StoreFull(fmt::format("{} bytes of {} do not fit a memory slot of {}", total, name_, header->mslot_sz));
  const uint64_t cursor = header->cur_slot_addr;
  const bool fits_current =
      tslb_stored_cursor_slot(cursor) != TSLB_DA_NIL_IDX && header->mslot_sz - tslb_stored_cursor_off(cursor) >= total;
  if (!fits_current && n_free_slots() == 0 && tslb_da_get_size(array()) >= max_slots_)
    throw StoreFull(fmt::format("no room for more {}: all {} memory slots of {} bytes are full", name_, max_slots_,
                                header->mslot_sz));
  char *const chunk = static_cast<char *>(tslb_dynmem_get_mchunk(array(), &address, static_cast<int>(bytes), referrer));
  if (chunk == nullptr) throw StoreFull(fmt::format("the pool of {} refused {} bytes", name_, bytes));
  return chunk + TSLB_COMPAT_BYTES;
}

uint32_t ChunkPool::remove(const maddr_t &address) {
  const char *const chunk = data(address);
  const uint32_t free_before = n_free_slots();
  tslb_dynmem_del_mchunk(array(), address);
  log(address, chunk - TSLB_COMPAT_BYTES, TSLB_COMPAT_BYTES);
  return n_free_slots() - free_before;
}

uint32_t ChunkPool::sweep(PoolSweep &found) {
  const uint32_t free_before = n_free_slots();
  tslb_dynmem_update_free_list(array(), &found.total_bytes, &found.used_bytes, &found.deleted_bytes);
  found.free_after = n_free_slots();
  return found.free_after - free_before;
}

void ChunkPool::begin_log() {
  is_logging_ = true;
  changed_slots_.clear();
}

void ChunkPool::log(const maddr_t &address, const char *from, size_t bytes) {
  if (!is_logging_) return;
  const uint32_t slot_idx = place_of(array(), address).slot_idx;
  const auto *const slot = static_cast<const char *>(tslb_da_get_ptr(array(), slot_idx));
  tslb_redo_log_da_field(array(), slot_idx, NO_TRANSACTION, SLOT_RECORD, static_cast<int>(from - slot),
                         static_cast<int>(bytes));
  if (changed_slots_.empty() || changed_slots_.back() != slot_idx) changed_slots_.push_back(slot_idx);
}

void ChunkPool::log_new(const maddr_t &address, size_t bytes) {
  if (is_logging_) log(address, data(address) - TSLB_COMPAT_BYTES, TSLB_COMPAT_BYTES + bytes);
}

void ChunkPool::log_counters() {
  if (changed_slots_.empty()) return;
  tslb_redo_log_da_hdr(array(), 0, NO_TRANSACTION, SLOT_RECORD);
  std::sort(changed_slots_.begin(), changed_slots_.end());
  changed_slots_.erase(std::unique(changed_slots_.begin(), changed_slots_.end()), changed_slots_.end());
  for (const uint32_t slot_idx : changed_slots_)
    tslb_redo_log_da_field(array(), slot_idx, NO_TRANSACTION, SLOT_RECORD, 0, sizeof(MemSlot_t));
  changed_slots_.clear();
}

}  // namespace metricdb
