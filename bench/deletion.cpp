// Cost of deleting a chunk, of freeing an empty slot, and of a sweep of a pool.
//
// Measured: tslb_dynmem_del_mchunk, per chunk: chunks of 64 bytes in slots that hold about 800 of them, with 1 and 2
// threads (each owns every other chunk), and chunks that fill a slot each, so that every deletion frees a slot.
// tslb_dynmem_update_free_list, per slot, over slots that stay and over slots that it frees. Compared with the floor
// (floor.h: the read of the compaction header, the write of its flag, one get_and_inc32; if a slot is freed, the lock
// and the words of the free list; for a sweep the slots' words at known places). Deletions of chunks are also compared
// with free of as many bytes, by the C library, mimalloc and jemalloc.
//
// Not measured: allocation of the chunks (bench_chunks). The pools are of MPOOL_TYPE_SHM_TMP: process memory, no ring,
// never redo logged.
//
// Run: bench_deletion [--quick] [--benchmark_filter=REGEX]
#include <stdlib.h>

#include <memory>
#include <string>
#include <vector>

#include <tslb/tslb_dynarr.h>
#include <tslb/tslb_dynmem.h>
#include "allocators.h"
#include "floor.h"
#include "ratio.h"

constexpr uint32_t HEADER = sizeof(compat_t);
constexpr unsigned MAX_THREADS = 2;
constexpr uint32_t SLOTS_MAX = 256;  // of one pool

// Pools and chunks of a case. A pool has at most 256 slots, so a case that empties many slots has several pools.
struct layout_t {
  uint32_t pools;
  uint32_t mslot_sz;
  uint32_t chunks_per_pool;
  uint32_t chunk_bytes;  // without the header
};
constexpr layout_t PACKED = {1, 65536, 2 * 8192, 64};
constexpr layout_t FILLING = {16, 512, 240, 512 - HEADER};
static_assert(uint64_t{PACKED.chunks_per_pool} / (PACKED.mslot_sz / (PACKED.chunk_bytes + HEADER)) + 2 < SLOTS_MAX);
static_assert(FILLING.chunks_per_pool + 1 < SLOTS_MAX);

struct pool_t {
  std::shared_ptr<dynmem_t> handle;
  DynMemHdr_t *hdr;
  maddr_t last;  // the last chunk, in the current slot or in one that was current
};

struct chunk_t {
  const pool_t *pool;
  compat_t *header;
  MemSlot_t *mslot;
  maddr_t address;
};

static MemSlot_t *mslot_of(const pool_t &pool, uint32_t idx) {
  return static_cast<MemSlot_t *>(tslb_da_get_ptr(pool.handle.get(), idx));
}
static uint32_t current_of(const pool_t &pool) {
  return static_cast<uint32_t>(__atomic_load_n(&pool.hdr->cur_slot_addr, __ATOMIC_RELAXED));
}
static bool looks_empty(const MemSlot_t *mslot) {
  return __atomic_load_n(&mslot->bytes_used, __ATOMIC_RELAXED) == __atomic_load_n(&mslot->bytes_del, __ATOMIC_RELAXED);
}

static chunk_t take_chunk(const pool_t &pool, uint32_t bytes) {
  chunk_t chunk = {&pool, nullptr, nullptr, {}};
  chunk.header = static_cast<compat_t *>(
      tslb_dynmem_get_mchunk(pool.handle.get(), &chunk.address, static_cast<int>(bytes), srcaddr_t{}));
  chunk.mslot = mslot_of(pool, chunk.address.mslot_idx);
  if (chunk.header == nullptr || chunk.mslot == nullptr) abort();
  return chunk;
}

// Creates a pool with one chunk.
static pool_t make_pool(uint32_t mslot_sz, uint32_t n_direct) {
  dynmem_t *const handle = tslb_init_dynmem(static_cast<int>(mslot_sz), static_cast<int>(n_direct), MPOOL_FLAG_COMPAT,
                                            MPOOL_TYPE_SHM_TMP, 0, nullptr, 0, TSLB_DA_DAFLAG_LL);
  if (handle == nullptr) abort();
  pool_t pool = {{handle, destroy_dyn_arr}, static_cast<DynMemHdr_t *>(get_user_hdr(handle)), {}};
  pool.last = take_chunk(pool, 1).address;
  return pool;
}

