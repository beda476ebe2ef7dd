#include "store/sealed_chunk.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>

#include "codec/point_block.h"
#include "codec/point_codec.h"
#include "store/store_internal.h"

namespace metricdb {
namespace {

static_assert(sizeof(SealedChunk) + sizeof(ChunkSummary) + max_block_bytes(MAX_SEALED_CHUNK_POINTS) <=
              TSLB_COMPAT_LEN_MAX);

// Returns false if it wraps, or is no number.
bool add_to(double &sum, double value) {
  return std::isfinite(sum += value);
}

bool add_to(int64_t &sum, int64_t value) {
  return !__builtin_add_overflow(sum, value, &sum);
}

template <class Value>
std::optional<ChunkSummary> summary_of_points(const char *points, size_t n) {
  const auto value_of = [](const Point &point) { return std::bit_cast<Value>(point.value); };
  Point previous = point_at(points, 0), min = previous, max = previous;
  Value sum = value_of(previous);
  bool is_possible = add_to(sum, Value{0});
  for (size_t i = 1; i < n && is_possible; ++i) {
    const Point point = point_at(points, i);
    const Value value = value_of(point);
    is_possible = point.ts_ns > previous.ts_ns && add_to(sum, value);
    if (value < value_of(min)) min = point;
    if (value > value_of(max)) max = point;
    previous = point;
  }
  if (!is_possible) return std::nullopt;
  return ChunkSummary{point_at(points, 0).value, previous.value, min, max, std::bit_cast<double>(sum)};
}

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
  return sizeof(SealedChunk) + sizeof(ChunkSummary) + max_block_bytes(n);
}

size_t seal_chunk(const char *points, size_t n, ValueType type, char *out) {
  const std::optional<ChunkSummary> summary = n < MIN_SUMMARY_POINTS ? std::nullopt : summarize(points, n, type);
  SealedChunk head = {};
  head.form_and_count = static_cast<uint16_t>(SealedChunk::BLOCK | (summary ? SealedChunk::SUMMARY : 0) | n);
  const size_t head_bytes = head_bytes_of(head);
  const size_t bytes = encode_block(points, n, type, out + head_bytes);
  head.bytes = static_cast<uint16_t>(bytes);
  head.oldest_ns = INT64_MAX;
  head.newest_ns = INT64_MIN;
  for (size_t i = 0; i < n; ++i) {
    const int64_t ts_ns = point_at(points, i).ts_ns;
    head.oldest_ns = std::min<int64_t>(head.oldest_ns, ts_ns);
    head.newest_ns = std::max<int64_t>(head.newest_ns, ts_ns);
  }
  std::memcpy(out, &head, sizeof head);
  if (summary) std::memcpy(out + sizeof head, &*summary, sizeof *summary);
  return head_bytes + bytes;
}

PointSummary summary_of(const SealedChunk &head, const ChunkSummary &summary) {
  return {head.count(), {head.oldest_ns, summary.first}, {head.newest_ns, summary.last}, summary.min, summary.max,
          summary.sum};
}

std::optional<ChunkSummary> summarize(const char *points, size_t n, ValueType type) {
  return type == ValueType::integer ? summary_of_points<int64_t>(points, n) : summary_of_points<double>(points, n);
}

bool open_chunk(const SealedChunk &head, const char *bytes, ValueType type, std::vector<Point> &points) {
  if (head.is_block()) return decode_block(bytes, head.bytes, head.count(), type, points);
  // Runs have real values only.
  return type == ValueType::real && decode_run(head, bytes, points);
}

}  // namespace metricdb
