// `metricdb backup` and `metricdb restore`.
#include "store/backup.h"

#include <fmt/format.h>

#include <chrono>

#include "cli/commands.h"
#include "cli/output.h"
#include "net/http_client.h"
#include "store/log.h"

namespace metricdb {
namespace {

void print_backup(const std::string &what, const BackupInfo &info, std::chrono::steady_clock::time_point begin) {
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
  TSLB_DLOG(LOG_PROGRESS, "%s, %llu bytes, %.3f s", what.c_str(), static_cast<unsigned long long>(info.bytes), seconds);
  print(fmt::format("{}: generation {}, {} bytes, {:.3f} s\n", what, info.generation, info.bytes, seconds));
}

// Prints the server's answer.
int backup_of_server(const BackupArguments &arguments) {
  const std::string target =
      fmt::format("/backup?name={}&db={}", url_encoded(arguments.to), url_encoded(arguments.database));
  print(answer_of_server(arguments.server, target));
  return EXIT_GOOD;
}

}  // namespace

int backup(const BackupArguments &arguments) {
  check_server_or_db(arguments.server, arguments.db);
  if (!arguments.server.addresses.empty()) return backup_of_server(arguments);
  const auto begin = std::chrono::steady_clock::now();
  print_backup("backup           " + arguments.to, backup_database(arguments.db, arguments.to), begin);
  return EXIT_GOOD;
}

int restore(const RestoreArguments &arguments) {
  const auto begin = std::chrono::steady_clock::now();
  print_backup("restored         " + arguments.db, restore_backup(arguments.from, arguments.db), begin);
  return EXIT_GOOD;
}

}  // namespace metricdb
