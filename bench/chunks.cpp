// What does it cost to take a chunk of a pool?
//
// Asked: tslb_dynmem_get_mchunk of 16, 64 and 256 bytes in a temporary ring pool with slots of 1 MiB, with 1
// and 2 threads; the change of slot, every 4,096 to 65,536 chunks, is part of it. Against the floor (floor.h:
// the seven atomics, on words that lie in their pages as the pool's do), and against malloc.
//
// Not asked: what the caller does with a chunk. Nobody touches its bytes here, the library neither, while
// malloc writes a header beside each; what malloc gave is released outside the measured time.
//
// Run: bench_chunks [--quick] [--benchmark_filter=REGEX]
#include <stdlib.h>
#include <string.h>

#include <memory>
#include <string>
#include <vector>

#include "floor.h"
#include "ratio.h"
#include "tslb_dynmem.h"

constexpr uint32_t SLOT_BYTES = 1u << 20;
constexpr uint32_t CHUNKS_PER_THREAD = 1u << 13;
constexpr unsigned MAX_THREADS = 2;
constexpr uint32_t MAX_CHUNK = 256;
// A ring says so on the standard output when it wraps. None does here: one pool serves all rounds of a case.
static_assert(uint64_t{ROUNDS + 1} * MAX_THREADS * CHUNKS_PER_THREAD * MAX_CHUNK <= uint64_t{250} * SLOT_BYTES);

// What a run hands back for each chunk, one row per thread.
using results_t = std::vector<std::vector<void *>>;
static std::shared_ptr<results_t> make_results() {
  return std::make_shared<results_t>(MAX_THREADS, std::vector<void *>(CHUNKS_PER_THREAD));
}

static std::shared_ptr<dynmem_t> make_pool() {
  dynmem_t *const pool = tslb_init_dynmem(SLOT_BYTES, 1, 0, MPOOL_TYPE_DRAM_TMP, MPOOL_FLAG_BV, nullptr, 0, 0);
  if (pool == nullptr) abort();
  return {pool, destroy_dyn_arr};
}

static DynMemHdr_t *hdr_of(const dynmem_t *pool) {
  return reinterpret_cast<DynMemHdr_t *>(static_cast<char *>(pool->arr_base) + sizeof(DynHdr_t));
}

// Bytes that a thread took, from the addresses it was given. All rivals come to the same sum.
static uint64_t bytes_taken(const std::vector<void *> &chunks, uint32_t len) {
  uint64_t sum = 0;
  for (const void *chunk : chunks) sum += chunk != nullptr ? len : 0;
  return sum;
}

static rival_t ours(const std::shared_ptr<dynmem_t> &pool, uint32_t len) {
  return {"tslb",
          [pool, len, results = make_results()](unsigned thread) {
            std::vector<void *> &chunks = (*results)[thread];
            maddr_t address;
            for (void *&chunk : chunks)
              chunk = tslb_dynmem_get_mchunk(pool.get(), &address, static_cast<int>(len), srcaddr_t{});
            return bytes_taken(chunks, len);
          },
          {}};
}

// Zeroed memory whose address has the same place in its page as `like`.
static char *placed_like(std::vector<char> *memory, const void *like) {
  constexpr uintptr_t PAGE = 4096;
  memory->assign(3 * PAGE, 0);
  const uintptr_t page = (reinterpret_cast<uintptr_t>(memory->data()) + PAGE - 1) & ~(PAGE - 1);
  return reinterpret_cast<char *>(page + reinterpret_cast<uintptr_t>(like) % PAGE);
}

static rival_t floor_of(const std::shared_ptr<dynmem_t> &pool, uint32_t len) {
  struct words_t {
    std::vector<char> hdr, slot, totals;
    floor_pool_t pool;
  };
  const auto words = std::make_shared<words_t>();
  maddr_t address;
  const void *const slot =
      static_cast<char *>(tslb_dynmem_get_mchunk(pool.get(), &address, 8, srcaddr_t{})) - sizeof(MemSlot_t);
  words->pool.hdr = reinterpret_cast<DynMemHdr_t *>(placed_like(&words->hdr, hdr_of(pool.get())));
  words->pool.bytes_used = reinterpret_cast<uint32_t *>(placed_like(&words->slot, slot));
  words->pool.totals = reinterpret_cast<GlobalMemStats_t *>(placed_like(&words->totals, &g_mem_st));
  return {"floor",
          [words, len, results = make_results()](unsigned thread) {
            std::vector<void *> &chunks = (*results)[thread];
            // From 1 on: an offset of 0 is a chunk too.
            for (void *&chunk : chunks)
              chunk = reinterpret_cast<void *>(uintptr_t{floor_take_chunk(&words->pool, len)} + 1);
            return bytes_taken(chunks, len);
          },
          [words] { words->pool.hdr->cur_slot_addr = 0; }};
}

static void free_all(results_t *results) {
  for (std::vector<void *> &chunks : *results)
    for (void *&chunk : chunks) {
      free(chunk);
      chunk = nullptr;
    }
}

static rival_t allocator(uint32_t len) {
  const std::shared_ptr<results_t> results(new results_t(MAX_THREADS, std::vector<void *>(CHUNKS_PER_THREAD)),
                                           [](results_t *last) {
                                             free_all(last);
                                             delete last;
                                           });
  return {"malloc",
          [results, len](unsigned thread) {
            std::vector<void *> &chunks = (*results)[thread];
            for (void *&chunk : chunks) chunk = malloc(len);
            return bytes_taken(chunks, len);
          },
          [results] { free_all(results.get()); }};
}

static void add_cases() {
  for (const unsigned threads : {1u, MAX_THREADS})
    for (const uint32_t len : {16u, 64u, MAX_CHUNK})
      add_case(std::to_string(len) + " bytes, " + (threads == 1 ? "1 thread" : "2 threads"), threads, [len] {
        const std::shared_ptr<dynmem_t> pool = make_pool();
        return std::vector<rival_t>{ours(pool, len), floor_of(pool, len), allocator(len)};
      });
}

int main(int argc, char **argv) {
  return run_cases(argc, argv, "| chunk, time relative to", add_cases);
}
