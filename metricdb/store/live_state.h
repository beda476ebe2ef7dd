// What threads need that read a store while its own thread changes it (live_reader.h).
//
// The store's thread announces every change that moves or deletes what a reader may be looking at: a chunk that is
// replaced or sealed, chunks that are deleted, a slot that gets another series. It makes them under a lock, which readers
// take only if they had to try again too often. A point that is appended to an open chunk needs no announcement: its bytes
// are written before the count that includes them.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "store/optimistic.h"
#include "store/series_index.h"

namespace metricdb {

struct LiveSeries {
  uint32_t series;
  uint32_t stamp;  // from the index: distinguishes series with the same number
};

struct SeriesVersions {
  Version head;                    // the record's references, and the place of the open chunk
  Version chain;                   // sealed chunks are deleted
  std::atomic<uint32_t> stamp{0};  // changes when the slot gets another series
};

// The versions of all series. They never move, and can be read while others are added.
class VersionTable {
 public:
  // Any thread. Null if the series was never added.
  SeriesVersions *find(uint32_t series) const {
    Block *const block = blocks_[series / BLOCK].load(std::memory_order_acquire);
    return block == nullptr ? nullptr : &(*block)[series % BLOCK];
  }
  // The store's thread.
  SeriesVersions &of(uint32_t series) {
    std::atomic<Block *> &place = blocks_[series / BLOCK];
    if (place.load(std::memory_order_relaxed) == nullptr) place.store(new Block, std::memory_order_release);
    return *find(series);
  }
  VersionTable() : blocks_(N_BLOCKS) {}
  ~VersionTable() {
    for (const auto &block : blocks_) delete block.load(std::memory_order_relaxed);
  }
  VersionTable(const VersionTable &) = delete;

 private:
  static constexpr uint32_t BLOCK = 1u << 14, N_BLOCKS = 1u << 15;  // more series than an array has ids
  using Block = std::array<SeriesVersions, BLOCK>;
  std::vector<std::atomic<Block *>> blocks_;
};

struct LiveState {
  SeriesIndex index;
  VersionTable versions;
  Version slots;  // a slot is taken, perhaps that of an inactive series
  std::atomic<int64_t> visible_from_ns{INT64_MIN};
  std::atomic<int64_t> retain_ns{0};  // of the store's configuration
  mutable std::mutex changes;         // held during changes
  int depth = 0;                      // of nested changes; the store's thread
};

// A change during the lifetime of this object: of one series, or of the slots. Does nothing without a LiveState. Changes can
// be nested, also of the same series.
class LiveChange {
 public:
  enum What { HEAD, CHAIN, SLOTS };  // CHAIN: and the head

  LiveChange(LiveState *live, What what, uint32_t series = 0) : live_(live) {
    if (live_ == nullptr) return;
    if (live_->depth++ == 0) live_->changes.lock();
    if (what == SLOTS) {
      begin(live_->slots);
    } else {
      SeriesVersions &versions = live_->versions.of(series);
      begin(versions.head);
      if (what == CHAIN) begin(versions.chain);
    }
  }
  ~LiveChange() {
    for (Version *const version : begun_)
      if (version != nullptr) version->end_change();
    if (live_ != nullptr && --live_->depth == 0) live_->changes.unlock();
  }
  LiveChange(const LiveChange &) = delete;
  LiveChange &operator=(const LiveChange &) = delete;

 private:
  // Unless a change around this one has begun it.
  void begin(Version &version) {
    if (Version::is_changing(version.begin_read())) return;
    version.begin_change();
    begun_[begun_[0] != nullptr ? 1 : 0] = &version;
  }

  LiveState *const live_;
  std::array<Version *, 2> begun_ = {};
};

}  // namespace metricdb
