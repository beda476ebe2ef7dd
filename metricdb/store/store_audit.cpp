// A store from arrays that somebody brings: nothing is used before it was looked at.
//
// The arrays themselves are sound by then (recovery/array_loader.h says what that means). What is examined here is what
// this store put into them:
//   shapes      each array is one that this store would have made.
//   chunks      a memory slot is covered by its chunks, back to back, as far as it is used; what is marked deleted adds
//               up to the slot's count; the cursor stands behind the last chunk of its slot.
//   catalogue   each slot is a series or free, as its status says.
//   references  each address of a series names the beginning of a chunk that is not deleted, of a size that fits, whose
//               header names that very reference. Each chunk is referred to once: so no chain runs in a ring or meets
//               another one, and no chunk is lost.
//   points      an open chunk counts no more than it has room for; a sealed one holds just the points and the span of
//               time that it claims, in bytes that say nothing else.
//   figures     counts of chunks and points, keys without a double, no time beyond data time.
#include <fmt/format.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "store/store.h"
#include "store/store_internal.h"

namespace metricdb {
namespace {

using Where = StoreDamaged::Where;

void expect_shape(Where where, DynArrHandle_t *array, uint8_t daflag, uint8_t record_version,
                  uint16_t user_header_bytes, uint32_t record_bytes) {
  const auto expect = [where](const char *what, uint32_t found, uint32_t expected) {
    if (found != expected)
      throw StoreDamaged(where, StoreDamaged::NO_SLOT, fmt::format("{} {}, which is not {}", what, found, expected));
  };
  DynHdr_t header;
  std::memcpy(&header, tslb_da_get_dynhdr(array), sizeof header);
  expect("record version", header.rec_version, record_version);
  expect("list flags", array->daflag, daflag);
  expect("bytes of user header", header.hdr_size, user_header_bytes);
  expect("bytes of a record", tslb_da_get_record_size(array), record_bytes);
}

// The chunks of a pool that are not deleted, by slot and offset, and which of them somebody has referred to.
class ChunkMap {
 public:
  ChunkMap(dynmem_t *pool, Where where, uint8_t kind_flag, uint32_t most_slots, int wanted_slot_bytes)
      : pool_(pool), where_(where) {
    const uint32_t slot_bytes = (static_cast<uint32_t>(wanted_slot_bytes) + 3) / 4 * 4;
    expect_shape(where, pool, TSLB_DA_DAFLAG_LL, POOL_RECORD_VERSION, sizeof(DynMemHdr_t),
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
    if (header->total_mused < used_bytes_)
      fail(fmt::format("{} bytes were ever reserved, and {} are in use", uint64_t{header->total_mused}, used_bytes_));
  }

  // The data of the chunk at this address, and its length in bytes. `from` says who refers to it.
  template <class Fail>
  char *claim(const maddr_t &address, const srcaddr_t &from, uint32_t &bytes, Fail fail_reference) {
    const ChunkPlace place = place_of(pool_, address);
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
    used_bytes_ += mem->bytes_used;
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
  std::vector<Slot> slots_;
  uint64_t used_bytes_ = 0;  // of all slots that are not free
};

// One series: what its record refers to.
class SeriesAudit {
 public:
  SeriesAudit(uint32_t series, const SeriesRecord &record, int64_t data_time_ns) : series_(series), record_(record) {
    if (!record.is_clean()) fail("bytes without a meaning are not zero");
    if (record.written_at_ns() > data_time_ns || record.newest_ns() > data_time_ns)
      fail("it was written behind data time");
  }

  std::string_view take_key(ChunkMap &keys) const {
    uint32_t bytes;
    const char *const text = keys.claim(record_.key(), referrer_of(CATALOGUE_TABLE, series_, KEY_REFERENCE), bytes,
                                        [this](const std::string &what) { fail("its key " + what); });
    if (bytes == 0 || text[bytes - 1] != '\0') fail("its key does not end with a zero");
    return {text, bytes - 1};
  }

  void take_points(ChunkMap &points) {
    take_sealed(points);
    take_open(points);
    if (n_points_ != record_.n_points())
      fail(fmt::format("its chunks hold {} points, its record counts {}", n_points_, record_.n_points()));
  }

 private:
  [[noreturn]] void fail(const std::string &what) const {
    throw StoreDamaged(Where::catalogue, series_, fmt::format("series {}: {}", series_, what));
  }

  // The claims bound it: a chunk is taken once.
  void take_sealed(ChunkMap &points) {
    maddr_t address = record_.first_sealed();
    srcaddr_t from = referrer_of(CATALOGUE_TABLE, series_, FIRST_SEALED_REFERENCE);
    for (uint32_t number = 0; number < record_.n_sealed(); ++number) {
      const auto fail_chunk = [this, number](const std::string &what) {
        fail(fmt::format("sealed chunk {} {}", number, what));
      };
      uint32_t bytes;
      const auto *const chunk = reinterpret_cast<const SealedChunk *>(points.claim(address, from, bytes, fail_chunk));
      if (bytes < sizeof(SealedChunk) || bytes != sizeof(SealedChunk) + padded(chunk->bytes))
        fail_chunk(fmt::format("of {} bytes has not the size of its points", bytes));
      if (chunk->count != SEALED_POINTS) fail_chunk(fmt::format("holds {} points", uint16_t{chunk->count}));
      const bool is_last = number + 1 == record_.n_sealed();
      if (is_last && bits_of(address) != bits_of(record_.last_sealed()))
        fail("its last sealed chunk is not the end of its chain");
      if (is_last && bits_of(chunk->next) != 0) fail_chunk("is the last and names another one");
      expect_points(*chunk, fail_chunk);
      n_points_ += chunk->count;
      from = referrer_of(POINTS_TABLE, bits_of(address), offsetof(SealedChunk, next));
      address = chunk->next;
    }
  }

  void take_open(ChunkMap &points) {
    const uint8_t flags = record_.flags();
    if (flags != SERIES_READY && flags != (SERIES_READY | SERIES_HAS_OPEN)) fail(fmt::format("flags 0x{:02x}", flags));
    if (flags == SERIES_READY && record_.n_open() + record_.n_sealed() != 0) fail("it has points and no open chunk");
    if (flags == SERIES_READY) return;
    const auto fail_chunk = [this](const std::string &what) { fail("its open chunk " + what); };
    uint32_t bytes;
    const char *const chunk =
        points.claim(record_.open(), referrer_of(CATALOGUE_TABLE, series_, OPEN_REFERENCE), bytes, fail_chunk);
    uint32_t capacity = FIRST_CAPACITY;
    while (capacity < SEALED_POINTS && capacity * sizeof(Point) != bytes) capacity *= CAPACITY_STEP;
    if (capacity * sizeof(Point) != bytes) fail_chunk(fmt::format("of {} bytes has not the size of one", bytes));
    if (record_.n_open() > capacity) fail_chunk(fmt::format("counts {} points of {}", record_.n_open(), capacity));
    for (uint32_t index = 0; index < record_.n_open(); ++index) expect_time(point_at(chunk, index).ts_ns);
    n_points_ += record_.n_open();
  }

  template <class Fail>
  void expect_points(const SealedChunk &chunk, Fail fail_chunk) const {
    SealedPoints points(bytes_of(&chunk), chunk.bytes, chunk.count);
    int64_t oldest_ns = INT64_MAX;
    int64_t newest_ns = INT64_MIN;
    for (Point point; points.next(point);) {
      oldest_ns = std::min(oldest_ns, point.ts_ns);
      newest_ns = std::max(newest_ns, point.ts_ns);
    }
    const char *const end = bytes_of(&chunk) + chunk.bytes;
    const bool is_padded =
        std::all_of(end, bytes_of(&chunk) + padded(chunk.bytes), [](char byte) { return byte == '\0'; });
    if (!points.is_whole() || !is_padded) fail_chunk("cannot be read");
    if (oldest_ns != chunk.oldest_ns || newest_ns != chunk.newest_ns)
      fail_chunk(fmt::format("holds times from {} to {}, not what it claims", oldest_ns, newest_ns));
    expect_time(newest_ns);
  }

  void expect_time(int64_t ts_ns) const {
    if (ts_ns > record_.newest_ns())
      fail(fmt::format("a point at {}, behind its newest at {}", ts_ns, record_.newest_ns()));
  }

  const uint32_t series_;
  const SeriesRecord record_;
  uint64_t n_points_ = 0;
};

// Whether there is a series; status and gatekeeper word must say the same.
bool is_series(const SeriesRecord &record, uint32_t index) {
  const auto fail = [index](const std::string &what) {
    throw StoreDamaged(Where::catalogue, index, fmt::format("slot {}: {}", index, what));
  };
  if (!record) fail("is missing");
  const uint32_t status = status_of(record.at());
  const bool is_taken = status == TSLB_DA_SLOT_ACTIVE || status == TSLB_DA_SLOT_INACTIVE;
  // One whose memory was refused has no status, and was never written.
  if (!is_taken && status != TSLB_DA_SLOT_FREE && status != TSLB_DA_SLOT_UNSET) fail(fmt::format("status {}", status));
  const bool is_ready = (record.flags() & SERIES_READY) != 0;
  if (is_ready != is_taken) fail(fmt::format("flags 0x{:02x} at status {}", record.flags(), status));
  if (status == TSLB_DA_SLOT_FREE && record.gatekeeper() != FREE_GATEKEEPER)
    fail(fmt::format("gatekeeper 0x{:x} in a free slot", record.gatekeeper()));
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
  expect_shape(Where::catalogue, catalogue_.get(), TSLB_DA_DAFLAG_INLL, config.layout, 0,
               static_cast<uint32_t>(series_record_bytes(config.layout)));
  ChunkMap keys(keys_.get(), Where::keys, 0, MOST_KEY_SLOTS, config.key_slot_bytes);
  ChunkMap points(points_.get(), Where::points, MPOOL_FLAG_BV, MOST_POINT_SLOTS, config.point_slot_bytes);
  tails_.resize(n_slots());
  for (uint32_t index = 0; index < n_slots(); ++index) {
    const SeriesRecord record = slot(index);
    if (!is_series(record, index)) continue;
    SeriesAudit audit(index, record, data_time_ns_);
    const std::string_view key = audit.take_key(keys);
    if (!series_by_key_.emplace(key, index).second)
      throw StoreDamaged(Where::catalogue, index,
                         fmt::format("series {}: its key \"{}\" is another's too", index, key));
    audit.take_points(points);
    n_points_ += record.n_points();
    tails_[index] = tail_of(record);
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
