// Series and their points in tslb's arrays, in process memory.
//
//   catalogue   slot array, one SeriesRecord per series; its index is the series' number.
//   keys        big-buffer pool, one chunk per series: its key and a terminating zero.
//   points      bit-vector pool; the points of a series lie in a chain of chunks, in order of arrival. The first chunk
//               of a series holds 4 points, the next one 16, all others 64, so that a short series stays cheap.
//
// No stored structure holds a pointer: chunks are named by their addresses, which are the same wherever the memory
// lies. Address 0 is the first chunk of a pool, so "none" is told by a count or a flag beside it.
//
// What a store forgets, if its configuration says so. Data time is the newest timestamp that came, of any series.
//   retention   exactly the points with ts >= data time - retain_ns are visible; one that is older when it comes is not
//               stored. A sweep deletes chunks from the front of each chain, up to the first that holds a visible
//               point; what is older in the chunks that stay is hidden by its timestamp. A series without a chunk
//               loses its key and its slot, and is a new one if it comes back.
//   idleness    a sweep parks the series that were last written idle_ns of data time ago on the catalogue's inactive
//               list, the one longest unwritten first. Nothing of theirs is hidden; the next write activates them.
//   reuse       once enough slots of the catalogue are inactive, a new series takes the slot of the one that has been
//               inactive for longest, whose points and key are deleted.
// Memory comes back by slots of the pools, when all chunks in one are deleted: a chunk that a slow series fills over a
// long time keeps its whole slot.
//
// A store can be put together again from its three arrays, which come from elsewhere, and the few figures that it keeps
// beside them (StoreState). Nothing in them is trusted then: see store_audit.cpp.
//
// Threads: one. A store belongs to the thread that uses it.
#pragma once

#include <tslb_dynarr.h>
#include <tslb_dynmem.h>

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_map>

#include "point.h"

namespace metricdb {

// Catalogue record of a series.
struct TSLB_UNALIGNED SeriesRecord {
  uint32_t gatekeeper;  // SERIES_READY in the slot of a series; all ones, the array's word, in a free one
  maddr_t key;
  maddr_t first_chunk;  // these two count for nothing while n_chunks is 0
  maddr_t last_chunk;
  uint32_t n_chunks;
  uint32_t reserved;      // 0
  uint64_t n_points;      // in its chunks, hidden ones included
  int64_t written_at_ns;  // data time of the last write
};
TSLB_STORED_SIZE(SeriesRecord, 40);
TSLB_STORED_AT(SeriesRecord, gatekeeper, 0);
TSLB_STORED_AT(SeriesRecord, key, 4);
TSLB_STORED_AT(SeriesRecord, first_chunk, 8);
TSLB_STORED_AT(SeriesRecord, last_chunk, 12);
TSLB_STORED_AT(SeriesRecord, n_chunks, 16);
TSLB_STORED_AT(SeriesRecord, n_points, 24);
TSLB_STORED_AT(SeriesRecord, written_at_ns, 32);

inline constexpr uint32_t SERIES_READY = 1;

// Head of a chunk of points, behind the pool's compaction header; `capacity` points follow it.
struct TSLB_UNALIGNED PointChunk {
  maddr_t next;  // counts only with CHUNK_HAS_NEXT
  uint16_t count;
  uint8_t capacity;
  uint8_t flags;
};
TSLB_STORED_SIZE(PointChunk, 8);
TSLB_STORED_AT(PointChunk, next, 0);
TSLB_STORED_AT(PointChunk, count, 4);
TSLB_STORED_AT(PointChunk, capacity, 6);
TSLB_STORED_AT(PointChunk, flags, 7);

inline constexpr uint8_t CHUNK_HAS_NEXT = 0x01;

// A pool has no room for what was asked; what the store held before, it still holds.
class StoreFull : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// What a store was to be put together from contradicts itself.
class StoreDamaged : public std::runtime_error {
 public:
  enum class Where { catalogue, keys, points, state };  // the order of StoreArrays
  static constexpr uint32_t NO_SLOT = 0xFFFFFFFFu;

  // slot_index  the slot of that array, or NO_SLOT: its headers.
  StoreDamaged(Where where, uint32_t slot_index, const std::string &what)
      : std::runtime_error(what), where_(where), slot_index_(slot_index) {}
  Where where() const { return where_; }
  uint32_t slot_index() const { return slot_index_; }

 private:
  Where where_;
  uint32_t slot_index_;
};

struct StoreConfig {
  // Usable bytes of one memory slot. The store takes 255 and 2,040 of them, so these values are good for 255 MiB of
  // keys and 2,040 MiB of points.
  int key_slot_bytes = 1 << 20;
  int point_slot_bytes = 1 << 20;

  int64_t retain_ns = 0;  // 0: all points stay
  int64_t idle_ns = 0;    // 0: no series becomes inactive
  // Percent of the catalogue's slots that are inactive when reuse begins, 1 to 100; 0: never. The array's policy has a
  // limit by count too, which cannot be switched off: reuse begins in any case with 65,535 inactive slots.
  uint8_t reuse_inactive_pct = 0;
  // Points from one sweep to the next that `add` makes; as many as the catalogue has slots, if that is more, so that
  // sweeping costs each point the same.
  uint32_t points_per_sweep = 65'536;

