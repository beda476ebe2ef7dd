// The service manager that has started the process (systemd): the sockets that it passes, and the notices of the state that
// it gets.
//
// In a process that no such manager has started nothing is passed, and notices have no effect. The same in a program that
// was built without libsystemd.
#pragma once

#include <cstdint>
#include <string>

namespace metricdb {

// Whether the program was built with libsystemd.
extern const bool KNOWS_SERVICE_MANAGER;

// Listening sockets, which the caller owns; -1: none.
struct PassedSockets {
  int influx = -1;
  int graphite = -1;
};

// Takes the sockets with the names (FileDescriptorName=) "influx" and "graphite". Called once. Throws std::runtime_error for
// another or a repeated name, and for a descriptor that is not a listening stream socket.
PassedSockets take_passed_sockets();

// Returns the address of a socket, if other machines can reach it; empty for loopback addresses and Unix sockets.
std::string exposed_address_of(int socket);

// Notices for the manager. Any thread, except that `opening` is called by one.
class ServiceNotices {
 public:
  ServiceNotices();

  // The progress in the status; the manager gives the start more time.
  void opening(uint64_t done_bytes, uint64_t all_bytes);
  void ready(const std::string &status) const;
  // To be called regularly while the process works: for the manager's watchdog.
  void alive() const;
  void stopping() const;

 private:
  const bool has_watchdog_;
  int last_percent_ = -1;
};

}  // namespace metricdb
