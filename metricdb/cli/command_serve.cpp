// `metricdb serve`: receives points over the network until a signal ends it.
#include <arpa/inet.h>
#include <fmt/format.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <exception>
#include <iterator>
#include <memory>
#include <optional>
#include <stdexcept>
#include <thread>

#include "cli/commands.h"
#include "cli/log_file.h"
#include "cli/open_databases.h"
#include "cli/output.h"
#include "cli/replica_options.h"
#include "cli/server_access.h"
#include "cli/service_manager.h"
#include "cli/write_options.h"
#include "net/backup_api.h"
#include "net/influx_api.h"
#include "net/promote_api.h"
#include "net/server.h"
#include "query/influxql.h"
#include "store/log.h"

namespace metricdb {
namespace {

Server *signalled_server = nullptr;

void on_signal(int signal) {
  if (signal == SIGHUP)
    signalled_server->hang_up();
  else
    signalled_server->stop();
}

// During the lifetime of this object SIGTERM and SIGINT stop the server, and SIGHUP reopens the log.
class ServerSignals {
 public:
  explicit ServerSignals(Server &server) {
    signalled_server = &server;
    struct sigaction action = {};
    action.sa_handler = on_signal;
    action.sa_flags = SA_RESTART;
    for (size_t i = 0; i < std::size(SIGNALS); ++i) sigaction(SIGNALS[i], &action, &previous_[i]);
  }
  ~ServerSignals() {
    for (size_t i = 0; i < std::size(SIGNALS); ++i) sigaction(SIGNALS[i], &previous_[i], nullptr);
  }
  ServerSignals(const ServerSignals &) = delete;
  ServerSignals &operator=(const ServerSignals &) = delete;

 private:
  static constexpr int SIGNALS[] = {SIGTERM, SIGINT, SIGHUP};
  struct sigaction previous_[std::size(SIGNALS)];
};

// Signals that would end the process by default: a reader of its output that ended, a terminal that was closed while the
// database is opened, and signals that other programs use to reopen their logs.
void ignore_harmless_signals() {
  for (const int number : {SIGPIPE, SIGHUP, SIGUSR1, SIGUSR2}) signal(number, SIG_IGN);
}

// The limit leaves descriptors for the files of the database.
size_t connection_limit(size_t wanted) {
  constexpr rlim_t OWN_DESCRIPTORS = 64;
  struct rlimit limit;
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return wanted;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);  // if this fails, the limit stays as it is
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur <= 2 * OWN_DESCRIPTORS) return 1;
  return std::min<size_t>(wanted, limit.rlim_cur - OWN_DESCRIPTORS);
}

bool is_loopback(const std::string &address) {
  in_addr ipv4;
  return inet_pton(AF_INET, address.c_str(), &ipv4) == 1 && ntohl(ipv4.s_addr) >> 24 == IN_LOOPBACKNET;
}

// Returns the address at which other machines can reach a port or a passed socket; empty if there is none.
std::string exposed_address(const ServeArguments &arguments, const std::optional<int> &port, int passed) {
  if (passed >= 0) return exposed_address_of(passed);
  return port && !is_loopback(arguments.address) ? arguments.address : "";
}

// Refuses to serve other machines without what protects the data.
void check_exposure(const ServeArguments &arguments, const PassedSockets &sockets) {
  const std::string influx = exposed_address(arguments, arguments.influx_port, sockets.influx);
  const std::string graphite = exposed_address(arguments, arguments.graphite_port, sockets.graphite);
  if (arguments.insecure || (influx.empty() && graphite.empty())) return;
  const auto refuse = [](const std::string &address, const char *what) {
    throw std::runtime_error(fmt::format("other machines can reach {}: {}, or --insecure", address, what));
  };
  if (arguments.tls_certificate_file.empty())
    refuse(influx.empty() ? graphite : influx, "use --tls-cert and --tls-key");
  if (!influx.empty() && arguments.user_file.empty()) refuse(influx, "use --user-file");
  if (!graphite.empty()) refuse(graphite, "Graphite's protocol has no users, so use --influx alone");
}

