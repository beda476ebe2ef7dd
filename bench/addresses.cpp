// Cost of resolving the address of a chunk.
//
// Measured: tslb_dynmem_get_maddr2ptr in a big-buffer pool and in a bit-vector pool, and tslb_dynmem_get_maddr2ptr64,
// on chunks of 64 bytes without compaction headers in slots of 1 MiB, with one load of 8 bytes from the chunk. 1,000
// chunks lie in one slot, 100,000 in 7 slots of the direct area, and about a million in 65 slots, direct and at level
// 1. Two orders: random (addresses are known in advance, so that lookups overlap), and chased (each address is read
// from the previous chunk). Compared with the floor (floor.h), raw pointers to the same chunks (the limit),
// Boost.Interprocess's offset_ptr to them, and mdb_get of LMDB, by an integer key, in one read transaction on a tmpfs.
//
// With a million chunks no chunk is in a cache when a run begins: other memory is read before each run.
//
// Not measured: compaction headers, whose length is one addition; pools that grow meanwhile.
//
// Run: bench_addresses [--quick] [--benchmark_filter=REGEX]
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <map>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include <tslb/tslb_dynmem.h>
#include "floor.h"
#include "ratio.h"
#include "scratch.h"
#ifdef TSLB_BENCH_BOOST
#include <boost/interprocess/offset_ptr.hpp>
#endif
#ifdef TSLB_BENCH_LMDB
#include "environment.h"
#endif

constexpr uint32_t SLOT_BYTES = 1u << 20;
constexpr uint32_t DIRECT_SLOTS = 80;
constexpr uint32_t MANY = 1u << 20;
constexpr uint32_t LOOKUPS = 1u << 15;
#ifdef TSLB_BENCH_LMDB
constexpr uint64_t ROOM_BYTES = uint64_t{256} << 20;
#endif

#ifdef TSLB_BENCH_BOOST
template <class Chunk>
using offset_ptr_t = boost::interprocess::offset_ptr<Chunk>;
#else
template <class Chunk>
using offset_ptr_t = Chunk *;
#endif

// A chunk, with each kind of address of the next chunk in a cycle through all of them.
struct chunk_t {
  uint64_t value;
  maddr_t next32;
  uint32_t next_key;
  maddr64_t next64;
  chunk_t *next_raw;
  offset_ptr_t<chunk_t> next_offset;
  char rest[24];
};
static_assert(sizeof(chunk_t) == 64);

enum kind_t { BIG_BUFFER, BIT_VECTOR, WIDE };

// Chunks of a pool by their number, and their order of visits.
struct chunks_t {
  std::shared_ptr<dynmem_t> pool;
  std::vector<maddr_t> addresses32;
  std::vector<maddr64_t> addresses64;
  std::vector<chunk_t *> raw;
  std::vector<uint32_t> order;
};

static std::shared_ptr<dynmem_t> make_pool(kind_t kind, uint32_t n_direct) {
  dynmem_t *const pool = tslb_init_dynmem(SLOT_BYTES, static_cast<int>(n_direct), 0, MPOOL_TYPE_SHM_TMP,
                                          kind == BIT_VECTOR ? MPOOL_FLAG_BV : 0, nullptr, 0, 0);
  if (pool == nullptr) abort();
  return {pool, destroy_dyn_arr};
}

