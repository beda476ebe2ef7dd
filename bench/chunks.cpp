// Cost of allocating a chunk of a pool.
//
// Measured: tslb_dynmem_get_mchunk of 16, 64 and 256 bytes in a temporary ring pool with slots of 1 MiB, with 1 and 2
// threads. This includes the change of slot after 4,096 to 65,536 chunks. Compared with the floor (floor.h: the seven
// atomics, on words in the same pages as the pool's), with malloc, mimalloc and jemalloc, with the standard library's
// monotonic buffer and a mutex, and with Boost.Interprocess's allocator in a mapped file on a tmpfs, whose addresses
// are also valid in other processes.
//
// Not measured: the use of a chunk by the caller. No candidate writes its bytes, except that malloc writes a header
// next to each. Memory of the peers is released outside the measured time.
//
// Run: bench_chunks [--quick] [--benchmark_filter=REGEX]
#include <stdlib.h>
#include <string.h>

#include <memory>
#include <memory_resource>
#include <mutex>
#include <string>
#include <vector>

#include <tslb/tslb_dynmem.h>
#include "allocators.h"
#include "floor.h"
#include "ratio.h"
#include "scratch.h"
#ifdef TSLB_BENCH_BOOST
#include <boost/interprocess/managed_mapped_file.hpp>
#endif

constexpr uint32_t SLOT_BYTES = 1u << 20;
constexpr uint32_t CHUNKS_PER_THREAD = 1u << 13;
constexpr unsigned MAX_THREADS = 2;
constexpr uint32_t MAX_CHUNK = 256;
// A ring reports its wraps on the standard output. None wraps here: one pool is used in all rounds of a case.
static_assert(uint64_t{ROUNDS + 1} * MAX_THREADS * CHUNKS_PER_THREAD * MAX_CHUNK <= uint64_t{250} * SLOT_BYTES);

// The results of a run: one pointer per chunk, one row per thread.
using results_t = std::vector<std::vector<void *>>;
static std::shared_ptr<results_t> make_results() {
  return std::make_shared<results_t>(MAX_THREADS, std::vector<void *>(CHUNKS_PER_THREAD));
}

static std::shared_ptr<dynmem_t> make_pool() {
  dynmem_t *const pool = tslb_init_dynmem(SLOT_BYTES, 1, 0, MPOOL_TYPE_DRAM_TMP, MPOOL_FLAG_BV, nullptr, 0, 0);
  if (pool == nullptr) abort();
  return {pool, destroy_dyn_arr};
}

// Returns the bytes that a thread took, computed from the addresses. All candidates have the same sum.
static uint64_t bytes_taken(const std::vector<void *> &chunks, uint32_t len) {
  uint64_t sum = 0;
  for (const void *chunk : chunks) sum += chunk != nullptr ? len : 0;
  return sum;
}

// `take` has the contract of tslb_dynmem_get_mchunk.
static candidate_t pool_candidate(const char *name, uint32_t len, decltype(&tslb_dynmem_get_mchunk) take) {
  return {name,
          [take, len, pool = make_pool(), results = make_results()](unsigned thread) {
            std::vector<void *> &chunks = (*results)[thread];
            maddr_t address;
            for (void *&chunk : chunks) chunk = take(pool.get(), &address, static_cast<int>(len), srcaddr_t{});
            return bytes_taken(chunks, len);
          },
          {}};
}

// ---- Peers

static void release_all(results_t *results, const std::function<void(void *)> &give) {
  for (std::vector<void *> &chunks : *results)
    for (void *&chunk : chunks) {
      if (chunk != nullptr) give(chunk);
      chunk = nullptr;
    }
}

// A peer that takes chunks one by one. `give` releases them before the next run and at the end.
template <class Take>
static candidate_t taking_peer(const char *name, uint32_t len, Take take, const std::function<void(void *)> &give) {
  const std::shared_ptr<results_t> results(new results_t(MAX_THREADS, std::vector<void *>(CHUNKS_PER_THREAD)),
                                           [give](results_t *last) {
                                             release_all(last, give);
                                             delete last;
                                           });
  return {name,
          [results, len, take](unsigned thread) {
            std::vector<void *> &chunks = (*results)[thread];
            for (void *&chunk : chunks) chunk = take(len);
            return bytes_taken(chunks, len);
          },
          [results, give] { release_all(results.get(), give); }};
}

// The buffer has space for one run.
static candidate_t locked_buffer(uint32_t len) {
  struct shared_t {
    std::mutex mutex;
    std::vector<char> memory = std::vector<char>(MAX_THREADS * CHUNKS_PER_THREAD * MAX_CHUNK);
    std::unique_ptr<std::pmr::monotonic_buffer_resource> buffer;
  };
  const auto shared = std::make_shared<shared_t>();
  return {"mutex + pmr monotonic",
          [shared, len, results = make_results()](unsigned thread) {
            std::vector<void *> &chunks = (*results)[thread];
            for (void *&chunk : chunks) {
              const std::lock_guard<std::mutex> guard(shared->mutex);
              chunk = shared->buffer->allocate(len, 1);
            }
            return bytes_taken(chunks, len);
          },
          [shared] {
            shared->buffer = std::make_unique<std::pmr::monotonic_buffer_resource>(
                shared->memory.data(), shared->memory.size(), std::pmr::null_memory_resource());
          }};
}

#ifdef TSLB_BENCH_BOOST
constexpr uint64_t FILE_BYTES = uint64_t{4} * MAX_THREADS * CHUNKS_PER_THREAD * MAX_CHUNK;

static candidate_t mapped_file(uint32_t len) {
  using file_t = boost::interprocess::managed_mapped_file;
  const auto file = std::make_shared<file_t>(boost::interprocess::open_or_create,
                                             (scratch_dir(FILE_BYTES) + "/chunks").c_str(), FILE_BYTES);
  return taking_peer(
      "Boost mapped file", len, [file](uint32_t bytes) { return file->allocate(bytes); },
      [file](void *chunk) { file->deallocate(chunk); });
}
#endif

static std::vector<candidate_t> make_candidates(uint32_t len) {
  std::vector<candidate_t> candidates = {pool_candidate("tslb", len, tslb_dynmem_get_mchunk),
                                         pool_candidate("floor", len, floor_take_chunk)};
  for (const allocator_t &allocator : allocators())
    candidates.push_back(taking_peer(allocator.name, len, allocator.take, allocator.give));
  candidates.push_back(locked_buffer(len));
#ifdef TSLB_BENCH_BOOST
  if (!scratch_dir(FILE_BYTES).empty()) candidates.push_back(mapped_file(len));
#endif
  return candidates;
}

static void add_cases() {
#ifdef TSLB_BENCH_BOOST
  scratch_dir(FILE_BYTES);  // before any thread starts
#endif
  for (const unsigned threads : {1u, MAX_THREADS})
    for (const uint32_t len : {16u, 64u, MAX_CHUNK})
      add_case(
          std::to_string(len) + " bytes, " + (threads == 1 ? "1 thread" : "2 threads"), threads,
          [len] { return make_candidates(len); }, uint64_t{threads} * CHUNKS_PER_THREAD);
}

int main(int argc, char **argv) {
  return run_cases(argc, argv, "| chunk, time relative to", add_cases);
}
