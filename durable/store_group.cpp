// Batches, groups and tickets.
#include <fmt/format.h>
#include <unistd.h>

#include <new>
#include <utility>

#include "store.h"

using namespace tslb_durable;

namespace {

// A body that zstd did not shorten is followed by others that are not tried.
constexpr uint32_t MAX_RAW_IN_TURN = 15;

}  // namespace

void tslb_batch_t::add(const Range &range) noexcept {
  try {
    ranges.push_back(range);
  } catch (const std::bad_alloc &) {
    fault = NO_MEMORY;
  }
}

// ---- Batches -------------------------------------------------------------------------------------------------------

// A refusal is reported as such also if memory is short.
StoreError tslb_store_t::refusal(const std::string &reason) const noexcept {
  const tslb_durable_code_t code = is_broken_ ? TSLB_DURABLE_BROKEN : TSLB_DURABLE_REFUSED;
  try {
    return StoreError(code, reason, folder_);
  } catch (const std::bad_alloc &) {
    return StoreError(code, NO_MEMORY);
  }
}

void tslb_store_t::expect_usable() const {
  if (is_bulk_) throw StoreError(TSLB_DURABLE_INVALID, folder_ + ": was opened for an import", folder_);
  if (is_reader_) throw StoreError(TSLB_DURABLE_INVALID, folder_ + ": was opened to read", folder_);
  if (!failed_.empty()) throw refusal(failed_);
}

tslb_batch_t *tslb_store_t::begin() {
  expect_no_batch_of_this_thread();
  std::unique_ptr<tslb_batch_t> batch;
  gate_.enter();
  try {
    std::unique_lock lock(mutex_);
    expect_usable();
    expect_leader();
    // For a refusal of the group of this batch, and for one of the batches that are open then: a refusal allocates nothing.
    if (refused_.capacity() - refused_.size() < 2) refused_.reserve(2 * refused_.size() + 2);
    if (!spare_batches_.empty()) {
      batch = std::move(spare_batches_.back());
      spare_batches_.pop_back();
    }
    lock.unlock();
    if (!batch) batch = std::make_unique<tslb_batch_t>();
    batch->store = this;
    add_open_batch(batch.get());
  } catch (...) {
    gate_.leave();
    throw;
  }
  return batch.release();
}

uint64_t tslb_store_t::end(tslb_batch_t *ended) noexcept {
  std::unique_ptr<tslb_batch_t> batch(ended);
  remove_open_batch(ended);
  uint64_t ticket;
  {
    const std::lock_guard lock(mutex_);
    ticket = ++last_ticket_;
    if (pending_.n_batches++ == 0) pending_.first_ticket = ticket;
    try {
      if (pending_.ranges.empty())
        pending_.ranges.swap(batch->ranges);
      else
        pending_.ranges.insert(pending_.ranges.end(), batch->ranges.begin(), batch->ranges.end());
    } catch (const std::bad_alloc &) {
      batch->fault = NO_MEMORY;
    }
    if (batch->has_payload) {
      pending_.payload.swap(batch->payload);
      pending_.has_payload = true;
    }
    if (pending_.fault.empty()) pending_.fault.swap(batch->fault);
    batch->ranges.clear();
    batch->payload.clear();
    batch->has_payload = false;
    batch->fault.clear();
    // The capacity was reserved by the constructor.
    if (spare_batches_.size() < Gate::MAX_INSIDE) spare_batches_.push_back(std::move(batch));
  }
  gate_.leave();
  return ticket;
}

uint64_t tslb_store_t::end_without_wait(tslb_batch_t *batch) noexcept {
  const uint64_t ticket = end(batch);
  if (options_.sync == TSLB_SYNC_ALWAYS)
    settle_ticket(ticket);
  else
    work_.notify_one();
  return ticket;
}

void tslb_store_t::commit(tslb_batch_t *batch) {
  wait(end(batch));
}

