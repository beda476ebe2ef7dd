// The C interface, opening and closing, and leading.
#include "replica_impl.h"

#include <fmt/format.h>
#include <sys/random.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <new>

#include "store.h"

using namespace tslb_replica;
using tslb_durable::StoreError;

namespace {

constexpr uint32_t DEFAULT_WINDOW = 256;
constexpr uint32_t DEFAULT_PATIENCE_MS = 10'000;
constexpr uint32_t DEFAULT_CHUNK_BYTES = 256 << 10;
constexpr size_t MAX_NAME_LENGTH = 31;
constexpr uint32_t MAX_COPIES = 5;
constexpr size_t PUBLISHED_AT_ONCE = 64;
constexpr std::chrono::milliseconds RETRY_PROMOTION{50};

void fill_error(tslb_error_t *error, const StoreError &caught) {
  if (error == nullptr) return;
  error->code = caught.code();
  error->errnum = caught.errnum();
  error->byte = caught.byte();
  tslb_durable::copy_text(caught.file(), error->file, sizeof error->file);
  tslb_durable::copy_text(caught.what(), error->text, sizeof error->text);
}

template <class Result, class Function>
Result guarded_replica(tslb_error_t *error, Result failed, Function function) {
  try {
    return function();
  } catch (const StoreError &caught) {
    fill_error(error, caught);
  } catch (const std::bad_alloc &) {
    fill_error(error, StoreError(TSLB_DURABLE_NO_MEMORY, "memory was refused"));
  } catch (const std::exception &caught) {
    fill_error(error, StoreError(TSLB_DURABLE_IO, caught.what()));
  }
  return failed;
}

NatsOptions checked_options(const tslb_replica_options_t &options) {
  const auto refuse_option = [](const std::string &why) { throw StoreError(TSLB_DURABLE_INVALID, why); };
  const std::string name = options.name != nullptr ? options.name : "";
  const bool is_valid = std::all_of(name.begin(), name.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-';
  });
  if (name.empty() || name.size() > MAX_NAME_LENGTH || !is_valid)
    refuse_option(fmt::format("\"{}\" cannot be the name of a log", name));
  if (options.servers == nullptr || options.servers[0] == '\0') refuse_option("no servers");
  if (options.n_copies > MAX_COPIES)
    refuse_option(fmt::format("n_copies {}, but the maximum is {}", options.n_copies, MAX_COPIES));
  int mode;
  std::memcpy(&mode, &options.mode, sizeof mode);
  if (mode < TSLB_REPLICA_BOTH || mode > TSLB_REPLICA_STREAM) refuse_option(fmt::format("unknown mode {}", mode));
  const uint32_t patience_ms = options.patience_ms != 0 ? options.patience_ms : DEFAULT_PATIENCE_MS;
  return {options.servers, name, std::max(options.n_copies, 1u), options.log_bytes,
          std::chrono::milliseconds(patience_ms)};
}

// The servers answer a read in text with four bytes for three, which must fit into their limit, too.
size_t chunk_bytes_of(const tslb_replica_options_t &options, uint64_t max_message_bytes) {
  const uint64_t most = std::max<uint64_t>(max_message_bytes / 2, 2 * sizeof(MessageHead)) - sizeof(MessageHead);
  return std::min<uint64_t>(most, options.chunk_bytes != 0 ? options.chunk_bytes : DEFAULT_CHUNK_BYTES);
}

// Repeats an operation that fails because the servers do not answer, until the time is over.
template <class Operation>
auto repeated(Clock::time_point end, Operation operation) {
  for (;;) {
    try {
      return operation();
    } catch (const Unreachable &) {
      if (Clock::now() > end) throw;
    } catch (const LogGap &) {
      if (Clock::now() > end) throw;
    }
    std::this_thread::sleep_for(RETRY_PROMOTION);
  }
}

std::string random_bytes() {
  std::string bytes(16, '\0');
  if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size()))
    tslb_durable::fail_file("getrandom", "no random bytes");
  return bytes;
}

}  // namespace

// ---- Opening and closing -------------------------------------------------------------------------------------------

