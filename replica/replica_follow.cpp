// Following a log, and what an opening does with groups that are not in it.
#include <fmt/format.h>

#include <algorithm>
#include <cstring>

#include "changes.h"
#include "replica_impl.h"
#include "snapshot_archive.h"
#include "store_files.h"

using namespace tslb_replica;
using tslb_durable::StoreError;

namespace {

constexpr std::chrono::milliseconds RECEIVE_TIME{50};
constexpr std::chrono::milliseconds ASK_TIME{200};      // between two questions for the end of the log
constexpr std::chrono::milliseconds SILENT_TIME{1000};  // then the consumer is made again
constexpr std::chrono::milliseconds PAUSE{100};

// Throws what the store has reported. A full disk, or memory that was refused, is no reason to end: the group is read again
// later.
[[noreturn]] void fail_in_store(const tslb_error_t &error) {
  const bool is_repeated =
      error.code == TSLB_DURABLE_REFUSED || error.code == TSLB_DURABLE_NO_MEMORY || error.code == TSLB_DURABLE_IO;
  if (is_repeated) throw Unreachable(error.text);
  throw store_error_of(error);
}

// Removes a folder at the end.
class ScratchFolder {
 public:
  explicit ScratchFolder(std::string path) : path_(std::move(path)) { tslb_durable::remove_tree(path_); }
  ~ScratchFolder() {
    try {
      tslb_durable::remove_tree(path_);
    } catch (const StoreError &) {
      // It is removed by the next one.
    }
  }
  ScratchFolder(const ScratchFolder &) = delete;
  ScratchFolder &operator=(const ScratchFolder &) = delete;
  const std::string &path() const { return path_; }

 private:
  const std::string path_;
};

}  // namespace

// ---- Positions in the log ------------------------------------------------------------------------------------------

Message tslb_replica_t::head_at(uint64_t sequence, std::string &bytes) {
  std::optional<std::string> found = log_.log().read(sequence);
  if (!found) {
    if (log_.log().span().first > sequence) throw Unreachable(log_.log().place(sequence) + ": was removed meanwhile");
    throw StoreError(TSLB_DURABLE_DAMAGED, log_.log().place(sequence) + ": is missing");
  }
  bytes = std::move(*found);
  return read_message(bytes, log_.log().place(sequence));
}

// Returns the first sequence whose message has a property that all later ones have too; the one after the last if there is
// none.
uint64_t tslb_replica_t::first_after(const Span &span, const std::function<bool(const MessageHead &)> &is_after) {
  uint64_t from = span.first, to = span.last + 1;
  std::string bytes;
  while (from < to) {
    const uint64_t middle = from + (to - from) / 2;
    if (is_after(head_at(middle, bytes).head))
      to = middle;
    else
      from = middle + 1;
  }
  return from;
}

// Returns the sequence after the position of the store; 0 if the log begins later, or does not continue the store's past.
uint64_t tslb_replica_t::next_sequence(const Span &span) {
  const tslb_log_position_t own = position();
  const uint64_t next = first_after(span, [&](const MessageHead &head) { return head.number > own.number; });
  std::string bytes;
  const MessageHead head = head_at(std::min(next, span.last), bytes).head;
  const uint64_t number = head.number, epoch = head.epoch;
  if (next > span.last) {
    if (number == own.number && epoch == own.epoch) return next;
    throw StoreError(TSLB_DURABLE_DAMAGED,
                     fmt::format("{}: ends with group {} of epoch {}, but the store has group {} of epoch {}",
                                 log_.log().name(), number, epoch, own.number, own.epoch));
  }
  const bool is_next = number == own.number + 1 && head.chunk == 0;
  // The last group of the store can be one that the log never had, and the log be cut just there.
  if (next == span.first && (!is_next || head.epoch_before != own.epoch)) return 0;
  if (is_next) return next;
  throw StoreError(TSLB_DURABLE_DAMAGED, fmt::format("{}: group {}, but group {} is the next one",
                                                     log_.log().place(next), number, own.number + 1));
}

// ---- Groups that are not in the log --------------------------------------------------------------------------------

// Returns the last group of an epoch that the log has, for groups that are not before its first message.
uint64_t tslb_replica_t::last_number_in_log(uint64_t epoch, const Span &span) {
  std::string bytes;
  const Message end = head_at(span.last, bytes);
  if (end.head.epoch < epoch) return 0;
  if (end.head.epoch == epoch) return end.is_last_chunk() ? end.head.number : end.head.number - 1;
  const uint64_t later = first_after(span, [&](const MessageHead &head) { return head.epoch > epoch; });
  return head_at(later, bytes).head.number - 1;
}

