#include "net/server.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/epoll.h>
#include <tslb/tslb_util_common.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <deque>
#include <map>
#include <utility>
#include <vector>

#include "net/connection.h"
#include "net/event.h"
#include "net/graphite_connection.h"
#include "net/http_connection.h"
#include "net/listener.h"
#include "net/metrics.h"
#include "net/nats_source.h"
#include "store/log.h"

namespace metricdb {
namespace {

using std::chrono::milliseconds;

constexpr size_t MAX_EVENTS = 256;
constexpr int MAX_ACCEPTED = 64;  // per round, so that many new connections do not delay the others
constexpr size_t MESSAGE_BYTES = 512;
constexpr size_t MAX_BATCHES_OF_WORK = 8;

[[noreturn]] void fail(const char *what) {
  const int error = errno;
  throw ServerError(fmt::format("{}: {}", what, std::strerror(error)));
}

}  // namespace

class Server::Loop {
 public:
  explicit Loop(const ServerOptions &options);

  void open(Ingest &ingest) noexcept;
  void set_progress(uint64_t done_bytes, uint64_t all_bytes) noexcept;
  void run();
  void stop() noexcept { request(is_stop_requested_); }
  void hang_up() noexcept { request(is_hang_up_requested_); }
  int influx_port() const { return influx_.port(); }
  int graphite_port() const { return graphite_.port(); }
  ServerCounters counters() const;

 private:
  struct Place {
    std::unique_ptr<Connection> connection;
    bool is_active = false;
    bool is_held = false;
    bool is_waiting = false;
  };
  struct Batch {
    uint64_t ticket;
    size_t bytes;
    Clock::time_point committed;
  };
  using Fds = std::vector<int>;

  void request(std::atomic<bool> &flag) noexcept;
  void on_requests();
  void read_files_again();
  void watch(int fd, uint32_t events);
  void begin_ingest(Ingest &ingest);
  void run_round();
  void wait_for_events();
  void on_event(const epoll_event &event);
  void accept_some(Listener &listener);
  void admit(int fd, bool is_http);
  void turn_away(const char *why);
  void process_active();
  void after_processing(Place &place);
  void remove(Place &place);
  bool close_stalled();
  void work();
  void commit();
  void settle();
  void answer_queries(QueryWorkers &workers);
  void resume_held();
  void activate(Place &place);
  void check_times();
  void log_snapshots();
  void start_nats();
  std::string why_unhealthy();
  std::string metrics() const;
  void begin_drain();
  bool is_drained() const { return is_draining_ && n_connections_ == 0 && (!nats_ || nats_->is_drained()); }
  milliseconds tick() const;

