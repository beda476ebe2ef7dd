#include "net/query_workers.h"

#include <fmt/format.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <exception>
#include <utility>

namespace metricdb {
namespace {

QueryAnswer refusal_with(const char *why) {
  return {HTTP_STATUS_SERVICE_UNAVAILABLE, "application/json", fmt::format("{{\"error\":\"{}\"}}\n", why), why};
}

}  // namespace

QueryWorkers::QueryWorkers(QueryFunction function, unsigned n_threads, size_t max_waiting,
                           std::chrono::milliseconds max_duration, std::atomic<size_t> &unread_bytes,
                           size_t max_unread_bytes)
    : function_(std::move(function)),
      max_waiting_(max_waiting),
      max_duration_(max_duration),
      unread_bytes_(unread_bytes),
      max_unread_bytes_(max_unread_bytes) {
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

QueryWorkers::Queries::const_iterator QueryWorkers::find(const Queries &queries, uint64_t id) {
  return std::find_if(queries.begin(), queries.end(), [id](const auto &query) { return query->id == id; });
}

bool QueryWorkers::submit(uint64_t id, QueryRequest request) {
  {
    const std::lock_guard lock(mutex_);
    if (waiting_.size() >= max_waiting_) return false;
    waiting_.push_back(std::make_shared<Query>(id, std::move(request)));
  }
  work_.notify_one();
  return true;
}

void QueryWorkers::interrupt(uint64_t id) {
  const std::lock_guard lock(mutex_);
  if (const auto running = find(running_, id); running != running_.end()) (*running)->is_interrupted = true;
  const auto waiting = find(waiting_, id);
  if (waiting == waiting_.end()) return;
  add_done({id, refusal_with("query interrupted"), QueryResult::interrupted, Clock::now() - (*waiting)->since});
  waiting_.erase(waiting);
  event_.raise();
}

// With the mutex locked.
void QueryWorkers::add_done(Done done) {
  unread_bytes_ += done.answer.body.size();
  done_.push_back(std::move(done));
}

QueryWorkers::Load QueryWorkers::load() const {
  const std::lock_guard lock(mutex_);
  return {waiting_.size(), running_.size()};
}

std::vector<QueryWorkers::Done> QueryWorkers::take_answers() {
  event_.drain();
  const std::lock_guard lock(mutex_);
  return std::exchange(done_, {});
}

QueryWorkers::Done QueryWorkers::answer(const Query &query) const {
  const auto end = Clock::now() + max_duration_;
  std::atomic<bool> was_interrupted = false;
  const auto is_interrupted = [&] {
    if (is_ending_ || query.is_interrupted || Clock::now() > end) was_interrupted = true;
    return was_interrupted.load();
  };
  // Queries that were admitted together can have long answers.
  if (unread_bytes_ > max_unread_bytes_)
    return {query.id, refusal_with("too many answers are not read, try again"), QueryResult::refused, {}};
  Done done = {query.id, {}, QueryResult::answered, {}};
  try {
    done.answer = function_(query.request, is_interrupted);
  } catch (const std::exception &error) {
    done.answer = {HTTP_STATUS_INTERNAL_SERVER_ERROR, "text/plain", std::string(error.what()) + "\n"};
  }
  if (done.answer.status != HTTP_STATUS_OK) done.result = QueryResult::failed;
  if (was_interrupted) done.result = QueryResult::interrupted;
  done.duration = Clock::now() - query.since;
  return done;
}

// Returns null at the end.
std::shared_ptr<QueryWorkers::Query> QueryWorkers::next() {
  std::unique_lock lock(mutex_);
  work_.wait(lock, [this] { return is_ending_ || !waiting_.empty(); });
  if (is_ending_) return nullptr;
  running_.push_back(std::move(waiting_.front()));
  waiting_.pop_front();
  return running_.back();
}

void QueryWorkers::run() {
  // Of this thread, and of those that it starts: points that arrive come first. Without the right it stays as it is.
  constexpr int LOWER_PRIORITY = 15;
  [[maybe_unused]] const int ignored = setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), LOWER_PRIORITY);
  while (const std::shared_ptr<Query> query = next()) {
    Done done = answer(*query);
    {
      const std::lock_guard lock(mutex_);
      running_.erase(find(running_, query->id));
      add_done(std::move(done));
    }
    event_.raise();
  }
}

}  // namespace metricdb