static std::shared_ptr<chunks_t> make_chunks(kind_t kind, uint32_t count, uint32_t n_direct) {
  const auto made = std::make_shared<chunks_t>();
  made->pool = make_pool(kind, n_direct);
  made->addresses32.resize(count);
  made->addresses64.resize(count);
  made->order.resize(count);
  for (uint32_t i = 0; i < count; ++i) {
    void *const chunk =
        kind == WIDE ? tslb_dynmem_get_mchunk64(made->pool.get(), &made->addresses64[i], sizeof(chunk_t), srcaddr64_t{})
                     : tslb_dynmem_get_mchunk(made->pool.get(), &made->addresses32[i], sizeof(chunk_t), srcaddr_t{});
    if (chunk == nullptr) abort();
    made->raw.push_back(static_cast<chunk_t *>(chunk));
  }
  std::iota(made->order.begin(), made->order.end(), 0u);
  std::shuffle(made->order.begin(), made->order.end(), std::mt19937(1));
  for (uint32_t i = 0; i < count; ++i) {
    const uint32_t next = made->order[(i + 1) % count];
    chunk_t *const chunk = made->raw[made->order[i]];
    chunk->value = made->order[i] * uint64_t{0x9E3779B97F4A7C15};
    chunk->next32 = made->addresses32[next];
    chunk->next64 = made->addresses64[next];
    chunk->next_key = next;
    chunk->next_raw = made->raw[next];
    chunk->next_offset = made->raw[next];
  }
  return made;
}

// ---- Candidates

// Fills the caches with other memory.
static void sweep_caches() {
  static std::vector<uint64_t> memory(uint64_t{96} << 17);
  benchmark::DoNotOptimize(std::accumulate(memory.begin(), memory.end(), uint64_t{0}));
}

struct visit_t {
  std::shared_ptr<chunks_t> chunks;
  bool chased;
};

// The loops of all candidates. `address_of` returns a chunk's address by its number, `next_of` the address stored in a
// chunk, and `reach` resolves either.
template <class AddressOf, class NextOf, class Reach>
static candidate_t candidate(const char *name, const visit_t &visit, AddressOf address_of, NextOf next_of,
                             Reach reach) {
  using address_t = std::decay_t<decltype(address_of(0))>;
  const auto addresses = std::make_shared<std::vector<address_t>>();
  const std::vector<uint32_t> &order = visit.chunks->order;
  for (uint32_t i = 0; i < LOOKUPS; ++i) addresses->push_back(address_of(order[i % order.size()]));
  candidate_t made = {name, {}, {}};
  if (visit.chunks->raw.size() >= MANY) made.prepare = sweep_caches;
  if (visit.chased)
    made.run = [chunks = visit.chunks, addresses, next_of, reach](unsigned) {
      uint64_t sum = 0;
      address_t address = addresses->front();
      for (uint32_t i = 0; i < LOOKUPS; ++i) {
        const chunk_t *const chunk = reach(address);
        sum += chunk->value;
        address = next_of(*chunk);
      }
      return sum;
    };
  else
    made.run = [chunks = visit.chunks, addresses, reach](unsigned) {
      uint64_t sum = 0;
      for (const address_t &address : *addresses) sum += reach(address)->value;
      return sum;
    };
  return made;
}

// Functions are template parameters, so that they are called directly.
template <void *(*RESOLVE)(dynmem_t *, maddr_t)>
static candidate_t candidate32(const char *name, const visit_t &visit) {
  return candidate(
      name, visit, [chunks = visit.chunks.get()](uint32_t i) { return chunks->addresses32[i]; },
      [](const chunk_t &chunk) { return chunk.next32; },
      [pool = visit.chunks->pool.get()](maddr_t address) {
        return static_cast<const chunk_t *>(RESOLVE(pool, address));
      });
}
template <void *(*RESOLVE)(dynmem_t *, maddr64_t)>
static candidate_t candidate64(const char *name, const visit_t &visit) {
  return candidate(
      name, visit, [chunks = visit.chunks.get()](uint32_t i) { return chunks->addresses64[i]; },
      [](const chunk_t &chunk) { return chunk.next64; },
      [pool = visit.chunks->pool.get()](maddr64_t address) {
        return static_cast<const chunk_t *>(RESOLVE(pool, address));
      });
}

static candidate_t raw_pointers(const visit_t &visit) {
  return candidate(
      "raw pointer", visit, [chunks = visit.chunks.get()](uint32_t i) { return chunks->raw[i]; },
      [](const chunk_t &chunk) { return chunk.next_raw; }, [](const chunk_t *chunk) { return chunk; });
}

