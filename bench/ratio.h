// How a question about cost is measured: the library's way of doing a piece of work and its rivals' ways, one
// after the other, round after round, on the same threads. A noisy moment hits all of them. The result of a
// rival is the median over the rounds of the library's time divided by the rival's: 1.00 is a draw, above it
// the library is slower. Google Benchmark runs and filters the cases (--benchmark_filter=REGEX); the table is
// Markdown.
#ifndef TSLB_BENCH_RATIO_H
#define TSLB_BENCH_RATIO_H

#include <stdint.h>

#include <functional>
#include <string>
#include <vector>

// A column of the table.
struct rival_t {
  const char *name;
  // The work, timed; called on every thread at once. Returns a checksum, which all rivals of a case agree on.
  std::function<uint64_t(unsigned thread)> run;
  // Ahead of each run, untimed. May be empty.
  std::function<void()> prepare;
  // Behind each run, untimed: looks at what the run left, and its result joins the checksum. May be empty.
  std::function<uint64_t()> verify = {};
};

constexpr unsigned ROUNDS = 61;

// True if the program was called with --quick: 3 rounds, to see that everything runs and agrees.
bool is_quick();

// With --count nothing is timed. Under callgrind the library and the floor of each case with one thread run once more
// after a first run, and the instructions of that run go to a dump of their own, whose description names the row:
// table|case|rival|operations. scripts/instructions reads them.

// Cases added from here on stand in a table of their own.
void begin_table(const char *title);

// A row of the table. `make` is called when the row's turn comes, and what it returns is released behind it.
// The library comes first; the rivals' names are those of every other case of the table. `operations` make up a
// run on all threads together: the library's median time for one is a column.
void add_case(const std::string &name, unsigned threads, std::function<std::vector<rival_t>()> make,
              uint64_t operations);

// Runs the cases and prints the tables, of which the first has this title. The result is main's: not 0 if
// checksums differ, or if a filter left nothing. `add_cases` may add none, when it has said why.
int run_cases(int argc, char **argv, const char *title, void (*add_cases)());

#endif
