#include "net/connection.h"

#include <fmt/format.h>
#include <sys/epoll.h>
#include <tslb/tslb_util_common.h>

#include <algorithm>
#include <cerrno>

namespace metricdb {
namespace {

// Limits for the pending answers of one connection, and for the answers that the peer has not read.
constexpr size_t MAX_PENDING_ANSWERS = 256;
constexpr size_t MAX_OUT_BYTES = size_t{64} << 10;

// Limit of one call, so that one peer does not delay the others.
constexpr size_t MAX_READ_BYTES = size_t{4} << 20;

// During the shutdown of the server the time that a peer has to close its side.
constexpr std::chrono::milliseconds DRAIN_CLOSE_TIMEOUT{200};

bool is_temporary(int error) {
  return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

}  // namespace

std::optional<TlsContext> Hub::tls_of(const ServerOptions &options) {
  if (options.tls_certificate_file.empty()) return std::nullopt;
  return TlsContext::of_server(options.tls_certificate_file, options.tls_key_file);
}

std::vector<std::pair<std::string, IngestFigures>> Hub::figures_of_all() const {
  if (ingest != nullptr) return ingest->figures_of_all();
  return {{"", IngestFigures()}};
}

IngestResult Hub::take(const std::string &database, std::string_view text, Precision precision) {
  IngestResult result;
  try {
    if (ingest == nullptr) throw IngestRefused(why_not_writable());
    result = ingest->take_for(database, text, precision);
  } catch (const IngestRefused &) {
    refused.add(1);
    if (ingest != nullptr && !ingest->why_read_only().empty()) read_only.add(1);
    throw;
  }
  points.add(result.points);
  malformed.add(result.malformed);
  late.add(result.late);
  future.add(result.future);
  no_room.add(result.no_room);
  if (result.points == 0) return result;
  unanswered_bytes += text.size();
  open_bytes += text.size();
  return result;
}

std::string Hub::why_not_writable() const {
  if (ingest != nullptr) return ingest->why_not_writable();
  return fmt::format("starting: the database is being opened, {} % are read", opened_percent.load());
}

void Hub::count(const QueryWorkers::Done &done) {
  if (done.result == QueryResult::refused) return queries_refused.add(1);
  Counter &result = done.result == QueryResult::answered ? queries_answered
                    : done.result == QueryResult::failed ? queries_failed
                                                         : queries_interrupted;
  result.add(1);
  query_times.add(done.duration);
}

Connection::Connection(int fd, Hub &hub)
    : hub_(hub),
      transport_(fd, hub.tls ? &*hub.tls : nullptr),
      input_(hub.blocks),
      last_activity_(hub.now),
      request_begin_(hub.now) {}

Connection::~Connection() {
  hub_.closed.add(1);
  hub_.query_bytes -= query_bytes_;
}

void Connection::log(const std::string &what, LogTopic topic) const {
  hub_.log.add(topic, hub_.now, fmt::format("{}: {}", tslb_get_dest_addr_ex(fd(), 1), what));
}

void Connection::close_with_error(const char *why) {
  if (!is_finished()) log(std::string(why) + "; connection closed");
  phase_ = Phase::finished;
}

bool Connection::is_within_limits() const {
  return phase_ == Phase::receiving && hub_.unanswered_bytes < hub_.options.max_unanswered_bytes &&
         pending_bytes_ < hub_.options.max_connection_bytes && pending_.size() < MAX_PENDING_ANSWERS &&
         out_.size() < MAX_OUT_BYTES;
}

bool Connection::is_ready() const {
  return phase_ == Phase::closing ? is_readable_ : is_within_limits() && (is_readable_ || is_deferred_);
}

bool Connection::is_held() const {
  return phase_ == Phase::receiving && !is_within_limits() && (is_readable_ || is_deferred_);
}

void Connection::on_events(uint32_t events) {
  const bool is_unblocked = (events & EPOLLOUT) != 0 && transport_.receives_after_sending();
  if (is_unblocked || (events & (EPOLLIN | EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0) is_readable_ = true;
  if ((events & (EPOLLRDHUP | EPOLLHUP | EPOLLERR)) != 0) is_hung_up_ = true;
  if ((events & (EPOLLHUP | EPOLLERR)) != 0 && phase_ == Phase::closing) phase_ = Phase::finished;
}

void Connection::process() {
  if (is_deferred_ && is_within_limits()) {
    is_deferred_ = false;
    consume();
  }
  if (is_readable_ && is_within_limits()) {
    receive();
    if (!input_.empty() || is_inside_request()) consume();
  }
  // The limits left bytes that may be complete requests.
  is_deferred_ = !input_.empty() && phase_ == Phase::receiving && !is_within_limits();
  if (phase_ == Phase::closing) discard();
  if (is_hung_up_) on_hung_up();
  send_answers();
}

void Connection::receive() {
  if (drain_left_ == size_t{0}) return end_input();
  if (!input_.make_room(room_wanted())) return refuse_room();
  size_t max_bytes = std::min(input_.room(), MAX_READ_BYTES);
  if (is_draining()) max_bytes = std::min(max_bytes, *drain_left_);
  const ssize_t got = transport_.receive(input_.tail(), max_bytes);
  if (got > 0) {
    on_received(static_cast<size_t>(got));
    // The next byte causes an event. A pending close has caused its event already, so then it stays readable.
    if (transport_.is_emptied() && !is_hung_up_ && !is_draining()) is_readable_ = false;
    return;
  }
  input_.drop_front(0);
  if (got == 0) {
    is_hung_up_ = has_read_end_ = true;
    end_input();
    on_input_end();
  } else if (errno == EINTR) {
    return;
  } else if (is_temporary(errno)) {
    is_readable_ = false;
    if (is_draining()) end_input();
  } else {
    on_error();
  }
}

void Connection::on_error() {
  if (!transport_.tls_failure().empty()) {
    hub_.tls_failed.add(1);
    close_with_error(("TLS failed: " + transport_.tls_failure()).c_str());
  }
  phase_ = Phase::finished;
}

void Connection::on_received(size_t n) {
  if (!is_inside_request() && input_.empty()) request_begin_ = hub_.now;
  input_.append_room(n);
  last_activity_ = hub_.now;
  hub_.bytes.add(n);
  if (is_draining()) *drain_left_ -= n;
}

void Connection::queue(PendingAnswer answer) {
  pending_bytes_ += answer.bytes;
  answer.since = hub_.now;
  pending_.push_back(std::move(answer));
}

void Connection::committed(uint64_t ticket) {
  for (PendingAnswer &answer : pending_)
    if (answer.ticket == OPEN_TICKET) answer.ticket = ticket;
}

void Connection::settled(uint64_t ticket, const Refusals &refusals) {
  for (PendingAnswer &answer : pending_) {
    if (answer.ticket == 0 || answer.ticket > ticket) continue;
    const auto refusal = std::find_if(refusals.begin(), refusals.end(), [&](const Refusal &candidate) {
      return candidate.ticket == answer.ticket && (candidate.database.empty() || candidate.database == answer.database);
    });
    if (refusal != refusals.end()) {
      hub_.refused.add(1);
      hub_.lost.add(1);
      refuse(answer, refusal->reason);
    }
    answer.ticket = 0;
  }
  send_answers();
}

void Connection::answered(uint64_t query, const QueryAnswer &answer) {
  for (PendingAnswer &pending : pending_) {
    if (pending.query != query) continue;
    pending.text = text_of(query, answer);
    query_bytes_ += pending.query_bytes = answer.body.size();
    pending.ticket = pending.query = 0;
  }
  send_answers();
}

void Connection::check_speed(const PendingAnswer &answer) {
  const Clock::duration duration = hub_.now - answer.since;
  if (duration <= hub_.options.slow_request) return;
  hub_.slow.add(1);
  log(fmt::format("a request with {} bytes of lines was answered after {:.3f} s", answer.bytes,
                  std::chrono::duration<double>(duration).count()),
      LogTopic::slow_requests);
}

// Sends the answers up to the first one that waits for its batch or its query.
void Connection::send_answers() {
  while (!pending_.empty() && pending_.front().ticket == 0) {
    check_speed(pending_.front());
    pending_bytes_ -= pending_.front().bytes;
    out_query_bytes_ += pending_.front().query_bytes;
    out_ += pending_.front().text;
    pending_.pop_front();
  }
  send_out();
  if (phase_ == Phase::answering && !has_pending()) begin_close();
}

void Connection::send_out() {
  while (!out_.empty() && !is_finished()) {
    const ssize_t sent = transport_.send(out_.data() + out_sent_, out_.size() - out_sent_);
    if (sent < 0) {
      if (!is_temporary(errno)) phase_ = Phase::finished;
      return;
    }
    last_activity_ = hub_.now;
    out_sent_ += static_cast<size_t>(sent);
    if (out_sent_ < out_.size()) continue;
    out_.clear();
    out_sent_ = 0;
    query_bytes_ -= out_query_bytes_;
    hub_.query_bytes -= std::exchange(out_query_bytes_, 0);
  }
}

// Closing a socket with unread bytes resets the connection, and the peer may lose the answers. So only the sending side
// is closed first, and received bytes are discarded until the peer closes its side or a time limit is reached.
void Connection::begin_close() {
  const bool has_read_all = transport_.unread_bytes() == 0 && input_.empty() && !is_inside_request();
  input_.drop_front(input_.size());
  const bool is_over = has_read_end_ || (is_draining() && has_read_all);
  phase_ = is_over || !transport_.end_sending() ? Phase::finished : Phase::closing;
  is_readable_ = true;
  last_activity_ = request_begin_ = hub_.now;
}

void Connection::discard() {
  if (!is_readable_) return;
  const ssize_t got = transport_.discard(MAX_READ_BYTES);
  if (got > 0) return;
  if (got < 0 && is_temporary(errno))
    is_readable_ = false;
  else
    phase_ = Phase::finished;
}

void Connection::check_time() {
  const Clock::duration silence = hub_.now - last_activity_;
  if (phase_ == Phase::closing) {
    if (hub_.now - request_begin_ > (is_draining() ? DRAIN_CLOSE_TIMEOUT : hub_.options.request_timeout))
      phase_ = Phase::finished;
  } else if (is_draining() && !out_.empty() && silence > hub_.options.drain_read_timeout) {
    close_with_error("the answers are not read");
  } else if (out_.empty() && (!pending_.empty() || is_held() || is_ready())) {
    // The peer waits for the server. Its time limit begins when the answers are sent.
    last_activity_ = request_begin_ = hub_.now;
  } else if (silence > hub_.options.idle_timeout) {
    close_with_error("idle");
  } else if (transport_.is_in_handshake() && hub_.now - request_begin_ > hub_.options.request_timeout) {
    close_with_error("the handshake of TLS was not completed in time");
  } else if (is_inside_request() && hub_.now - request_begin_ > hub_.options.request_timeout) {
    close_with_error("a request was not completed in time");
  }
}

Clock::duration Connection::stalled_for() const {
  const bool is_waited_for = is_inside_request() && phase_ == Phase::receiving && !is_readable_ && !is_deferred_;
  return is_waited_for && pending_.empty() && input_.capacity() != 0 ? hub_.now - last_activity_ : Clock::duration(0);
}

void Connection::drain() {
  last_activity_ = hub_.now;
  drain_left_ = transport_.unread_bytes();
  is_readable_ = true;
}

}  // namespace metricdb
