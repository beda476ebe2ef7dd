// One of the two pools of a store: its chunks, and the redo records of their changes.
//
// An address names the chunk's data, which follows its compaction header. That header names the place that refers to
// the chunk. Deleting the last chunk of a memory slot releases the slot, except the current slot, which the next sweep
// releases.
//
// Threads: one.
#pragma once

#include <tslb/tslb_dynarr.h>
#include <tslb/tslb_dynmem.h>

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <utility>
#include <vector>

namespace metricdb {

struct ReleaseArray {
  void operator()(DynArrHandle_t *array) const { destroy_dyn_arr(array); }
};
using Array = std::unique_ptr<DynArrHandle_t, ReleaseArray>;

// A pool has no room for a chunk. The data that the store held before is intact.
class StoreFull : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Of the memory slots of a pool that are not free.
struct PoolBytes {
  uint64_t used = 0;     // by chunks, deleted ones included
  uint64_t deleted = 0;  // of those
};

// Result of a sweep of one pool.
struct PoolSweep {
  uint32_t free_before = 0;  // slots on the free list
  uint32_t free_after = 0;
  size_t total_bytes = 0;    // of the pool
  size_t used_bytes = 0;     // by chunks in the remaining slots, deleted ones included
  size_t deleted_bytes = 0;  // of those
};

class ChunkPool {
 public:
  // name       of the content, for messages.
  // max_slots  the highest number of memory slots that is used.
  ChunkPool(Array array, const char *name, uint32_t max_slots)
      : array_(std::move(array)), name_(name), max_slots_(max_slots) {}

  dynmem_t *array() const { return array_.get(); }
  char *data(const maddr_t &address) const;
  uint32_t n_free_slots() const;
  PoolBytes bytes() const;

  // Reserves a chunk. Returns its data and sets `address`. Throws StoreFull.
  char *take(size_t bytes, const srcaddr_t &referrer, maddr_t &address);

  // Marks a chunk deleted. Returns the number of memory slots that went to the free list.
  uint32_t remove(const maddr_t &address);

  // Releases the slots whose chunks are all deleted, and returns their number. Sets all of `found` but free_before.
  uint32_t sweep(PoolSweep &found);

  // From here on changes are logged.
  void begin_log();
  // Logs `bytes` bytes from `from` on, which lie in the chunk or its compaction header.
  void log(const maddr_t &address, const char *from, size_t bytes);
  // Logs a new chunk: the compaction header and the first `bytes` bytes of the data.
  void log_new(const maddr_t &address, size_t bytes);
  // Logs cursor and totals of the pool, and the counters of the slots changed since the last call.
  void log_counters();

 private:
  Array array_;
  const char *name_;
  uint32_t max_slots_;
  bool is_logging_ = false;
  std::vector<uint32_t> changed_slots_;  // each at least once
};

}  // namespace metricdb
