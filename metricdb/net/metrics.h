// The figures of a server in the text format of Prometheus.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <string>

namespace metricdb {

struct DeniedRequests;
struct Hub;
class NatsSource;

// Counts durations by their length. Threads: one.
class DurationHistogram {
 public:
  static constexpr std::array<double, 14> LIMITS_S = {0.0005, 0.001, 0.0025, 0.005, 0.01, 0.025, 0.05,
                                                      0.1,    0.25,  0.5,    1,     2.5,  5,     10};

  void add(std::chrono::steady_clock::duration duration);
  // Appends the lines of the histogram, without HELP and TYPE.
  void append_to(std::string &text, const char *name) const;

 private:
  std::array<uint64_t, LIMITS_S.size() + 1> counts_ = {};
  double sum_s_ = 0;
};

// n_waiting_batches  committed and not settled.
// nats               null without messages of NATS.
std::string metrics_text(const Hub &hub, const DeniedRequests &denied, size_t n_waiting_batches,
                         const NatsSource *nats);

}  // namespace metricdb
