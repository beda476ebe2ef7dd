#include "huge_pages.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstdint>
#include <unordered_map>

namespace tslb_durable {
namespace {

constexpr int COLLAPSE = 25;  // MADV_COLLAPSE, which headers of older kernels do not have
constexpr unsigned HUGE_SHIFT = 21;
constexpr uintptr_t HUGE_BYTES = uintptr_t{1} << HUGE_SHIFT;
// Memory of the rest of a page may be unused, and then takes memory from here on.
constexpr uintptr_t MIN_USED_BYTES = HUGE_BYTES / 8 * 7;

using BytesOfPages = std::unordered_map<uintptr_t, uintptr_t>;  // of huge pages, by number

void add_range(uintptr_t start, uintptr_t bytes, BytesOfPages &used) {
  while (bytes != 0) {
    const uintptr_t in_page = std::min(bytes, HUGE_BYTES - start % HUGE_BYTES);
    used[start >> HUGE_SHIFT] += in_page;
    start += in_page;
    bytes -= in_page;
  }
}

void add_array(DynArrHandle_t *array, BytesOfPages &used) {
  const Geometry geometry(array);
  const uint32_t n_used = tslb_da_get_size(array);
  // Slots follow each other in the direct area and in each data block.
  for (uint32_t idx = 0, n_slots; idx < n_used; idx += n_slots) {
    n_slots = idx < array->n_direct ? array->n_direct - idx : TSLB_SLOTS_PER_BLOCK;
    n_slots = std::min(n_slots, n_used - idx);
    if (const void *record = tslb_da_get_ptr(array, idx); record != nullptr)
      add_range(reinterpret_cast<uintptr_t>(record), uintptr_t{n_slots} * geometry.slot_bytes, used);
  }
}

}  // namespace

void use_huge_pages(const std::vector<Array> &arrays) {
  BytesOfPages used;
  for (const Array &array : arrays) add_array(array.get(), used);
  for (const auto &[number, bytes] : used)
    // A refusal leaves small pages, with which the fork takes longer.
    if (bytes >= MIN_USED_BYTES) madvise(reinterpret_cast<void *>(number << HUGE_SHIFT), HUGE_BYTES, COLLAPSE);
}

}  // namespace tslb_durable