// One port, by its name.
std::string port_text(const char *name, const ServeArguments &arguments, bool is_served, int passed, int port) {
  if (passed >= 0) return fmt::format(" {} passed:{}", name, port);
  return is_served ? fmt::format(" {} {}:{}", name, arguments.address, port) : "";
}

std::string ports_of(const ServeArguments &arguments, const PassedSockets &sockets, const Server &server) {
  return port_text("influx", arguments, arguments.influx_port.has_value(), sockets.influx, server.influx_port()) +
         port_text("graphite", arguments, arguments.graphite_port.has_value(), sockets.graphite,
                   server.graphite_port()) +
         (arguments.nats.subject.empty() ? "" : " nats " + arguments.nats.subject);
}

NatsOptions nats_options_of(const ServeArguments &arguments) {
  NatsOptions options = arguments.nats;
  options.ack_wait = std::chrono::seconds(arguments.nats_ack_wait_s);
  if (options.user.empty() != arguments.nats_password_file.empty())
    throw std::runtime_error("--nats-user and --nats-password-file need each other");
  if (!options.user.empty()) options.password = password_in(arguments.nats_password_file);
  return options;
}

std::string counters_line(const ServerCounters &counters) {
  return fmt::format(
      "served           {} connections, {} turned away, {} stalled; {} requests, {} bytes; {} points; {} malformed "
      "lines, "
      "{} late, {} in the future, {} without room; {} refused\n",
      counters.accepted, counters.turned_away, counters.stalled, counters.requests, counters.bytes, counters.points,
      counters.malformed, counters.late, counters.future, counters.no_room, counters.refused);
}

int64_t now_ns() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::nanoseconds>(now).count();
}

// What the server feeds: one of both.
struct Served {
  std::shared_ptr<DatabaseWriter> only = {};
  std::unique_ptr<DatabaseSet> set = {};

  Ingest &ingest() const { return set ? static_cast<Ingest &>(*set) : *only; }
  const std::string &warnings() const { return set ? set->warnings() : only->warnings(); }
  // Returns why a replica is to be started again; empty if it is not.
  std::string why_ended() const { return only ? only->why_ended() : ""; }
  // Returns why the last batch was refused; empty if it was not.
  std::string close() const {
    if (set) return set->close();
    if (const std::string why = why_ended(); !why.empty()) throw DatabaseError(why);
    std::string why = only->wait(only->commit());
    only->close();
    return why;
  }
};

http_status status_of(const InfluxqlAnswer &answer) {
  if (answer.is_forbidden) return HTTP_STATUS_FORBIDDEN;
  if (answer.is_not_found) return HTTP_STATUS_NOT_FOUND;
  return answer.is_bad_request ? HTTP_STATUS_BAD_REQUEST : HTTP_STATUS_OK;
}

// Reads the arrays while the server's thread feeds them. served: null until the databases are open.
QueryAnswer answer_query(const Served *served, DatabaseNames &names, const QueryRequest &request,
                         const IsInterrupted &is_interrupted) {
  if (served == nullptr) return {HTTP_STATUS_SERVICE_UNAVAILABLE, "application/json", "{\"error\":\"starting\"}\n"};
  if (const std::string why = served->only ? served->only->why_unreadable() : ""; !why.empty())
    return {HTTP_STATUS_SERVICE_UNAVAILABLE, "application/json",
            error_answer(HTTP_STATUS_SERVICE_UNAVAILABLE, why).json};
  const InfluxqlRequest query = {.text = request.text,
                                 .epoch = request.epoch,
                                 .pretty = request.is_pretty,
                                 .chunked = request.is_chunked,
                                 .csv = request.is_csv,
                                 .is_partial = request.is_partial,
                                 .chunk_size = request.chunk_rows,
                                 .now_ns = request.now_ns.value_or(now_ns()),
                                 .database = request.database,
                                 .refusal_of_reads = request.refusal_of_reads,
                                 .refusal_of_creations = request.refusal_of_creations,
                                 .refusal_of_changes = request.refusal_of_changes,
                                 .is_interrupted = is_interrupted,
                                 .n_threads = std::thread::hardware_concurrency()};
  const auto answer_from = [&query](InfluxqlDatabases &&databases) { return answer_influxql(databases, query); };
  InfluxqlAnswer answer = served->set ? answer_from(SeveralDatabases(*served->set, is_interrupted))
                                      : answer_from(OnlyDatabase(served->only, names, false, is_interrupted));
  return {status_of(answer), answer.content_type, std::move(answer.body), answer.first_error};
}