tslb_replica_t::tslb_replica_t(const std::string &folder, const tslb_array_decl_t *arrays, uint32_t n_arrays,
                               const tslb_replica_options_t &options)
    : folder_(folder),
      mode_(options.mode),
      nats_(checked_options(options)),
      log_(nats_),
      window_(options.window != 0 ? options.window : DEFAULT_WINDOW),
      chunk_bytes_(chunk_bytes_of(options, log_.max_bytes())) {
  const tslb_store_log_t functions = {
      this,
      [](void *arg, const tslb_group_t *group, char *why, size_t capacity) {
        return static_cast<tslb_replica_t *>(arg)->append(*group, why, capacity);
      },
      [](void *arg, char *why, size_t capacity) { return static_cast<tslb_replica_t *>(arg)->confirm(why, capacity); },
      [](void *arg, const tslb_group_t *group, char *why, size_t capacity) {
        return static_cast<tslb_replica_t *>(arg)->found(*group, why, capacity);
      }};
  tslb_store_options_t store_options = options.store;
  store_options.log = &functions;
  if (mode_ == TSLB_REPLICA_STREAM) store_options.sync = TSLB_SYNC_NONE;
  tslb_error_t error = {};
  store_ = tslb_store_open(folder.c_str(), arrays, n_arrays, &store_options, &error);
  if (store_ == nullptr) throw store_error_of(error);
  try {
    // A process may move, and names of other folders begin with this one.
    folder_ = std::filesystem::canonical(folder_);
    if (set_aside_) set_aside_->file.sync();
    start_following();
  } catch (...) {
    tslb_store_close(store_, nullptr);
    throw;
  }
}

tslb_replica_t::~tslb_replica_t() {
  stop_following();
  stop_leading();
  tslb_store_close(store_, nullptr);
}

void tslb_replica_t::close() {
  stop_following();
  tslb_error_t error = {};
  // The store writes its last groups, so it is closed while messages are still published.
  const int closed = tslb_store_close(std::exchange(store_, nullptr), &error);
  char why[256] = "";
  const bool was_leader = publisher_.joinable();
  const bool is_confirmed = !was_leader || confirm(why, sizeof why) == 0;
  stop_leading();
  if (closed != 0) throw store_error_of(error);
  if (!is_confirmed) throw StoreError(TSLB_DURABLE_IO, folder_ + ": the last groups are not in the log: " + why);
}

MessageSource tslb_replica_t::source() const {
  tslb_store_info_t info;
  tslb_store_get_info(store_, &info);
  MessageSource source = {{}, tslb_store_layout(store_)};
  std::memcpy(source.identity.data(), info.identity, sizeof info.identity);
  return source;
}

void tslb_replica_t::say(const std::string &text) {
  const std::lock_guard lock(mutex_);
  text_ = text;
}

tslb_replica_info_t tslb_replica_t::info() {
  tslb_replica_info_t info = {};
  info.position = position();
  const std::lock_guard lock(mutex_);
  info.role = role_ == Role::leading ? TSLB_REPLICA_LEADER
              : role_ == Role::ended ? TSLB_REPLICA_ENDED
                                     : TSLB_REPLICA_FOLLOWER;
  info.lag = role_ == Role::leading ? waiting_.size() : lag_;
  if (role_ != Role::leading) {
    const double silent_s = std::chrono::duration<double>(Clock::now() - answered_).count();
    // Negative if the leader's clock is fast.
    const auto age_ns = static_cast<int64_t>(now_ns() - applied_ns_);
    const bool has_age = lag_ != 0 && applied_ns_ != 0 && age_ns > 0;
    info.lag_s = std::max(silent_s > 2 ? silent_s : 0, has_age ? static_cast<double>(age_ns) / 1e9 : 0);
  }
  info.n_bootstraps = n_bootstraps_;
  if (set_aside_) {
    info.n_set_aside = set_aside_->n_groups;
    tslb_durable::copy_text(set_aside_->file.path(), info.set_aside, sizeof info.set_aside);
  }
  tslb_durable::copy_text(text_, info.text, sizeof info.text);
  return info;
}

// Changes the role. Returns false, and changes nothing, if the present role does not lead to this one: a role that has
// ended stays so, with the first reason.
bool tslb_replica_t::change_role(Role next, std::string text) noexcept {
  const std::lock_guard lock(mutex_);
  switch (next) {
    case Role::promoting:
      if (role_ != Role::following) return false;
      break;
    case Role::leading:
    case Role::following:
      if (role_ != Role::promoting) return false;
      break;
    case Role::ended:
      if (role_ == Role::ended) return false;
  }
  role_ = next;
  if (next == Role::leading || next == Role::ended) text_ = std::move(text);
  changed_.notify_all();
  return true;
}

// ---- Leading -------------------------------------------------------------------------------------------------------

void tslb_replica_t::promote(const std::optional<uint64_t> &only_after) {
  const std::lock_guard one(role_mutex_);
  stop_following();
  if (!change_role(Role::promoting)) {
    const std::lock_guard lock(mutex_);
    throw StoreError(TSLB_DURABLE_INVALID, folder_ + ": is no follower" + (text_.empty() ? "" : ": " + text_));
  }
  try {
    const auto end = deadline();
    uint64_t epoch = 0;  // at the beginning
    const bool is_empty = repeated(end, [&] {
      const Span span = log_.log().span();
      std::string bytes;
      if (!span.is_empty()) epoch = head_at(span.last, bytes).head.epoch;
      return span.last == 0;
    });
    if (only_after && !is_empty && epoch != *only_after)
      throw Fenced(
          fmt::format("{}: has epoch {}, so another has led after epoch {}", log_.log().name(), epoch, *only_after));
    if (is_empty && position().number <= 1) return found_log();
    follow_to(0, end);
    const uint64_t begun = begin_epoch(epoch, end);
    follow_to(begun, end);
    lead(begun);
  } catch (...) {
    if (change_role(Role::following)) start_following();
    throw;
  }
}

