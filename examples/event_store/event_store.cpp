#include "event_store.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>

namespace {

enum : uint32_t { EVENTS, TEXTS };  // declarations of the arrays

constexpr int EVENTS_TABLE = 1;
constexpr int TEXTS_TABLE = 2;
constexpr int N_ATTEMPTS = 10;             // of a batch that is refused
constexpr size_t N_DELETED_FOR_ROOM = 64;  // events that are deleted if the pool is full
constexpr int BATCHES_PER_SWEEP = 64;

uint32_t severity_of(uint32_t type) {
  return type % 3;
}

// The pool is a bit-vector pool with compaction headers: header and data are a multiple of 8 bytes.
uint32_t chunk_bytes_of(uint32_t text_bytes) {
  return (text_bytes + 7) / 8 * 8;
}

uint32_t checksum_of(const char *text, size_t bytes) {
  uint32_t sum = 2166136261u;
  for (size_t i = 0; i < bytes; ++i) sum = (sum ^ static_cast<unsigned char>(text[i])) * 16777619u;
  return sum;
}

// The text depends on source and number, so an audit finds a text that belongs to another event.
std::string make_text(uint32_t source, uint64_t number) {
  std::string text = "event " + std::to_string(number) + " of source " + std::to_string(source) + ' ';
  return text.append((number * 37 + source * 11) % 200, static_cast<char>('a' + number % 26));
}

int convert_event(void *, uint8_t from_version, const void *from, uint32_t from_bytes, void *to, uint32_t to_bytes) {
  if (from_version != 1 || from_bytes != event_bytes_of(1) || to_bytes != event_bytes_of(2)) return 1;
  Event event{};
  std::memcpy(&event, from, from_bytes);
  event.severity = severity_of(event.type);
  std::memcpy(to, &event, to_bytes);
  return 0;
}

}  // namespace

EventStore::EventStore(const std::string &folder, int layout, size_t keep, const tslb_store_options_t &options)
    : layout_(layout), keep_(keep) {
  tslb_array_decl_t arrays[2]{};
  arrays[EVENTS].name = "events";
  arrays[EVENTS].kind = TSLB_ARRAY_SLOTS;
  arrays[EVENTS].tbl_id = EVENTS_TABLE;
  arrays[EVENTS].record_bytes = event_bytes_of(layout);
  arrays[EVENTS].n_direct = 64;
  arrays[EVENTS].daflag = TSLB_DA_DAFLAG_LL;
  arrays[EVENTS].rec_version = static_cast<uint8_t>(layout);
  arrays[EVENTS].convert = convert_event;
  arrays[TEXTS].name = "texts";
  arrays[TEXTS].kind = TSLB_POOL_BIT_VECTOR;
  arrays[TEXTS].tbl_id = TEXTS_TABLE;
  arrays[TEXTS].record_bytes = 1024;  // so small that the pool can become full: at most 2 MB
  arrays[TEXTS].n_direct = 4;
  arrays[TEXTS].daflag = TSLB_DA_DAFLAG_LL;
  arrays[TEXTS].has_compat = 1;
  tslb_error_t error;
  store_.reset(tslb_store_open(folder.c_str(), arrays, 2, &options, &error));
  if (!store_) throw StoreError(error);
  events_ = tslb_store_array(store_.get(), EVENTS);
  texts_ = tslb_store_array(store_.get(), TEXTS);
  build_index();
}

void EventStore::close() {
  tslb_error_t error;
  if (tslb_store_close(store_.release(), &error) != 0) throw StoreError(error);
}

tslb_store_info_t EventStore::info() const {
  tslb_store_info_t info;
  tslb_store_get_info(store_.get(), &info);
  return info;
}

Event EventStore::read(uint32_t idx) const {
  Event event{};
  std::memcpy(&event, tslb_da_get_ptr(events_, idx), event_bytes_of(layout_));
  return event;
}

void EventStore::write(uint32_t idx, const Event &event) {
  std::memcpy(tslb_da_get_ptr(events_, idx), &event, event_bytes_of(layout_));
}

std::string EventStore::text_of(const Event &event) const {
  return {static_cast<const char *>(tslb_dynmem_get_maddr2ptr(texts_, event.text)), event.text_bytes};
}

// ---- Appending

