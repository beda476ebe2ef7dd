// One request to a server of this program.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

namespace metricdb {

// The server cannot be reached, or its answer is no HTTP. The message is one line.
class HttpClientError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct FetchedAnswer {
  int status;
  std::string body;
};

// Sends POST without a body, and returns the whole answer. Throws HttpClientError.
//
// server  "ADDRESS:PORT", an IPv4 address or a name.
// target  path and query, encoded.
// accept  the type that is preferred, such as application/csv.
FetchedAnswer fetch(const std::string &server, std::string_view target, std::string_view accept);

std::string url_encoded(std::string_view text);

}  // namespace metricdb
