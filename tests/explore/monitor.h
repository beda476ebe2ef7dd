// Checks at the moment of a probe: who owns which slot and which bytes of a pool.
#ifndef TSLB_EXPLORE_MONITOR_H
#define TSLB_EXPLORE_MONITOR_H

#include <stddef.h>
#include <stdint.h>

// Plain data: a copy after a scenario's setup comes back before each schedule.
struct monitor_t {
  struct chunk_t {
    const void *pool;
    uint32_t slot, off, bytes;
    bool is_old;  // taken by the setup
  };
  static constexpr int MAX_CHUNKS = 1024, MAX_SLOTS = 4096;

  chunk_t chunks[MAX_CHUNKS];  // that live
  int n_chunks;
  uint8_t is_owned[MAX_SLOTS / 8];  // slots of the array or pool under test
  uint8_t has_block[256];           // data blocks, by number
  // Bytes of the largest chunk that the threads request. A slot with as much room must not be left.
  uint32_t largest_chunk;
  bool is_ring;          // old chunks may be overwritten
  bool has_wide_chunks;  // in slots above the ring

  void setup_ended();
  // The owner agrees that another one takes the slot.
  void give_up(uint32_t slot);
  // Chunks of a slot that live.
  int live_in(uint32_t slot) const;
};
extern monitor_t monitor;

#endif
