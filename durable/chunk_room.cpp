#include "chunk_room.h"

#include <tslb/tslb_stored.h>

#include <algorithm>
#include <thread>

#include "gate.h"
#include "stored_array.h"

namespace tslb_durable {
namespace {

uint32_t last_slot_of(tslb_array_kind_t kind) {
  return kind == TSLB_POOL_BIT_VECTOR ? TSLB_BITVEC_LAST_SLOT : TSLB_BIGBUF_LAST_SLOT;
}

uint32_t compat_bytes_of(DynArrHandle_t *pool) {
  return (pool_header_of(pool)->flag & MPOOL_FLAG_COMPAT) != 0 ? TSLB_COMPAT_BYTES : 0;
}

// Other threads move the cursor and the counters of the lists.
uint64_t cursor_of(DynArrHandle_t *pool) {
  return __atomic_load_n(&pool_header_of(pool)->cur_slot_addr, __ATOMIC_RELAXED);
}

uint32_t list_count(DynArrHandle_t *pool, size_t offset) {
  if ((pool->daflag & (TSLB_DA_DAFLAG_LL | TSLB_DA_DAFLAG_INLL)) == 0) return 0;
  const auto *const count =
      reinterpret_cast<const uint32_t *>(static_cast<const char *>(tslb_da_get_lli(pool)) + offset);
  return __atomic_load_n(count, __ATOMIC_RELAXED);
}

}  // namespace

ChunkRoom::ChunkRoom(DynArrHandle_t *pool, tslb_array_kind_t kind, int16_t max_slots)
    : pool_(pool),
      n_slots_max_(max_slots > 0 ? std::min<uint32_t>(static_cast<uint16_t>(max_slots), last_slot_of(kind))
                                 : last_slot_of(kind)),
      compat_bytes_(compat_bytes_of(pool)) {}

// The result holds until another thread takes a chunk of this pool.
bool ChunkRoom::has_room(uint32_t total_bytes) const {
  const uint64_t cursor = cursor_of(pool_);
  const bool fits_current = tslb_stored_cursor_slot(cursor) != TSLB_DA_NIL_IDX &&
                            pool_header_of(pool_)->mslot_sz - tslb_stored_cursor_off(cursor) >= total_bytes;
  return fits_current || list_count(pool_, offsetof(DynArrLLI_t, n_free)) != 0 ||
         tslb_da_get_size(pool_) < n_slots_max_;
}

void *ChunkRoom::take(uint32_t bytes, const srcaddr_t &referrer, maddr_t *address) {
  const auto length = static_cast<int>(bytes);
  // Sequentially consistent, as the lock's side below: a take that reads a low number of slots is seen by a thread that
  // reads a high one.
  n_unlocked_.fetch_add(1);
  if (tslb_da_get_size(pool_) + Gate::MAX_INSIDE < n_slots_max_) {
    void *const chunk = tslb_dynmem_get_mchunk(pool_, address, length, referrer);
    n_unlocked_.fetch_sub(1);
    return chunk;
  }
  n_unlocked_.fetch_sub(1);
  const std::lock_guard lock(mutex_);
  while (n_unlocked_.load() != 0) std::this_thread::yield();
  return has_room(bytes + compat_bytes_) ? tslb_dynmem_get_mchunk(pool_, address, length, referrer) : nullptr;
}

tslb_pool_room_t ChunkRoom::room() const {
  const uint64_t slot_bytes = pool_header_of(pool_)->mslot_sz;
  const uint64_t cursor = cursor_of(pool_);
  const uint32_t n_used = tslb_da_get_size(pool_);
  tslb_pool_room_t room = {};
  if (tslb_stored_cursor_slot(cursor) != TSLB_DA_NIL_IDX) room.current = slot_bytes - tslb_stored_cursor_off(cursor);
  room.free = slot_bytes * list_count(pool_, offsetof(DynArrLLI_t, n_free));
  room.inactive = slot_bytes * list_count(pool_, offsetof(DynArrLLI_t, n_inact));
  room.fresh = n_used < n_slots_max_ ? slot_bytes * (n_slots_max_ - n_used) : 0;
  return room;
}

}  // namespace tslb_durable
