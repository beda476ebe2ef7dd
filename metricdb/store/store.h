// Series and their points in three arrays of tslb, in process memory.
//
//   catalogue   slot array, one record per series (series_record.h). Its index is the number of the series.
//   keys        big-buffer pool, one chunk per series: its key and a terminating zero.
//   points      bit-vector pool. The newest points of a series are in its open chunk, unencoded. When that is full it is
//               sealed: its points are encoded (sealed_chunk.h) into a chunk of the necessary length, which is appended
//               to the series' chain of sealed chunks, and the open chunk is empty again. The first 128 points of a
//               series go to one sealed chunk instead, and its open chunk has room for 8, later 32 points, so that a
//               short series needs little memory; then it has room for 128. When the chunks at the end of the chain have
//               about 2,048 points they are joined into one, which needs fewer bytes a point (store_join.cpp). The order
//               of arrival is kept.
//               An erasure (erasure.h) replaces sealed chunks by ones with fewer points.
//
// No stored structure contains a pointer: chunks are named by addresses, which are valid wherever the memory is mapped.
// Address 0 is the first chunk of a pool, so counts and flags say whether an address is valid.
//
// forgetting.h describes the limits by which a store forgets data.
//
// A store can be restored from its three arrays, which are loaded elsewhere, and the figures outside of them
// (StoreState). All of this is validated first: see store_audit.cpp.
//
// A store whose arrays belong to a durable store is changed in batches (tslb/durable.h). It names its changes: immediately
// if they are made once (keys, sealed chunks), and in `end_batch` if they are made many times (records, open chunks).
//
// Threads: one. A store belongs to the thread that uses it. After `go_live` other threads read it with live_reader.h.
#pragma once

#include <tslb/tslb_stored.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "codec/point.h"
#include "store/chunk_pool.h"
#include "store/forgetting.h"
#include "store/live_state.h"
#include "store/sealed_chunk.h"
#include "store/series_record.h"

namespace metricdb {

inline constexpr size_t SEALED_POINTS = 128;        // in an open chunk when it is sealed
inline constexpr size_t MAX_JOINED_POINTS = 2'048;  // in a chunk that is made of others

// The arrays or figures of a store contradict themselves.
class StoreDamaged : public std::runtime_error {
 public:
  enum class Where { catalogue, keys, points, state };  // in the order of StoreArrays
  static constexpr uint32_t NO_SLOT = TSLB_DA_NIL_IDX;

  // slot_index  the slot of that array; NO_SLOT: its headers.
  StoreDamaged(Where where, uint32_t slot_index, const std::string &what)
      : std::runtime_error(what), where_(where), slot_index_(slot_index) {}
  Where where() const { return where_; }
  uint32_t slot_index() const { return slot_index_; }

 private:
  Where where_;
  uint32_t slot_index_;
};

struct StoreConfig {
  // Usable bytes of one memory slot. The store uses 255 and 2,040 of them: 255 MiB of keys and 2,040 MiB of points.
  int key_slot_bytes = 1 << 20;
  int point_slot_bytes = 1 << 20;

  Forgetting forgetting = {};
  // `add` sweeps after this many points, or after as many as the catalogue has slots if that is more. So the cost of
  // sweeping per point is bounded.
  uint32_t points_per_sweep = 65'536;

  // Version of the catalogue's records, OLDEST_LAYOUT to NEWEST_LAYOUT.
  uint8_t layout = NEWEST_LAYOUT;
};

// The figures of a store outside its arrays, and figures counted from the arrays.
struct StoreState {
  uint64_t n_series = 0;
  uint64_t n_points = 0;  // in chunks
  int64_t data_time_ns = INT64_MIN;
  uint64_t n_since_sweep = 0;  // points since the last sweep
  ForgetCounts forgotten;
};

struct StoreArrays {
  Array catalogue;
  Array keys;
  Array points;
};

struct Sweep {
  PoolSweep keys;
  PoolSweep points;
};

// A place in the chain of a series: after `previous`, which is valid if n_passed is not 0. An erasure owns it, and can be
// destroyed by any thread. Meanwhile others append to the chain, and delete from its front.
struct ChainPlace {
  uint32_t series = 0;
  uint32_t n_passed = 0;
  maddr_t previous = {};
  int64_t newest_ns = INT64_MIN;  // of the chunks that were passed
};

struct Erasure;
struct TimeRange;
class ChunkMap;

class Store {
 public:
  // The length of a chunk is a 16-bit number, and the terminating zero needs one byte.
  static constexpr size_t MAX_KEY_BYTES = TSLB_COMPAT_LEN_MAX - 1;

