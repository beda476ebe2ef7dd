#include "cli/replica_options.h"

#include <stdexcept>

namespace metricdb {
namespace {

constexpr uint32_t MAX_LOG_COPIES = 5;

}  // namespace

void add_replica(CLI::App *command, ReplicaArguments &arguments) {
  command
      ->add_option("--replica", arguments.name,
                   "with --db: be a replica of the database with this name, whose batches go through a log")
      ->type_name("NAME");
  command
      ->add_option("--replica-servers", arguments.servers,
                   "the NATS servers of the log, for example nats://10.0.0.1:4222,nats://10.0.0.2:4222")
      ->type_name("URL,...");
  command
      ->add_option("--replica-mode", arguments.mode,
                   "a leader's points are durable when they are: both on its disk and in the log; async: on\n"
                   "its disk; stream: in the log")
      ->check(CLI::IsMember({"both", "async", "stream"}).description(""))
      ->capture_default_str()
      ->type_name("MODE");
  command->add_option("--replica-copies", arguments.n_copies, "copies of a log that this replica creates")
      ->check(CLI::Range(1u, MAX_LOG_COPIES).description(""))
      ->capture_default_str()
      ->type_name("N");
  command
      ->add_option("--replica-snapshot-mb", arguments.snapshot_mb,
                   "as the leader, publish a snapshot for followers and cut the log when it has this size, or\n"
                   "that of the last snapshot if this is larger; 0: never")
      ->check(CLI::Range(0.0, double{1 << 20}).description(""))
      ->capture_default_str()
      ->type_name("MIB");
  command->add_flag("--lead", arguments.leads,
                    "lead if the log is empty, or if no other replica has led since this one did");
}

std::optional<ReplicaOptions> replica_options_of(const ServeArguments &arguments) {
  const ReplicaArguments &replica = arguments.replica;
  if (replica.name.empty() && replica.servers.empty() && !replica.leads) return std::nullopt;
  if (!KNOWS_REPLICAS) throw std::runtime_error("--replica: this metricdb was built without replicas (libnats)");
  if (replica.name.empty() || replica.servers.empty())
    throw std::runtime_error(
        "--replica, --replica-servers and --lead: the first two need each other, --lead needs both");
  if (arguments.write.db.empty()) throw std::runtime_error("--replica needs --db: one database");
  if (arguments.write.salvage) throw std::runtime_error("--replica and --salvage exclude each other");
  ReplicaOptions options;
  options.name = replica.name;
  options.servers = replica.servers;
  options.mode = replica.mode == "async"    ? ReplicaOptions::Mode::async
                 : replica.mode == "stream" ? ReplicaOptions::Mode::stream
                                            : ReplicaOptions::Mode::both;
  options.n_copies = replica.n_copies;
  options.leads = replica.leads;
  options.snapshot_bytes = static_cast<uint64_t>(replica.snapshot_mb * (1 << 20));
  return options;
}

}  // namespace metricdb