void tslb_store_t::changed_outside_of_batch(const DynArrHandle_t *array) noexcept {
  if (is_of_parent()) return;  // the arrays are the child's own copies
  const std::lock_guard lock(mutex_);
  is_broken_ = true;
  reserved_left_ = 0;
  set_reason(failed_, "{}: array \"{}\" was changed outside of a batch", folder_, array->ctx_name);
}

// ---- Tickets -------------------------------------------------------------------------------------------------------

const std::string *tslb_store_t::refusal_of(uint64_t ticket) const {
  for (const RefusedRange &range : refused_)
    if (ticket >= range.first && ticket <= range.last) return &range.reason;
  return nullptr;
}

void tslb_store_t::expect_given(uint64_t ticket) const {
  if (ticket > last_ticket_)
    throw StoreError(TSLB_DURABLE_INVALID, fmt::format("{}: ticket {} was not given", folder_, ticket), folder_);
}

void tslb_store_t::wait(uint64_t ticket) {
  expect_no_batch_of_this_thread();
  {
    const std::lock_guard lock(mutex_);
    expect_given(ticket);
  }
  settle_ticket(ticket);
  const std::lock_guard lock(mutex_);
  if (const std::string *const why = refusal_of(ticket)) throw refusal(*why);
}

void tslb_store_t::settle_ticket(uint64_t ticket) noexcept {
  std::unique_lock lock(mutex_);
  waiters_.settle(lock, settled_, ticket, [&]() noexcept {
    const std::lock_guard flushing(flush_mutex_);
    if (settled() < ticket) flush();
  });
}

uint64_t tslb_store_t::settled() {
  const std::lock_guard lock(mutex_);
  return settled_;
}

bool tslb_store_t::check(uint64_t ticket) {
  const std::lock_guard lock(mutex_);
  expect_given(ticket);
  if (settled_ < ticket) return false;
  if (const std::string *const why = refusal_of(ticket)) throw refusal(*why);
  return true;
}

// Rarely waits for a group that is written, because space is reserved in large steps.
void tslb_store_t::reserve(uint64_t bytes) {
  expect_no_batch_of_this_thread();
  if (bytes != 0 && reserved_left_ >= bytes) return;
  const std::lock_guard flushing(flush_mutex_);
  {
    const std::lock_guard lock(mutex_);
    expect_usable();
    expect_leader();
  }
  const uint64_t left = journal_->reserve_space(bytes);
  const std::lock_guard lock(mutex_);
  expect_usable();
  reserved_left_ = left;
}

void tslb_store_t::signal_settled() {
  const uint64_t one = 1;
  // Fails only if the counter is at its maximum, and then the event is readable.
  [[maybe_unused]] const ssize_t ignored = write(event_.fd(), &one, sizeof one);
}

void tslb_store_t::run_journal() {
  for (;;) {
    {
      std::unique_lock lock(mutex_);
      work_.wait(lock, [this] { return is_ending_ || pending_.n_batches != 0; });
      if (pending_.n_batches == 0) return;
    }
    const std::lock_guard flushing(flush_mutex_);
    flush();
  }
}

// ---- Groups --------------------------------------------------------------------------------------------------------

bool tslb_store_t::flush() noexcept {
  CopiedGroup group;
  {
    const GateClosed closed(gate_);
    copy_group(group);
  }
  if (group.n_batches == 0) return false;
  write_group(group);
  return true;
}

