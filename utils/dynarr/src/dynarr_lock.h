// The spin lock of a handle: tslb_da_spin_lock16 and tslb_da_spin_unlock16 as inline functions. Private.
#ifndef DYNARR_LOCK_H
#define DYNARR_LOCK_H

#include "tslb_atomics.h"

static inline void spin_lock(uint16_t *word) {
  while (__builtin_expect(cas16(word, 0, 1) == 0, 0)) {
  }
}
static inline void spin_unlock(uint16_t *word) {
  cas16(word, 1, 0);
}

#endif
