// Forgetting: deletes old chunks and series without chunks, and inactivates idle series.
#include <tslb/tslb_util.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "store/log.h"
#include "store/store.h"
#include "store/store_internal.h"

namespace metricdb {

int64_t Store::visible_from_ns() const {
  const int64_t retain_ns = config_.forgetting.retain_ns;
  const int64_t now_ns = clock_ns_.value_or(data_time_ns_);
  const bool covers_all_times = now_ns < INT64_MIN + retain_ns;
  return retain_ns == 0 || covers_all_times ? INT64_MIN : now_ns - retain_ns;
}

// Begins with the last arrival, which is nearly always visible.
bool Store::are_all_hidden(const char *points, uint32_t count) const {
  const int64_t limit = visible_from_ns();
  for (uint32_t index = count; index > 0; --index)
    if (point_at(points, index - 1).ts_ns >= limit) return false;
  return true;
}

// Deletes a chunk of points, of which n_lost are in no other chunk. The record may be a copy.
void Store::remove_points_chunk(const SeriesRecord &record, const maddr_t &address, uint32_t n_lost) {
  forgotten_.point_slots += points_.remove(address);
  ++forgotten_.chunks;
  forgotten_.points += n_lost;
  n_points_ -= n_lost;
  record.set_n_points(record.n_points() - n_lost);
}

void Store::drop_first_sealed(uint32_t series, const SeriesRecord &record) {
  const LiveChange change(live_.get(), LiveChange::CHAIN, series);
  // Copied, because the deletion can put the chunk's slot on the free list.
  const SealedChunk head = *sealed_at(record.first_sealed());
  Tail &tail = tails_[series];
  if (tail.n_short == record.n_sealed()) {
    --tail.n_short;
    tail.n_short_points -= head.count();
  }
  remove_points_chunk(record, record.first_sealed(), head.count());
  record.set_n_sealed(record.n_sealed() - 1);
  if (const auto place = place_in(series)) --place->n_passed;
  if (record.n_sealed() == 0) return;
  record.set_first_sealed(head.next);
  set_referrer(head.next, referrer_of(CATALOGUE_TABLE, series, FIRST_SEALED_REFERENCE));
}

// Deletes all chunks of a series. The slot stays, and the record may be a copy.
void Store::forget_content(uint32_t series, const SeriesRecord &record) {
  const LiveChange change(live_.get(), LiveChange::CHAIN, series);
  if (live_) {
    ++live_->versions.of(series).stamp;
    live_->index.remove(series);
  }
  while (record.n_sealed() != 0) drop_first_sealed(series, record);
  if ((record.flags() & SERIES_HAS_OPEN) != 0) remove_points_chunk(record, record.open(), record.n_open());
  // The map refers to the text in the key's chunk, so the entry is erased first.
  series_by_key_.erase(key_of(record));
  forgotten_.key_slots += keys_.remove(record.key());
  tails_[series] = {};
}

SeriesRecord Store::take_slot(uint32_t &index) {
  char previous[sizeof(ty_sub_t_v1)];
  uint32_t previous_ts;
  uint8_t previous_status;
  const SeriesRecord record(static_cast<char *>(tslb_da_get_newptr_inll_ex(catalogue_.get(), &index, &previous_ts,
                                                                           &previous_status, previous)),
                            config_.layout);
  if (!record) throw StoreFull("the catalogue has no room for another series");
  if (previous_status == TSLB_DA_SLOT_INACTIVE) {
    forget_content(index, {previous, config_.layout});
    ++forgotten_.series_reused;
  }
  return record;
}

// Deletes a series, and frees its slot.
void Store::free_series(uint32_t series) {
  const LiveChange change(live_.get(), LiveChange::HEAD, series);
  const SeriesRecord record = tails_[series].record;
  forget_content(series, record);
  record.set_flags(0);  // freeing the slot changes only the first word of the record
  tslb_da_free_idx(catalogue_.get(), series);
  mark_changed(series, tails_[series]);
  ++forgotten_.series_aged;
}

// Deletes the old chunks of a series. Returns true if no point is left and the slot was freed.
bool Store::forget_old(uint32_t series) {
  Tail &tail = tails_[series];
  const SeriesRecord record = tail.record;
  while (record.n_sealed() != 0 && sealed_at(record.first_sealed())->newest_ns < visible_from_ns()) {
    drop_first_sealed(series, record);
    mark_changed(series, tail);
  }
  if (record.n_sealed() != 0 || !are_all_hidden(tail.open, tail.n_open)) return false;
  free_series(series);
  return true;
}

// The inactive list is in order of inactivation. A sweep inactivates series in the order of their last writes, and
// series of earlier sweeps were last written earlier. So the head of the list is the series that was not written for
// longest.
void Store::inactivate_idle_series() {
  std::vector<std::pair<int64_t, uint32_t>> idle;
  for (uint32_t series = 0; series < n_slots(); ++series) {
    if (!holds_series(series) || is_inactive(series)) continue;
    const int64_t written_at_ns = record(series).written_at_ns();
    // Unsigned: the difference of two times can exceed the signed range.
    if (static_cast<uint64_t>(data_time_ns_) - static_cast<uint64_t>(written_at_ns) >=
        static_cast<uint64_t>(config_.forgetting.idle_ns))
      idle.emplace_back(written_at_ns, series);
  }
  std::sort(idle.begin(), idle.end());
  // Reuse compares this time stamp with the library's clock. The policy requires an age of 0, so reuse is delayed only
  // if the clock was set back in between.
  for (const auto &[written_at_ns, series] : idle)
    tslb_da_inactivate_idx(catalogue_.get(), series, tslb_get_time(nullptr));
}

// Releases the memory slots whose chunks are all deleted.
void Store::release_slots(Sweep &found) {
  forgotten_.key_slots += keys_.sweep(found.keys);
  forgotten_.point_slots += points_.sweep(found.points);
}

Sweep Store::sweep() {
  n_since_sweep_ = 0;
  Sweep found;
  found.keys.free_before = keys_.n_free_slots();
  found.points.free_before = points_.n_free_slots();
  for (uint32_t series = 0; config_.forgetting.retain_ns != 0 && series < n_slots(); ++series)
    if (holds_series(series)) forget_old(series);
  if (config_.forgetting.idle_ns != 0) inactivate_idle_series();
  release_slots(found);
  TSLB_DLOG(LOG_DETAILS, "sweep: %u series, %u inactive, %llu points; forgotten so far: %llu points, %llu series",
            n_series(), n_inactive(), static_cast<unsigned long long>(n_points_),
            static_cast<unsigned long long>(forgotten_.points),
            static_cast<unsigned long long>(forgotten_.series_aged + forgotten_.series_reused));
  return found;
}

}  // namespace metricdb
