#include "store/chunk_map.h"

namespace metricdb {

void expect_shape(StoreDamaged::Where where, DynArrHandle_t *array, uint8_t daflag, uint8_t record_version,
                  uint16_t user_header_bytes, uint32_t record_bytes) {
  const auto expect = [where](const char *what, uint32_t found, uint32_t expected) {
    if (found != expected)
      throw StoreDamaged(where, StoreDamaged::NO_SLOT, fmt::format("{} {}, expected {}", what, found, expected));
  };
  DynHdr_t header;
  std::memcpy(&header, tslb_da_get_dynhdr(array), sizeof header);
  expect("record version", header.rec_version, record_version);
  expect("list flags", array->daflag, daflag);
  expect("user header size", header.hdr_size, user_header_bytes);
  expect("record size", tslb_da_get_record_size(array), record_bytes);
}

ChunkMap::ChunkMap(dynmem_t *pool, Where where, uint8_t kind_flag, uint32_t max_slots, int configured_slot_bytes)
    : pool_(pool), where_(where) {
  const uint32_t slot_bytes = (static_cast<uint32_t>(configured_slot_bytes) + 3) / 4 * 4;
  expect_shape(where, pool, TSLB_DA_DAFLAG_LL, POOL_RECORD_VERSION, sizeof(DynMemHdr_t),
               slot_bytes + static_cast<uint32_t>(sizeof(MemSlot_t)));
  const DynMemHdr_t *const header = header_of(pool);
  // The persistence flag depends on the memory type, which can have changed.
  const auto flag = static_cast<uint8_t>(header->flag & ~MPOOL_FLAG_PERSIST);
  if (flag != (MPOOL_FLAG_COMPAT | kind_flag)) fail(fmt::format("the pool has flags 0x{:02x}", flag));
  if (header->max_slots != 0) fail(fmt::format("the pool is limited to {} slots", short{header->max_slots}));
  const uint32_t n_slots = tslb_da_get_size(pool);
  if (n_slots > max_slots) fail(fmt::format("{} memory slots; the maximum is {}", n_slots, max_slots));
  slots_.resize(n_slots);
  const uint64_t cursor = header->cur_slot_addr;
  if (tslb_stored_cursor_slot(cursor) == TSLB_DA_NIL_IDX && n_slots != 0) fail("slots are in use, but none is current");
  for (uint32_t slot = 0; slot < n_slots; ++slot) read_slot(slot, cursor);
  if (header->total_mused < used_bytes_)
    fail(fmt::format("{} bytes are in use, but only {} were reserved", used_bytes_, uint64_t{header->total_mused}));
}

void ChunkMap::expect_all_claimed() const {
  for (uint32_t slot = 0; slot < slots_.size(); ++slot)
    for (size_t index = 0; index < slots_[slot].offsets.size(); ++index)
      if (!slots_[slot].is_claimed(index))
        fail(fmt::format("nothing refers to the chunk at byte {}", slots_[slot].offsets[index]), slot);
}

void ChunkMap::fail(const std::string &what, uint32_t slot) const {
  throw StoreDamaged(where_, slot, slot == StoreDamaged::NO_SLOT ? what : fmt::format("slot {}: {}", slot, what));
}

void ChunkMap::read_slot(uint32_t slot, uint64_t cursor) {
  const MemSlot_t *const mem = memory(slot);
  const uint32_t status = status_of(mem);
  const bool is_current = slot == tslb_stored_cursor_slot(cursor);
  if (status == TSLB_DA_SLOT_FREE && !is_current) return;
  if (status != TSLB_DA_SLOT_ACTIVE) fail(fmt::format("status {}", status), slot);
  if (mem->bytes_used > header_of(pool_)->mslot_sz)
    fail(fmt::format("{} bytes in use of {}", mem->bytes_used, header_of(pool_)->mslot_sz), slot);
  if (is_current && mem->bytes_used != tslb_stored_cursor_off(cursor))
    fail(fmt::format("{} bytes in use, but the cursor is at {}", mem->bytes_used, tslb_stored_cursor_off(cursor)),
         slot);
  used_bytes_ += mem->bytes_used;
  uint64_t deleted = 0;
  for (uint32_t offset = 0; offset < mem->bytes_used;) {
    compat_t header;
    const uint32_t left = mem->bytes_used - offset;
    if (left >= sizeof header) std::memcpy(&header, mem->mslot + offset, sizeof header);
    if (left < sizeof header || left - sizeof header < header.mchunk_len)
      fail(fmt::format("the chunk at byte {} exceeds the bytes in use", offset), slot);
    const uint32_t bytes = static_cast<uint32_t>(sizeof header) + header.mchunk_len;
    if ((header.flag & MCHUNK_FLAG_DELETED) != 0)
      deleted += bytes;
    else
      slots_[slot].offsets.push_back(offset);
    offset += bytes;
  }
  slots_[slot].set_size();
  if (deleted != mem->bytes_del)
    fail(fmt::format("{} bytes are deleted, but the slot counts {}", deleted, mem->bytes_del), slot);
}

}  // namespace metricdb
