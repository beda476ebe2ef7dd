// The host's atomics, defined by the program that includes this header. A test can run another thread's work directly
// before one of them.
#ifndef TSLB_TESTS_FORCED_H
#define TSLB_TESTS_FORCED_H

#include <stdint.h>

#include <functional>
#include <thread>
#include <utility>

#include <tslb/tslb_atomics.h>

// Work that runs once, when `word` is about to be changed. It is armed while no other thread uses the library.
struct injection_t {
  const void *word = nullptr;
  std::function<void()> work;

  template <class Work>
  void arm(const void *at, Work then) {
    word = at;
    work = then;
  }
  void meet(const void *at) {
    if (word == nullptr || at != word) return;
    word = nullptr;
    std::exchange(work, {})();
  }
};
inline injection_t before_addition, before_lock, before_swap;
inline thread_local unsigned n_lock_swaps;  // of this thread, releases included
// If set, additions yield the processor from time to time. This widens the window between a reservation and its
// counter.
inline bool additions_yield = false;

extern "C" int32_t cas16(uint16_t *word, uint16_t expected, uint16_t desired) {
  ++n_lock_swaps;
  if (desired != 0) before_lock.meet(word);
  return __atomic_compare_exchange_n(word, &expected, desired, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
}
extern "C" int32_t cas64(uint64_t *word, uint64_t expected, uint64_t desired) {
  before_swap.meet(word);
  return __atomic_compare_exchange_n(word, &expected, desired, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
}
extern "C" uint32_t get_and_inc32(uint32_t *word, uint32_t amount) {
  static thread_local uint32_t turns;
  if (additions_yield && ++turns % 16 == 0) std::this_thread::yield();
  before_addition.meet(word);
  return __atomic_fetch_add(word, amount, __ATOMIC_SEQ_CST);
}
extern "C" uint64_t get_and_inc64(uint64_t *word, uint64_t amount) {
  return __atomic_fetch_add(word, amount, __ATOMIC_SEQ_CST);
}

#endif
