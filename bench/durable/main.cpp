// Updates, reads and openings of a durable store, compared with LMDB, RocksDB and SQLite.
//
// Measured, on records of 64 bytes with the ids 0, 1, 2 and so on:
//   updates_100, updates_1000      updates of random records per second, in batches of 100 and 1,000. A batch is atomic,
//                                  and it is on the disk when the call returns. One writer.
//   updates_100_2, updates_1000_2  the same with two writers
//   read_ns                        one read of a whole record at random, in nanoseconds
//   open_ms                        an opening and one read, after a process was killed with 400,000 updates since it
//                                  had emptied its journal: half of RocksDB's write buffer. The files are in the page
//                                  cache, as after the death of a process.
//   disk_bytes                     of the store while it is open
//   longest_wait_ms                the longest batch of 100 updates while tslb writes a snapshot of 1 GiB. stderr also
//                                  has the pause and the fork, and the longest batch in a time without a snapshot.
//   sync_us, sync_us_64k           one append of 8 KiB, or of 64 KiB, and fdatasync
//
// Method: all contestants store the same data in the same folder and make the same updates, in turns, for some rounds.
// The table has the medians of the rounds and the number of times by which tslb is better. A turn ends before the next
// contestant's begins: work that continues in other threads is waited for, and syncfs, outside of the measured time. Each
// contestant is the first one of a round in turn. At the end each store is closed and opened again, and all of its records
// are compared with those expected.
//
// Settings. Every batch is synced by all.
//   tslb     a record array; the defaults, and a snapshot when the journal has grown by 64 MiB
//   LMDB     MDB_INTEGERKEY; the default sync, which is one of data and one of the meta page. With MDB_WRITEMAP batches of
//            100 took eight times as long.
//   RocksDB  WriteOptions.sync; a write buffer of 64 MiB, the default; a block cache that has room for all, and a Bloom
//            filter of 10 bits. The default sync is fdatasync. The default recovery excludes recycled logs.
//   SQLite   WAL, synchronous=FULL, prepared statements, a page cache of 256 MiB, mmap of 1 GiB, checkpoints as by
//            default. A mutex lets one writer write at a time, so that none sleeps in the busy handler.
//
// Reads are in transactions of 1,000 reads with LMDB and SQLite. RocksDB and tslb read without a transaction.
//
// Not measured: records of variable size, keys other than ids, reads beside writes.
//
// Run: bench_durable [--quick] [--json] [--help]
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <exception>

#include "../temporary_folder.h"
#include "workloads.h"

namespace {

constexpr kind_t KINDS[] = {
    {"tslb", open_tslb}, {"lmdb", open_lmdb}, {"rocksdb", open_rocksdb}, {"sqlite", open_sqlite}};

std::vector<std::string> names_of_workloads() {
  std::vector<std::string> names = {SYNC, SYNC_64K, LONGEST_WAIT, OPEN, READ, DISK_BYTES};
  for (const update_workload_t &workload : UPDATE_WORKLOADS) names.push_back(workload.name);
  return names;
}

std::vector<std::string> names_of_contestants() {
  std::vector<std::string> names;
  for (const kind_t &kind : KINDS) names.push_back(kind.name);
  return names;
}

void make_quick(options_t &options) {
  options.is_quick = true;
  options.records = 20'000;
  options.updates = 4'000;
  options.reads = 20'000;
  options.journal_updates = 4'000;
  options.snapshot_bytes = 16 << 20;
  options.rounds = 1;
}

void add_options(CLI::App &app, options_t &options) {
  // First, because the other options replace what it sets.
  app.add_flag_callback(
         "--quick", [&options] { make_quick(options); }, "little data and one round: some seconds")
      ->trigger_on_parse();
  app.add_flag("--json", options.is_json, "the last line is a JSON list of the medians");
  app.add_option("--folder", options.folder, "folder on the disk; a temporary one is made in it")
      ->check(CLI::ExistingDirectory)
      ->capture_default_str();
  app.add_option("--records", options.records, "number of records")
      ->check(CLI::Range(1'000u, 100'000'000u))
      ->capture_default_str();
  app.add_option("--updates", options.updates, "updates of a turn")
      ->check(CLI::Range(1'000u, 100'000'000u))
      ->capture_default_str();
  app.add_option("--reads", options.reads, "reads of a turn")
      ->check(CLI::Range(1'000u, 100'000'000u))
      ->capture_default_str();
  app.add_option("--journal-updates", options.journal_updates, "updates that an opening finds in the journal")
      ->check(CLI::Range(1'000u, 100'000'000u))
      ->capture_default_str();
  app.add_option("--snapshot-bytes", options.snapshot_bytes, "bytes of the array of longest_wait_ms")
      ->check(CLI::Range(uint64_t{1} << 20, uint64_t{64} << 30))
      ->capture_default_str();
  app.add_option("--rounds", options.rounds, "rounds")->check(CLI::Range(1u, 1'000u))->capture_default_str();
  app.add_flag("--random", options.is_random, "records of random bytes, which no compression shortens");
  app.add_option("--workloads", options.workloads, "these only")
      ->delimiter(',')
      ->check(CLI::IsMember(names_of_workloads()));
  app.add_option("--contestants", options.contestants, "these only")
      ->delimiter(',')
      ->check(CLI::IsMember(names_of_contestants()));
  app.add_option("--child", options.child)->group("");
}

void run(const options_t &options) {
  const temporary_folder_t folder(options.folder + "/bench_durable.XXXXXX");
  if (folder.path().empty()) throw std::runtime_error(options.folder + ": no temporary folder");
  results_t results;
  measure_sync(options, folder.path(), results);
  // Before other contestants have used memory, because a fork copies the tables of all of it.
  if (options.measures(LONGEST_WAIT)) measure_longest_wait(options, folder.path(), results);
  if (options.measures(OPEN)) measure_open(options, folder.path(), results);
  if (options.measures_stores()) measure_updates_and_reads(options, folder.path(), results);
  results.print_table();
  if (options.is_json) results.print_json();
}

}  // namespace

std::span<const kind_t> all_kinds() {
  return KINDS;
}

std::vector<kind_t> options_t::kinds() const {
  std::vector<kind_t> chosen;
  for (const kind_t &kind : KINDS)
    if (contestants.empty() || std::find(contestants.begin(), contestants.end(), kind.name) != contestants.end())
      chosen.push_back(kind);
  return chosen;
}

bool options_t::measures(const std::string &workload) const {
  return workloads.empty() || std::find(workloads.begin(), workloads.end(), workload) != workloads.end();
}

bool options_t::measures_stores() const {
  return measures(READ) || measures(DISK_BYTES) ||
         std::any_of(std::begin(UPDATE_WORKLOADS), std::end(UPDATE_WORKLOADS),
                     [this](const update_workload_t &workload) { return measures(workload.name); });
}

int main(int argc, char **argv) {
  options_t options;
  CLI::App app("compares the durable store with LMDB, RocksDB and SQLite");
  add_options(app, options);
  CLI11_PARSE(app, argc, argv);
  try {
    if (options.child.empty())
      run(options);
    else
      store_until_killed(options, options.folder);
  } catch (const std::exception &error) {
    fmt::print(stderr, "{}\n", error.what());
    return 1;
  }
  return 0;
}
