#include "net/http_client.h"

#include <fmt/format.h>
#include <netdb.h>
#include <sys/socket.h>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <memory>

#include "net/descriptor.h"

namespace metricdb {
namespace {

[[noreturn]] void fail(const std::string &server, const char *why) {
  throw HttpClientError(fmt::format("{}: {}", server, why));
}

int connected(const std::string &server) {
  const size_t colon = server.rfind(':');
  if (colon == server.npos) fail(server, "not ADDRESS:PORT");
  addrinfo hints = {};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo *found = nullptr;
  const int error = getaddrinfo(server.substr(0, colon).c_str(), server.substr(colon + 1).c_str(), &hints, &found);
  if (error != 0) fail(server, gai_strerror(error));
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> addresses(found, freeaddrinfo);
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0 || connect(fd, addresses->ai_addr, addresses->ai_addrlen) != 0) {
    const int why = errno;
    if (fd >= 0) close(fd);
    fail(server, std::strerror(why));
  }
  return fd;
}

void send_all(const std::string &server, int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t sent = send(fd, text.data(), text.size(), MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) continue;
    if (sent < 0) fail(server, std::strerror(errno));
    text.remove_prefix(static_cast<size_t>(sent));
  }
}

std::string received(const std::string &server, int fd) {
  std::string text;
  char bytes[65536];
  for (;;) {
    const ssize_t got = recv(fd, bytes, sizeof bytes, 0);
    if (got == 0) return text;
    if (got > 0)
      text.append(bytes, static_cast<size_t>(got));
    else if (errno != EINTR)
      fail(server, std::strerror(errno));
  }
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
FetchedAnswer fetch(const std::string &server, std::string_view target, std::string_view accept) {
  const Descriptor connection(connected(server));
  send_all(server, connection.get(),
           fmt::format("POST {} HTTP/1.0\r\nAccept: {}\r\nContent-Length: 0\r\n\r\n", target, accept));
  const std::string text = received(server, connection.get());
  const size_t head_end = text.find("\r\n\r\n");
  if (!text.starts_with("HTTP/1.") || head_end == text.npos) fail(server, "the answer is no HTTP");
  return {std::atoi(text.c_str() + std::strlen("HTTP/1.1 ")), text.substr(head_end + 4)};
}

}  // namespace metricdb