// Applies the log up to a sequence; 0: to its present end.
void tslb_replica_t::follow_to(uint64_t sequence, Clock::time_point end) {
  repeated(end, [&] {
    const uint64_t last = sequence != 0 ? sequence : log_.log().span().last;
    begin_following();
    follow_until([&] { return next_ > last || Clock::now() > end; });
    if (next_ <= last) throw Unreachable(fmt::format("{}: its end was not reached in time", log_.log().name()));
  });
}

// Appends the begin of the next epoch, and returns its sequence. A leader that still appends can be faster each time, so
// nothing is done between reading the last message and the attempt, and it is asked to wait; what that leader appended is
// applied later.
uint64_t tslb_replica_t::begin_epoch(uint64_t epoch, Clock::time_point end) {
  std::string own;
  return repeated(end, [&] {
    for (;;) {
      const uint64_t last = log_.log().span().last;
      std::string bytes;
      const Message message = head_at(last, bytes);
      if (bytes == own) return last;  // an attempt whose answer was lost
      const uint64_t before = message.head.epoch;
      if (before > epoch) throw Fenced(fmt::format("{}: another replica began epoch {}", log_.log().name(), before));
      own = message_of_epoch({before + 1, message.is_last_chunk() ? message.head.number + 1 : message.head.number});
      if (log_.log().try_append(own, last)) return last + 1;
      if (Clock::now() > end) throw Unreachable(fmt::format("{}: another appended each time", log_.log().name()));
      log_.log().request_pause();
    }
  });
}

std::string tslb_replica_t::message_of_epoch(const tslb_log_position_t &position) const {
  const MessageHead head = make_message_head(source(), MessageKind::epoch, position, position.epoch - 1);
  return messages_of(head, random_bytes(), chunk_bytes_).front();
}

// The first leader. Its store can have content, which followers get from its snapshot. The position is journalled before
// the message is published: a store with content and without a position follows no log. A failure after that ends the
// role: the message can be in the log or not, which the next opening finds out. The position is there already if a
// snapshot came between.
void tslb_replica_t::found_log() {
  const tslb_log_position_t position = {1, 1};
  restore_store();
  if (this->position().number == 0) apply({nullptr, 0, 0, position});
  try {
    publish_copy(false);
    log_.log().publish({message_of_epoch(position)}, 0);
    if (!is_snapshot_ours()) publish_copy(true);  // another that was promoted at once has replaced it
  } catch (const std::exception &failure) {
    change_role(Role::ended, failure.what());
    throw;
  }
  lead(1);
}

// The end of a promotion: lets batches in. The log ends with the begin of the epoch, which the store has.
void tslb_replica_t::lead(uint64_t last) {
  log_.log().unsubscribe();
  const MessageSource own = source();
  {
    const std::lock_guard lock(mutex_);
    source_ = own;
    last_ = last;
    lag_ = 0;
  }
  if (mode_ == TSLB_REPLICA_ASYNC) publisher_ = std::thread([this] { run_publishing(); });
  const tslb_log_position_t begin = position();
  tslb_error_t error = {};
  if (tslb_store_promote(store_, &begin, &error) != 0) {
    stop_leading();
    throw store_error_of(error);
  }
  // A batch that began just now can have ended the role.
  if (change_role(Role::leading)) return;
  const std::lock_guard lock(mutex_);
  throw StoreError(TSLB_DURABLE_BROKEN, folder_ + ": " + text_);
}

void tslb_replica_t::stop_leading() {
  {
    const std::lock_guard lock(mutex_);
    is_stopping_ = true;
  }
  changed_.notify_all();
  if (publisher_.joinable()) publisher_.join();
}

