#include "store/live_reader.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <mutex>

#include "store/store_internal.h"

namespace metricdb {
namespace {

constexpr int MAX_ATTEMPTS = 16;

std::atomic<uint64_t> n_repeated{0}, n_locked{0};

// A series at one moment: a copy of its record, and of the points in its open chunk.
struct Head {
  std::array<char, sizeof(ty_sub_t_v1)> bytes;
  SeriesRecord record;
  uint32_t n_open = 0;
  std::array<char, SEALED_POINTS * sizeof(Point)> open;
};

enum class Outcome { done, gone, moved };

class Reader {
 public:
  Reader(const Store &store, const LiveSeries &which, const TimeRange &range, PointList &list, LiveRead what,
         const std::function<bool(size_t)> &goes_on, const IsSummaryEnough &is_summary_enough)
      : what_(what),
        goes_on_(goes_on),
        is_summary_enough_(is_summary_enough),
        store_(store),
        live_(*store.live()),
        which_(which),
        versions_(live_.versions.find(which.series)),
        range_{std::max(range.from_ns, live_.visible_from_ns.load(std::memory_order_relaxed)), range.to_ns},
        list_(list),
        points_(list.points) {}

  Outcome attempt() {
    points_.clear();
    list_.summaries.clear();
    if (versions_ == nullptr) return Outcome::gone;
    chain_seen_ = versions_->chain.begin_read();
    if (const Outcome outcome = copy_head(); outcome != Outcome::done) return outcome;
    list_.type = head_.record.type();
    if (what_ == LiveRead::type) return Outcome::done;
    if (what_ == LiveRead::newest && !find_newest()) return Outcome::moved;
    if (is_summary_enough_ && !find_alone()) return Outcome::moved;
    if (!walk_chain()) return Outcome::moved;
    for (uint32_t i = 0; i < head_.n_open; ++i) add(point_at(head_.open.data(), i));
    return Outcome::done;
  }

 private:
  // Whether record, open chunk and slot are those of `head_seen` and `slots_seen`.
  bool is_same_head(uint32_t head_seen, uint32_t slots_seen) const {
    return versions_->head.is_unchanged(head_seen) && live_.slots.is_unchanged(slots_seen);
  }

  Outcome copy_head() {
    const uint32_t slots_seen = live_.slots.begin_read(), head_seen = versions_->head.begin_read();
    if (Version::is_changing(slots_seen) || Version::is_changing(head_seen)) return Outcome::moved;
    const SeriesRecord record = store_.record(which_.series);
    const uint32_t n_open = read_count_racing(record.n_open_at());
    copy_racing(head_.bytes.data(), record.at(), series_record_bytes(record.layout()));
    const uint32_t stamp = versions_->stamp.load(std::memory_order_relaxed);
    if (!is_same_head(head_seen, slots_seen)) return Outcome::moved;
    // From here on the copy can be used. The open chunk can be replaced while it is copied.
    if (stamp != which_.stamp) return Outcome::gone;
    head_.record = SeriesRecord(head_.bytes.data(), record.layout());
    head_.n_open = (head_.record.flags() & SERIES_HAS_OPEN) != 0 ? n_open : 0;
    if (head_.n_open == 0) return Outcome::done;
    copy_racing(head_.open.data(), tslb_dynmem_get_maddr2ptr(store_.points(), head_.record.open()),
                head_.n_open * sizeof(Point));
    return is_same_head(head_seen, slots_seen) ? Outcome::done : Outcome::moved;
  }

  // Calls visit(head of the chunk, place of the chunk) until it returns false, for each sealed chunk. Returns false then, and
  // if a chunk was deleted or replaced. Sealed chunks do not change, except for their links: that of the last one, which is
  // not used, and those around a chunk that is deleted or replaced.
  template <class Visit>
  bool for_each_sealed(Visit visit) const {
    maddr_t address = head_.record.first_sealed();
    for (uint32_t n_left = head_.record.n_sealed(); n_left > 0; --n_left) {
      const auto *const chunk = static_cast<const char *>(tslb_dynmem_get_maddr2ptr(store_.points(), address));
      SealedChunk sealed;
      copy_racing(&sealed, chunk, sizeof sealed);
      if (!versions_->chain.is_unchanged(chain_seen_) || !visit(sealed, chunk)) return false;
      address = sealed.next;
    }
    return true;
  }

  // Raises `needed_from_ns_` to the time of the newest point that lies in the range for certain: chunks without a point from
  // then on need not be decoded. Of a chunk that reaches beyond the range this is not known.
  bool find_newest() {
    needed_from_ns_ = range_.from_ns;
    for (uint32_t i = 0; i < head_.n_open; ++i) {
      const Point point = point_at(head_.open.data(), i);
      if (head_.record.type() == ValueType::integer || !std::isnan(point.value)) need_from(point.ts_ns);
    }
    return for_each_sealed([this](const SealedChunk &sealed, const char *) {
      need_from(sealed.newest_ns);
      return true;
    });
  }

  void need_from(int64_t ts_ns) {
    if (ts_ns <= range_.to_ns) needed_from_ns_ = std::max(needed_from_ns_, ts_ns);
  }

