// One replica as a process, for scripts/failover-test and scripts/bench-replica.
//
//   replica_node run FOLDER SERVERS MODE             obeys lines of the standard input, as below
//   replica_node measure FOLDER SERVERS MODE THREADS BYTES SECONDS
//                                                    writes events of so many bytes; MODE plain: a store without a log
//
//   promote    prints "promoted", or "refused: WHY"
//   load       writes events with some threads, and prints "ack SOURCE NUMBER" for each that was acknowledged, until a batch
//              fails ("stopped: WHY") or the line "rest" comes
//   state      prints "state ROLE EPOCH NUMBER DIGEST", the digest of all arrays, and why a role ended
//   check      prints "last N0 N1 ..." with the last event of each source, or "wrong: WHY" if an event is missing or doubled
//   snapshot   publishes a snapshot, and cuts the log
//
// Each source numbers its events from 1. A batch writes the number of its source, and the event.
#include <fmt/format.h>
#include <tslb/replica.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "checksum.h"
#include "stored_array.h"

namespace {

constexpr uint32_t SOURCES = 0, EVENTS = 1;
constexpr uint32_t N_SOURCES = 4;
constexpr uint32_t MAX_EVENT_BYTES = 4096;

using Clock = std::chrono::steady_clock;

struct Source {
  uint64_t last;
};
struct Event {
  uint32_t source;
  uint32_t number;
};

const std::map<std::string, tslb_replica_mode_t> MODES = {
    {"both", TSLB_REPLICA_BOTH}, {"async", TSLB_REPLICA_ASYNC}, {"stream", TSLB_REPLICA_STREAM}};

std::vector<tslb_array_decl_t> decls_of(uint32_t event_bytes) {
  std::vector<tslb_array_decl_t> decls(2);
  decls[SOURCES] = {};
  decls[SOURCES].name = "sources";
  decls[SOURCES].kind = TSLB_ARRAY_RECORDS;
  decls[SOURCES].tbl_id = 1;
  decls[SOURCES].record_bytes = sizeof(Source);
  decls[SOURCES].n_direct = N_SOURCES;
  decls[EVENTS] = decls[SOURCES];
  decls[EVENTS].name = "events";
  decls[EVENTS].tbl_id = 2;
  decls[EVENTS].record_bytes = event_bytes;
  decls[EVENTS].n_direct = 64;
  return decls;
}

void print_line(const std::string &line) {
  static std::mutex mutex;
  const std::lock_guard lock(mutex);
  std::cout << line << std::endl;
}

template <class Record>
Record *record_at(tslb_store_t *store, uint32_t array, uint32_t idx) {
  return static_cast<Record *>(get_dyn_arr_record_position(tslb_store_array(store, array), idx));
}

uint32_t size_of(tslb_store_t *store, uint32_t array) {
  return tslb_da_get_size(tslb_store_array(store, array));
}

void make_sources(tslb_store_t *store) {
  while (size_of(store, SOURCES) < N_SOURCES) {
    tslb_batch_t *const batch = tslb_batch_begin(store, nullptr);
    if (batch == nullptr) return;
    const auto idx = static_cast<uint32_t>(get_dyn_arr_new_record_id(tslb_store_array(store, SOURCES)));
    record_at<Source>(store, SOURCES, idx)->last = 0;
    tslb_batch_log_record(batch, SOURCES, idx);
    if (tslb_batch_commit(batch, nullptr) != 0) return;
  }
}

// Writes one event. Returns its number, or 0 if it was refused.
uint64_t write_event(tslb_store_t *store, uint32_t source, uint32_t event_bytes, tslb_error_t *error) {
  tslb_batch_t *const batch = tslb_batch_begin(store, error);
  if (batch == nullptr) return 0;
  Source *const counter = record_at<Source>(store, SOURCES, source);
  const uint64_t number = ++counter->last;
  tslb_batch_log_record(batch, SOURCES, source);
  const auto idx = static_cast<uint32_t>(get_dyn_arr_new_record_id(tslb_store_array(store, EVENTS)));
  auto *const event = record_at<char>(store, EVENTS, idx);
  for (uint32_t at = 0; at < event_bytes; ++at) event[at] = static_cast<char>(number * (at + 1) >> 3);
  const Event content = {source, static_cast<uint32_t>(number)};
  std::memcpy(event, &content, sizeof content);
  tslb_batch_log_record(batch, EVENTS, idx);
  return tslb_batch_commit(batch, error) == 0 ? number : 0;
}

// All bytes that a follower must have.
uint32_t digest_of(tslb_store_t *store) {
  uint32_t digest = 0;
  for (uint32_t array : {SOURCES, EVENTS}) {
    const uint32_t next = tslb_durable::digest_of(tslb_store_array(store, array)).crc32c;
    digest = tslb_durable::crc32c(&next, sizeof next, digest);
  }
  return digest;
}

std::string checked(tslb_store_t *store) {
  std::vector<std::vector<bool>> seen(N_SOURCES);
  std::string last = "last";
  const bool has_sources = size_of(store, SOURCES) == N_SOURCES;
  for (uint32_t source = 0; source < N_SOURCES; ++source) {
    const uint64_t number = has_sources ? record_at<Source>(store, SOURCES, source)->last : 0;
    seen[source].resize(number + 1);
    last += fmt::format(" {}", number);
  }
  for (uint32_t idx = 0; idx < size_of(store, EVENTS); ++idx) {
    const Event *const event = record_at<Event>(store, EVENTS, idx);
    if (event->source >= N_SOURCES || event->number == 0 || event->number >= seen[event->source].size())
      return fmt::format("wrong: event {} is {} of source {}", idx, event->number, event->source);
    if (seen[event->source][event->number])
      return fmt::format("wrong: event {} of source {} is there twice", event->number, event->source);
    seen[event->source][event->number] = true;
  }
  for (uint32_t source = 0; source < N_SOURCES; ++source)
    for (size_t number = 1; number < seen[source].size(); ++number)
      if (!seen[source][number]) return fmt::format("wrong: event {} of source {} is missing", number, source);
  return last;
}

tslb_replica_t *open_replica(const char *folder, const char *servers, tslb_replica_mode_t mode, uint32_t event_bytes) {
  const std::vector<tslb_array_decl_t> decls = decls_of(event_bytes);
  tslb_replica_options_t options = {};
  options.servers = servers;
  options.name = "events";
  // A copy of the streams on each server.
  options.n_copies = static_cast<uint32_t>(1 + std::count(servers, servers + std::strlen(servers), ','));
  options.mode = mode;
  options.store.flags = TSLB_STORE_CREATE;
  tslb_error_t error = {};
  tslb_replica_t *const replica =
      tslb_replica_open(folder, decls.data(), static_cast<uint32_t>(decls.size()), &options, &error);
  if (replica == nullptr) print_line(fmt::format("cannot open: {}", error.text));
  return replica;
}

class Load {
 public:
  ~Load() { rest(); }
  void begin(tslb_store_t *store) {
    rest();
    is_resting_ = false;
    make_sources(store);
    if (size_of(store, SOURCES) < N_SOURCES) return print_line("stopped: no sources");
    for (uint32_t source = 0; source < N_SOURCES; ++source)
      threads_.emplace_back([this, store, source] {
        tslb_error_t error = {};
        while (!is_resting_) {
          const uint64_t number = write_event(store, source, sizeof(Event), &error);
          if (number == 0) return print_line(fmt::format("stopped: {}", error.text));
          print_line(fmt::format("ack {} {}", source, number));
        }
      });
  }
  void rest() {
    is_resting_ = true;
    for (std::thread &thread : threads_) thread.join();
    threads_.clear();
  }

