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

// Journal bytes that a text of line protocol comes to, at most but for texts of very many new and short series: those
// meet a full disk when they are written.
constexpr uint64_t JOURNAL_BYTES_PER_TEXT_BYTE = 4;
constexpr uint64_t JOURNAL_BYTES_PER_BATCH = 64 << 10;

constexpr uint64_t MOST_BATCH_BYTES = 128 << 20;  // of journal
constexpr uint64_t LOG_BYTES_OF_SERIES = 256;     // its record, and a few points
constexpr size_t PIECE_BYTES = 256 << 10;

constexpr uint64_t LEAST_REPLACED_JOURNAL = 4 << 20;

void watch(const File &group, int event_fd, const std::string &whose) {
  struct epoll_event event = {};
  event.events = EPOLLIN;
  if (epoll_ctl(group.fd(), EPOLL_CTL_ADD, event_fd, &event) != 0) fail_file(whose, "its event cannot be watched");
}

void tell(int event_fd) {
  const uint64_t one = 1;
  // Fails only when the count is at its end, and readable anyway.
  [[maybe_unused]] const ssize_t written = write(event_fd, &one, sizeof one);
}

void hear(int event_fd) {
  uint64_t n_events;
  [[maybe_unused]] const ssize_t got = read(event_fd, &n_events, sizeof n_events);
}

// Of points that bring no time: as an agent would have read it.
int64_t now_ns() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::nanoseconds>(now).count();
}

StoreConfig config_of_new(const WriterOptions &options) {
  StoreConfig config;
  config.layout = options.layout.value_or(NEWEST_LAYOUT);
  config.retain_ns = options.retain_ns.value_or(0);
  config.idle_ns = options.idle_ns.value_or(0);
  config.reuse_inactive_pct = options.reuse_inactive_pct.value_or(0);
  return config;
}

}  // namespace

DatabaseWriter::DatabaseWriter(const std::string &folder, const WriterOptions &options)
    : database_(folder, Database::Use::create), options_(options), settled_(File::poll_group()), ended_(File::event()) {
  watch(settled_, ended_.fd(), folder);
  if (database_.is_empty()) NewGeneration(database_).write_streams(Store(config_of_new(options)));
  Opened opened = database_.open({options.salvage, options.layout});
  generation_ = opened.stored.generation;
  found_ = opened.found();
  const StoreConfig before = opened.store.config();
  take_store(std::move(opened.store));
  // Records of the journal are of arrays as they lie in the generation that it follows. So it begins anew where they
  // are not those any more.
  const bool is_as_stored = opened.passed_over.empty() && !opened.journal.is_damaged &&
                            opened.stored.kind == StoreKind::snapshot && opened.stored.layout == before.layout;
  if (is_as_stored)
    start_journal(opened.journal);
  else
    snapshot();
  forget_as_told();
}

DatabaseWriter::~DatabaseWriter() = default;

void DatabaseWriter::take_store(Store &&store) {
  loader_.reset();
  store_.reset();
  store_.emplace(std::move(store));
  loader_ =
      std::make_unique<Loader>(*store_, Loader::WhenFull::go_on, [this](uint64_t line, const std::string &reason) {
        if (taken_.malformed++ == 0) taken_.first_reason = fmt::format("line {}: {}", lines_before_ + line, reason);
      });
}

// What the options say replaces what the database has, from here on and for later openings.
void DatabaseWriter::forget_as_told() {
  const StoreConfig now = store_->config();
  const int64_t retain_ns = options_.retain_ns.value_or(now.retain_ns);
  const int64_t idle_ns = options_.idle_ns.value_or(now.idle_ns);
  const uint8_t reuse_inactive_pct = options_.reuse_inactive_pct.value_or(now.reuse_inactive_pct);
  if (retain_ns == now.retain_ns && idle_ns == now.idle_ns && reuse_inactive_pct == now.reuse_inactive_pct) return;
  store_->forget_by(retain_ns, idle_ns, reuse_inactive_pct);
  has_taken_ = true;
  if (const std::string why = wait(commit()); !why.empty()) throw DatabaseError(why);
}

// ---- Journals ----

void DatabaseWriter::start_journal(const Replayed &replayed) {
  const std::string path = database_.journal_path(generation_);
  // One that could not be begun is empty, and in the way.
  if (!replayed.has_journal) remove_file(path);
  auto journal = replayed.has_journal ? std::make_unique<Journal>(path, replayed.place, options_.sync)
                                      : std::make_unique<Journal>(path, generation_, options_.sync);
  watch(settled_, journal->event_fd(), path);
  journal_ = std::move(journal);
  next_snapshot_at_ = options_.snapshot_bytes;
  begin_log();
}

void DatabaseWriter::begin_log() {
  batch_begins_ = journal_->end();
  redo_.emplace(*journal_);
  store_->begin_log();
}

// Its tickets are settled by then.
void DatabaseWriter::stop_journal() {
  redo_.reset();
  if (!journal_) return;
  for (uint64_t ticket = tickets_before_ + 1; has_refused_ && ticket <= last_ticket_; ++ticket)
    if (std::string why = failure(ticket); !why.empty()) failures_.emplace(ticket, std::move(why));
  has_refused_ = false;
  tickets_before_ = last_ticket_;
  // Its own event goes with it, perhaps unheard: whoever waits for its last ticket would wait for the next batch.
  tell(ended_.fd());
  journal_.reset();
}