// Copies the bytes of the pending batches. The gate is closed.
void tslb_store_t::copy_group(CopiedGroup &group) noexcept {
  PendingGroup pending;
  {
    const std::lock_guard lock(mutex_);
    std::swap(pending, pending_);
    // These batches began before the refusal. Their changes are in the arrays until these are restored.
    if (!failed_.empty()) return refuse_unsettled();
  }
  group.n_batches = pending.n_batches;
  group.last_ticket = pending.first_ticket + pending.n_batches - 1;
  group.failure.swap(pending.fault);
  if (pending.n_batches == 0) return;
  try {
    body_.clear();
    if (log_) group.position = {position_.epoch, position_.number + 1};
    for (uint32_t i = 0; i < logged_.size(); ++i) logged_[i].add_counters(i, pending.ranges);
    normalize(logged_, pending.ranges);
    append_body(logged_, pending.ranges, pending.has_payload ? &pending.payload : nullptr, group.position, body_);
    group.n_ranges = pending.ranges.size();
    group.payload.assign(pending.payload.begin(), pending.payload.end());
    group.has_payload = pending.has_payload;
    if (body_.size() > MAX_BODY_BYTES && group.failure.empty())
      group.failure = fmt::format("a group of {} bytes is too long", body_.size());
    if (!shadows_.empty() && group.failure.empty()) compare_with_shadow(pending, group);
  } catch (const std::exception &error) {
    set_reason(group.failure, "{}", reason_of(error));
  }
}

// Applies the group to the replica as a recovery would, and compares all arrays.
void tslb_store_t::compare_with_shadow(const PendingGroup &pending, CopiedGroup &group) {
  // The body has the numbers of the journal.
  std::vector<ReplayTarget> targets(shadows_.size());
  for (uint32_t i = 0; i < shadows_.size(); ++i) targets[logged_[i].number()] = {shadows_[i].get(), decls_[i].kind};
  std::string payload;
  bool has_payload = false;
  LogPosition position = {};
  group.failure = apply_body(body_, targets, payload, has_payload, position);
  for (uint32_t i = 0; i < shadows_.size() && group.failure.empty(); ++i) {
    const Difference difference = first_difference(arrays_[i].get(), shadows_[i].get());
    if (!difference) continue;
    const std::string batches =
        pending.n_batches == 1 ? fmt::format("batch {}", pending.first_ticket)
                               : fmt::format("one of the batches {} to {}", pending.first_ticket, group.last_ticket);
    group.failure = fmt::format("{}, or a thread outside of a batch, changed array \"{}\" without naming it: {}",
                                batches, decls_[i].name, difference.what);
  }
  group.breaks = !group.failure.empty();
}

// Writes a group to the journal, and settles its tickets in any case: no other code holds the group.
void tslb_store_t::write_group(CopiedGroup &group) noexcept {
  if (!group.failure.empty()) {
    std::string reason;
    set_reason(reason, "{}: {}", folder_, group.failure);
    return refuse(reason, group.breaks);
  }
  Frame frame = {FrameKind::group, Compression::none, static_cast<uint32_t>(body_.size()), group.n_batches};
  const bool is_tried = level_ != 0 && (n_raw_in_turn_ == 0 || ++n_raw_in_turn_ > MAX_RAW_IN_TURN);
  std::string_view stored = body_;
  try {
    if (is_tried) {
      stored = compress(body_, level_, compressed_, frame.compression);
      n_raw_in_turn_ = frame.compression == Compression::none ? 1 : 0;
    }
    journal_->append_group(frame, stored);
  } catch (const std::exception &error) {
    return cut_and_refuse(reason_of(error));
  }
  try {
    if (options_.sync != TSLB_SYNC_NONE) journal_->sync();
  } catch (const std::exception &error) {
    // The content of the disk is unknown, and a second sync would not report the error again.
    return refuse(reason_of(error), true);
  }
  journal_->mark();
  try {
    if (log_ && !group.is_from_log) append_to_log(group);
  } catch (const std::exception &error) {
    // The group can be in the log or not, and is in the journal.
    return refuse(reason_of(error), true);
  }
  const std::lock_guard lock(mutex_);
  ++info_.n_groups;
  info_.n_batches += group.n_batches;
  info_.n_changes += group.n_ranges;
  info_.raw_bytes += body_.size();
  info_.stored_bytes += stored.size();
  settle(group);
}

