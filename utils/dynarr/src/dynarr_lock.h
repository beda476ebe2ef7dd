// The spin lock of a handle: tslb_da_spin_lock16 and tslb_da_spin_unlock16 as inline functions. Private.
//
// With TSLB_CHECK_INVARIANTS, lock_array and unlock_array also check small arrays (dynarr_invariants.cpp).
#ifndef DYNARR_LOCK_H
#define DYNARR_LOCK_H

#include "dynamic_array.h"

static inline void spin_lock(uint16_t *word) {
  while (__builtin_expect(cas16(word, 0, 1) == 0, 0)) {
  }
}
static inline void spin_unlock(uint16_t *word) {
  cas16(word, 1, 0);
}

#ifdef TSLB_CHECK_INVARIANTS
void lock_array(DynArrHandle_t *array);
void unlock_array(DynArrHandle_t *array);
#else
static inline void lock_array(DynArrHandle_t *array) {
  spin_lock(&array->spinlock);
}
static inline void unlock_array(DynArrHandle_t *array) {
  spin_unlock(&array->spinlock);
}
#endif

#endif
