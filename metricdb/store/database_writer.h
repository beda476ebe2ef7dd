// A database that is open for writing. Points are stored in the arrays and written to the journal.
//
// Each batch is written to the journal as a whole, while the arrays take the points of the next batch. If the journal
// refuses a batch, the arrays contain points that must not be there. Then they are discarded and loaded from the disk,
// which takes as long as opening. A full disk is usually detected before, because room in the journal is reserved
// before a text is stored.
//
// When the journal exceeds a limit, the arrays are written as a new generation, and a new journal begins. This happens
// between two batches. If it fails, the old journal is continued.
//
// Threads: one. While a writer exists, no other store of the process is created or changed, because redo records are
// assigned to arrays by their table ids alone.
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
  uint64_t snapshot_bytes = 256 << 20;  // of journal between two generations; 0: only on request
  bool salvage = false;
  std::optional<uint8_t> layout = {};  // as in OpenOptions; for a new database: its layout
  ForgettingChange forgetting = {};    // stored with the database
};

class DatabaseWriter final : public Ingest {
 public:
  // Opens the database, or creates it. Throws FileError or DatabaseError.
  DatabaseWriter(const std::string &folder, const WriterOptions &options);
  ~DatabaseWriter() override;

  // Throws IngestRefused. Throws DatabaseError if the arrays must be loaded again after a refused batch and cannot be;
  // the writer is unusable then.
  IngestResult take(std::string_view text, Precision precision) override;
  uint64_t commit() override;
  uint64_t settled() override;
  std::string failure(uint64_t ticket) override;
  int settled_fd() const override { return settled_group_.fd(); }

  // Waits until the ticket is settled. Returns its failure.
  std::string wait(uint64_t ticket);

  // Commits and writes the next generation. Throws FileError or DatabaseError; the writer stays usable.
  GenerationInfo snapshot();

  // Commits, waits until the batch is settled, and closes the journal. A long journal that is larger than the arrays is
  // replaced by a new generation. Throws FileError.
  void close();

  const Store &store() const { return *store_; }
  // One line for each irregularity that was found when the database was opened.
  const std::string &warnings() const { return warnings_; }

 private:
  void set_store(Store &&store);
  void apply_forgetting_options();
  void start_journal(const std::optional<JournalPlace> &place);
  void begin_log();
  void stop_journal();
  void begin_generation(uint64_t number);
  void restore_if_refused();
  void expect_room(size_t text_bytes);
  void load_within_bounds(std::string_view text, Precision precision);

  Database database_;
  const WriterOptions options_;
  uint64_t generation_ = 0;
  std::string warnings_;
  std::optional<Store> store_;
  std::unique_ptr<Loader> loader_;
  IngestResult result_;           // of the current call of `take`
  uint64_t lines_before_ = 0;     // of its text, before the current piece
  bool has_uncommitted_ = false;  // points, or changed limits

  File settled_group_;                // an epoll instance with both events; it exists longer than a journal
  File journal_ended_;                // event: a journal ended, and its last tickets may not have been reported
  std::unique_ptr<Journal> journal_;  // null: the last one could not be created
  std::optional<RedoScope> redo_;
  uint64_t batch_begin_ = 0;       // position in the journal
  uint64_t next_snapshot_at_ = 0;  // bytes of the journal
  uint64_t last_ticket_ = 0;
  uint64_t tickets_before_ = 0;               // of earlier journals
  bool has_refused_ = false;                  // the current journal has refused a batch
  std::map<uint64_t, std::string> failures_;  // of tickets of earlier journals
};

}  // namespace metricdb
