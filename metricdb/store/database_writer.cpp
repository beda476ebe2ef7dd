#include "store/database_writer.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <utility>

#include "store/figures.h"
#include "store/log.h"

namespace metricdb {
namespace {

// Maximum number of journal bytes per byte of line protocol. Texts with very many new and short series can exceed it;
// they detect a full disk only when they are written.
constexpr uint64_t JOURNAL_BYTES_PER_TEXT_BYTE = 4;
constexpr uint64_t JOURNAL_BYTES_PER_BATCH = 64 << 10;
// A text for which there must be room on the disk, so that the database counts as writable.
constexpr size_t EXPECTED_TEXT_BYTES = 256 << 10;
// A text that needs about as much journal as a part of a change.
constexpr size_t CHANGE_TEXT_BYTES = 256 << 10;

constexpr uint64_t MAX_BATCH_BYTES = 128 << 20;  // of journal, before compression
constexpr size_t PIECE_BYTES = 256 << 10;

// A journal at the end that is longer than that, and than a part of the arrays, is replaced by a generation.
constexpr uint64_t MIN_REPLACED_JOURNAL_BYTES = 64 << 10;
constexpr uint64_t REPLACED_PART_OF_ARRAYS = 8;

// The time of points without a timestamp.
int64_t now_ns() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::nanoseconds>(now).count();
}

StoreConfig new_config(const WriterOptions &options) {
  StoreConfig config;
  config.layout = options.layout.value_or(NEWEST_LAYOUT);
  config.forgetting = options.forgetting.applied_to({});
  return config;
}

void report_progress(void *options, uint64_t done_bytes, uint64_t all_bytes) {
  const auto &on_progress = static_cast<const WriterOptions *>(options)->on_progress;
  if (on_progress) on_progress(done_bytes, all_bytes);
}

}  // namespace

DatabaseWriter::DatabaseWriter(const std::string &folder, const WriterOptions &options)
    : folder_(folder), options_(options) {
  if (!stored_parameters(folder)) OpenDatabase(folder, {}, OpenDatabase::Use::load, new_config(options)).write();
  open(parameters_of(folder, options.layout, std::nullopt));
  if (!view_) apply_forgetting_options();
  if (!view_ || !options.replica->leads) return;
  try {
    promote_unless(true);
  } catch (const ReplicaRefused &refusal) {
    warnings_ += fmt::format("{}this server follows, and does not lead by itself: {}", warnings_.empty() ? "" : "\n",
                             refusal.what());
  }
}

DatabaseWriter::~DatabaseWriter() {
  // The end of a batch is part of the interface of batches; the rest of an orderly end is close(). One is open after an
  // exception, on the thread that began it.
  if (batch_.is_open()) end_batch();
}

void DatabaseWriter::open(const ArrayParameters &parameters) {
  tslb_store_options_t options = {};
  options.flags = options_.salvage ? TSLB_STORE_SALVAGE : 0;
  options.sync = options_.sync;
  options.snapshot_bytes = options_.snapshot_bytes;
  options.progress = report_progress;
  options.progress_arg = const_cast<WriterOptions *>(&options_);
  const ReplicaOptions *const replica = options_.replica ? &*options_.replica : nullptr;
  durable_.emplace(folder_, parameters, options, replica);
  warnings_ = durable_->info().warning;
  if (replica == nullptr) return read_store();
  view_ = std::make_unique<FollowerView>(*durable_, options_.retains_by_clock);
  view_->begin([this]() -> Store & { return store_.emplace(store_of(folder_, *durable_, {})); });
}

// Makes the store and the loader anew, from the arrays and their payload.
void DatabaseWriter::read_store() {
  loader_.reset();
  store_.reset();
  store_.emplace(store_of(folder_, *durable_, {}));
  make_loader();
  if (options_.is_live) store_->go_live();
}

void DatabaseWriter::make_loader() {
  loader_ = std::make_unique<Loader>(
      *store_, Loader::OnFull::skip_line,
      [this](uint64_t line, const std::string &reason) { on_skipped_line(lines_before_ + line, reason); });
  set_clock(now_ns());
}

