#include "cli/server_access.h"

#include <fmt/format.h>

#include <cstdlib>
#include <fstream>
#include <stdexcept>

namespace metricdb {
namespace {

std::string password_of(const ServerAccess &access) {
  if (access.password_file.empty()) {
    const char *const password = std::getenv("METRICDB_PASSWORD");
    if (password == nullptr) throw std::runtime_error("--user needs --password-file or the variable METRICDB_PASSWORD");
    return password;
  }
  std::ifstream file(access.password_file);
  std::string password;
  if (!std::getline(file, password)) throw std::runtime_error(access.password_file + ": no line with a password");
  return password;
}

}  // namespace

void check_server_or_db(const ServerAccess &access, const std::string &db) {
  if (db.empty() == access.address.empty()) throw std::runtime_error("use either --db or --server");
  const bool has_access = !access.ca_file.empty() || !access.user.empty() || !access.password_file.empty();
  if (has_access && access.address.empty()) throw std::runtime_error("--ca, --user and --password-file need --server");
}

HttpServer http_server_of(const ServerAccess &access) {
  HttpServer server = {.address = access.address, .ca_file = access.ca_file, .user = access.user};
  if (!server.user.empty()) server.password = password_of(access);
  return server;
}

std::string answer_of_server(const ServerAccess &access, const std::string &target) {
  const FetchedAnswer answer = fetch(http_server_of(access), target, "application/json");
  const std::string text = answer.body.substr(0, answer.body.find_last_not_of('\n') + 1);
  if (answer.status != 200) throw std::runtime_error(fmt::format("{}: {}: {}", access.address, answer.status, text));
  return text + "\n";
}

}  // namespace metricdb
