// A connection of the server: its socket, the received bytes that are not processed yet, and the pending answers. The
// two protocols derive from it, and handle complete requests and answers.
//
// Input is received while the connection is within its limits for bytes that wait for the Ingest, and for answers that
// the peer has not read. Events are edge-triggered, so a connection keeps whether its socket may be readable.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <deque>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "net/access.h"
#include "net/bytes.h"
#include "net/limited_log.h"
#include "net/metrics.h"
#include "net/server.h"
#include "net/transport.h"
#include "store/ingest.h"

namespace metricdb {

using Clock = std::chrono::steady_clock;

// A number that the server's thread changes and any thread reads. Relaxed: the counters are independent of each other.
class Counter {
 public:
  void add(uint64_t n) { value_.store(value_.load(std::memory_order_relaxed) + n, std::memory_order_relaxed); }
  uint64_t value() const { return value_.load(std::memory_order_relaxed); }

 private:
  std::atomic<uint64_t> value_ = 0;
};

// Shared by the connections of a server.
struct Hub {
  explicit Hub(const ServerOptions &server_options)
      : options(server_options),
        blocks(server_options.max_buffered_bytes),
        access(options.user_file),
        tls(tls_of(options)),
        queries(options.query, options.n_query_threads, options.max_waiting_queries, options.max_query_time,
                query_bytes, options.max_query_bytes),
        backups(server_options.backup, 1, 1, server_options.max_query_time, query_bytes, SIZE_MAX),
        promotions(server_options.promote, 1, 1, server_options.max_query_time, query_bytes, SIZE_MAX),
        log(server_options.max_log_lines, server_options.log_interval) {}

  // None without a certificate. Throws TlsError.
  static std::optional<TlsContext> tls_of(const ServerOptions &options);

  // Passes lines for a database to the Ingest and counts the result. Throws IngestRefused, also while there is none.
  IngestResult take(const std::string &database, std::string_view text, Precision precision);
  void count(const QueryWorkers::Done &done);
  std::vector<std::pair<std::string, IngestFigures>> figures_of_all() const;
  // As the function of the Ingest.
  std::string why_not_writable() const;

  const ServerOptions options;
  Ingest *ingest = nullptr;                  // null while the database is being opened
  std::atomic<unsigned> opened_percent = 0;  // set by another thread
  BlockPool blocks;
  Access access;
  std::optional<TlsContext> tls;
  Clock::time_point now;                // the time of the current round
  size_t unanswered_bytes = 0;          // passed to the Ingest and not settled
  size_t open_bytes = 0;                // of these, not committed yet
  std::atomic<size_t> query_bytes = 0;  // of answers to queries that are not sent completely
  QueryWorkers queries;
  QueryWorkers backups;                         // not interrupted; one is written, and one can wait
  QueryWorkers promotions;                      // the same
  uint64_t last_query = 0;                      // of all three
  std::unordered_map<uint64_t, int> query_fds;  // connections that wait for queries
  LimitedLog log;
  DurationHistogram batch_times;
  Counter accepted, closed, turned_away, stalled, requests, bytes, points, malformed, late, future, no_room, slow;
  Counter tls_failed;
  Counter refused, lost, read_only;  // lost: refused because their batch was; read_only: another server leads
  DurationHistogram query_times;
  Counter queries_answered, queries_failed, queries_refused, queries_interrupted;
};

// A batch that was just settled and is lost. An empty database is the only one.
struct Refusal {
  uint64_t ticket;
  std::string database;
  std::string reason;
};
using Refusals = std::vector<Refusal>;

class Connection {
 public:
  Connection(int fd, Hub &hub);
  virtual ~Connection();
  Connection(const Connection &) = delete;
  Connection &operator=(const Connection &) = delete;

  int fd() const { return transport_.fd(); }

  void on_events(uint32_t events);
  // Receives once, processes complete requests, and sends answers.
  void process();
  void committed(uint64_t ticket);
  void settled(uint64_t ticket, const Refusals &refusals);
  // Sends the answer of a query, and what waits for it.
  void answered(uint64_t query, const QueryAnswer &answer);
  // Closes the connection if the peer exceeds a time limit.
  void check_time();
  // From here on only bytes that have already arrived are received.
  void drain();
  // Returns for how long the peer has sent nothing of an incomplete request that uses memory; zero if there is none, and
  // if the peer waits for the server.
  Clock::duration stalled_for() const;
  // Closes a stalled connection, to use its memory for others.
  void give_up() { close_with_error("stalled while memory was short"); }

