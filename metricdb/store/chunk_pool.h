// One of the two pools of a store: its chunks, and the names of their changes for a batch.
//
// An address names the chunk's data, which follows its compaction header. That header names the place that refers to
// the chunk. Deleting the last chunk of a memory slot releases the slot, except the current slot, which the next sweep
// releases.
//
// Threads: one.
#pragma once

#include <tslb/durable.h>
#include <tslb/tslb_dynarr.h>
#include <tslb/tslb_dynmem.h>

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <utility>
#include <vector>

namespace metricdb {

// The arrays of a store, by their numbers in a durable store.
enum : uint32_t { CATALOGUE = 0, KEYS = 1, POINTS = 2, N_ARRAYS = 3 };
inline constexpr const char *ARRAY_NAMES[] = {"catalogue", "keys", "points"};

// A view does not own its array.
struct ReleaseArray {
  bool owns = true;
  void operator()(DynArrHandle_t *array) const {
    if (owns) destroy_dyn_arr(array);
  }
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
  uint64_t max = 0;      // of all slots that the pool can have
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
  // number     of the array in its durable store.
  ChunkPool(Array array, const char *name, uint32_t max_slots, uint32_t number)
      : array_(std::move(array)), name_(name), max_slots_(max_slots), number_(number) {}

  dynmem_t *array() const { return array_.get(); }
  char *data(const maddr_t &address) const;
  uint32_t n_free_slots() const;
  PoolBytes bytes() const;

  // Reserves a chunk. Returns its data and sets `address`. Throws StoreFull.
  char *take(size_t bytes, const srcaddr_t &referrer, maddr_t &address);

  // Bytes of chunks that were deleted, since this object was made.
  uint64_t n_deleted() const { return n_deleted_; }

  // Returns which memory slots have that many percent of deleted bytes or more, without the current one.
  std::vector<bool> slots_with_deleted(uint32_t min_percent) const;

  // Marks a chunk deleted. Returns the number of memory slots that went to the free list.
  uint32_t remove(const maddr_t &address);

  // Releases the slots whose chunks are all deleted, and returns their number. Sets all of `found` but free_before.
  uint32_t sweep(PoolSweep &found);

  // From here on changes belong to this batch; null: to none.
  void set_batch(tslb_batch_t *batch) {
    batch_ = batch;
    batch_bytes_ = 0;
  }
  uint64_t batch_bytes() const { return batch_bytes_; }  // of chunks taken in this batch
  // Names a change of `bytes` bytes from `from` on, which lie in the chunk or its compaction header.
  void log(const maddr_t &address, const char *from, size_t bytes);
  // Names the first `bytes` bytes of a chunk's data.
  void log_data(const maddr_t &address, size_t bytes);

 private:
  template <class Visit>
  void for_each_slot(Visit visit) const;

  Array array_;
  const char *name_;
  uint32_t max_slots_;
  uint32_t number_;
  tslb_batch_t *batch_ = nullptr;
  uint64_t batch_bytes_ = 0;
  uint64_t n_deleted_ = 0;
};

}  // namespace metricdb
