// Converts a catalogue to an older layout of its records, with the library's conversion routine.
#pragma once

#include <cstdint>

#include "store/store.h"

namespace metricdb {

// Returns a new array in process memory with the records of `catalogue` in `layout`, which is older. Indices stay.
// Fields that the older layout lacks are lost. Free slots are free, in order of their indices. Inactive slots become
// active. The reuse policy is not copied; the constructor of Store registers it. Throws std::runtime_error if the
// library has no routine for the conversion, and std::bad_alloc.
Array convert_catalogue(DynArrHandle_t *catalogue, uint8_t layout);

}  // namespace metricdb