void DatabaseWriter::set_clock(int64_t now_ns) {
  if (options_.retains_by_clock) store_->set_clock(now_ns);
}

// Limits in the options replace those of the database, from here on and for later openings.
void DatabaseWriter::apply_forgetting_options() {
  const Forgetting forgetting = options_.forgetting.applied_to(store_->config().forgetting);
  if (forgetting == store_->config().forgetting) return;
  begin_batch();
  store_->set_forgetting(forgetting);
  if (const std::string why = wait(end_batch()); !why.empty()) throw DatabaseError(why);
}

// ---- Replicas ----

uint64_t DatabaseWriter::promote() {
  if (!view_) throw ReplicaRefused("this server is no replica: it has no --replica");
  return promote_unless(false);
}

uint64_t DatabaseWriter::promote_unless(bool others_led) {
  const std::lock_guard one(promotion_mutex_);
  Replica &replica = *durable_->replica();
  if (follows()) {
    replica.promote(others_led);
    try {
      // The server's thread uses neither store nor loader until this has ended.
      view_->end([this](Store &store) {
        store.lead();
        make_loader();
        apply_forgetting_options();
      });
    } catch (const std::exception &failure) {
      const std::lock_guard lock(changes_mutex_);
      why_ended_ = failure.what();
      throw;
    }
    replica.begin_snapshots();
    TSLB_DLOG(LOG_PROGRESS, "leads %s, epoch %llu", replica.name().c_str(),
              static_cast<unsigned long long>(replica.figures().epoch));
  }
  const ReplicaFigures now = replica.figures(true);
  if (now.role != ReplicaFigures::Role::leader) throw ReplicaRefused(why_read_only());
  return now.epoch;
}

std::optional<ReplicaFigures> DatabaseWriter::replica() {
  return view_ ? std::optional(durable_->replica()->figures()) : std::nullopt;
}

std::string DatabaseWriter::why_ended() const {
  if (!view_) return "";
  {
    const std::lock_guard lock(changes_mutex_);
    if (!why_ended_.empty()) return why_ended_;
  }
  const ReplicaFigures now = durable_->replica()->figures(!follows());
  if (now.role != ReplicaFigures::Role::ended) return "";
  return fmt::format("this server {} {} no more: {}", follows() ? "follows" : "leads", now.name, now.text);
}

std::string DatabaseWriter::why_read_only() {
  if (!view_) return "";
  std::string why = why_ended();
  if (!why.empty() || !follows()) return why;
  return fmt::format("this server follows {} and takes no points: send them to its leader",
                     durable_->replica()->name());
}

std::string DatabaseWriter::why_unreadable() const {
  if (!follows()) return "";
  const ReplicaFigures now = durable_->replica()->figures();
  if (now.number != 0) return "";
  return fmt::format("this server follows {} and has no data yet{}{}", now.name, now.text.empty() ? "" : ": ",
                     now.text);
}

std::string DatabaseWriter::why_not_following() const {
  constexpr double MAX_LAG_S = 30;
  if (std::string why = why_ended(); !why.empty()) return why;
  if (std::string why = why_unreadable(); !why.empty()) return why;
  const ReplicaFigures now = durable_->replica()->figures();
  if (now.lag_s <= MAX_LAG_S) return "";
  return fmt::format("this server follows {} with a lag of {} messages, {:.0f} s{}{}", now.name, now.lag, now.lag_s,
                     now.text.empty() ? "" : ": ", now.text);
}

// Lines that were accepted would be lost.
void DatabaseWriter::expect_leading() {
  if (const std::string why = why_read_only(); !why.empty()) throw IngestRefused(why);
}

// Of a leader. Without points it would not notice that another leads, or that the log does not answer. The batch has no
// content, so it is not set aside if another leads.
void DatabaseWriter::beat() {
  if (!view_ || batch_.is_open() || Clock::now() - ended_at_ < options_.replica->heartbeat) return;
  ended_at_ = Clock::now();
  tslb_batch_t *const empty = durable_->begin();
  if (empty == nullptr) return;
  batch_.begin(empty);
  batch_.end();
}

