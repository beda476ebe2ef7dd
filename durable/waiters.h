// Threads that wait for tickets: one of them writes groups, and the others wait for it.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace tslb_durable {

// A thread whose batch another one has written goes on at once, and its next batch is in the next group. If all waited for the
// lock under which groups are written, the thread that has just released it would often get it again, with a group of its own
// batch alone.
class Waiters {
 public:
  // Returns when `settled` has reached the ticket. `lock` guards `settled` and this object; it is held before and after, and
  // not during write(), which settles the ticket.
  template <class Write>
  void settle(std::unique_lock<std::mutex> &lock, const uint64_t &settled, uint64_t ticket, Write write) {
    static_assert(noexcept(write()), "the other threads would wait for ever");
    while (settled < ticket) {
      if (is_writing_) {
        written_.wait(lock, [&] { return settled >= ticket || !is_writing_; });
        continue;
      }
      is_writing_ = true;
      lock.unlock();
      write();
      lock.lock();
      is_writing_ = false;
      written_.notify_all();
    }
  }

 private:
  std::condition_variable written_;
  bool is_writing_ = false;
};

}  // namespace tslb_durable
