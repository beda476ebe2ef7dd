#include "cli/service_manager.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string_view>

#ifdef METRICDB_SYSTEMD
#include <systemd/sd-daemon.h>
#endif

namespace metricdb {
namespace {

// How long the opening may take between two percents: the last one includes the checks and the index.
constexpr const char *MORE_TIME = "EXTEND_TIMEOUT_USEC=600000000";

#ifdef METRICDB_SYSTEMD
void notify(const std::string &lines) {
  sd_notify(0, lines.c_str());  // a manager that does not listen changes nothing
}

bool is_watched() {
  return sd_watchdog_enabled(0, nullptr) > 0;
}

void take_socket(int &place, int fd, std::string_view name) {
  if (place >= 0)
    throw std::runtime_error(fmt::format("the service manager passed two sockets with the name \"{}\"", name));
  if (sd_is_socket(fd, AF_UNSPEC, SOCK_STREAM, 1) <= 0)
    throw std::runtime_error(fmt::format("the passed socket \"{}\" is not a listening stream socket", name));
  place = fd;
}
#else
void notify(const std::string &) {}

bool is_watched() {
  return false;
}
#endif

}  // namespace

#ifdef METRICDB_SYSTEMD
const bool KNOWS_SERVICE_MANAGER = true;

PassedSockets take_passed_sockets() {
  char **listed = nullptr;
  const int n = sd_listen_fds_with_names(1, &listed);
  const auto release = [](char **names) {
    for (char **name = names; names != nullptr && *name != nullptr; ++name) std::free(*name);
    std::free(names);
  };
  const std::unique_ptr<char *, decltype(release)> names(listed, release);
  PassedSockets sockets;
  for (int i = 0; i < n; ++i) {
    const std::string_view name = listed[i];
    if (name != "influx" && name != "graphite")
      throw std::runtime_error(
          fmt::format("the passed socket \"{}\" needs FileDescriptorName=influx or FileDescriptorName=graphite", name));
    take_socket(name == "influx" ? sockets.influx : sockets.graphite, SD_LISTEN_FDS_START + i, name);
  }
  return sockets;
}
#else
const bool KNOWS_SERVICE_MANAGER = false;

PassedSockets take_passed_sockets() {
  return {};
}
#endif

std::string exposed_address_of(int socket) {
  sockaddr_storage bound = {};
  socklen_t bytes = sizeof bound;
  if (getsockname(socket, reinterpret_cast<sockaddr *>(&bound), &bytes) != 0) return "a passed socket";
  char text[INET6_ADDRSTRLEN] = "";
  if (bound.ss_family == AF_INET) {
    const in_addr &address = reinterpret_cast<const sockaddr_in &>(bound).sin_addr;
    if (ntohl(address.s_addr) >> 24 == IN_LOOPBACKNET) return "";
    return inet_ntop(AF_INET, &address, text, sizeof text);
  }
  if (bound.ss_family != AF_INET6) return "";
  const in6_addr &address = reinterpret_cast<const sockaddr_in6 &>(bound).sin6_addr;
  return IN6_IS_ADDR_LOOPBACK(&address) ? "" : inet_ntop(AF_INET6, &address, text, sizeof text);
}

ServiceNotices::ServiceNotices() : has_watchdog_(is_watched()) {}

void ServiceNotices::opening(uint64_t done_bytes, uint64_t all_bytes) {
  const double part = all_bytes == 0 ? 0 : static_cast<double>(done_bytes) / static_cast<double>(all_bytes);
  const int percent = static_cast<int>(100 * part);
  if (percent == last_percent_) return;
  last_percent_ = percent;
  notify(fmt::format("STATUS=opening the database, {} %\n{}", percent, MORE_TIME));
}

void ServiceNotices::ready(const std::string &status) const {
  notify("READY=1\nSTATUS=" + status);
}

void ServiceNotices::alive() const {
  if (has_watchdog_) notify("WATCHDOG=1");
}

void ServiceNotices::stopping() const {
  notify("STOPPING=1\nSTATUS=answering and closing the database");
}

}  // namespace metricdb
