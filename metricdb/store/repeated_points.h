// Finds points that a series has already, so that a request that is sent again counts once.
//
// A point with the time and the value of a stored one changes nothing. Another value replaces that of a point in the open
// chunk. Sealed chunks do not change, so there the new point is appended, and has the same time as an earlier one.
//
// The search covers the open chunk, and of the last MAX_CHUNKS sealed chunks the last MAX_DECODED whose times include that
// of the point. So its cost per point is bounded. Only points that are not the newest of their series are searched for.
//
// Threads: one.
#pragma once

#include <cstdint>
#include <unordered_map>
#include <vector>

#include "store/store.h"

namespace metricdb {

class RepeatedPoints {
 public:
  static constexpr size_t MAX_CHUNKS = 4096;
  static constexpr int MAX_DECODED = 8;

  explicit RepeatedPoints(Store &store) : store_(store) {}

  // Returns true if the series has a point of this time and this value now, and false if the caller should append it.
  bool absorb(uint32_t series, const Point &point) {
    return point.ts_ns <= store_.newest_ns(series) && (store_.replace_open(series, point) || is_sealed(series, point));
  }

 private:
  static constexpr size_t MAX_CHAINS = 256;

  struct Chunk {
    int64_t oldest_ns, newest_ns;
    maddr_t address;
  };
  // The last sealed chunks of a series.
  struct Chain {
    std::vector<Chunk> chunks;
    uint32_t n_walked = 0;  // sealed chunks of the series when it was walked
  };

  bool is_sealed(uint32_t series, const Point &point);
  const SealedChunk *chunk_at(const maddr_t &address) const;
  void forget_with_store();
  const Chain &chain_of(uint32_t series, const SeriesRecord &record);
  const std::vector<Point> &points_of(const maddr_t &address);

  Store &store_;
  uint64_t n_forgotten_ = 0;  // chunks, when the following were valid
  std::unordered_map<uint32_t, Chain> chains_;
  const SealedChunk *decoded_ = nullptr;  // the chunk of points_
  std::vector<Point> points_;
};

}  // namespace metricdb
