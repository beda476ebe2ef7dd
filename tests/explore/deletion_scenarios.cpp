// Deletion of chunks, and release of their slots, beside everything else that a pool does.
#include "access.h"
#include "monitor.h"
#include "scenario.h"

namespace {

// A pool of slots of 64 bytes. `n` chunks of 32 bytes are in scene.chunk.
void pool_of_chunks(int n, int n_slots = 4) {
  make_pool(n_slots, 64);
  for (int i = 0; i < n; ++i) scene.chunk[i] = take_chunk(32);
}

void take(int thread, uint32_t len) {
  scene.chunk[4 + thread] = take_chunk(len);
}
void del(int chunk) {
  delete_chunk(scene.chunk[chunk]);
}

struct sums_t {
  size_t total, used, deleted;
};
sums_t sweep() {
  sums_t sums;
  tslb_dynmem_update_free_list(scene.array, &sums.total, &sums.used, &sums.deleted);
  return sums;
}
void sweep_in(int thread) {
  const sums_t sums = sweep();
  scene.value[2 * thread] = sums.used;
  scene.value[2 * thread + 1] = sums.deleted;
}

// What a sweep can count: no slot twice, and the `live` bytes of chunks that lived all the time.
void expect_sums(int thread, uint64_t most, uint64_t live = 0) {
  EXPECT_THAT_AT_END(scene.value[2 * thread] <= most);
  EXPECT_THAT_AT_END(scene.value[2 * thread + 1] + live <= scene.value[2 * thread]);
}

// Each slot without a live chunk is free after a sweep, unless it is current; the others are active.
void finish() {
  sweep();
  for (uint32_t slot = 0; slot < n_used(); ++slot) {
    const bool is_kept = slot == cursor_slot() || monitor.live_in(slot) != 0;
    EXPECT_THAT_AT_END(status_at(slot) == (is_kept ? TSLB_DA_SLOT_ACTIVE : TSLB_DA_SLOT_FREE));
  }
  audit_pool();
}
// The same without a sweep: the last deletion has released the slot.
void finish_without_sweep(uint32_t released) {
  EXPECT_THAT_AT_END(status_at(released) == TSLB_DA_SLOT_FREE);
  finish();
}

const scenario_t SCENARIOS[] = {
    {"delete_3", "three chunks of two slots are deleted, one of them in the current slot", 3, [] { pool_of_chunks(3); },
     del, [] { finish_without_sweep(0); }},
    {"delete_beside_change_of_slot", "the last chunk of the current slot is deleted while the slot is left", 2,
     [] {
       make_pool(4, 64);
       scene.chunk[0] = take_chunk(64);
       monitor.largest_chunk = 32;
     },
     [](int t) { t == 0 ? del(0) : take(1, 32); }, [] { finish(); }},
    {"late_reservation", "a chunk is reserved in a slot that is left and deleted at once, like its other chunk", 3,
     [] { pool_of_chunks(1); },
     [](int t) {
       if (t == 0) del(0);
       if (t == 1) take(1, 32), del(4 + 1);
       if (t == 2) take(2, 64);
     },
     [] { finish(); }},
    {"no_memory_for_a_note", "a late reservation, and no memory to note it: the slot's change waits", 3,
     [] {
       pool_of_chunks(1);
       refuse_memory(true);
     },
     [](int t) {
       if (t == 0) del(0);
       if (t == 1) take(1, 32);
       if (t == 2) take(2, 64);
     },
     [] { finish(); }},
    {"delete_sweep_reuse", "a slot is emptied, swept and taken again at the same time", 3,
     [] {
       pool_of_chunks(2);
       scene.chunk[2] = take_chunk(64);
       del(0);
     },
     [](int t) {
       if (t == 0) del(1);
       if (t == 1) sweep_in(1);
       if (t == 2) take(2, 64);
     },
     [] {
       expect_sums(1, 192);
       finish();
     }},
    {"two_sweeps", "two sweeps find the same empty slot while a thread needs one: it is released once", 3,
     [] {
       make_pool(4, 64);
       scene.chunk[0] = take_chunk(64);
       del(0);
       take_chunk(64);
     },
     [](int t) { t == 2 ? take(2, 64) : sweep_in(t); },
     [] {
       expect_sums(0, 192);
       expect_sums(1, 192);
       finish();
     }},
    {"sweep_beside_take", "a sweep counts a slot that is being taken", 2,
     [] {
       make_pool(4, 64);
       scene.chunk[0] = take_chunk(64);
     },
     [](int t) { t == 0 ? sweep_in(0) : take(1, 32); },
     [] {
       expect_sums(0, 96);
       finish();
     }},
    {"sweep_beside_second_use", "a sweep reads the counters of a slot that is released and taken again", 2,
     [] {
       pool_of_chunks(2);
       scene.chunk[2] = take_chunk(64);
       del(0);
     },
     [](int t) {
       if (t == 0) return sweep_in(0);
       del(1);
       take(1, 32);
     },
     [] {
       expect_sums(0, 128, 64);
       finish();
     }},
    {"release_after_second_use", "a deletion empties a slot, which is released, taken and left again before it goes on",
     2,
     [] {
       pool_of_chunks(2);
       scene.chunk[2] = take_chunk(64);
       del(0);
     },
     [](int t) {
       if (t == 0) return del(1);
       sweep();
       take(1, 64);
       take(1, 64);
     },
     [] { finish(); }},
    {"take_and_delete_3", "three threads take chunks of different lengths at the end of a slot and delete them", 3,
     [] { pool_of_chunks(1); },
     [](int t) {
       take(t, t == 2 ? 64 : 32);
       del(4 + t);
     },
     [] { finish(); }},
    {"late_wide_reservation", "a late 64-bit chunk, the deletion of its slot's other chunk, a change of slot, a sweep",
     4,
     [] {
       pool_of_chunks(1);
       monitor.largest_chunk = 64;
     },
     [](int t) {
       if (t == 0) del(0);
       if (t == 1) scene.wide[1] = take_wide_chunk(32);
       if (t == 2) take(2, 64);
       if (t == 3) sweep_in(3);
     },
     [] {
       expect_sums(3, 128);
       finish();
     }},
    {"two_late_reservations", "late reservations in two slots, which are left one after the other", 4,
     [] { pool_of_chunks(1); },
     [](int t) {
       if (t == 0) del(0);
       if (t == 1) take(1, 32), del(4 + 1);
       if (t == 2) take(2, 48);
       if (t == 3) take(3, 64);
     },
     [] { finish(); }, 1},
    {"sweeps_delete_take", "two sweeps, the deletion that empties a slot, and a chunk that needs one", 4,
     [] {
       pool_of_chunks(2);
       scene.chunk[2] = take_chunk(64);
       del(0);
     },
     [](int t) {
       if (t == 0) del(1);
       if (t == 1) take(1, 64);
       if (t >= 2) sweep();
     },
     [] { finish(); }, 1},
    {"two_owners_delete", "two owners read their chunks and delete them; one of them takes a new chunk", 2,
     [] {
       pool_of_chunks(2);
       take_chunk(64);
     },
     [](int t) {
       note_access(tslb_dynmem_get_maddr2ptr(scene.array, scene.chunk[t]), 8, false);
       del(t);
       if (t == 1) take(1, 64);
     },
     [] { finish(); }},
    {"ring_with_lists_wraps", "a ring with lists is completed and starts again, while a chunk is deleted", 3,
     [] {
       make_pool(4, 64, {MPOOL_FLAG_COMPAT, TSLB_DA_DAFLAG_LL, MPOOL_FLAG_BV, 0, MPOOL_TYPE_DRAM_TMP});
       for (int i = 0; i < 253; ++i) take_chunk(64);
       scene.chunk[0] = {5, 0};
     },
     [](int t) { t == 0 ? del(0) : take(t, 64); },
     [] {
       EXPECT_THAT_AT_END(n_used() < TSLB_RING_SLOTS || n_free() == 0);
       audit_pool();
     }},
};

}  // namespace
const std::span<const scenario_t> DELETION_SCENARIOS(SCENARIOS);
