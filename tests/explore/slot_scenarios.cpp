// Slots of arrays with lists: taken, freed, inactivated and activated by several threads.
#include <string.h>

#include <tslb/tslb_settings.h>
#include "access.h"
#include "monitor.h"
#include "scenario.h"

namespace {

constexpr uint8_t BOTH_LISTS = TSLB_DA_DAFLAG_LL | TSLB_DA_DAFLAG_INLL;

// An array with `n` active slots, of which some are freed, then some are inactivated.
void array_with(int n, std::initializer_list<uint32_t> freed, std::initializer_list<uint32_t> inactive) {
  make_array(8, BOTH_LISTS);
  take_slots(n);
  for (const uint32_t idx : freed) tslb_da_free_idx(scene.array, idx);
  for (const uint32_t idx : inactive) tslb_da_inactivate_idx(scene.array, idx, 100);
}

void mark_not_ready(uint32_t idx) {
  const uint32_t mark = TSLB_DA_SLOT_NOT_READY;
  memcpy(static_cast<char *>(tslb_da_get_ptr(scene.array, idx)) - 8, &mark, sizeof(mark));
}

void take(int thread) {
  void *const record = tslb_da_get_newptr(scene.array, &scene.idx[thread]);
  scene.result[thread] = record != nullptr ? 1 : 0;
  write_record(scene.idx[thread]);
}
void release(int thread, uint32_t idx) {
  scene.result[thread] = tslb_da_free_idx(scene.array, idx);
}
void inactivate(int thread, uint32_t idx) {
  scene.result[thread] = tslb_da_inactivate_idx(scene.array, idx, 200);
}
void activate(int thread, uint32_t idx) {
  scene.result[thread] = tslb_da_activate_idx(scene.array, idx);
}

uint32_t next_of(uint32_t idx) {
  node_fw node;
  memcpy(&node, static_cast<char *>(tslb_da_get_ptr(scene.array, idx)) - sizeof(node), sizeof(node));
  return node.next;
}

// A policy by which any inactive slot may be reused.
void reuse_always() {
  tsdb_mem_pressure_config_t policy = {};
  policy.mvt_reuse_policy_use = 1;
  tslb_da_register_reuse_policy(scene.array, &policy);
  for (uint32_t idx = roots()->inact_head; idx < n_used(); idx = next_of(idx)) monitor.give_up(idx);
}

void expect_counts(uint32_t used, uint32_t free, uint32_t inactive) {
  EXPECT_THAT_AT_END(n_used() == used);
  EXPECT_THAT_AT_END(n_free() == free);
  EXPECT_THAT_AT_END(n_inactive() == inactive);
}
void finish(uint32_t used, uint32_t free, uint32_t inactive) {
  expect_counts(used, free, inactive);
  audit_array();
}

const scenario_t SCENARIOS[] = {
    {"free_take_free", "two slots are freed and one is taken; no slot is free at first", 3,
     [] { array_with(2, {}, {}); },
     [](int thread) { thread == 2 ? take(2) : release(thread, static_cast<uint32_t>(thread)); },
     [] {
       const bool took_new = scene.idx[2] == 2;
       finish(took_new ? 3 : 2, took_new ? 2 : 1, 0);
     }},
    {"one_index", "two threads make one slot ready, inactivate it, activate it and free it: a slot on one list", 2,
     [] {
       array_with(2, {}, {0});
       mark_not_ready(1);
     },
     [](int thread) {
       tslb_da_make_ready(scene.array, tslb_da_get_ptr(scene.array, 1));
       inactivate(thread, 1);
       scene.value[thread] = scene.result[thread] == 0 ? 1 : 0;
       activate(thread, 1);
       scene.value[2 + thread] = scene.result[thread] == 0 ? 1 : 0;
       release(thread, 1);
     },
     [] {
       EXPECT_THAT_AT_END(scene.result[0] + scene.result[1] == 1);
       EXPECT_THAT_AT_END(scene.value[0] + scene.value[1] - scene.value[2] - scene.value[3] <= 1);
       finish(2, 1, 1);
     }},
    {"range_beside_reuse", "a range takes inactive slots by policy, while one of them is activated and one is added", 3,
     [] {
       array_with(3, {}, {0, 1});
       reuse_always();
     },
     [](int thread) {
       if (thread == 0) scene.idx[0] = tslb_da_get_range(scene.array, 2);
       if (thread == 1) activate(1, 1);
       if (thread == 2) take(2);
     },
     [] {
       EXPECT_THAT_AT_END(scene.idx[0] != scene.idx[2] && scene.result[2] == 1);
       EXPECT_THAT_AT_END(n_inactive() == 0 && n_free() == 0);
       audit_array();
     }},
    {"reuse_beside_inactivation", "one thread takes by policy, one inactivates, one activates the head", 3,
     [] {
       array_with(3, {}, {0, 1});
       reuse_always();
     },
     [](int thread) {
       if (thread == 0) take(0);
       if (thread == 1) inactivate(1, 2);
       if (thread == 2) activate(2, 0);
     },
     [] {
       EXPECT_THAT_AT_END(scene.result[0] == 1 && scene.result[1] == 0);
       EXPECT_THAT_AT_END(scene.idx[0] == (scene.result[2] == 0 ? 1u : 0u));
       EXPECT_THAT_AT_END(n_used() == 3);
       audit_array();
     }},
    {"range_is_in_one_piece", "a range of new ids beside a take: its indices follow each other", 2,
     [] { array_with(1, {}, {}); },
     [](int thread) {
       if (thread == 0) scene.idx[0] = tslb_da_get_range(scene.array, 2);
       if (thread == 1) take(1);
     },
     [] {
       EXPECT_THAT_AT_END(scene.idx[1] == scene.idx[0] + 2 || scene.idx[1] + 1 == scene.idx[0]);
       finish(4, 0, 0);
     }},
    {"take_and_free", "three threads take a slot and free it; two slots are free at first", 3,
     [] {
       array_with(2, {1, 0}, {});
     },
     [](int thread) {
       take(thread);
       release(thread, scene.idx[thread]);
     },
     [] { finish(n_used(), n_used(), 0); }},
    {"take_inactivate_free", "slots are taken, inactivated, and freed or activated", 3,
     [] {
       array_with(2, {}, {0, 1});
     },
     [](int thread) {
       if (thread == 0) take(0), inactivate(0, scene.idx[0]);
       if (thread == 1) release(1, 0), take(1);
       if (thread == 2) activate(2, 1), inactivate(2, 1);
     },
     [] {
       EXPECT_THAT_AT_END(scene.result[0] == 0 && scene.result[1] == 1 && scene.result[2] == 0);
       EXPECT_THAT_AT_END(n_inactive() == 2);
       audit_array();
     }},
    {"make_ready_beside_neighbours", "a slot is made ready while the slot beside it is freed, and a third thread asks",
     3,
     [] {
       array_with(2, {}, {});
       mark_not_ready(0);
     },
     [](int thread) {
       void *const slot = tslb_da_get_ptr(scene.array, 0);
       if (thread == 0) write_record(0), tslb_da_make_ready(scene.array, slot);
       if (thread == 1) release(1, 1);
       if (thread != 2 || tslb_da_is_ready(scene.array, slot) == 0) return;
       note_access(static_cast<char *>(slot) + 8, 4, false);  // what was written before make_ready
     },
     [] {
       EXPECT_THAT_AT_END(status_at(0) == TSLB_DA_SLOT_ACTIVE);
       finish(2, 1, 0);
     }},
    {"last_value_beside_free", "a slot is freed while another thread takes it and gets its old record", 2,
     [] {
       array_with(1, {}, {});
       memset(tslb_da_get_ptr(scene.array, 0), 7, 16);
     },
     [](int thread) {
       if (thread == 0) return write_record(0), release(0, 0);
       uint8_t last_status = 0, old[16] = {};
       uint32_t last_ts = 0;
       tslb_da_get_newptr_inll_ex(scene.array, &scene.idx[1], &last_ts, &last_status, old);
       scene.result[1] = last_status;
       scene.value[1] = old[15];
       write_record(scene.idx[1]);
     },
     [] {
       const bool is_reused = scene.idx[1] == 0;
       EXPECT_THAT_AT_END(scene.result[1] == static_cast<int>(is_reused ? TSLB_DA_SLOT_FREE : TSLB_DA_SLOT_UNSET));
       EXPECT_THAT_AT_END(scene.value[1] == (is_reused ? 7u : 0u));
       finish(is_reused ? 1 : 2, is_reused ? 0 : 1, 0);
     }},
    {"inactive_head_beside_activation", "the head of the inactive list is read while it is activated", 2,
     [] {
       array_with(2, {}, {0, 1});
     },
     [](int thread) {
       if (thread == 0) return activate(0, 0);
       scene.ptr[1] = tslb_da_get_inactive_head_ptr(scene.array, &scene.idx[1]);
     },
     [] {
       EXPECT_THAT_AT_END(scene.idx[1] <= 1 && scene.ptr[1] == tslb_da_get_ptr(scene.array, scene.idx[1]));
       finish(2, 0, 1);
     }},
};

}  // namespace
const std::span<const scenario_t> SLOT_SCENARIOS(SCENARIOS);
