// Restores a store from arrays, and validates their content before it is used.
//
// The arrays themselves are sound by then, as recovery/array_loader.h defines it. The checks here are about the data of
// the store in them:
//   shapes      each array has the flags, versions and sizes of the store's configuration.
//   chunks      the chunks of a memory slot cover its used bytes without gaps; the deleted bytes agree with the slot's
//               count; the cursor is at the end of the last chunk of its slot.
//   catalogue   each slot is a series or free, according to its status.
//   references  each address of a series names the beginning of a chunk that is not deleted and has the right size. The
//               chunk's header names this reference. Each chunk is referred to once, so no chain is a ring or joins
//               another chain, and no chunk is lost.
//   points      the number of points of an open chunk is within its capacity; a sealed chunk has the number of points
//               and the time span in its header, and its bytes are a sealed form of that many points.
//   figures     counts of chunks and points; keys are unique; no time is after data time.
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
      throw StoreDamaged(where, StoreDamaged::NO_SLOT, fmt::format("{} {}, expected {}", what, found, expected));
  };
  DynHdr_t header;
  std::memcpy(&header, tslb_da_get_dynhdr(array), sizeof header);
  expect("record version", header.rec_version, record_version);
  expect("list flags", array->daflag, daflag);
  expect("user header size", header.hdr_size, user_header_bytes);
  expect("record size", tslb_da_get_record_size(array), record_bytes);
}

// The chunks of a pool that are not deleted, by slot and offset, and whether a reference to each was found.
class ChunkMap {
 public:
  ChunkMap(dynmem_t *pool, Where where, uint8_t kind_flag, uint32_t max_slots, int configured_slot_bytes)
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
    if (tslb_stored_cursor_slot(cursor) == TSLB_DA_NIL_IDX && n_slots != 0)
      fail("slots are in use, but none is current");
    for (uint32_t slot = 0; slot < n_slots; ++slot) read_slot(slot, cursor);
    if (header->total_mused < used_bytes_)
      fail(fmt::format("{} bytes are in use, but only {} were reserved", used_bytes_, uint64_t{header->total_mused}));
  }

  // Returns the data of the chunk at this address and sets its length. `from` is the reference to it.
  template <class Fail>
  char *claim(const maddr_t &address, const srcaddr_t &from, uint32_t &bytes, Fail fail_reference) {
    const tslb_chunk_place_t place = place_of(pool_, address);
    const auto refuse = [&](const char *why) {
      fail_reference(fmt::format("names slot {}, byte {}, {}", place.slot_idx, place.byte_off, why));
    };
    if (place.slot_idx >= slots_.size()) refuse("but there is no such slot");
    Slot &slot = slots_[place.slot_idx];
    const auto found = std::lower_bound(slot.offsets.begin(), slot.offsets.end(), place.byte_off);
    if (found == slot.offsets.end() || *found != place.byte_off) refuse("where no chunk in use begins");
    const auto index = static_cast<size_t>(found - slot.offsets.begin());
    if (slot.is_claimed[index]) refuse("but another reference names the same chunk");
    slot.is_claimed[index] = true;
    compat_t header;
    char *const chunk = memory(place.slot_idx)->mslot + place.byte_off;
    std::memcpy(&header, chunk, sizeof header);
    if (std::memcmp(&header.srcaddr, &from, sizeof from) != 0)
      refuse("but the header of that chunk names another reference");
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

  void read_slot(uint32_t slot, uint64_t cursor) {
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
    slots_[slot].is_claimed.resize(slots_[slot].offsets.size());
    if (deleted != mem->bytes_del)
      fail(fmt::format("{} bytes are deleted, but the slot counts {}", deleted, mem->bytes_del), slot);
  }

  dynmem_t *const pool_;
  const Where where_;
  std::vector<Slot> slots_;
  uint64_t used_bytes_ = 0;  // of all slots that are not free
};

// One series: its record and the chunks that it refers to.
class SeriesAudit {
 public:
  SeriesAudit(uint32_t series, const SeriesRecord &record, int64_t data_time_ns) : series_(series), record_(record) {
    if (!record.is_clean()) fail("unused bytes are not zero");
    if (record.written_at_ns() > data_time_ns || record.newest_ns() > data_time_ns)
      fail("its times are after data time");
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
      fail(fmt::format("its chunks hold {} points, but its record counts {}", n_points_, record_.n_points()));
  }

