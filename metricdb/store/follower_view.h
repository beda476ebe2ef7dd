// What queries see of a follower: a state between two groups of batches, whole.
//
// While one reads, no group is applied (tslb_store_begin_reading). What a store keeps beside its arrays is brought up to date
// by the first who reads after a group, and once a second.
//
// A long query delays the following. So after reading that took long, following has a turn of the same length, in which
// further queries wait, until all is applied: queries take at most about half of the time.
//
// Threads: any.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include "store/durable_arrays.h"
#include "store/ingest.h"
#include "store/store.h"

namespace metricdb {

class FollowerView {
 public:
  // All of them outlive this object. The store is made from the arrays, and nobody else uses it before `end`.
  FollowerView(const DurableArrays &durable, bool retains_by_clock);
  ~FollowerView();
  FollowerView(const FollowerView &) = delete;
  FollowerView &operator=(const FollowerView &) = delete;

  // Begins to follow, with a store that was just made from the arrays by `make`.
  void begin(const std::function<Store &()> &make);

  // Throws DatabaseError if the store cannot be brought up to date.
  void read(const std::function<void(const Store &)> &use);

  // At most some seconds old; does not wait.
  IngestFigures figures() const;

  // The replica leads. Brings the store up to date for the last time, and calls `take_over` while nobody else begins to read.
  // From here on `read` only calls its function.
  void end(const std::function<void(Store &)> &take_over);
  bool is_over() const { return is_over_.load(std::memory_order_acquire); }

 private:
  using Clock = std::chrono::steady_clock;
  class Turn;

  void bring_up_to_date();
  void set_figures(const Store &store);
  void run();
  void stop();
  bool is_following_due();

  const DurableArrays &durable_;
  const bool retains_by_clock_;
  std::atomic<bool> is_over_ = false;

  std::mutex view_mutex_;  // held to bring the store up to date
  Store *store_ = nullptr;
  std::string seen_figures_;      // the payload. What the store keeps follows from it, and from the arrays
  uint64_t seen_generation_ = 0;  // a snapshot that is taken over begins one

  mutable std::mutex figures_mutex_;
  IngestFigures figures_;

  std::mutex turn_mutex_;  // guards the following members
  uint32_t n_reading_ = 0;
  Clock::time_point reading_since_, following_until_;
  bool is_ending_ = false;
  std::condition_variable ending_;
  std::thread thread_;
};

}  // namespace metricdb
