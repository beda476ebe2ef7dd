#include "store/sealed_chunk.h"

#include <algorithm>
#include <cstring>

#include "codec/point_block.h"
#include "codec/point_codec.h"

namespace metricdb {
namespace {

static_assert(sizeof(SealedChunk) + max_block_bytes(MAX_SEALED_CHUNK_POINTS) <= TSLB_COMPAT_LEN_MAX);

bool decode_run(const SealedChunk &head, const char *bytes, std::vector<Point> &points) {
  const size_t n_before = points.size();
  SealedPoints run(bytes, head.bytes, head.count());
  for (Point point; run.next(point);) points.push_back(point);
  if (run.is_whole()) return true;
  points.resize(n_before);
  return false;
}

}  // namespace

size_t max_sealed_chunk_bytes(size_t n) {
  return sizeof(SealedChunk) + max_block_bytes(n);
}

size_t seal_chunk(const char *points, size_t n, ValueType type, char *out) {
  const size_t bytes = encode_block(points, n, type, out + sizeof(SealedChunk));
  SealedChunk head = {};
  head.form_and_count = static_cast<uint16_t>(SealedChunk::BLOCK | n);
  head.bytes = static_cast<uint16_t>(bytes);
  head.oldest_ns = INT64_MAX;
  head.newest_ns = INT64_MIN;
  for (size_t i = 0; i < n; ++i) {
    int64_t ts_ns;
    std::memcpy(&ts_ns, points + i * sizeof(Point), sizeof ts_ns);
    head.oldest_ns = std::min<int64_t>(head.oldest_ns, ts_ns);
    head.newest_ns = std::max<int64_t>(head.newest_ns, ts_ns);
  }
  std::memcpy(out, &head, sizeof head);
  return sizeof head + bytes;
}

bool open_chunk(const SealedChunk &head, const char *bytes, ValueType type, std::vector<Point> &points) {
  if (head.is_block()) return decode_block(bytes, head.bytes, head.count(), type, points);
  // Runs have real values only.
  return type == ValueType::real && decode_run(head, bytes, points);
}

}  // namespace metricdb
