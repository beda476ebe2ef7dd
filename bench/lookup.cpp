// Cost of the lookup of a record by its id.
//
// Measured: get_dyn_arr_record_position_ex on ten million records of 100 bytes, in the direct area and at levels 1 to
// 5, of which level 4 has a million and level 5 the rest, with one load from the record. Compared with the floor
// (floor.h), and with std::vector (the limit), std::deque and oneTBB's concurrent_vector of the same records. Three
// orders: sequential, random (ids are known in advance, so that lookups overlap), and chained (each record names the
// next id, so that a lookup waits for the previous one). A round continues where the previous round stopped, so that
// records of a large level are not in the caches from it.
//
// Not measured: level 6, whose first id follows 17 million others; arrays with nodes; lookups concurrent with a writer;
// ids that change level from one to the next, which adds a mispredicted branch. The vector never moves here. A growing
// vector would move, and would not be a peer.
//
// Run: bench_lookup [--quick] [--benchmark_filter=REGEX]
#include <stdlib.h>

#include <algorithm>
#include <deque>
#include <memory>
#include <numeric>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <tslb/dynamic_array.h>
#include "floor.h"
#include "ratio.h"
#ifdef TSLB_BENCH_TBB
#include <tbb/concurrent_vector.h>
#endif

struct record_t {
  uint32_t id;
  uint32_t next;  // the next id of a chain through all ids of the level
  unsigned char rest[92];
};
static_assert(sizeof(record_t) == 100);

constexpr uint32_t N_DIRECT = 1000;
constexpr uint32_t LOOKUPS = 1u << 15;  // of a round
constexpr uint32_t LONGEST_ORDER = LOOKUPS * (ROUNDS + 1);

struct level_t {
  const char *name;
  uint32_t first, count;
};

// The levels, filled in order, up to ten million records.
static const std::vector<level_t> &levels() {
  static const uint32_t total = is_quick() ? 1400000 : 10000000;
  static const std::vector<level_t> all = {
      {"direct", 0, N_DIRECT},
      {"level 1", N_DIRECT, 0x100},
      {"level 2", N_DIRECT + 0x100, 0x1000},
      {"level 3", N_DIRECT + 0x1100, 0x10000},
      {"level 4", N_DIRECT + 0x11100, 0x100000},
      {"level 5", N_DIRECT + 0x111100, total - N_DIRECT - 0x111100},
  };
  return all;
}

// The same records several times.
struct records_t {
  DynamicArray_t array;
  std::vector<record_t> vector;
  std::deque<record_t> deque;
#ifdef TSLB_BENCH_TBB
  tbb::concurrent_vector<record_t> concurrent_vector;
#endif
};

// Links a level's records into one cycle in random order.
static void link_level(const level_t &level, std::vector<record_t> *records, std::mt19937 *random) {
  std::vector<uint32_t> ids(level.count);
  std::iota(ids.begin(), ids.end(), level.first);
  std::shuffle(ids.begin(), ids.end(), *random);
  for (uint32_t i = 0; i < level.count; ++i) (*records)[ids[i]].next = ids[(i + 1) % level.count];
}

static records_t make_records() {
  records_t made;
  made.array = get_default_dyn_array(sizeof(record_t), N_DIRECT, MPOOL_TYPE_DRAM);
  made.vector.resize(levels().back().first + levels().back().count);
  for (uint32_t id = 0; id < made.vector.size(); ++id) made.vector[id].id = id;
  std::mt19937 random(1);
  for (const level_t &level : levels()) link_level(level, &made.vector, &random);
  for (const record_t &record : made.vector) {
    void *place;
    if (get_dyn_arr_new_record_id_ex(made.array, &place, 0) != static_cast<int32_t>(record.id)) abort();
    *static_cast<record_t *>(place) = record;
    made.deque.push_back(record);
#ifdef TSLB_BENCH_TBB
    made.concurrent_vector.push_back(record);
#endif
  }
  return made;
}

static records_t &records() {
  static records_t made = make_records();
  return made;
}

enum order_t { SEQUENTIAL, RANDOM, CHAINED };

static std::vector<uint32_t> ids_of(const level_t &level, order_t order) {
  std::mt19937 random(2);
  std::vector<uint32_t> ids(order == CHAINED ? 1 : LONGEST_ORDER);
  for (uint32_t i = 0; i < ids.size(); ++i) ids[i] = level.first + (order == RANDOM ? random() : i) % level.count;
  return ids;
}

// The loop of all candidates, which differ in `find`.
template <class Find>
static candidate_t candidate(const char *name, const std::shared_ptr<const std::vector<uint32_t>> &ids, order_t order,
                             Find find) {
  if (order == CHAINED)
    return {name,
            [id = (*ids)[0], find](unsigned) mutable {
              uint64_t sum = 0;
              for (uint32_t i = 0; i < LOOKUPS; ++i) sum += id = find(id)->next;
              return sum;
            },
            {}};
  return {name,
          [ids, at = size_t{0}, find](unsigned) mutable {
            uint64_t sum = 0;
            for (size_t end = at + LOOKUPS; at < end; ++at) sum += find((*ids)[at])->id;
            at %= LONGEST_ORDER;
            return sum;
          },
          {}};
}

static std::vector<candidate_t> make_candidates(const level_t &level, order_t order) {
  const auto ids = std::make_shared<const std::vector<uint32_t>>(ids_of(level, order));
  const records_t &all = records();
  const DynamicArray_t array = all.array;
  const auto ours = [array](uint32_t id) {
    return static_cast<const record_t *>(get_dyn_arr_record_position_ex(array, id, 0, nullptr, 0));
  };
  const auto floor = [array](uint32_t id) {
    return static_cast<const record_t *>(floor_find(array, id, 0, nullptr, 0));
  };
  const auto in_vector = [vector = &all.vector](uint32_t id) { return &(*vector)[id]; };
  const auto in_deque = [deque = &all.deque](uint32_t id) { return &(*deque)[id]; };
  std::vector<candidate_t> candidates = {candidate("tslb", ids, order, ours), candidate("floor", ids, order, floor),
                                         candidate("std::vector", ids, order, in_vector),
                                         candidate("std::deque", ids, order, in_deque)};
#ifdef TSLB_BENCH_TBB
  candidates.push_back(candidate("tbb::concurrent_vector", ids, order,
                                 [elements = &all.concurrent_vector](uint32_t id) { return &(*elements)[id]; }));
#endif
  return candidates;
}

static void add_level(const level_t &level) {
  static const std::pair<order_t, const char *> orders[] = {
      {SEQUENTIAL, "sequential"}, {RANDOM, "random"}, {CHAINED, "chained"}};
  for (const auto &[order, name] : orders)
    add_case(
        std::string(level.name) + ", " + name, 1, [&level, order = order] { return make_candidates(level, order); },
        LOOKUPS);
}

static void add_cases() {
  for (const level_t &level : levels()) add_level(level);
}

int main(int argc, char **argv) {
  return run_cases(argc, argv, "| lookup, time relative to", add_cases);
}