  // Whether `process` has something to do.
  bool is_ready() const;
  // Whether it would have something to do without the limits.
  bool is_held() const;
  bool is_finished() const { return phase_ == Phase::finished; }
  bool has_pending() const { return !pending_.empty() || !out_.empty(); }
  bool waits_for_ingest() const { return pending_bytes_ != 0; }

 protected:
  static constexpr uint64_t OPEN_TICKET = std::numeric_limits<uint64_t>::max();
  static constexpr uint64_t QUERY_TICKET = OPEN_TICKET - 1;

  // An answer, in the order of the requests.
  struct PendingAnswer {
    uint64_t ticket = 0;  // of the batch it waits for; 0: none; OPEN_TICKET until the batch is committed; QUERY_TICKET
    size_t bytes = 0;     // of its lines, for the limits
    std::string text;
    std::string database = {};     // of its lines
    uint64_t query = 0;            // with QUERY_TICKET: the query it waits for
    size_t query_bytes = 0;        // of the Hub's, when it was answered
    Clock::time_point since = {};  // when it was queued
  };

  // Processes the complete requests at the front of the input, while `is_within_limits`.
  virtual void consume() = 0;
  virtual bool is_inside_request() const = 0;
  virtual size_t room_wanted() const = 0;
  // Called if there is no memory to receive more of a request.
  virtual void refuse_room() = 0;
  // Replaces the answer to a request whose batch was refused.
  virtual void refuse(PendingAnswer &answer, const std::string &reason) = 0;
  // Returns the text of the answer to a query of this connection. Called once for each, in the order of the answers.
  virtual std::string text_of(uint64_t query, const QueryAnswer &answer) = 0;
  virtual void on_input_end() {}
  // The peer has closed its side of the connection, or both. Can be called several times.
  virtual void on_hung_up() {}

  Hub &hub() { return hub_; }
  const Hub &hub() const { return hub_; }
  ByteBuffer &input() { return input_; }
  const ByteBuffer &input() const { return input_; }

  bool is_within_limits() const;
  void queue(PendingAnswer answer);
  void begin_next_request() { request_begin_ = hub_.now; }
  // Nothing more is received. Pending answers are still sent, and then the connection is closed.
  void end_input() { phase_ = std::max(phase_, Phase::answering); }
  void close_with_error(const char *why);
  void log(const std::string &what, LogTopic topic = LogTopic::connections) const;

 private:
  // In this order: a phase may be left out, and none comes back.
  enum class Phase {
    receiving,
    answering,  // nothing more is received, and pending answers are sent
    closing,    // everything is sent; waits until the peer closes its side
    finished,   // can be removed; also after an error, with answers that are not sent
  };

  void check_speed(const PendingAnswer &answer);
  void receive();
  void on_error();
  void on_received(size_t n);
  void send_answers();
  void send_out();
  void begin_close();
  void discard();
  bool is_draining() const { return drain_left_.has_value(); }

  Hub &hub_;
  Transport transport_;
  ByteBuffer input_;
  std::deque<PendingAnswer> pending_;
  size_t pending_bytes_ = 0;
  size_t query_bytes_ = 0;      // of this connection in the Hub's
  size_t out_query_bytes_ = 0;  // of these, in `out_`
  std::string out_;             // answers to send, from out_sent_ on
  size_t out_sent_ = 0;
  Phase phase_ = Phase::receiving;
  std::optional<size_t> drain_left_;  // after `drain`: bytes that had arrived by then and are not received yet
  Clock::time_point last_activity_;
  Clock::time_point request_begin_;
  bool is_readable_ = true;
  bool is_hung_up_ = false;    // the peer has closed its side; unread bytes can be left
  bool has_read_end_ = false;  // it has, and none are left
  bool is_deferred_ = false;   // the input contains bytes that the limits excluded
};

}  // namespace metricdb
