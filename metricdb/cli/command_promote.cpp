// `metricdb promote`: makes a server that follows the leader.
#include <fmt/format.h>

#include <stdexcept>

#include "cli/commands.h"
#include "cli/output.h"
#include "net/http_client.h"

namespace metricdb {

int promote(const PromoteArguments &arguments) {
  if (arguments.server.addresses.empty()) throw std::runtime_error("--server is required");
  print(answer_of_server(arguments.server, "/promote"));
  return EXIT_GOOD;
}

}  // namespace metricdb
