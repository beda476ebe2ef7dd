// A listening port.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "net/descriptor.h"

namespace metricdb {

class Listener {
 public:
  // Listens on that port, or on any free port for 0; without a port it does nothing. Throws ServerError.
  //
  // passed  a listening socket that it owns from here on, in place of the port; -1: none.
  Listener(const std::string &address, std::optional<int> port, int passed = -1);

  int fd() const { return fd_.get(); }                    // -1: none
  int port() const { return fd_.get() < 0 ? 0 : port_; }  // 0 also for a socket without ports
  void close() { fd_.reset(); }

  // Accepts the next connection without blocking; the caller owns the descriptor. Returns -1 if there is none, or on an
  // error. `turned_away` is called before a connection is closed because the process has no more descriptors.
  int accept(const std::function<void(const char *why)> &turned_away);

 private:
  void listen(const std::string &address, int port);
  void take(int passed);
  void turn_away();

  Descriptor fd_;
  Descriptor spare_;  // closed to get a descriptor for a connection that is turned away
  int port_ = 0;
};

}  // namespace metricdb
