// The gate of the durable store's groups, tickets that are settled by groups, and chunks at a pool's limit of slots.
#include <new>

#include "chunk_room.h"
#include "gate.h"
#include "machine.h"
#include "monitor.h"
#include "scenario.h"
#include "waiters.h"

namespace {

using tslb_durable::ChunkRoom;
using tslb_durable::Gate;
using tslb_durable::GateClosed;
using tslb_durable::Waiters;

// The part of a store that concerns groups: a batch changes its bytes inside the gate, and a group copies them while the
// gate is closed.
struct store_t {
  Gate gate;
  std::mutex mutex;  // guards the tickets
  std::mutex flush_mutex;
  Waiters waiters;
  uint64_t last_ticket, settled;
  uint32_t bytes[MAX_THREADS], copied[MAX_THREADS];
};
store_t *store;

void make_store(uint32_t n_inside = 0) {
  store = new (machine.arena.allocate(0, sizeof(store_t))) store_t();
  for (uint32_t i = 0; i < n_inside; ++i) store->gate.enter();
}

void batch(int thread) {
  store->gate.enter();
  ++store->bytes[thread];
  store->gate.leave();
}
uint64_t batch_with_ticket(int thread) {
  store->gate.enter();
  ++store->bytes[thread];
  uint64_t ticket;
  {
    const std::lock_guard lock(store->mutex);
    ticket = ++store->last_ticket;
  }
  store->gate.leave();
  return ticket;
}

void copy_group() {
  uint64_t ticket;
  {
    const GateClosed closed(store->gate);
    for (int i = 0; i < MAX_THREADS; ++i) store->copied[i] = store->bytes[i];
    const std::lock_guard lock(store->mutex);
    ticket = store->last_ticket;
  }
  const std::lock_guard lock(store->mutex);
  store->settled = ticket;
}

uint64_t settled() {
  const std::lock_guard lock(store->mutex);
  return store->settled;
}
void settle(uint64_t ticket) {
  std::unique_lock lock(store->mutex);
  store->waiters.settle(lock, store->settled, ticket, [ticket]() noexcept {
    const std::lock_guard flushing(store->flush_mutex);
    if (settled() < ticket) copy_group();
  });
}

ChunkRoom *room;

const scenario_t SCENARIOS[] = {
    {"gate_closes", "a group closes the gate beside two batches", 3, [] { make_store(); },
     [](int t) { t == 2 ? copy_group() : batch(t); },
     [] { EXPECT_THAT_AT_END(store->copied[0] <= 1 && store->copied[1] <= 1); }},
    {"gate_is_full", "one batch leaves a full gate at which two wait", 3, [] { make_store(Gate::MAX_INSIDE); },
     [](int t) { t == 2 ? store->gate.leave() : batch(t); },
     [] { EXPECT_THAT_AT_END(store->bytes[0] == 1 && store->bytes[1] == 1); }},
    {"gate_is_full_and_closes", "the gate is full and closes, while all its batches leave and another one enters", 3,
     [] { make_store(Gate::MAX_INSIDE); },
     [](int t) {
       if (t == 0) batch(0);
       if (t == 1) copy_group();
       for (uint32_t i = 0; t == 2 && i < Gate::MAX_INSIDE; ++i) store->gate.leave();
     },
     [] { EXPECT_THAT_AT_END(store->copied[0] <= 1 && store->bytes[0] == 1); }},
    {"tickets_3", "three batches wait until their groups are copied", 3, [] { make_store(); },
     [](int t) { settle(batch_with_ticket(t)); },
     [] { EXPECT_THAT_AT_END(store->copied[0] == 1 && store->copied[1] == 1 && store->copied[2] == 1); }},
    {"tickets", "two batches wait until their groups are copied", 2, [] { make_store(); },
     [](int t) {
       settle(batch_with_ticket(t));
       const std::lock_guard flushing(store->flush_mutex);
       scene.value[t] = store->copied[t];
     },
     [] { EXPECT_THAT_AT_END(scene.value[0] == 1 && scene.value[1] == 1); }},
    {"last_slot_of_a_limit", "two chunks of a store need a slot, and the pool may take one", 2,
     [] {
       make_pool(4, 64);
       take_chunk(64);
       room = new (machine.arena.allocate(0, sizeof(ChunkRoom))) ChunkRoom(scene.array, TSLB_POOL_BIG_BUFFER, 2);
     },
     [](int t) { scene.ptr[t] = room->take(48, srcaddr_t{}, &scene.chunk[t]); },
     [] {
       EXPECT_THAT_AT_END((scene.ptr[0] == nullptr) != (scene.ptr[1] == nullptr));
       EXPECT_THAT_AT_END(n_used() == 2);
     }},
};

}  // namespace
const std::span<const scenario_t> DURABLE_SCENARIOS(SCENARIOS);
