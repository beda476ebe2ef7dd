// Erasing: deletes points by series and time (erasure.h).
#include <algorithm>

#include "store/erasure.h"
#include "store/store_internal.h"

namespace metricdb {
namespace {

// The approximate work for a part of an erasure, in units of 10 ns.
constexpr uint32_t LOOK_WORK = 10, REMOVE_WORK = 50, REPLACE_WORK = 500, FREE_WORK = 200;

}  // namespace

// Whether the number still belongs to the series of that stamp.
bool Store::is_same(const LiveSeries &which) const {
  const SeriesVersions *const versions = live_->versions.find(which.series);
  return versions != nullptr && versions->stamp.load(std::memory_order_relaxed) == which.stamp &&
         holds_series(which.series);
}

// The place of an erasure that has passed chunks of the series; null if there is none.
std::shared_ptr<ChainPlace> Store::place_in(uint32_t series) const {
  std::shared_ptr<ChainPlace> place = place_.lock();
  return place && place->series == series && place->n_passed != 0 ? place : nullptr;
}

// Replaces the chunk after the place by one with these points, and passes it; without points the chunk is left out.
void Store::replace_sealed(ChainPlace &place, const maddr_t &address, const char *points, uint32_t count) {
  const uint32_t series = place.series;
  const SeriesRecord &record = tails_[series].record;
  const bool is_first = place.n_passed == 0, is_last = place.n_passed + 1 == record.n_sealed();
  const srcaddr_t referrer =
      is_first ? referrer_of(CATALOGUE_TABLE, series, FIRST_SEALED_REFERENCE) : referrer_in_chunk(place.previous);
  const SealedChunk head = *sealed_at(address);
  const LiveChange change(live_.get(), LiveChange::CHAIN, series);
  const maddr_t fresh = count == 0 ? maddr_t{} : seal_points(points, count, record.type(), referrer, head.next);
  const maddr_t following = count == 0 ? maddr_t{head.next} : fresh;
  if (is_first)
    record.set_first_sealed(following);
  else
    set_next(place.previous, following);
  if (is_last) record.set_last_sealed(count == 0 ? place.previous : fresh);
  if (!is_last) set_referrer(head.next, count == 0 ? referrer : referrer_in_chunk(fresh));
  if (count == 0) record.set_n_sealed(record.n_sealed() - 1);
  Tail &tail = tails_[series];
  const uint32_t n_before_short = record.n_sealed() + (count == 0 ? 1 : 0) - tail.n_short;
  if (place.n_passed >= n_before_short) {
    tail.n_short -= count == 0 ? 1 : 0;
    tail.n_short_points -= head.count() - count;
  } else if (place.n_passed + 1 == n_before_short) {
    tail.before_short = count == 0 ? place.previous : fresh;
  }
  remove_points_chunk(record, address, head.count() - count);
  if (count == 0) return;
  place.previous = fresh;
  place.newest_ns = std::max<int64_t>(place.newest_ns, sealed_at(fresh)->newest_ns);
  ++place.n_passed;
}

// Erases in the sealed chunk after the place. Returns the work.
uint32_t Store::erase_in_sealed(ChainPlace &place, const TimeRange &range) {
  Tail &tail = tails_[place.series];
  const maddr_t address = place.n_passed == 0 ? tail.record.first_sealed() : sealed_at(place.previous)->next;
  const SealedChunk *const chunk = sealed_at(address);
  uint32_t n_kept = 0, work = REMOVE_WORK;
  erased_chunk_.clear();
  if (chunk->newest_ns < range.from_ns || chunk->oldest_ns > range.to_ns) {
    n_kept = chunk->count();
    work = LOOK_WORK;
  } else if (!range.contains(chunk->oldest_ns) || !range.contains(chunk->newest_ns)) {
    open_chunk(*chunk, bytes_of(chunk), tail.type, erased_chunk_);
    std::erase_if(erased_chunk_, [&range](const Point &point) { return range.contains(point.ts_ns); });
    n_kept = static_cast<uint32_t>(erased_chunk_.size());
    work = REPLACE_WORK;
  }
  if (n_kept != chunk->count()) {
    replace_sealed(place, address, reinterpret_cast<const char *>(erased_chunk_.data()), n_kept);
    mark_changed(place.series, tail);
    return work;
  }
  place.previous = address;
  place.newest_ns = std::max<int64_t>(place.newest_ns, chunk->newest_ns);
  ++place.n_passed;
  return work;
}

void Store::erase_in_open(uint32_t series, Tail &tail, const TimeRange &range) {
  uint32_t first = 0;
  while (first < tail.n_open && !range.contains(point_at(tail.open, first).ts_ns)) ++first;
  if (first == tail.n_open) return;
  const LiveChange change(live_.get(), LiveChange::HEAD, series);
  uint32_t n_kept = first;
  for (uint32_t index = first; index < tail.n_open; ++index) {
    const Point point = point_at(tail.open, index);
    if (!range.contains(point.ts_ns)) std::memcpy(tail.open + n_kept++ * sizeof point, &point, sizeof point);
  }
  const uint32_t n_erased = tail.n_open - n_kept;
  forgotten_.points += n_erased;
  n_points_ -= n_erased;
  tail.record.set_n_points(tail.record.n_points() - n_erased);
  tail.record.set_n_open(n_kept);
  tail.n_open = static_cast<uint16_t>(n_kept);
  tail.n_logged = static_cast<uint16_t>(std::min<uint32_t>(tail.n_logged, first));
  mark_changed(series, tail);
}

// Ends the erasure in the series, all of whose sealed chunks were passed. Returns the work.
uint32_t Store::end_series(const ChainPlace &place, const TimeRange &range) {
  Tail &tail = tails_[place.series];
  erase_in_open(place.series, tail, range);
  if (tail.record.n_points() == 0) {
    free_series(place.series);
    return FREE_WORK;
  }
  if (range.contains(tail.record.newest_ns())) {
    int64_t newest_ns = place.newest_ns;
    for (uint32_t index = 0; index < tail.n_open; ++index)
      newest_ns = std::max<int64_t>(newest_ns, point_at(tail.open, index).ts_ns);
    tail.record.set_newest_ns(newest_ns);
    mark_changed(place.series, tail);
  }
  return REMOVE_WORK;
}

bool Store::erase_some(Erasure &erasure, uint32_t max_work) {
  for (uint32_t work = 0; erasure.n_done < erasure.series.size();) {
    if (work >= max_work) return false;
    const LiveSeries &which = erasure.series[erasure.n_done];
    std::shared_ptr<ChainPlace> &place = erasure.place;
    if (!is_same(which))
      place.reset();
    else if (!place)
      place = std::make_shared<ChainPlace>(ChainPlace{which.series});
    place_ = place;
    if (place && place->n_passed < tails_[which.series].record.n_sealed()) {
      work += erase_in_sealed(*place, erasure.range);
      continue;
    }
    if (place) work += end_series(*place, erasure.range);
    work += LOOK_WORK;
    place.reset();
    ++erasure.n_done;
  }
  Sweep found;
  release_slots(found);
  return true;
}

}  // namespace metricdb
