// What is measured. Each function adds values to `results`, and throws if a contestant has other contents than expected.
#ifndef TSLB_BENCH_DURABLE_WORKLOADS_H
#define TSLB_BENCH_DURABLE_WORKLOADS_H

#include <string>
#include <vector>

#include "contestant.h"
#include "data.h"
#include "results.h"

struct options_t {
  std::string folder = ".";  // in which the temporary folder is made
  uint32_t records = 1'000'000;
  uint32_t updates = 200'000;          // of a turn
  uint32_t reads = 1'000'000;          // of a turn
  uint32_t journal_updates = 400'000;  // that an opening finds in the journal
  uint64_t snapshot_bytes = uint64_t{1} << 30;
  unsigned rounds = 5;
  bool is_random = false;
  bool is_quick = false;
  bool is_json = false;
  std::vector<std::string> workloads;    // empty: all
  std::vector<std::string> contestants;  // empty: all
  std::string child;                     // the contestant whose store this process leaves as a kill leaves it

  std::vector<kind_t> kinds() const;
  bool measures(const std::string &workload) const;
  bool measures_stores() const;  // updates, reads or bytes
};

constexpr const char *SYNC = "sync_us";
constexpr const char *SYNC_64K = "sync_us_64k";
constexpr const char *LONGEST_WAIT = "longest_wait_ms";
constexpr const char *OPEN = "open_ms";
constexpr const char *READ = "read_ns";
constexpr const char *DISK_BYTES = "disk_bytes";

struct update_workload_t {
  const char *name;
  uint32_t batch;
  unsigned n_writers;
};
constexpr update_workload_t UPDATE_WORKLOADS[] = {
    {"updates_100", 100, 1}, {"updates_1000", 1000, 1}, {"updates_100_2", 100, 2}, {"updates_1000_2", 1000, 2}};

// The time of one append with fdatasync.
void measure_sync(const options_t &options, const std::string &folder, results_t &results);

// The longest batch of 100 updates while a snapshot of a large array is written.
void measure_longest_wait(const options_t &options, const std::string &folder, results_t &results);

// The time of an opening after a kill. The first function is run by the process that is killed, and does not return.
void store_until_killed(const options_t &options, const std::string &folder);
void measure_open(const options_t &options, const std::string &folder, results_t &results);

// Updates, reads and bytes on the disk.
void measure_updates_and_reads(const options_t &options, const std::string &folder, results_t &results);

// ---- Shared by the workloads

double seconds_since(int64_t start_ns);
int64_t now_ns();

// Stores all records of `data` as the first contents.
void load(contestant_t &contestant, const data_t &data);

// Makes the updates in batches.
void update_all(contestant_t &contestant, unsigned writer, std::span<const update_t> updates, uint32_t batch);

// Reads all records, and throws if they are not those of `data`. Returns their checksum.
uint64_t verify(const std::string &name, contestant_t &contestant, const data_t &data);

#endif
