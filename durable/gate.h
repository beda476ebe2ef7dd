// Lets batches in, and closes for the end of a group: then no batch is open.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace tslb_durable {

class Gate {
 public:
  // With more batches a change of a pool's slot could find no slot; see chunk_room.h.
  static constexpr uint32_t MAX_INSIDE = 64;

  void enter() {
    std::unique_lock lock(mutex_);
    opened_.wait(lock, [this] { return n_closings_ == 0 && n_inside_ < MAX_INSIDE; });
    ++n_inside_;
  }

  void leave() {
    const std::lock_guard lock(mutex_);
    if (n_inside_-- == MAX_INSIDE) opened_.notify_all();
    if (n_closings_ != 0 && n_inside_ == 0) emptied_.notify_all();
  }

  // Waits until no batch is inside. The gate is closed until every thread that closed it has opened it.
  void close() {
    std::unique_lock lock(mutex_);
    ++n_closings_;
    emptied_.wait(lock, [this] { return n_inside_ == 0; });
  }

  void open() {
    {
      const std::lock_guard lock(mutex_);
      --n_closings_;
    }
    opened_.notify_all();
  }

 private:
  std::mutex mutex_;
  std::condition_variable opened_;
  std::condition_variable emptied_;
  uint32_t n_inside_ = 0;
  uint32_t n_closings_ = 0;
};

// Closes a gate during its lifetime.
class GateClosed {
 public:
  explicit GateClosed(Gate &gate) : gate_(gate) { gate_.close(); }
  ~GateClosed() { gate_.open(); }
  GateClosed(const GateClosed &) = delete;
  GateClosed &operator=(const GateClosed &) = delete;

 private:
  Gate &gate_;
};

}  // namespace tslb_durable
