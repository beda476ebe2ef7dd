#include "workloads.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <filesystem>
#include <future>
#include <stdexcept>
#include <system_error>

namespace {

namespace fs = std::filesystem;

constexpr uint32_t LOAD_BATCH = 10'000;
constexpr unsigned SYNCS_OF_TURN = 200;
constexpr uint64_t STAT_BLOCK_BYTES = 512;

// Returns the median time of an append of `bytes` bytes and fdatasync, in microseconds.
double sync_us_of(const std::string &folder, size_t bytes, unsigned count) {
  const std::string path = folder + "/sync";
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) throw std::system_error(errno, std::generic_category(), path);
  const std::string text(bytes, 'x');
  std::vector<double> times_us;
  bool is_ok = true;
  for (unsigned i = 0; i < count && is_ok; ++i) {
    const int64_t start = now_ns();
    is_ok = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()) && fdatasync(fd) == 0;
    times_us.push_back(seconds_since(start) * 1e6);
  }
  const int error = errno;
  close(fd);
  unlink(path.c_str());
  if (!is_ok) throw std::system_error(error, std::generic_category(), path);
  std::nth_element(times_us.begin(), times_us.begin() + count / 2, times_us.end());
  return times_us[count / 2];
}

// Files with holes count as what they take on the disk.
uint64_t disk_bytes_of(const std::string &folder) {
  uint64_t bytes = 0;
  for (const fs::directory_entry &entry : fs::recursive_directory_iterator(folder)) {
    struct stat about;
    if (lstat(entry.path().c_str(), &about) == 0) bytes += static_cast<uint64_t>(about.st_blocks) * STAT_BLOCK_BYTES;
  }
  return bytes;
}

// Waits until the disk has what contestants left in memory, so that the next one does not wait for it.
void sync_disk(const std::string &folder) {
  const int fd = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0 || syncfs(fd) != 0) throw std::system_error(errno, std::generic_category(), folder);
  close(fd);
}

struct open_store_t {
  kind_t kind;
  setup_t setup;
  std::unique_ptr<contestant_t> contestant;
};

double seconds_of_updates(contestant_t &contestant, const std::vector<std::vector<update_t>> &of_writers,
                          uint32_t batch) {
  const int64_t start = now_ns();
  std::vector<std::future<void>> writers;
  for (unsigned i = 1; i < of_writers.size(); ++i)
    writers.push_back(std::async(std::launch::async, [&, i] { update_all(contestant, i, of_writers[i], batch); }));
  update_all(contestant, 0, of_writers[0], batch);
  for (std::future<void> &writer : writers) writer.get();
  return seconds_since(start);
}

// All contestants make the same updates, one after the other.
void update_in_turns(const options_t &options, const update_workload_t &workload, std::vector<open_store_t> &stores,
                     data_t &data, results_t &results) {
  std::vector<std::vector<update_t>> of_writers;
  for (unsigned i = 0; i < workload.n_writers; ++i)
    of_writers.push_back(data.make_updates(options.updates / workload.n_writers, i, workload.n_writers));
  for (const open_store_t &store : stores) {
    const double seconds = seconds_of_updates(*store.contestant, of_writers, workload.batch);
    results.add(workload.name, store.kind.name, options.updates / seconds);
    store.contestant->settle();
    sync_disk(store.setup.folder);
  }
  // Each contestant is the first one in turn.
  std::rotate(stores.begin(), stores.begin() + 1, stores.end());
}

void read_in_turns(const options_t &options, std::vector<open_store_t> &stores, data_t &data, results_t &results) {
  const std::vector<uint32_t> ids = data.random_ids(options.reads);
  uint64_t expected = 0;
  for (const uint32_t id : ids) expected += sum_of(data.records()[id]);
  for (const open_store_t &store : stores) {
    const int64_t start = now_ns();
    const uint64_t sum = store.contestant->read(ids);
    results.add(READ, store.kind.name, seconds_since(start) * 1e9 / options.reads);
    if (sum != expected) throw std::runtime_error(fmt::format("{}: read other contents", store.kind.name));
  }
}

}  // namespace

int64_t now_ns() {
  timespec time;
  clock_gettime(CLOCK_MONOTONIC, &time);
  return time.tv_sec * int64_t{1'000'000'000} + time.tv_nsec;
}

double seconds_since(int64_t start_ns) {
  return static_cast<double>(now_ns() - start_ns) / 1e9;
}

void load(contestant_t &contestant, const data_t &data) {
  const std::span<const record_t> records = data.records();
  for (uint32_t first = 0; first < records.size(); first += LOAD_BATCH)
    contestant.append(first, records.subspan(first, std::min<size_t>(LOAD_BATCH, records.size() - first)));
}

void update_all(contestant_t &contestant, unsigned writer, std::span<const update_t> updates, uint32_t batch) {
  for (size_t at = 0; at < updates.size(); at += batch)
    contestant.update(writer, updates.subspan(at, std::min<size_t>(batch, updates.size() - at)));
}

uint64_t verify(const std::string &name, contestant_t &contestant, const data_t &data) {
  record_hash_t hash;
  for (uint32_t id = 0; id < data.records().size(); ++id) {
    const record_t record = contestant.get(id);
    if (record != data.records()[id])
      throw std::runtime_error(fmt::format("{}: record {} is not the one that was stored", name, id));
    hash.add(record);
  }
  return hash.value();
}

void measure_sync(const options_t &options, const std::string &folder, results_t &results) {
  const unsigned count = options.is_quick ? 10 : SYNCS_OF_TURN;
  for (unsigned round = 0; round < options.rounds; ++round) {
    if (options.measures(SYNC)) results.add(SYNC, DISK, sync_us_of(folder, 8 << 10, count));
    if (options.measures(SYNC_64K)) results.add(SYNC_64K, DISK, sync_us_of(folder, 64 << 10, count));
  }
}

void measure_updates_and_reads(const options_t &options, const std::string &folder, results_t &results) {
  data_t data(options.records, options.is_random);
  std::vector<open_store_t> stores;
  for (const kind_t &kind : options.kinds()) {
    open_store_t store = {kind, {folder + "/" + kind.name, options.records}, nullptr};
    fs::create_directory(store.setup.folder);
    store.contestant = kind.open(store.setup);
    load(*store.contestant, data);
    store.contestant->flush();
    store.contestant->settle();
    stores.push_back(std::move(store));
  }
  for (unsigned round = 0; round < options.rounds; ++round) {
    for (const update_workload_t &workload : UPDATE_WORKLOADS)
      if (options.measures(workload.name)) update_in_turns(options, workload, stores, data, results);
    if (options.measures(READ)) read_in_turns(options, stores, data, results);
    for (const open_store_t &store : stores)
      if (options.measures(DISK_BYTES))
        results.add(DISK_BYTES, store.kind.name, static_cast<double>(disk_bytes_of(store.setup.folder)));
  }
  // Only what is on the disk counts.
  for (open_store_t &store : stores) {
    store.contestant.reset();
    store.contestant = store.kind.open(store.setup);
    const uint64_t hash = verify(store.kind.name, *store.contestant, data);
    fmt::print(stderr, "{:8} {} records read back, checksum {:016x}\n", store.kind.name, data.records().size(), hash);
    store.contestant.reset();
    fs::remove_all(store.setup.folder);
  }
}
