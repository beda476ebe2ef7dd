// The journal: what changed in a database's arrays since its last generation, in order, and which of it counts. This is
// the writer; journal_reader.h reads, journal_format.h says how it lies in the file.
//
// Redo records are appended to a batch in memory. A commit ends the batch and hands it to a thread of the journal's
// own, which writes and syncs, several waiting batches at once, while the next batch is filled. Each commit has a
// ticket, 1, 2, 3 ...; tickets settle in that order, and a settled one either is on the disk or was refused with a
// reason.
//
// When a write fails, the file is cut back behind the last settled batch, and the batches from there on are refused.
// Their changes are in the arrays all the same, so nothing can follow: further commits are refused too, until the owner
// has brought the arrays back to the last settled batch and calls restart(). When a sync fails, or the cut, nobody
// knows what is on the disk and the kernel does not say it twice: the journal is broken for good.
//
// The process must ignore SIGXFSZ, or a limit on file sizes ends it in place of an error.
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
  always,  // each batch has a sync of its own
  batch,   // batches that wait together share one
  none,    // a batch is settled when it is written: it outlives the process, not the machine
};

class Journal {
 public:
  // More committed bytes than these wait for the writer, and commit waits too.
  static constexpr uint64_t MAX_UNSETTLED_BYTES = 64 << 20;

  // A new file, which must not exist: it appears under its name with a whole head. Throws FileError, as the next.
  Journal(const std::string &path, uint64_t generation, Sync sync);
  // Goes on in a file that was read (ScanResult::place). What stands behind that place is cut off.
  Journal(const std::string &path, const JournalPlace &place, Sync sync);
  // close(), without a word if that fails.
  ~Journal();
  Journal(const Journal &) = delete;
  Journal &operator=(const Journal &) = delete;

  // Takes a record into the batch, its bytes too. Waits for no disk and throws nothing, since the hook is called with
  // spin locks held and from code without exceptions: a record that cannot be taken (no memory, more than
  // MAX_DATA_BYTES) makes its batch one that is refused. The batch is in memory until its commit, whatever its size.
  // Any thread.
  void append(const redo_args_t &record) noexcept;

  // Ends the batch, which can be empty. `payload` goes with the commit mark: at most MAX_PAYLOAD_BYTES, or
  // std::length_error. Returns the ticket at once, unless MAX_UNSETTLED_BYTES wait. Any thread.
  uint64_t commit(std::string_view payload);

  // The last ticket that is settled, as are all before it; 0 ahead of the first. Any thread.
  uint64_t settled() const;
  // Why the batch of a settled ticket was refused; empty: it was not. Any thread.
  std::string failure(uint64_t ticket) const;
  // Returns when the ticket is settled. It must have been given out. Any thread.
  void wait(uint64_t ticket) const;
  // An eventfd, readable when settled() has moved. Not blocking; the reader's to reset, by reading it.
  int event_fd() const { return event_.fd(); }

  // Batches are refused until restart(), or for good.
  bool is_failed() const;
  bool is_broken() const;
  // Goes on behind the last settled batch that was not refused; what was appended since is dropped. Throws FileError if
  // the journal is broken. Nobody appends or commits meanwhile, and no ticket is waited for that is not settled.
  void restart();

  // Makes sure that so many bytes can be written behind what was appended so far, in steps of RESERVE_BYTES, so that a
  // full disk is met ahead of a change in memory. False if the disk has no room for them, and why; a file system that
  // cannot promise it counts as true. Any thread.
  bool reserve(uint64_t bytes, std::string *why = nullptr);

  // Where the next entry goes: the file's length when all is written.
  uint64_t end() const;
  // End of the last settled batch that was not refused.
  uint64_t settled_end() const;

  // Waits for what is committed, drops what is not, writes the last mark, syncs, and gives back what was reserved.
  // Throws FileError if that cannot be done. Nothing may be called afterwards but the destructor and what is const.
  void close();

  const std::string &path() const { return file_.path(); }

 private:
  static constexpr uint64_t RESERVE_BYTES = 4 << 20;

  // A committed batch on its way.
  struct Batch {
    uint64_t ticket;
    size_t bytes;
    JournalPlace behind;  // where the file goes on after it
    std::string spoiled;  // why it cannot be written; empty: it can
  };
  // Tickets that were refused for one reason.
  struct Refused {
    uint64_t first, last;
    std::string reason;
  };
  struct Queue {
    std::string bytes;
    std::vector<Batch> batches;
  };

  Journal(File file, const JournalPlace &place, Sync sync);
  void make_room(size_t payload_bytes);
  void hand_over(uint64_t ticket, std::string_view payload);

  // The writer's. The second to the fourth return false if a batch was refused, and with it all behind it.
  void run();
  bool write_queue(const Queue &queue, uint64_t at);
  bool write_batches(std::string_view bytes, uint64_t at, uint64_t first_ticket);
  bool cut_and_refuse(uint64_t at, uint64_t first_ticket, const std::string &reason);
  void refuse(uint64_t first_ticket, const std::string &reason, bool for_good);
  void settle(const Batch &last, size_t bytes);

  // Under the lock.
  void note_refused(uint64_t first_ticket, const std::string &reason);
  void tell_settled(uint64_t ticket);

  const File file_;
  const File event_;
  const Sync sync_;

  mutable std::mutex mutex_;  // guards all below
  mutable std::condition_variable settled_moved_;
  std::condition_variable work_;
  std::string batch_;    // entries of the open batch
  std::string spoiled_;  // why the open batch cannot be written; empty: it can
  Queue queue_;          // committed, not yet with the writer
  JournalPlace next_;    // of the next entry
  JournalPlace settled_place_;
  uint64_t durable_;           // the file is on the disk up to here
  uint64_t behind_bytes_ = 0;  // committed, not settled
  uint64_t reserved_end_ = 0;  // of the room on the disk that is ours already
  uint64_t n_cuts_ = 0;        // each gives that room back
  uint64_t last_ticket_ = 0;
  uint64_t settled_ = 0;
  std::vector<Refused> refused_;  // in the order of their tickets
  std::string failed_;            // why commits are refused; empty: they are not
  bool broken_ = false;
  bool closed_ = false;

  std::thread writer_;  // last: it uses all of the above
};

}  // namespace metricdb
