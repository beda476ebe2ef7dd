// Takes chunks of a pool without the risk that the library ends the process.
//
// The library stops the process when a pool must leave the last slot that an address can name. So that slot is never
// taken: a take that needs a slot when all others are in use fails. Far from the limit takes run without a lock; each of
// them needs at most one new slot, and no more than Gate::MAX_INSIDE run at once. Near the limit they run one by one.
#pragma once

#include <tslb/durable.h>

#include <atomic>
#include <cstdint>
#include <mutex>

namespace tslb_durable {

class ChunkRoom {
 public:
  // max_slots  of the declaration, or 0.
  ChunkRoom(DynArrHandle_t *pool, tslb_array_kind_t kind, int16_t max_slots);

  // Returns the chunk, compaction header included. Null: the pool has no room. The lengths were checked.
  void *take(uint32_t bytes, const srcaddr_t &referrer, maddr_t *address);

  tslb_pool_room_t room() const;

 private:
  bool has_room(uint32_t total_bytes) const;

  DynArrHandle_t *const pool_;
  const uint32_t n_slots_max_;  // that may be taken
  const uint32_t compat_bytes_;
  std::atomic<uint32_t> n_unlocked_{0};  // takes that run without the lock
  std::mutex mutex_;
};

}  // namespace tslb_durable
