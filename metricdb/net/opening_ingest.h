// Stands for an Ingest that is still being opened, so that the server can answer meanwhile: lines are refused with a
// reason, and Graphite connections wait.
//
// Threads: `set_ready` and `set_progress` by the opening thread, the functions of Ingest by the server's thread.
#pragma once

#include <atomic>
#include <string>

#include "net/listener.h"
#include "store/ingest.h"

namespace metricdb {

class OpeningIngest final : public Ingest {
 public:
  // Throws ServerError.
  OpeningIngest();

  // From now on everything is passed to that Ingest, which the calling thread does not use any more.
  void set_ready(Ingest &ingest);
  void set_progress(uint64_t done_bytes, uint64_t all_bytes);

  IngestResult take(std::string_view text, Precision precision) override;
  uint64_t commit() override;
  uint64_t settled() override;
  std::string failure(uint64_t ticket) override;
  Work work() override { return is_ready() ? ready()->work() : Work(); }
  IngestFigures figures() override;
  std::string why_not_writable() override;
  bool has(const std::string &database) override { return !is_ready() || ready()->has(database); }
  IngestResult take_for(const std::string &database, std::string_view text, Precision precision) override;
  Lost lost(uint64_t ticket) override { return is_ready() ? ready()->lost(ticket) : Lost(); }
  std::vector<std::pair<std::string, IngestFigures>> figures_of_all() override;
  bool is_ready() const override { return ready() != nullptr; }
  int settled_fd() const override { return events_.get(); }

 private:
  // Acquire. Pairs with the release in set_ready: the server sees everything that the opening thread did.
  Ingest *ready() const { return ready_.load(std::memory_order_acquire); }
  std::string starting() const;

  Descriptor wake_;    // readable once it is ready
  Descriptor events_;  // readable when wake_ or the Ingest's descriptor is
  std::atomic<Ingest *> ready_ = nullptr;
  std::atomic<unsigned> percent_ = 0;
};

}  // namespace metricdb