 private:
  [[noreturn]] void fail(const std::string &what) const {
    throw StoreDamaged(Where::catalogue, series_, fmt::format("series {}: {}", series_, what));
  }

  // Ends even if the chain is a ring, because each chunk is claimed once.
  void take_sealed(ChunkMap &points) {
    maddr_t address = record_.first_sealed();
    srcaddr_t from = referrer_of(CATALOGUE_TABLE, series_, FIRST_SEALED_REFERENCE);
    for (uint32_t number = 0; number < record_.n_sealed(); ++number) {
      const auto fail_chunk = [this, number](const std::string &what) {
        fail(fmt::format("sealed chunk {} {}", number, what));
      };
      uint32_t bytes;
      const auto *const chunk = reinterpret_cast<const SealedChunk *>(points.claim(address, from, bytes, fail_chunk));
      const bool is_whole = bytes >= sizeof(SealedChunk);
      if (is_whole && (chunk->count() == 0 || chunk->count() > MAX_SEALED_CHUNK_POINTS))
        fail_chunk(fmt::format("holds {} points", chunk->count()));
      const size_t needed = is_whole ? padded_bytes_of(*chunk) : sizeof(SealedChunk);
      if (bytes < needed || (bytes > needed && chunk->count() > MAX_POINTS_WITH_ROOM))
        fail_chunk(fmt::format("has {} bytes, which is not the size of its points", bytes));
      const bool is_last = number + 1 == record_.n_sealed();
      if (is_last && bits_of(address) != bits_of(record_.last_sealed()))
        fail("its last sealed chunk is not the end of its chain");
      if (is_last && bits_of(chunk->next) != 0) fail_chunk("is the last one, but names a next chunk");
      expect_points(*chunk, bytes, fail_chunk);
      n_points_ += chunk->count();
      from = referrer_in_chunk(address);
      address = chunk->next;
    }
  }

  void take_open(ChunkMap &points) {
    const uint8_t flags = record_.flags() & static_cast<uint8_t>(~SERIES_HAS_INTEGERS);
    if (flags != SERIES_READY && flags != (SERIES_READY | SERIES_HAS_OPEN))
      fail(fmt::format("flags 0x{:02x}", record_.flags()));
    if (flags == SERIES_READY && record_.n_open() != 0) fail("it has points but no open chunk");
    if (flags == SERIES_READY) return;
    const auto fail_chunk = [this](const std::string &what) { fail("its open chunk " + what); };
    uint32_t bytes;
    const char *const chunk =
        points.claim(record_.open(), referrer_of(CATALOGUE_TABLE, series_, OPEN_REFERENCE), bytes, fail_chunk);
    uint32_t capacity = FIRST_CAPACITY;
    while (capacity < SEALED_POINTS && capacity * sizeof(Point) != bytes) capacity *= CAPACITY_STEP;
    if (capacity * sizeof(Point) != bytes) fail_chunk(fmt::format("has {} bytes, which is no capacity", bytes));
    if (record_.n_open() > capacity)
      fail_chunk(fmt::format("counts {} points, but holds at most {}", record_.n_open(), capacity));
    for (uint32_t index = 0; index < record_.n_open(); ++index) expect_time(point_at(chunk, index).ts_ns);
    n_points_ += record_.n_open();
  }

  template <class Fail>
  void expect_points(const SealedChunk &chunk, uint32_t bytes, Fail fail_chunk) {
    chunk_points_.clear();
    const bool is_whole = open_chunk(chunk, bytes_of(&chunk), record_.type(), chunk_points_);
    const char *const end = bytes_of(&chunk) + chunk.bytes, *const begin = reinterpret_cast<const char *>(&chunk);
    const bool is_padded = std::all_of(end, begin + bytes, [](char byte) { return byte == '\0'; });
    if (!is_whole || !is_padded) fail_chunk("cannot be read");
    if (chunk.has_summary() && !has_its_summary(chunk)) fail_chunk("has another summary than its points");
    int64_t oldest_ns = INT64_MAX;
    int64_t newest_ns = INT64_MIN;
    for (const Point &point : chunk_points_) {
      oldest_ns = std::min(oldest_ns, point.ts_ns);
      newest_ns = std::max(newest_ns, point.ts_ns);
    }
    if (oldest_ns != chunk.oldest_ns || newest_ns != chunk.newest_ns)
      fail_chunk(fmt::format("holds times from {} to {}, but its header has others", oldest_ns, newest_ns));
    expect_time(newest_ns);
  }

