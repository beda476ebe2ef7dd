#include "store/store_change.h"

#include <chrono>

namespace metricdb {

std::string StoreChange::wait(const std::function<bool()> &is_interrupted) {
  constexpr std::chrono::milliseconds ASKED_EVERY{50};
  std::unique_lock lock(mutex_);
  while (!ended_.wait_for(lock, ASKED_EVERY, [this] { return is_over_; })) {
    lock.unlock();
    if (is_interrupted && is_interrupted()) end("interrupted; a part of the change may have been made");
    lock.lock();
  }
  return failure_;
}

void StoreChange::end(const std::string &failure) {
  const std::lock_guard lock(mutex_);
  if (std::exchange(is_over_, true)) return;
  failure_ = failure;
  ended_.notify_all();
}

bool StoreChange::is_over() const {
  const std::lock_guard lock(mutex_);
  return is_over_;
}

}  // namespace metricdb
