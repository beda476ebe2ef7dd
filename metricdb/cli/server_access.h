// How a command reaches running servers.
#pragma once

#include <string>
#include <vector>

#include "net/http_client.h"

namespace metricdb {

struct ServerAccess {
  std::vector<std::string> addresses;  // as in HttpServer; empty: no server
  std::string ca_file, user;           // as in HttpServer
  std::string password_file;           // empty: the variable METRICDB_PASSWORD
};

// Returns the first line of a file. Throws std::runtime_error.
std::string password_in(const std::string &file);

// Throws std::runtime_error if both a server and a folder are named, or none of them, or what only a server needs.
void check_server_or_db(const ServerAccess &access, const std::string &db);

// Sends a POST request, and returns the line of JSON that is the answer. Throws std::runtime_error for another status than
// 200.
std::string answer_of_server(const ServerAccess &access, const std::string &target);

// Reads the password. Throws std::runtime_error.
std::vector<HttpServer> http_servers_of(const ServerAccess &access);

}  // namespace metricdb
