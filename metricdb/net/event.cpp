#include "net/event.h"

#include <fmt/format.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "net/server.h"

namespace metricdb {

Event::Event() : fd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (fd_.get() < 0) throw ServerError(fmt::format("eventfd: {}", std::strerror(errno)));
}

void Event::raise() noexcept {
  const uint64_t one = 1;
  // Fails only if the counter is at its maximum, and then the event is readable.
  [[maybe_unused]] const ssize_t written = write(fd_.get(), &one, sizeof one);
}

void Event::drain() noexcept {
  uint64_t n_raised;
  [[maybe_unused]] const ssize_t got = read(fd_.get(), &n_raised, sizeof n_raised);
}

}  // namespace metricdb
