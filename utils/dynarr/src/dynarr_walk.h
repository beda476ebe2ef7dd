// The one walk over an array's data blocks, in id order: what sync, snapshot, iteration and release share. Private.
#ifndef DYNARR_WALK_H
#define DYNARR_WALK_H

#include "dynarr_layout.h"

// Plain reads with acquire: tables only ever gain entries. A hole is what a lookup left that was refused memory; it is
// stepped over.
static inline void *load_table_entry(void *const *entry) {
  return __atomic_load_n(entry, __ATOMIC_ACQUIRE);
}

// Visits what hangs below one table, `tiers` of tables above the blocks (this one counted). False if the visit ended
// it.
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

// visit(block, level) says whether to go on. True if all levels were walked to their ends.
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
