// The order of redo records: a replica that is made from them alone.
#include <string.h>

#include <tslb/array_check.h>
#include <tslb/array_loader.h>
#include <tslb/tslb_rd_api.h>
#include "monitor.h"
#include "redo_log.h"
#include "scenario.h"

namespace {

constexpr uint8_t BOTH_LISTS = TSLB_DA_DAFLAG_LL | TSLB_DA_DAFLAG_INLL;

dynarr_t *logged_array() {
  return tslb_da_init_ll(12, 4, MPOOL_TYPE_DRAM, "redo", 1, BOTH_LISTS);
}

// Both arrays have `n` active slots, of which some are freed, then some are inactivated.
void array_with(int n, std::initializer_list<uint32_t> freed, std::initializer_list<uint32_t> inactive) {
  for (dynarr_t **array : {&scene.replica, &scene.array}) {
    monitor = {};  // knows one array
    *array = scene.array = logged_array();
    take_slots(n);
    for (const uint32_t idx : freed) tslb_da_free_idx(scene.array, idx);
    for (const uint32_t idx : inactive) tslb_da_inactivate_idx(scene.array, idx, 100);
  }
  switch_log(true);
}

const char *start_of(dynarr_t *array, uint32_t idx) {
  return static_cast<const char *>(tslb_da_get_ptr(array, idx)) - 8;
}

// The host logs the header at the end of its batch, while nothing changes. No operation was refused.
void finish() {
  EXPECT_THAT_AT_END(scene.result[0] == 0 && scene.result[1] == 0 && scene.result[2] == 0);
  tslb_redo_log_da_hdr(scene.array, 0, 0, TSLB_REDO_SLOT);
  if (!apply_log()) return;
  char error[256] = "";
  if (array_check(scene.replica, ARRAY_LOAD_ANY, error, sizeof(error)) != 0) machine.violation("replica: %s", error);
  EXPECT_THAT_AT_END(tslb_da_get_size(scene.replica) == n_used());
  EXPECT_THAT_AT_END(memcmp(tslb_da_get_lli(scene.replica), roots(), sizeof(DynArrLLI_t)) == 0);
  for (uint32_t idx = 0; idx < n_used(); ++idx) {
    // A freed slot's prev and first word are not logged, and a record is the host's to log.
    const char *const at = start_of(scene.array, idx), *const copy = start_of(scene.replica, idx);
    EXPECT_THAT_AT_END(memcmp(at, copy, 8) == 0);
    if (status_at(idx) != TSLB_DA_SLOT_FREE) EXPECT_THAT_AT_END(memcmp(at + 8 + 12, copy + 8 + 12, 8) == 0);
  }
  audit_array();
}

void take(int thread) {
  tslb_da_get_newptr(scene.array, &scene.idx[thread]);
}

// Two pools without nodes, with one full slot. The growth of one is logged.
void growing_pools() {
  for (dynarr_t **pool : {&scene.replica, &scene.array}) {
    monitor = {};
    *pool = scene.array = tslb_init_dynmem_ex1(64, 1, 0, MPOOL_TYPE_DRAM, 0, "redo", 1, 0, 0, 1, 0);
    take_chunk(64);
  }
  switch_log(true);
}
// The host logs the header at the end of its batch. Growth records alone can miss the highest slot.
void finish_growth() {
  tslb_redo_log_da_hdr(scene.array, 0, 0, TSLB_REDO_SLOT);
  if (!apply_log()) return;
  EXPECT_THAT_AT_END(tslb_da_get_size(scene.replica) == n_used());
  EXPECT_THAT_AT_END(memcmp(tslb_da_get_usrhdr(scene.replica), pool_hdr(), sizeof(DynMemHdr_t)) == 0);
  audit_pool();
}

const scenario_t SCENARIOS[] = {
    {"growth_records", "two threads make a pool without nodes grow; the header is logged at the end", 2, growing_pools,
     [](int) { take_chunk(64); }, finish_growth},
    {"redo_pool", "a slot of a pool is released and one is taken: the replica's lists", 3,
     [] {
       for (dynarr_t **pool : {&scene.replica, &scene.array}) {
         monitor = {};
         *pool = scene.array =
             tslb_init_dynmem_ex1(64, 4, MPOOL_FLAG_COMPAT, MPOOL_TYPE_DRAM, 0, "redo", 1, TSLB_DA_DAFLAG_LL, 0, 1, 0);
         for (int i = 0; i < 2; ++i) scene.chunk[i] = take_chunk(64);
       }
       switch_log(true);
     },
     [](int t) { t == 0 ? delete_chunk(scene.chunk[0]) : static_cast<void>(take_chunk(64)); },
     [] {
       tslb_redo_log_da_hdr(scene.array, 0, 0, TSLB_REDO_SLOT);
       if (!apply_log()) return;
       EXPECT_THAT_AT_END(tslb_da_get_size(scene.replica) == n_used());
       EXPECT_THAT_AT_END(memcmp(scene.replica->arr_base, scene.array->arr_base, 8 + 56 + 60) == 0);
       for (uint32_t idx = 0; idx < n_used(); ++idx)
         EXPECT_THAT_AT_END(memcmp(start_of(scene.array, idx), start_of(scene.replica, idx), 8) == 0);
       audit_pool();
     },
     2},
    {"redo_3", "a slot is freed, one is taken and one is inactivated", 3, [] { array_with(3, {0}, {}); },
     [](int t) {
       if (t == 0) take(0);
       if (t == 1) scene.result[1] = tslb_da_free_idx(scene.array, 1);
       if (t == 2) scene.result[2] = tslb_da_inactivate_idx(scene.array, 2, 200);
     },
     finish},
    {"redo_two_frees", "two slots are freed: the replica's free list", 2, [] { array_with(2, {}, {}); },
     [](int t) { scene.result[t] = tslb_da_free_idx(scene.array, static_cast<uint32_t>(t)); }, finish},
    {"redo_two_takes", "two slots are taken, one of them from the free list", 2, [] { array_with(2, {1}, {}); }, take,
     finish},
    {"redo_inactivate", "slots are inactivated, the first ones of the list: links and back links", 3,
     [] { array_with(3, {}, {}); },
     [](int t) { scene.result[t] = tslb_da_inactivate_idx(scene.array, static_cast<uint32_t>(t), 200); }, finish},
    {"redo_activate_neighbours", "three inactive neighbours are activated", 3,
     [] {
       array_with(4, {}, {0, 1, 2, 3});
     },
     [](int t) { scene.result[t] = tslb_da_activate_idx(scene.array, 1 + static_cast<uint32_t>(t)); }, finish},
    {"redo_neighbours_mixed", "an inactive slot is freed while its neighbour is activated and another is inactivated",
     3,
     [] {
       array_with(4, {}, {0, 1, 2});
     },
     [](int t) {
       if (t == 0) scene.result[0] = tslb_da_free_idx(scene.array, 1);
       if (t == 1) scene.result[1] = tslb_da_activate_idx(scene.array, 2);
       if (t == 2) scene.result[2] = tslb_da_inactivate_idx(scene.array, 3, 200);
     },
     finish},
};

}  // namespace
const std::span<const scenario_t> REDO_SCENARIOS(SCENARIOS);
