// A durable pull consumer of NATS JetStream. Messages arrive in the background, and are acknowledged by the caller.
//
// Two threads: one connects, and fetches messages while less than max_bytes are unacknowledged; the other sends
// acknowledgements, since sending can wait for the servers. When a connection is lost, messages that were taken are still
// stored, but their acknowledgements are dropped: the servers deliver these messages again. An acknowledgement names its
// message by sequence, and a server that lost the end of its stream gives that sequence to another message.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "net/nats_options.h"

namespace metricdb {

struct NatsMessage {
  std::string lines;
  std::string database;  // the header `db`; empty: there is none
  std::string reply;     // subject of the acknowledgement
  uint64_t connection;   // that received it
  size_t bytes;          // of memory
};

struct NatsState {
  bool is_connected = false;
  bool has_ended = true;  // nothing more is fetched
  std::string why = {};   // while it is not connected, in one line
  uint64_t n_connects = 0;
  uint64_t n_redelivered = 0;  // messages that had been delivered before
  uint64_t n_in_stream = 0;    // messages that were not delivered when the last one was
  uint64_t n_unacknowledged = 0;
  size_t unacknowledged_bytes = 0;
};

// Threads: one, the server's.
class NatsClient {
 public:
  // Throws ServerError if this build has no client of NATS.
  explicit NatsClient(const NatsOptions &options);
  // As `close`.
  ~NatsClient();

  // Begins to connect. A failure is part of `state`, and is tried again.
  void start();

  // Readable when messages have arrived, or nothing more is fetched.
  int event_fd() const;
  // Resets the event. Returns the messages since the last call.
  std::vector<NatsMessage> receive();

  // Acknowledges a message, or returns it to the stream, which delivers it again after return_delay.
  void answer(const NatsMessage &message, bool is_stored);

  // Ends fetching. Messages that have been fetched still arrive; then has_ended becomes true.
  void stop();
  // Sends the acknowledgements and ends the connection.
  void close();

  NatsState state() const;

 private:
  class Worker;

  std::unique_ptr<Worker> worker_;
};

}  // namespace metricdb
