// The part of a handle's allocation that follows DynArrHandle_t: process memory of the library that callers do not see.
// Private.
#ifndef DYNARR_HANDLE_H
#define DYNARR_HANDLE_H

#include "dynamic_array.h"

struct array_private_t {
  DynArrHandle_t handle;
  // State of the module that owns the array. Only that module knows its type. Released with the array if not null.
  void *module_state;
  void (*release_module_state)(void *module_state);
};

static inline array_private_t *private_of(DynArrHandle_t *array) {
  return reinterpret_cast<array_private_t *>(array);
}

#endif
