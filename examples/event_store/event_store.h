// A store of events that survives a crash. Events are records of a slot array, their payloads are chunks of a pool.
// Several threads append; the oldest events are deleted when there are more than a limit.
#pragma once

#include <tslb/durable.h>

#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <stdexcept>
#include <string>
#include <vector>

constexpr uint32_t N_SOURCES_MAX = 16;

// A stored event, layout 2. Layout 1 has no severity. Fields of 8 bytes are not aligned in an array, so events are
// copied out of it and into it.
struct Event {
  uint32_t gatekeeper;  // of the array, unchanged
  uint32_t type;
  uint32_t source;  // number of the writer
  uint32_t text_bytes;
  uint32_t text_checksum;
  maddr_t text;      // address of the payload
  uint64_t number;   // of the source, from 1
  uint64_t order;    // among the events of all sources
  uint64_t time_ns;  // since 1970
  uint32_t severity;
};
constexpr uint32_t event_bytes_of(int layout) {
  return offsetof(Event, severity) + (layout == 1 ? 0 : 4);
}

// Payload of each batch: what the arrays contain after it.
struct Counters {
  uint64_t next_order;
  uint64_t appended[N_SOURCES_MAX];  // last number of each source
  uint64_t deleted[N_SOURCES_MAX];   // its numbers up to this one are deleted
};

// A failure that ends the program.
struct StoreError : std::runtime_error {
  explicit StoreError(const std::string &text, int code_ = TSLB_DURABLE_INVALID) : runtime_error(text), code(code_) {}
  explicit StoreError(const tslb_error_t &error) : StoreError(error.text, error.code) {}
  int code;  // tslb_durable_code_t
};

class EventStore {
 public:
  // Opens a store. Older layouts are converted. `keep` is the number of events that stay.
  EventStore(const std::string &folder, int layout, size_t keep, const tslb_store_options_t &options);

  // Closes the store, and reports a failure, which the destructor does not. No other function is called afterwards.
  void close();

  // Appends n events of a source in one batch, and waits until they are durable. Returns the number of the last one. A
  // source has one thread.
  uint64_t append(uint32_t source, uint32_t n);

  // Writes a generation. Any thread.
  void snapshot();

  // Compares the arrays with their payload and with each other. Returns a line for each fault. No thread may append.
  std::vector<std::string> audit() const;

  tslb_store_info_t info() const;
  const Counters &counters() const { return counters_; }  // while no thread appends
  uint64_t restored() const { return n_restored_; }

  // The events, oldest first. While no thread appends.
  size_t size() const { return index_.size(); }
  Event event(size_t position) const { return read(index_[position]); }
  std::string text_of(const Event &event) const;

 private:
  Event read(uint32_t idx) const;
  void write(uint32_t idx, const Event &event);
  bool add(tslb_batch_t *batch, Event event, std::vector<uint32_t> &added);
  char *take_text(tslb_batch_t *batch, uint32_t idx, uint32_t bytes, maddr_t *address);
  void delete_oldest(tslb_batch_t *batch, size_t n);
  uint64_t fill(tslb_batch_t *batch, uint32_t source, uint32_t n, uint64_t *ticket);
  void restore(uint64_t seen);
  void build_index();
  void audit_event(uint32_t idx, const Event &event, std::vector<std::string> &faults) const;

  struct Close {
    void operator()(tslb_store_t *store) const { tslb_store_close(store, nullptr); }
  };

  const int layout_;
  const size_t keep_;
  std::unique_ptr<tslb_store_t, Close> store_;
  dynarr_t *events_;
  dynmem_t *texts_;

  // Held by each thread from the begin of a batch until its ticket is settled; exclusively while the store is restored.
  std::shared_mutex gate_;
  uint64_t n_restored_ = 0;

  // Guards what follows. Taken within a batch, so no thread waits for the store while it holds it.
  std::mutex mutex_;
  std::deque<uint32_t> index_;  // slots of the events, oldest first
  Counters counters_{};
  uint64_t n_batches_ = 0;
};
