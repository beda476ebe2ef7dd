// Takes a catalogue down to an older layout of its records, with the library's routine for it.
#pragma once

#include <cstdint>

#include "store/store.h"

namespace metricdb {

// A new array in process memory with the records of `catalogue`, under the same indices, in `layout`, which is older.
// Series stay, and what the older layout has no room for is gone. Free slots are free again, in order of their indices;
// inactive ones come out active, and the reuse policy is not carried: whoever makes a store of it registers that.
// Throws std::runtime_error where the library knows no way, or memory is refused.
Array taken_down(DynArrHandle_t *catalogue, uint8_t layout);

}  // namespace metricdb
