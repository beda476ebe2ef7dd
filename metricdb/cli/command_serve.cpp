// `metricdb serve`: receives points over the network until a signal ends it.
#include <fmt/format.h>
#include <signal.h>
#include <sys/resource.h>

#include <algorithm>
#include <stdexcept>

#include "cli/commands.h"
#include "cli/output.h"
#include "cli/write_options.h"
#include "net/server.h"
#include "store/database_writer.h"
#include "store/log.h"

namespace metricdb {
namespace {

Server *server_to_stop = nullptr;

void stop_server(int) {
  server_to_stop->stop();
}

// SIGTERM and SIGINT stop the server during the lifetime of this object.
class StopOnSignal {
 public:
  explicit StopOnSignal(Server &server) {
    server_to_stop = &server;
    struct sigaction action = {};
    action.sa_handler = stop_server;
    sigaction(SIGTERM, &action, &previous_term_);
    sigaction(SIGINT, &action, &previous_int_);
  }
  ~StopOnSignal() {
    sigaction(SIGTERM, &previous_term_, nullptr);
    sigaction(SIGINT, &previous_int_, nullptr);
  }
  StopOnSignal(const StopOnSignal &) = delete;
  StopOnSignal &operator=(const StopOnSignal &) = delete;

 private:
  struct sigaction previous_term_, previous_int_;
};

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

}  // namespace

int serve(const ServeArguments &arguments) {
  if (!arguments.influx_port && !arguments.graphite_port)
    throw std::runtime_error("nothing to serve: use --influx, --graphite or both");
  WriterOptions writer_options = writer_options_of(arguments.write);
  writer_options.max_future_ns = arguments.max_future_s * NS_PER_S;
  writer_options.max_key_bytes = arguments.max_key_bytes;
  writer_options.max_new_series = arguments.max_new_series;
  DatabaseWriter writer(arguments.write.db, writer_options);
  report_warnings(writer.warnings());
  ServerOptions options;
  options.address = arguments.address;
  options.influx_port = arguments.influx_port;
  options.graphite_port = arguments.graphite_port;
  options.max_connections = connection_limit(options.max_connections);
  Server server(options, writer);
  const StopOnSignal stop(server);
  print(ports_line(arguments, server));
  TSLB_DLOG(LOG_PROGRESS, "%s", ports_line(arguments, server).c_str());
  server.run();
  const std::string why = writer.wait(writer.commit());
  writer.close();
  print(counters_line(server.counters()));
  if (!why.empty()) throw IngestRefused(fmt::format("the last batch was refused: {}", why));
  return EXIT_GOOD;
}

}  // namespace metricdb
