// A change of a store that another thread requests from the store's own thread (DatabaseWriter::request).
#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <utility>

#include "store/store.h"

namespace metricdb {

class StoreChange {
 public:
  // Does a part of the change, which takes a few milliseconds at most. Returns true when the change is complete. An
  // exception ends it.
  using Step = std::function<bool(Store &)>;

  explicit StoreChange(Step step) : step_(std::move(step)) {}

  // Waits until the change is durable. Returns why it is not, in one line; empty if it is. A change that fails can be made
  // in part. If is_interrupted returns true, the parts that were not made yet are left out. Any thread.
  std::string wait(const std::function<bool()> &is_interrupted);

 private:
  friend class DatabaseWriter;

  void end(const std::string &failure);
  bool is_over() const;

  Step step_;  // the store's thread
  mutable std::mutex mutex_;
  std::condition_variable ended_;
  bool is_over_ = false;
  std::string failure_;
};

}  // namespace metricdb
