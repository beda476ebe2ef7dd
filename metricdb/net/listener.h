// A port that connections come to.
#pragma once

#include <unistd.h>

#include <functional>
#include <optional>
#include <string>

namespace metricdb {

// Closed with its owner; -1 for none.
class Descriptor {
 public:
  explicit Descriptor(int fd = -1) : fd_(fd) {}
  ~Descriptor() { reset(); }
  Descriptor(const Descriptor &) = delete;
  Descriptor &operator=(const Descriptor &) = delete;

  int get() const { return fd_; }
  void reset(int fd = -1) {
    if (fd_ >= 0) close(fd_);
    fd_ = fd;
  }

 private:
  int fd_;
};

class Listener {
 public:
  // On that port, or any that is free for 0; without a port there is nothing to hear. Throws ServerError.
  Listener(const std::string &address, std::optional<int> port);

  int fd() const { return fd_.get(); }  // -1: none
  int port() const { return fd_.get() < 0 ? 0 : port_; }
  void close() { fd_.reset(); }

  // The next that waits, not blocking and with its owner from here on. -1: nobody, or none that could be had now.
  // For each that had to be closed at once, since the process may not open more, `turned_away` is called first.
  int accept(const std::function<void(const char *why)> &turned_away);

 private:
  void turn_away();

  Descriptor fd_;
  Descriptor spare_;  // given up to have one for a connection that must be turned away
  int port_ = 0;
};

}  // namespace metricdb
