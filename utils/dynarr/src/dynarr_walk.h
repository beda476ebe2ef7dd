// Walks an array's data blocks in id order. Used by sync and by the walks of tslb_dynarr_snapshot.cpp. Private.
#ifndef DYNARR_WALK_H
#define DYNARR_WALK_H

#include "dynarr_layout.h"

// Acquire loads: entries go from null to a pointer and never change again. An entry can stay null between others if a
// lookup was refused memory. The walk skips it.
static inline void *load_table_entry(void *const *entry) {
  return __atomic_load_n(entry, __ATOMIC_ACQUIRE);
}

// Visits the blocks below one table. `tiers` is the number of table levels down to the blocks, this one included.
// Returns false if the visit ended the walk.
template <class Visit>
static bool walk_table(void *const *table, unsigned tiers, unsigned level, Visit visit) {
  for (uint32_t i = 0; i < TSLB_ENTRIES_PER_TABLE; ++i) {
    void *const below = load_table_entry(table + i);
    if (below == nullptr) continue;
    const bool goes_on =
        tiers > 1 ? walk_table(static_cast<void *const *>(below), tiers - 1, level, visit) : visit(below, level);
    if (!goes_on) return false;
  }
  return true;
}

// visit(block, level) returns false to end the walk. Returns true if all levels were walked to their ends.
template <class Visit>
static bool walk_data_blocks(const DynArrHandle_t *array, Visit visit) {
  void *const *const roots = reinterpret_cast<void *const *>(__atomic_load_n(&array->ir_base, __ATOMIC_ACQUIRE));
  if (roots == nullptr) return true;
  for (unsigned level = 1; level <= TSLB_LEVELS; ++level) {
    void *const table = load_table_entry(roots + level - 1);
    if (table != nullptr && !walk_table(static_cast<void *const *>(table), level, level, visit)) return false;
  }
  return true;
}

#endif
