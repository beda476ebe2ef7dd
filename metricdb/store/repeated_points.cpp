#include "store/repeated_points.h"

#include <algorithm>
#include <bit>
#include <random>

#include "store/store_internal.h"

namespace metricdb {

RepeatedPoints::RepeatedPoints(Store &store)
    : store_(store), seed_(uint64_t{std::random_device()()} << 32 | 0x9E3779B9u) {}

const SealedChunk *RepeatedPoints::chunk_at(const maddr_t &address) const {
  return static_cast<const SealedChunk *>(tslb_dynmem_get_maddr2ptr(store_.points(), address));
}

// Addresses are valid until a chunk is deleted; those of joined and moved ones are found by series.
void RepeatedPoints::forget_with_store() {
  if (n_moved_ != store_.n_moves()) decoded_ = nullptr;
  n_moved_ = store_.n_moves();
  if (n_forgotten_ == store_.forgotten().chunks) return;
  n_forgotten_ = store_.forgotten().chunks;
  chains_.clear();
  n_listed_ = 0;
  decoded_ = nullptr;
}

void RepeatedPoints::list_next(Chain &chain, const SeriesRecord &record) {
  std::vector<Chunk> &chunks = chain.chunks;
  const maddr_t address = chunks.empty() ? record.first_sealed() : chunk_at(chunks.back().address)->next;
  const int64_t newest_before_ns = chunks.empty() ? INT64_MIN : chunks.back().newest_up_to_ns;
  if (chunks.size() == 2 * MAX_CHUNKS) chunks.erase(chunks.begin(), chunks.begin() + MAX_CHUNKS);
  const SealedChunk *const chunk = chunk_at(address);
  const int64_t newest_ns = chunk->newest_ns;
  chunks.push_back({chunk->oldest_ns, newest_ns, std::max(newest_before_ns, newest_ns), address});
  n_listed_ += 1 + chunk->count() / SEALED_POINTS;
  ++chain.n_walked;
}

RepeatedPoints::Chain &RepeatedPoints::chain_of(uint32_t series, const SeriesRecord &record) {
  if (n_listed_ >= MAX_LISTED) {
    chains_.clear();
    n_listed_ = 0;
  }
  Chain &chain = chains_[series];
  if (const uint32_t n_moves = store_.n_moves(series); chain.n_moves != n_moves) {
    chain = {};
    chain.n_moves = n_moves;
  }
  while (chain.n_walked < record.n_sealed()) list_next(chain, record);
  return chain;
}

// May be wrong if the result is true.
bool RepeatedPoints::can_have(Chunk &chunk, ValueType type, int64_t ts_ns) {
  if (ts_ns < chunk.oldest_ns || ts_ns > chunk.newest_ns) return false;
  if (!chunk.times) {
    const std::vector<Point> &points = points_of(chunk.address, type);
    chunk.times.emplace(std::bit_ceil(points.size()) * BITS_PER_TIME);
    for (const Point &point : points) (*chunk.times)[hash_of(point.ts_ns) % chunk.times->size()] = true;
  }
  return (*chunk.times)[hash_of(ts_ns) % chunk.times->size()];
}

const std::vector<Point> &RepeatedPoints::points_of(const maddr_t &address, ValueType type) {
  const SealedChunk *const chunk = chunk_at(address);
  if (decoded_ == chunk) return points_;
  decoded_ = chunk;
  points_.clear();
  open_chunk(*chunk, bytes_of(chunk), type, points_);
  return points_;
}

// The last point of that time decides.
bool RepeatedPoints::is_sealed(uint32_t series, const Point &point) {
  forget_with_store();
  const SeriesRecord record = store_.record(series);
  if (record.n_sealed() == 0) return false;
  std::vector<Chunk> &chunks = chain_of(series, record).chunks;
  int n_decoded = 0;
  for (size_t i = chunks.size(); i > 0 && chunks.size() - i < MAX_CHUNKS && n_decoded < MAX_DECODED; --i) {
    Chunk &chunk = chunks[i - 1];
    if (chunk.newest_up_to_ns < point.ts_ns) return false;
    if (!can_have(chunk, record.type(), point.ts_ns)) continue;
    ++n_decoded;
    const std::vector<Point> &points = points_of(chunk.address, record.type());
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
    const LiveChange change(live_.get(), LiveChange::HEAD, series);
    std::memcpy(at + offsetof(Point, value), &point.value, sizeof point.value);
    tail.n_logged = static_cast<uint16_t>(std::min<uint32_t>(tail.n_logged, index - 1));
    mark_changed(series, tail);
    return true;
  }
  return false;
}

}  // namespace metricdb