  Hub hub_;
  InfluxApi api_;
  Gunzip gunzip_;
  GraphiteConverter converter_;
  // Set by signal handlers and other threads.
  std::atomic<Ingest *> opened_ = nullptr;  // the server's thread has not taken it
  std::atomic<bool> is_stop_requested_ = false;
  std::atomic<bool> is_hang_up_requested_ = false;
  Event wake_;  // one of them was set
  Descriptor epoll_;
  Listener influx_;
  Listener graphite_;
  std::optional<NatsSource> nats_;
  // By descriptor. The following lists contain descriptors too. If a descriptor was reused by another connection, that
  // one is processed without effect.
  std::vector<Place> places_;
  size_t n_connections_ = 0;
  int current_ = -1;  // being processed
  Fds active_;        // to process in the next round
  Fds ingested_;      // with lines in the open batch
  Fds waiting_;       // for the Ingest
  Fds held_;          // by limits that other connections can cause
  std::deque<Batch> batches_;
  uint64_t last_ticket_ = 0;
  std::map<std::string, IngestFigures> figures_;  // by database, when snapshots were logged
  bool is_settled_readable_ = false;
  bool has_query_answers_ = false;
  bool has_more_work_ = false;
  bool is_turning_away_ = false;
  bool is_draining_ = false;
  Clock::time_point next_check_;
  Clock::time_point drain_deadline_;
};

Server::Loop::Loop(const ServerOptions &options)
    : hub_(options),
      api_({[this] { return why_unhealthy(); }, [this] { return nats_ ? nats_->why_disconnected() : ""; },
            [this] { return metrics(); },
            [this] { return hub_.ingest != nullptr ? hub_.ingest->replica() : std::nullopt; }},
           hub_.access),
      epoll_(tslb_epoll_init(static_cast<int>(MAX_EVENTS), nullptr)),
      influx_(options.address, options.influx_port, options.influx_socket),
      graphite_(options.address, options.graphite_port, options.graphite_socket) {
  if (epoll_.get() < 0) fail("epoll");
  if (fcntl(epoll_.get(), F_SETFD, FD_CLOEXEC) != 0) fail("epoll");
  hub_.blocks.set_reclaim([this] { return close_stalled(); });
  watch(wake_.fd(), EPOLLIN);
  watch(hub_.queries.event_fd(), EPOLLIN);
  watch(hub_.backups.event_fd(), EPOLLIN);
  watch(hub_.promotions.event_fd(), EPOLLIN);
  if (influx_.fd() >= 0) watch(influx_.fd(), EPOLLIN);
  if (options.nats.subject.empty()) return;
  nats_.emplace(hub_, options.nats);
  watch(nats_->event_fd(), EPOLLIN);
}

void Server::Loop::watch(int fd, uint32_t events) {
  char message[MESSAGE_BYTES] = "";
  if (tslb_add_select(epoll_.get(), fd, static_cast<int>(events), message) != 0) throw ServerError(message);
}

void Server::Loop::open(Ingest &ingest) noexcept {
  // Release. Pairs with the acquire in on_requests: the server's thread sees everything that the opening thread did.
  opened_.store(&ingest, std::memory_order_release);
  wake_.raise();
}

void Server::Loop::set_progress(uint64_t done_bytes, uint64_t all_bytes) noexcept {
  if (all_bytes != 0)
    hub_.opened_percent =
        static_cast<unsigned>(100.0 * static_cast<double>(done_bytes) / static_cast<double>(all_bytes));
}

// Graphite has no answers, so lines would have been lost before. The connections have waited in the queue of the port.
void Server::Loop::begin_ingest(Ingest &ingest) {
  hub_.ingest = &ingest;
  watch(ingest.settled_fd(), EPOLLIN);
  if (graphite_.fd() >= 0) watch(graphite_.fd(), EPOLLIN);
  start_nats();
}

// A follower would take the messages from its leader. So they wait until it leads.
void Server::Loop::start_nats() {
  if (nats_ && !is_draining_ && hub_.ingest != nullptr && hub_.ingest->why_read_only().empty()) nats_->start();
}

void Server::Loop::request(std::atomic<bool> &flag) noexcept {
  flag = true;
  wake_.raise();
}

void Server::Loop::on_requests() {
  wake_.drain();
  if (Ingest *const opened = opened_.exchange(nullptr, std::memory_order_acquire)) begin_ingest(*opened);
  if (is_hang_up_requested_.exchange(false)) read_files_again();
  if (is_stop_requested_ && !is_draining_) begin_drain();
}

void Server::Loop::read_files_again() {
  if (hub_.options.on_hang_up) hub_.options.on_hang_up();
  const auto attempt = [](const char *what, const auto &read) {
    try {
      read();
    } catch (const std::runtime_error &error) {
      TSLB_DLOG(LOG_REFUSALS, "the %s as before: %s", what, error.what());
    }
  };
  attempt("users stay", [this] { hub_.access.reload(); });
  attempt("certificate stays", [this] { hub_.tls = Hub::tls_of(hub_.options); });
}

void Server::Loop::run() {
  // Also if a round throws: queries and backups use what the caller owns. A backup is completed.
  struct StopQueries {
    Hub &hub;
    ~StopQueries() {
      hub.queries.stop();
      hub.backups.stop();
      hub.promotions.stop();
    }
  } const stop_queries{hub_};
  TSLB_DLOG(LOG_PROGRESS, "serving: influx %d, graphite %d on %s", influx_port(), graphite_port(),
            hub_.options.address.c_str());
  hub_.now = Clock::now();
  next_check_ = hub_.now + tick();
  while (!is_drained()) {
    if (is_draining_ && hub_.now >= drain_deadline_) {
      TSLB_DLOG(LOG_REFUSALS, "stopped: %zu connections were not answered in time", n_connections_);
      break;
    }
    run_round();
  }
  places_.clear();
  if (nats_) nats_->close();
  log_snapshots();
  hub_.log.end();
  TSLB_DLOG(LOG_PROGRESS, "stopped");
}

void Server::Loop::run_round() {
  wait_for_events();
  if (std::exchange(is_settled_readable_, false)) settle();
  if (std::exchange(has_query_answers_, false)) {
    answer_queries(hub_.queries);
    answer_queries(hub_.backups);
    answer_queries(hub_.promotions);
  }
  process_active();
  if (nats_) nats_->process();
  work();
  commit();
  if (hub_.now >= next_check_) check_times();
}

void Server::Loop::wait_for_events() {
  std::array<epoll_event, MAX_EVENTS> events;
  const auto until = std::chrono::ceil<milliseconds>(next_check_ - Clock::now());
  const bool is_idle = active_.empty() && !has_more_work_ && !(nats_ && nats_->is_ready());
  const int wait_ms = is_idle ? static_cast<int>(std::max<int64_t>(until.count(), 0)) : 0;
  const int n = epoll_wait(epoll_.get(), events.data(), static_cast<int>(events.size()), wait_ms);
  if (n < 0 && errno != EINTR) fail("epoll");
  hub_.now = Clock::now();
  for (int i = 0; i < n; ++i) on_event(events[static_cast<size_t>(i)]);
}

void Server::Loop::on_event(const epoll_event &event) {
  const int fd = event.data.fd;
  if (fd == wake_.fd()) {
    on_requests();
  } else if (hub_.ingest != nullptr && fd == hub_.ingest->settled_fd()) {
    is_settled_readable_ = true;
  } else if (fd == hub_.queries.event_fd() || fd == hub_.backups.event_fd() || fd == hub_.promotions.event_fd()) {
    has_query_answers_ = true;
  } else if (nats_ && fd == nats_->event_fd()) {
    nats_->on_event();
  } else if (fd == influx_.fd()) {
    accept_some(influx_);
  } else if (fd == graphite_.fd()) {
    accept_some(graphite_);
  } else if (static_cast<size_t>(fd) < places_.size() && places_[static_cast<size_t>(fd)].connection) {
    Place &place = places_[static_cast<size_t>(fd)];
    place.connection->on_events(event.events);
    activate(place);
  }
}

void Server::Loop::activate(Place &place) {
  if (!std::exchange(place.is_active, true)) active_.push_back(place.connection->fd());
}

// ---- Accepting -----------------------------------------------------------------------------------------------------

void Server::Loop::accept_some(Listener &listener) {
  for (int i = 0; i < MAX_ACCEPTED; ++i) {
    const int fd = listener.accept([this](const char *why) { turn_away(why); });
    if (fd < 0) return;
    admit(fd, &listener == &influx_);
  }
}

void Server::Loop::admit(int fd, bool is_http) {
  char message[MESSAGE_BYTES] = "";
  const bool is_full = n_connections_ >= hub_.options.max_connections;
  constexpr uint32_t EVENTS = EPOLLIN | EPOLLOUT | EPOLLRDHUP | EPOLLET;
  if (is_full || tslb_add_select(epoll_.get(), fd, static_cast<int>(EVENTS), message) != 0) {
    turn_away(is_full ? "the maximum number of connections is reached" : message);
    close(fd);
    return;
  }
  is_turning_away_ = false;
  if (places_.size() <= static_cast<size_t>(fd)) places_.resize(static_cast<size_t>(fd) + 1);
  std::unique_ptr<Connection> &connection = places_[static_cast<size_t>(fd)].connection;
  if (is_http)
    connection = std::make_unique<HttpConnection>(fd, hub_, api_, gunzip_);
  else
    connection = std::make_unique<GraphiteConnection>(fd, hub_, converter_);
  hub_.accepted.add(1);
  ++n_connections_;
}

void Server::Loop::turn_away(const char *why) {
  hub_.turned_away.add(1);
  if (!std::exchange(is_turning_away_, true)) TSLB_DLOG(LOG_REFUSALS, "connections are turned away: %s", why);
}

// ---- A round -------------------------------------------------------------------------------------------------------

void Server::Loop::process_active() {
  Fds turn;
  turn.swap(active_);
  for (const int fd : turn) {
    Place &place = places_[static_cast<size_t>(fd)];
    place.is_active = false;
    if (!place.connection) continue;
    current_ = fd;
    place.connection->process();
    current_ = -1;
    after_processing(place);
  }
}

void Server::Loop::after_processing(Place &place) {
  Connection &connection = *place.connection;
  const int fd = connection.fd();
  if (connection.is_finished()) return remove(place);
  if (connection.waits_for_ingest()) {
    ingested_.push_back(fd);
    if (!std::exchange(place.is_waiting, true)) waiting_.push_back(fd);
  }
  if (connection.is_ready())
    activate(place);
  else if (connection.is_held() && !std::exchange(place.is_held, true))
    held_.push_back(fd);
}

void Server::Loop::remove(Place &place) {
  place.connection.reset();
  --n_connections_;
}

// Called when memory is short. Closes one connection, and never the one that needs the memory.
bool Server::Loop::close_stalled() {
  Place *longest = nullptr;
  Clock::duration stalled_for = hub_.options.stall_timeout;
  for (Place &place : places_) {
    if (!place.connection || place.connection->fd() == current_) continue;
    const Clock::duration candidate = place.connection->stalled_for();
    if (candidate == Clock::duration(0) || candidate < stalled_for) continue;
    longest = &place;
    stalled_for = candidate;
  }
  if (longest == nullptr) return false;
  hub_.stalled.add(1);
  longest->connection->give_up();
  remove(*longest);
  return true;
}

// Changes that queries have requested. Not while many batches wait, because these are in memory.
void Server::Loop::work() {
  has_more_work_ = false;
  if (hub_.ingest == nullptr || batches_.size() >= MAX_BATCHES_OF_WORK) return;
  has_more_work_ = hub_.ingest->work();
}

void Server::Loop::commit() {
  const uint64_t ticket = hub_.ingest == nullptr ? 0 : hub_.ingest->commit();
  if (std::exchange(last_ticket_, ticket) != ticket) {
    batches_.push_back({ticket, hub_.open_bytes, Clock::now()});
    for (const int fd : ingested_)
      if (const auto &connection = places_[static_cast<size_t>(fd)].connection) connection->committed(ticket);
    if (nats_) nats_->committed(ticket);
  }
  ingested_.clear();
  hub_.open_bytes = 0;
}

void Server::Loop::settle() {
  const uint64_t settled = hub_.ingest->settled();
  Refusals refusals;
  for (; !batches_.empty() && batches_.front().ticket <= settled; batches_.pop_front()) {
    hub_.unanswered_bytes -= batches_.front().bytes;
    hub_.batch_times.add(hub_.now - std::min(hub_.now, batches_.front().committed));
    const uint64_t ticket = batches_.front().ticket;
    for (auto &[database, reason] : hub_.ingest->lost(ticket)) {
      hub_.log.add(LogTopic::refusals, hub_.now, fmt::format("batch {} is lost: {}", ticket, reason));
      refusals.push_back({ticket, std::move(database), std::move(reason)});
    }
  }
  if (nats_) nats_->settled(settled, refusals);
  Fds waiting;
  waiting.swap(waiting_);
  for (const int fd : waiting) {
    Place &place = places_[static_cast<size_t>(fd)];
    place.is_waiting = false;
    if (!place.connection) continue;
    place.connection->settled(settled, refusals);
    after_processing(place);
  }
  resume_held();
}

// A connection that was closed has taken its queries out of query_fds.
void Server::Loop::answer_queries(QueryWorkers &workers) {
  for (const QueryWorkers::Done &done : workers.take_answers()) {
    if (&workers == &hub_.queries) hub_.count(done);
    const auto waiting = hub_.query_fds.find(done.id);
    if (waiting == hub_.query_fds.end()) {
      hub_.query_bytes -= done.answer.body.size();
      continue;
    }
    Place &place = places_[static_cast<size_t>(waiting->second)];
    hub_.query_fds.erase(waiting);
    place.connection->answered(done.id, done.answer);
    after_processing(place);
  }
}

void Server::Loop::resume_held() {
  Fds held;
  held.swap(held_);
  for (const int fd : held) {
    Place &place = places_[static_cast<size_t>(fd)];
    place.is_held = false;
    if (place.connection) activate(place);
  }
}

// ---- Time and the end ----------------------------------------------------------------------------------------------

milliseconds Server::Loop::tick() const {
  const milliseconds shortest = std::min(hub_.options.idle_timeout, hub_.options.request_timeout);
  return std::clamp(shortest / 4, milliseconds(10), milliseconds(is_draining_ ? 100 : 1000));
}

// Snapshots are written by a child process, and have ended when the generation has changed.
void Server::Loop::log_snapshots() {
  std::map<std::string, IngestFigures> seen;
  for (auto &[database, figures] : hub_.figures_of_all()) {
    const IngestFigures &before = figures_[database];
    const std::string name = database.empty() ? "" : database + ": ";
    if (figures.snapshots != before.snapshots)
      TSLB_DLOG(LOG_PROGRESS, "%sgeneration %llu was written, writes were stopped for %.3f ms", name.c_str(),
                static_cast<unsigned long long>(figures.generation),
                static_cast<double>(figures.snapshot_pause_ns) / 1e6);
    if (!figures.snapshot_failure.empty() && figures.snapshot_failure != before.snapshot_failure)
      TSLB_DLOG(LOG_REFUSALS, "%sa snapshot failed: %s", name.c_str(), figures.snapshot_failure.c_str());
    seen.emplace(std::move(database), std::move(figures));
  }
  figures_ = std::move(seen);
}

std::string Server::Loop::why_unhealthy() {
  if (!batches_.empty() && Clock::now() - batches_.front().committed > hub_.options.stuck_batch)
    return fmt::format("the disk has not confirmed a batch for {:.0f} s",
                       std::chrono::duration<double>(Clock::now() - batches_.front().committed).count());
  return hub_.why_not_writable();
}

std::string Server::Loop::metrics() const {
  return metrics_text(hub_, api_.denied(), batches_.size(), nats_ ? &*nats_ : nullptr);
}

void Server::Loop::check_times() {
  next_check_ = hub_.now + tick();
  if (hub_.options.on_tick) hub_.options.on_tick();
  hub_.log.end_intervals(hub_.now);
  log_snapshots();
  start_nats();
  for (Place &place : places_) {
    if (!place.connection) continue;
    place.connection->check_time();
    after_processing(place);
  }
}

void Server::Loop::begin_drain() {
  is_draining_ = true;
  if (hub_.options.on_stop) hub_.options.on_stop();
  drain_deadline_ = hub_.now + hub_.options.drain_timeout;
  next_check_ = hub_.now + tick();
  if (nats_) nats_->drain();
  influx_.close();
  graphite_.close();
  for (Place &place : places_) {
    if (!place.connection) continue;
    place.connection->drain();
    activate(place);
  }
}

ServerCounters Server::Loop::counters() const {
  ServerCounters counters;
  counters.accepted = hub_.accepted.value();
  counters.connections = counters.accepted - std::min(hub_.closed.value(), counters.accepted);
  counters.turned_away = hub_.turned_away.value();
  counters.stalled = hub_.stalled.value();
  counters.requests = hub_.requests.value();
  counters.bytes = hub_.bytes.value();
  counters.points = hub_.points.value();
  counters.malformed = hub_.malformed.value();
  counters.late = hub_.late.value();
  counters.future = hub_.future.value();
  counters.no_room = hub_.no_room.value();
  counters.refused = hub_.refused.value();
  return counters;
}

Server::Server(const ServerOptions &options) : loop_(std::make_unique<Loop>(options)) {}

Server::~Server() = default;

void Server::open(Ingest &ingest) noexcept {
  loop_->open(ingest);
}

void Server::set_progress(uint64_t done_bytes, uint64_t all_bytes) noexcept {
  loop_->set_progress(done_bytes, all_bytes);
}

void Server::run() {
  loop_->run();
}

void Server::stop() noexcept {
  loop_->stop();
}

void Server::hang_up() noexcept {
  loop_->hang_up();
}

int Server::influx_port() const {
  return loop_->influx_port();
}

int Server::graphite_port() const {
  return loop_->graphite_port();
}

ServerCounters Server::counters() const {
  return loop_->counters();
}

}  // namespace metricdb
