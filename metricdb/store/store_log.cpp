// The names of a store's changes for a batch. The durable store names list nodes, headers and counters itself.
#include "store/store.h"
#include "store/store_internal.h"

namespace metricdb {
namespace {

constexpr uint64_t BYTES_PER_CHANGED_SERIES = 256;  // its record, and a few points

}  // namespace

void Store::begin_batch(tslb_batch_t *batch) {
  batch_ = batch;
  keys_.set_batch(batch);
  points_.set_batch(batch);
}

void Store::mark_changed(uint32_t series, Tail &tail, Change change) {
  if (batch_ == nullptr || tail.change >= change) return;
  if (tail.change == Change::none) changed_series_.push_back(series);
  tail.change = change;
}

void Store::log_series(uint32_t series, Tail &tail) {
  if (tail.change == Change::all)
    tslb_batch_log_record(batch_, CATALOGUE, series);
  else
    tslb_batch_log_bytes(batch_, CATALOGUE, series, SeriesRecord::FIRST_COUNTER, tail.record.counter_bytes());
  tail.change = Change::none;
  if (tail.n_logged == tail.n_open) return;
  points_.log(tail.record.open(), tail.open + tail.n_logged * sizeof(Point),
              (tail.n_open - tail.n_logged) * sizeof(Point));
  tail.n_logged = tail.n_open;
}

void Store::end_batch() {
  if (live_) live_->visible_from_ns.store(visible_from_ns(), std::memory_order_relaxed);
  for (const uint32_t series : changed_series_) log_series(series, tails_[series]);
  changed_series_.clear();
  begin_batch(nullptr);
}

uint64_t Store::batch_bytes() const {
  return changed_series_.size() * BYTES_PER_CHANGED_SERIES + keys_.batch_bytes() + points_.batch_bytes();
}

}  // namespace metricdb
