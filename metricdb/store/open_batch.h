// The batch into which the changes of a DatabaseWriter go: none is open, or one, with or without content. Content is what
// others wait for: points, and changes that were requested. A text of malformed lines leaves a batch without content, which
// ends like any other but has no ticket of its own.
//
// Threads: one at a time. The thread that begins a batch ends it, because a durable store knows open batches by thread.
#pragma once

#include <tslb/durable.h>

#include <cassert>
#include <cstdint>
#include <thread>
#include <utility>

namespace metricdb {

class OpenBatch {
 public:
  // None is open.
  void begin(tslb_batch_t *batch) {
    batch_ = batch;
    thread_ = std::this_thread::get_id();
  }

  bool is_open() const { return batch_ != nullptr; }
  bool has_content() const { return has_content_; }
  void add_content() { has_content_ = true; }
  tslb_batch_t *get() const { return batch_; }

  // Ends the open batch, and returns its ticket in the durable store.
  uint64_t end() {
    assert(thread_ == std::this_thread::get_id());
    last_ended_ = tslb_batch_end(std::exchange(batch_, nullptr));
    if (std::exchange(has_content_, false)) last_ticket_ = last_ended_;
    return last_ended_;
  }

  uint64_t last_ticket() const { return last_ticket_; }  // of a batch with content; 0: none
  uint64_t last_ended() const { return last_ended_; }    // of any batch

 private:
  tslb_batch_t *batch_ = nullptr;
  std::thread::id thread_;
  bool has_content_ = false;
  uint64_t last_ticket_ = 0;
  uint64_t last_ended_ = 0;
};

}  // namespace metricdb
