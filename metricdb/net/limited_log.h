// Lines of the log that clients cause, limited in rate so that they neither fill the disk nor hide others.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

namespace metricdb {

enum class LogTopic { connections, skipped_lines, refusals, slow_requests, denials };

// Threads: one.
class LimitedLog {
 public:
  using Clock = std::chrono::steady_clock;

  // max_lines  for each topic in an interval.
  LimitedLog(size_t max_lines, Clock::duration interval) : max_lines_(max_lines), interval_(interval) {}

  void add(LogTopic topic, Clock::time_point now, const std::string &line);

  // Reports how many lines were left out in the intervals that have ended.
  void end_intervals(Clock::time_point now);
  // The same for all intervals.
  void end() { end_intervals(Clock::time_point::max()); }

 private:
  struct Topic {
    Clock::time_point begin = {};
    size_t n_lines = 0;  // since then
    uint64_t n_left_out = 0;
  };

  void end_interval(size_t number);

  const size_t max_lines_;
  const Clock::duration interval_;
  std::array<Topic, 5> topics_;
};

}  // namespace metricdb
