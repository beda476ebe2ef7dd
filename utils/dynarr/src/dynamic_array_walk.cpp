// Walks over a whole array. At rest tables and blocks fill densely, from entry 0 upward; a hole is what a
// lookup left that was refused memory, and a walk steps over it.
#include <stdlib.h>

#include "dynamic_array.h"
#include "dynarr_internal.h"

// Gives back what hangs below a table, children before parents, then the table. `tiers` is 1 where its
// entries are data blocks.
static void release_tree(void **table, unsigned tiers) {
  for (uint32_t i = 0; i < ENTRIES_PER_TABLE; ++i) {
    if (table[i] == nullptr) continue;
    if (tiers > 1)
      release_tree(static_cast<void **>(table[i]), tiers - 1);
    else
      free(table[i]);
  }
  free(table);
}

void destroy_dyn_arr(DynamicArray_t array) {
  if (array == nullptr) return;
  if (array->ir_base != nullptr) {
    void **const roots = reinterpret_cast<void **>(array->ir_base);
    for (unsigned level = 1; level <= LEVELS; ++level) {
      if (roots[level - 1] != nullptr) release_tree(static_cast<void **>(roots[level - 1]), level);
    }
    free(array->ir_base);
  }
  for (unsettled_slot_t *slot = private_of(array)->unsettled; slot != nullptr;) {
    unsettled_slot_t *const next = slot->next;
    free(slot);
    slot = next;
  }
  free(array->arr_base);
  free(array);
}
