// Decodes any bytes as a sealed run, and seals any bytes as points.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "codec/point_codec.h"

namespace {

std::vector<char> sealed(const std::vector<char> &points) {
  const size_t n = points.size() / sizeof(metricdb::Point);
  std::vector<char> out(metricdb::max_sealed_bytes(n));
  out.resize(metricdb::seal_points(points.data(), n, out.data()));
  return out;
}

// The decoded points of a run, as bytes.
std::vector<char> walked(const std::vector<char> &run, size_t n, bool &is_whole) {
  std::vector<char> points;
  metricdb::SealedPoints walk(run.data(), run.size(), n);
  for (metricdb::Point point; walk.next(point);) {
    const auto *const bytes = reinterpret_cast<const char *>(&point);
    points.insert(points.end(), bytes, bytes + sizeof point);
  }
  is_whole = walk.is_whole();
  return points;
}

void expect(bool holds) {
  if (!holds) abort();
}

}  // namespace

// The first two bytes are the count of points.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 3) return 0;
  uint16_t n;
  std::memcpy(&n, data, sizeof n);
  const std::vector<char> bytes(data + sizeof n, data + size);
  bool is_whole;
  const std::vector<char> points = walked(bytes, n, is_whole);
  // A valid run is the only form of its points.
  if (is_whole && n != 0) expect(sealed(points) == bytes);

  const std::vector<char> given(bytes.begin(), bytes.end() - static_cast<ptrdiff_t>(bytes.size() % 16));
  if (given.empty()) return 0;
  expect(walked(sealed(given), given.size() / 16, is_whole) == given);
  expect(is_whole);
  return 0;
}
