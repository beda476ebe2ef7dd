#include "store/chunk_pool.h"

#include <fmt/format.h>

#include "store/store_internal.h"

namespace metricdb {

char *ChunkPool::data(const maddr_t &address) const {
  return static_cast<char *>(tslb_dynmem_get_maddr2ptr(array(), address));
}

uint32_t ChunkPool::n_free_slots() const {
  return lists_of(array())->n_free;
}

// Calls visit(index, slot) for the memory slots that are not free.
template <class Visit>
void ChunkPool::for_each_slot(Visit visit) const {
  for (uint32_t index = 0; index < tslb_da_get_size(array()); ++index) {
    const auto *const slot = static_cast<const MemSlot_t *>(tslb_da_get_ptr(array(), index));
    if (slot != nullptr && status_of(slot) == TSLB_DA_SLOT_ACTIVE) visit(index, *slot);
  }
}

PoolBytes ChunkPool::bytes() const {
  PoolBytes bytes;
  bytes.max = uint64_t{max_slots_} * header_of(array())->mslot_sz;
  for_each_slot([&bytes](uint32_t, const MemSlot_t &slot) {
    bytes.used += slot.bytes_used;
    bytes.deleted += slot.bytes_del;
  });
  return bytes;
}

std::vector<bool> ChunkPool::slots_with_deleted(uint32_t min_percent) const {
  std::vector<bool> found(tslb_da_get_size(array()));
  const uint32_t current = tslb_stored_cursor_slot(header_of(array())->cur_slot_addr);
  for_each_slot([&](uint32_t index, const MemSlot_t &slot) {
    found[index] = index != current && uint64_t{slot.bytes_del} * 100 >= uint64_t{slot.bytes_used} * min_percent;
  });
  return found;
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
  if (batch_ != nullptr) {
    tslb_error_t error;
    void *const data = tslb_batch_take_chunk(batch_, number_, static_cast<uint32_t>(bytes), referrer, &address, &error);
    if (data == nullptr) throw StoreFull(error.text);
    batch_bytes_ += bytes;
    return static_cast<char *>(data);
  }
  char *const chunk = static_cast<char *>(tslb_dynmem_get_mchunk(array(), &address, static_cast<int>(bytes), referrer));
  if (chunk == nullptr) throw StoreFull(fmt::format("the pool of {} refused {} bytes", name_, bytes));
  return chunk + TSLB_COMPAT_BYTES;
}

uint32_t ChunkPool::remove(const maddr_t &address) {
  const uint32_t free_before = n_free_slots();
  n_deleted_ += compat_of(data(address))->mchunk_len + TSLB_COMPAT_BYTES;
  if (batch_ != nullptr)
    tslb_batch_delete_chunk(batch_, number_, address);
  else
    tslb_dynmem_del_mchunk(array(), address);
  return n_free_slots() - free_before;
}

uint32_t ChunkPool::sweep(PoolSweep &found) {
  const uint32_t free_before = n_free_slots();
  tslb_dynmem_update_free_list(array(), &found.total_bytes, &found.used_bytes, &found.deleted_bytes);
  found.free_after = n_free_slots();
  return found.free_after - free_before;
}

void ChunkPool::log(const maddr_t &address, const char *from, size_t bytes) {
  if (batch_ == nullptr) return;
  const uint32_t slot_idx = place_of(array(), address).slot_idx;
  const auto *const slot = static_cast<const char *>(tslb_da_get_ptr(array(), slot_idx));
  tslb_batch_log_bytes(batch_, number_, slot_idx, static_cast<uint32_t>(from - slot), static_cast<uint32_t>(bytes));
}

void ChunkPool::log_data(const maddr_t &address, size_t bytes) {
  if (batch_ != nullptr) tslb_batch_log_chunk(batch_, number_, address, 0, static_cast<uint32_t>(bytes));
}

}  // namespace metricdb