// ---- Batches ----

// After a refused batch the arrays are brought back to the last durable one.
void DatabaseWriter::restore(const std::string &why) {
  if (!why_ended().empty()) fail_changes(why);
  expect_leading();
  report_refusal(fmt::format("a batch was refused, the arrays are loaded again: {}", why));
  const std::unique_lock alone(store_mutex_);
  fail_changes(why);
  loader_.reset();
  store_.reset();
  durable_->restore();
  read_store();
}

void DatabaseWriter::read(const std::function<void(const Store &)> &use) const {
  const std::shared_lock lock(store_mutex_);
  if (!store_) throw DatabaseError(folder_ + ": is not open");  // it could not be made anew
  if (view_) return view_->read(use);
  use(*store_);
}

void DatabaseWriter::begin_batch() {
  if (batch_.is_open()) return;
  tslb_batch_t *batch = durable_->begin();
  if (batch == nullptr) {
    restore(durable_->error());
    batch = durable_->begin();
    if (batch == nullptr) throw DatabaseError(durable_->error());
  }
  batch_.begin(batch);
  store_->begin_batch(batch);
}

void DatabaseWriter::expect_room(size_t text_bytes) {
  const uint64_t bytes = text_bytes * JOURNAL_BYTES_PER_TEXT_BYTE + JOURNAL_BYTES_PER_BATCH;
  tslb_error_t error;
  int result = tslb_store_reserve(durable_->get(), bytes, &error);
  if (result != 0 && error.code == TSLB_DURABLE_REFUSED) {
    restore(error.text);
    result = tslb_store_reserve(durable_->get(), bytes, &error);
  }
  if (result != 0 && error.code == TSLB_DURABLE_BROKEN) {
    expect_leading();
    throw DatabaseError(error.text);
  }
  if (result != 0) throw IngestRefused(error.text);
}

void DatabaseWriter::set_limits(int64_t now_ns) {
  LoadLimits limits;
  if (options_.max_future_ns && __builtin_add_overflow(now_ns, *options_.max_future_ns, &limits.newest_ns))
    limits.newest_ns = INT64_MAX;
  limits.max_key_bytes = options_.max_key_bytes;
  limits.max_new_series = options_.max_new_series;
  limits.reports_late = true;
  limits.refuses_strings = options_.refuse_strings;
  limits.one_per_time = options_.one_per_time;
  loader_->set_limits(limits);
}

void DatabaseWriter::on_skipped_line(uint64_t number, const std::string &reason) {
  const bool is_first = result_.first_reason.empty();
  // The loader counts a line before it reports it.
  const bool is_first_without_room = result_.room_reason.empty() && loader_->stats().refused != stats_before_.refused;
  if (!is_first && !is_first_without_room) return;
  const std::string line = fmt::format("line {}: {}", number, reason);
  if (is_first) result_.first_reason = line;
  if (is_first_without_room) result_.room_reason = line;
}

void DatabaseWriter::skip_rest(std::string_view text) {
  const std::string reason = fmt::format("line {}: no room for this line and the following ones in one batch",
                                         loader_->stats().lines - stats_before_.lines + 1);
  if (result_.first_reason.empty()) result_.first_reason = reason;
  if (result_.room_reason.empty()) result_.room_reason = reason;
  result_.no_room += static_cast<uint64_t>(std::count(text.begin(), text.end(), '\n')) + (text.ends_with('\n') ? 0 : 1);
}

// A batch is in memory until it is written, and the changes of new and short series are much larger than their text. So
// the text is loaded in pieces, and the rest is refused when the batch is too large.
void DatabaseWriter::load_within_bounds(std::string_view text, Precision precision) {
  const int64_t time_ns = now_ns();
  set_clock(time_ns);
  set_limits(time_ns);
  while (!text.empty()) {
    if (store_->batch_bytes() > MAX_BATCH_BYTES) return skip_rest(text);
    lines_before_ = loader_->stats().lines - stats_before_.lines;
    text.remove_prefix(loader_->load(text, precision, time_ns, PIECE_BYTES));
  }
}

