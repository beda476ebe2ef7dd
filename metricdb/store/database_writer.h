// A database that is open for writing. Points are stored in its arrays, in batches of a durable store.
//
// A batch begins with the first text after a commit. Its changes are written to the journal while the arrays take the
// points of the next batch. If a batch is refused, the arrays contain points that must not be there. Then they are
// brought back to the last durable batch, which takes as long as opening. A full disk is usually detected before, because
// room in the journal is reserved before a text is stored.
//
// With WriterOptions::replica it is one of several replicas of a database. It follows the leader's: points and changes are
// refused, and `read` sees a state between two batches. After `promote` it takes points, until another replica leads.
//
// Threads: one, except for `read`, `request`, `backup`, `promote`, `why_ended` and `why_unreadable`.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "store/backup.h"
#include "store/database.h"
#include "store/fair_shared_mutex.h"
#include "store/follower_view.h"
#include "store/ingest.h"
#include "store/loader.h"
#include "store/open_batch.h"
#include "store/store_change.h"

namespace metricdb {

struct WriterOptions {
  tslb_sync_t sync = TSLB_SYNC_GROUP;
  uint64_t snapshot_bytes = 256 << 20;  // of journal between two generations; 0: only on request
  bool salvage = false;
  std::optional<uint8_t> layout = {};  // as in OpenOptions; for a new database: its layout
  ForgettingChange forgetting = {};    // stored with the database
  bool is_live = false;                // `read` can be called
  // Limits of each text. A timestamp can be this much after the clock; without a value any timestamp is stored.
  std::optional<int64_t> max_future_ns = {};
  size_t max_key_bytes = Store::MAX_KEY_BYTES;
  uint64_t max_new_series = UINT64_MAX;
  bool refuse_strings = false;  // as in LoadLimits
  bool one_per_time = false;
  bool retains_by_clock = false;               // Store::set_clock
  std::optional<ReplicaOptions> replica = {};  // with is_live
  // Called while the database is opened.
  std::function<void(uint64_t done_bytes, uint64_t all_bytes)> on_progress = {};
};

class DatabaseWriter final : public Ingest {
 public:
  // Opens the database, or creates it. Throws DatabaseError.
  DatabaseWriter(const std::string &folder, const WriterOptions &options);
  ~DatabaseWriter() override;

  // Throws IngestRefused. Throws DatabaseError if the database is unusable.
  IngestResult take(std::string_view text, Precision precision) override;
  uint64_t commit() override;
  uint64_t settled() override;
  std::string failure(uint64_t ticket) override;
  bool work() override;
  IngestFigures figures() override;
  std::string why_not_writable() override;
  std::string why_read_only() override;
  std::optional<ReplicaFigures> replica() override;
  int settled_fd() const override { return tslb_store_event_fd(durable_->get()); }

  // The thread of `take`.
  bool has_open_batch() const { return batch_.is_open(); }

  // From here on changes are not made. Those that were requested fail.
  void end_changes(const std::string &why);

  // Waits until the ticket is settled. Returns its failure.
  std::string wait(uint64_t ticket);

  // Commits and writes the next generation. Throws DatabaseError; the writer stays usable.
  GenerationInfo snapshot();

  // Commits, waits until the batch is settled, and closes the database. A long journal that is larger than the arrays is
  // replaced by a new generation. Throws DatabaseError.
  void close();

  // Calls `use` with the store, which is live (Store::go_live), on the calling thread. Any thread, also while points are
  // taken. Waits while a refused batch is taken back; meanwhile `use` is not running.
  void read(const std::function<void(const Store &)> &use) const;

  // Writes a backup (backup.h). Any thread, also while points are taken.
  BackupInfo backup(const std::string &to) const { return write_backup(durable_->get(), to); }

  // Requests a change, of the store for which `read` calls the caller: numbers of series stay those of that store. The parts
  // of a change are in one batch each, and changes are made one after the other. If a refused batch is taken back, changes
  // that are not durable fail. Any thread.
  std::shared_ptr<StoreChange> request(StoreChange::Step step);

  // Makes a follower the leader, and returns its epoch; also that of a replica that leads already. `read` goes on. Throws
  // ReplicaRefused, and DatabaseError if the log does not answer. Any thread.
  uint64_t promote();

  // Returns why this replica neither leads nor follows any more: it is to be closed, and opened again. Empty if it does, or
  // is no replica. Any thread.
  std::string why_ended() const;

  // Returns why nothing can be read: a new follower has no snapshot yet. Any thread.
  std::string why_unreadable() const;

  const Store &store() const { return *store_; }
  // What was remarkable when the database was opened, one line; empty if nothing was.
  const std::string &warnings() const { return warnings_; }
  tslb_store_info_t info() const { return durable_->info(); }

 private:
  using Clock = std::chrono::steady_clock;

  void open(const ArrayParameters &parameters);
  void read_store();
  void make_loader();
  bool follows() const { return view_ && !view_->is_over(); }
  uint64_t promote_unless(bool others_led);
  std::string why_not_following() const;
  void expect_leading();
  void beat();
  void apply_forgetting_options();
  void restore(const std::string &why);
  void pack();
  void fail_changes(const std::string &why);
  std::shared_ptr<StoreChange> next_change();
  void set_clock(int64_t now_ns);
  void begin_batch();
  uint64_t end_batch();
  void expect_room(size_t text_bytes);
  void load_within_bounds(std::string_view text, Precision precision);
  void set_limits(int64_t now_ns);
  void on_skipped_line(uint64_t number, const std::string &reason);
  void skip_rest(std::string_view text);

  const std::string folder_;
  const WriterOptions options_;
  std::string warnings_;
  std::optional<DurableArrays> durable_;
  mutable FairSharedMutex store_mutex_;  // held to read the store, and alone to make it anew
  std::optional<Store> store_;
  std::unique_ptr<FollowerView> view_;  // of a replica, also when it leads
  std::unique_ptr<Loader> loader_;
  IngestResult result_;        // of the current call of `take`
  uint64_t lines_before_ = 0;  // of its text, before the current piece
  LoadStats stats_before_;     // before the call
  OpenBatch batch_;
  Clock::time_point ended_at_ = Clock::now();
  std::mutex promotion_mutex_;
  mutable std::mutex changes_mutex_;
  std::string why_ended_;                                   // with the mutex locked; a promotion failed in part
  std::string why_no_changes_;                              // with the mutex locked; empty: they are made
  std::deque<std::shared_ptr<StoreChange>> changes_;        // requested, with the mutex locked
  std::vector<std::shared_ptr<StoreChange>> made_changes_;  // in the open batch
  std::vector<std::pair<uint64_t, std::shared_ptr<StoreChange>>> done_changes_;  // by ticket, not settled
};

}  // namespace metricdb