static void sweep(const pool_t &pool, size_t *used_sz, size_t *del_sz) {
  size_t total_sz;
  tslb_dynmem_update_free_list(pool.handle.get(), &total_sz, used_sz, del_sz);
}

// Returns the number of slots that are empty and not current but were not freed, plus the free list's error in its
// count.
static uint64_t misplaced_slots(const pool_t &pool) {
  const uint32_t n_slots = tslb_da_get_size(pool.handle.get());
  uint64_t wrong = 0;
  uint32_t n_free = 0;
  for (uint32_t idx = 0; idx < n_slots; ++idx) {
    const MemSlot_t *const mslot = mslot_of(pool, idx);
    const uint32_t status = reinterpret_cast<const node_fw *>(mslot)[-1].status;
    n_free += status == TSLB_DA_SLOT_FREE;
    wrong += status != TSLB_DA_SLOT_FREE && idx != current_of(pool) && looks_empty(mslot);
  }
  return wrong + (n_free != static_cast<const DynArrLLI_t *>(tslb_da_get_lli(pool.handle.get()))->n_free
                      ? uint64_t{1} << 32
                      : 0);
}

// ---- Deletion

// The chunks that a run deletes. The library allocates them, for the floor too.
struct chunk_set_t {
  layout_t layout;
  std::vector<pool_t> pools;
  std::vector<chunk_t> chunks;

  explicit chunk_set_t(const layout_t &wanted) : layout(wanted) {
    for (uint32_t i = 0; i < layout.pools; ++i) pools.push_back(make_pool(layout.mslot_sz, SLOTS_MAX));
  }

  void fill() {
    chunks.clear();
    for (pool_t &pool : pools) {
      tslb_dynmem_del_mchunk(pool.handle.get(), pool.last);
      for (uint32_t n = 0; n < layout.chunks_per_pool; ++n) chunks.push_back(take_chunk(pool, layout.chunk_bytes));
      // If chunks fill slots, it has its own slot, so that no other chunk is in the current slot.
      pool.last = take_chunk(pool, layout.chunk_bytes).address;
      size_t used_sz, del_sz;
      sweep(pool, &used_sz, &del_sz);
    }
  }

  uint64_t what_is_wrong() const {
    uint64_t sum = 0;
    for (const pool_t &pool : pools) sum += misplaced_slots(pool);
    for (const chunk_t &chunk : chunks) sum += (chunk.header->flag & MCHUNK_FLAG_DELETED) == 0;
    return sum;
  }
};

// Calls `delete_chunk`, which has the contract of tslb_dynmem_del_mchunk, on every chunk of the thread. The checksum
// counts them.
static candidate_t pool_candidate(const char *name, const layout_t &layout, unsigned threads,
                                  decltype(&tslb_dynmem_del_mchunk) delete_chunk) {
  const auto filled = std::make_shared<chunk_set_t>(layout);
  return {name,
          [filled, threads, delete_chunk](unsigned thread) {
            uint64_t count = 0;
            for (size_t i = thread; i < filled->chunks.size(); i += threads, ++count)
              delete_chunk(filled->chunks[i].pool->handle.get(), filled->chunks[i].address);
            return count;
          },
          [filled] { filled->fill(); }, [filled] { return filled->what_is_wrong(); }};
}

static candidate_t allocator_peer(const allocator_t &allocator, const layout_t &layout, unsigned threads) {
  const auto chunks = std::make_shared<std::vector<void *>>(size_t{layout.pools} * layout.chunks_per_pool);
  return {allocator.name,
          [chunks, threads, allocator](unsigned thread) {
            uint64_t count = 0;
            for (size_t i = thread; i < chunks->size(); i += threads, ++count) allocator.give((*chunks)[i]);
            return count;
          },
          [chunks, allocator, bytes = layout.chunk_bytes] {
            for (void *&chunk : *chunks) chunk = allocator.take(bytes);
          }};
}

static std::vector<candidate_t> make_deletions(const layout_t &layout, unsigned threads) {
  std::vector<candidate_t> candidates = {pool_candidate("tslb", layout, threads, tslb_dynmem_del_mchunk),
                                         pool_candidate("floor", layout, threads, floor_delete_chunk)};
  for (const allocator_t &allocator : allocators()) candidates.push_back(allocator_peer(allocator, layout, threads));
  return candidates;
}

