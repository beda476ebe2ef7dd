// Finds points that a series has already, so that a request that is sent again counts once.
//
// A point with the time and the value of a stored one changes nothing. Another value replaces that of a point in the open
// chunk. Sealed chunks do not change, so there the new point is appended, and has the same time as an earlier one.
//
// Only points that are not the newest of their series are searched for. The search covers the open chunk and the last
// MAX_CHUNKS sealed chunks, of which at most MAX_DECODED are decoded. A filter for each chunk that was examined answers
// most searches without decoding, because parallel clients send points out of order all the time.
//
// Threads: one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <unordered_map>
#include <vector>

#include "store/store.h"

namespace metricdb {

class RepeatedPoints {
 public:
  static constexpr size_t MAX_CHUNKS = 4096;
  static constexpr int MAX_DECODED = 4;

  explicit RepeatedPoints(Store &store);

  // Returns true if the series has a point of this time and this value now, and false if the caller should append it.
  bool absorb(uint32_t series, const Point &point) {
    return point.ts_ns <= store_.newest_ns(series) && (store_.replace_open(series, point) || is_sealed(series, point));
  }

 private:
  // Of all series, in units of SEALED_POINTS points. Then all lists are made anew.
  static constexpr size_t MAX_LISTED = 256 << 10;

  // Hashes of the times in a chunk.
  using Filter = std::vector<bool>;
  static constexpr size_t BITS_PER_TIME = 8;
  struct Chunk {
    int64_t oldest_ns, newest_ns;
    int64_t newest_up_to_ns;  // of this chunk and all earlier ones
    maddr_t address;
    std::optional<Filter> times = {};  // once the chunk was decoded
  };
  // The last sealed chunks of a series.
  struct Chain {
    std::vector<Chunk> chunks;
    uint32_t n_walked = 0;  // sealed chunks of the series when it was walked
    uint32_t n_moves = 0;   // Store::n_moves at that time
  };

  bool is_sealed(uint32_t series, const Point &point);
  const SealedChunk *chunk_at(const maddr_t &address) const;
  void forget_with_store();
  void list_next(Chain &chain, const SeriesRecord &record);
  Chain &chain_of(uint32_t series, const SeriesRecord &record);
  size_t hash_of(int64_t ts_ns) const { return static_cast<size_t>((static_cast<uint64_t>(ts_ns) * seed_) >> 40); }
  bool can_have(Chunk &chunk, ValueType type, int64_t ts_ns);
  const std::vector<Point> &points_of(const maddr_t &address, ValueType type);

  Store &store_;
  uint64_t n_forgotten_ = 0;  // chunks, when the following were valid
  uint64_t n_moved_ = 0;      // likewise
  const uint64_t seed_;       // random, so that no client can choose times with equal hashes
  std::unordered_map<uint32_t, Chain> chains_;
  size_t n_listed_ = 0;
  const SealedChunk *decoded_ = nullptr;  // the chunk of points_
  std::vector<Point> points_;
};

}  // namespace metricdb
