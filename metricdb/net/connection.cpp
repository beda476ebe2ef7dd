#include "net/connection.h"

#include <sys/epoll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <tslb/tslb_util_common.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "journal/log.h"

namespace metricdb {
namespace {

// Requests of one connection whose answers are outstanding, and answers that the peer has not read.
constexpr size_t MOST_OWED = 256;
constexpr size_t MOST_OUT_BYTES = size_t{64} << 10;

// One call's worth: what one peer may keep the others waiting for.
constexpr size_t MOST_READ_BYTES = size_t{4} << 20;

// At the end of the server nobody waits long for a peer that does not hang up.
constexpr std::chrono::milliseconds DRAIN_LEAVE{200};

bool is_for_now(int error) {
  return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

}  // namespace

IngestResult Hub::take(std::string_view text, Precision precision) {
  IngestResult taken;
  try {
    taken = ingest.take(text, precision);
  } catch (const IngestRefused &) {
    refused.add(1);
    throw;
  }
  points.add(taken.points);
  malformed.add(taken.malformed);
  if (taken.points == 0) return taken;
  has_open_points = true;
  unanswered_bytes += text.size();
  open_bytes += text.size();
  return taken;
}

Connection::Connection(int fd, Hub &hub)
    : fd_(fd), hub_(hub), input_(hub.blocks), last_heard_(hub.now), request_began_(hub.now) {}

Connection::~Connection() {
  hub_.closed.add(1);
  close(fd_);
}

void Connection::log(const std::string &what) const {
  TSLB_DLOG(LOG_REFUSALS, "%s: %s", tslb_get_dest_addr_ex(fd_, 1), what.c_str());
}

void Connection::give_up(const char *why) {
  if (!is_broken_) log(std::string(why) + "; connection closed");
  is_broken_ = true;
}

bool Connection::may_take() const {
  return !is_input_over_ && hub_.unanswered_bytes < hub_.options.max_unanswered_bytes &&
         owed_bytes_ < hub_.options.max_connection_bytes && owed_.size() < MOST_OWED && out_.size() < MOST_OUT_BYTES;
}

bool Connection::is_ready() const {
  return is_leaving_ ? is_readable_ : may_take() && (is_readable_ || is_deferred_);
}

bool Connection::is_held() const {
  return !is_input_over_ && !may_take() && (is_readable_ || is_deferred_);
}

void Connection::on_events(uint32_t events) {
  if ((events & (EPOLLIN | EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0) is_readable_ = true;
  if ((events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0) is_hung_up_ = true;
  if ((events & (EPOLLHUP | EPOLLERR)) != 0 && is_leaving_) is_broken_ = true;
}

void Connection::turn() {
  if (is_deferred_ && may_take()) {
    is_deferred_ = false;
    consume();
  }
  if (is_readable_ && may_take()) {
    receive();
    if (!input_.empty() || is_inside_request()) consume();
  }
  // Whatever the bounds left there is whole, or might be.
  is_deferred_ = !input_.empty() && !is_input_over_ && !may_take();
  if (is_leaving_) discard();
  pay(0, {});
}

void Connection::receive() {
  if (is_draining_ && drain_left_ == 0) return end_input();
  if (!input_.make_room(room_wanted())) return refuse_room();
  size_t most = std::min(input_.room(), MOST_READ_BYTES);
  if (is_draining_) most = std::min(most, drain_left_);
  const ssize_t got = recv(fd_, input_.tail(), most, 0);
  if (got > 0) {
    on_received(static_cast<size_t>(got));
    // Less than asked for was all there was; the next byte gives the next event, but an end ahead of it gave its own.
    if (static_cast<size_t>(got) < most && !is_hung_up_ && !is_draining_) is_readable_ = false;
    return;
  }
  input_.drop_front(0);
  if (got == 0) {
    is_peer_done_ = true;
    end_input();
    on_input_end();
  } else if (errno == EINTR) {
    return;
  } else if (is_for_now(errno)) {
    is_readable_ = false;
    if (is_draining_) end_input();
  } else {
    is_broken_ = true;
  }
}

void Connection::on_received(size_t n) {
  if (!is_inside_request() && input_.empty()) request_began_ = hub_.now;
  input_.append_room(n);
  last_heard_ = hub_.now;
  hub_.bytes.add(n);
  if (is_draining_) drain_left_ -= n;
}

void Connection::owe(Owed owed) {
  owed_bytes_ += owed.bytes;
  owed_.push_back(std::move(owed));
}

void Connection::committed(uint64_t ticket) {
  for (Owed &owed : owed_)
    if (owed.ticket == OPEN_TICKET) owed.ticket = ticket;
}

void Connection::settled(uint64_t ticket, const Refusals &refusals) {
  pay(ticket, refusals);
}

// Sends what is owed up to the first answer that has to wait.
void Connection::pay(uint64_t settled_ticket, const Refusals &refusals) {
  while (!owed_.empty() && owed_.front().ticket <= settled_ticket) {
    Owed &owed = owed_.front();
    const auto refusal = std::find_if(refusals.begin(), refusals.end(),
                                      [&](const auto &candidate) { return candidate.first == owed.ticket; });
    if (refusal != refusals.end()) {
      hub_.refused.add(1);
      refuse(owed, refusal->second);
    }
    owed_bytes_ -= owed.bytes;
    out_ += owed.text;
    owed_.pop_front();
  }
  send_out();
  if (is_input_over_ && !is_leaving_ && !is_owed() && !is_broken_) take_leave();
}

void Connection::send_out() {
  while (!out_.empty() && !is_broken_) {
    const ssize_t sent = send(fd_, out_.data() + out_sent_, out_.size() - out_sent_, MSG_NOSIGNAL);
    if (sent < 0) {
      is_broken_ = !is_for_now(errno);
      return;
    }
    last_heard_ = hub_.now;
    out_sent_ += static_cast<size_t>(sent);
    if (out_sent_ < out_.size()) continue;
    out_.clear();
    out_sent_ = 0;
  }
}

// A socket closed with unread bytes resets the connection, and the peer may lose the answers. So it hears of the end
// first, and what it still sends is thrown away until its own end comes, or time is up.
void Connection::take_leave() {
  int unread = 0;
  const bool hears_all = ioctl(fd_, FIONREAD, &unread) == 0 && unread == 0 && input_.empty() && !is_inside_request();
  if (is_draining_ && hears_all) is_peer_done_ = true;
  if (is_peer_done_) return;
  input_.drop_front(input_.size());
  if (shutdown(fd_, SHUT_WR) != 0) is_broken_ = true;
  is_leaving_ = true;
  is_readable_ = true;
  last_heard_ = request_began_ = hub_.now;
}

void Connection::discard() {
  if (!is_readable_) return;
  const ssize_t got = recv(fd_, nullptr, MOST_READ_BYTES, MSG_TRUNC);
  if (got == 0) is_peer_done_ = true;
  if (got < 0 && is_for_now(errno)) is_readable_ = false;
  if (got < 0 && !is_for_now(errno)) is_broken_ = true;
}

void Connection::check_time() {
  const Clock::duration silence = hub_.now - last_heard_;
  if (is_leaving_) {
    if (hub_.now - request_began_ > (is_draining_ ? DRAIN_LEAVE : hub_.options.request_timeout)) is_broken_ = true;
  } else if (out_.empty() && (!owed_.empty() || is_held() || is_ready())) {
    // It waits for us, and its time begins when we are done.
    last_heard_ = request_began_ = hub_.now;
  } else if (silence > hub_.options.idle_timeout) {
    give_up("idle");
  } else if (is_inside_request() && hub_.now - request_began_ > hub_.options.request_timeout) {
    give_up("a request did not come to its end");
  }
}

void Connection::drain() {
  int unread = 0;
  is_draining_ = true;
  drain_left_ = ioctl(fd_, FIONREAD, &unread) == 0 ? static_cast<size_t>(unread) : 0;
  is_readable_ = true;
}

}  // namespace metricdb