// Returns whether the log has a group; nothing if it was cut after it.
std::optional<bool> tslb_replica_t::is_in_log(const tslb_log_position_t &position) {
  if (!found_span_) {
    found_span_ = log_.log().span();
    if (found_span_->is_empty()) return is_in_log(position);
    std::string bytes;
    found_first_ = head_at(found_span_->first, bytes).head;
    const tslb_durable::Identity own = tslb_durable::read_state(folder_).identity;
    const bool is_of_this = std::memcmp(found_first_.identity, own.data(), own.size()) == 0;
    if (!is_of_this && position.number == 1) {
      // The begin of a log that another store founded at the same time. A second group belongs to another log.
      found_span_.reset();
      return false;
    }
    if (!is_of_this)
      throw StoreError(TSLB_DURABLE_INVALID, fmt::format("{}: of another store", log_.log().place(found_span_->first)));
  }
  if (found_span_->is_empty()) return found_span_->last == 0 ? std::optional(false) : std::nullopt;
  if (position.number < found_first_.number) return std::nullopt;
  if (!last_numbers_.contains(position.epoch))
    last_numbers_[position.epoch] = last_number_in_log(position.epoch, *found_span_);
  return position.number <= last_numbers_[position.epoch];
}

// The same. The log can be cut meanwhile: then it is asked again.
std::optional<bool> tslb_replica_t::is_surely_in_log(const tslb_log_position_t &position) {
  for (const auto end = deadline();;) {
    try {
      return is_in_log(position);
    } catch (const Unreachable &) {
      if (Clock::now() > end) throw;
    }
    found_span_.reset();
    last_numbers_.clear();
    std::this_thread::sleep_for(PAUSE);
  }
}

// The groups are whole messages, with the layout 0.
void tslb_replica_t::set_aside(const tslb_group_t &group) {
  if (set_aside_ && group.position.number <= set_aside_->last) return;  // the store reads its journal again
  const std::string_view body(static_cast<const char *>(group.body), group.bytes);
  if (body == tslb_durable::body_of_position(group.position)) return;
  if (!set_aside_) {
    const std::string path = fmt::format("{}/set_aside.{}.{}", folder_, group.position.epoch, group.position.number);
    tslb_durable::remove_file(path);  // of an opening that did not end
    set_aside_.emplace(SetAside{tslb_durable::File::create(path)});
    tslb_durable::File::folder(folder_).sync();
  }
  const MessageSource source = {tslb_durable::read_state(folder_).identity, 0};
  const MessageHead head = make_message_head(source, MessageKind::group, group.position, group.position.epoch);
  set_aside_->file.write(messages_of(head, body, SIZE_MAX / 2).front());
  set_aside_->last = group.position.number;
  ++set_aside_->n_groups;
}

// Groups that are not in the log are the last ones of a store. So all groups before one that is in the log are in it, too;
// groups of which this is not known are set aside until such a one is found. If none is found, the log was cut after all of
// them, and the store gets the content of a snapshot.
int tslb_replica_t::found(const tslb_group_t &group, char *why, size_t capacity) noexcept {
  try {
    const std::optional<bool> is_there = is_surely_in_log(group.position);
    if (is_there && *is_there) {
      if (set_aside_) tslb_durable::remove_file(set_aside_->file.path());
      set_aside_.reset();
      return 1;
    }
    set_aside(group);
    if (!is_there) return 1;
    if (set_aside_) set_aside_->file.sync();
    return 0;
  } catch (const std::exception &failure) {
    tslb_durable::copy_text(failure.what(), why, capacity);
    return -1;
  }
}

// ---- Snapshots -----------------------------------------------------------------------------------------------------

bool tslb_replica_t::has_content() const {
  for (uint32_t i = 0; tslb_store_array(store_, i) != nullptr; ++i)
    if (tslb_da_get_size(tslb_store_array(store_, i)) != 0) return true;
  return false;
}

void tslb_replica_t::bootstrap() {
  if (position().number == 0 && has_content())
    throw StoreError(TSLB_DURABLE_INVALID, folder_ + ": has content that is not from the log; move it away to follow");
  const ScratchFolder copy(folder_ + ".bootstrap");
  const std::optional<MessageHead> head = fetch_archive(log_.snapshots(), copy.path());
  if (!head) throw Unreachable(log_.snapshots().name() + ": has no snapshot");
  std::string bytes;
  const Message last = head_at(log_.log().span().last, bytes);
  if (std::memcmp(head->identity, last.head.identity, sizeof head->identity) != 0)
    throw Unreachable(log_.snapshots().name() + ": the snapshot is of another store than the log");
  tslb_error_t error = {};
  if (tslb_store_adopt(store_, copy.path().c_str(), &error) != 0) {
    is_restoration_due_ = true;
    fail_in_store(error);
  }
  const std::lock_guard lock(mutex_);
  ++n_bootstraps_;
}

// With a generation of its own, the copy has a short journal.
void tslb_replica_t::publish_copy(bool with_generation) {
  tslb_error_t error = {};
  if (with_generation && tslb_store_snapshot(store_, &error) != 0) throw store_error_of(error);
  const ScratchFolder copy(folder_ + ".snapshot");
  const tslb_log_position_t contained = position();
  const MessageHead head = make_message_head(source(), MessageKind::snapshot, contained, contained.epoch);
  if (tslb_store_backup(store_, copy.path().c_str(), &error) != 0) throw store_error_of(error);
  bool is_leader;
  {
    const std::lock_guard lock(mutex_);
    is_leader = role_ == Role::leading;
  }
  char why[256];
  if (is_leader && confirm(why, sizeof why) != 0) throw StoreError(TSLB_DURABLE_REFUSED, why);
  publish_archive(log_.snapshots(), head, copy.path(), chunk_bytes_);
}

