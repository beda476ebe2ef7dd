// Output of the program: results to standard output, progress to a terminal.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace metricdb {

// Throws an error about an output that could not be written, with the reason from errno.
[[noreturn]] void fail_output(const std::string &name);

// Prints a line on stderr. Errors are ignored.
void print_error(const std::string &line);

// Prints to standard output and flushes. Throws std::runtime_error. On a terminal control characters in names are
// replaced, here and in print_error.
void print(const std::string &text);

// The same, but ignores errors: for lines that nobody may read any more.
void print_if_read(const std::string &text);

// A line on stderr with the rate and the remaining time, updated a few times per second, once the work has taken a
// second. Nothing is printed if stderr is not a terminal.
class Progress {
 public:
  // total  amount of work for `update`; 0: unknown.
  // unit   of the number that is shown as a rate: "points".
  Progress(uint64_t total, const char *unit);
  ~Progress();  // removes the line
  Progress(const Progress &) = delete;
  Progress &operator=(const Progress &) = delete;

  // done   amount of finished work.
  // count  number of units so far.
  void update(uint64_t done, uint64_t count);

 private:
  using Clock = std::chrono::steady_clock;

  const uint64_t total_;
  const char *const unit_;
  const bool is_shown_;
  const Clock::time_point begin_ = Clock::now();
  Clock::time_point next_ = begin_ + std::chrono::seconds(1);
  bool has_line_ = false;
};

}  // namespace metricdb
