// What does it cost to take an id together with its address?
//
// Asked: get_dyn_arr_new_record_id_ex on an array of 100-byte records without direct slots, with 1 and 2
// threads, and a store of the id to the record. Against the floor (floor.h: one atomic addition, and for each
// 16 ids one block and one swap), and against a std::deque behind a mutex.
//
// Not asked: the cost of new pages. Every round starts anew on memory that the allocator has had before, and
// keeps.
//
// Run: bench_ids [--quick] [--benchmark_filter=REGEX]
#include <malloc.h>
#include <stdlib.h>

#include <deque>
#include <memory>
#include <mutex>
#include <vector>

#include "dynamic_array.h"
#include "floor.h"
#include "ratio.h"

struct record_t {
  uint32_t id;
  unsigned char rest[96];
};
static_assert(sizeof(record_t) == 100);

constexpr uint32_t IDS_PER_THREAD = 1u << 14;

static rival_t ours() {
  using owner_t = std::shared_ptr<DynArrHandle_t>;
  const auto array = std::make_shared<owner_t>();
  return {"tslb",
          [array](unsigned) {
            uint64_t sum = 0;
            for (uint32_t i = 0; i < IDS_PER_THREAD; ++i) {
              void *record;
              const int32_t id = get_dyn_arr_new_record_id_ex(array->get(), &record, 0);
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

static rival_t floor_of(unsigned threads) {
  struct shared_t {
    floor_ids_t ids = {0, sizeof(record_t), nullptr};
    std::vector<uint64_t> entries;
    std::vector<char> spare;  // where a thread's records go before it makes a block

    ~shared_t() { release_blocks(); }
    void release_blocks() {
      for (uint64_t &entry : entries) {
        free(reinterpret_cast<void *>(entry));
        entry = 0;
      }
    }
  };
  const auto shared = std::make_shared<shared_t>();
  shared->entries.resize(size_t{threads} * IDS_PER_THREAD / 16);
  shared->spare.resize(size_t{threads} * 16 * sizeof(record_t));
  return {"floor",
          [shared](unsigned thread) {
            uint64_t sum = 0;
            char *own_block = shared->spare.data() + size_t{thread} * 16 * sizeof(record_t);
            for (uint32_t i = 0; i < IDS_PER_THREAD; ++i) {
              void *record;
              const int32_t id = floor_take_id(&shared->ids, &record, &own_block);
              static_cast<record_t *>(record)->id = static_cast<uint32_t>(id);
              sum += static_cast<uint32_t>(id);
            }
            return sum;
          },
          [shared] {
            shared->release_blocks();
            shared->ids = {0, sizeof(record_t), shared->entries.data()};
          }};
}

static rival_t locked_deque() {
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

static void add_cases() {
  for (const unsigned threads : {1u, 2u})
    add_case(threads == 1 ? "1 thread" : "2 threads", threads, [threads] {
      return std::vector<rival_t>{ours(), floor_of(threads), locked_deque()};
    });
}

int main(int argc, char **argv) {
  mallopt(M_TRIM_THRESHOLD, 1 << 30);
  return run_cases(argc, argv, "| new id with its address, time relative to", add_cases);
}
