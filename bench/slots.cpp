// Cost of taking and freeing a slot.
//
// Measured: tslb_da_get_newptr and tslb_da_free_idx on slot arrays with a free list (LL) and also with an inactive list
// (INLL), records of 100 bytes and of 1 KiB, with 1, 2, 4 and 8 threads. A thread takes 64 slots, writes a word to each,
// reads it back, and frees the slots in the same order. 1,024 slots are free at the start, so the list is never empty.
// Compared with the floor (floor.h: the clock, two locks and unlocks through the host's cas16, the words of list and
// nodes, clearing the payload, in an array of the same kind), with malloc, mimalloc and jemalloc, with the standard
// library's synchronized_pool_resource, and with two free lists of as many slots: Boost's lock-free stack, and a
// std::vector with a std::mutex. The peers keep no time and no status, clear nothing, and return the slot freed last.
//
// Also with a reuse policy: the slots are on the inactive list, are taken from it (the free list is empty, and any age
// and share suffice) and inactivated again. While the free list has a slot, the policy is not evaluated.
//
// Not measured: redo records (the arrays are of MPOOL_TYPE_DRAM_TMP, which is never logged); new ids, which bench_ids
// measures; lookups of slots after the direct area, which bench_lookup measures.
//
// Run: bench_slots [--quick] [--benchmark_filter=REGEX]
#include <stdlib.h>

#include <array>
#include <memory>
#include <memory_resource>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <tslb/tslb_dynarr.h>
#include "allocators.h"
#include "floor.h"
#include "ratio.h"
#ifdef TSLB_BENCH_BOOST
#include <boost/lockfree/stack.hpp>
#endif

constexpr uint32_t N_SLOTS = 1024;
constexpr uint32_t BATCH = 64;
constexpr uint32_t BATCHES_PER_THREAD = 128;
constexpr unsigned MAX_THREADS = 8;
static_assert(MAX_THREADS * BATCH < N_SLOTS, "the free list is never empty");

// A slot that a thread owns.
struct slot_t {
  void *payload;
  uint32_t idx;  // not used by the peers
};

// The work of all candidates. The sum is wrong if two threads received the same slot.
template <class Take, class Free>
static uint64_t take_and_free(unsigned thread, Take take, Free free_one) {
  uint64_t sum = 0;
  std::array<slot_t, BATCH> held;
  for (uint32_t batch = 0; batch < BATCHES_PER_THREAD; ++batch) {
    uint32_t mark = thread * BATCHES_PER_THREAD * BATCH + batch * BATCH;
    for (slot_t &slot : held) {
      slot = take();
      static_cast<volatile uint32_t *>(slot.payload)[1] = mark++;
    }
    for (const slot_t &slot : held) sum += static_cast<volatile uint32_t *>(slot.payload)[1];
    for (const slot_t &slot : held) free_one(slot);
  }
  return sum;
}

static int inactivate(dynarr_t *array, uint32_t idx) {
  return tslb_da_inactivate_idx(array, idx, 0);
}
static int floor_inactivate(dynarr_t *array, uint32_t idx) {
  return floor_inactivate_slot(array, idx, 0);
}

struct kind_t {
  const char *name;
  uint8_t daflag;
  bool by_policy;  // slots go to the inactive list and are reused by policy
};

// Creates an array whose slots are all on the list from which they are taken.
static std::shared_ptr<dynarr_t> make_array(int record_size, const kind_t &kind) {
  dynarr_t *const array = tslb_da_init_ll(record_size, N_SLOTS, MPOOL_TYPE_DRAM_TMP, nullptr, 0, kind.daflag);
  uint32_t idx;
  for (uint32_t i = 0; i < N_SLOTS; ++i)
    if (array == nullptr || tslb_da_get_newptr(array, &idx) == nullptr) abort();
  for (idx = 0; idx < N_SLOTS; ++idx)
    if ((kind.by_policy ? inactivate(array, idx) : tslb_da_free_idx(array, idx)) != 0) abort();
  tsdb_mem_pressure_config_t policy = {};
  policy.mvt_reuse_policy_use = 1;
  if (kind.by_policy) tslb_da_register_reuse_policy(array, &policy);
  return {array, destroy_dyn_arr};
}

static candidate_t array_candidate(const char *name, std::shared_ptr<dynarr_t> array,
                                   decltype(&tslb_da_get_newptr) take, decltype(&tslb_da_free_idx) give) {
  return {name,
          [array = std::move(array), take, give](unsigned thread) {
            return take_and_free(
                thread,
                [&] {
                  slot_t slot;
                  slot.payload = take(array.get(), &slot.idx);
                  return slot;
                },
                [&](const slot_t &slot) { give(array.get(), slot.idx); });
          },
          {}};
}

