// A place for lines that keeps them in memory and settles batches when the test says so.
#pragma once

#include <fmt/format.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <limits>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "ingest.h"

// Threads: the server's for what Ingest declares, any for the rest.
class FakeIngest : public metricdb::Ingest {
 public:
  FakeIngest() : fd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}
  ~FakeIngest() override { close(fd_); }

  metricdb::Taken take(std::string_view text, metricdb::Precision precision) override {
    const std::lock_guard lock(mutex_);
    if (!refusal_.empty()) throw metricdb::IngestRefused(refusal_);
    metricdb::LineParser parser(precision);
    metricdb::Taken taken;
    uint64_t number = 0;
    for (std::string_view line; metricdb::next_line(text, line);) {
      ++number;
      const auto outcome = parser.parse(line);
      if (outcome == metricdb::LineParser::Outcome::malformed && ++taken.malformed == 1)
        taken.first_reason = fmt::format("line {}: {}", number, parser.reason());
      if (outcome != metricdb::LineParser::Outcome::line) continue;
      taken.points += parser.line().fields.size();
      add_points(parser.line());
    }
    has_more_ = has_more_ || taken.points != 0;
    return taken;
  }

  uint64_t commit() override {
    const std::lock_guard lock(mutex_);
    if (std::exchange(has_more_, false)) ++ticket_;
    settle_some();
    return ticket_;
  }

  uint64_t settled() override {
    const std::lock_guard lock(mutex_);
    uint64_t count = 0;
    [[maybe_unused]] const ssize_t got = read(fd_, &count, sizeof(count));
    return settled_;
  }

  std::string failure(uint64_t ticket) override {
    const std::lock_guard lock(mutex_);
    const auto found = failures_.find(ticket);
    return found == failures_.end() ? std::string() : std::exchange(found->second, "asked for twice");
  }

  int settled_fd() const override { return fd_; }

  // No batch beyond this one is settled until more is allowed.
  void settle_up_to(uint64_t ticket) {
    const std::lock_guard lock(mutex_);
    allowed_ = ticket;
    settle_some();
  }
  void settle_all() { settle_up_to(std::numeric_limits<uint64_t>::max()); }

  void fail(uint64_t ticket, const std::string &reason) {
    const std::lock_guard lock(mutex_);
    failures_[ticket] = reason;
  }
  void refuse_all(const std::string &reason) {
    const std::lock_guard lock(mutex_);
    refusal_ = reason;
  }
  // Committed so far.
  uint64_t n_batches() const {
    const std::lock_guard lock(mutex_);
    return ticket_;
  }
  // Each taken point as `head key=value@time`, without the time if it has none.
  std::vector<std::string> points() const {
    const std::lock_guard lock(mutex_);
    return points_;
  }

 private:
  void add_points(const metricdb::ParsedLine &line) {
    for (const metricdb::ParsedField &field : line.fields) {
      std::string point = fmt::format("{} {}={}", line.head, field.key, field.value);
      if (line.ts_ns) point += fmt::format("@{}", *line.ts_ns);
      points_.push_back(std::move(point));
    }
  }
  void settle_some() {
    if (settled_ == std::min(ticket_, allowed_)) return;
    settled_ = std::min(ticket_, allowed_);
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t put = write(fd_, &one, sizeof(one));
  }

  const int fd_;
  mutable std::mutex mutex_;
  uint64_t ticket_ = 0;
  uint64_t settled_ = 0;
  uint64_t allowed_ = std::numeric_limits<uint64_t>::max();
  bool has_more_ = false;
  std::string refusal_;
  std::map<uint64_t, std::string> failures_;
  std::vector<std::string> points_;
};