IngestResult DatabaseWriter::take(std::string_view text, Precision precision) {
  expect_leading();
  // A batch that began before a refusal would be refused too.
  if (batch_.is_open() && !batch_.has_content() && !failure(batch_.last_ended()).empty()) end_batch();
  // Before a batch is open: the group that is written while space is reserved waits for open batches.
  if (!batch_.is_open()) expect_room(text.size());
  begin_batch();
  result_ = {};
  stats_before_ = loader_->stats();
  load_within_bounds(text, precision);
  const LoadStats &stats = loader_->stats();
  const LoadStats &before = stats_before_;
  result_.points = (stats.points - stats.late_points) - (before.points - before.late_points);
  result_.malformed = stats.malformed - before.malformed;
  result_.late = stats.late - before.late;
  result_.future = stats.future - before.future;
  result_.no_room += stats.refused - before.refused;
  if (result_.points != 0) batch_.add_content();
  if (result_.points == 0 && result_.no_room != 0) throw IngestRefused(result_.room_reason);
  return result_;
}

// Returns the ticket of the open batch, with or without content.
uint64_t DatabaseWriter::end_batch() {
  store_->compact();
  store_->end_batch();
  const std::string figures = figures_text(store_->config(), store_->state());
  tslb_batch_set_payload(batch_.get(), figures.data(), figures.size(), nullptr);
  const uint64_t ticket = batch_.end();
  ended_at_ = Clock::now();
  for (auto &change : std::exchange(made_changes_, {})) done_changes_.emplace_back(ticket, std::move(change));
  return ticket;
}

uint64_t DatabaseWriter::commit() {
  if (follows()) return 0;  // the batch is that of the thread that promotes
  if (batch_.is_open()) end_batch();
  return batch_.last_ticket();
}

uint64_t DatabaseWriter::settled() {
  uint64_t n_events;
  [[maybe_unused]] const ssize_t got = ::read(settled_fd(), &n_events, sizeof n_events);  // before the ticket is read
  if (follows()) return 0;  // the store can be replaced just now, which takes long
  const uint64_t settled = tslb_store_settled(durable_->get());
  std::erase_if(done_changes_, [&](const auto &done) {
    if (done.first > settled) return false;
    done.second->end(failure(done.first));
    return true;
  });
  return settled;
}

std::string DatabaseWriter::failure(uint64_t ticket) {
  tslb_error_t error;
  return tslb_store_check(durable_->get(), ticket, &error) < 0 ? error.text : "";
}

// ---- Changes ----

std::shared_ptr<StoreChange> DatabaseWriter::request(StoreChange::Step step) {
  auto change = std::make_shared<StoreChange>(std::move(step));
  const std::string read_only = why_read_only();
  {
    const std::lock_guard lock(changes_mutex_);
    const std::string why = why_no_changes_.empty() ? read_only : why_no_changes_;
    if (why.empty())
      changes_.push_back(change);
    else
      change->end(why);
  }
  const uint64_t one = 1;
  // Fails only if the counter is at its maximum, and then the event is readable.
  [[maybe_unused]] const ssize_t written = write(settled_fd(), &one, sizeof one);
  return change;
}

// Null: none. Interrupted changes are dropped.
std::shared_ptr<StoreChange> DatabaseWriter::next_change() {
  const std::lock_guard lock(changes_mutex_);
  while (!changes_.empty() && changes_.front()->is_over()) changes_.pop_front();
  return changes_.empty() ? nullptr : changes_.front();
}

void DatabaseWriter::end_changes(const std::string &why) {
  {
    // First, so that no change is requested after the others have failed.
    const std::lock_guard lock(changes_mutex_);
    why_no_changes_ = why;
  }
  fail_changes(why);
}

