#include "net/http_client.h"

#include <fmt/format.h>
#include <netdb.h>
#include <netinet/in.h>
#include <openssl/evp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>

#include "net/transport.h"

namespace metricdb {
namespace {

[[noreturn]] void fail(const std::string &server, const char *why) {
  throw HttpClientError(fmt::format("{}: {}", server, why));
}

bool is_loopback(const addrinfo &address) {
  const auto *const ipv4 = reinterpret_cast<const sockaddr_in *>(address.ai_addr);
  return ntohl(ipv4->sin_addr.s_addr) >> 24 == IN_LOOPBACKNET;
}

// needs_privacy  whether the connection carries a password in clear.
int connected(const std::string &server, bool needs_privacy) {
  const size_t colon = server.rfind(':');
  if (colon == server.npos) fail(server, "not ADDRESS:PORT");
  addrinfo hints = {};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo *found = nullptr;
  const int error = getaddrinfo(server.substr(0, colon).c_str(), server.substr(colon + 1).c_str(), &hints, &found);
  if (error != 0) fail(server, gai_strerror(error));
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> addresses(found, freeaddrinfo);
  if (needs_privacy && !is_loopback(*addresses)) fail(server, "others could read the password; use https://");
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0 || connect(fd, addresses->ai_addr, addresses->ai_addrlen) != 0) {
    const int why = errno;
    if (fd >= 0) close(fd);
    fail(server, std::strerror(why));
  }
  return fd;
}

[[noreturn]] void fail(const std::string &server, const Transport &transport) {
  const char *const system = std::strerror(errno);
  fail(server, transport.tls_failure().empty() ? system : transport.tls_failure().c_str());
}

void send_all(const std::string &server, Transport &transport, std::string_view text) {
  while (!text.empty()) {
    const ssize_t sent = transport.send(text.data(), text.size());
    if (sent < 0 && errno == EINTR) continue;
    if (sent < 0) fail(server, transport);
    text.remove_prefix(static_cast<size_t>(sent));
  }
}

std::string received(const std::string &server, Transport &transport) {
  std::string text;
  char bytes[65536];
  for (;;) {
    const ssize_t got = transport.receive(bytes, sizeof bytes);
    if (got == 0) return text;
    if (got > 0)
      text.append(bytes, static_cast<size_t>(got));
    else if (errno != EINTR)
      fail(server, transport);
  }
}

std::string base64(const std::string &text) {
  std::string encoded((text.size() + 2) / 3 * 4 + 1, '\0');
  encoded.resize(static_cast<size_t>(EVP_EncodeBlock(reinterpret_cast<unsigned char *>(encoded.data()),
                                                     reinterpret_cast<const unsigned char *>(text.data()),
                                                     static_cast<int>(text.size()))));
  return encoded;
}

// Removes the scheme. Returns whether it is https.
bool remove_scheme(std::string &address) {
  const bool is_https = address.starts_with("https://");
  if (is_https || address.starts_with("http://")) address.erase(0, address.find("//") + 2);
  if (address.ends_with('/')) address.pop_back();
  return is_https;
}

// Returns the value of a header that this program's servers send; empty if there is none.
std::string header_of(std::string_view head, const char *name) {
  const std::string begin = fmt::format("\r\n{}: ", name);
  const size_t at = head.find(begin);
  if (at == head.npos) return "";
  head.remove_prefix(at + begin.size());
  return std::string(head.substr(0, head.find("\r\n")));
}

}  // namespace

std::string url_encoded(std::string_view text) {
  std::string encoded;
  for (const char byte : text)
    if (std::isalnum(static_cast<unsigned char>(byte)) != 0)
      encoded += byte;
    else
      encoded += fmt::format("%{:02X}", static_cast<unsigned char>(byte));
  return encoded;
}

// With HTTP/1.0 the server closes the connection after the answer.
FetchedAnswer fetch(const HttpServer &server, std::string_view target, std::string_view accept,
                    std::string_view method) {
  std::string address = server.address;
  const bool is_https = remove_scheme(address);
  std::optional<TlsContext> tls;
  if (is_https) tls = TlsContext::of_client(server.ca_file);
  Transport transport(connected(address, !is_https && !server.password.empty()), tls ? &*tls : nullptr,
                      address.substr(0, address.rfind(':')));
  std::string request = fmt::format("{} {} HTTP/1.0\r\nAccept: {}\r\nContent-Length: 0\r\n", method, target, accept);
  if (!server.user.empty())
    request += fmt::format("Authorization: Basic {}\r\n", base64(server.user + ':' + server.password));
  send_all(server.address, transport, request + "\r\n");
  const std::string text = received(server.address, transport);
  const size_t head_end = text.find("\r\n\r\n");
  if (!text.starts_with("HTTP/1.") || head_end == text.npos) fail(server.address, "the answer is no HTTP");
  const std::string_view head = std::string_view(text).substr(0, head_end);
  FetchedAnswer answer = {std::atoi(text.c_str() + std::strlen("HTTP/1.1 ")), text.substr(head_end + 4),
                          header_of(head, "X-Influxdb-Error")};
  // The end of a connection does not say that the answer is complete.
  const std::string length = header_of(head, "Content-Length");
  if (!length.empty() && std::strtoull(length.c_str(), nullptr, 10) != answer.body.size())
    fail(server.address, "the answer is incomplete");
  return answer;
}

}  // namespace metricdb
