// An event that threads and signal handlers raise, and that a thread waits for with epoll or poll.
#pragma once

#include "net/descriptor.h"

namespace metricdb {

class Event {
 public:
  // Throws ServerError.
  Event();

  // Threads: any, also signal handlers.
  void raise() noexcept;
  // Resets it. Called before what the event announces is read, so that nothing is missed.
  void drain() noexcept;
  // Readable from `raise` to `drain`.
  int fd() const { return fd_.get(); }

 private:
  const Descriptor fd_;
};

}  // namespace metricdb
