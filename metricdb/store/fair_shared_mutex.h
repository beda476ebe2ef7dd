// A shared mutex that a thread gets alone even if others share it again and again. That of the C library prefers those who
// share.
#pragma once

#include <mutex>
#include <shared_mutex>

namespace metricdb {

class FairSharedMutex {
 public:
  void lock() {
    const std::lock_guard turn(turn_);  // from here on no other thread begins to share
    mutex_.lock();
  }
  void unlock() { mutex_.unlock(); }
  void lock_shared() {
    const std::lock_guard turn(turn_);
    mutex_.lock_shared();
  }
  void unlock_shared() { mutex_.unlock_shared(); }

 private:
  std::mutex turn_;
  std::shared_mutex mutex_;
};

}  // namespace metricdb