bool tslb_replica_t::is_snapshot_ours() {
  const Span span = log_.snapshots().span();
  const auto bytes = span.is_empty() ? std::nullopt : log_.snapshots().read(span.last);
  if (!bytes) return false;
  const MessageHead head = read_message(*bytes, log_.snapshots().place(span.last)).head;
  return std::memcmp(head.identity, source().identity.data(), sizeof head.identity) == 0;
}

// ---- Following -----------------------------------------------------------------------------------------------------

// Returns false if another store has founded the log, and this one had begun to, without content. Throws if the log is of
// another store, and this one has content or more groups.
bool tslb_replica_t::is_log_of_this_store(const Span &span) {
  std::string bytes;
  const MessageHead head = head_at(span.last, bytes).head;
  const MessageSource own = source();
  if (std::memcmp(head.identity, own.identity.data(), own.identity.size()) == 0) return true;
  if (position().number == 1 && !has_content()) return false;
  throw StoreError(TSLB_DURABLE_INVALID, fmt::format("{}: of another store", log_.log().place(span.last)));
}

void tslb_replica_t::begin_following() {
  restore_store();
  Span span = log_.log().span();
  if (span.is_empty()) throw Unreachable(log_.log().name() + (span.last == 0 ? ": is empty" : ": has no messages"));
  if (position().number == 0 || !is_log_of_this_store(span)) bootstrap();
  next_ = next_sequence(span);
  if (next_ == 0) {
    bootstrap();
    span = log_.log().span();
    next_ = next_sequence(span);
    if (next_ == 0) throw Unreachable(log_.log().name() + ": begins after the snapshot");
  }
  reader_.emplace(source(), position());
  log_.log().subscribe(next_);
}

void tslb_replica_t::apply(const tslb_group_t &group) {
  tslb_error_t error = {};
  if (tslb_store_apply(store_, &group, &error) == 0) return;
  is_restoration_due_ = true;
  fail_in_store(error);
}

// Repeats the restoration that the store has tried after a refused group. It accepts no group before one succeeds.
void tslb_replica_t::restore_store() {
  if (!is_restoration_due_) return;
  tslb_error_t error = {};
  if (tslb_store_restore(store_, &error) != 0) fail_in_store(error);
  is_restoration_due_ = false;
}

void tslb_replica_t::follow_until(const std::function<bool()> &is_done) {
  auto asked = Clock::now(), received = asked;
  while (!is_done()) {
    const std::optional<ReadMessage> message = log_.log().receive(RECEIVE_TIME);
    if (message) {
      {
        const std::lock_guard lock(mutex_);
        lag_ = std::max<uint64_t>(lag_, 1);  // readers of the store can delay its application
      }
      const std::optional<tslb_group_t> group = reader_->take(message->bytes, log_.log().place(message->sequence));
      if (group) apply(*group);
      next_ = message->sequence + 1;
    }
    const auto now = Clock::now();
    const bool is_asking = now - asked >= ASK_TIME;
    if (message) {
      received = now;
      const std::lock_guard lock(mutex_);
      applied_ns_ = reader_->made_ns();
      answered_ = now;
      // While the servers are asked, the messages that came meanwhile are not known.
      if (!is_asking) --lag_;
    }
    if (!is_asking) continue;
    asked = now;
    const Span span = log_.log().span();
    {
      const std::lock_guard lock(mutex_);
      lag_ = span.last + 1 > next_ ? span.last + 1 - next_ : 0;
      answered_ = now;
      text_.clear();
    }
    if (span.last >= next_ && now - received > SILENT_TIME) throw Unreachable(log_.log().name() + ": sends nothing");
  }
}

void tslb_replica_t::run_following() noexcept {
  const auto is_stopping = [this] {
    const std::lock_guard lock(mutex_);
    return is_stopping_;
  };
  while (!is_stopping()) {
    try {
      begin_following();
      follow_until(is_stopping);
    } catch (const LogGap &gap) {
      // The log was cut meanwhile, or the next turn finds the fault.
      say(gap.what());
    } catch (const Unreachable &failure) {
      say(failure.what());
      std::unique_lock lock(mutex_);
      changed_.wait_for(lock, PAUSE, [this] { return is_stopping_; });
    } catch (const std::exception &failure) {
      change_role(Role::ended, failure.what());
      return;
    }
  }
}

void tslb_replica_t::start_following() {
  {
    const std::lock_guard lock(mutex_);
    is_stopping_ = false;
  }
  follower_ = std::thread([this] { run_following(); });
}

// Does nothing if the thread does not run: is_stopping_ would end the publisher of a leader.
void tslb_replica_t::stop_following() {
  if (!follower_.joinable()) return;
  {
    const std::lock_guard lock(mutex_);
    is_stopping_ = true;
  }
  changed_.notify_all();
  follower_.join();
  const std::lock_guard lock(mutex_);
  is_stopping_ = false;
}
