// Decodes any bytes as a block and as a run, and encodes any bytes as points.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "codec/point_block.h"
#include "codec/point_codec.h"

namespace {

using metricdb::Point;
using metricdb::ValueType;

void expect(bool holds) {
  if (!holds) abort();
}

void expect_back(const std::vector<char> &points, ValueType type) {
  const size_t n = points.size() / sizeof(Point);
  std::vector<char> block(metricdb::max_block_bytes(n));
  block.resize(metricdb::encode_block(points.data(), n, type, block.data()));
  std::vector<Point> found;
  expect(metricdb::decode_block(block.data(), block.size(), n, type, found));
  expect(std::memcmp(found.data(), points.data(), points.size()) == 0);
}

}  // namespace

// The first two bytes are the number of points and their type.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 3) return 0;
  uint16_t head;
  std::memcpy(&head, data, sizeof head);
  const size_t n = head & metricdb::MAX_BLOCK_POINTS;
  const ValueType type = (head & 0x8000) != 0 ? ValueType::integer : ValueType::real;
  const std::vector<char> bytes(data + sizeof head, data + size);
  std::vector<Point> found;
  expect(metricdb::decode_block(bytes.data(), bytes.size(), n, type, found) == (!found.empty()));
  expect(found.empty() || found.size() == n);
  metricdb::SealedPoints run(bytes.data(), bytes.size(), n);
  for (Point point; run.next(point);) continue;

  const std::vector<char> given(bytes.begin(), bytes.end() - static_cast<ptrdiff_t>(bytes.size() % sizeof(Point)));
  if (!given.empty()) expect_back(given, type);
  return 0;
}
