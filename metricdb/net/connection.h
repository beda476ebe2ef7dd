// A connection of the server: its socket, what came and is not worked off, and what it is owed. The two protocols
// derive from it and know only whole requests and answers.
//
// Input is read while the connection may take more: what waits for the Ingest, or for the peer to read its answers, is
// bounded. Events are edges, so a connection remembers what it may still read.
#pragma once

#include <atomic>
#include <chrono>
#include <deque>
#include <limits>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "net/bytes.h"
#include "net/server.h"
#include "store/ingest.h"

namespace metricdb {

using Clock = std::chrono::steady_clock;

// Counted by the server's thread, read by any: each figure for itself, so no order is needed.
class Counter {
 public:
  void add(uint64_t n) { value_.store(value_.load(std::memory_order_relaxed) + n, std::memory_order_relaxed); }
  uint64_t value() const { return value_.load(std::memory_order_relaxed); }

 private:
  std::atomic<uint64_t> value_ = 0;
};

// What the connections of a server share.
struct Hub {
  Hub(const ServerOptions &given, Ingest &to) : options(given), ingest(to), blocks(given.max_buffered_bytes) {}

  // Hands lines to the Ingest and counts. Throws IngestRefused.
  IngestResult take(std::string_view text, Precision precision);

  const ServerOptions options;
  Ingest &ingest;
  BlockPool blocks;
  Clock::time_point now;        // of this round
  size_t unanswered_bytes = 0;  // taken and not settled
  size_t open_bytes = 0;        // of these, not committed yet
  bool has_open_points = false;
  Counter accepted, closed, turned_away, requests, bytes, points, malformed, refused;
};

// Of tickets that were just settled: those of refused batches, each with its reason.
using Refusals = std::vector<std::pair<uint64_t, std::string>>;

class Connection {
 public:
  Connection(int fd, Hub &hub);
  virtual ~Connection();
  Connection(const Connection &) = delete;
  Connection &operator=(const Connection &) = delete;

  int fd() const { return fd_; }

  void on_events(uint32_t events);
  // Reads once, takes what is whole, and sends what can be sent.
  void turn();
  void committed(uint64_t ticket);
  void settled(uint64_t ticket, const Refusals &refusals);
  // Gives up a peer that keeps us waiting.
  void check_time();
  // From here on only what has arrived is read.
  void drain();

  // Has something to do in the next turn.
  bool is_ready() const;
  // Would have, but for its bounds.
  bool is_held() const;
  bool is_finished() const { return is_broken_ || (is_input_over_ && !is_owed() && is_peer_done_); }
  bool is_owed() const { return !owed_.empty() || !out_.empty(); }
  bool waits_for_ingest() const { return owed_bytes_ != 0; }

 protected:
  static constexpr uint64_t OPEN_TICKET = std::numeric_limits<uint64_t>::max();

  // An answer, in its place behind earlier ones.
  struct Owed {
    uint64_t ticket = 0;  // of the batch it waits for; 0 for none, OPEN_TICKET until the batch is committed
    size_t bytes = 0;     // of the lines behind it
    std::string text;
  };

  // Takes the whole requests at the front of the input, as long as `may_take`.
  virtual void consume() = 0;
  virtual bool is_inside_request() const = 0;
  virtual size_t room_wanted() const = 0;
  // There is no memory to receive more of a request.
  virtual void refuse_room() = 0;
  // What was owed for a batch that was refused.
  virtual void refuse(Owed &owed, const std::string &reason) = 0;
  virtual void on_input_end() {}

  Hub &hub() { return hub_; }
  const Hub &hub() const { return hub_; }
  ByteBuffer &input() { return input_; }
  const ByteBuffer &input() const { return input_; }

  bool may_take() const;
  void owe(Owed owed);
  void request_taken() { request_began_ = hub_.now; }
  // Nothing more is read; what is owed is still sent, and then the connection ends.
  void end_input() { is_input_over_ = true; }
  void give_up(const char *why);
  void log(const std::string &what) const;

 private:
  void receive();
  void on_received(size_t n);
  void pay(uint64_t settled_ticket, const Refusals &refusals);
  void send_out();
  void take_leave();
  void discard();

  const int fd_;
  Hub &hub_;
  ByteBuffer input_;
  std::deque<Owed> owed_;
  size_t owed_bytes_ = 0;
  std::string out_;  // answers that are due, from out_sent_ on
  size_t out_sent_ = 0;
  size_t drain_left_ = 0;
  Clock::time_point last_heard_;
  Clock::time_point request_began_;
  bool is_readable_ = true;
  bool is_hung_up_ = false;   // the peer's end is in sight, behind what is still unread
  bool is_deferred_ = false;  // bytes lie in the input that the bounds did not let in
  bool is_draining_ = false;
  bool is_input_over_ = false;
  bool is_leaving_ = false;  // all is said, and the peer's end is awaited
  bool is_peer_done_ = false;
  bool is_broken_ = false;
};

}  // namespace metricdb
