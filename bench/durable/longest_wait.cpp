#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <thread>

#include "tslb_store.h"
#include "workloads.h"

namespace {

constexpr uint32_t BATCH = 100;
constexpr size_t UPDATES_OF_TURN = 1'000'000;  // again from the first one, if the snapshot takes longer

// Makes batches until `is_done`. Returns the longest one in milliseconds.
double longest_ms_until(tslb_contestant_t &store, std::span<const update_t> updates, const std::atomic<bool> &is_done) {
  double longest_ms = 0;
  for (size_t at = 0; !is_done; at = (at + BATCH) % updates.size()) {
    const int64_t start = now_ns();
    store.update(0, updates.subspan(at, BATCH));
    longest_ms = std::max(longest_ms, seconds_since(start) * 1e3);
  }
  return longest_ms;
}

double longest_ms_during(tslb_contestant_t &store, std::span<const update_t> updates,
                         const std::function<void()> &work) {
  std::atomic<bool> is_done = false;
  std::future<double> longest_ms =
      std::async(std::launch::async, [&] { return longest_ms_until(store, updates, is_done); });
  try {
    work();
  } catch (...) {
    is_done = true;
    throw;
  }
  is_done = true;
  return longest_ms.get();
}

void fill(tslb_contestant_t &store, uint32_t n_records) {
  constexpr uint32_t AT_ONCE = 10'000;
  random_t random(2);
  std::vector<record_t> records(AT_ONCE);
  for (uint32_t first = 0; first < n_records; first += AT_ONCE) {
    records.resize(std::min(AT_ONCE, n_records - first));
    for (record_t &record : records)
      for (uint64_t &word : record.words) word = random.next();
    store.append(first, records);
  }
}

}  // namespace

void measure_longest_wait(const options_t &options, const std::string &folder, results_t &results) {
  const std::string own_folder = folder + "/longest_wait";
  const auto n_records = static_cast<uint32_t>(options.snapshot_bytes / sizeof(record_t));
  tslb_contestant_t store(own_folder, 0);
  fill(store, n_records);
  store.flush();
  random_t random(3);
  std::vector<update_t> updates(UPDATES_OF_TURN);
  for (update_t &update : updates) {
    update.id = random.below(n_records);
    for (uint64_t &word : update.record.words) word = random.next();
  }
  for (unsigned round = 0; round < options.rounds; ++round) {
    const int64_t start = now_ns();
    const double longest_ms = longest_ms_during(store, updates, [&] { store.flush(); });
    const double seconds = seconds_since(start);
    const double without_ms =
        longest_ms_during(store, updates, [&] { std::this_thread::sleep_for(std::chrono::duration<double>(seconds)); });
    const tslb_store_info_t info = store.info();
    results.add(LONGEST_WAIT, all_kinds()[0].name, longest_ms);
    fmt::print(stderr,
               "snapshot of {} bytes in {:.2f} s: longest batch {:.1f} ms, without a snapshot {:.1f} ms, pause {:.1f} "
               "ms, of which the fork {:.1f} ms\n",
               options.snapshot_bytes, seconds, longest_ms, without_ms,
               static_cast<double>(info.snapshot_pause_ns) / 1e6, static_cast<double>(info.fork_ns) / 1e6);
  }
}
