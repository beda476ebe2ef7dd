// A replica: a store, its log, and the threads between them.
//
// Roles: following, promoting (again following if it fails), leading, ended. Each of them can end, and a replica that has
// ended stays so. change_role makes all changes. A promotion lets batches in as its last step, when the log is ready for
// their groups.
//
// Locks, in the order in which they are taken: role_mutex_ (one change of the role, or publication of a snapshot, at a
// time), those of the store, mutex_. The functions that the store calls take mutex_ alone.
#pragma once

#include <tslb/replica.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "files.h"
#include "log_message.h"
#include "nats_log.h"
#include "store_error.h"

namespace tslb_replica {

enum class Role { following, promoting, leading, ended };

// What a function of the store has reported.
inline tslb_durable::StoreError store_error_of(const tslb_error_t &error) {
  return tslb_durable::StoreError(static_cast<tslb_durable_code_t>(error.code), error.text, error.file, error.byte,
                                  error.errnum);
}

}  // namespace tslb_replica

// The replica of the C interface. Its functions throw StoreError unless declared noexcept.
struct tslb_replica_t {
 public:
  tslb_replica_t(const std::string &folder, const tslb_array_decl_t *arrays, uint32_t n_arrays,
                 const tslb_replica_options_t &options);
  ~tslb_replica_t();
  tslb_replica_t(const tslb_replica_t &) = delete;
  tslb_replica_t &operator=(const tslb_replica_t &) = delete;

  tslb_store_t *store() const { return store_; }
  tslb_replica_info_t info();
  // only_after  as in tslb_replica_promote_after.
  void promote(const std::optional<uint64_t> &only_after);
  uint64_t log_bytes() { return log_.log().span().bytes; }
  void publish_snapshot(bool cuts_log);
  void close();

 private:
  // What the store calls.
  int append(const tslb_group_t &group, char *why, size_t capacity) noexcept;
  int confirm(char *why, size_t capacity) noexcept;
  int found(const tslb_group_t &group, char *why, size_t capacity) noexcept;

  // Following, in replica_follow.cpp.
  uint64_t last_number_in_log(uint64_t epoch, const tslb_replica::Span &span);
  std::optional<bool> is_in_log(const tslb_log_position_t &position);
  std::optional<bool> is_surely_in_log(const tslb_log_position_t &position);
  void set_aside(const tslb_group_t &group);
  tslb_replica::Message head_at(uint64_t sequence, std::string &bytes);
  uint64_t first_after(const tslb_replica::Span &span,
                       const std::function<bool(const tslb_replica::MessageHead &)> &is_after);
  uint64_t next_sequence(const tslb_replica::Span &span);
  void bootstrap();
  bool is_log_of_this_store(const tslb_replica::Span &span);
  bool has_content() const;
  void begin_following();
  void follow_until(const std::function<bool()> &is_done);
  void run_following() noexcept;
  void start_following();
  void stop_following();
  void apply(const tslb_group_t &group);
  void restore_store();

  // Leading.
  void found_log();
  void follow_to(uint64_t sequence, tslb_replica::Clock::time_point end);
  uint64_t begin_epoch(uint64_t epoch, tslb_replica::Clock::time_point end);
  std::string message_of_epoch(const tslb_log_position_t &position) const;
  void lead(uint64_t last);
  void stop_leading();
  void run_publishing() noexcept;
  bool change_role(tslb_replica::Role next, std::string text = {}) noexcept;
  void publish_copy(bool with_generation);
  bool is_snapshot_ours();
  tslb_replica::MessageSource source() const;
  tslb_log_position_t position() const { return tslb_store_position(store_); }
  tslb_replica::Clock::time_point deadline() const { return tslb_replica::Clock::now() + nats_.patience; }
  void say(const std::string &text);

  std::string folder_;  // as given while the store is opened; then absolute
  const tslb_replica_mode_t mode_;
  const tslb_replica::NatsOptions nats_;
  tslb_replica::NatsLog log_;
  const size_t window_;
  const size_t chunk_bytes_;
  // While the store is opened: the log as it was found, and the last group of each epoch in it.
  std::optional<tslb_replica::Span> found_span_;
  tslb_replica::MessageHead found_first_ = {};
  std::map<uint64_t, uint64_t> last_numbers_;
  struct SetAside {
    tslb_durable::File file;
    uint64_t n_groups = 0;
    uint64_t last = 0;  // number of the last group in the file
  };
  std::optional<SetAside> set_aside_;
  tslb_store_t *store_ = nullptr;

  std::mutex role_mutex_;
  std::thread follower_;
  std::thread publisher_;
  std::optional<tslb_replica::LogReader> reader_;  // of the thread that follows, with the next member
  uint64_t next_ = 1;                              // sequence of the next message; leader: not used
  bool is_restoration_due_ = false;                // the store has refused a group, and perhaps not restored its arrays

  std::mutex mutex_;  // guards the following members
  std::condition_variable changed_;
  tslb_replica::Role role_ = tslb_replica::Role::following;
  std::string text_;
  bool is_stopping_ = false;
  tslb_replica::MessageSource source_ = {};  // of a leader's messages
  uint64_t last_ = 0;                        // leader: last sequence of the log
  std::deque<std::string> waiting_;          // messages that are not published, of ASYNC
  uint64_t lag_ = 0;
  uint64_t applied_ns_ = 0;  // when the last group that was applied was made
  std::chrono::steady_clock::time_point answered_ = tslb_replica::Clock::now();
  uint64_t n_bootstraps_ = 0;
};
