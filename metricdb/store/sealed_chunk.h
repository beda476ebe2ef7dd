// A chunk of encoded points of one series.
#pragma once

#include <tslb/tslb_dynmem.h>
#include <tslb/tslb_stored.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include "codec/point.h"

namespace metricdb {

// The header. `bytes` bytes of encoded points follow, and zeros up to a multiple of 8.
struct TSLB_UNALIGNED SealedChunk {
  static constexpr uint16_t BLOCK = 0x8000;

  maddr_t next;  // 0 in the last chunk of a chain
  uint16_t
      form_and_count;  // the number of points, and BLOCK for a block (point_block.h), which is what is written now;
                       // without BLOCK, which earlier versions wrote, a run (point_codec.h)
  uint16_t bytes;
  int64_t oldest_ns;  // the minimum and the maximum timestamp in the chunk
  int64_t newest_ns;

  uint16_t count() const { return form_and_count & static_cast<uint16_t>(~BLOCK); }
  bool is_block() const { return (form_and_count & BLOCK) != 0; }
};
TSLB_STORED_SIZE(SealedChunk, 24);
TSLB_STORED_AT(SealedChunk, next, 0);
TSLB_STORED_AT(SealedChunk, form_and_count, 4);
TSLB_STORED_AT(SealedChunk, bytes, 6);
TSLB_STORED_AT(SealedChunk, oldest_ns, 8);
TSLB_STORED_AT(SealedChunk, newest_ns, 16);

inline const char *bytes_of(const SealedChunk *chunk) {
  return reinterpret_cast<const char *>(chunk + 1);
}

inline constexpr size_t MAX_SEALED_CHUNK_POINTS = 3'500;

// Upper bound of the bytes that seal_chunk writes for n points.
size_t max_sealed_chunk_bytes(size_t n);

// Writes the header, without a next chunk, and the encoded points to `out`. Returns the bytes of both.
//
// points  n of them, 16 bytes each, at any alignment.
// n       1 to MAX_SEALED_CHUNK_POINTS.
size_t seal_chunk(const char *points, size_t n, ValueType type, char *out);

// Appends the points of a chunk to `points`. Accepts any header and any bytes after it, which must not change meanwhile.
// Returns false if they are not a sealed form of its points; `points` is as before then.
bool open_chunk(const SealedChunk &head, const char *bytes, ValueType type, std::vector<Point> &points);

}  // namespace metricdb
