// Runs a scenario's threads one step at a time. A step is one operation (operation.h) and the code up to the next one.
#ifndef TSLB_EXPLORE_MACHINE_H
#define TSLB_EXPLORE_MACHINE_H

#include <stdarg.h>

#include <string>
#include <vector>

#include "arena.h"
#include "clocks.h"
#include "fiber.h"
#include "operation.h"

// What a search sees before each step.
struct choice_t {
  int n_threads;
  uint8_t enabled;  // one bit per thread that has a next operation and can execute it
  const op_t *next;
};

// Decides who goes on. Returns the thread, or -1 to give up this schedule.
class scheduler_t {
 public:
  virtual int choose(const choice_t &choice) = 0;

 protected:
  ~scheduler_t() = default;
};

enum run_result_t { RUN_ENDED, RUN_GIVEN_UP, RUN_VIOLATION };

class machine_t {
 public:
  using body_t = void (*)(int thread);

  // Starts the threads and runs them to their ends, or to a violation.
  run_result_t run(int n_threads, body_t body, scheduler_t *scheduler);

  // Called in a thread before its operation; returns once the search has chosen the thread. Returns false if no thread
  // runs (setup, audit): the operation is then executed at once.
  bool reach(const op_t &op);
  // Called after the operation of reach(): the value read or stored, and whether the word changed.
  void executed(uint64_t value, bool writes);

  // Ends the schedule. Returns only if no thread runs.
  __attribute__((format(printf, 2, 3))) void violation(const char *format, ...);
  bool has_violation() const { return !text_.empty(); }
  const std::string &text() const { return text_; }
  void clear_violation() { text_.clear(); }

  int thread() const { return thread_; }  // -1: none runs
  const std::vector<event_t> &events() const { return events_; }
  int step_limit = 3000;

  arena_t arena;
  clocks_t clocks{arena_t::BYTES};

 private:
  struct thread_t {
    fiber_t fiber;
    op_t next;
  };

  static void enter(void *argument);
  bool can_run(int thread) const;
  void notice_loop(thread_t *at);

  thread_t threads_[MAX_THREADS];
  int n_threads_ = 0;
  int thread_ = -1;
  body_t body_ = nullptr;
  std::vector<event_t> events_;
  std::string text_;
};

// The one machine of the process: the explored program reaches it through functions with given names.
extern machine_t machine;

#endif
