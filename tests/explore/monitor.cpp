#include "monitor.h"

#include <string.h>
#include <sys/sdt.h>

#include <tslb/tslb_dynarr.h>
#include <tslb/tslb_dynmem.h>
#include "machine.h"
#include "scenario.h"

monitor_t monitor;

void monitor_t::setup_ended() {
  for (int i = 0; i < n_chunks; ++i) chunks[i].is_old = true;
}

int monitor_t::live_in(uint32_t slot) const {
  int n = 0;
  for (int i = 0; i < n_chunks; ++i) n += chunks[i].slot == slot ? 1 : 0;
  return n;
}

static bool is_owned(uint64_t slot) {
  return (monitor.is_owned[slot / 8] >> slot % 8 & 1) != 0;
}
static void set_owned(uint64_t slot, bool is) {
  uint8_t *const bits = &monitor.is_owned[slot / 8];
  *bits = static_cast<uint8_t>(is ? *bits | 1u << slot % 8 : *bits & ~(1u << slot % 8));
}

void monitor_t::give_up(uint32_t slot) {
  set_owned(slot, false);
}

static void slot_taken(uint32_t slot) {
  if (is_owned(slot)) machine.violation("slot %u is taken by two owners", slot);
  set_owned(slot, true);
}

static void slot_freed(uint32_t slot) {
  if (monitor.live_in(slot) != 0) machine.violation("slot %u is freed with a live chunk", slot);
  set_owned(slot, false);
}

static void chunk_taken(const void *pool, uint32_t slot, uint32_t off, uint32_t bytes, const char *chunk) {
  for (int i = 0; i < monitor.n_chunks;) {
    const monitor_t::chunk_t other = monitor.chunks[i];
    const bool overlaps = other.slot == slot && off < other.off + other.bytes && other.off < off + bytes;
    if (overlaps && !(monitor.is_ring && other.is_old))
      machine.violation("bytes %u to %u of slot %u have two owners", off, off + bytes, slot);
    if (overlaps)
      monitor.chunks[i] = monitor.chunks[--monitor.n_chunks];
    else
      ++i;
  }
  node_fw node;
  memcpy(&node, chunk - off - sizeof(MemSlot_t) - sizeof(node), sizeof(node));
  const bool has_nodes = static_cast<const DynArrHandle_t *>(pool)->daflag != 0;
  if (has_nodes && node.status != TSLB_DA_SLOT_ACTIVE)
    machine.violation("a chunk is taken in slot %u, whose status is %u", slot, node.status);
  if (monitor.n_chunks == monitor_t::MAX_CHUNKS) machine.violation("too many chunks");
  monitor.chunks[monitor.n_chunks++] = {pool, slot, off, bytes, false};
}

static void chunk_deleted(uint32_t slot, uint32_t off) {
  for (int i = 0; i < monitor.n_chunks; ++i) {
    if (monitor.chunks[i].slot != slot || monitor.chunks[i].off != off) continue;
    monitor.chunks[i] = monitor.chunks[--monitor.n_chunks];
    return;
  }
  machine.violation("byte %u of slot %u is deleted and is no chunk", off, slot);
}

static void pool_slot(const DynArrHandle_t *pool, uint32_t fresh, uint32_t old, uint32_t old_bytes) {
  const DynMemHdr_t *const hdr = reinterpret_cast<const DynMemHdr_t *>(static_cast<char *>(pool->arr_base) + 8);
  if (old != TSLB_DA_NIL_IDX && monitor.largest_chunk != 0 && hdr->mslot_sz - old_bytes >= monitor.largest_chunk)
    machine.violation("slot %u is left with room for every request", old);
  if (monitor.is_ring && !monitor.has_wide_chunks && fresh >= TSLB_RING_SLOTS)
    machine.violation("slot %u does not belong to the ring", fresh);
}

extern "C" void explore_probe(explore_probe_t probe, const void *array, uint64_t a, uint64_t b, uint64_t c,
                              uint64_t d) {
  if (array != scene.array) return;  // a replica
  const uint32_t first = static_cast<uint32_t>(a), second = static_cast<uint32_t>(b), third = static_cast<uint32_t>(c);
  switch (probe) {
    case EXPLORE_block__created:
      if (first != 0 && monitor.has_block[first % 256]++ != 0) machine.violation("block %u is created twice", first);
      break;
    case EXPLORE_slot__taken:
      slot_taken(first);
      break;
    case EXPLORE_slot__freed:
      slot_freed(first);
      break;
    case EXPLORE_pool__slot:
      pool_slot(static_cast<const DynArrHandle_t *>(array), first, second, third);
      break;
    case EXPLORE_chunk__taken:
      chunk_taken(array, first, second, third, reinterpret_cast<const char *>(d));
      break;
    case EXPLORE_chunk__deleted:
      chunk_deleted(first, second);
      break;
    case EXPLORE_snapshot__block:
      break;
  }
}
