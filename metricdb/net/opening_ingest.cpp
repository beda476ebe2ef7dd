#include "net/opening_ingest.h"

#include <fmt/format.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>

#include <cerrno>
#include <cstring>

#include "net/server.h"

namespace metricdb {
namespace {

void watch_input(int epoll_fd, int fd) {
  epoll_event event = {};
  event.events = EPOLLIN;
  if (epoll_ctl(epoll_fd, EPOLL_CTL_ADD, fd, &event) != 0)
    throw ServerError(fmt::format("epoll: {}", std::strerror(errno)));
}

}  // namespace

OpeningIngest::OpeningIngest() : wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)), events_(epoll_create1(EPOLL_CLOEXEC)) {
  watch_input(events_.get(), wake_.get());
}

void OpeningIngest::set_ready(Ingest &ingest) {
  watch_input(events_.get(), ingest.settled_fd());
  ready_.store(&ingest, std::memory_order_release);
  const uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = write(wake_.get(), &one, sizeof(one));
}

void OpeningIngest::set_progress(uint64_t done_bytes, uint64_t all_bytes) {
  if (all_bytes != 0)
    percent_ = static_cast<unsigned>(100.0 * static_cast<double>(done_bytes) / static_cast<double>(all_bytes));
}

std::string OpeningIngest::starting() const {
  return fmt::format("starting: the database is being opened, {} % are read", percent_.load());
}

IngestResult OpeningIngest::take(std::string_view text, Precision precision) {
  if (!is_ready()) throw IngestRefused(starting());
  return ready()->take(text, precision);
}

IngestResult OpeningIngest::take_for(const std::string &database, std::string_view text, Precision precision) {
  if (!is_ready()) throw IngestRefused(starting());
  return ready()->take_for(database, text, precision);
}

uint64_t OpeningIngest::commit() {
  return is_ready() ? ready()->commit() : 0;
}

uint64_t OpeningIngest::settled() {
  uint64_t n_events;
  [[maybe_unused]] const ssize_t got = read(wake_.get(), &n_events, sizeof(n_events));
  return is_ready() ? ready()->settled() : 0;
}

std::string OpeningIngest::failure(uint64_t ticket) {
  return is_ready() ? ready()->failure(ticket) : "";
}

std::vector<std::pair<std::string, IngestFigures>> OpeningIngest::figures_of_all() {
  return is_ready() ? ready()->figures_of_all() : Ingest::figures_of_all();
}

IngestFigures OpeningIngest::figures() {
  return is_ready() ? ready()->figures() : IngestFigures();
}

std::string OpeningIngest::why_not_writable() {
  return is_ready() ? ready()->why_not_writable() : starting();
}

}  // namespace metricdb
