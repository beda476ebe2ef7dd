// What the program says while it works: to standard output what was asked for, to a terminal how far it is.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace metricdb {

// An output that could not be written: a full disk must not look like success. With errno as it is.
[[noreturn]] void fail_output(const std::string &name);

// A line on stderr. Whatever becomes of it: there is nobody to tell.
void complain(const std::string &line);

// To standard output, now. Throws std::runtime_error.
void print(const std::string &text);

// A line on stderr that is written anew a few times a second, with the rate and the time that is left, once the work
// has taken a second. Nothing if stderr is no terminal.
class Progress {
 public:
  // total  of what `tell` counts; 0: not known.
  // unit   of what is shown as a rate: "points".
  Progress(uint64_t total, const char *unit);
  ~Progress();  // takes the line away
  Progress(const Progress &) = delete;
  Progress &operator=(const Progress &) = delete;

  // done   of the total.
  // count  of the unit, so far.
  void tell(uint64_t done, uint64_t count);

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