 private:
  std::atomic<bool> is_resting_{false};
  std::vector<std::thread> threads_;
};

int run(const char *folder, const char *servers, tslb_replica_mode_t mode) {
  tslb_replica_t *const replica = open_replica(folder, servers, mode, sizeof(Event));
  if (replica == nullptr) return 1;
  print_line("open");
  tslb_store_t *const store = tslb_replica_store(replica);
  {
    Load load;
    std::string line;
    while (std::getline(std::cin, line)) {
      tslb_error_t error = {};
      if (line == "promote") {
        const bool done = tslb_replica_promote(replica, &error) == 0;
        print_line(done ? "promoted" : fmt::format("refused: {}", error.text));
      } else if (line == "load") {
        load.begin(store);
      } else if (line == "rest") {
        load.rest();
        print_line("rests");
      } else if (line == "snapshot") {
        const bool done = tslb_replica_publish_snapshot(replica, 1, &error) == 0;
        print_line(done ? "published" : fmt::format("refused: {}", error.text));
      } else if (line == "state" || line == "check") {
        tslb_replica_info_t info;
        tslb_store_begin_reading(store);
        tslb_replica_get_info(replica, &info);
        print_line(line == "check"
                       ? checked(store)
                       : fmt::format("state {} {} {} {:08x} {}", static_cast<int>(info.role), info.position.epoch,
                                     info.position.number, digest_of(store), info.text));
        tslb_store_end_reading(store);
      }
    }
  }
  return tslb_replica_close(replica, nullptr) == 0 ? 0 : 1;
}

int measure(char **argument) {
  const std::string mode = argument[2];
  const auto n_threads = static_cast<uint32_t>(std::atoi(argument[3]));
  const auto event_bytes = static_cast<uint32_t>(std::atoi(argument[4]));
  const double seconds = std::atof(argument[5]);
  if (event_bytes < sizeof(Event) || event_bytes > MAX_EVENT_BYTES || n_threads == 0 || n_threads > N_SOURCES) return 2;
  tslb_replica_t *replica = nullptr;
  tslb_store_t *store = nullptr;
  tslb_error_t error = {};
  if (mode == "plain") {
    const std::vector<tslb_array_decl_t> decls = decls_of(event_bytes);
    tslb_store_options_t options = {};
    options.flags = TSLB_STORE_CREATE;
    store = tslb_store_open(argument[0], decls.data(), static_cast<uint32_t>(decls.size()), &options, &error);
  } else {
    replica = open_replica(argument[0], argument[1], MODES.at(mode), event_bytes);
    if (replica != nullptr && tslb_replica_promote(replica, &error) == 0) store = tslb_replica_store(replica);
  }
  if (store == nullptr) return print_line(error.text), 1;
  make_sources(store);
  std::mutex mutex;
  std::vector<double> all_us;
  std::vector<std::thread> threads;
  const auto start = Clock::now();
  for (uint32_t source = 0; source < n_threads; ++source)
    threads.emplace_back([&, source] {
      std::vector<double> taken_us;
      for (auto before = Clock::now(); std::chrono::duration<double>(before - start).count() < seconds;) {
        if (write_event(store, source, event_bytes, nullptr) == 0) break;
        const auto after = Clock::now();
        taken_us.push_back(std::chrono::duration<double, std::micro>(after - before).count());
        before = after;
      }
      const std::lock_guard lock(mutex);
      all_us.insert(all_us.end(), taken_us.begin(), taken_us.end());
    });
  for (std::thread &thread : threads) thread.join();
  const double passed = std::chrono::duration<double>(Clock::now() - start).count();
  std::sort(all_us.begin(), all_us.end());
  const auto at = [&](double part) {
    return all_us[static_cast<size_t>(part * static_cast<double>(all_us.size() - 1))];
  };
  if (all_us.empty()) return 1;
  print_line(fmt::format("{:.0f} {:.0f} {:.0f}", static_cast<double>(all_us.size()) / passed, at(0.5), at(0.99)));
  return replica != nullptr ? tslb_replica_close(replica, nullptr) : tslb_store_close(store, nullptr);
}

}  // namespace

int main(int count, char **argument) {
  const std::string command = count > 1 ? argument[1] : "";
  if (command == "run" && count == 5 && MODES.contains(argument[4]))
    return run(argument[2], argument[3], MODES.at(argument[4]));
  if (command == "measure" && count == 8) return measure(argument + 2);
  std::cerr << "usage: replica_node run FOLDER SERVERS MODE | measure FOLDER SERVERS MODE THREADS BYTES SECONDS\n";
  return 2;
}
