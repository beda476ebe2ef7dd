// Series and their points in tslb's arrays, in process memory.
//
//   catalogue   slot array, one record per series (series_record.h); its index is the series' number.
//   keys        big-buffer pool, one chunk per series: its key and a terminating zero.
//   points      bit-vector pool. The newest points of a series lie as they are in its open chunk, which grows from 8
//               over 32 to 128 points, so that a short series stays cheap. A full one of 128 is sealed: its points go
//               encoded (point_codec.h) into a chunk of just the length they need, at the end of the series' chain of
//               sealed chunks, and the open chunk is empty again. Order of arrival is kept throughout.
//
// No stored structure holds a pointer: chunks are named by their addresses, which are the same wherever the memory
// lies. Address 0 is the first chunk of a pool, so "none" is told by a count or a flag beside it.
//
// What a store forgets, if its configuration says so. Data time is the newest timestamp that came, of any series.
//   retention   exactly the points with ts >= data time - retain_ns are visible; one that is older when it comes is not
//               stored. A sweep deletes chunks from the front of each chain, up to the first that holds a visible
//               point; what is older in the chunks that stay is hidden by its timestamp. A series without a visible
//               point loses its open chunk too, its key and its slot, and is a new one if it comes back.
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
// A store tells the redo log what it changes, from `begin_log` on: whoever applies those records to copies of the
// arrays as they were then, up to the end of a `log_changes`, has the arrays as they are at that moment. Of what the
// arrays log by themselves the rest is told at once where it is written once (keys, sealed chunks), and by
// `log_changes` where it changes many times in between (records, open chunks, counters, headers).
//
// Threads: one. A store belongs to the thread that uses it.
#pragma once

#include <tslb/tslb_dynarr.h>
#include <tslb/tslb_dynmem.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "codec/point.h"
#include "codec/point_codec.h"
#include "store/series_record.h"

namespace metricdb {

inline constexpr size_t SEALED_POINTS = 128;  // of a sealed chunk, and the most of an open one

// Head of a sealed chunk, behind the pool's compaction header. `bytes` of encoded points follow, and zeros up to a
// multiple of 8.
struct TSLB_UNALIGNED SealedChunk {
  maddr_t next;  // of the chain's last one: 0
  uint16_t count;
  uint16_t bytes;
  int64_t oldest_ns;  // the least and the greatest timestamp in it
  int64_t newest_ns;
};
TSLB_STORED_SIZE(SealedChunk, 24);
TSLB_STORED_AT(SealedChunk, next, 0);
TSLB_STORED_AT(SealedChunk, count, 4);
TSLB_STORED_AT(SealedChunk, bytes, 6);
TSLB_STORED_AT(SealedChunk, oldest_ns, 8);
TSLB_STORED_AT(SealedChunk, newest_ns, 16);

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

  // Version of the catalogue's records, OLDEST_LAYOUT to NEWEST_LAYOUT.
  uint8_t layout = NEWEST_LAYOUT;

  // MPOOL_TYPE_SHM keeps the arrays in block files under the library's base path, which must exist. A disk without room
  // ends the process then, at the write that finds none.
  char mem_type = MPOOL_TYPE_DRAM;
};

// What forgetting has done so far.
struct Forgotten {
  uint64_t late_points = 0;    // not stored: too old when they came
  uint64_t points = 0;         // in chunks that were deleted
  uint64_t chunks = 0;         // of points, open and sealed
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

  // Takes a point as it comes. Throws StoreFull; data time has moved then.
  void add(std::string_view key, const Point &point);

  // Takes the time of points that come: moves data time on, and sweeps if it is time to. False: they are too old, and
  // were counted as late. True: `append` stores each.
  bool admit(int64_t ts_ns, uint32_t n_points);

  // Number of the series with this key, made if there is none yet. It holds until a series is forgotten. Throws
  // StoreFull.
  uint32_t series_of(std::string_view key);

  // The same, or none.
  std::optional<uint32_t> find(std::string_view key) const;

  // Series that were forgotten so far. While this stays, numbers of series hold.
  uint64_t n_forgotten_series() const { return forgotten_.series_aged + forgotten_.series_reused; }

  // Makes sure that the next `append` to the series does not throw, and that no new series takes its slot until then.
  // Throws StoreFull.
  void make_room(uint32_t series);

