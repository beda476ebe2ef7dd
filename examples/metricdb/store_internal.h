// What the two sources of the store share: how chunks are reached, and how they name the place that refers to them.
#pragma once

#include <cstddef>
#include <cstring>

#include "store.h"

namespace metricdb {

// Table ids of the arrays. Where a chunk is referred to is written into its compaction header with them.
inline constexpr int CATALOGUE_TABLE = 1;
inline constexpr int KEYS_TABLE = 2;
inline constexpr int POINTS_TABLE = 3;

inline srcaddr_t referrer_of(int table, uint32_t index, size_t offset) {
  return {static_cast<uint32_t>(table), index, static_cast<short>(offset), {0, 0}};
}

// Points need not be aligned where they lie.
inline char *point_at(const PointChunk *chunk, size_t index) {
  return const_cast<char *>(reinterpret_cast<const char *>(chunk + 1)) + index * sizeof(Point);
}

// Any array of the store: all have lists.
inline const DynArrLLI_t *lists_of(DynArrHandle_t *array) {
  return static_cast<const DynArrLLI_t *>(tslb_da_get_lli(array));
}

inline uint32_t status_of(const void *slot_ptr) {
  return reinterpret_cast<const node_fw *>(static_cast<const char *>(slot_ptr) - sizeof(node_fw))->status;
}

}  // namespace metricdb
