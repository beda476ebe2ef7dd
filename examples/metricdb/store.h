// Series and their points in tslb's arrays, in process memory.
//
//   catalogue   slot array, one SeriesRecord per series; its index is the series' number.
//   keys        big-buffer pool, one chunk per series: its key and a terminating zero.
//   points      bit-vector pool; the points of a series lie in a chain of chunks, in order of arrival. A
//   chunk
//               holds 4 points, the next one 16, all others 64, so that a short series stays cheap.
//
// No stored structure holds a pointer: chunks are named by their addresses, which are the same wherever the
// memory lies. Address 0 is the first chunk of a pool, so "none" is told by a count or a flag beside it.
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

namespace metricdb {

struct Point {
  int64_t ts_ns;
  double value;
};
TSLB_STORED_SIZE(Point, 16);

// Catalogue record of a series.
struct TSLB_UNALIGNED SeriesRecord {
  uint32_t
      gatekeeper;  // the array's word: all ones while the slot is taken and not filled; SERIES_READY then
  maddr_t key;
  maddr_t first_chunk;  // these two count for nothing while n_chunks is 0
  maddr_t last_chunk;
  uint32_t n_chunks;
  uint32_t reserved;  // 0
  uint64_t n_points;
};
TSLB_STORED_SIZE(SeriesRecord, 32);
TSLB_STORED_AT(SeriesRecord, gatekeeper, 0);
TSLB_STORED_AT(SeriesRecord, key, 4);
TSLB_STORED_AT(SeriesRecord, first_chunk, 8);
TSLB_STORED_AT(SeriesRecord, last_chunk, 12);
TSLB_STORED_AT(SeriesRecord, n_chunks, 16);
TSLB_STORED_AT(SeriesRecord, n_points, 24);

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

struct StoreConfig {
  // Usable bytes of one memory slot. The pools have 256 and 2,041 of them, so these values are good for
  // 256 MiB of keys and 2 GiB of points.
  int key_slot_bytes = 1 << 20;
  int point_slot_bytes = 1 << 20;
};

class Store {
 public:
  // Bytes of a key that the store takes: a chunk's length is a 16-bit figure, and the zero takes one.
  static constexpr size_t LONGEST_KEY = 65'534;

  explicit Store(const StoreConfig &config = {});

  // Number of the series with this key, made if there is none yet. Throws StoreFull.
  uint32_t series_of(std::string_view key);

  // Adds a point behind all others of the series. Throws StoreFull.
  void append(uint32_t series, const Point &point);

  uint32_t n_series() const { return tslb_da_get_size(catalogue_.get()); }
  uint64_t n_points() const { return n_points_; }

  // Both read the arrays, not what this class keeps beside them. The text lives as long as the store.
  const SeriesRecord &record(uint32_t series) const;
  std::string_view key(uint32_t series) const;

  // Bytes of the catalogue and both pools, headers and list nodes included.
  uint64_t bytes_in_use() const;    // records and chunks that were handed out
  uint64_t bytes_reserved() const;  // blocks that exist; what was never touched takes no memory yet

  dynarr_t *catalogue() const { return catalogue_.get(); }
  dynmem_t *keys() const { return keys_.get(); }
  dynmem_t *points() const { return points_.get(); }

 private:
  struct Release {
    void operator()(DynArrHandle_t *array) const { destroy_dyn_arr(array); }
  };
  using Array = std::unique_ptr<DynArrHandle_t, Release>;

  SeriesRecord *slot(uint32_t series) const;
  uint32_t add_series(std::string_view key);
  PointChunk *last_chunk(const SeriesRecord &series) const;
  PointChunk *add_chunk(uint32_t series);

  Array catalogue_;
  Array keys_;
  Array points_;
  std::unordered_map<std::string_view, uint32_t> series_by_key_;  // keys lie in the pool
  uint64_t n_points_ = 0;
};

// Walks the points of one series in order of arrival. Points added meanwhile may be seen or not.
class PointCursor {
 public:
  PointCursor(const Store &store, uint32_t series);
  bool next(Point &point);

 private:
  dynmem_t *pool_;
  const PointChunk *chunk_ = nullptr;  // null: no point is left
  uint16_t taken_ = 0;                 // points of that chunk
};

}  // namespace metricdb