// On a thread of its own. served: as in answer_query. request: the name is its text.
QueryAnswer answer_backup_request(const Served *served, const std::string &folder, const QueryRequest &request) {
  if (served == nullptr) return {HTTP_STATUS_SERVICE_UNAVAILABLE, "application/json", "{\"error\":\"starting\"}\n"};
  const std::shared_ptr<DatabaseWriter> writer = served->set ? served->set->find(request.database) : served->only;
  if (!writer) return {HTTP_STATUS_NOT_FOUND, "application/json", "{\"error\":\"database not found\"}\n"};
  return answer_backup(folder, request.text, [writer](const std::string &to) { return writer->backup(to); });
}

// On a thread of its own. served: as in answer_query.
QueryAnswer answer_promote_request(const Served *served) {
  if (served == nullptr) return {HTTP_STATUS_SERVICE_UNAVAILABLE, "application/json", "{\"error\":\"starting\"}\n"};
  return answer_promotion([served] { return served->only->promote(); });
}

WriterOptions serve_writer_options(const ServeArguments &arguments) {
  WriterOptions options = writer_options_of(arguments.write);
  options.max_future_ns = arguments.max_future_s * NS_PER_S;
  options.max_key_bytes = arguments.max_key_bytes;
  options.max_new_series = arguments.max_new_series;
  options.refuse_strings = !arguments.drop_strings;
  options.one_per_time = true;
  options.is_live = true;
  options.retains_by_clock = true;
  options.replica = replica_options_of(arguments);
  return options;
}

// Opens the database on a thread of its own, while the server answers that it is starting. Stops the server if that fails.
class Opening {
 public:
  // readable  receives the databases when they are open.
  // ports     for the line that says what is served.
  Opening(const ServeArguments &arguments, Server &server, std::atomic<const Served *> &readable,
          ServiceNotices &notices, std::string ports)
      : arguments_(arguments),
        server_(server),
        readable_(readable),
        notices_(notices),
        ports_(std::move(ports)),
        thread_([this] { run(); }) {}
  ~Opening() {
    if (thread_.joinable()) thread_.join();
  }
  Opening(const Opening &) = delete;
  Opening &operator=(const Opening &) = delete;

  // Called after the server has ended. Throws what the opening has thrown. If a signal came before the database was open,
  // this ends the process: nothing was stored, and opening can take long.
  const Served &result() {
    if (!is_done_) {
      TSLB_DLOG(LOG_PROGRESS, "stopped while the database was opened");
      std::_Exit(EXIT_GOOD);
    }
    thread_.join();
    if (failure_) std::rethrow_exception(failure_);
    return served_;
  }

 private:
  void run() {
    TSLB_DLOG_THREAD_NAME("opening");
    try {
      open();
    } catch (...) {
      failure_ = std::current_exception();
    }
    is_done_ = true;
    if (failure_) server_.stop();
  }

  void open() {
    WriterOptions options = serve_writer_options(arguments_);
    notices_.opening(0, 1);
    options.on_progress = [this](uint64_t done_bytes, uint64_t all_bytes) { report(done_bytes, all_bytes); };
    if (arguments_.data.empty()) {
      served_.only = std::make_shared<DatabaseWriter>(arguments_.write.db, options);
    } else {
      served_.set = std::make_unique<DatabaseSet>(arguments_.data, options);
      if (arguments_.graphite_port) served_.set->create(arguments_.graphite_database, {});
      if (!arguments_.nats.subject.empty()) served_.set->create(arguments_.nats.database, {});
    }
    report_warnings(served_.warnings());
    const std::string line = "serving         " + ports_ + "\n";
    TSLB_DLOG(LOG_PROGRESS, "%s", line.c_str());
    is_done_ = true;  // before points can be stored
    readable_ = &served_;
    server_.open(served_.ingest());
    notices_.ready("serving" + ports_);
    print_if_read(line);
  }

