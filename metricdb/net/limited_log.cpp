#include "net/limited_log.h"

#include "store/log.h"

namespace metricdb {
namespace {

constexpr const char *TOPIC_NAMES[] = {"connections", "skipped lines", "refusals", "slow requests", "denied requests"};

}  // namespace

void LimitedLog::add(LogTopic topic, Clock::time_point now, const std::string &line) {
  end_intervals(now);
  Topic &counted = topics_[static_cast<size_t>(topic)];
  if (counted.n_lines == 0) counted.begin = now;
  if (counted.n_lines == max_lines_) {
    ++counted.n_left_out;
    return;
  }
  ++counted.n_lines;
  TSLB_DLOG(LOG_REFUSALS, "%s", line.c_str());
}

void LimitedLog::end_intervals(Clock::time_point now) {
  for (size_t number = 0; number < topics_.size(); ++number)
    if (topics_[number].n_lines != 0 && now - interval_ >= topics_[number].begin) end_interval(number);
}

void LimitedLog::end_interval(size_t number) {
  Topic &topic = topics_[number];
  if (topic.n_left_out != 0)
    TSLB_DLOG(LOG_REFUSALS, "%s: %llu further lines were left out", TOPIC_NAMES[number],
              static_cast<unsigned long long>(topic.n_left_out));
  topic = {};
}

}  // namespace metricdb