  // Of the points in chunk_points_.
  bool has_its_summary(const SealedChunk &chunk) const {
    const std::optional<ChunkSummary> summary =
        summarize(reinterpret_cast<const char *>(chunk_points_.data()), chunk_points_.size(), record_.type());
    return summary && std::memcmp(&*summary, &chunk + 1, sizeof *summary) == 0;
  }

  void expect_time(int64_t ts_ns) const {
    if (ts_ns > record_.newest_ns())
      fail(fmt::format("has a point at {}, but its newest is at {}", ts_ns, record_.newest_ns()));
  }

  const uint32_t series_;
  const SeriesRecord record_;
  uint64_t n_points_ = 0;
  std::vector<Point> chunk_points_;
};

// Returns whether the slot holds a series. Status, flags and gatekeeper word must agree.
bool is_series(const SeriesRecord &record, uint32_t index) {
  const auto fail = [index](const std::string &what) {
    throw StoreDamaged(Where::catalogue, index, fmt::format("slot {}: {}", index, what));
  };
  if (!record) fail("is missing");
  const uint32_t status = status_of(record.at());
  const bool is_in_use = status == TSLB_DA_SLOT_ACTIVE || status == TSLB_DA_SLOT_INACTIVE;
  // A slot whose memory could not be allocated has no status, and was never written.
  if (!is_in_use && status != TSLB_DA_SLOT_FREE && status != TSLB_DA_SLOT_UNSET) fail(fmt::format("status {}", status));
  const bool is_ready = (record.flags() & SERIES_READY) != 0;
  if (is_ready != is_in_use) fail(fmt::format("flags 0x{:02x} at status {}", record.flags(), status));
  if (status == TSLB_DA_SLOT_FREE && record.gatekeeper() != TSLB_GATEKEEPER_WORD)
    fail(fmt::format("gatekeeper 0x{:x} in a free slot", record.gatekeeper()));
  return is_in_use;
}

}  // namespace

Store::Store(const StoreConfig &config, StoreArrays arrays, const StoreState &state)
    : config_(config),
      catalogue_(std::move(arrays.catalogue)),
      keys_(std::move(arrays.keys), KEYS_NAME, MAX_KEY_SLOTS, KEYS),
      points_(std::move(arrays.points), POINTS_NAME, MAX_POINT_SLOTS, POINTS),
      data_time_ns_(state.data_time_ns),
      n_since_sweep_(state.n_since_sweep),
      forgotten_(state.forgotten) {
  expect_shape(Where::catalogue, catalogue_.get(), TSLB_DA_DAFLAG_INLL, config.layout, 0,
               static_cast<uint32_t>(series_record_bytes(config.layout)));
  ChunkMap keys(keys_.array(), Where::keys, 0, MAX_KEY_SLOTS, config.key_slot_bytes);
  ChunkMap points(points_.array(), Where::points, MPOOL_FLAG_BV, MAX_POINT_SLOTS, config.point_slot_bytes);
  tails_.resize(n_slots());
  for (uint32_t index = 0; index < n_slots(); ++index) {
    const SeriesRecord record = slot(index);
    if (!is_series(record, index)) continue;
    SeriesAudit audit(index, record, data_time_ns_);
    const std::string_view key = audit.take_key(keys);
    if (!series_by_key_.emplace(key, index).second)
      throw StoreDamaged(Where::catalogue, index,
                         fmt::format("series {}: another series has the same key \"{}\"", index, key));
    audit.take_points(points);
    n_points_ += record.n_points();
    tails_[index] = tail_of(record);
  }
  keys.expect_all_claimed();
  points.expect_all_claimed();
  if (n_series() != state.n_series || n_points_ != state.n_points)
    throw StoreDamaged(Where::state, StoreDamaged::NO_SLOT,
                       fmt::format("the figures say {} series with {} points, but the arrays hold {} with {}",
                                   state.n_series, state.n_points, n_series(), n_points_));
  register_reuse_policy();
}

}  // namespace metricdb
