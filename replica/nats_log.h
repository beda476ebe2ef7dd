// The two streams of a log, on NATS JetStream. Threads: any, except that one at a time publishes to a stream.
#pragma once

#include <nats/nats.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "store_error.h"

namespace tslb_replica {

using Clock = std::chrono::steady_clock;

// Another writer's message is where one of ours should be.
class Fenced : public tslb_durable::StoreError {
 public:
  explicit Fenced(const std::string &what) : StoreError(TSLB_DURABLE_REFUSED, what) {}
};

// The servers could not be reached, or did not answer in time. It can be tried again.
class Unreachable : public tslb_durable::StoreError {
 public:
  explicit Unreachable(const std::string &what) : StoreError(TSLB_DURABLE_IO, what) {}
};

template <auto destroy>
struct Destroy {
  template <class Object>
  void operator()(Object *object) const {
    destroy(object);
  }
};
using Connection = std::unique_ptr<natsConnection, Destroy<natsConnection_Destroy>>;
using Subscription = std::unique_ptr<natsSubscription, Destroy<natsSubscription_Destroy>>;
using NatsMessage = std::unique_ptr<natsMsg, Destroy<natsMsg_Destroy>>;
using JetStream = std::unique_ptr<jsCtx, Destroy<jsCtx_Destroy>>;

// A connection. Each thread that uses it has a share, since another thread can replace it with a new one.
struct Link {
  Connection connection;
  JetStream js;  // released before the connection
};

struct NatsOptions {
  std::string servers;
  std::string name;
  uint32_t n_copies = 1;
  uint64_t log_bytes = 0;
  std::chrono::milliseconds patience{10'000};
};

// Sequences of a stream's messages. last + 1 is the next one; if there are no messages, first is last + 1.
struct Span {
  uint64_t first = 1, last = 0;
  uint64_t bytes = 0;  // of the messages
  bool is_empty() const { return last < first; }
};

struct ReadMessage {
  uint64_t sequence;
  std::string bytes;
};

// Connects, and connects again when a connection has ended. The client's own way to do that is not used: in its version
// 3.4 a connection that fails again while it is made ends the process. Threads: any.
class Links {
 public:
  explicit Links(const NatsOptions &options) : options_(options) {}
  // Returns a connection. Throws Unreachable.
  std::shared_ptr<Link> get();

 private:
  const NatsOptions options_;
  std::mutex mutex_;
  std::shared_ptr<Link> link_;
};

class NatsStream {
 public:
  // Makes the stream if it does not exist.
  NatsStream(Links &links, const NatsOptions &options, const std::string &suffix, uint64_t max_bytes);

  // Throw Unreachable.
  Span span();
  // Nothing: the stream does not have this message.
  std::optional<std::string> read(uint64_t sequence);
  // Removes the messages before a sequence.
  void purge_before(uint64_t sequence);

  // Appends messages after the sequence `last`, which must be the stream's last one. Returns when all are in the stream.
  // Throws Fenced if another message is in their place, Unreachable after the patience: they may be in the stream or not.
  void publish(const std::vector<std::string> &messages, uint64_t last);

  // The same for one message, and one attempt. False: it is not in the stream, as far as is known.
  bool try_append(const std::string &message, uint64_t last) { return send({message}, 0, last); }

  // Asks who publishes to this stream to wait for some time. A single writer would otherwise always be faster than another
  // one that first has to ask for the last sequence.
  void request_pause();

  // Names a message in errors.
  std::string place(uint64_t sequence) const;
  const std::string &name() const { return name_; }

  // Begins to receive the messages from a sequence on.
  void subscribe(uint64_t sequence);
  void unsubscribe();
  // Nothing after the time.
  std::optional<ReadMessage> receive(std::chrono::milliseconds time);

 private:
  // A subscription with its connection.
  struct Receiver {
    std::shared_ptr<Link> link;
    Subscription subscription;  // released before the connection
  };

  void make(uint64_t max_bytes, uint32_t n_copies);
  void receive_answers(const std::shared_ptr<Link> &link);
  void pause_if_requested();
  bool send(const std::vector<std::string> &messages, size_t first, uint64_t last);
  size_t count_published(const std::vector<std::string> &messages, uint64_t last);

  Links &links_;
  const std::string name_, subject_, pause_subject_;
  const std::chrono::milliseconds patience_;
  Receiver followed_;
  std::string inbox_;
  Receiver answers_, pauses_;
  uint64_t n_sent_ = 0;
};

class NatsLog {
 public:
  // Tries to connect for the patience. Throws Unreachable.
  explicit NatsLog(const NatsOptions &options);

  NatsStream &log() { return *log_; }
  NatsStream &snapshots() { return *snapshots_; }
  // Bytes that a message may have.
  uint64_t max_bytes();

 private:
  Links links_;
  std::optional<NatsStream> log_, snapshots_;
};

}  // namespace tslb_replica
