// The options of `metricdb serve` as one of several replicas.
#pragma once

#include <CLI/CLI.hpp>
#include <optional>

#include "cli/commands.h"
#include "store/replica.h"

namespace metricdb {

void add_replica(CLI::App *command, ReplicaArguments &arguments);

// None without --replica. Throws std::runtime_error for options that do not fit together, and in a program without replicas.
std::optional<ReplicaOptions> replica_options_of(const ServeArguments &arguments);

}  // namespace metricdb
