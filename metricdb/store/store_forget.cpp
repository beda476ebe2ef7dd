// How a store forgets: chunks too old, series without chunks, series that nobody writes.
#include <tslb/tslb_util.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "journal/log.h"
#include "store/store.h"
#include "store/store_internal.h"

namespace metricdb {
namespace {

// Deletion gives back what it empties, but not a slot that is current then: that one waits for this.
void sweep_pool(dynmem_t *pool, PoolSweep &found, uint64_t &slots_freed) {
  const uint32_t free_before = lists_of(pool)->n_free;
  tslb_dynmem_update_free_list(pool, &found.total_bytes, &found.used_bytes, &found.deleted_bytes);
  found.free_after = lists_of(pool)->n_free;
  slots_freed += found.free_after - free_before;
}

}  // namespace

int64_t Store::visible_from_ns() const {
  const bool reaches_back_to_all = data_time_ns_ < INT64_MIN + config_.retain_ns;
  return config_.retain_ns == 0 || reaches_back_to_all ? INT64_MIN : data_time_ns_ - config_.retain_ns;
}

// From the newest arrival on: it is nearly always visible.
bool Store::are_all_hidden(const char *points, uint32_t count) const {
  const int64_t limit = visible_from_ns();
  for (uint32_t index = count; index > 0; --index)
    if (point_at(points, index - 1).ts_ns >= limit) return false;
  return true;
}

void Store::drop_first_sealed(uint32_t series, const SeriesRecord &record) {
  // Copied: a chunk's slot can be on the free list once it is deleted.
  const SealedChunk head = *sealed_at(record.first_sealed());
  forgotten_.point_slots += delete_chunk(points_.get(), record.first_sealed());
  ++forgotten_.chunks;
  forgotten_.points += head.count;
  n_points_ -= head.count;
  record.set_n_points(record.n_points() - head.count);
  record.set_n_sealed(record.n_sealed() - 1);
  if (record.n_sealed() == 0) return;
  record.set_first_sealed(head.next);
  compat_t *const compat = compat_of(reinterpret_cast<char *>(sealed_at(head.next)));
  compat->srcaddr = referrer_of(CATALOGUE_TABLE, series, FIRST_SEALED_REFERENCE);
  log_chunk(points_.get(), head.next, reinterpret_cast<const char *>(compat), sizeof *compat);
}

// Everything of a series but its slot. The record may be a copy.
void Store::forget_content(uint32_t series, const SeriesRecord &record) {
  while (record.n_sealed() != 0) drop_first_sealed(series, record);
  if ((record.flags() & SERIES_HAS_OPEN) != 0) {
    forgotten_.point_slots += delete_chunk(points_.get(), record.open());
    ++forgotten_.chunks;
    forgotten_.points += record.n_open();
    n_points_ -= record.n_open();
  }
  // The map's text is the key chunk's: out of the map before it is gone.
  series_by_key_.erase(key_of(record));
  forgotten_.key_slots += delete_chunk(keys_.get(), record.key());
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
  is_catalogue_changed_ = true;
  if (previous_status == TSLB_DA_SLOT_INACTIVE) {
    forget_content(index, {previous, config_.layout});
    ++forgotten_.series_reused;
  }
  return record;
}

// What is too old of a series. True if nothing of it is left: then its slot is free.
bool Store::forget_old(uint32_t series) {
  Tail &tail = tails_[series];
  const SeriesRecord record = tail.record;
  while (record.n_sealed() != 0 && sealed_at(record.first_sealed())->newest_ns < visible_from_ns()) {
    drop_first_sealed(series, record);
    change(series, tail);
  }
  if (record.n_sealed() != 0 || !are_all_hidden(tail.open, tail.n_open)) return false;
  forget_content(series, record);
  record.set_flags(0);  // a free slot keeps its record but for the first word
  tslb_da_free_idx(catalogue_.get(), series);
  change(series, tail);
  ++forgotten_.series_aged;
  return true;
}

// The list is in order of inactivation. So that its head is the series unwritten for longest, those of one sweep join
// it in the order of their last writes; those of earlier sweeps were written earlier still.
void Store::park_idle_series() {
  std::vector<std::pair<int64_t, uint32_t>> idle;
  for (uint32_t series = 0; series < n_slots(); ++series) {
    if (!holds_series(series) || is_inactive(series)) continue;
    const int64_t written_at_ns = record(series).written_at_ns();
    // Unsigned: the distance of two times can be beyond a signed one.
    if (static_cast<uint64_t>(data_time_ns_) - static_cast<uint64_t>(written_at_ns) >=
        static_cast<uint64_t>(config_.idle_ns))
      idle.emplace_back(written_at_ns, series);
  }
  std::sort(idle.begin(), idle.end());
  // The stamp is of the library's clock, which reuse compares it with. Data time has decided already, so the policy
  // asks for an age of 0: only a clock that was set back in between delays reuse.
  for (const auto &[written_at_ns, series] : idle)
    tslb_da_inactivate_idx(catalogue_.get(), series, tslb_get_time(nullptr));
  is_catalogue_changed_ |= !idle.empty();
}

Sweep Store::sweep() {
  n_since_sweep_ = 0;
  Sweep found;
  found.keys.free_before = lists_of(keys_.get())->n_free;
  found.points.free_before = lists_of(points_.get())->n_free;
  for (uint32_t series = 0; config_.retain_ns != 0 && series < n_slots(); ++series)
    if (holds_series(series)) forget_old(series);
  if (config_.idle_ns != 0) park_idle_series();
  sweep_pool(keys_.get(), found.keys, forgotten_.key_slots);
  sweep_pool(points_.get(), found.points, forgotten_.point_slots);
  TSLB_DLOG(LOG_DETAILS, "sweep: %u series, %u inactive, %llu points; forgotten so far: %llu points, %llu series",
            n_series(), n_inactive(), static_cast<unsigned long long>(n_points_),
            static_cast<unsigned long long>(forgotten_.points),
            static_cast<unsigned long long>(forgotten_.series_aged + forgotten_.series_reused));
  return found;
}

}  // namespace metricdb
