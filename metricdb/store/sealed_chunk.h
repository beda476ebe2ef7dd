// A chunk of encoded points of one series.
#pragma once

#include <tslb/tslb_dynmem.h>
#include <tslb/tslb_stored.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "codec/point.h"

namespace metricdb {

// The header. With SUMMARY a ChunkSummary follows. Then come `bytes` bytes of encoded points, and zeros up to the end of the
// chunk: fewer than 8, or room for more points in a chunk of at most MAX_POINTS_WITH_ROOM.
struct TSLB_UNALIGNED SealedChunk {
  static constexpr uint16_t BLOCK = 0x8000, SUMMARY = 0x4000;

  maddr_t next;  // 0 in the last chunk of a chain
  uint16_t
      form_and_count;  // the number of points, with BLOCK for a block (point_block.h), which is what is written now;
                       // without BLOCK, which earlier versions wrote, a run (point_codec.h)
  uint16_t bytes;
  int64_t oldest_ns;  // the minimum and the maximum timestamp in the chunk
  int64_t newest_ns;

  uint16_t count() const { return form_and_count & static_cast<uint16_t>(~(BLOCK | SUMMARY)); }
  bool is_block() const { return (form_and_count & BLOCK) != 0; }
  bool has_summary() const { return (form_and_count & SUMMARY) != 0; }
};
TSLB_STORED_SIZE(SealedChunk, 24);
TSLB_STORED_AT(SealedChunk, next, 0);
TSLB_STORED_AT(SealedChunk, form_and_count, 4);
TSLB_STORED_AT(SealedChunk, bytes, 6);
TSLB_STORED_AT(SealedChunk, oldest_ns, 8);
TSLB_STORED_AT(SealedChunk, newest_ns, 16);

// Of a chunk with many points, which have ascending times and are numbers. Values are those of points.
struct TSLB_UNALIGNED ChunkSummary {
  double first;  // the value of the oldest point
  double last;
  Point min;  // the earliest of those with this value
  Point max;
  double sum;
};
TSLB_STORED_SIZE(ChunkSummary, 56);
TSLB_STORED_AT(ChunkSummary, first, 0);
TSLB_STORED_AT(ChunkSummary, last, 8);
TSLB_STORED_AT(ChunkSummary, min, 16);
TSLB_STORED_AT(ChunkSummary, max, 32);
TSLB_STORED_AT(ChunkSummary, sum, 48);

// Bytes before the encoded points.
inline size_t head_bytes_of(const SealedChunk &head) {
  return sizeof head + (head.has_summary() ? sizeof(ChunkSummary) : 0);
}

inline const char *bytes_of(const SealedChunk *chunk) {
  return reinterpret_cast<const char *>(chunk) + head_bytes_of(*chunk);
}

inline constexpr size_t MAX_SEALED_CHUNK_POINTS = 3'500;
inline constexpr size_t MAX_POINTS_WITH_ROOM = 128;
inline constexpr size_t MIN_SUMMARY_POINTS = 1'024;  // with fewer points it takes more than 0.05 bytes of each

// Upper bound of the bytes that seal_chunk writes for n points.
size_t max_sealed_chunk_bytes(size_t n);

// Writes the header, without a next chunk, the summary if there is one, and the encoded points to `out`. Returns the bytes of
// all.
//
// points  n of them, 16 bytes each, at any alignment.
// n       1 to MAX_SEALED_CHUNK_POINTS.
size_t seal_chunk(const char *points, size_t n, ValueType type, char *out);

// What the summary of a chunk says.
PointSummary summary_of(const SealedChunk &head, const ChunkSummary &summary);

// The summary of points; nothing if they cannot have one.
std::optional<ChunkSummary> summarize(const char *points, size_t n, ValueType type);

// Appends the points of a chunk to `points`. Accepts any header and any bytes after it, which must not change meanwhile.
// Returns false if they are not a sealed form of its points; `points` is as before then.
bool open_chunk(const SealedChunk &head, const char *bytes, ValueType type, std::vector<Point> &points);

}  // namespace metricdb