uint64_t EventStore::append(uint32_t source, uint32_t n) {
  tslb_error_t error;
  for (int attempt = 0; attempt < N_ATTEMPTS; ++attempt) {
    uint64_t seen;
    {
      const std::shared_lock lock(gate_);
      seen = n_restored_;
      if (tslb_batch_t *batch = tslb_batch_begin(store_.get(), &error)) {
        uint64_t ticket;
        const uint64_t last = fill(batch, source, n, &ticket);
        if (last == 0) throw StoreError("the pool has no room for one event", TSLB_DURABLE_FULL);
        if (tslb_store_wait(store_.get(), ticket, &error) == 0) return last;
      }
    }
    if (error.code != TSLB_DURABLE_REFUSED) throw StoreError(error);
    std::fprintf(stderr, "event_store: %s; the store is restored\n", error.text);
    restore(seen);
  }
  throw StoreError(error);
}

// Adds events to a batch and ends it. Returns the number of the last one, or 0 if there was no room for any.
uint64_t EventStore::fill(tslb_batch_t *batch, uint32_t source, uint32_t n, uint64_t *ticket) {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  std::vector<uint32_t> added;
  Event event{};
  event.source = source;
  event.time_ns = static_cast<uint64_t>(std::chrono::nanoseconds(now).count());
  for (uint32_t i = 1; i <= n; ++i) {
    event.number = counters_.appended[source] + i;  // which only this thread changes
    if (!add(batch, event, added)) break;
  }
  // Counters, index and end of the batch are one step: then the counters of each batch are those of the arrays at its
  // place in the order of tickets.
  const std::lock_guard lock(mutex_);
  for (const uint32_t idx : added) {
    event = read(idx);
    event.order = counters_.next_order++;
    write(idx, event);
    index_.push_back(idx);
  }
  counters_.appended[source] += added.size();
  if (index_.size() > keep_) delete_oldest(batch, index_.size() - keep_);
  if (++n_batches_ % BATCHES_PER_SWEEP == 0) tslb_batch_sweep(batch, TEXTS);
  tslb_batch_set_payload(batch, &counters_, sizeof(counters_), nullptr);
  const uint64_t last = added.empty() ? 0 : counters_.appended[source];
  // Not tslb_batch_commit, which would wait for batches of threads that wait for the mutex.
  *ticket = tslb_batch_end(batch);
  return last;
}

// Returns false, without a change, if there is no room.
bool EventStore::add(tslb_batch_t *batch, Event event, std::vector<uint32_t> &added) {
  const std::string text = make_text(event.source, event.number);
  uint32_t idx;
  if (tslb_da_get_newptr(events_, &idx) == nullptr) return false;
  char *data = take_text(batch, idx, chunk_bytes_of(static_cast<uint32_t>(text.size())), &event.text);
  if (data == nullptr) {
    tslb_da_free_idx(events_, idx);
    return false;
  }
  std::memset(data, 0, chunk_bytes_of(static_cast<uint32_t>(text.size())));
  std::memcpy(data, text.data(), text.size());
  event.gatekeeper = read(idx).gatekeeper;
  event.type = static_cast<uint32_t>(event.number % 7);
  event.text_bytes = static_cast<uint32_t>(text.size());
  event.text_checksum = checksum_of(text.data(), text.size());
  event.severity = severity_of(event.type);
  write(idx, event);
  tslb_batch_log_record(batch, EVENTS, idx);
  tslb_batch_log_chunk(batch, TEXTS, event.text, 0, chunk_bytes_of(event.text_bytes));
  added.push_back(idx);
  return true;
}

// Takes a chunk. If the pool is full the oldest events make room.
char *EventStore::take_text(tslb_batch_t *batch, uint32_t idx, uint32_t bytes, maddr_t *address) {
  const srcaddr_t referrer{EVENTS_TABLE, idx, offsetof(Event, text), {}};
  tslb_error_t error;
  for (;;) {
    void *data = tslb_batch_take_chunk(batch, TEXTS, bytes, referrer, address, &error);
    if (data != nullptr || error.code != TSLB_DURABLE_FULL) return static_cast<char *>(data);
    const std::lock_guard lock(mutex_);
    if (index_.empty()) return nullptr;
    delete_oldest(batch, N_DELETED_FOR_ROOM);
    tslb_batch_sweep(batch, TEXTS);
  }
}

// Deletes events of batches that have ended. The mutex is held.
void EventStore::delete_oldest(tslb_batch_t *batch, size_t n) {
  for (; n > 0 && !index_.empty(); --n) {
    const Event event = read(index_.front());
    tslb_batch_delete_chunk(batch, TEXTS, event.text);
    tslb_da_free_idx(events_, index_.front());
    index_.pop_front();
    ++counters_.deleted[event.source];
  }
}