  explicit Store(const StoreConfig &config = {});

  // Restores a store from its arrays and its state. It continues as the original would have. Throws StoreDamaged.
  Store(const StoreConfig &config, StoreArrays arrays, const StoreState &state);

  StoreState state() const;

  // Changes the limits from here on. Data that was forgotten before stays forgotten.
  void set_forgetting(const Forgetting &forgetting);

  // From the first call on, the retention is reckoned from this time, and not from data time.
  void set_clock(int64_t now_ns);

  // Adds a point to a series of real numbers. Throws StoreFull; data time has moved then.
  void add(std::string_view key, const Point &point);

  // Announces points of one time: moves data time on, and sweeps if a sweep is due. Returns true if the points can be
  // stored with `append`; false if they are too old, and counts them as late.
  bool admit(int64_t ts_ns, uint32_t n_points);

  // Returns the number of the series with this key, and creates a series of this type if necessary. The number is valid
  // until a series is forgotten. Throws StoreFull.
  uint32_t series_of(std::string_view key, ValueType type = ValueType::real);

  // The same, but creates nothing.
  std::optional<uint32_t> find(std::string_view key) const;

  // Number of series forgotten so far. While it stays the same, numbers of series are valid.
  uint64_t n_forgotten_series() const { return forgotten_.series_aged + forgotten_.series_reused; }

  // Ensures that the next `append` to the series does not throw, and that no new series takes its slot before.
  // Throws StoreFull.
  void make_room(uint32_t series);

  ValueType type(uint32_t series) const { return tails_[series].type; }

  // The newest timestamp of the series; the minimum without points.
  int64_t newest_ns(uint32_t series) const { return tails_[series].record.newest_ns(); }

  // Replaces the value of the last point of that time in the open chunk. Returns false if there is none.
  bool replace_open(uint32_t series, const Point &point);

  // Appends a point to the series, of its type. Throws StoreFull.
  void append(uint32_t series, Point point);

  // Applies the limits, and releases empty memory slots.
  Sweep sweep();

  // Does a part of an erasure (erasure.h). Returns true when it is complete. The store is live, and no other erasure is
  // continued later. Throws StoreFull if there is no room for what remains of a chunk; the store is consistent then.
  //
  // max_work  ends the call: the unit is about 10 ns.
  bool erase_some(Erasure &erasure, uint32_t max_work);

  // Seals what the series from `series` on have in open chunks, joins it with the sealed chunks before it, and releases the
  // open chunks: for arrays that are written and not changed for some time. Returns the series from which on it has not
  // done this, because the batch is large enough; n_slots() at the end. Of a series without room for that it does nothing.
  uint32_t pack(uint32_t series);

  // Moves chunks out of memory slots with many deleted bytes, so that the slots become free. Does a part of the work if a part
  // is worth it. `is_final`: all of it, also for fewer deleted bytes, unless the batch is large enough; false then.
  bool compact(bool is_final = false);

  // Changes when sealed chunks of the series were joined or moved: their addresses are invalid then.
  uint32_t n_moves(uint32_t series) const { return tails_[series].n_moves; }
  uint64_t n_moves() const { return n_moves_; }  // of all series

  // Changes between these calls belong to the batch. The arrays must be those of the batch's durable store.
  void begin_batch(tslb_batch_t *batch);
  void end_batch();
  // Approximate bytes that the batch will have in the journal.
  uint64_t batch_bytes() const;

  // From here on changes are announced to readers on other threads, and the series are indexed.
  void go_live();
  const LiveState *live() const { return live_.get(); }

  // A store that follows another one with the same arrays, which it does not change itself. It is live. Takes over what has
  // changed in the arrays since the last call, and the other store's configuration and state at this moment. Nobody reads
  // meanwhile, and nothing changes the arrays. The cost is at most in proportion to the slots of the catalogue.
  //
  // compares_all  the arrays can have become those of another past: every slot is compared.
  void follow(const StoreConfig &config, const StoreState &state, bool compares_all);

  // Ends following: from here on the store is changed by its own thread. Others may read. Throws StoreDamaged.
  void lead();

  // The series are the slots below n_slots for which holds_series is true, inactive ones included.
  uint32_t n_slots() const { return tslb_da_get_size(catalogue_.get()); }
  bool holds_series(uint32_t slot_index) const;
  bool is_inactive(uint32_t series) const;
  uint32_t n_series() const { return followed_ ? followed_->n_series : static_cast<uint32_t>(series_by_key_.size()); }
  uint32_t n_inactive() const;

