#include "net/listener.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <tslb/tslb_util_common.h>

#include <cerrno>
#include <cstring>
#include <string_view>

#include "net/server.h"

namespace metricdb {
namespace {

constexpr int BACKLOG = 1024;
constexpr size_t LISTEN_MESSAGE_BYTES = 512;

int open_spare() {
  return open("/dev/null", O_RDONLY | O_CLOEXEC);
}

}  // namespace

Listener::Listener(const std::string &address, std::optional<int> port, int passed) {
  if (passed >= 0)
    take(passed);
  else if (port)
    listen(address, *port);
  else
    return;
  spare_.reset(open_spare());
  // Not blocking, because a client may disconnect before it is accepted.
  if (spare_.get() < 0 || fcntl(fd_.get(), F_SETFL, O_NONBLOCK) != 0 || fcntl(fd_.get(), F_SETFD, FD_CLOEXEC) != 0)
    throw ServerError(fmt::format("{}:{}: {}", address, port_, std::strerror(errno)));
}

void Listener::listen(const std::string &address, int port) {
  port_ = port;
  char message[LISTEN_MESSAGE_BYTES] = "";
  fd_.reset(tslb_tcp_listen(&port_, BACKLOG, address.c_str(), message));
  const std::string_view text(message);
  if (fd_.get() < 0)
    throw ServerError(fmt::format("{}:{}: {}", address, port, text.substr(0, text.find_last_not_of('\n') + 1)));
}

void Listener::take(int passed) {
  fd_.reset(passed);
  sockaddr_storage bound = {};
  socklen_t bytes = sizeof bound;
  if (getsockname(passed, reinterpret_cast<sockaddr *>(&bound), &bytes) != 0)
    throw ServerError(fmt::format("a passed socket: {}", std::strerror(errno)));
  if (bound.ss_family == AF_INET) port_ = ntohs(reinterpret_cast<const sockaddr_in &>(bound).sin_port);
  if (bound.ss_family == AF_INET6) port_ = ntohs(reinterpret_cast<const sockaddr_in6 &>(bound).sin6_port);
}

int Listener::accept(const std::function<void(const char *why)> &turned_away) {
  for (;;) {
    const int fd = accept4(fd_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd >= 0) return fd;
    if (errno == EMFILE || errno == ENFILE) {
      turned_away("no descriptor is left");
      turn_away();
      return -1;
    }
    if (errno != EINTR && errno != ECONNABORTED) return -1;
  }
}

// If the connection stayed in the queue, it would cause an event again and again.
void Listener::turn_away() {
  spare_.reset();
  Descriptor(accept4(fd_.get(), nullptr, nullptr, SOCK_CLOEXEC)).reset();
  spare_.reset(open_spare());
}

}  // namespace metricdb
