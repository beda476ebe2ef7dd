#include "arena.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>

#include <algorithm>

static void *map(void *at, size_t bytes) {
  void *const mapped =
      mmap(at, bytes, PROT_READ | PROT_WRITE,
           MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | (at != nullptr ? MAP_FIXED_NOREPLACE : 0), -1, 0);
  if (mapped != MAP_FAILED) return mapped;
  perror("memory for the explored program");
  exit(2);
}

arena_t::arena_t()
    // The same address in each process: a schedule can then be compared with another run's.
    : base_(reinterpret_cast<uintptr_t>(map(reinterpret_cast<void *>(0x200000000000), BYTES))),
      units_(static_cast<unit_t *>(map(nullptr, BYTES / UNIT))),
      kept_(static_cast<char *>(map(nullptr, REGION_BYTES))),
      kept_units_(static_cast<unit_t *>(map(nullptr, REGION_BYTES / UNIT))) {}

void *arena_t::allocate(int region, size_t bytes) {
  const size_t n_units = bytes / UNIT + 1;  // at least one byte after the block belongs to no other
  const size_t first = (region * REGION_BYTES + used_[region]) / UNIT;
  if (used_[region] + n_units * UNIT > REGION_BYTES) return nullptr;
  char *const block = at(region) + used_[region];
  memset(block, 0, n_units * UNIT);
  units_[first] = FIRST;
  memset(units_ + first + 1, MORE, n_units - 1);
  used_[region] += n_units * UNIT;
  return block;
}

bool arena_t::release(void *block) {
  const uintptr_t address = reinterpret_cast<uintptr_t>(block);
  if (!contains(address)) return false;
  size_t unit = offset_of(address) / UNIT;
  if (units_[unit] != FIRST || offset_of(address) % UNIT != 0) return false;
  do {
    units_[unit++] = RELEASED;
  } while (unit < BYTES / UNIT && units_[unit] == MORE);
  return true;
}

bool arena_t::is_allocated(uintptr_t address, size_t bytes) const {
  for (size_t unit = offset_of(address) / UNIT; unit <= offset_of(address + bytes - 1) / UNIT; ++unit)
    if (units_[unit] != FIRST && units_[unit] != MORE) return false;
  return true;
}

size_t arena_t::n_blocks() const {
  size_t n = 0;
  for (int region = 0; region < N_REGIONS; ++region) {
    const unit_t *const first = units_ + static_cast<size_t>(region) * REGION_BYTES / UNIT;
    n += static_cast<size_t>(std::count(first, first + used_[region] / UNIT, FIRST));
  }
  return n;
}

void arena_t::reset() {
  for (int region = 0; region < N_REGIONS; ++region) {
    memset(units_ + region * REGION_BYTES / UNIT, UNUSED, used_[region] / UNIT);
    used_[region] = 0;
  }
}

void arena_t::keep() {
  kept_used_ = used_[0];
  memcpy(kept_, at(0), kept_used_);
  memcpy(kept_units_, units_, kept_used_ / UNIT);
}

void arena_t::restore() {
  reset();
  memcpy(at(0), kept_, kept_used_);
  memcpy(units_, kept_units_, kept_used_ / UNIT);
  used_[0] = kept_used_;
}
