// Stores the messages of a NatsClient: line protocol, with timestamps in nanoseconds.
//
// A message is acknowledged when its points are durable. Lines that are malformed, too old or too new are skipped, and do
// not come again. A message with lines without room, for a database that does not exist, or of a lost batch is returned to
// the stream. So each message is stored at least once; repeated_points.h makes that once.
//
// Threads: one, the server's.
#pragma once

#include <deque>
#include <string>
#include <utility>
#include <vector>

#include "net/connection.h"
#include "net/nats_client.h"

namespace metricdb {

class NatsSource {
 public:
  // Throws ServerError as NatsClient does.
  NatsSource(Hub &hub, const NatsOptions &options) : hub_(hub), options_(options), client_(options) {}

  // Called when the Hub has an Ingest that stores points; again without effect.
  void start() {
    if (!std::exchange(has_started_, true)) client_.start();
  }
  int event_fd() const { return client_.event_fd(); }

  // Passes messages that have arrived to the Ingest.
  void process();
  // Whether `process` has something to do.
  bool is_ready() const { return !waiting_.empty() && is_within_limits(); }
  void on_event();
  void committed(uint64_t ticket);
  void settled(uint64_t ticket, const Refusals &refusals);

  // Nothing more is fetched. What was fetched is stored.
  void drain() { client_.stop(); }
  bool is_drained() const { return waiting_.empty() && taken_.empty() && client_.state().has_ended; }
  // Sends the acknowledgements.
  void close() { client_.close(); }

  // Why points do not arrive, in one line; empty if they can.
  std::string why_disconnected() const;
  NatsState state() const { return client_.state(); }
  uint64_t n_acknowledged() const { return n_acknowledged_; }
  uint64_t n_returned() const { return n_returned_; }

 private:
  static constexpr uint64_t OPEN_TICKET = std::numeric_limits<uint64_t>::max();

  // With points in a batch that is not settled.
  struct Taken {
    NatsMessage message;  // without its lines
    std::string database;
    uint64_t ticket;
    bool has_room;
  };

  bool is_within_limits() const { return hub_.unanswered_bytes < hub_.options.max_unanswered_bytes; }
  void take(NatsMessage message);
  void answer(const NatsMessage &message, bool is_stored);
  void log(LogTopic topic, const std::string &what);

  Hub &hub_;
  const NatsOptions options_;
  NatsClient client_;
  bool has_started_ = false;
  std::deque<NatsMessage> waiting_;
  std::deque<Taken> taken_;  // in the order of their tickets
  uint64_t n_acknowledged_ = 0;
  uint64_t n_returned_ = 0;
};

}  // namespace metricdb
