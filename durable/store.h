// A store that is open.
//
// The path of a change: a batch collects ranges (Range), from the host and from the redo hook. The end of the batch hands
// them to the pending group. The end of a group closes the gate, so that no batch is open, copies the bytes of the ranges
// from the arrays, and opens the gate; then the group is compressed, written and synced while the next one fills. Who
// waits for a ticket writes the group itself if no other thread does; the journal thread writes groups that no thread
// waits for.
//
// Locks, in the order in which they are taken: snapshot_mutex_, flush_mutex_, the gate, mutex_.
#pragma once

#include <tslb/durable.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "changes.h"
#include "chunk_room.h"
#include "gate.h"
#include "journal_writer.h"
#include "store_error.h"
#include "store_files.h"
#include "store_load.h"
#include "stored_array.h"
#include "waiters.h"

namespace tslb_durable {
class StreamChild;

// Returns how many forks lie between the first process that opened a store and this one.
uint32_t forks_of_process() noexcept;
}  // namespace tslb_durable

// A batch. Only its thread uses it.
struct tslb_batch_t {
  tslb_store_t *store = nullptr;
  std::vector<tslb_durable::Range> ranges;
  std::string payload;
  bool has_payload = false;
  std::string fault;  // why it cannot be logged; empty if it can

  void add(const tslb_durable::Range &range) noexcept;
};

// The store of the C interface. Its functions throw StoreError unless declared noexcept.
struct tslb_store_t {
 public:
  tslb_store_t(const std::string &folder, std::vector<tslb_durable::ArrayDecl> decls,
               const tslb_store_options_t &options);
  ~tslb_store_t();
  tslb_store_t(const tslb_store_t &) = delete;
  tslb_store_t &operator=(const tslb_store_t &) = delete;

  void close();
  tslb_store_info_t info();
  DynArrHandle_t *array(uint32_t declaration) const;
  // Whether the calling process is a fork of the one that opened the store. Threads and locks of the store are not there.
  bool is_of_parent() const noexcept { return forks_before_ != tslb_durable::forks_of_process(); }
  void expect_no_batch_of_this_thread() const;
  uint32_t n_arrays() const { return static_cast<uint32_t>(decls_.size()); }
  const std::vector<uint8_t> *payload() const { return has_payload_ ? &payload_ : nullptr; }
  // Returns the index of the declaration of an array; n_arrays() if it is not one of this store.
  uint32_t declaration_of(const DynArrHandle_t *array) const noexcept;
  const tslb_durable::Geometry &geometry(uint32_t declaration) const { return logged_[declaration].geometry(); }
  // Does not change while a batch is open.
  const tslb_durable::LoggedArray &logged(uint32_t declaration) const { return logged_[declaration]; }
  const tslb_durable::ArrayDecl &decl(uint32_t declaration) const { return decls_[declaration]; }
  tslb_durable::ChunkRoom *room(uint32_t declaration) const { return rooms_[declaration].get(); }

  void set_payload_of_import(std::vector<uint8_t> payload);

  // Of a store with a log.
  tslb_log_position_t position();
  uint32_t layout() const;
  void apply(std::string_view body, const tslb_log_position_t &position, uint32_t n_batches);
  void promote(const tslb_log_position_t &position);
  void adopt_copy(const std::string &folder);
  void begin_reading() { read_gate_.enter(); }
  void end_reading() { read_gate_.leave(); }

  tslb_batch_t *begin();
  // Ends the batch. With TSLB_SYNC_ALWAYS it waits until the ticket is settled; otherwise the journal thread writes it.
  uint64_t end_without_wait(tslb_batch_t *batch) noexcept;
  // Ends the batch, waits, and throws if it was refused.
  void commit(tslb_batch_t *batch);
  // Throws if the ticket was refused.
  void wait(uint64_t ticket);
  uint64_t settled();
  // Returns whether the ticket is settled. Throws if it was refused.
  bool check(uint64_t ticket);
  // Throws if the disk has no space for so many bytes of journal.
  void reserve(uint64_t bytes);
  int event_fd() const { return event_.fd(); }
  void restore();
  // Called by the redo hook when a thread without a batch changes an array.
  void changed_outside_of_batch(const DynArrHandle_t *array) noexcept;

