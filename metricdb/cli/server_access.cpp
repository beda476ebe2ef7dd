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
  return password_in(access.password_file);
}

}  // namespace

std::string password_in(const std::string &file) {
  std::ifstream lines(file);
  std::string password;
  if (!std::getline(lines, password)) throw std::runtime_error(file + ": no line with a password");
  return password;
}

void check_server_or_db(const ServerAccess &access, const std::string &db) {
  if (db.empty() == access.addresses.empty()) throw std::runtime_error("use either --db or --server");
  const bool has_access = !access.ca_file.empty() || !access.user.empty() || !access.password_file.empty();
  if (has_access && access.addresses.empty())
    throw std::runtime_error("--ca, --user and --password-file need --server");
}

std::vector<HttpServer> http_servers_of(const ServerAccess &access) {
  const std::string password = access.user.empty() ? "" : password_of(access);
  std::vector<HttpServer> servers;
  for (const std::string &address : access.addresses)
    servers.push_back({address, access.ca_file, access.user, password});
  return servers;
}

std::string answer_of_server(const ServerAccess &access, const std::string &target) {
  const FetchedAnswer answer = fetch(http_servers_of(access)[0], target, "application/json");
  const std::string text = answer.body.substr(0, answer.body.find_last_not_of('\n') + 1);
  if (answer.status != 200)
    throw std::runtime_error(fmt::format("{}: {}: {}", access.addresses[0], answer.status, text));
  return text + "\n";
}

}  // namespace metricdb