void DatabaseWriter::fail_changes(const std::string &why) {
  const std::lock_guard lock(changes_mutex_);
  for (const auto &change : std::exchange(changes_, {})) change->end(why);
  for (const auto &change : std::exchange(made_changes_, {})) change->end(why);
  for (const auto &[ticket, change] : std::exchange(done_changes_, {})) {
    const std::string failed = failure(ticket);
    change->end(failed.empty() && ticket > tslb_store_settled(durable_->get()) ? why : failed);
  }
}

bool DatabaseWriter::work() {
  if (follows()) return false;
  set_clock(now_ns());
  beat();
  const std::shared_ptr<StoreChange> change = next_change();
  if (!change) return false;
  bool is_complete = true;
  try {
    if (!batch_.is_open()) expect_room(CHANGE_TEXT_BYTES);
    begin_batch();
    // Both can have made the store anew, without this change.
    if (change->is_over()) return next_change() != nullptr;
    batch_.add_content();
    is_complete = change->step_(*store_);
  } catch (const std::exception &error) {
    if (dynamic_cast<const DatabaseError *>(&error) != nullptr) throw;
    change->end(error.what());
  }
  if (is_complete && !change->is_over()) made_changes_.push_back(change);
  if (is_complete) {
    const std::lock_guard lock(changes_mutex_);
    std::erase(changes_, change);
  }
  return next_change() != nullptr;
}

IngestFigures DatabaseWriter::figures() {
  return follows() ? view_->figures() : figures_of(*store_, durable_->info());
}

std::string DatabaseWriter::why_not_writable() {
  if (follows()) return why_not_following();
  if (std::string why = why_read_only(); !why.empty()) return why;
  // An open batch has its room.
  if (batch_.is_open()) return "";
  try {
    expect_room(EXPECTED_TEXT_BYTES);
    return "";
  } catch (const IngestRefused &refused) {
    return refused.what();
  }
}

std::string DatabaseWriter::wait(uint64_t ticket) {
  tslb_error_t error;
  int result = ticket == 0 ? 0 : tslb_store_check(durable_->get(), ticket, &error);
  if (result == 1) {
    // A batch of this thread can be open, and would keep the group from ending.
    commit();
    result = tslb_store_wait(durable_->get(), ticket, &error);
  }
  return result == 0 ? "" : error.text;
}

GenerationInfo DatabaseWriter::snapshot() {
  if (const std::string why = wait(commit()); !why.empty()) throw DatabaseError(why);
  durable_->snapshot();
  return generation_info(folder_, durable_->info().generation);
}

// Makes the arrays as small as they can be, in batches.
void DatabaseWriter::pack() {
  bool is_packed = false;
  for (uint32_t series = 0; !is_packed;) {
    begin_batch();
    series = store_->pack(series);
    is_packed = series == store_->n_slots() && store_->compact(true);
    if (const std::string why = wait(end_batch()); !why.empty()) throw DatabaseError(why);
  }
}

void DatabaseWriter::close() {
  if (view_ && (follows() || !why_ended().empty())) {
    fail_changes("the database is closed");
    const std::unique_lock alone(store_mutex_);
    loader_.reset();
    view_.reset();
    store_.reset();
    return durable_->close();
  }
  const std::string why = wait(commit());
  const uint64_t journal_bytes = durable_->info().journal_bytes;
  if (why.empty() && options_.snapshot_bytes != 0 && journal_bytes > MIN_REPLACED_JOURNAL_BYTES &&
      journal_bytes > store_->bytes_in_use() / REPLACED_PART_OF_ARRAYS) {
    try {
      pack();
      snapshot();
    } catch (const DatabaseError &error) {
      report_refusal(fmt::format("the new generation cannot be written: {}", error.what()));
    }
  }
  settled();
  end_changes("the database is closed");
  const std::unique_lock alone(store_mutex_);
  loader_.reset();
  view_.reset();
  store_.reset();
  durable_->close();
}

}  // namespace metricdb
