// The changes of a store that its arrays do not log themselves. The arrays log the nodes and headers that an
// allocation, a release or a list operation changes (tslb_dynarr.h). Contents, counters and cursors are logged here.
#include "store/store.h"
#include "store/store_internal.h"

namespace metricdb {

void Store::begin_log() {
  is_logging_ = true;
  changed_series_.clear();
  is_catalogue_changed_ = false;
  keys_.begin_log();
  points_.begin_log();
  for (Tail &tail : tails_) {
    tail.n_logged = tail.n_open;
    tail.is_changed = false;
  }
}

void Store::mark_changed(uint32_t series, Tail &tail) {
  if (!is_logging_ || tail.is_changed) return;
  tail.is_changed = true;
  changed_series_.push_back(series);
}

void Store::log_series(uint32_t series, Tail &tail) {
  tail.is_changed = false;
  tslb_redo_log_da(catalogue_.get(), series, NO_TRANSACTION, SLOT_RECORD);
  if (tail.n_logged == tail.n_open) return;
  points_.log(tail.record.open(), tail.open + tail.n_logged * sizeof(Point),
              (tail.n_open - tail.n_logged) * sizeof(Point));
  tail.n_logged = tail.n_open;
}

void Store::log_changes() {
  if (!is_logging_) return;
  if (is_catalogue_changed_) tslb_redo_log_da_hdr(catalogue_.get(), 0, NO_TRANSACTION, SLOT_RECORD);
  is_catalogue_changed_ = false;
  for (const uint32_t series : changed_series_) log_series(series, tails_[series]);
  changed_series_.clear();
  keys_.log_counters();
  points_.log_counters();
}

}  // namespace metricdb
