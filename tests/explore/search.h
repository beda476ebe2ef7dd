// Searches the schedules of a program, depth first.
//
// Without a bound: dynamic partial order reduction with source sets and sleep sets (Abdulla, Aronis, Jonsson, Sagonas:
// Optimal dynamic partial order reduction, POPL 2014, the algorithm Source-DPOR). Two schedules that differ only in the
// order of independent operations (operation.h) are one trace. At least one schedule of every trace is run.
//
// With a bound: every schedule with at most that many preemptions. A preemption is a switch away from a thread that could
// go on.
#ifndef TSLB_EXPLORE_SEARCH_H
#define TSLB_EXPLORE_SEARCH_H

#include <stdint.h>

#include <functional>
#include <string>
#include <vector>

#include "machine.h"

constexpr int NO_BOUND = -1;

// A schedule as text: a letter for the thread and the number of its steps, "a3b1a2".
using schedule_t = std::vector<uint8_t>;
std::string text_of(const schedule_t &schedule);
bool parse_schedule(const std::string &text, schedule_t *schedule);

struct search_result_t {
  uint64_t n_schedules = 0;  // run to the end
  uint64_t n_given_up = 0;   // equivalent to one that was run
  bool is_complete = false;  // every trace, or every schedule within the bound
  bool has_violation = false;
  std::string violation;
  schedule_t schedule;  // of the violation
  int n_preemptions = 0;
};

struct search_options_t {
  int bound = NO_BOUND;
  bool reduces = true;  // false: every schedule
  uint64_t limit = UINT64_MAX;
};

// One run of the program under a scheduler: restores the start, runs, and audits the end. A violation is in the machine.
using run_t = std::function<run_result_t(scheduler_t *)>;

search_result_t search(const run_t &run, const search_options_t &options);

// Runs one schedule, then prefers the thread that ran last.
search_result_t replay(const run_t &run, const schedule_t &schedule);

// Looks for a violation with fewer preemptions than in the one found.
search_result_t minimal(const run_t &run, const search_result_t &found, uint64_t limit);

#endif