#ifdef TSLB_BENCH_BOOST
static candidate_t offset_pointers(const visit_t &visit) {
  return candidate(
      "offset_ptr", visit, [chunks = visit.chunks.get()](uint32_t i) { return offset_ptr_t<chunk_t>(chunks->raw[i]); },
      [](const chunk_t &chunk) { return chunk.next_offset; },
      [](const offset_ptr_t<chunk_t> &chunk) { return chunk.get(); });
}
#endif

#ifdef TSLB_BENCH_LMDB
// Copies of the chunks with their numbers as keys. Values and keys do not depend on the kind of pool.
static std::shared_ptr<environment_t> environment_of(const chunks_t &chunks) {
  static std::map<size_t, std::shared_ptr<environment_t>> made;
  std::shared_ptr<environment_t> &env = made[chunks.raw.size()];
  if (env != nullptr) return env;
  const std::string path = scratch_dir(ROOM_BYTES) + "/chunks." + std::to_string(chunks.raw.size());
  env = std::make_shared<environment_t>(path, ROOM_BYTES);
  MDB_txn *const txn = env->begin(0);
  for (uint32_t i = 0; i < chunks.raw.size(); ++i) env->append(txn, i, chunks.raw[i], sizeof(chunk_t));
  lmdb_check(mdb_txn_commit(txn));
  return env;
}

static candidate_t lmdb(const visit_t &visit) {
  const auto env = environment_of(*visit.chunks);
  const std::shared_ptr<MDB_txn> txn(env->begin(MDB_RDONLY), mdb_txn_abort);
  // A value's address may be only even. Its bytes are copied: 8 bytes, or those that the chase needs.
  const auto words = std::make_shared<chunk_t>();
  return candidate(
      "LMDB", visit, [](uint32_t i) { return i; }, [](const chunk_t &chunk) { return chunk.next_key; },
      [env, txn, words, bytes = visit.chased ? offsetof(chunk_t, next64) : sizeof(uint64_t)](uint32_t key) {
        memcpy(static_cast<void *>(words.get()), env->find(txn.get(), key), bytes);
        return words.get();
      });
}
#endif

// ---- Rows

static std::vector<candidate_t> make_candidates(kind_t kind, uint32_t count, bool direct, bool chased) {
  const visit_t visit = {make_chunks(kind, count, direct ? DIRECT_SLOTS : 0), chased};
  std::vector<candidate_t> candidates;
  if (kind == WIDE) {
    candidates.push_back(candidate64<tslb_dynmem_get_maddr2ptr64>("tslb", visit));
    candidates.push_back(candidate64<floor_resolve_64>("floor", visit));
  } else {
    candidates.push_back(candidate32<tslb_dynmem_get_maddr2ptr>("tslb", visit));
    candidates.push_back(candidate32<floor_resolve>("floor", visit));
  }
  candidates.push_back(raw_pointers(visit));
#ifdef TSLB_BENCH_BOOST
  candidates.push_back(offset_pointers(visit));
#endif
#ifdef TSLB_BENCH_LMDB
  if (!scratch_dir(ROOM_BYTES).empty()) candidates.push_back(lmdb(visit));
#endif
  return candidates;
}

static void add_kind(kind_t kind, const std::string &name) {
  static const struct {
    const char *chunks;
    uint32_t count;
    bool direct;
  } pools[] = {{"1,000", 1000, true},
               {"100,000", 100000, true},
               {"1,048,576", MANY, true},
               {"1,048,576 at level 1", MANY, false}};
  for (const auto &pool : pools)
    for (const bool chased : {false, true})
      add_case(
          name + ", " + pool.chunks + (chased ? ", chased" : ", random"), 1,
          [kind, &pool, chased] { return make_candidates(kind, pool.count, pool.direct, chased); }, LOOKUPS);
}

static void add_cases() {
  add_kind(BIG_BUFFER, "32 bits, big buffer");
  add_kind(BIT_VECTOR, "32 bits, bit vector");
  add_kind(WIDE, "64 bits");
}

int main(int argc, char **argv) {
  return run_cases(argc, argv, "| address resolved, time relative to", add_cases);
}
