#include "store/repeated_points.h"

#include <algorithm>
#include <bit>

#include "store/store_internal.h"

namespace metricdb {

const SealedChunk *RepeatedPoints::chunk_at(const maddr_t &address) const {
  return static_cast<const SealedChunk *>(tslb_dynmem_get_maddr2ptr(store_.points(), address));
}

// Addresses are valid until a chunk is deleted.
void RepeatedPoints::forget_with_store() {
  if (n_forgotten_ == store_.forgotten().chunks) return;
  n_forgotten_ = store_.forgotten().chunks;
  chains_.clear();
  decoded_ = nullptr;
}

const RepeatedPoints::Chain &RepeatedPoints::chain_of(uint32_t series, const SeriesRecord &record) {
  if (chains_.size() >= MAX_CHAINS && !chains_.contains(series)) chains_.clear();
  Chain &chain = chains_[series];
  for (; chain.n_walked < record.n_sealed(); ++chain.n_walked) {
    if (chain.chunks.size() == 2 * MAX_CHUNKS)
      chain.chunks.erase(chain.chunks.begin(), chain.chunks.begin() + MAX_CHUNKS);
    const maddr_t address = chain.chunks.empty() ? record.first_sealed() : chunk_at(chain.chunks.back().address)->next;
    const SealedChunk *const chunk = chunk_at(address);
    chain.chunks.push_back({chunk->oldest_ns, chunk->newest_ns, address});
  }
  return chain;
}

const std::vector<Point> &RepeatedPoints::points_of(const maddr_t &address) {
  const SealedChunk *const chunk = chunk_at(address);
  if (decoded_ == chunk) return points_;
  decoded_ = chunk;
  points_.clear();
  SealedPoints sealed(bytes_of(chunk), chunk->bytes, chunk->count);
  for (Point point; sealed.next(point);) points_.push_back(point);
  return points_;
}

// The last point of that time decides.
bool RepeatedPoints::is_sealed(uint32_t series, const Point &point) {
  forget_with_store();
  const SeriesRecord record = store_.record(series);
  // Most points that are not in order belong into the open chunk.
  if (record.n_sealed() == 0 || chunk_at(record.last_sealed())->newest_ns < point.ts_ns) return false;
  const std::vector<Chunk> &chunks = chain_of(series, record).chunks;
  int n_decoded = 0;
  for (size_t i = chunks.size(); i > 0 && chunks.size() - i < MAX_CHUNKS && n_decoded < MAX_DECODED; --i) {
    const Chunk &chunk = chunks[i - 1];
    if (point.ts_ns < chunk.oldest_ns || point.ts_ns > chunk.newest_ns) continue;
    ++n_decoded;
    const std::vector<Point> &points = points_of(chunk.address);
    const auto found = std::find_if(points.rbegin(), points.rend(),
                                    [&point](const Point &candidate) { return candidate.ts_ns == point.ts_ns; });
    if (found != points.rend()) return std::bit_cast<uint64_t>(found->value) == std::bit_cast<uint64_t>(point.value);
  }
  return false;
}

// In the order of arrival, so the last point of that time is found first.
bool Store::replace_open(uint32_t series, const Point &point) {
  Tail &tail = tails_[series];
  for (uint32_t index = tail.n_open; index > 0; --index) {
    char *const at = tail.open + (index - 1) * sizeof(Point);
    const Point stored = point_at(tail.open, index - 1);
    if (stored.ts_ns != point.ts_ns) continue;
    if (std::bit_cast<uint64_t>(stored.value) == std::bit_cast<uint64_t>(point.value)) return true;
    std::memcpy(at + offsetof(Point, value), &point.value, sizeof point.value);
    tail.n_logged = std::min(tail.n_logged, index - 1);
    mark_changed(series, tail);
    return true;
  }
  return false;
}

}  // namespace metricdb
