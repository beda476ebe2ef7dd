// Shared by the sources of the store and by the code that restores its arrays: table ids, limits, and access to chunks,
// headers and lists.
#pragma once

#include <tslb/tslb_rd_api.h>
#include <tslb/tslb_stored.h>

#include <cstddef>
#include <cstring>

#include "store/store.h"

namespace metricdb {

// Table ids of the arrays; compaction headers contain them. The pools have the library's ids for pools of their kinds,
// because snapshots of pools with these ids are trimmed after the last chunk.
inline constexpr int CATALOGUE_TABLE = 1;
inline constexpr int KEYS_TABLE = BBP_TBLID;
inline constexpr int POINTS_TABLE = BVP_TBLID;

inline constexpr const char *CONTEXT = "metricdb";
inline constexpr uint8_t POOL_RECORD_VERSION = 0;
inline constexpr int CATALOGUE_DIRECT_SLOTS = 64;

// Highest number of memory slots in use: the pool's last addressable slot is never taken. The library stops the process
// when that slot is current and full, even if other slots are free.
inline constexpr uint32_t MAX_KEY_SLOTS = TSLB_BIGBUF_LAST_SLOT;
inline constexpr uint32_t MAX_POINT_SLOTS = TSLB_BITVEC_LAST_SLOT;

// Content of the pools, for messages.
inline constexpr const char *KEYS_NAME = "series keys";
inline constexpr const char *POINTS_NAME = "points";

// Capacities of an open chunk in points: 8, then 32, then 128.
inline constexpr uint32_t FIRST_CAPACITY = 8;
inline constexpr uint32_t CAPACITY_STEP = 4;

// Length of data in a bit-vector pool, whose chunks have multiples of 8 bytes.
inline constexpr size_t padded(size_t bytes) {
  return (bytes + TSLB_BV_UNIT_BYTES - 1) / TSLB_BV_UNIT_BYTES * TSLB_BV_UNIT_BYTES;
}

// Bytes of a sealed chunk, without room for more points.
inline size_t padded_bytes_of(const SealedChunk &chunk) {
  return padded(head_bytes_of(chunk) + chunk.bytes);
}

inline DynMemHdr_t *header_of(dynmem_t *pool) {
  return static_cast<DynMemHdr_t *>(tslb_da_get_usrhdr(pool));
}

inline uint32_t bits_of(const maddr_t &address) {
  uint32_t bits;
  std::memcpy(&bits, &address, sizeof bits);
  return bits;
}

// The place of the compaction header of the chunk at this address.
inline tslb_chunk_place_t place_of(dynmem_t *pool, const maddr_t &address) {
  return (header_of(pool)->flag & MPOOL_FLAG_BV) != 0 ? tslb_stored_decode_bitvector(bits_of(address))
                                                      : tslb_stored_decode_bigbuffer(bits_of(address));
}

inline srcaddr_t referrer_of(int table, uint32_t index, size_t offset) {
  return {static_cast<uint32_t>(table), index, static_cast<short>(offset), {0, 0}};
}

// The reference to a sealed chunk in the one before it.
inline srcaddr_t referrer_in_chunk(const maddr_t &previous) {
  return referrer_of(POINTS_TABLE, bits_of(previous), offsetof(SealedChunk, next));
}

// The compaction header of the chunk with this data.
inline compat_t *compat_of(char *chunk) {
  return reinterpret_cast<compat_t *>(chunk) - 1;
}

// Points in memory need not be aligned.
inline Point point_at(const char *points, size_t index) {
  Point point;
  std::memcpy(&point, points + index * sizeof point, sizeof point);
  return point;
}

// All arrays of the store have lists.
inline const DynArrLLI_t *lists_of(DynArrHandle_t *array) {
  return static_cast<const DynArrLLI_t *>(tslb_da_get_lli(array));
}

inline uint32_t status_of(const void *slot_ptr) {
  return reinterpret_cast<const node_fw *>(static_cast<const char *>(slot_ptr) - TSLB_NODE_BYTES)->status;
}

}  // namespace metricdb
