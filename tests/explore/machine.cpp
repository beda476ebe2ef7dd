#include "machine.h"

#include <stdio.h>
#include <string.h>

machine_t machine;

void machine_t::enter(void *argument) {
  machine.body_(static_cast<int>(reinterpret_cast<intptr_t>(argument)));
}

// A thread that waits for a lock runs once the lock is free. Its failed attempts change nothing and are left out.
bool machine_t::can_run(int thread) const {
  const thread_t &at = threads_[thread];
  if (at.fiber.has_ended()) return false;
  uint64_t word = 0;
  memcpy(&word, reinterpret_cast<const void *>(at.next.at), at.next.kind == OP_HOOK ? 0 : at.next.bytes);
  return (at.next.kind != OP_LOCK || word == 0) && (at.next.kind != OP_AWAIT || word != at.next.unwanted);
}

run_result_t machine_t::run(int n_threads, body_t body, scheduler_t *scheduler) {
  n_threads_ = n_threads;
  body_ = body;
  events_.clear();
  clocks.reset();
  op_t next[MAX_THREADS];
  // Each thread runs to its first operation.
  for (thread_ = 0; thread_ < n_threads && text_.empty(); ++thread_) {
    threads_[thread_].fiber.prepare(enter, reinterpret_cast<void *>(intptr_t{thread_}));
    threads_[thread_].fiber.resume();
  }
  run_result_t result = RUN_ENDED;
  while (text_.empty()) {
    choice_t choice = {n_threads, 0, next};
    bool all_ended = true;
    for (int i = 0; i < n_threads; ++i) {
      all_ended = all_ended && threads_[i].fiber.has_ended();
      if (can_run(i)) choice.enabled = static_cast<uint8_t>(choice.enabled | 1u << i);
      next[i] = threads_[i].next;
    }
    thread_ = -1;
    if (all_ended) break;
    if (choice.enabled == 0) {
      violation("every thread waits");
    } else if (static_cast<int>(events_.size()) >= step_limit) {
      violation("no end after %d steps", step_limit);
    } else if ((thread_ = scheduler->choose(choice)) < 0) {
      result = RUN_GIVEN_UP;
      break;
    } else {
      const int last = events_.empty() ? thread_ : events_.back().thread;
      const bool preempts = last != thread_ && (choice.enabled >> last & 1) != 0;
      events_.push_back({threads_[thread_].next, static_cast<uint8_t>(thread_), preempts, 0});
      threads_[thread_].fiber.resume();
    }
  }
  thread_ = -1;
  return text_.empty() ? result : RUN_VIOLATION;
}

// A thread that waits in a loop without a lock would make schedules without end.
void machine_t::notice_loop(thread_t *at) {
  constexpr int ENOUGH = 5;
  int n_same = 0;
  uint64_t value = 0;
  for (size_t i = events_.size(); i-- > 0 && n_same < ENOUGH;) {
    const event_t &event = events_[i];
    if (event.thread != thread_) continue;
    const bool is_same = event.op.kind == OP_LOAD && event.op.at == at->next.at && event.op.caller == at->next.caller;
    if (!is_same || (n_same != 0 && event.value != value)) return;
    value = event.value;
    ++n_same;
  }
  if (n_same < ENOUGH) return;
  at->next.kind = OP_AWAIT;
  at->next.unwanted = value;
}

bool machine_t::reach(const op_t &op) {
  if (thread_ < 0) return false;
  threads_[thread_].next = op;
  if (op.kind == OP_LOAD) notice_loop(&threads_[thread_]);
  threads_[thread_].fiber.yield();
  return true;
}

void machine_t::executed(uint64_t value, bool writes) {
  events_.back().value = value;
  events_.back().op.writes = writes;
}

void machine_t::violation(const char *format, ...) {
  if (!text_.empty()) return;
  char text[512];
  va_list values;
  va_start(values, format);
  vsnprintf(text, sizeof(text), format, values);
  va_end(values);
  text_ = text;
  if (thread_ >= 0) threads_[thread_].fiber.yield();  // and is never resumed
}
