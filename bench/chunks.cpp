// What does it cost to take a chunk of a pool?
//
// Asked: tslb_dynmem_get_mchunk of 16, 64 and 256 bytes in a temporary ring pool with slots of 1 MiB, with 1
// and 2 threads; the change of slot, every 4,096 to 65,536 chunks, is part of it. Against the floor (floor.h:
// the seven atomics, on words that lie in their pages as the pool's do), against malloc, mimalloc and jemalloc, against
// the standard library's monotonic buffer behind a mutex, and against Boost.Interprocess's allocator in a mapped file
// on a tmpfs, which too is found by an offset in another process.
//
// Not asked: what the caller does with a chunk. Nobody touches its bytes here, the library neither, while
// malloc writes a header beside each; what the peers gave is released outside the measured time.
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

// Bytes that a thread took, from the addresses it was given. All rivals come to the same sum.
static uint64_t bytes_taken(const std::vector<void *> &chunks, uint32_t len) {
  uint64_t sum = 0;
  for (const void *chunk : chunks) sum += chunk != nullptr ? len : 0;
  return sum;
}

// `take` as tslb_dynmem_get_mchunk.
static rival_t pool_rival(const char *name, uint32_t len, decltype(&tslb_dynmem_get_mchunk) take) {
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

// A peer that takes chunks one by one and has them back by `give` ahead of the next run, and at the end.
template <class Take>
static rival_t taking_peer(const char *name, uint32_t len, Take take, const std::function<void(void *)> &give) {
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

// The buffer has room for a run.
static rival_t locked_buffer(uint32_t len) {
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

static rival_t mapped_file(uint32_t len) {
  using file_t = boost::interprocess::managed_mapped_file;
  const auto file = std::make_shared<file_t>(boost::interprocess::open_or_create,
                                             (scratch_dir(FILE_BYTES) + "/chunks").c_str(), FILE_BYTES);
  return taking_peer(
      "Boost mapped file", len, [file](uint32_t bytes) { return file->allocate(bytes); },
      [file](void *chunk) { file->deallocate(chunk); });
}
#endif

static std::vector<rival_t> make_rivals(uint32_t len) {
  std::vector<rival_t> rivals = {pool_rival("tslb", len, tslb_dynmem_get_mchunk),
                                 pool_rival("floor", len, floor_take_chunk)};
  for (const allocator_t &allocator : allocators())
    rivals.push_back(taking_peer(allocator.name, len, allocator.take, allocator.give));
  rivals.push_back(locked_buffer(len));
#ifdef TSLB_BENCH_BOOST
  if (!scratch_dir(FILE_BYTES).empty()) rivals.push_back(mapped_file(len));
#endif
  return rivals;
}

static void add_cases() {
#ifdef TSLB_BENCH_BOOST
  scratch_dir(FILE_BYTES);  // ahead of all threads
#endif
  for (const unsigned threads : {1u, MAX_THREADS})
    for (const uint32_t len : {16u, 64u, MAX_CHUNK})
      add_case(
          std::to_string(len) + " bytes, " + (threads == 1 ? "1 thread" : "2 threads"), threads,
          [len] { return make_rivals(len); }, uint64_t{threads} * CHUNKS_PER_THREAD);
}

int main(int argc, char **argv) {
  return run_cases(argc, argv, "| chunk, time relative to", add_cases);
}