  // MPOOL_TYPE_SHM keeps the arrays in block files under the library's base path, which must exist. A disk without room
  // ends the process then, at the write that finds none.
  char mem_type = MPOOL_TYPE_DRAM;
};

// What forgetting has done so far.
struct Forgotten {
  uint64_t late_points = 0;    // not stored: too old when they came
  uint64_t points = 0;         // in chunks that were deleted
  uint64_t chunks = 0;         // of points
  uint64_t series_aged = 0;    // gone with the last of their chunks
  uint64_t series_reused = 0;  // gone because a new one took their slot
  uint64_t key_slots = 0;      // memory slots that went to their pool's free list
  uint64_t point_slots = 0;
};

// What a store keeps beside its arrays, and what it counts from them.
struct StoreState {
  uint64_t n_series = 0;
  uint64_t n_points = 0;  // in chunks
  int64_t data_time_ns = INT64_MIN;
  uint64_t n_since_sweep = 0;  // points since the last sweep
  Forgotten forgotten;
};

struct ReleaseArray {
  void operator()(DynArrHandle_t *array) const { destroy_dyn_arr(array); }
};
using Array = std::unique_ptr<DynArrHandle_t, ReleaseArray>;

struct StoreArrays {
  Array catalogue;
  Array keys;
  Array points;
};

// Of a pool's slots that are not free.
struct PoolBytes {
  uint64_t used = 0;     // chunks, deleted ones included
  uint64_t deleted = 0;  // of those
};

// What a sweep found in a pool.
struct PoolSweep {
  uint32_t free_before = 0;  // slots on the free list
  uint32_t free_after = 0;
  size_t total_bytes = 0;    // of the pool
  size_t used_bytes = 0;     // of chunks in the slots that stay, deleted ones included
  size_t deleted_bytes = 0;  // of those
};

struct Sweep {
  PoolSweep keys;
  PoolSweep points;
};

class Store {
 public:
  // Bytes of a key that the store takes: a chunk's length is a 16-bit figure, and the zero takes one.
  static constexpr size_t LONGEST_KEY = 65'534;

  explicit Store(const StoreConfig &config = {});

  // Of arrays that a store filled, and the state that it had then. Goes on as that one would have. Throws StoreDamaged.
  Store(const StoreConfig &config, StoreArrays arrays, const StoreState &state);

  StoreState state() const;

  // Changes what is forgotten from here on. What was forgotten stays so.
  void forget_by(int64_t retain_ns, int64_t idle_ns, uint8_t reuse_inactive_pct);

  // Takes a point as it comes: moves data time on, sweeps if it is time to, and stores the point unless it is too old.
  // Throws StoreFull; data time has moved then.
  void add(std::string_view key, const Point &point);

  // Number of the series with this key, made if there is none yet. It holds until the next sweep or new series. Throws
  // StoreFull.
  uint32_t series_of(std::string_view key);

  // Adds a point behind all others of the series. Throws StoreFull.
  void append(uint32_t series, const Point &point);

  // Forgets what it is time to forget, and gives emptied memory slots back.
  Sweep sweep();

  // Series are the slots below n_slots for which holds_series is true. Inactive ones are among them.
  uint32_t n_slots() const { return tslb_da_get_size(catalogue_.get()); }
  bool holds_series(uint32_t slot_index) const;
  bool is_inactive(uint32_t series) const;
  uint32_t n_series() const { return static_cast<uint32_t>(series_by_key_.size()); }
  uint32_t n_inactive() const;

  uint64_t n_points() const { return n_points_; }  // in chunks, hidden ones included
  uint64_t n_visible() const;                      // walks all of them if some can be hidden
  int64_t visible_from_ns() const;                 // the retention's limit now; the least time without one
  const StoreConfig &config() const { return config_; }
  const Forgotten &forgotten() const { return forgotten_; }

  // Both read the arrays, not what this class keeps beside them. The text lives as long as the series.
  const SeriesRecord &record(uint32_t series) const;
  std::string_view key(uint32_t series) const;

  // Bytes of the catalogue and both pools, headers and list nodes included.
  uint64_t bytes_in_use() const;    // slots of series, and chunks; deleted ones too, while their slot is not free
  uint64_t bytes_reserved() const;  // blocks that exist; what was never touched takes no memory yet

  PoolBytes key_bytes() const;
  PoolBytes point_bytes() const;

  dynarr_t *catalogue() const { return catalogue_.get(); }
  dynmem_t *keys() const { return keys_.get(); }
  dynmem_t *points() const { return points_.get(); }

 private:
  SeriesRecord *slot(uint32_t series) const;
  uint32_t add_series(std::string_view key);
  SeriesRecord *take_slot(uint32_t &index);
  std::string_view key_of(const SeriesRecord &record) const;
  PointChunk *chunk_at(const maddr_t &address) const;
  PointChunk *add_chunk(uint32_t series);

  bool is_all_hidden(const PointChunk *chunk) const;
  void drop_first_chunk(uint32_t series, SeriesRecord &record);
  void forget_content(uint32_t series, SeriesRecord &record);
  void park_idle_series();

  void register_reuse_policy();

  StoreConfig config_;
  Array catalogue_;
  Array keys_;
  Array points_;
  std::unordered_map<std::string_view, uint32_t> series_by_key_;  // keys lie in the pool
  uint64_t n_points_ = 0;
  int64_t data_time_ns_ = INT64_MIN;
  uint64_t n_since_sweep_ = 0;
  Forgotten forgotten_;
};

// Walks the visible points of one series in order of arrival. Points added meanwhile may be seen or not; a sweep or a
// new series ends the walk.
class PointCursor {
 public:
  PointCursor(const Store &store, uint32_t series);
  bool next(Point &point);

  // Points walked over so far, hidden ones included.
  uint64_t n_passed() const { return n_passed_; }

 private:
  dynmem_t *pool_;
  const int64_t visible_from_ns_;
  const PointChunk *chunk_ = nullptr;  // null: no point is left
  uint16_t taken_ = 0;                 // points of that chunk
  uint64_t n_passed_ = 0;
};

}  // namespace metricdb
