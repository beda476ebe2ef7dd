// What the sources of the store share, and those who bring its arrays back: how the arrays are made, how chunks are
// reached, and how they name the place that refers to them.
#pragma once

#include <tslb/tslb_rd_api.h>

#include <algorithm>

#include <cstddef>
#include <cstring>

#include "store/store.h"

namespace metricdb {

// Table ids of the arrays. Where a chunk is referred to is written into its compaction header with them. Those of the
// pools are the library's for pools of their kinds: it cuts the stored form of such a one behind its last chunk.
inline constexpr int CATALOGUE_TABLE = 1;
inline constexpr int KEYS_TABLE = BBP_TBLID;
inline constexpr int POINTS_TABLE = BVP_TBLID;

inline constexpr const char *CONTEXT = "metricdb";
inline constexpr uint8_t POOL_RECORD_VERSION = 0;

inline constexpr uint32_t NO_SLOT = 0xFFFFFFFFu;  // the cursor's slot ahead of the first chunk

// One less than the pools' addresses can name. The library stops the process when a pool's last slot is current and
// full, even if other slots are free by then: so that one is never taken.
inline constexpr uint32_t MOST_KEY_SLOTS = 255;
inline constexpr uint32_t MOST_POINT_SLOTS = 2040;

// Points of an open chunk: 8, then 32, then 128.
inline constexpr uint32_t FIRST_CAPACITY = 8;
inline constexpr uint32_t CAPACITY_STEP = 4;

inline constexpr size_t CHUNK_UNIT = 8;  // what a bit-vector pool's addresses count in

inline constexpr size_t padded(size_t bytes) {
  return (bytes + CHUNK_UNIT - 1) / CHUNK_UNIT * CHUNK_UNIT;
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
inline Point point_at(const char *points, size_t index) {
  Point point;
  std::memcpy(&point, points + index * sizeof point, sizeof point);
  return point;
}

inline const char *bytes_of(const SealedChunk *chunk) {
  return reinterpret_cast<const char *>(chunk + 1);
}

// Where a chunk's compaction header lies, as seen from its data.
inline compat_t *compat_of(char *chunk) {
  return reinterpret_cast<compat_t *>(chunk) - 1;
}

struct ChunkPlace {
  uint32_t slot;
  uint32_t offset;  // of the compaction header in the slot's chunks
};

inline ChunkPlace place_of(dynmem_t *pool, const maddr_t &address) {
  if ((header_of(pool)->flag & MPOOL_FLAG_BV) == 0) return {address.mslot_idx, address.mchunk_idx};
  maddrBV_t bits;
  std::memcpy(&bits, &address, sizeof bits);
  return {bits.mslotgroup_idx * 256u + bits.mslot_idx, bits.mchunk_idx * 8u};
}

// Any array of the store: all have lists.
inline const DynArrLLI_t *lists_of(DynArrHandle_t *array) {
  return static_cast<const DynArrLLI_t *>(tslb_da_get_lli(array));
}

inline uint32_t status_of(const void *slot_ptr) {
  return reinterpret_cast<const node_fw *>(static_cast<const char *>(slot_ptr) - sizeof(node_fw))->status;
}

}  // namespace metricdb
