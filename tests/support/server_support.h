// A server on free ports in its own thread, with a fake Ingest, and a TCP client.
#pragma once

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <chrono>
#include <cstdlib>
#include <limits>
#include <mutex>
#include <thread>
#include <utility>

#include "metricdb_support.h"
#include "net/event.h"
#include "net/server.h"
#include "store/ingest.h"

namespace metricdb {

// Waits for another thread. The deadline only limits a failing test.
template <class Condition>
bool wait_until(Condition condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

// Keeps lines in memory, and settles batches when the test allows it.
// Threads: the server's for the functions of Ingest, any for the others.
class FakeIngest : public Ingest {
 public:
  IngestResult take(std::string_view text, Precision precision) override {
    const std::lock_guard lock(mutex_);
    is_open_ = true;
    if (!refusal_.empty()) throw IngestRefused(refusal_);
    LineParser parser(precision);
    IngestResult taken;
    uint64_t number = 0;
    for (std::string_view line; next_line(text, line);) {
      ++number;
      const auto outcome = parser.parse(line, {}, text);
      text.remove_prefix(parser.n_following());
      if (outcome == LineParser::Outcome::malformed && ++taken.malformed == 1)
        taken.first_reason = fmt::format("line {}: {}", number, parser.reason());
      if (outcome != LineParser::Outcome::line) continue;
      taken.points += parser.line().fields.size();
      for (const ParsedField &field : parser.line().fields) {
        points_.push_back(fmt::format("{} {}={}", parser.line().head, field.key, field.value));
        if (parser.line().ts_ns) points_.back() += fmt::format("@{}", *parser.line().ts_ns);
      }
    }
    has_more_ |= taken.points != 0;
    return taken;
  }

  uint64_t commit() override {
    const std::lock_guard lock(mutex_);
    is_open_ = false;
    if (std::exchange(has_more_, false)) ++ticket_;
    settle_some();
    return ticket_;
  }

  uint64_t settled() override {
    const std::lock_guard lock(mutex_);
    settled_event_.drain();
    return settled_;
  }

  std::string failure(uint64_t ticket) override {
    const std::lock_guard lock(mutex_);
    const auto found = failures_.find(ticket);
    return found == failures_.end() ? std::string() : std::exchange(found->second, "asked for twice");
  }

  bool has(const std::string &database) override { return database != "unknown"; }
  Lost lost(uint64_t ticket) override {
    std::string reason = failure(ticket);
    const std::lock_guard lock(mutex_);
    return reason.empty() ? Lost() : Lost{{lost_database_, std::move(reason)}};
  }

  IngestFigures figures() override {
    const std::lock_guard lock(mutex_);
    return figures_;
  }
  std::string why_not_writable() override {
    const std::lock_guard lock(mutex_);
    return why_not_writable_;
  }
  int settled_fd() const override { return settled_event_.fd(); }

  void set_figures(const IngestFigures &figures) {
    const std::lock_guard lock(mutex_);
    figures_ = figures;
  }
  void set_not_writable(const std::string &why) {
    const std::lock_guard lock(mutex_);
    why_not_writable_ = why;
  }

  // Batches after this one are not settled until a later call.
  void settle_up_to(uint64_t ticket) {
    const std::lock_guard lock(mutex_);
    allowed_ = ticket;
    settle_some();
  }
  void settle_all() { settle_up_to(std::numeric_limits<uint64_t>::max()); }

  // database  that loses the batch; empty: all
  void fail(uint64_t ticket, const std::string &reason, const std::string &database = {}) {
    const std::lock_guard lock(mutex_);
    failures_[ticket] = reason;
    lost_database_ = database;
  }
  void refuse_all(const std::string &reason) {
    const std::lock_guard lock(mutex_);
    refusal_ = reason;
  }
  // Whether `commit` was not called after `take`.
  bool is_open() const {
    const std::lock_guard lock(mutex_);
    return is_open_;
  }
  // Number of committed batches.
  uint64_t n_batches() const {
    const std::lock_guard lock(mutex_);
    return ticket_;
  }
  // Each stored point as `head key=value@time`, without the time if it has none.
  std::vector<std::string> points() const {
    const std::lock_guard lock(mutex_);
    return points_;
  }

 private:
  void settle_some() {
    if (settled_ == std::min(ticket_, allowed_)) return;
    settled_ = std::min(ticket_, allowed_);
    settled_event_.raise();
  }

  Event settled_event_;
  mutable std::mutex mutex_;
  uint64_t ticket_ = 0;
  uint64_t settled_ = 0;
  uint64_t allowed_ = std::numeric_limits<uint64_t>::max();
  bool is_open_ = false;
  bool has_more_ = false;
  std::string refusal_;
  std::string why_not_writable_;
  IngestFigures figures_;
  std::map<uint64_t, std::string> failures_;
  std::string lost_database_;
  std::vector<std::string> points_;
};

class RunningServer {
 public:
  explicit RunningServer(const ServerOptions &options = {.influx_port = 0, .graphite_port = 0})
      : server_(options), thread_([this] {
          server_.open(ingest_);
          server_.run();
        }) {}
  ~RunningServer() {
    ingest_.settle_all();
    stop();
  }

  // Returns when `run` has returned.
  void stop() {
    server_.stop();
    if (thread_.joinable()) thread_.join();
  }
  void stop_later() { server_.stop(); }
  void hang_up() { server_.hang_up(); }

  FakeIngest &ingest() { return ingest_; }
  ServerCounters counters() const { return server_.counters(); }
  bool wait_for_points(uint64_t n) const {
    return wait_until([&] { return counters().points == n; });
  }
  int influx_port() const { return influx_port_; }
  int graphite_port() const { return graphite_port_; }

 private:
  FakeIngest ingest_;
  Server server_;
  const int influx_port_ = server_.influx_port();
  const int graphite_port_ = server_.graphite_port();
  std::thread thread_;
};

class Peer {
 public:
  // Not connected for port 0.
  explicit Peer(int port) : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const int on = 1;
    setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    if (port != 0) connect_to(port);
  }
  ~Peer() { close(fd_); }
  Peer(const Peer &) = delete;
  Peer &operator=(const Peer &) = delete;

  void connect_to(int port) {
    sockaddr_in to = {};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<uint16_t>(port));
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    is_connected_ = connect(fd_, reinterpret_cast<sockaddr *>(&to), sizeof(to)) == 0;
  }
  bool is_connected() const { return is_connected_; }