  bool walk_chain() {
    const int64_t from_ns = what_ == LiveRead::newest ? needed_from_ns_ : range_.from_ns;
    size_t number = 0;
    const bool is_complete = for_each_sealed([&](const SealedChunk &sealed, const char *chunk) {
      const bool is_alone = is_summary_enough_ && is_alone_[number];
      ++number;
      if (sealed.newest_ns < from_ns || sealed.oldest_ns > range_.to_ns) return true;
      if (is_alone && is_summary_enough(sealed)) return add_summary(sealed, chunk);
      if (!add_sealed(sealed, chunk)) return false;
      is_stopped_ = goes_on_ && !goes_on_(points_.size());
      return !is_stopped_;
    });
    return is_complete || is_stopped_;
  }

  // Sets `is_alone_`: for each chunk, whether no other point of the series has a time in its span.
  bool find_alone() {
    std::vector<TimeRange> spans;
    const bool is_complete = for_each_sealed([&spans](const SealedChunk &sealed, const char *) {
      spans.push_back({sealed.oldest_ns, sealed.newest_ns});
      return true;
    });
    is_alone_.resize(spans.size());
    int64_t newest_before_ns = INT64_MIN, oldest_after_ns = INT64_MAX;
    for (size_t i = 0; i < spans.size(); ++i) {
      is_alone_[i] = i == 0 || spans[i].from_ns > newest_before_ns;
      newest_before_ns = std::max(newest_before_ns, spans[i].to_ns);
    }
    for (uint32_t i = 0; i < head_.n_open; ++i)
      oldest_after_ns = std::min(oldest_after_ns, point_at(head_.open.data(), i).ts_ns);
    for (size_t i = spans.size(); i-- > 0; oldest_after_ns = std::min(oldest_after_ns, spans[i].from_ns))
      if (spans[i].to_ns >= oldest_after_ns) is_alone_[i] = false;
    return is_complete;
  }

  bool is_summary_enough(const SealedChunk &sealed) const {
    return sealed.has_summary() && sealed.oldest_ns >= range_.from_ns && sealed.newest_ns <= range_.to_ns &&
           is_summary_enough_(sealed.oldest_ns, sealed.newest_ns);
  }

  bool add_summary(const SealedChunk &sealed, const char *chunk) {
    ChunkSummary summary;
    copy_racing(&summary, chunk + sizeof sealed, sizeof summary);
    if (!versions_->chain.is_unchanged(chain_seen_)) return false;
    list_.summaries.push_back(summary_of(sealed, summary));
    return true;
  }

  bool add_sealed(const SealedChunk &sealed, const char *chunk) {
    encoded_.resize(sealed.bytes);
    copy_racing(encoded_.data(), chunk + head_bytes_of(sealed), sealed.bytes);
    if (!versions_->chain.is_unchanged(chain_seen_)) return false;
    const size_t n_added_before = points_.size();
    open_chunk(sealed, encoded_.data(), head_.record.type(), points_);
    if (sealed.oldest_ns < range_.from_ns || sealed.newest_ns > range_.to_ns) {
      const auto is_outside = [this](const Point &point) {
        return point.ts_ns < range_.from_ns || point.ts_ns > range_.to_ns;
      };
      points_.erase(std::remove_if(points_.begin() + static_cast<ptrdiff_t>(n_added_before), points_.end(), is_outside),
                    points_.end());
    }
    return true;
  }

  void add(const Point &point) {
    if (point.ts_ns >= range_.from_ns && point.ts_ns <= range_.to_ns) points_.push_back(point);
  }

  const LiveRead what_;
  const std::function<bool(size_t)> &goes_on_;
  const IsSummaryEnough &is_summary_enough_;
  bool is_stopped_ = false;
  const Store &store_;
  const LiveState &live_;
  const LiveSeries which_;
  const SeriesVersions *const versions_;
  const TimeRange range_;
  PointList &list_;
  std::vector<Point> &points_;
  uint32_t chain_seen_ = 0;
  int64_t needed_from_ns_ = INT64_MIN;
  Head head_;
  std::vector<char> encoded_;
  std::vector<bool> is_alone_;  // by sealed chunk
};

}  // namespace

bool read_live(const Store &store, const LiveSeries &which, const TimeRange &range, PointList &list, LiveRead what,
               const std::function<bool(size_t)> &goes_on, const IsSummaryEnough &is_summary_enough) {
  Reader reader(store, which, range, list, what, goes_on, is_summary_enough);
  for (int i = 0; i < MAX_ATTEMPTS; ++i) {
    if (const Outcome outcome = reader.attempt(); outcome != Outcome::moved) return outcome == Outcome::done;
    n_repeated.fetch_add(1, std::memory_order_relaxed);
  }
  n_locked.fetch_add(1, std::memory_order_relaxed);
  const std::lock_guard lock(store.live()->changes);
  return reader.attempt() == Outcome::done;
}

LiveReadCounts live_read_counts() {
  return {n_repeated.load(std::memory_order_relaxed), n_locked.load(std::memory_order_relaxed)};
}

}  // namespace metricdb