// The cut is synced before the refusal is reported. Otherwise a crash could restore a refused batch.
void tslb_store_t::cut_and_refuse(std::string_view reason) noexcept {
  try {
    journal_->cut();
  } catch (const std::exception &error) {
    std::string both;
    set_reason(both, "{}; {}", reason, reason_of(error));
    return refuse(both, true);
  }
  refuse(reason, false);
}

// mutex_ is held. The group is on the disk, so nothing here may fail: no memory is allocated.
void tslb_store_t::settle(CopiedGroup &group) noexcept {
  settled_ = group.last_ticket;
  reserved_left_ = failed_.empty() ? journal_->reserved_bytes() : 0;
  if (group.position.number != 0) position_ = group.position;
  if (group.has_payload) {
    durable_payload_.swap(group.payload);
    has_durable_payload_ = true;
  }
  const uint64_t journal_bytes = journals_before_ + journal_->place().position;
  info_.journal_bytes = journal_bytes;
  if (options_.snapshot_bytes != 0 && journal_bytes > next_snapshot_at_ && !is_snapshot_due_) {
    is_snapshot_due_ = true;
    snapshot_work_.notify_one();
  }
  signal_settled();
}

void tslb_store_t::refuse(std::string_view reason, bool for_good) noexcept {
  const std::lock_guard lock(mutex_);
  set_reason(failed_, "{}", reason);
  is_broken_ = for_good;
  reserved_left_ = 0;
  refuse_unsettled();
  pending_ = {};
}

// mutex_ is held. begin() has reserved the element.
void tslb_store_t::refuse_unsettled() noexcept {
  if (settled_ == last_ticket_) return;
  refused_.push_back({settled_ + 1, last_ticket_, {}});
  set_reason(refused_.back().reason, "{}", failed_);
  settled_ = last_ticket_;
  signal_settled();
}

// ---- Restoring -----------------------------------------------------------------------------------------------------

// A restoration can be repeated if the frame was not written, but not if it was not synced.
void tslb_store_t::append_opened() {
  const uint64_t position = journal_->place().position;
  try {
    journal_->append_opened();
  } catch (const StoreError &error) {
    const std::lock_guard lock(mutex_);
    if (journal_->place().position == position) throw;
    set_reason(failed_, "{}", error.what());
    is_broken_ = true;
    throw refusal(failed_);
  }
}

void tslb_store_t::restore() {
  expect_no_batch_of_this_thread();
  uint64_t last_ended;
  {
    const std::lock_guard lock(mutex_);
    last_ended = last_ticket_;
  }
  // A group that is not written yet is written now, or refused: this call may be for that refusal.
  settle_ticket(last_ended);
  const std::lock_guard snapshots(snapshot_mutex_);
  const std::lock_guard flushing(flush_mutex_);
  const GateClosed closed(gate_), read_closed(read_gate_);
  {
    const std::lock_guard lock(mutex_);
    if (failed_.empty()) return;  // a batch that ended meanwhile stays pending
    if (is_broken_) throw StoreError(TSLB_DURABLE_BROKEN, failed_, folder_);
  }
  CopiedGroup rest;
  copy_group(rest);              // refuses batches that ended after the refusal
  write_state(folder_, state_);  // a snapshot that failed can have left a state that names its journal
  LoadedStore loaded = load_store(folder_, {});
  if (const uint64_t end = loaded.journals.back().end.position; end != journal_->place().position)
    throw damaged_at(journal_->path(), end, "ends before the last settled batch");
  for (uint32_t i = 0; i < arrays_.size(); ++i) {
    DynArrHandle_t *const stored = loaded.arrays[logged_[i].number()].get();
    copy_content(stored, arrays_[i].get());
    logged_[i].headers_are_logged();
    if (!shadows_.empty()) copy_content(stored, shadows_[i].get());
  }
  {
    const std::lock_guard lock(mutex_);
    payload_ = std::move(loaded.payload);
    has_payload_ = loaded.has_payload;
  }
  read_closed_.reset();
  append_opened();
  const std::lock_guard lock(mutex_);
  failed_.clear();
}
