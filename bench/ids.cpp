// Cost of a new id with its address.
//
// Measured: get_dyn_arr_new_record_id_ex on an array of 100-byte records without direct slots, with 1 and 2 threads,
// and a store of the id to the record. Compared with the floor (floor.h), with a std::deque and a mutex, and with
// oneTBB's concurrent_vector, which grows by one element or by 16 at a time and also zeroes them.
//
// Every round starts with an empty array, on memory that the allocator had before and keeps, and again (cold memory)
// without such memory.
//
// Run: bench_ids [--quick] [--benchmark_filter=REGEX]
#include <malloc.h>
#include <stdlib.h>

#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <tslb/dynamic_array.h>
#include "floor.h"
#include "ratio.h"
#ifdef TSLB_BENCH_TBB
#include <tbb/concurrent_vector.h>
#endif

struct record_t {
  uint32_t id;
  unsigned char rest[96];
};
static_assert(sizeof(record_t) == 100);

constexpr uint32_t IDS_PER_THREAD = 1u << 14;

// `take` has the contract of get_dyn_arr_new_record_id_ex.
static candidate_t array_candidate(const char *name, decltype(&get_dyn_arr_new_record_id_ex) take) {
  using owner_t = std::shared_ptr<DynArrHandle_t>;
  const auto array = std::make_shared<owner_t>();
  return {name,
          [array, take](unsigned) {
            uint64_t sum = 0;
            for (uint32_t i = 0; i < IDS_PER_THREAD; ++i) {
              void *record;
              const int32_t id = take(array->get(), &record, 0);
              static_cast<record_t *>(record)->id = static_cast<uint32_t>(id);
              sum += static_cast<uint32_t>(id);
            }
            return sum;
          },
          [array] {
            array->reset();
            *array = owner_t(get_default_dyn_array(sizeof(record_t), 0, MPOOL_TYPE_DRAM), destroy_dyn_arr);
          }};
}

static candidate_t locked_deque() {
  struct shared_t {
    std::mutex mutex;
    std::deque<record_t> records;
  };
  const auto shared = std::make_shared<shared_t>();
  return {"mutex + std::deque",
          [shared](unsigned) {
            uint64_t sum = 0;
            for (uint32_t i = 0; i < IDS_PER_THREAD; ++i) {
              record_t *record;
              uint32_t id;
              {
                const std::lock_guard<std::mutex> lock(shared->mutex);
                id = static_cast<uint32_t>(shared->records.size());
                shared->records.push_back(record_t{});
                record = &shared->records.back();
              }
              record->id = id;
              sum += id;
            }
            return sum;
          },
          [shared] { shared->records = {}; }};
}

#ifdef TSLB_BENCH_TBB
// Takes `step` ids at a time: 1, or as many as a block of the library has.
static candidate_t growing_vector(const char *name, uint32_t step) {
  using elements_t = tbb::concurrent_vector<record_t>;
  const auto elements = std::make_shared<std::unique_ptr<elements_t>>();
  return {name,
          [elements, step](unsigned) {
            uint64_t sum = 0;
            for (uint32_t i = 0; i < IDS_PER_THREAD; i += step) {
              elements_t::iterator record = step == 1 ? (*elements)->emplace_back() : (*elements)->grow_by(step);
              uint32_t id = static_cast<uint32_t>(record - (*elements)->begin());
              for (uint32_t n = 0; n < step; ++n, ++record) sum += record->id = id++;
            }
            return sum;
          },
          [elements] { *elements = std::make_unique<elements_t>(); }};
}
#endif

// With `cold` memory the allocator has no free memory when a round begins: every page comes from the kernel.
static std::vector<candidate_t> make_candidates(bool cold) {
  std::vector<candidate_t> candidates = {array_candidate("tslb", get_dyn_arr_new_record_id_ex),
                                         array_candidate("floor", floor_take_id), locked_deque()};
#ifdef TSLB_BENCH_TBB
  candidates.push_back(growing_vector("tbb emplace_back", 1));
  candidates.push_back(growing_vector("tbb grow_by 16", 16));
#endif
  for (candidate_t &candidate : candidates) {
    if (cold) {
      candidate.prepare = [prepare = candidate.prepare] {
        prepare();
        malloc_trim(0);
      };
    }
  }
  return candidates;
}

static void add_cases() {
  for (const bool cold : {false, true})
    for (const unsigned threads : {1u, 2u})
      add_case(
          std::string(threads == 1 ? "1 thread" : "2 threads") + (cold ? ", cold memory" : ""), threads,
          [cold] { return make_candidates(cold); }, uint64_t{threads} * IDS_PER_THREAD);
}

int main(int argc, char **argv) {
  mallopt(M_TRIM_THRESHOLD, 1 << 30);
  return run_cases(argc, argv, "| new id with its address, time relative to", add_cases);
}
