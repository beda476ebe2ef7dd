// Chunks at the end of a memory slot, with addresses of both widths, and the ring.
#include <string.h>

#include "access.h"
#include "monitor.h"
#include "scenario.h"

namespace {

// Slots of 64 bytes. The current one has `room` bytes left, and the threads request chunks of at most `largest` bytes.
void pool_with_room(uint32_t room, uint32_t largest, pool_kind_t kind = {}) {
  make_pool(4, 64, kind);
  if (room < 64) take_chunk(64 - room);
  monitor.largest_chunk = largest;
}

void take(int thread, uint32_t len) {
  scene.chunk[thread] = take_chunk(len);
  scene.result[thread] = refused(scene.chunk[thread]) ? 0 : 1;
}
void take_wide(int thread, uint32_t len) {
  scene.wide[thread] = take_wide_chunk(len);
}

// Slots in use, and the place of the cursor.
void finish(uint32_t slots, uint32_t slot, uint32_t off) {
  EXPECT_THAT_AT_END(n_used() == slots);
  EXPECT_THAT_AT_END(cursor_slot() == slot);
  EXPECT_THAT_AT_END(cursor_off() == off);
  audit_pool();
}

// A ring of slots of 64 bytes in which the first `n_slots` are full.
void ring_with(int n_slots, uint32_t largest) {
  make_pool(4, 64, {0, 0, MPOOL_FLAG_BV, 0, MPOOL_TYPE_DRAM_TMP});
  for (int i = 0; i < n_slots; ++i) take_chunk(64);
  monitor.largest_chunk = largest;
}
void finish_ring(uint32_t slot, uint32_t off) {
  EXPECT_THAT_AT_END(n_used() == TSLB_RING_SLOTS);
  EXPECT_THAT_AT_END(cursor_slot() == slot);
  EXPECT_THAT_AT_END(cursor_off() == off);
  audit_pool();
}

const scenario_t SCENARIOS[] = {
    {"first_chunks", "the first chunks of an empty pool, with addresses of both widths", 3,
     [] { pool_with_room(64, 0); }, [](int t) { t == 2 ? take_wide(2, 20) : take(t, 20); }, [] { finish(1, 0, 60); }},
    {"slot_end_3", "three chunks at the end of a full slot, with addresses of both widths", 3,
     [] { pool_with_room(0, 20); }, [](int t) { t == 2 ? take_wide(2, 20) : take(t, 20); }, [] { finish(2, 1, 60); }},
    {"smaller_chunk_fits", "a chunk that fits beside one that does not", 2, [] { pool_with_room(24, 40); },
     [](int t) { take(t, t == 0 ? 40 : 24); },
     [] {
       const bool old_slot = cursor_off() == 40;
       finish(2, 1, old_slot ? 40 : 64);
     }},
    {"limit", "two chunks at the limit of slots: the room of the new slot is used, then requests are refused", 2,
     [] {
       make_pool(1, 64, {MPOOL_FLAG_COMPAT, TSLB_DA_DAFLAG_LL, 0, 2});
       take_chunk(64);
       monitor.largest_chunk = 24;
     },
     [](int t) { take(t, 24); },
     [] {
       EXPECT_THAT_AT_END(scene.result[0] == 1 && scene.result[1] == 1);
       EXPECT_THAT_AT_END(n_used() == 2);
       audit_pool();
     }},
    {"reused_slot_at_the_end", "the new current slot is one that was released", 2,
     [] {
       pool_with_room(0, 0);
       const maddr_t first = take_chunk(64);
       take_chunk(64);
       delete_chunk(first);
       monitor.largest_chunk = 32;
     },
     [](int t) { take(t, 32); }, [] { finish(3, 1, 64); }},
    {"slot_current_again", "a slot without room is released and current again, with room, before it is left", 2,
     [] {
       pool_with_room(64, 0);
       scene.chunk[2] = take_chunk(64);
       monitor.largest_chunk = 40;
     },
     [](int t) {
       if (t == 0) return take(0, 40);
       take(1, 64);
       delete_chunk(scene.chunk[2]);
       take(1, 24);
     },
     [] {
       EXPECT_THAT_AT_END(n_used() <= 3);
       audit_pool();
     }},
    {"slot_end_4", "four chunks at the end of a slot with room for one, with addresses of both widths", 4,
     [] { pool_with_room(24, 24); }, [](int t) { t < 2 ? take(t, 24) : take_wide(t, 24); }, [] { finish(3, 2, 24); }},
    {"totals", "sums of the pool are exact, whoever adds", 2,
     [] {
       make_pool(1, 64);
       take_chunk(40);
       monitor.largest_chunk = 24;
       exact_totals();
       scene.value[0] = pool_hdr()->total_mused;
       scene.value[1] = pool_hdr()->total_mwast;
     },
     [](int t) { take(t, 24); },
     [] {
       EXPECT_THAT_AT_END(pool_hdr()->total_mused == scene.value[0] + 48);
       EXPECT_THAT_AT_END(pool_hdr()->total_mwast == scene.value[1] + 2 * 16 + 8);
       EXPECT_THAT_AT_END(pool_hdr()->total_msz == 2u * tslb_da_get_slotsz(scene.array, nullptr) +
                                                       static_cast<uint32_t>(tslb_dynmem_get_hdrsz(scene.array)));
       finish(2, 1, 24);
     }},
    {"resolve_beside_take", "an address is resolved while the pool takes a new slot", 2,
     [] {
       pool_with_room(0, 24);
       scene.chunk[1] = {0, 0};
       scene.ptr[0] = tslb_dynmem_get_maddr2ptr(scene.array, scene.chunk[1]);
     },
     [](int t) {
       if (t == 0) return take(0, 24);
       uint32_t bytes = 0;
       scene.ptr[1] = tslb_dynmem_get_maddr2ptr_ex(scene.array, scene.chunk[1], &bytes);
       scene.value[1] = bytes;
     },
     [] {
       EXPECT_THAT_AT_END(scene.ptr[1] == scene.ptr[0] && scene.value[1] == 64 - 16 - 1);
       finish(2, 1, 24);
     }},
    {"ring_completion", "three threads need the last slot of a ring, which has room for two of them", 3,
     [] { ring_with(253, 32); }, [](int t) { take(t, 32); },
     [] {
       EXPECT_THAT_AT_END(slot_at(253)->bytes_used == 64);
       finish_ring(0, 32);
     }},
    {"ring_wrap", "three threads at the end of a complete ring, one with a smaller chunk", 3,
     [] {
       ring_with(253, 0);
       take_chunk(48);
       monitor.largest_chunk = 32;
     },
     [](int t) { take(t, t == 2 ? 16 : 32); },
     [] {
       EXPECT_THAT_AT_END(cursor_slot() == 0 || cursor_slot() == 1);
       EXPECT_THAT_AT_END(n_used() == TSLB_RING_SLOTS);
       audit_pool();
     }},
    {"ring_mixed", "a 64-bit chunk takes a slot above the ring, while a 32-bit chunk steps", 2,
     [] {
       ring_with(254, 24);
       monitor.has_wide_chunks = true;
     },
     [](int t) { t == 0 ? take(0, 24) : take_wide(1, 24); },
     [] {
       EXPECT_THAT_AT_END(n_used() == TSLB_RING_SLOTS || n_used() == TSLB_RING_SLOTS + 1);
       audit_pool();
     }},
};

}  // namespace
const std::span<const scenario_t> CHUNK_SCENARIOS(SCENARIOS);
