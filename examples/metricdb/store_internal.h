// What the sources of the store share, and those who bring its arrays back: how the arrays are made, how chunks are
// reached, and how they name the place that refers to them.
#pragma once

#include <tslb_rd_api.h>

#include <algorithm>

#include <cstddef>
#include <cstring>

#include "store.h"

namespace metricdb {

// Table ids of the arrays. Where a chunk is referred to is written into its compaction header with them. Those of the
// pools are the library's for pools of their kinds: it cuts the stored form of such a one behind its last chunk.
inline constexpr int CATALOGUE_TABLE = 1;
inline constexpr int KEYS_TABLE = BBP_TBLID;
inline constexpr int POINTS_TABLE = BVP_TBLID;

inline constexpr const char *CONTEXT = "metricdb";
inline constexpr uint8_t RECORD_VERSION = 0;

inline constexpr uint32_t NO_SLOT = 0xFFFFFFFFu;  // the cursor's slot ahead of the first chunk

// One less than the pools' addresses can name. The library stops the process when a pool's last slot is current and
// full, even if other slots are free by then: so that one is never taken.
inline constexpr uint32_t MOST_KEY_SLOTS = 255;
inline constexpr uint32_t MOST_POINT_SLOTS = 2040;

inline constexpr uint8_t FIRST_CAPACITY = 4;
inline constexpr int LARGEST_CAPACITY = 64;

// By what came before: a chain that lost its front goes on in large chunks.
inline uint8_t capacity_behind(const PointChunk *previous) {
  return previous == nullptr ? FIRST_CAPACITY
                             : static_cast<uint8_t>(std::min(previous->capacity * 4, LARGEST_CAPACITY));
}

inline int bytes_of(uint8_t capacity) {
  return static_cast<int>(sizeof(PointChunk) + capacity * sizeof(Point));
}

inline DynMemHdr_t *header_of(dynmem_t *pool) {
  return static_cast<DynMemHdr_t *>(tslb_da_get_usrhdr(pool));
}

inline MemSlotAddr_t cursor_of(dynmem_t *pool) {
  MemSlotAddr_t cursor;
  std::memcpy(&cursor, &header_of(pool)->cur_slot_addr, sizeof cursor);
  return cursor;
}

inline uint32_t bits_of(const maddr_t &address) {
  uint32_t bits;
  std::memcpy(&bits, &address, sizeof bits);
  return bits;
}

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