static void add_deletion(const char *name, const layout_t &layout) {
  for (const unsigned threads : {1u, MAX_THREADS})
    add_case(
        std::string(name) + (threads == 1 ? ", 1 thread" : ", 2 threads"), threads,
        [&layout, threads] { return make_deletions(layout, threads); },
        uint64_t{layout.pools} * layout.chunks_per_pool);
}

// ---- Sweep

using pools_t = std::vector<pool_t>;

constexpr uint32_t SWEPT_SLOTS = 250;
constexpr uint32_t SWEEPS = 64;

// One pool whose slots have two chunks each; the first of them is deleted.
static std::shared_ptr<pools_t> make_staying(uint32_t n_direct) {
  const auto swept = std::make_shared<pools_t>();
  swept->push_back(make_pool(FILLING.mslot_sz, n_direct));
  const pool_t &pool = swept->front();
  constexpr uint32_t HALF = FILLING.mslot_sz / 2 - HEADER;
  for (uint32_t i = 1; i < SWEPT_SLOTS; ++i) {
    tslb_dynmem_del_mchunk(pool.handle.get(), take_chunk(pool, HALF).address);
    take_chunk(pool, HALF);
  }
  return swept;
}

// Pools whose slots became empty while they were current, so that no deletion freed them.
static std::shared_ptr<pools_t> make_emptied() {
  const auto swept = std::make_shared<pools_t>();
  for (uint32_t i = 0; i < FILLING.pools; ++i) swept->push_back(make_pool(FILLING.mslot_sz, SLOTS_MAX));
  return swept;
}
static void empty_slots(pools_t *swept) {
  for (pool_t &pool : *swept) {
    for (uint32_t n = 0; n < FILLING.chunks_per_pool; ++n) {
      tslb_dynmem_del_mchunk(pool.handle.get(), pool.last);
      pool.last = take_chunk(pool, FILLING.chunk_bytes).address;
    }
  }
}

// Calls `sweep_pool`, which has the contract of tslb_dynmem_update_free_list, on all pools; many times if the slots
// stay.
static candidate_t sweep_candidate(const char *name, const std::shared_ptr<pools_t> &swept, bool emptied,
                                   decltype(&tslb_dynmem_update_free_list) sweep_pool) {
  candidate_t candidate = {name,
                           [swept, emptied, sweep_pool](unsigned) {
                             uint64_t sum = 0;
                             for (uint32_t round = 0; round < (emptied ? 1 : SWEEPS); ++round)
                               for (const pool_t &pool : *swept) {
                                 size_t total_sz, used_sz, del_sz;
                                 sweep_pool(pool.handle.get(), &total_sz, &used_sz, &del_sz);
                                 sum += used_sz + (uint64_t{del_sz} << 32);
                               }
                             return sum;
                           },
                           {}};
  if (emptied) candidate.prepare = [swept] { empty_slots(swept.get()); };
  candidate.verify = [swept] {
    uint64_t sum = 0;
    for (const pool_t &pool : *swept) sum += misplaced_slots(pool);
    return sum;
  };
  return candidate;
}

static std::vector<candidate_t> make_sweeps(const std::shared_ptr<pools_t> &tslb_pools,
                                            const std::shared_ptr<pools_t> &floor_pools, bool emptied) {
  return {sweep_candidate("tslb", tslb_pools, emptied, tslb_dynmem_update_free_list),
          sweep_candidate("floor", floor_pools, emptied, floor_sweep)};
}

static void add_cases() {
  add_deletion("64 bytes, 819 to a slot", PACKED);
  add_deletion("512 bytes, a slot each", FILLING);
  begin_table("| slot swept, time relative to");
  add_case(
      "stays, direct area", 1, [] { return make_sweeps(make_staying(SLOTS_MAX), make_staying(SLOTS_MAX), false); },
      uint64_t{SWEEPS} * SWEPT_SLOTS);
  add_case(
      "stays, level 1", 1, [] { return make_sweeps(make_staying(0), make_staying(0), false); },
      uint64_t{SWEEPS} * SWEPT_SLOTS);
  add_case(
      "freed", 1, [] { return make_sweeps(make_emptied(), make_emptied(), true); },
      uint64_t{FILLING.pools} * FILLING.chunks_per_pool);
}

int main(int argc, char **argv) {
  return run_cases(argc, argv, "| chunk deleted, time relative to", add_cases);
}