  bool send(std::string_view text) const {
    while (!text.empty()) {
      const ssize_t sent = ::send(fd_, text.data(), text.size(), MSG_NOSIGNAL);
      if (sent <= 0) return false;
      text.remove_prefix(static_cast<size_t>(sent));
    }
    return true;
  }
  // Sends what is possible without waiting.
  size_t send_some(std::string_view text) const {
    const ssize_t sent = ::send(fd_, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    return sent < 0 ? 0 : static_cast<size_t>(sent);
  }
  void end_sending() const { shutdown(fd_, SHUT_WR); }
  // Closes with a reset.
  void reset() {
    const linger now = {1, 0};
    setsockopt(fd_, SOL_SOCKET, SO_LINGER, &now, sizeof(now));
    close(fd_);
    fd_ = -1;
  }

  // Returns whether all received bytes were read.
  bool has_read_everything() const {
    char byte;
    return unread_.empty() && recv(fd_, &byte, 1, MSG_PEEK | MSG_DONTWAIT) < 0;
  }

  // Returns the next complete answer: header and body. Incomplete if the connection ends, or after a minute without
  // bytes.
  std::string answer() {
    size_t head_end = std::string::npos;
    while ((head_end = unread_.find("\r\n\r\n")) == std::string::npos)
      if (!receive()) return std::exchange(unread_, {});
    size_t size = head_end + 4;
    const size_t length = unread_.find("Content-Length: ");
    if (length < head_end) size += std::strtoul(unread_.c_str() + length + 16, nullptr, 10);
    while (unread_.size() < size)
      if (!receive()) return std::exchange(unread_, {});
    std::string whole = unread_.substr(0, size);
    unread_.erase(0, size);
    return whole;
  }
  int status() { return status_of(answer()); }
  static int status_of(const std::string &answer) {
    return answer.starts_with("HTTP/1.1 ") ? std::atoi(answer.c_str() + 9) : 0;
  }
  // Waits for the end of the connection, by a close or a reset.
  bool is_closed() {
    while (receive()) {
    }
    return unread_.empty() && has_ended_;
  }

 private:
  bool receive() {
    pollfd waited = {fd_, POLLIN, 0};
    char bytes[65536];
    if (poll(&waited, 1, 60'000) != 1) return false;
    const ssize_t got = recv(fd_, bytes, sizeof(bytes), 0);
    if (got > 0) unread_.append(bytes, static_cast<size_t>(got));
    has_ended_ = got <= 0;
    return got > 0;
  }

  int fd_;
  bool is_connected_ = false;
  bool has_ended_ = false;
  std::string unread_;
};

// A write of these lines.
inline std::string post(std::string_view lines, std::string_view arguments = "db=x",
                        std::string_view headers = "Host: x\r\n") {
  return fmt::format("POST /write?{} HTTP/1.1\r\n{}Content-Length: {}\r\n\r\n{}", arguments, headers, lines.size(),
                     lines);
}

// A request without a body.
inline std::string get(const std::string &target, const std::string &method = "GET") {
  return method + " " + target + " HTTP/1.1\r\nHost: x\r\n\r\n";
}

inline std::string body_of(const std::string &answer) {
  const size_t end = answer.find("\r\n\r\n");
  return end == std::string::npos ? "" : answer.substr(end + 4);
}

// Sends a request and returns the answer.
inline std::string answer_to(Peer &peer, const std::string &request) {
  EXPECT_TRUE(peer.send(request));
  return peer.answer();
}
inline int ask(Peer &peer, const std::string &request) {
  return Peer::status_of(answer_to(peer, request));
}

// When this returns, the server has processed everything sent before.
inline void expect_others_are_served(const RunningServer &server) {
  Peer other(server.influx_port());
  EXPECT_EQ(ask(other, get("/ping")), 204);
}

}  // namespace metricdb

using std::chrono::milliseconds;
