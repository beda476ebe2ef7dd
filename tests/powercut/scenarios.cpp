// What is done with a store while power is cut.
#include "search.h"

namespace powercut {
namespace {

void commit_batches(StoreRun &run, int n_batches) {
  for (int left = n_batches; left > 0; --left) run.commit();
}

void create(StoreRun &run) {
  run.open();
  run.close();
}

void batches(StoreRun &run) {
  run.open();
  commit_batches(run, 3);
  run.close();
  run.open();
  commit_batches(run, 2);
}

void snapshots(StoreRun &run) {
  run.open();
  run.commit();
  run.snapshot();
  run.commit();
  run.snapshot();
  commit_batches(run, 2);
  run.close();
}

// Batches while a snapshot is made: before the next journal is there, before it is named, before the generation is in
// place, and before it is used.
void batches_in_a_snapshot(StoreRun &run) {
  run.open();
  run.commit();
  call_before_renames([&run] { run.commit(); });
  run.snapshot();
  call_before_renames(nullptr);
  run.commit();
}

void kept_generations(StoreRun &run) {
  run.options.keep = 1;
  snapshots(run);
}

// Tickets are settled without a sync; a snapshot and an orderly end make batches durable.
void without_syncs(StoreRun &run) {
  run.options.sync = TSLB_SYNC_NONE;
  run.open();
  commit_batches(run, 2);
  run.snapshot();
  commit_batches(run, 2);
  run.close();
  run.open();
  run.commit();
}

void upgrade(StoreRun &run) {
  run.open();
  run.commit();
  run.close();
  run.has_added_array = true;
  run.open();
  run.commit();
}

void import(StoreRun &run) {
  run.import();
  run.close();
  run.open();
  run.commit();
}

void backup(StoreRun &run) {
  run.marks_backup_only = true;
  run.open();
  run.commit();
  run.back_up();
  run.commit();
}

// A batch for each call that writing a group makes, and each error of that call.
void refused_batches(StoreRun &run) {
  run.open();
  run.commit();
  Struck struck = Struck::fault;
  for (uint64_t n = 1; struck != Struck::no; ++n)
    for (unsigned which = 0; which == 0 || struck == Struck::fault; ++which) {
      fail_call(n, which);
      run.commit();
      struck = fault_struck();
    }
  fail_call(0, 0);
  run.close();
}

constexpr unsigned HALF_OF_A_WRITE = 6;  // and then the disk is full

// A group is refused because the disk is full after half of it. Then a call of the restoration fails.
void failed_restorations(StoreRun &run) {
  run.open();
  run.commit();
  Struck struck = Struck::fault;
  for (uint64_t n = 1; struck != Struck::no; ++n) {
    run.before_restoration = [n] { fail_call(n, 0); };
    fail_call(1, HALF_OF_A_WRITE, "pwrite");
    run.commit();
    struck = fault_struck();
  }
  fail_call(0, 0);
  run.close();
}

// The frame that a restoration writes crosses the border of two sectors, and its sync fails. Later writes do not write the
// first of the sectors again.
void failed_sync_at_a_border(StoreRun &run) {
  constexpr uint64_t SECTOR_BYTES = 512, NEAR_THE_END = 490;
  run.options.journal_level = 10;  // no compression
  run.open();
  run.commit();
  const uint64_t begin = run.journal_bytes();
  run.commit();
  const uint64_t next_end = run.journal_bytes() + run.journal_bytes() - begin;
  run.padding = (SECTOR_BYTES + NEAR_THE_END - next_end % SECTOR_BYTES) % SECTOR_BYTES;
  run.commit();
  run.padding = 0;
  if (run.journal_bytes() % SECTOR_BYTES < SECTOR_BYTES - 39) throw Failure{"the frame does not cross a border"};
  run.before_restoration = [] { fail_call(3, 0, "fsync"); };  // after the two of the state file and its folder
  fail_call(1, HALF_OF_A_WRITE, "pwrite");
  run.commit();
  if (fault_struck() != Struck::fault) throw Failure{"the restoration had no sync"};
  fail_call(0, 0);
  run.commit();
}

// An end and a second epoch. Keeps the first generation, so that its removal does not multiply the states.
void leader(StoreRun &run) {
  run.has_log = true;
  run.options.keep = 1;
  run.open();
  run.lead();
  commit_batches(run, 2);
  run.snapshot();
  run.commit();
  run.close();
  run.open();
  run.lead();
  run.commit();
}

// Until a generation is to be used, the log lacks a group of it, and one of the journal after it.
void leader_with_a_late_log(StoreRun &run) {
  run.has_log = run.log.is_late = true;
  run.open();
  run.lead();
  run.commit();
  call_before_renames([&run, n_left = 3]() mutable {
    if (--n_left == 0) run.commit();  // the generation is not in place yet
  });
  run.snapshot();
  call_before_renames(nullptr);
}

// Groups of another store, and own ones after them.
void follower(StoreRun &run) {
  run.has_log = true;
  run.fill_log(3);
  run.options.keep = 1;
  run.open();
  run.apply();
  run.apply();
  run.snapshot();
  run.apply();
  run.apply();
  run.lead();
  run.commit();
}

// The calls of a snapshot that can change what a cut leaves, and more than it makes of each.
constexpr struct {
  const char *name;
  uint64_t n_max;
} SNAPSHOT_CALLS[] = {{"fsync", 20}, {"fdatasync", 3}, {"rename", 6}, {"write", 10}, {"pwrite", 3}, {"ftruncate", 3}};

// A snapshot of which one call fails, and what comes after.
void failed_snapshot(StoreRun &run, const char *call, uint64_t n, uint64_t n_max) {
  run.options.flags = TSLB_STORE_NO_FORK;
  run.open();
  run.commit();
  fail_call(n, 0, call);
  const bool is_done = run.snapshot();
  if (n == n_max && fault_struck() != Struck::no) throw Failure{"a snapshot has more calls than are tried"};
  fail_call(0, 0);
  if (is_done) return;  // this call can fail without harm, or is not made
  run.commit();
  run.snapshot();
  run.commit();
}

// A follower gets a copy of its leader's store instead of the groups that it lacks. The stored state names the journal of
// a snapshot that failed.
void adopted_copy(StoreRun &run) {
  run.has_log = true;
  run.fill_log(2);
  run.open();
  run.apply();
  fail_call(4, 0, "fsync");  // of the folder, after the renaming of the state
  run.snapshot();
  fail_call(0, 0);
  run.adopt();
  run.lead();
  run.commit();
}

// Any of the above, in any order.
void random_steps(StoreRun &run) {
  std::mt19937_64 &random = run.random();
  run.options.keep = static_cast<uint32_t>(random() % 3);
  if (random() % 2 == 0) run.options.flags = TSLB_STORE_NO_FORK;
  if (random() % 4 == 0) run.options.sync = TSLB_SYNC_NONE;
  run.open();
  for (int left = 25; left > 0; --left) {
    const uint64_t step = random() % 20;
    const bool can_fail = (run.options.flags & TSLB_STORE_NO_FORK) != 0 && random() % 3 == 0;
    if (step < 12) {
      if (can_fail) fail_call(1 + random() % 8, static_cast<unsigned>(random() % 6));
      run.commit();
    } else if (step < 17) {
      if (can_fail) fail_call(1 + random() % 120, static_cast<unsigned>(random() % 6));
      run.snapshot();
    } else {
      run.close();
      if (can_fail) fail_call(1 + random() % 60, static_cast<unsigned>(random() % 6));
      run.open();
    }
    fail_call(0, 0);
  }
}

}  // namespace

// The families with the most states come first: scripts/powercut begins them in this order, and a long one at the end
// would run alone.
const std::vector<Scenario> &short_scenarios() {
  static const std::vector<Scenario> all = [] {
    std::vector<Scenario> scenarios = {{"upgrade", Arrays::small, upgrade}};
    for (const auto &[call, n_max] : SNAPSHOT_CALLS)
      for (uint64_t n = 1; n <= n_max; ++n)
        scenarios.push_back({fmt::format("failed-snapshot-{}-{}", call, n), Arrays::small,
                             [call = call, n, n_max = n_max](StoreRun &run) { failed_snapshot(run, call, n, n_max); },
                             "failed-snapshot"});
    const std::vector<Scenario> others = {{"import", Arrays::small, import},
                                          {"failed-restorations", Arrays::small, failed_restorations},
                                          {"leader", Arrays::small, leader},
                                          {"snapshots", Arrays::small, snapshots},
                                          {"leader-with-a-late-log", Arrays::one, leader_with_a_late_log},
                                          {"without-syncs", Arrays::small, without_syncs},
                                          {"follower", Arrays::small, follower},
                                          {"adopted-copy", Arrays::small, adopted_copy},
                                          {"kept-generations", Arrays::small, kept_generations},
                                          {"refused-batches", Arrays::small, refused_batches},
                                          {"batches-in-a-snapshot", Arrays::small, batches_in_a_snapshot},
                                          {"failed-sync-at-a-border", Arrays::small, failed_sync_at_a_border},
                                          {"batches", Arrays::small, batches},
                                          {"create", Arrays::small, create},
                                          {"backup", Arrays::small, backup}};
    scenarios.insert(scenarios.end(), others.begin(), others.end());
    return scenarios;
  }();
  return all;
}

const std::vector<Scenario> &long_scenarios() {
  static const std::vector<Scenario> all = {{"random-small", Arrays::small, random_steps},
                                            {"random-large", Arrays::large, random_steps}};
  return all;
}

}  // namespace powercut