// Brings the arrays back to what is durable, if the journal has refused what they hold.
void DatabaseWriter::restore_if_refused() {
  if (!journal_->is_failed()) return;
  has_refused_ = true;
  const std::string why = journal_->failure(last_ticket_ - tickets_before_);
  if (journal_->is_broken()) throw DatabaseError(fmt::format("{}: is of no use any more: {}", journal_->path(), why));
  report_refusal(fmt::format("{}: a batch was refused, the arrays are read back: {}", database_.folder(), why));
  redo_.reset();
  loader_.reset();  // both first: two of them would not fit where one just did
  store_.reset();
  Opened opened = database_.open();
  if (opened.journal.place.position != journal_->settled_end())
    throw DatabaseError(fmt::format("{}: ends at byte {}, and byte {} was settled", journal_->path(),
                                    opened.journal.place.position, journal_->settled_end()));
  take_store(std::move(opened.store));
  journal_->restart();
  begin_log();
}

// ---- Batches ----

void DatabaseWriter::expect_room(size_t text_bytes) {
  std::string why;
  if (!journal_->reserve(text_bytes * JOURNAL_BYTES_PER_TEXT_BYTE + JOURNAL_BYTES_PER_BATCH, &why))
    throw IngestRefused(why);
}

// A batch is in memory until it is committed, and a text of new and short series comes to many times its own size.
void DatabaseWriter::load_within_bounds(std::string_view text, Precision precision) {
  const int64_t time_ns = now_ns();
  const uint64_t lines_before = loader_->stats().lines;
  while (!text.empty()) {
    const uint64_t still_to_log = store_->n_changed_series() * LOG_BYTES_OF_SERIES;
    if (journal_->end() - batch_begins_ + still_to_log > MOST_BATCH_BYTES) {
      if (taken_.malformed == 0)
        taken_.first_reason = fmt::format("line {}: this and what follows is too much for one batch",
                                          loader_->stats().lines - lines_before + 1);
      taken_.malformed += static_cast<uint64_t>(std::count(text.begin(), text.end(), '\n'));
      taken_.malformed += text.ends_with('\n') ? 0 : 1;
      return;
    }
    const size_t feed = text.find('\n', std::min(PIECE_BYTES, text.size()));
    const size_t behind = feed == text.npos ? text.size() : feed + 1;
    lines_before_ = loader_->stats().lines - lines_before;
    loader_->load(text.substr(0, behind), precision, time_ns);
    text.remove_prefix(behind);
  }
}

Taken DatabaseWriter::take(std::string_view text, Precision precision) {
  if (!journal_) {
    try {
      start_journal({});
    } catch (const FileError &error) {
      throw IngestRefused(error.what());
    }
  }
  if (!has_taken_) restore_if_refused();
  if (journal_->is_failed()) throw IngestRefused("the batch that this belongs to is refused");
  expect_room(text.size());
  taken_ = {};
  const LoadStats before = loader_->stats();
  load_within_bounds(text, precision);
  taken_.points = loader_->stats().points - before.points;
  has_taken_ |= taken_.points != 0;
  if (taken_.points == 0 && loader_->stats().refused != before.refused) throw IngestRefused(taken_.first_reason);
  return taken_;
}

uint64_t DatabaseWriter::commit() {
  if (!has_taken_) return last_ticket_;
  store_->log_changes();
  last_ticket_ = tickets_before_ + journal_->commit(figures_text(store_->config(), store_->state()));
  has_taken_ = false;
  batch_begins_ = journal_->end();
  if (options_.snapshot_bytes != 0 && journal_->end() > next_snapshot_at_) {
    next_snapshot_at_ = journal_->end() + options_.snapshot_bytes;  // unless this one comes to its end
    try {
      snapshot();
    } catch (const std::runtime_error &error) {
      report_refusal(fmt::format("no new generation: {}", error.what()));
    }
  }
  return last_ticket_;
}

uint64_t DatabaseWriter::settled() {
  hear(ended_.fd());
  if (!journal_) return last_ticket_;
  hear(journal_->event_fd());  // ahead of the question
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

Stored DatabaseWriter::snapshot() {
  commit();
  if (last_ticket_ != 0) {
    if (const std::string why = wait(last_ticket_); !why.empty()) throw DatabaseError(why);
  }
  NewGeneration next(database_);
  try {
    const Stored stored = next.write_streams(*store_);
    begin_generation(next.number());
    return stored;
  } catch (const std::runtime_error &) {
    // Once it is in place the next opening takes it, so nothing may go to the old journal any more, even if it is not
    // known to be on the disk: beginning the new journal syncs the same folder.
    if (next.is_in_place() && generation_ != next.number()) begin_generation(next.number());
    throw;
  }
}

void DatabaseWriter::begin_generation(uint64_t number) {
  generation_ = number;
  stop_journal();
  start_journal({});
}

void DatabaseWriter::close() {
  commit();
  // The smaller of the two stays behind, and is read at the next opening.
  if (options_.snapshot_bytes != 0 && journal_ && journal_->end() > LEAST_REPLACED_JOURNAL &&
      journal_->end() > store_->bytes_in_use()) {
    try {
      snapshot();
    } catch (const std::runtime_error &error) {
      report_refusal(fmt::format("no new generation: {}", error.what()));
    }
  }
  if (journal_) journal_->close();
}

}  // namespace metricdb
