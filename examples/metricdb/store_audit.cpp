// A store from arrays that somebody brings: nothing is used before it was looked at.
//
// The arrays themselves are sound by then (host/array_loader.h says what that means). What is examined here is what this
// store put into them:
//   shapes      each array is one that this store would have made.
//   chunks      a memory slot is covered by its chunks, back to back, as far as it is used; what is marked deleted adds
//               up to the slot's count; the cursor stands behind the last chunk of its slot.
//   catalogue   each slot is a series or free, as its status says.
//   references  each address of a series names the beginning of a chunk that is not deleted, of a size that fits, whose
//               header names that very reference. Each chunk is referred to once: so no chain runs in a ring or meets
//               another one, and no chunk is lost.
//   figures     counts of chunks and points, keys without a double, no time beyond data time.
#include <fmt/format.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "store.h"
#include "store_internal.h"

namespace metricdb {
namespace {

using Where = StoreDamaged::Where;

struct Place {
  uint32_t slot;
  uint32_t offset;
};

Place place_of(const maddr_t &address, bool is_bit_vector) {
  if (!is_bit_vector) return {address.mslot_idx, address.mchunk_idx};
  maddrBV_t bits;
  std::memcpy(&bits, &address, sizeof bits);
  return {bits.mslotgroup_idx * 256u + bits.mslot_idx, bits.mchunk_idx * 8u};
}

void expect_shape(Where where, DynArrHandle_t *array, uint8_t daflag, uint16_t user_header_bytes,
                  uint32_t record_bytes) {
  const auto expect = [where](const char *what, uint32_t found, uint32_t expected) {
    if (found != expected)
      throw StoreDamaged(where, StoreDamaged::NO_SLOT, fmt::format("{} {}, which is not {}", what, found, expected));
  };
  DynHdr_t header;
  std::memcpy(&header, tslb_da_get_dynhdr(array), sizeof header);
  expect("record version", header.rec_version, RECORD_VERSION);
  expect("list flags", array->daflag, daflag);
  expect("bytes of user header", header.hdr_size, user_header_bytes);
  expect("bytes of a record", tslb_da_get_record_size(array), record_bytes);
}

// The chunks of a pool that are not deleted, by slot and offset, and which of them somebody has referred to.
class ChunkMap {
 public:
  ChunkMap(dynmem_t *pool, Where where, uint8_t kind_flag, uint32_t most_slots, int wanted_slot_bytes)
      : pool_(pool), where_(where), is_bit_vector_(kind_flag != 0) {
    const uint32_t slot_bytes = (static_cast<uint32_t>(wanted_slot_bytes) + 3) / 4 * 4;
    expect_shape(where, pool, TSLB_DA_DAFLAG_LL, sizeof(DynMemHdr_t),
                 slot_bytes + static_cast<uint32_t>(sizeof(MemSlot_t)));
    const DynMemHdr_t *const header = header_of(pool);
    // Whether growth is logged follows from where the memory lies, and that can have changed.
    const auto flag = static_cast<uint8_t>(header->flag & ~MPOOL_FLAG_PERSIST);
    if (flag != (MPOOL_FLAG_COMPAT | kind_flag)) fail(fmt::format("a pool with flags 0x{:02x}", flag));
    if (header->max_slots != 0) fail(fmt::format("a pool limited to {} slots", short{header->max_slots}));
    const uint32_t n_slots = tslb_da_get_size(pool);
    if (n_slots > most_slots) fail(fmt::format("{} memory slots, and addresses name {}", n_slots, most_slots));
    slots_.resize(n_slots);
    const MemSlotAddr_t cursor = cursor_of(pool);
    if (cursor.mslot_idx == NO_SLOT && n_slots != 0) fail("no slot is current, and some are in use");
    for (uint32_t slot = 0; slot < n_slots; ++slot) read_slot(slot, cursor);
  }

  // The data of the chunk at this address, and its length in bytes. `from` says who refers to it.
  template <class Fail>
  char *claim(const maddr_t &address, const srcaddr_t &from, uint32_t &bytes, Fail fail_reference) {
    const Place place = place_of(address, is_bit_vector_);
    const auto refuse = [&](const char *why) {
      fail_reference(fmt::format("names slot {}, byte {}, {}", place.slot, place.offset, why));
    };
    if (place.slot >= slots_.size()) refuse("and there is no such slot");
    Slot &slot = slots_[place.slot];
    const auto found = std::lower_bound(slot.offsets.begin(), slot.offsets.end(), place.offset);
    if (found == slot.offsets.end() || *found != place.offset) refuse("where no chunk in use begins");
    const auto index = static_cast<size_t>(found - slot.offsets.begin());
    if (slot.is_claimed[index]) refuse("which was referred to before");
    slot.is_claimed[index] = true;
    compat_t header;
    char *const chunk = memory(place.slot)->mslot + place.offset;
    std::memcpy(&header, chunk, sizeof header);
    if (std::memcmp(&header.srcaddr, &from, sizeof from) != 0) refuse("whose header names another reference");
    bytes = header.mchunk_len;
    return chunk + sizeof header;
  }

