// metricdb on the network: takes lines from agents over TCP and answers when they are kept.
//
// Two protocols, each on a port of its own: the HTTP interface of InfluxDB 1.x (influx_api.h), which answers each
// request, and the plaintext protocol of Graphite (graphite.h), which answers nothing: what a full or failing store
// refuses is counted and lost there.
//
// One thread runs everything, in rounds. A round reads what has arrived, once per connection, hands all whole requests
// to the Ingest and commits them as one batch. Their answers wait for that batch's ticket, and meanwhile the next
// rounds take what others send. What waits is bounded per connection and in sum; beyond that a connection is not read.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "store/ingest.h"

namespace metricdb {

class ServerError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct ServerOptions {
  std::string address = "127.0.0.1";  // IPv4
  std::optional<int> influx_port;     // 0: any that is free. Without one the protocol is off
  std::optional<int> graphite_port;

  size_t max_body_bytes = size_t{32} << 20;        // of a request, before and after decompression
  size_t max_connections = 4096;                   // what comes beyond is closed at once
  size_t max_unanswered_bytes = size_t{64} << 20;  // taken and not settled, of all; passed by one request at most
  size_t max_connection_bytes = size_t{48} << 20;  // and of one connection
  size_t max_buffered_bytes = size_t{512} << 20;   // requests that are not whole yet, of all; then 503

  std::chrono::milliseconds idle_timeout{600'000};    // nothing came and nothing could be sent
  std::chrono::milliseconds request_timeout{60'000};  // from the first byte of a request, or of a line, to its last
  std::chrono::milliseconds drain_timeout{10'000};    // from `stop` to the return of `run`
};

struct ServerCounters {
  uint64_t connections = 0;  // open now
  uint64_t accepted = 0;
  uint64_t turned_away = 0;  // connections beyond the limit
  uint64_t requests = 0;     // over HTTP, of every kind
  uint64_t bytes = 0;        // received
  uint64_t points = 0;       // taken
  uint64_t malformed = 0;    // lines
  uint64_t refused = 0;      // requests, or pieces of a Graphite stream, whose lines the Ingest would or could not keep
};

class Server {
 public:
  // Listens from here on. Throws ServerError. The Ingest has to live as long as the server.
  Server(const ServerOptions &options, Ingest &ingest);
  ~Server();

  // Serves until `stop`; to be called once. Then whole requests that have arrived are still taken and answered. Throws
  // ServerError if the system fails it, and what else than IngestRefused the Ingest throws.
  void run();

  // Threads: any. Signal handlers too, also before `run`.
  void stop() noexcept;

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