// Called by the store for each group. The messages are published here, or wait for the publisher.
int tslb_replica_t::append(const tslb_group_t &group, char *why, size_t capacity) noexcept {
  try {
    MessageHead head = make_message_head(source_, MessageKind::group, group.position, group.position.epoch);
    head.n_batches = group.n_batches;
    std::vector<std::string> messages =
        messages_of(head, {static_cast<const char *>(group.body), group.bytes}, chunk_bytes_);
    std::unique_lock lock(mutex_);
    // A batch can begin just before the role is `leading`.
    changed_.wait(lock, [this] {
      return role_ != Role::promoting &&
             (role_ != Role::leading || mode_ != TSLB_REPLICA_ASYNC || waiting_.size() < window_);
    });
    if (role_ != Role::leading) throw Fenced("leads no more: " + text_);
    if (mode_ == TSLB_REPLICA_ASYNC) {
      for (std::string &message : messages) waiting_.push_back(std::move(message));
      changed_.notify_all();
      return 0;
    }
    const uint64_t last = last_;
    lock.unlock();
    log_.log().publish(messages, last);
    lock.lock();
    last_ = last + messages.size();
    return 0;
  } catch (const std::exception &failure) {
    change_role(Role::ended, failure.what());
    tslb_durable::copy_text(failure.what(), why, capacity);
    return -1;
  }
}

int tslb_replica_t::confirm(char *why, size_t capacity) noexcept {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [this] { return role_ != Role::promoting && (role_ != Role::leading || waiting_.empty()); });
  if (role_ == Role::leading) return 0;
  tslb_durable::copy_text(text_, why, capacity);
  return -1;
}

// Publishes what waits, in order. Messages leave the queue when they are in the log.
void tslb_replica_t::run_publishing() noexcept {
  try {
    std::unique_lock lock(mutex_);
    for (;;) {
      changed_.wait(lock, [this] { return is_stopping_ || !waiting_.empty(); });
      if (waiting_.empty() || role_ != Role::leading) return;
      const size_t count = std::min(waiting_.size(), PUBLISHED_AT_ONCE);
      const std::vector<std::string> messages(waiting_.begin(), waiting_.begin() + static_cast<ptrdiff_t>(count));
      const uint64_t last = last_;
      lock.unlock();
      log_.log().publish(messages, last);
      lock.lock();
      last_ = last + count;
      waiting_.erase(waiting_.begin(), waiting_.begin() + static_cast<ptrdiff_t>(count));
      changed_.notify_all();
    }
  } catch (const std::exception &failure) {
    change_role(Role::ended, failure.what());
  }
}

// ---- Snapshots -----------------------------------------------------------------------------------------------------

void tslb_replica_t::publish_snapshot(bool cuts_log) {
  const std::lock_guard one(role_mutex_);
  const tslb_log_position_t contained = position();
  if (contained.number == 0) throw StoreError(TSLB_DURABLE_INVALID, folder_ + ": has no position in the log");
  publish_copy(true);
  if (!cuts_log) return;
  const Span span = log_.log().span();
  const uint64_t kept = first_after(span, [&](const MessageHead &head) { return head.number > contained.number; });
  // The last message stays: it shows where the log ends.
  log_.log().purge_before(std::min(kept, span.last));
}

// ---- The C interface -----------------------------------------------------------------------------------------------

tslb_replica_t *tslb_replica_open(const char *folder, const tslb_array_decl_t *arrays, uint32_t n_arrays,
                                  const tslb_replica_options_t *options, tslb_error_t *error) {
  return guarded_replica(error, static_cast<tslb_replica_t *>(nullptr), [&] {
    if (folder == nullptr || folder[0] == '\0' || options == nullptr)
      throw StoreError(TSLB_DURABLE_INVALID, "no folder or no options");
    return new tslb_replica_t(folder, arrays, n_arrays, *options);
  });
}

int tslb_replica_close(tslb_replica_t *replica, tslb_error_t *error) {
  if (replica == nullptr) return 0;
  return guarded_replica(error, -1, [&] {
    replica->store()->expect_no_batch_of_this_thread();
    const std::unique_ptr<tslb_replica_t> released(replica);
    replica->close();
    return 0;
  });
}

tslb_store_t *tslb_replica_store(tslb_replica_t *replica) {
  return replica->store();
}

void tslb_replica_get_info(tslb_replica_t *replica, tslb_replica_info_t *info) {
  *info = replica->info();
}

int tslb_replica_promote(tslb_replica_t *replica, tslb_error_t *error) {
  return guarded_replica(error, -1, [&] {
    replica->promote(std::nullopt);
    return 0;
  });
}

int tslb_replica_promote_after(tslb_replica_t *replica, uint64_t epoch, tslb_error_t *error) {
  return guarded_replica(error, -1, [&] {
    replica->promote(epoch);
    return 0;
  });
}

int tslb_replica_get_log_bytes(tslb_replica_t *replica, uint64_t *bytes, tslb_error_t *error) {
  return guarded_replica(error, -1, [&] {
    *bytes = replica->log_bytes();
    return 0;
  });
}

int tslb_replica_publish_snapshot(tslb_replica_t *replica, int cuts_log, tslb_error_t *error) {
  return guarded_replica(error, -1, [&] {
    replica->publish_snapshot(cuts_log != 0);
    return 0;
  });
}
