// One request to a server of this program.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

namespace metricdb {

// The server cannot be reached or is not the expected one, or its answer is no HTTP. The message is one line.
class HttpClientError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct FetchedAnswer {
  int status;
  std::string body;
  std::string error = {};  // of the server; also with status 200, if a statement failed
};

struct HttpServer {
  std::string address;        // ADDRESS:PORT, http://ADDRESS:PORT or https://ADDRESS:PORT; an IPv4 address or a name
  std::string ca_file = {};   // with https: authorities to trust; empty: those of the system
  std::string user = {};      // empty: no credentials
  std::string password = {};  // without https it is sent to loopback addresses only
};

// Sends a request without a body and returns the whole answer. Throws HttpClientError; TlsError for ca_file.
//
// target  path and query, encoded.
// accept  the type that is preferred, such as application/csv.
FetchedAnswer fetch(const HttpServer &server, std::string_view target, std::string_view accept,
                    std::string_view method = "POST");

std::string url_encoded(std::string_view text);

}  // namespace metricdb
