// Mutexes and condition variables of the explored program, under the names that objcopy gives their functions. A mutex is
// a lock in its first two bytes. The first eight bytes of a condition variable are two for each thread: 1 while it waits.
// No wake-up is spurious.
#include <stdint.h>

#include <condition_variable>

#include "access.h"
#include "machine.h"

#define CALLER __builtin_return_address(0)

static void lock(void *mutex, const void *caller) {
  swap_lock(static_cast<uint16_t *>(mutex), 0, 1, caller);
}
static void unlock(void *mutex, const void *caller) {
  swap_lock(static_cast<uint16_t *>(mutex), 1, 0, caller);
}

extern "C" {

int explored_mutex_lock(void *mutex) {
  lock(mutex, CALLER);
  return 0;
}
int explored_mutex_unlock(void *mutex) {
  unlock(mutex, CALLER);
  return 0;
}
int explored_yield() {
  return 0;
}

void explored_wait(uint64_t *condition, std::unique_lock<std::mutex> *held) {
  const int thread = machine.thread();
  if (thread < 0) return machine.violation("a setup or a check waits");
  explore_store16(reinterpret_cast<uint16_t *>(condition) + thread, 1, CALLER);
  unlock(held->mutex(), CALLER);
  await_zero(reinterpret_cast<uint16_t *>(condition) + thread, CALLER);
  lock(held->mutex(), CALLER);
}

void explored_notify_all(uint64_t *condition) {
  exchange_zero(condition, CALLER);
}
// Which of several threads wakes up is not explored.
void explored_notify_one(uint64_t *condition) {
  const uint64_t woken = exchange_zero(condition, CALLER);
  if ((woken & (woken - 1)) != 0) machine.violation("notify_one with several waiting threads");
}
}
