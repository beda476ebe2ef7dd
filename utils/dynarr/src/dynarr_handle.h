// What follows the handle in its allocation: memory of the process that belongs to an array and concerns no caller.
// Private.
#ifndef DYNARR_HANDLE_H
#define DYNARR_HANDLE_H

#include "dynamic_array.h"

struct array_private_t {
  DynArrHandle_t handle;
  // State of the module that the array belongs to, which alone knows its type. Released with the array if not null.
  void *module_state;
  void (*release_module_state)(void *module_state);
};

static inline array_private_t *private_of(DynArrHandle_t *array) {
  return reinterpret_cast<array_private_t *>(array);
}

#endif
