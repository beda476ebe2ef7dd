// The interface through which received lines are stored.
//
// Lines are stored in batches: any number of calls of `take`, then `commit`, which ends the batch and returns its
// ticket without waiting. When `settled` reaches the ticket, the batch is durable: a crash of the process or the
// machine does not lose it. A batch that cannot be written is refused as a whole, and none of its points is stored.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "codec/line_protocol.h"

namespace metricdb {

// No point of the text was stored, because there is no room. The message is one line.
class IngestRefused : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct IngestResult {
  uint64_t points = 0;  // stored
  // Skipped lines. None of their points is stored.
  uint64_t malformed = 0;  // they would be skipped again
  uint64_t late = 0;       // older than the retention
  uint64_t future = 0;     // the timestamp is too far after the server's clock
  uint64_t no_room = 0;    // they can be stored later, or with the next request
  // For the first skipped line, and for the first one without room, as in "line 3: no fields".
  std::string first_reason = {};
  std::string room_reason = {};

  uint64_t n_skipped() const { return malformed + late + future + no_room; }
};

// Sizes and counts for an operator.
struct IngestFigures {
  uint64_t series = 0;
  uint64_t inactive_series = 0;
  uint64_t points = 0;  // in memory, those older than the retention included
  // Of the pools: in use, and how much there can be.
  uint64_t key_bytes = 0, max_key_bytes = 0;
  uint64_t point_bytes = 0, max_point_bytes = 0;
  uint64_t memory_bytes = 0;  // reserved by all arrays
  uint64_t journal_bytes = 0;
  uint64_t generation = 0;
  uint64_t snapshots = 0;
  uint64_t snapshot_pause_ns = 0;     // of the last snapshot
  std::string snapshot_failure = {};  // why the last snapshot failed; empty if it did not
};

// The part of a server among replicas of one database.
struct ReplicaFigures {
  enum class Role { follower, leader, ended };
  std::string name;  // of the log
  Role role = Role::follower;
  uint64_t epoch = 0, number = 0;  // of the last batches; number 0: none yet
  uint64_t lag = 0;                // messages; as in tslb/replica.h
  double lag_s = 0;
  std::string text = {};  // why the role ended, or what a follower waits for
  uint64_t n_bootstraps = 0;
  uint64_t n_set_aside = 0;
  std::string set_aside = {};  // the file with them
  // Of this process, while it leads.
  uint64_t n_snapshots = 0;
  std::string snapshot_failure = {};  // why the last one failed; empty if it did not
  uint64_t log_bytes = 0;             // when they were asked for
};

class Ingest {
 public:
  virtual ~Ingest() = default;

  // Stores complete lines of line protocol; the last one needs no line feed. Throws IngestRefused.
  virtual IngestResult take(std::string_view text, Precision precision) = 0;

  // Ends the batch if one is open, and returns its ticket: 1, 2 and so on. If nobody has to wait, because it has neither
  // points nor changes, it returns the last ticket. Called after `take` and `work`, whatever they return or throw: an open
  // batch delays snapshots, backups and the end of other batches.
  virtual uint64_t commit() = 0;

  // Returns the last settled ticket. All batches up to it are durable, or refused if `failure` returns a reason.
  virtual uint64_t settled() = 0;

  // Returns the reason why a settled batch was refused; empty if it is durable.
  virtual std::string failure(uint64_t ticket) = 0;

  // Does a part of the changes that other threads have requested (DatabaseWriter::request), a few milliseconds at most.
  // Called now and then, and after settled_fd became readable. Returns whether there is more to do.
  virtual bool work() { return false; }

  virtual IngestFigures figures() = 0;

  // Returns why points cannot be made durable at the moment, in one line; empty if they can. Of a follower: why it does not
  // follow.
  virtual std::string why_not_writable() = 0;

  // Returns why this process takes no points at all: another leads, or does now. Empty if it takes them.
  virtual std::string why_read_only() { return ""; }

  // None: the database is no replica.
  virtual std::optional<ReplicaFigures> replica() { return std::nullopt; }

  // An Ingest with several databases overrides the following functions. One with a single database takes lines for any name,
  // and its name is empty.
  virtual bool has(const std::string & /*database*/) { return true; }
  virtual IngestResult take_for(const std::string & /*database*/, std::string_view text, Precision precision) {
    return take(text, precision);
  }
  // Returns the databases of which a settled batch was refused, each with the reason. Called once for each ticket.
  using Lost = std::vector<std::pair<std::string, std::string>>;
  virtual Lost lost(uint64_t ticket) {
    std::string reason = failure(ticket);
    return reason.empty() ? Lost() : Lost{{"", std::move(reason)}};
  }
  virtual std::vector<std::pair<std::string, IngestFigures>> figures_of_all() { return {{"", figures()}}; }

  // Readable when the result of `settled` may have changed, or a change was requested. Calling `settled` resets it.
  virtual int settled_fd() const = 0;
};

}  // namespace metricdb
