// metricdb on the network: receives lines over TCP, and answers when they are durable.
//
// There are two protocols, each on its own port: the HTTP interface of InfluxDB 1.x (influx_api.h), which answers each
// request, and the plaintext protocol of Graphite (graphite.h), which answers nothing. Graphite lines that are refused
// are counted and lost. Messages of a NATS stream are acknowledged when they are durable (nats_source.h).
//
// One thread runs everything but queries, in rounds. A round receives once per connection, passes all complete requests to
// the Ingest and commits them as one batch. Their answers wait for the ticket of this batch, while the following rounds
// receive more. The number of waiting bytes is limited per connection and in total. When a limit is reached, nothing
// more is received.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "net/nats_options.h"
#include "net/query_workers.h"
#include "store/ingest.h"

namespace metricdb {

class ServerError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct ServerOptions {
  std::string address = "127.0.0.1";  // IPv4
  std::optional<int> influx_port;     // 0: any free port. Without a port the protocol is off
  std::optional<int> graphite_port;
  std::string graphite_database = {};  // of the lines of that protocol, for an Ingest with several databases
  int influx_socket = -1;              // a listening socket that the server owns, in place of the port; -1: none
  int graphite_socket = -1;
  NatsOptions nats = {};  // messages of a stream, beside the ports (nats_source.h)

  // PEM; for both protocols. Read again after `hang_up`, for new connections. Empty: no TLS.
  std::string tls_certificate_file = {}, tls_key_file = {};
  std::string user_file = {};  // for access.h, read again after `hang_up`; empty: clients need no password

  QueryFunction backup = nullptr;   // writes a backup with the name in `text`; without it they are refused
  QueryFunction promote = nullptr;  // makes the replica the leader; without it that is refused
  QueryFunction query = nullptr;    // answers statements; without it they are refused
  unsigned n_query_threads = 2;
  size_t max_waiting_queries = 64;
  std::chrono::milliseconds max_query_time{30'000};  // then a query is interrupted
  size_t max_query_bytes = size_t{512} << 20;        // of answers that are not read; then further queries are refused

  size_t max_body_bytes = size_t{32} << 20;        // of a request, before and after decompression
  size_t max_connections = 4096;                   // further connections are closed immediately
  size_t max_unanswered_bytes = size_t{64} << 20;  // received and not settled, in total; one request can exceed it
  size_t max_connection_bytes = size_t{48} << 20;  // the same per connection
  size_t max_buffered_bytes = size_t{512} << 20;   // of incomplete requests, in total; then the answer is 503

  // When memory for incomplete requests is short, the connection that has sent nothing for longest is closed, if it has
  // sent nothing for this long. Only if there is none, the answer is 503.
  std::chrono::milliseconds stall_timeout{1'000};
  std::chrono::milliseconds idle_timeout{600'000};    // without receiving or sending
  std::chrono::milliseconds request_timeout{60'000};  // from the first byte of a request, or of a line, to its last one
  std::chrono::milliseconds drain_timeout{10'000};    // from `stop` until `run` returns
  std::chrono::milliseconds drain_read_timeout{500};  // after `stop`: the time in which a peer must read something

  std::chrono::milliseconds slow_request{1'000};   // longer requests are logged
  std::chrono::milliseconds stuck_batch{30'000};   // unhealthy if a batch is not durable after this time
  std::chrono::milliseconds log_interval{10'000};  // in which clients cause at most max_log_lines of each kind
  size_t max_log_lines = 20;

  // Called on the server's thread: after `hang_up`, before the files are read again; at least once per second; and when the
  // end begins.
  std::function<void()> on_hang_up = {};
  std::function<void()> on_tick = {};
  std::function<void()> on_stop = {};
};

struct ServerCounters {
  uint64_t connections = 0;  // open now
  uint64_t accepted = 0;
  uint64_t turned_away = 0;  // over the limit
  uint64_t stalled = 0;      // closed because memory was short
  uint64_t requests = 0;     // over HTTP, of all kinds
  uint64_t bytes = 0;        // received
  uint64_t points = 0;       // stored
  uint64_t malformed = 0;    // lines; the next three are skipped lines too
  uint64_t late = 0;         // older than the retention
  uint64_t future = 0;       // too far after the server's clock
  uint64_t no_room = 0;      // in requests of which other lines were stored
  uint64_t refused = 0;      // requests, or pieces of a Graphite stream, whose lines were refused
};

class Server {
 public:
  // Begins to listen. Throws ServerError; TlsError for the certificate.
  explicit Server(const ServerOptions &options);
  ~Server();

  // Gives the server the database, once. Until then lines are refused with the progress, /health fails, and Graphite
  // connections wait. The Ingest must exist until `run` has returned, and is used by its thread only.
  // Threads: any, also before `run`.
  void open(Ingest &ingest) noexcept;
  void set_progress(uint64_t done_bytes, uint64_t all_bytes) noexcept;

  // Serves until `stop`. Called once. After `stop`, complete requests that have arrived are still processed and
  // answered. Throws ServerError after a failed system call, and exceptions of the Ingest other than IngestRefused.
  void run();

  // Threads: any, also signal handlers, also before `run`.
  void stop() noexcept;

  // Reads the files of the options again. One that has become wrong is logged, and what was read before stays.
  // Threads: as `stop`.
  void hang_up() noexcept;

  // 0 if the protocol is off.
  int influx_port() const;
  int graphite_port() const;

  // Threads: any.
  ServerCounters counters() const;

 private:
  class Loop;

  std::unique_ptr<Loop> loop_;
};

}  // namespace metricdb
