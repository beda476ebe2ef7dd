// Threads that start together.
#ifndef TSLB_TESTS_THREADS_H
#define TSLB_TESTS_THREADS_H

#include <atomic>
#include <thread>
#include <vector>

// Runs work(0) to work(n - 1), each on its own thread, all released at the same moment.
template <class Work>
void on_threads(int n, Work work) {
  std::vector<std::thread> threads;
  std::atomic<int> ready{0};
  for (int i = 0; i < n; ++i) {
    threads.emplace_back([&, i] {
      ready.fetch_add(1);
      while (ready.load() < n) {
      }
      work(i);
    });
  }
  for (auto &thread : threads) thread.join();
}

#endif