  uint64_t n_points() const { return n_points_; }  // in chunks, hidden ones included
  uint64_t n_visible() const;                      // walks all points if some can be hidden
  int64_t visible_from_ns() const;                 // the limit of the retention; the minimum time without retention
  const StoreConfig &config() const { return config_; }
  const ForgetCounts &forgotten() const { return forgotten_; }

  // Both read the arrays. The results are valid as long as the series exists.
  SeriesRecord record(uint32_t series) const;
  std::string_view key(uint32_t series) const;

  // Bytes of the catalogue and both pools, headers and list nodes included.
  uint64_t bytes_in_use() const;    // slots of series, and chunks; deleted ones included until their slot is free
  uint64_t bytes_reserved() const;  // of existing blocks, whose untouched pages use no memory

  PoolBytes key_bytes() const { return keys_.bytes(); }
  PoolBytes point_bytes() const { return points_.bytes(); }

  dynarr_t *catalogue() const { return catalogue_.get(); }
  dynmem_t *keys() const { return keys_.array(); }
  dynmem_t *points() const { return points_.array(); }

 private:
  // What of a record has changed. Most batches change only what each point changes, which is half of it.
  enum class Change : uint8_t { none, counters, all };

  // A series as `append` needs it. Records and chunks never move.
  struct alignas(64) Tail {  // in one cache line
    SeriesRecord record;
    char *open = nullptr;  // the points of its open chunk
    uint16_t n_open = 0;
    uint16_t capacity = 0;
    uint16_t n_logged = 0;  // points of the open chunk in earlier batches
    ValueType type = ValueType::real;
    Change change = Change::none;  // in this batch; listed in changed_series_ if there is one
    // The sealed chunks at the end of the chain that will be joined, their points, and the chunk before them if there is one.
    uint32_t n_short = 0;
    uint32_t n_short_points = 0;
    maddr_t before_short = {};
    uint32_t n_moves = 0;
  };

  // What a store that follows knows of the arrays. It has no tails, and no series by their keys: these refer to texts in
  // the arrays, which change.
  struct Followed {
    std::vector<std::string> keys;  // by slot; empty: no series
    uint32_t n_series = 0;
  };

  void register_reuse_policy();

  // Restoring.
  bool take_key(uint32_t index, ChunkMap &keys) const;
  void take_series(uint32_t index);
  void take_points(uint32_t index, ChunkMap &points, std::vector<Point> &memory);
  void take_in_order(ChunkMap &keys, ChunkMap &points);
  bool take_in_parts(ChunkMap &keys, ChunkMap &points);

  // Series.
  SeriesRecord slot(uint32_t series) const;
  uint32_t add_series(std::string_view key, ValueType type);
  SeriesRecord take_slot(uint32_t &index);
  std::string_view key_of(const SeriesRecord &record) const;
  Tail tail_of(const SeriesRecord &record) const;

  // Chunks of points.
  SealedChunk *sealed_at(const maddr_t &address) const;
  void activate(uint32_t series, Tail &tail);
  void grow_or_seal(uint32_t series, Tail &tail);
  void grow_open(uint32_t series, Tail &tail);
  void seal_open(uint32_t series, Tail &tail);
  enum class Room { none, for_more };
  maddr_t seal_points(const char *points, uint32_t count, ValueType type, const srcaddr_t &referrer,
                      const maddr_t &next, Room room = Room::none);
  void set_sealed(char *chunk, size_t n_bytes, size_t chunk_bytes) const;
  srcaddr_t short_referrer(uint32_t series, const Tail &tail) const;
  bool add_open_to_short(uint32_t series, Tail &tail);
  void put_in_short(uint32_t series, Tail &tail);
  void grow_with_series(uint32_t series, Tail &tail);
  bool rewrite_short(uint32_t series, Tail &tail);
  void set_next(const maddr_t &chunk, const maddr_t &next);
  void set_referrer(const maddr_t &chunk, const srcaddr_t &referrer);

