// Measures cost ratios. The library and the other candidates do the same work, one after the other, round after round,
// on the same threads, so that noise affects all of them. The result of a candidate is the median over the rounds of
// the library's time divided by the candidate's time: 1.00 means equal, above 1.00 the library is slower. Google
// Benchmark runs and filters the cases (--benchmark_filter=REGEX); the table is Markdown.
#ifndef TSLB_BENCH_RATIO_H
#define TSLB_BENCH_RATIO_H

#include <stdint.h>

#include <functional>
#include <string>
#include <vector>

// A column of the table.
struct candidate_t {
  const char *name;
  // The timed work, called on all threads at once. Returns a checksum, which must be equal for all candidates of a
  // case.
  std::function<uint64_t(unsigned thread)> run;
  // Called before each run, untimed. May be empty.
  std::function<void()> prepare;
  // Called after each run, untimed: checks the results and returns a number that is added to the checksum. May be
  // empty.
  std::function<uint64_t()> verify = {};
};

constexpr unsigned ROUNDS = 61;

// True if the program was called with --quick: 3 rounds, to check that everything runs and agrees.
bool is_quick();

// With --count nothing is timed. Under callgrind the library and the floor of each case with one thread run twice, and
// the instructions of the second run go to a dump of their own. Its description names the row:
// table|case|candidate|operations. scripts/instructions reads the dumps.

// Starts a new table for the cases added after this call.
void begin_table(const char *title);

// Adds a row to the table. `make` is called before the row runs, and its result is destroyed after it. The library
// comes first. The names of the candidates are the same in all cases of a table. `operations` is the number of
// operations of a run on all threads together; a column shows the library's median time for one.
void add_case(const std::string &name, unsigned threads, std::function<std::vector<candidate_t>()> make,
              uint64_t operations);

// Runs the cases and prints the tables. The first one has this title. Returns main's result: not 0 if checksums differ,
// or if a filter left no case. `add_cases` may add none after printing the reason.
int run_cases(int argc, char **argv, const char *title, void (*add_cases)());

#endif
