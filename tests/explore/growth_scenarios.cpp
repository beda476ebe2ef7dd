// New ids where the root table, a table or a block is missing, and lookups beside them.
#include "access.h"
#include "scenario.h"

// Issues an id, and reads and writes its record as a caller does.
static void issue(int thread) {
  void *record = nullptr;
  scene.result[thread] = get_dyn_arr_new_record_id_ex(scene.array, &record, 0);
  scene.ptr[thread] = record;
  if (record == nullptr) return;
  note_access(record, 8, false);  // zeroes
  note_access(record, 8, true);
}

// Makes a plain array without a direct area, in which ids below `first` are issued. The memory of the last of them
// exists, if `has_memory`.
static void issued_up_to(uint32_t first, bool has_memory) {
  scene.array = get_default_dyn_array_ex(0, 8, 0, MPOOL_TYPE_DRAM, 1, nullptr, 0);
  if (first == 0) return;
  get_dyn_hdr(scene.array)->n_used = first;
  scene.value[0] = first;
  if (has_memory) get_dyn_arr_record_position(scene.array, first - 1);
}

// Each of the threads 0 to n - 1 has an id of its own, and a record at its place.
static void expect_ids(int n) {
  const uint32_t first = static_cast<uint32_t>(scene.value[0]);
  for (int i = 0; i < n; ++i) {
    const uint32_t id = static_cast<uint32_t>(scene.result[i]);
    EXPECT_THAT_AT_END(id >= first && id < first + static_cast<uint32_t>(n));
    for (int other = 0; other < i; ++other) EXPECT_THAT_AT_END(scene.result[i] != scene.result[other]);
    EXPECT_THAT_AT_END(scene.ptr[i] != nullptr && scene.ptr[i] == get_dyn_arr_record_position(scene.array, id));
  }
  EXPECT_THAT_AT_END(n_used() == first + static_cast<uint32_t>(n));
}

// Each block is counted once. Blocks before the first one of the test are not there.
static void finish(uint32_t n_blocks) {
  EXPECT_THAT_AT_END(get_dyn_total_allocated_records(scene.array) == 16 * n_blocks);
  get_dyn_hdr(scene.array)->n_alloc = (n_used() + 15) / 16 * 16;
  if (n_used() < 32) return audit_array();
  get_dyn_hdr(scene.array)->n_used = 0;
  get_dyn_hdr(scene.array)->n_alloc = 0;
  audit_array();
}

static const scenario_t SCENARIOS[] = {
    {"ids_without_root", "three new ids in an empty array: root, table and block are missing", 3,
     [] { issued_up_to(0, false); }, issue,
     [] {
       expect_ids(3);
       finish(1);
     }},
    {"ids_at_table_end", "three new ids around a missing table of the second level", 3,
     [] { issued_up_to(256 + 255, true); }, issue,
     [] {
       expect_ids(3);
       finish(2);
     }},
    {"lookup_beside_new_id", "a lookup of the newest id while one is issued", 2, [] { issued_up_to(0, false); },
     [](int thread) {
       if (thread == 0) return issue(0);
       const uint32_t n = n_used();
       if (n == 0) return;
       scene.result[1] = static_cast<int>(n);
       scene.ptr[1] = get_dyn_arr_record_position(scene.array, n - 1);
     },
     [] {
       expect_ids(1);
       const int n = scene.result[1];
       if (n != 0)
         EXPECT_THAT_AT_END(scene.ptr[1] == get_dyn_arr_record_position(scene.array, static_cast<uint32_t>(n - 1)));
       finish(1);
     }},
    {"two_lookups_of_new_ids", "lookups of two ids without memory, by threads that did not issue them", 2,
     [] {
       issued_up_to(16, true);
       get_dyn_hdr(scene.array)->n_used = 18;
     },
     [](int thread) {
       scene.ptr[thread] = get_dyn_arr_record_position(scene.array, 16u + static_cast<uint32_t>(thread));
       note_access(scene.ptr[thread], 8, false);
     },
     [] {
       EXPECT_THAT_AT_END(static_cast<char *>(scene.ptr[1]) - static_cast<char *>(scene.ptr[0]) == 8);
       finish(2);
     }},
};
const std::span<const scenario_t> GROWTH_SCENARIOS(SCENARIOS);