  // Joining and moving.
  void find_short(Tail &tail) const;
  std::shared_ptr<ChainPlace> place_in(uint32_t series) const;
  bool is_being_erased(uint32_t series) const { return place_in(series) != nullptr; }
  bool join_short(uint32_t series, Tail &tail, bool with_open = false);
  void replace_short(uint32_t series, Tail &tail, maddr_t first, const maddr_t &joined, uint32_t n_chunks);
  void pack_series(uint32_t series, Tail &tail);
  void choose_slots(bool is_final);
  bool is_chosen(const maddr_t &address) const;
  uint32_t move_chunks(uint32_t series, Tail &tail);
  maddr_t copy_chunk(const maddr_t &address, const srcaddr_t &referrer, size_t n_used_bytes);
  void move_open(uint32_t series, Tail &tail);
  maddr_t move_sealed(uint32_t series, Tail &tail, const maddr_t *previous, const maddr_t &address);

  // Forgetting.
  bool are_all_hidden(const char *points, uint32_t count) const;
  void remove_points_chunk(const SeriesRecord &record, const maddr_t &address, uint32_t n_lost);
  void drop_first_sealed(uint32_t series, const SeriesRecord &record);
  void forget_content(uint32_t series, const SeriesRecord &record);
  void free_series(uint32_t series);
  bool forget_old(uint32_t series);
  void inactivate_idle_series();
  void release_slots(Sweep &found);

  // Erasing.
  bool is_same(const LiveSeries &which) const;
  uint32_t erase_in_sealed(ChainPlace &place, const TimeRange &range);
  void replace_sealed(ChainPlace &place, const maddr_t &address, const char *points, uint32_t count);
  void erase_in_open(uint32_t series, Tail &tail, const TimeRange &range);
  uint32_t end_series(const ChainPlace &place, const TimeRange &range);

  // Batches.
  void mark_changed(uint32_t series, Tail &tail, Change change = Change::all);
  void log_series(uint32_t series, Tail &tail);

  StoreConfig config_;
  Array catalogue_;
  ChunkPool keys_;
  ChunkPool points_;
  std::unordered_map<std::string_view, uint32_t> series_by_key_;  // the keys are in the pool
  std::vector<Tail> tails_;                                       // by series
  uint64_t n_points_ = 0;
  int64_t data_time_ns_ = INT64_MIN;
  std::optional<int64_t> clock_ns_;
  uint64_t n_since_sweep_ = 0;
  ForgetCounts forgotten_;
  std::weak_ptr<ChainPlace> place_;     // of the erasure that was continued last
  std::unique_ptr<Followed> followed_;  // null: this process changes the store

  std::unique_ptr<LiveState> live_;  // null: no other thread reads the store
  tslb_batch_t *batch_ = nullptr;
  std::vector<uint32_t> changed_series_;  // in this batch
  std::vector<char> sealed_;              // a chunk that is being made
  std::vector<Point> erased_chunk_;       // what an erasure leaves of a chunk
  std::vector<Point> joined_;
  uint64_t n_moves_ = 0;
  // While chunks are moved: the slots that are to become free, and the next series.
  std::vector<bool> chosen_slots_;
  uint32_t next_moved_ = 0;
  bool is_final_choice_ = false;
  uint64_t n_deleted_at_choice_ = 0;  // ChunkPool::n_deleted when slots were chosen
};

// Timestamps, both limits included.
struct TimeRange {
  int64_t from_ns = INT64_MIN;
  int64_t to_ns = INT64_MAX;

  bool contains(int64_t ts_ns) const { return ts_ns >= from_ns && ts_ns <= to_ns; }
};

// Walks the visible points of one series in a range of time, in order of arrival. It may or may not return points that
// are added during the walk. A sweep or a new series invalidates it.
class PointCursor {
 public:
  PointCursor(const Store &store, uint32_t series, const TimeRange &range = {});
  // The value of `point` has the type of the series.
  bool next(Point &point);
  ValueType type() const { return record_.type(); }
  // The same, but an integer becomes a real number.
  bool next_real(Point &point) {
    const bool has_point = next(point);
    if (has_point) point.value = real_of(point, type());
    return has_point;
  }

  // Number of points passed so far, including those in chunks that were skipped as a whole.
  uint64_t n_passed() const { return n_passed_; }

 private:
  bool next_of_any(Point &point);
  bool enter_sealed();

  dynmem_t *const pool_;
  const SeriesRecord record_;
  TimeRange range_;
  uint32_t n_sealed_left_;
  maddr_t next_sealed_;
  std::vector<Point> sealed_;  // of the current chunk
  size_t n_sealed_read_ = 0;
  uint32_t n_open_read_ = 0;
  uint64_t n_passed_ = 0;
};

}  // namespace metricdb
