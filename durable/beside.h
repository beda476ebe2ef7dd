// Work beside the calling thread.
#pragma once

#include <future>
#include <system_error>
#include <utility>

namespace tslb_durable {

// Runs `work` on another thread; at `get` if it is not worth one, or if no thread can be created. The destructor of the
// result waits for a thread. Work that has no thread is then not done.
template <class Work>
auto run_beside(bool is_worth_a_thread, Work work) -> std::future<decltype(work())> {
  if (is_worth_a_thread) {
    try {
      return std::async(std::launch::async, work);
    } catch (const std::system_error &) {
      // The caller does the work.
    }
  }
  return std::async(std::launch::deferred, std::move(work));
}

}  // namespace tslb_durable