  void snapshot();
  void backup(const std::string &folder);

 private:
  // Batches that ended and are not written.
  struct PendingGroup {
    std::vector<tslb_durable::Range> ranges;
    std::string payload;
    bool has_payload = false;
    uint64_t first_ticket = 0;
    uint32_t n_batches = 0;
    std::string fault;
  };
  // Tickets that were refused for the same reason.
  struct RefusedRange {
    uint64_t first, last;
    std::string reason;
  };
  // A group whose bytes were copied.
  struct CopiedGroup {
    uint64_t last_ticket = 0;
    uint32_t n_batches = 0;
    uint64_t n_ranges = 0;
    std::vector<uint8_t> payload;
    bool has_payload = false;
    std::string failure;  // why it must be refused
    bool breaks = false;
    tslb_log_position_t position = {};
    bool is_from_log = false;
  };
  // A generation while it is written.
  struct NewGeneration;

  // Opening, in store.cpp.
  void open_or_create();
  void load();
  void create_store();
  void expect_empty_folder() const;
  void take_lock();
  void adopt(tslb_durable::LoadedStore &loaded);
  void register_policies();
  void bind_arrays();
  static uint32_t number_in(const tslb_durable::Manifest &manifest, const std::string &name);
  void continue_journal();
  void start_threads();
  void stop_threads();
  void close_bulk();
  void seal();

  // Stores with a log, in store_log.cpp.
  void expect_log_is_used() const;
  tslb_durable::LoadOptions options_of_loading();
  void apply_to_arrays(std::vector<tslb_durable::Array> &arrays, CopiedGroup &group);
  void append_to_log(const CopiedGroup &group);
  void confirm_log();
  void take_arrays(tslb_durable::LoadedStore &loaded);
  std::exception_ptr replace_content(tslb_durable::LoadedStore &loaded);

  // Groups, in store_group.cpp.
  uint64_t end(tslb_batch_t *batch) noexcept;
  void settle_ticket(uint64_t ticket) noexcept;
  bool flush() noexcept;  // flush_mutex_ is held; returns whether there was a group
  void copy_group(CopiedGroup &group) noexcept;
  void write_group(CopiedGroup &group) noexcept;
  void compare_with_shadow(const PendingGroup &pending, CopiedGroup &group);
  void cut_and_refuse(std::string_view reason) noexcept;
  void refuse(std::string_view reason, bool for_good) noexcept;
  void refuse_unsettled() noexcept;  // mutex_ is held
  void settle(CopiedGroup &group) noexcept;
  void signal_settled();
  void run_journal();
  void append_opened();
  tslb_durable::StoreError refusal(const std::string &reason) const noexcept;  // mutex_ is held
  void expect_usable() const;                                                  // mutex_ is held
  void expect_leader() const;                                                  // mutex_ is held
  void expect_given(uint64_t ticket) const;                                    // mutex_ is held
  const std::string *refusal_of(uint64_t ticket) const;                        // mutex_ is held

  // Generations, in store_snapshot.cpp.
  void write_generation_alone(uint64_t number, bool keeps_numbers = false, uint32_t n_older = 0);
  void remove_attempt(uint64_t number);
  void withdraw_attempt(uint64_t number) noexcept;
  uint64_t number_of_import() const;
  void use_journal(std::unique_ptr<tslb_durable::JournalWriter> journal);
  bool forks() const { return (options_.flags & TSLB_STORE_NO_FORK) == 0; }
  void begin_next_journal(NewGeneration &next);
  void freeze(NewGeneration &next, tslb_durable::StreamChild &child);
  void switch_journal(NewGeneration &next);
  void use_generation(uint64_t number);
  tslb_durable::JournalState sealed_state() const;
  void write_streams(NewGeneration &next);
  void finish_generation(NewGeneration &next);
  void remove_older_generations(uint32_t n_kept) noexcept;
  void snapshot_of_bulk();
  void expect_backup_folder(const std::string &target) const;
  void write_backup(tslb_durable::StoreState copy, const std::string &target) const;
  void run_snapshots();