static candidate_t allocator_peer(const allocator_t &allocator, size_t record_size) {
  return {allocator.name,
          [allocator, record_size](unsigned thread) {
            return take_and_free(
                thread,
                [&] {
                  return slot_t{allocator.take(record_size), 0};
                },
                [&](const slot_t &slot) { allocator.give(slot.payload); });
          },
          {}};
}

static candidate_t pool_resource(size_t record_size) {
  return {"pool_resource",
          [record_size, pool = std::make_shared<std::pmr::synchronized_pool_resource>()](unsigned thread) {
            return take_and_free(
                thread,
                [&] {
                  return slot_t{pool->allocate(record_size), 0};
                },
                [&](const slot_t &slot) { pool->deallocate(slot.payload, record_size); });
          },
          {}};
}

static candidate_t locked_vector(size_t record_size) {
  struct shared_t {
    std::mutex mutex;
    std::vector<char> memory;
    std::vector<void *> free_list;
  };
  const auto shared = std::make_shared<shared_t>();
  const size_t slot_bytes = (record_size + 15) & ~size_t{15};
  shared->memory.resize(N_SLOTS * slot_bytes);
  for (uint32_t i = 0; i < N_SLOTS; ++i) shared->free_list.push_back(shared->memory.data() + i * slot_bytes);
  return {"mutex + std::vector",
          [shared](unsigned thread) {
            return take_and_free(
                thread,
                [&] {
                  const std::lock_guard<std::mutex> guard(shared->mutex);
                  void *const payload = shared->free_list.back();
                  shared->free_list.pop_back();
                  return slot_t{payload, 0};
                },
                [&](const slot_t &slot) {
                  const std::lock_guard<std::mutex> guard(shared->mutex);
                  shared->free_list.push_back(slot.payload);
                });
          },
          {}};
}

#ifdef TSLB_BENCH_BOOST
static candidate_t lockfree_stack(size_t record_size) {
  struct shared_t {
    boost::lockfree::stack<void *, boost::lockfree::capacity<N_SLOTS>> free_list;
    std::vector<char> memory;
  };
  const auto shared = std::make_shared<shared_t>();
  const size_t slot_bytes = (record_size + 15) & ~size_t{15};
  shared->memory.resize(N_SLOTS * slot_bytes);
  for (uint32_t i = 0; i < N_SLOTS; ++i) shared->free_list.push(shared->memory.data() + i * slot_bytes);
  return {"Boost lockfree stack",
          [shared](unsigned thread) {
            return take_and_free(
                thread,
                [&] {
                  slot_t slot = {nullptr, 0};
                  if (!shared->free_list.pop(slot.payload)) abort();
                  return slot;
                },
                [&](const slot_t &slot) { shared->free_list.push(slot.payload); });
          },
          {}};
}
#endif

static std::vector<candidate_t> make_candidates(int record_size, const kind_t &kind) {
  const size_t bytes = static_cast<size_t>(record_size);
  std::vector<candidate_t> candidates = {
      array_candidate("tslb", make_array(record_size, kind), tslb_da_get_newptr,
                      kind.by_policy ? inactivate : tslb_da_free_idx),
      array_candidate("floor", make_array(record_size, kind), kind.by_policy ? floor_reuse_slot : floor_take_slot,
                      kind.by_policy ? floor_inactivate : floor_free_slot)};
  for (const allocator_t &allocator : allocators()) candidates.push_back(allocator_peer(allocator, bytes));
  candidates.push_back(pool_resource(bytes));
  candidates.push_back(locked_vector(bytes));
#ifdef TSLB_BENCH_BOOST
  candidates.push_back(lockfree_stack(bytes));
#endif
  return candidates;
}

static void add_cases() {
  for (const unsigned threads : {1u, 2u, 4u, MAX_THREADS})
    for (const kind_t &kind : {kind_t{"LL", TSLB_DA_DAFLAG_LL, false}, kind_t{"INLL", TSLB_DA_DAFLAG_INLL, false},
                               kind_t{"reused by policy", TSLB_DA_DAFLAG_INLL, true}})
      for (const int record_size : {100, 1024})
        add_case(
            std::string(kind.name) + ", " + (record_size == 100 ? "100 bytes, " : "1 KiB, ") + std::to_string(threads) +
                (threads == 1 ? " thread" : " threads"),
            threads, [record_size, kind] { return make_candidates(record_size, kind); },
            uint64_t{threads} * BATCHES_PER_THREAD * BATCH);
}

int main(int argc, char **argv) {
  return run_cases(argc, argv, "| slot taken and freed, time relative to", add_cases);
}