  // Small databases are open at once.
  void report(uint64_t done_bytes, uint64_t all_bytes) {
    constexpr uint64_t LOGGED_BYTES = 64 << 20;
    server_.set_progress(done_bytes, all_bytes);
    notices_.opening(done_bytes, all_bytes);
    if (all_bytes < LOGGED_BYTES || done_bytes < next_logged_bytes_) return;
    next_logged_bytes_ = done_bytes + all_bytes / 10;
    TSLB_DLOG(LOG_PROGRESS, "opening: %llu of %llu bytes", static_cast<unsigned long long>(done_bytes),
              static_cast<unsigned long long>(all_bytes));
  }

  const ServeArguments &arguments_;
  Server &server_;
  std::atomic<const Served *> &readable_;
  ServiceNotices &notices_;
  const std::string ports_;
  uint64_t next_logged_bytes_ = 0;
  Served served_;
  std::exception_ptr failure_;
  std::atomic<bool> is_done_ = false;
  std::thread thread_;  // the last member, because it uses the others
};

}  // namespace

int serve(const ServeArguments &arguments) {
  const PassedSockets sockets = take_passed_sockets();
  if (!arguments.influx_port && !arguments.graphite_port && sockets.influx < 0 && sockets.graphite < 0 &&
      arguments.nats.subject.empty())
    throw std::runtime_error("nothing to serve: use --influx, --graphite or --nats");
  if (arguments.tls_certificate_file.empty() != arguments.tls_key_file.empty())
    throw std::runtime_error("--tls-cert and --tls-key need each other");
  check_exposure(arguments, sockets);
  if (arguments.write.db.empty() == arguments.data.empty()) throw std::runtime_error("use either --db or --data");
  const bool is_replica = replica_options_of(arguments).has_value();
  ignore_harmless_signals();
  ServerOptions options;
  options.address = arguments.address;
  options.influx_port = arguments.influx_port;
  options.graphite_port = arguments.graphite_port;
  options.tls_certificate_file = arguments.tls_certificate_file;
  options.tls_key_file = arguments.tls_key_file;
  options.user_file = arguments.user_file;
  options.influx_socket = sockets.influx;
  options.graphite_socket = sockets.graphite;
  options.graphite_database = arguments.graphite_database;
  options.nats = nats_options_of(arguments);
  std::atomic<const Served *> readable = nullptr;
  DatabaseNames names;
  options.query = [&](const QueryRequest &request, const IsInterrupted &is_interrupted) {
    return answer_query(readable, names, request, is_interrupted);
  };
  if (!arguments.backup_folder.empty())
    options.backup = [&readable, &arguments](const QueryRequest &request, const IsInterrupted &) {
      return answer_backup_request(readable, arguments.backup_folder, request);
    };
  if (is_replica)
    options.promote = [&readable](const QueryRequest &, const IsInterrupted &) {
      return answer_promote_request(readable);
    };
  options.max_connections = connection_limit(options.max_connections);
  ServiceNotices notices;
  options.on_hang_up = reopen_log;
  Server *running = nullptr;
  options.on_tick = [&] {
    notices.alive();
    const Served *const served = readable;
    if (served != nullptr && !served->why_ended().empty()) running->stop();
  };
  options.on_stop = [&notices] { notices.stopping(); };
  Server server(options);
  running = &server;
  const ServerSignals signals(server);
  Opening opening(arguments, server, readable, notices, ports_of(arguments, sockets, server));
  server.run();
  const std::string why = opening.result().close();
  print_if_read(counters_line(server.counters()));
  if (!why.empty()) throw IngestRefused(fmt::format("the last batch was refused: {}", why));
  return EXIT_GOOD;
}

}  // namespace metricdb
