// Memory of the explored program: what its malloc and calloc return. Each logical thread has a region of its own, so that
// an address does not depend on the order in which threads allocate. The state after a scenario's setup is kept, and comes
// back by a copy before each schedule.
#ifndef TSLB_EXPLORE_ARENA_H
#define TSLB_EXPLORE_ARENA_H

#include <stddef.h>
#include <stdint.h>

class arena_t {
 public:
  static constexpr size_t REGION_BYTES = size_t{1} << 20;
  static constexpr int N_REGIONS = 5;  // 0: setup and audit; then one per thread
  static constexpr size_t BYTES = REGION_BYTES * N_REGIONS;

  arena_t();

  bool contains(uintptr_t at) const { return at - base_ < BYTES; }
  size_t offset_of(uintptr_t at) const { return at - base_; }

  // Zeroed. Null if the region is full.
  void *allocate(int region, size_t bytes);
  // Returns false if no block starts there, or if it was released before.
  bool release(void *block);
  // Whether all bytes belong to blocks that were not released.
  bool is_allocated(uintptr_t at, size_t bytes) const;

  // Blocks that were not released.
  size_t n_blocks() const;

  void reset();    // an empty arena
  void keep();     // as the state to which restore() returns
  void restore();  // also the allocations of threads are dropped

 private:
  static constexpr size_t UNIT = 16;
  enum unit_t : uint8_t { UNUSED, FIRST, MORE, RELEASED };

  char *at(int region) const { return reinterpret_cast<char *>(base_) + region * REGION_BYTES; }

  uintptr_t base_;
  unit_t *units_;  // one per UNIT bytes
  char *kept_;
  unit_t *kept_units_;
  size_t used_[N_REGIONS] = {};  // bytes
  size_t kept_used_ = 0;
};

#endif
