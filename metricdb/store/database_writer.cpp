#include "store/database_writer.h"

#include <fmt/format.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <utility>

#include "journal/log.h"

namespace metricdb {
namespace {

// Maximum number of journal bytes per byte of line protocol. Texts with very many new and short series can exceed it;
// they detect a full disk only when they are written.
constexpr uint64_t JOURNAL_BYTES_PER_TEXT_BYTE = 4;
constexpr uint64_t JOURNAL_BYTES_PER_BATCH = 64 << 10;

constexpr uint64_t MAX_BATCH_BYTES = 128 << 20;  // of journal
constexpr uint64_t LOG_BYTES_PER_SERIES = 256;   // its record, and a few points
constexpr size_t PIECE_BYTES = 256 << 10;

constexpr uint64_t MIN_REPLACED_JOURNAL_BYTES = 4 << 20;

void watch(const File &group, int event_fd, const std::string &path) {
  struct epoll_event event = {};
  event.events = EPOLLIN;
  if (epoll_ctl(group.fd(), EPOLL_CTL_ADD, event_fd, &event) != 0) fail_file(path, "its event cannot be watched");
}

void signal_event(int event_fd) {
  const uint64_t one = 1;
  // Fails only if the counter is at its maximum, and then the event is readable.
  [[maybe_unused]] const ssize_t written = write(event_fd, &one, sizeof one);
}

void reset_event(int event_fd) {
  uint64_t n_events;
  [[maybe_unused]] const ssize_t got = read(event_fd, &n_events, sizeof n_events);
}

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

}  // namespace

DatabaseWriter::DatabaseWriter(const std::string &folder, const WriterOptions &options)
    : database_(folder, Database::Use::create),
      options_(options),
      settled_group_(File::poll_group()),
      journal_ended_(File::event()) {
  watch(settled_group_, journal_ended_.fd(), folder);
  if (database_.is_empty()) NewGeneration(database_).write_streams(Store(new_config(options)));
  LoadedDatabase loaded = database_.open({options.salvage, options.layout});
  generation_ = loaded.generation.number;
  warnings_ = loaded.warnings();
  const uint8_t layout = loaded.store.config().layout;
  set_store(std::move(loaded.store));
  // The records of a journal apply to the arrays of its generation. If the arrays in memory are not these arrays with
  // the journal applied, a new generation with a new journal begins.
  const bool is_journal_damaged = loaded.journal && loaded.journal->end == JournalEnd::damaged;
  const bool can_continue = loaded.skipped.empty() && !is_journal_damaged &&
                            loaded.generation.kind == StoreKind::snapshot && loaded.generation.layout == layout;
  if (can_continue)
    start_journal(loaded.journal ? std::optional(loaded.journal->place) : std::nullopt);
  else
    snapshot();
  apply_forgetting_options();
}

DatabaseWriter::~DatabaseWriter() = default;

void DatabaseWriter::set_store(Store &&store) {
  loader_.reset();
  store_.reset();
  store_.emplace(std::move(store));
  loader_ =
      std::make_unique<Loader>(*store_, Loader::OnFull::skip_line, [this](uint64_t line, const std::string &reason) {
        if (result_.malformed++ == 0) result_.first_reason = fmt::format("line {}: {}", lines_before_ + line, reason);
      });
}

// Limits in the options replace those of the database, from here on and for later openings.
void DatabaseWriter::apply_forgetting_options() {
  const Forgetting forgetting = options_.forgetting.applied_to(store_->config().forgetting);
  if (forgetting == store_->config().forgetting) return;
  store_->set_forgetting(forgetting);
  has_uncommitted_ = true;
  if (const std::string why = wait(commit()); !why.empty()) throw DatabaseError(why);
}

// ---- Journals ----

// Continues the journal of the generation at a place, or creates it.
void DatabaseWriter::start_journal(const std::optional<JournalPlace> &place) {
  const std::string path = database_.journal_path(generation_);
  // An earlier attempt to create the journal can have left a file without batches.
  if (!place) remove_file(path);
  auto journal = place ? std::make_unique<Journal>(path, *place, options_.sync)
                       : std::make_unique<Journal>(path, generation_, options_.sync);
  watch(settled_group_, journal->event_fd(), path);
  journal_ = std::move(journal);
  next_snapshot_at_ = options_.snapshot_bytes;
  begin_log();
}

void DatabaseWriter::begin_log() {
  batch_begin_ = journal_->end();
  redo_.emplace(*journal_);
  store_->begin_log();
}

// Called when all tickets of the journal are settled.
void DatabaseWriter::stop_journal() {
  redo_.reset();
  if (!journal_) return;
  for (uint64_t ticket = tickets_before_ + 1; has_refused_ && ticket <= last_ticket_; ++ticket)
    if (std::string why = failure(ticket); !why.empty()) failures_.emplace(ticket, std::move(why));
  has_refused_ = false;
  tickets_before_ = last_ticket_;
  // The journal's event is closed with it. Without this event a caller that waits for the last ticket would wait until
  // the next batch.
  signal_event(journal_ended_.fd());
  journal_.reset();
}

// Loads the durable state of the arrays if the journal has refused a batch.
void DatabaseWriter::restore_if_refused() {
  if (!journal_->is_failed()) return;
  has_refused_ = true;
  const std::string why = journal_->failure(last_ticket_ - tickets_before_);
  if (journal_->is_broken()) throw DatabaseError(fmt::format("{}: the journal is unusable: {}", journal_->path(), why));
  report_refusal(fmt::format("{}: a batch was refused, the arrays are loaded again: {}", database_.folder(), why));
  redo_.reset();
  loader_.reset();  // the store is deleted first, because memory may not suffice for two
  store_.reset();
  LoadedDatabase loaded = database_.open();
  const uint64_t end = loaded.journal ? loaded.journal->place.position : 0;
  if (end != journal_->settled_end())
    throw DatabaseError(fmt::format("{}: ends at byte {}, but was settled up to byte {}", journal_->path(), end,
                                    journal_->settled_end()));
  set_store(std::move(loaded.store));
  journal_->restart();
  begin_log();
}

// ---- Batches ----

void DatabaseWriter::expect_room(size_t text_bytes) {
  std::string why;
  if (!journal_->reserve(text_bytes * JOURNAL_BYTES_PER_TEXT_BYTE + JOURNAL_BYTES_PER_BATCH, &why))
    throw IngestRefused(why);
}

// An uncommitted batch is in memory, and the records of new and short series are much larger than their text. So the
// text is loaded in pieces, and the rest is refused when the batch is too large.
void DatabaseWriter::load_within_bounds(std::string_view text, Precision precision) {
  const int64_t time_ns = now_ns();
  const uint64_t lines_before = loader_->stats().lines;
  while (!text.empty()) {
    const uint64_t unlogged_bytes = store_->n_changed_series() * LOG_BYTES_PER_SERIES;
    if (journal_->end() - batch_begin_ + unlogged_bytes > MAX_BATCH_BYTES) {
      if (result_.malformed == 0)
        result_.first_reason = fmt::format("line {}: the batch is too large for this line and the following ones",
                                           loader_->stats().lines - lines_before + 1);
      result_.malformed += static_cast<uint64_t>(std::count(text.begin(), text.end(), '\n'));
      result_.malformed += text.ends_with('\n') ? 0 : 1;
      return;
    }
    const size_t feed = text.find('\n', std::min(PIECE_BYTES, text.size()));
    const size_t piece_bytes = feed == text.npos ? text.size() : feed + 1;
    lines_before_ = loader_->stats().lines - lines_before;
    loader_->load(text.substr(0, piece_bytes), precision, time_ns);
    text.remove_prefix(piece_bytes);
  }
}

IngestResult DatabaseWriter::take(std::string_view text, Precision precision) {
  if (!journal_) {
    try {
      start_journal(std::nullopt);
    } catch (const FileError &error) {
      throw IngestRefused(error.what());
    }
  }
  if (!has_uncommitted_) restore_if_refused();
  if (journal_->is_failed()) throw IngestRefused("the current batch is refused");
  expect_room(text.size());
  result_ = {};
  const LoadStats before = loader_->stats();
  load_within_bounds(text, precision);
  result_.points = loader_->stats().points - before.points;
  has_uncommitted_ |= result_.points != 0;
  if (result_.points == 0 && loader_->stats().refused != before.refused) throw IngestRefused(result_.first_reason);
  return result_;
}

uint64_t DatabaseWriter::commit() {
  if (!has_uncommitted_) return last_ticket_;
  store_->log_changes();
  last_ticket_ = tickets_before_ + journal_->commit(figures_text(store_->config(), store_->state()));
  has_uncommitted_ = false;
  batch_begin_ = journal_->end();
  if (options_.snapshot_bytes != 0 && journal_->end() > next_snapshot_at_) {
    next_snapshot_at_ = journal_->end() + options_.snapshot_bytes;  // in case this snapshot fails
    try {
      snapshot();
    } catch (const std::runtime_error &error) {
      report_refusal(fmt::format("the new generation cannot be written: {}", error.what()));
    }
  }
  return last_ticket_;
}

uint64_t DatabaseWriter::settled() {
  reset_event(journal_ended_.fd());
  if (!journal_) return last_ticket_;
  reset_event(journal_->event_fd());  // before the ticket is read
  return tickets_before_ + journal_->settled();
}

std::string DatabaseWriter::failure(uint64_t ticket) {
  if (ticket > tickets_before_) return journal_->failure(ticket - tickets_before_);
  const auto known = failures_.find(ticket);
  return known == failures_.end() ? "" : known->second;
}

std::string DatabaseWriter::wait(uint64_t ticket) {
  if (ticket > tickets_before_) journal_->wait(ticket - tickets_before_);
  return failure(ticket);
}

GenerationInfo DatabaseWriter::snapshot() {
  commit();
  if (last_ticket_ != 0) {
    if (const std::string why = wait(last_ticket_); !why.empty()) throw DatabaseError(why);
  }
  NewGeneration next(database_);
  try {
    const GenerationInfo info = next.write_streams(*store_);
    begin_generation(next.number());
    return info;
  } catch (const std::runtime_error &) {
    // The next opening uses a generation that is in place, so nothing may be written to the old journal any more. The
    // generation may not be synced yet: creating the new journal syncs the same folder.
    if (next.is_in_place() && generation_ != next.number()) begin_generation(next.number());
    throw;
  }
}

void DatabaseWriter::begin_generation(uint64_t number) {
  generation_ = number;
  stop_journal();
  start_journal(std::nullopt);
}

void DatabaseWriter::close() {
  commit();
  // The next opening reads the arrays and the journal. If the journal is larger, it is replaced.
  if (options_.snapshot_bytes != 0 && journal_ && journal_->end() > MIN_REPLACED_JOURNAL_BYTES &&
      journal_->end() > store_->bytes_in_use()) {
    try {
      snapshot();
    } catch (const std::runtime_error &error) {
      report_refusal(fmt::format("the new generation cannot be written: {}", error.what()));
    }
  }
  if (journal_) journal_->close();
}

}  // namespace metricdb
