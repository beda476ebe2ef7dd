// The owner of a file descriptor.
#pragma once

#include <unistd.h>

namespace metricdb {

// A file descriptor that is closed with its owner; -1 for none.
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

}  // namespace metricdb
