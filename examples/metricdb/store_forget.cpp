// How a store forgets: chunks too old, series without chunks, series that nobody writes.
#include <tslb_util.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "log.h"
#include "store.h"
#include "store_internal.h"

namespace metricdb {
namespace {

// Returns the number of memory slots that went to the free list with the chunk.
uint32_t delete_chunk(dynmem_t *pool, const maddr_t &address) {
  const uint32_t free_before = lists_of(pool)->n_free;
  tslb_dynmem_del_mchunk(pool, address);
  return lists_of(pool)->n_free - free_before;
}

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

// From the newest arrival on: of a chunk that stays it is nearly always visible.
bool Store::is_all_hidden(const PointChunk *chunk) const {
  const int64_t limit = visible_from_ns();
  for (size_t index = chunk->count; index > 0; --index) {
    Point point;
    std::memcpy(&point, point_at(chunk, index - 1), sizeof point);
    if (point.ts_ns >= limit) return false;
  }
  return true;
}

void Store::drop_first_chunk(uint32_t series, SeriesRecord &record) {
  // Copied: a chunk's slot can be on the free list once it is deleted.
  const PointChunk head = *chunk_at(record.first_chunk);
  forgotten_.point_slots += delete_chunk(points_.get(), record.first_chunk);
  ++forgotten_.chunks;
  forgotten_.points += head.count;
  n_points_ -= head.count;
  record.n_points -= head.count;
  --record.n_chunks;
  if ((head.flags & CHUNK_HAS_NEXT) == 0) return;
  record.first_chunk = head.next;
  auto *const compat = reinterpret_cast<compat_t *>(chunk_at(head.next)) - 1;
  compat->srcaddr = referrer_of(CATALOGUE_TABLE, series, offsetof(SeriesRecord, first_chunk));
}

// Everything of a series but its slot. The record may be a copy.
void Store::forget_content(uint32_t series, SeriesRecord &record) {
  while (record.n_chunks != 0) drop_first_chunk(series, record);
  // The map's text is the key chunk's: out of the map before it is gone.
  series_by_key_.erase(key_of(record));
  forgotten_.key_slots += delete_chunk(keys_.get(), record.key);
}

SeriesRecord *Store::take_slot(uint32_t &index) {
  SeriesRecord previous;
  uint32_t previous_ts;
  uint8_t previous_status;
  auto *const record = static_cast<SeriesRecord *>(
      tslb_da_get_newptr_inll_ex(catalogue_.get(), &index, &previous_ts, &previous_status, &previous));
  if (record == nullptr) throw StoreFull("the catalogue has no room for another series");
  if (previous_status == TSLB_DA_SLOT_INACTIVE) {
    forget_content(index, previous);
    ++forgotten_.series_reused;
  }
  return record;
}

// The list is in order of inactivation. So that its head is the series unwritten for longest, those of one sweep join
// it in the order of their last writes; those of earlier sweeps were written earlier still.
void Store::park_idle_series() {
  std::vector<std::pair<int64_t, uint32_t>> idle;
  for (uint32_t series = 0; series < n_slots(); ++series) {
    if (!holds_series(series) || is_inactive(series)) continue;
    const int64_t written_at_ns = record(series).written_at_ns;
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
}

Sweep Store::sweep() {
  n_since_sweep_ = 0;
  Sweep found;
  found.keys.free_before = lists_of(keys_.get())->n_free;
  found.points.free_before = lists_of(points_.get())->n_free;
  for (uint32_t series = 0; config_.retain_ns != 0 && series < n_slots(); ++series) {
    if (!holds_series(series)) continue;
    SeriesRecord &record = *slot(series);
    while (record.n_chunks != 0 && is_all_hidden(chunk_at(record.first_chunk))) drop_first_chunk(series, record);
    if (record.n_chunks != 0) continue;
    forget_content(series, record);
    tslb_da_free_idx(catalogue_.get(), series);
    ++forgotten_.series_aged;
  }
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
