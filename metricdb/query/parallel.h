// Work on several threads.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <exception>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

namespace metricdb {

// Calls work(i) for each i below n, on this thread and at most n_threads - 1 others, and returns when all calls have returned.
// Throws the first exception of a call; further calls are left out then. With fewer threads than wanted the rest do more.
template <class Work>
void parallel_for(size_t n, unsigned n_threads, Work work) {
  std::atomic<size_t> next{0};
  std::mutex mutex;
  std::exception_ptr failure;
  const auto run = [&] {
    for (size_t i; (i = next.fetch_add(1, std::memory_order_relaxed)) < n;) {
      try {
        work(i);
      } catch (...) {
        const std::lock_guard lock(mutex);
        if (!failure) failure = std::current_exception();
        next.store(n, std::memory_order_relaxed);
      }
    }
  };
  std::vector<std::jthread> threads;
  try {
    for (size_t i = 1; i < std::min<size_t>(n, n_threads); ++i) threads.emplace_back(run);
  } catch (const std::system_error &) {
  }
  run();
  threads.clear();
  if (failure) std::rethrow_exception(failure);
}

}  // namespace metricdb