  const uint32_t forks_before_ = tslb_durable::forks_of_process();
  std::string folder_;  // as given while the store is opened, for errors; then absolute, because a process may move
  const std::vector<tslb_durable::ArrayDecl> decls_;
  const tslb_store_options_t options_;
  const bool is_reader_;
  const bool is_bulk_;
  const std::optional<tslb_store_log_t> log_;
  const int level_;  // of compression; 0: none
  std::optional<tslb_durable::File> lock_;
  bool made_folder_ = false;
  std::optional<tslb_durable::LoadedStore> loaded_;  // while the store is opened
  tslb_durable::StoreState state_;                   // as in the folder; guarded by snapshot_mutex_
  std::vector<tslb_durable::Array> arrays_;
  std::vector<std::unique_ptr<tslb_durable::ChunkRoom>> rooms_;  // null for arrays that are no pools

  std::mutex snapshot_mutex_;

  std::mutex flush_mutex_;  // guards the following members
  std::vector<tslb_durable::LoggedArray> logged_;
  std::vector<tslb_durable::Array> shadows_;  // replicas; empty without a shadow
  std::unique_ptr<tslb_durable::JournalWriter> journal_;
  uint64_t journals_before_ = 0;  // bytes of the journals of the generation before this one
  std::string body_;
  std::string compressed_;
  std::atomic<uint64_t> reserved_left_{
      0};  // bytes of the journal that need no new disk space; written with mutex_ held
  // While a group is applied, or the content replaced, in part.
  std::optional<tslb_durable::GateClosed> read_closed_;
  uint32_t n_raw_in_turn_ = 0;  // groups that were not worth compressing

  tslb_durable::Gate gate_;
  tslb_durable::Gate read_gate_;  // closed while groups of a log are applied

  mutable std::mutex mutex_;  // guards the following members
  std::condition_variable work_;
  std::condition_variable snapshot_work_;
  tslb_durable::Waiters waiters_;
  PendingGroup pending_;
  std::vector<std::unique_ptr<tslb_batch_t>> spare_batches_;
  uint64_t last_ticket_ = 0;
  uint64_t settled_ = 0;
  std::vector<RefusedRange> refused_;
  std::string failed_;  // why batches are refused; empty if they are not
  bool is_broken_ = false;
  bool is_follower_ = false;
  tslb_log_position_t position_ = {};  // of the last settled group; written with flush_mutex_ held, too
  bool is_ending_ = false;
  bool is_snapshot_due_ = false;
  uint64_t next_snapshot_at_ = 0;         // bytes of the journals
  std::vector<uint8_t> durable_payload_;  // of the last settled batch that had one
  bool has_durable_payload_ = false;
  tslb_store_info_t info_ = {};

  std::vector<uint8_t> payload_;  // as found by the opening or restoring
  bool has_payload_ = false;
  const tslb_durable::File event_;

  std::thread journal_thread_;
  std::thread snapshot_thread_;
};

namespace tslb_durable {

// Makes the store known to the redo hook, or ends that.
void register_store(tslb_store_t *store);
void unregister_store(tslb_store_t *store);

// Batches of the calling thread.
void add_open_batch(tslb_batch_t *batch);
void remove_open_batch(const tslb_batch_t *batch);
tslb_batch_t *open_batch_of(const tslb_store_t *store);

// While it exists, changes of arrays by this thread belong to no batch, and are allowed.
class AppliesGroup {
 public:
  AppliesGroup();
  ~AppliesGroup();
  AppliesGroup(const AppliesGroup &) = delete;
  AppliesGroup &operator=(const AppliesGroup &) = delete;
};

}  // namespace tslb_durable
