// `metricdb serve`: receives points over the network until a signal ends it.
#include <fmt/format.h>
#include <signal.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <iterator>
#include <stdexcept>

#include "cli/commands.h"
#include "cli/log_file.h"
#include "cli/output.h"
#include "cli/write_options.h"
#include "net/server.h"
#include "query/influxql.h"
#include "query/store_source.h"
#include "store/database_writer.h"
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

std::string ports_line(const ServeArguments &arguments, const Server &server) {
  std::string line = "serving         ";
  if (arguments.influx_port) line += fmt::format(" influx {}:{}", arguments.address, server.influx_port());
  if (arguments.graphite_port) line += fmt::format(" graphite {}:{}", arguments.address, server.graphite_port());
  return line + "\n";
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

// Reads the arrays while the server's thread feeds them.
QueryAnswer answer_query(const DatabaseWriter &writer, const QueryRequest &request) {
  const InfluxqlRequest query = {request.text,   request.epoch,      request.is_pretty, request.is_chunked,
                                 request.is_csv, request.chunk_rows, now_ns()};
  InfluxqlAnswer answer;
  writer.read([&](const Store &store) { answer = answer_influxql(StoreSource(store), query, request.databases); });
  return {answer.is_bad_request ? HTTP_STATUS_BAD_REQUEST : HTTP_STATUS_OK, answer.content_type, answer.body};
}

}  // namespace

int serve(const ServeArguments &arguments) {
  if (!arguments.influx_port && !arguments.graphite_port)
    throw std::runtime_error("nothing to serve: use --influx, --graphite or both");
  ignore_harmless_signals();
  WriterOptions writer_options = writer_options_of(arguments.write);
  writer_options.max_future_ns = arguments.max_future_s * NS_PER_S;
  writer_options.max_key_bytes = arguments.max_key_bytes;
  writer_options.max_new_series = arguments.max_new_series;
  writer_options.refuse_strings = !arguments.drop_strings;
  writer_options.one_per_time = true;
  writer_options.is_live = true;
  DatabaseWriter writer(arguments.write.db, writer_options);
  report_warnings(writer.warnings());
  ServerOptions options;
  options.address = arguments.address;
  options.influx_port = arguments.influx_port;
  options.graphite_port = arguments.graphite_port;
  options.query = [&writer](const QueryRequest &request) { return answer_query(writer, request); };
  options.max_connections = connection_limit(options.max_connections);
  options.on_hang_up = reopen_log;
  Server server(options, writer);
  const ServerSignals signals(server);
  print(ports_line(arguments, server));
  TSLB_DLOG(LOG_PROGRESS, "%s", ports_line(arguments, server).c_str());
  server.run();
  const std::string why = writer.wait(writer.commit());
  writer.close();
  print_if_read(counters_line(server.counters()));
  if (!why.empty()) throw IngestRefused(fmt::format("the last batch was refused: {}", why));
  return EXIT_GOOD;
}

}  // namespace metricdb
