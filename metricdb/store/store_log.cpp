// What a store tells the redo log beside what its arrays log by themselves. The arrays log the nodes and headers that
// an allocation, a release or a list operation changes, as far as the library promises (tslb_dynarr.h); contents,
// counters and cursors are for whoever writes them.
#include <algorithm>

#include "store/store.h"
#include "store/store_internal.h"

namespace metricdb {
namespace {

constexpr uint64_t NO_TRANSACTION = UINT64_MAX;  // batches are told apart by the journal, not by the records
constexpr char RECORD_TYPE = TSLB_REDO_SLOT;

}  // namespace

void Store::begin_log() {
  logs_ = true;
  changed_series_.clear();
  changed_keys_.clear();
  changed_points_.clear();
  is_catalogue_changed_ = false;
  for (Tail &tail : tails_) {
    tail.n_logged = tail.n_open;
    tail.is_changed = false;
  }
}

void Store::change(uint32_t series, Tail &tail) {
  if (!logs_ || tail.is_changed) return;
  tail.is_changed = true;
  changed_series_.push_back(series);
}

// Bytes of a chunk, where they lie in its memory slot.
void Store::log_chunk(dynmem_t *pool, const maddr_t &address, const char *from, size_t bytes) {
  if (!logs_) return;
  const ChunkPlace place = place_of(pool, address);
  const auto *const slot = static_cast<const char *>(tslb_da_get_ptr(pool, place.slot));
  tslb_redo_log_da_field(pool, place.slot, NO_TRANSACTION, RECORD_TYPE, static_cast<int>(from - slot),
                         static_cast<int>(bytes));
  ChangedSlots &changed = changed_slots(pool);
  if (changed.empty() || changed.back() != place.slot) changed.push_back(place.slot);
}

// Cursor and totals, and the counters in the slots.
void Store::log_pool(dynmem_t *pool) {
  ChangedSlots &changed = changed_slots(pool);
  if (changed.empty()) return;
  tslb_redo_log_da_hdr(pool, 0, NO_TRANSACTION, RECORD_TYPE);
  std::sort(changed.begin(), changed.end());
  changed.erase(std::unique(changed.begin(), changed.end()), changed.end());
  for (const uint32_t slot : changed)
    tslb_redo_log_da_field(pool, slot, NO_TRANSACTION, RECORD_TYPE, 0, sizeof(MemSlot_t));
  changed.clear();
}

void Store::log_series(uint32_t series, Tail &tail) {
  tail.is_changed = false;
  tslb_redo_log_da(catalogue_.get(), series, NO_TRANSACTION, RECORD_TYPE);
  if (tail.n_logged == tail.n_open) return;
  log_chunk(points_.get(), tail.record.open(), tail.open + tail.n_logged * sizeof(Point),
            (tail.n_open - tail.n_logged) * sizeof(Point));
  tail.n_logged = tail.n_open;
}

void Store::log_changes() {
  if (!logs_) return;
  if (is_catalogue_changed_) tslb_redo_log_da_hdr(catalogue_.get(), 0, NO_TRANSACTION, RECORD_TYPE);
  is_catalogue_changed_ = false;
  for (const uint32_t series : changed_series_) log_series(series, tails_[series]);
  changed_series_.clear();
  log_pool(keys_.get());
  log_pool(points_.get());
}

}  // namespace metricdb
