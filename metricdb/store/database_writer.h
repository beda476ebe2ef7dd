// A database that is written to while it is open: what comes is stored, journalled, and durable when its ticket says
// so.
//
// Each batch goes to the journal as a whole, and the arrays keep what was taken meanwhile. If the journal refuses a
// batch, the arrays hold what must not be there: they are dropped and read back from the disk, which costs what opening
// costs. A disk without room is met ahead of that as a rule, when room is reserved for a text before it is taken.
//
// When the journal has grown beyond a limit, the arrays are written as a new generation, which a new journal follows.
// That happens between two batches and takes as long as writing the arrays does. If it fails, the journal goes on.
//
// Threads: one. While a writer lives, no other store of the process is made or changes: records are told apart by their
// tables alone.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "journal/journal.h"
#include "journal/redo_hook.h"
#include "store/database.h"
#include "store/ingest.h"
#include "store/loader.h"

namespace metricdb {

struct WriterOptions {
  Sync sync = Sync::batch;
  uint64_t snapshot_bytes = 256 << 20;  // of journal, for the next generation; 0: only when asked to
  bool salvage = false;
  std::optional<uint8_t> layout = {};  // as in OpenOptions; of a new database: the layout that it gets
  // What a store forgets; none: as the database has it.
  std::optional<int64_t> retain_ns = {};
  std::optional<int64_t> idle_ns = {};
  std::optional<uint8_t> reuse_inactive_pct = {};
};

class DatabaseWriter final : public Ingest {
 public:
  // Opens the folder, or makes a database of it. Throws FileError, DatabaseError, JournalDamaged, ReplayFailed.
  DatabaseWriter(const std::string &folder, const WriterOptions &options);
  ~DatabaseWriter() override;

  // Of a batch that was refused the points are gone, of one that was not settled they are there already. Throws
  // IngestRefused; and FileError or DatabaseError if the arrays had to be read back and could not be: the writer is of
  // no use then.
  Taken take(std::string_view text, Precision precision) override;
  uint64_t commit() override;
  uint64_t settled() override;
  std::string failure(uint64_t ticket) override;
  int settled_fd() const override { return settled_.fd(); }

  // Waits until the ticket is settled, and returns its failure.
  std::string wait(uint64_t ticket);

  // Writes the next generation now: what is committed is in it. Throws FileError or DatabaseError, and goes on as
  // before.
  Stored snapshot();

  // Commits, waits for it and closes the journal; if that is long and longer than what the arrays take, a last
  // generation comes in its place. Throws FileError.
  void close();

  const Store &store() const { return *store_; }
  // Lines for whoever started this: what was found at the opening that is not as it should be. Empty: nothing.
  const std::string &found() const { return found_; }

 private:
  void take_store(Store &&store);
  void forget_as_told();
  void start_journal(const Replayed &replayed);
  void begin_log();
  void stop_journal();
  void begin_generation(uint64_t number);
  void restore_if_refused();
  void expect_room(size_t text_bytes);
  void load_within_bounds(std::string_view text, Precision precision);

  Database database_;
  const WriterOptions options_;
  uint64_t generation_ = 0;
  std::string found_;
  std::optional<Store> store_;
  std::unique_ptr<Loader> loader_;
  Taken taken_;                // of the text at hand
  uint64_t lines_before_ = 0;  // of the text at hand, those of the piece at hand not counted
  bool has_taken_ = false;     // something that is not committed yet

  File settled_;                      // an epoll instance with both events in it: it outlives the journals
  File ended_;                        // the event of a journal's end: tickets that it settled may not have been seen
  std::unique_ptr<Journal> journal_;  // null: the last one could not be made
  std::optional<RedoTo> redo_;
  uint64_t batch_begins_ = 0;      // where in the journal
  uint64_t next_snapshot_at_ = 0;  // bytes of the journal
  uint64_t last_ticket_ = 0;
  uint64_t tickets_before_ = 0;               // of earlier journals
  bool has_refused_ = false;                  // the journal, something
  std::map<uint64_t, std::string> failures_;  // of tickets of earlier journals
};

}  // namespace metricdb