  // Adds a point behind all others of the series. Throws StoreFull.
  void append(uint32_t series, const Point &point);

  // Forgets what it is time to forget, and gives emptied memory slots back.
  Sweep sweep();

  // Both: see above. Without a redo log they cost nothing.
  void begin_log();
  void log_changes();
  uint64_t n_changed_series() const { return changed_series_.size(); }  // that `log_changes` will tell

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

  // Both read the arrays, not what this class keeps beside them. They last as long as the series.
  SeriesRecord record(uint32_t series) const;
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
  // What is at hand of a series when a point comes. Records and chunks never move, so these stay true.
  struct Tail {
    SeriesRecord record;
    char *open = nullptr;  // the points of its open chunk
    uint32_t n_open = 0;
    uint32_t capacity = 0;
    uint32_t n_logged = 0;    // points of the open chunk that the redo log knows
    bool is_changed = false;  // and is among changed_series_
  };

  // Slots of a pool whose counters have changed, each at least once.
  using ChangedSlots = std::vector<uint32_t>;

  void register_reuse_policy();

  // Series.
  SeriesRecord slot(uint32_t series) const;
  uint32_t add_series(std::string_view key);
  SeriesRecord take_slot(uint32_t &index);
  std::string_view key_of(const SeriesRecord &record) const;
  Tail tail_of(const SeriesRecord &record) const;

  // Chunks. An address names the chunk's data, behind its compaction header.
  char *take_chunk(dynmem_t *pool, size_t bytes, const srcaddr_t &referrer, maddr_t &address);
  uint32_t delete_chunk(dynmem_t *pool, const maddr_t &address);
  SealedChunk *sealed_at(const maddr_t &address) const;
  void activate(uint32_t series, Tail &tail);
  void grow_or_seal(uint32_t series, Tail &tail);
  void grow_open(uint32_t series, Tail &tail);
  void seal_open(uint32_t series, Tail &tail);

  // Forgetting.
  bool are_all_hidden(const char *points, uint32_t count) const;
  void drop_first_sealed(uint32_t series, const SeriesRecord &record);
  void forget_content(uint32_t series, const SeriesRecord &record);
  bool forget_old(uint32_t series);
  void park_idle_series();

  // The redo log.
  ChangedSlots &changed_slots(dynmem_t *pool) { return pool == keys_.get() ? changed_keys_ : changed_points_; }
  void change(uint32_t series, Tail &tail);
  void log_chunk(dynmem_t *pool, const maddr_t &address, const char *from, size_t bytes);
  void log_pool(dynmem_t *pool);
  void log_series(uint32_t series, Tail &tail);

  StoreConfig config_;
  Array catalogue_;
  Array keys_;
  Array points_;
  std::unordered_map<std::string_view, uint32_t> series_by_key_;  // keys lie in the pool
  std::vector<Tail> tails_;                                       // by series
  uint64_t n_points_ = 0;
  int64_t data_time_ns_ = INT64_MIN;
  uint64_t n_since_sweep_ = 0;
  Forgotten forgotten_;

  bool logs_ = false;
  std::vector<uint32_t> changed_series_;
  bool is_catalogue_changed_ = false;  // its headers, in what the array does not log
  ChangedSlots changed_keys_;
  ChangedSlots changed_points_;
};

// Timestamps, both limits included.
struct TimeRange {
  int64_t from_ns = INT64_MIN;
  int64_t to_ns = INT64_MAX;
};

// Walks the visible points of one series in a range of time, in order of arrival. Points added meanwhile may be seen or
// not; a sweep or a new series ends the walk.
class PointCursor {
 public:
  PointCursor(const Store &store, uint32_t series, const TimeRange &range = {});
  bool next(Point &point);

  // Points walked over so far, those in chunks that were skipped as a whole included.
  uint64_t n_passed() const { return n_passed_; }

 private:
  bool next_of_any(Point &point);
  bool enter_sealed();

  dynmem_t *const pool_;
  const SeriesRecord record_;
  TimeRange range_;
  uint32_t n_sealed_left_;
  maddr_t next_sealed_;
  SealedPoints sealed_;
  uint32_t n_open_taken_ = 0;
  uint64_t n_passed_ = 0;
};

}  // namespace metricdb
