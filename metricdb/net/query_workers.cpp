#include "net/query_workers.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <utility>

#include "net/server.h"

namespace metricdb {

QueryWorkers::QueryWorkers(QueryFunction function, unsigned n_threads, size_t max_waiting,
                           std::chrono::milliseconds max_duration)
    : function_(std::move(function)),
      max_waiting_(max_waiting),
      max_duration_(max_duration),
      event_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (event_.get() < 0) throw ServerError(std::string("eventfd: ") + std::strerror(errno));
  try {
    for (unsigned i = 0; function_ && i < n_threads; ++i) threads_.emplace_back([this] { run(); });
  } catch (...) {
    stop();
    throw;
  }
}

void QueryWorkers::stop() {
  {
    const std::lock_guard lock(mutex_);
    is_ending_ = true;
  }
  work_.notify_all();
  for (std::thread &thread : threads_) thread.join();
  threads_.clear();
}

bool QueryWorkers::submit(uint64_t id, QueryRequest request) {
  {
    const std::lock_guard lock(mutex_);
    if (waiting_.size() >= max_waiting_) return false;
    waiting_.push_back({id, std::move(request)});
  }
  work_.notify_one();
  return true;
}

std::vector<QueryWorkers::Done> QueryWorkers::take_answers() {
  uint64_t n_events;
  [[maybe_unused]] const ssize_t got = read(event_.get(), &n_events, sizeof n_events);  // before the answers are taken
  const std::lock_guard lock(mutex_);
  return std::exchange(done_, {});
}

QueryAnswer QueryWorkers::answer(const QueryRequest &request) const {
  const auto end = std::chrono::steady_clock::now() + max_duration_;
  const auto is_interrupted = [&] { return is_ending_ || std::chrono::steady_clock::now() > end; };
  try {
    return function_(request, is_interrupted);
  } catch (const std::exception &error) {
    return {HTTP_STATUS_INTERNAL_SERVER_ERROR, "text/plain", std::string(error.what()) + "\n"};
  }
}

void QueryWorkers::run() {
  for (;;) {
    Waiting waiting;
    {
      std::unique_lock lock(mutex_);
      work_.wait(lock, [this] { return is_ending_ || !waiting_.empty(); });
      if (is_ending_) return;
      waiting = std::move(waiting_.front());
      waiting_.pop_front();
    }
    QueryAnswer answered = answer(waiting.request);
    {
      const std::lock_guard lock(mutex_);
      done_.push_back({waiting.id, std::move(answered)});
    }
    const uint64_t one = 1;
    // Fails only if the counter is at its maximum, and then the event is readable.
    [[maybe_unused]] const ssize_t written = write(event_.get(), &one, sizeof one);
  }
}

}  // namespace metricdb
