// The journal contains the changes of a database's arrays since its last generation, in batches. This is the writer;
// journal_reader.h is the reader, and journal_format.h describes the file.
//
// Redo records are appended to a batch in memory. A commit ends the batch and queues it for the writer thread of the
// journal, which writes and syncs it while the next batch is filled. One sync can cover several batches. Each commit
// has a ticket: 1, 2, 3 and so on. Tickets are settled in this order. A settled batch is on the disk, or was refused
// for a reason.
//
// When a write fails, the file is truncated after the last settled batch, and the following batches are refused. Their
// changes are in the arrays already, so no later batch can be valid: commits are refused until the owner has restored
// the arrays to the last settled batch and calls restart(). When a sync or the truncation fails, the content of the
// disk is unknown, and a second sync would not report the error again: the journal is broken permanently.
//
// The process must ignore SIGXFSZ. Otherwise a limit on file sizes ends it instead of causing an error.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "journal/files.h"
#include "journal/journal_format.h"

namespace metricdb {

enum class Sync {
  always,  // one sync per batch
  batch,   // one sync for all batches that are queued
  none,    // a batch is settled when it is written; a crash of the machine can lose it
};

class Journal {
 public:
  // `commit` waits while more committed bytes than this are unsettled.
  static constexpr uint64_t MAX_UNSETTLED_BYTES = 64 << 20;

  // Creates a file, which must not exist. It gets its name when its head is written and synced. Throws FileError.
  Journal(const std::string &path, uint64_t generation, Sync sync);
  // Continues an existing file at ScanResult::place. Bytes after the place are removed. Throws FileError.
  Journal(const std::string &path, const JournalPlace &place, Sync sync);
  // Calls close() and ignores its errors.
  ~Journal();
  Journal(const Journal &) = delete;
  Journal &operator=(const Journal &) = delete;

  // Copies a record into the batch. It neither waits for a disk nor throws, because the library calls the redo hook
  // with spin locks held and without exceptions. A record that cannot be stored (no memory, more than MAX_DATA_BYTES)
  // causes its batch to be refused. The batch is in memory until its commit. Any thread.
  void append(const redo_args_t &record) noexcept;

  // Ends the batch, which can be empty. The commit mark contains `payload`, at most MAX_PAYLOAD_BYTES, or
  // std::length_error is thrown. Returns the ticket without waiting, unless more than MAX_UNSETTLED_BYTES are
  // unsettled. Any thread.
  uint64_t commit(std::string_view payload);

  // Returns the last settled ticket; 0 if there is none. Any thread.
  uint64_t settled() const;
  // Returns the reason why a settled batch was refused; empty if it was not. Any thread.
  std::string failure(uint64_t ticket) const;
  // Waits until the ticket is settled. `commit` must have returned it. Any thread.
  void wait(uint64_t ticket) const;
  // An eventfd, readable when settled() has changed. The reader resets it.
  int event_fd() const { return event_.fd(); }

  // is_failed: batches are refused until restart(), or permanently if is_broken.
  bool is_failed() const;
  bool is_broken() const;
  // Continues after the last settled batch that was not refused. Records since then are discarded. Throws FileError if
  // the journal is broken. No other thread may append or commit meanwhile, and no thread may wait for an unsettled
  // ticket.
  void restart();

  // Reserves disk space for so many bytes after the current end, in steps of RESERVE_BYTES, so that a full disk is
  // detected before memory is changed. Returns false and sets `why` if the disk has no space. Returns true if the file
  // system cannot reserve space. Any thread.
  bool reserve(uint64_t bytes, std::string *why = nullptr);

  // The position of the next entry: the length of the file when everything is written.
  uint64_t end() const;
  // The end of the last settled batch that was not refused.
  uint64_t settled_end() const;

  // Waits until all commits are settled, discards the open batch, writes the last mark, syncs, and releases reserved
  // space. Throws FileError. Afterwards only const functions and the destructor may be called.
  void close();

  const std::string &path() const { return file_.path(); }

 private:
  static constexpr uint64_t RESERVE_BYTES = 4 << 20;

  // A committed batch in the queue.
  struct Batch {
    uint64_t ticket;
    size_t bytes;
    JournalPlace next;    // the place after the batch
    std::string failure;  // why it cannot be written; empty if it can
  };
  // Tickets that were refused for the same reason.
  struct RefusedRange {
    uint64_t first, last;
    std::string reason;
  };
  struct Queue {
    std::string bytes;
    std::vector<Batch> batches;
  };

  Journal(File file, const JournalPlace &place, Sync sync);
  void reserve_memory(size_t payload_bytes);
  void enqueue(uint64_t ticket, std::string_view payload);

  // Called by the writer thread. write_queue, write_batches and cut_and_refuse return false if a batch was refused.
  void run();
  bool write_queue(const Queue &queue, uint64_t at);
  bool write_batches(std::string_view bytes, uint64_t at, uint64_t first_ticket);
  bool cut_and_refuse(uint64_t at, uint64_t first_ticket, const std::string &reason);
  void refuse(uint64_t first_ticket, const std::string &reason, bool for_good);
  void settle(const Batch &last, size_t bytes);

  // Called with the lock held.
  void add_refused(uint64_t first_ticket, const std::string &reason);
  void set_settled(uint64_t ticket);

  const File file_;
  const File event_;
  const Sync sync_;

  mutable std::mutex mutex_;  // guards the following members
  mutable std::condition_variable settled_moved_;
  std::condition_variable work_;
  std::string batch_;          // entries of the open batch
  std::string batch_failure_;  // why the open batch cannot be written; empty if it can
  Queue queue_;                // committed, not yet taken by the writer thread
  JournalPlace next_;          // place of the next entry
  JournalPlace settled_place_;
  uint64_t durable_;              // end of the synced part of the file
  uint64_t unsettled_bytes_ = 0;  // committed and not settled
  uint64_t reserved_end_ = 0;     // end of the reserved disk space
  uint64_t n_cuts_ = 0;           // truncations; each releases reserved space
  uint64_t last_ticket_ = 0;
  uint64_t settled_ = 0;
  std::vector<RefusedRange> refused_;  // in the order of the tickets
  std::string failed_;                 // why commits are refused; empty if they are not
  bool broken_ = false;
  bool closed_ = false;

  std::thread writer_;  // last member, because the thread uses the others
};

}  // namespace metricdb