void EventStore::snapshot() {
  const std::shared_lock lock(gate_);
  tslb_error_t error;
  if (tslb_store_snapshot(store_.get(), &error) != 0) throw StoreError(error);
}

// ---- Recovery

// After a refused batch. `seen` is the number of restorations before it: another thread may have restored the store.
void EventStore::restore(uint64_t seen) {
  const std::unique_lock lock(gate_);
  if (n_restored_ != seen) return;
  tslb_error_t error;
  if (tslb_store_restore(store_.get(), &error) != 0) throw StoreError(error);
  ++n_restored_;
  build_index();
}

void EventStore::build_index() {
  std::vector<std::pair<uint64_t, uint32_t>> found;
  for (uint32_t idx = 0; idx < tslb_da_get_size(events_); ++idx)
    if (tslb_da_slot_status(events_, idx) == TSLB_DA_SLOT_ACTIVE) found.emplace_back(read(idx).order, idx);
  std::sort(found.begin(), found.end());
  index_.clear();
  for (const auto &[order, idx] : found) index_.push_back(idx);
  size_t size = 0;
  const void *payload = tslb_store_payload(store_.get(), &size);
  if (payload != nullptr && size != sizeof(Counters)) throw StoreError("this is not a store of events");
  counters_ = {};
  if (payload != nullptr) std::memcpy(&counters_, payload, size);
}

void EventStore::audit_event(uint32_t idx, const Event &event, std::vector<std::string> &faults) const {
  const std::string name = "event " + std::to_string(event.number) + " of source " + std::to_string(event.source);
  const void *data = tslb_dynmem_get_maddr2ptr(texts_, event.text);
  if (data == nullptr) {
    faults.push_back(name + ": no text at its address");
    return;
  }
  compat_t header;
  std::memcpy(&header, static_cast<const char *>(data) - sizeof(header), sizeof(header));
  if (header.srcaddr.tbl_id != EVENTS_TABLE || header.srcaddr.tbl_idx != idx)
    faults.push_back(name + ": the text belongs to slot " + std::to_string(header.srcaddr.tbl_idx));
  if (header.mchunk_len != chunk_bytes_of(event.text_bytes)) faults.push_back(name + ": the text has another length");
  const std::string text = event.text_bytes <= header.mchunk_len ? text_of(event) : std::string();
  if (text != make_text(event.source, event.number)) faults.push_back(name + ": the text is another one");
  if (checksum_of(text.data(), text.size()) != event.text_checksum) faults.push_back(name + ": the checksum is wrong");
  if (layout_ > 1 && event.severity != severity_of(event.type)) faults.push_back(name + ": the severity is wrong");
  if (event.order >= counters_.next_order) faults.push_back(name + ": the order was not issued");
}

std::vector<std::string> EventStore::audit() const {
  std::vector<std::string> faults;
  uint64_t last[N_SOURCES_MAX];
  std::copy(std::begin(counters_.deleted), std::end(counters_.deleted), last);
  uint64_t chunk_bytes = 0;
  for (const uint32_t idx : index_) {
    const Event event = read(idx);
    if (event.source >= N_SOURCES_MAX) {
      faults.push_back("slot " + std::to_string(idx) + ": source " + std::to_string(event.source));
      continue;
    }
    // Neither a gap nor a second event with the same number.
    if (event.number != ++last[event.source])
      faults.push_back("source " + std::to_string(event.source) + ": event " + std::to_string(event.number) +
                       " in the place of " + std::to_string(last[event.source]));
    audit_event(idx, event, faults);
    chunk_bytes += sizeof(compat_t) + chunk_bytes_of(event.text_bytes);
  }
  for (uint32_t source = 0; source < N_SOURCES_MAX; ++source)
    if (last[source] != counters_.appended[source])
      faults.push_back("source " + std::to_string(source) + ": the last event is " + std::to_string(last[source]) +
                       ", the counter " + std::to_string(counters_.appended[source]));
  uint64_t pool_bytes = 0;
  for (uint32_t idx = 0; idx < tslb_da_get_size(texts_); ++idx) {
    const auto *slot = static_cast<const MemSlot_t *>(tslb_da_get_ptr(texts_, idx));
    if (tslb_da_slot_status(texts_, idx) == TSLB_DA_SLOT_ACTIVE) pool_bytes += slot->bytes_used - slot->bytes_del;
  }
  if (pool_bytes != chunk_bytes)
    faults.push_back("the pool has " + std::to_string(pool_bytes) + " bytes of chunks, the events " +
                     std::to_string(chunk_bytes));
  return faults;
}