  void expect_all_claimed() const {
    for (uint32_t slot = 0; slot < slots_.size(); ++slot) {
      const auto lost = std::find(slots_[slot].is_claimed.begin(), slots_[slot].is_claimed.end(), false);
      if (lost != slots_[slot].is_claimed.end())
        fail(fmt::format("nothing refers to the chunk at byte {}",
                         slots_[slot].offsets[static_cast<size_t>(lost - slots_[slot].is_claimed.begin())]),
             slot);
    }
  }

 private:
  struct Slot {
    std::vector<uint32_t> offsets;  // ascending
    std::vector<bool> is_claimed;
  };

  [[noreturn]] void fail(const std::string &what, uint32_t slot = StoreDamaged::NO_SLOT) const {
    throw StoreDamaged(where_, slot, slot == StoreDamaged::NO_SLOT ? what : fmt::format("slot {}: {}", slot, what));
  }

  MemSlot_t *memory(uint32_t slot) const { return static_cast<MemSlot_t *>(tslb_da_get_ptr(pool_, slot)); }

  void read_slot(uint32_t slot, const MemSlotAddr_t &cursor) {
    const MemSlot_t *const mem = memory(slot);
    const uint32_t status = status_of(mem);
    if (status == TSLB_DA_SLOT_FREE && slot != cursor.mslot_idx) return;
    if (status != TSLB_DA_SLOT_ACTIVE) fail(fmt::format("status {}", status), slot);
    if (mem->bytes_used > header_of(pool_)->mslot_sz)
      fail(fmt::format("{} bytes in use of {}", mem->bytes_used, header_of(pool_)->mslot_sz), slot);
    if (slot == cursor.mslot_idx && mem->bytes_used != cursor.byte_off)
      fail(fmt::format("{} bytes in use, and the cursor stands at {}", mem->bytes_used, cursor.byte_off), slot);
    uint64_t deleted = 0;
    for (uint32_t offset = 0; offset < mem->bytes_used;) {
      compat_t header;
      const uint32_t left = mem->bytes_used - offset;
      if (left >= sizeof header) std::memcpy(&header, mem->mslot + offset, sizeof header);
      if (left < sizeof header || left - sizeof header < header.mchunk_len)
        fail(fmt::format("the chunk at byte {} goes beyond the bytes in use", offset), slot);
      const uint32_t bytes = static_cast<uint32_t>(sizeof header) + header.mchunk_len;
      if ((header.flag & MCHUNK_FLAG_DELETED) != 0)
        deleted += bytes;
      else
        slots_[slot].offsets.push_back(offset);
      offset += bytes;
    }
    slots_[slot].is_claimed.resize(slots_[slot].offsets.size());
    if (deleted != mem->bytes_del)
      fail(fmt::format("{} bytes are deleted, the slot counts {}", deleted, mem->bytes_del), slot);
  }

  dynmem_t *const pool_;
  const Where where_;
  const bool is_bit_vector_;
  std::vector<Slot> slots_;
};

// One series: what its record refers to.
class SeriesAudit {
 public:
  SeriesAudit(uint32_t series, const SeriesRecord &record, int64_t data_time_ns)
      : series_(series), record_(record), data_time_ns_(data_time_ns) {}

  std::string_view take_key(ChunkMap &keys) const {
    uint32_t bytes;
    const char *const text = keys.claim(record_.key, referrer_of(CATALOGUE_TABLE, series_, offsetof(SeriesRecord, key)),
                                        bytes, [this](const std::string &what) { fail("its key " + what); });
    if (bytes == 0 || text[bytes - 1] != '\0') fail("its key does not end with a zero");
    return {text, bytes - 1};
  }

  void take_points(ChunkMap &points) const {
    if (record_.reserved != 0) fail(fmt::format("reserved word {}", uint32_t{record_.reserved}));
    if (record_.written_at_ns > data_time_ns_) fail("it was written behind data time");
    maddr_t address = record_.first_chunk;
    srcaddr_t from = referrer_of(CATALOGUE_TABLE, series_, offsetof(SeriesRecord, first_chunk));
    const PointChunk *previous = nullptr;
    uint64_t n_points = 0;
    // The claims bound it: a chunk is taken once.
    for (uint32_t number = 0; number < record_.n_chunks; ++number) {
      const auto fail_chunk = [this, number](const std::string &what) {
        fail(fmt::format("chunk {} {}", number, what));
      };
      uint32_t bytes;
      const auto *const chunk = reinterpret_cast<const PointChunk *>(points.claim(address, from, bytes, fail_chunk));
      const bool is_last = number + 1 == record_.n_chunks;
      if (bytes < sizeof(PointChunk) || bytes != static_cast<uint32_t>(bytes_of(chunk->capacity)))
        fail_chunk(fmt::format("of {} bytes has not the size of its capacity", bytes));
      const bool fits_chain = previous == nullptr
                                  ? chunk->capacity == 4 || chunk->capacity == 16 || chunk->capacity == 64
                                  : chunk->capacity == capacity_behind(previous);
      if (!fits_chain) fail_chunk(fmt::format("has a capacity of {} points", chunk->capacity));
      if (chunk->count == 0 || chunk->count > chunk->capacity || (!is_last && chunk->count != chunk->capacity))
        fail_chunk(fmt::format("counts {} points of {}", uint16_t{chunk->count}, chunk->capacity));
      if (chunk->flags != (is_last ? 0 : CHUNK_HAS_NEXT))
        fail_chunk(fmt::format("of {} has flags 0x{:02x}", uint32_t{record_.n_chunks}, chunk->flags));
      expect_times(*chunk);
      n_points += chunk->count;
      if (is_last && bits_of(address) != bits_of(record_.last_chunk))
        fail("its last chunk is not the end of its chain");
      from = referrer_of(POINTS_TABLE, bits_of(address), offsetof(PointChunk, next));
      address = chunk->next;
      previous = chunk;
    }
    if (n_points != record_.n_points)
      fail(fmt::format("its chunks hold {} points, its record counts {}", n_points, uint64_t{record_.n_points}));
  }

 private:
  [[noreturn]] void fail(const std::string &what) const {
    throw StoreDamaged(Where::catalogue, series_, fmt::format("series {}: {}", series_, what));
  }

  void expect_times(const PointChunk &chunk) const {
    for (size_t index = 0; index < chunk.count; ++index) {
      Point point;
      std::memcpy(&point, point_at(&chunk, index), sizeof point);
      if (point.ts_ns > data_time_ns_)
        fail(fmt::format("a point at {}, behind data time {}", point.ts_ns, data_time_ns_));
    }
  }

  const uint32_t series_;
  const SeriesRecord record_;
  const int64_t data_time_ns_;
};

// Whether there is a series; status and gatekeeper word must say the same.
bool is_series(const SeriesRecord *record, uint32_t index) {
  const auto fail = [index](const std::string &what) {
    throw StoreDamaged(Where::catalogue, index, fmt::format("slot {}: {}", index, what));
  };
  if (record == nullptr) fail("is missing");
  const uint32_t status = status_of(record);
  const bool is_taken = status == TSLB_DA_SLOT_ACTIVE || status == TSLB_DA_SLOT_INACTIVE;
  // One whose memory was refused has no status, and was never written.
  if (!is_taken && status != TSLB_DA_SLOT_FREE && status != TSLB_DA_SLOT_UNSET) fail(fmt::format("status {}", status));
  const uint32_t expected = is_taken ? SERIES_READY : status == TSLB_DA_SLOT_FREE ? 0xFFFFFFFFu : 0;
  const uint32_t gatekeeper = record->gatekeeper;
  if (gatekeeper != expected) fail(fmt::format("gatekeeper 0x{:x} at status {}", gatekeeper, status));
  return is_taken;
}

}  // namespace

Store::Store(const StoreConfig &config, StoreArrays arrays, const StoreState &state)
    : config_(config),
      catalogue_(std::move(arrays.catalogue)),
      keys_(std::move(arrays.keys)),
      points_(std::move(arrays.points)),
      data_time_ns_(state.data_time_ns),
      n_since_sweep_(state.n_since_sweep),
      forgotten_(state.forgotten) {
  expect_shape(Where::catalogue, catalogue_.get(), TSLB_DA_DAFLAG_INLL, 0, sizeof(SeriesRecord));
  ChunkMap keys(keys_.get(), Where::keys, 0, MOST_KEY_SLOTS, config.key_slot_bytes);
  ChunkMap points(points_.get(), Where::points, MPOOL_FLAG_BV, MOST_POINT_SLOTS, config.point_slot_bytes);
  for (uint32_t index = 0; index < n_slots(); ++index) {
    const SeriesRecord *const record = slot(index);
    if (!is_series(record, index)) continue;
    const SeriesAudit audit(index, *record, data_time_ns_);
    const std::string_view key = audit.take_key(keys);
    if (!series_by_key_.emplace(key, index).second)
      throw StoreDamaged(Where::catalogue, index,
                         fmt::format("series {}: its key \"{}\" is another's too", index, key));
    audit.take_points(points);
    n_points_ += record->n_points;
  }
  keys.expect_all_claimed();
  points.expect_all_claimed();
  if (n_series() != state.n_series || n_points_ != state.n_points)
    throw StoreDamaged(Where::state, StoreDamaged::NO_SLOT,
                       fmt::format("{} series with {} points are told of, the arrays hold {} with {}", state.n_series,
                                   state.n_points, n_series(), n_points_));
  register_reuse_policy();
}

}  // namespace metricdb
