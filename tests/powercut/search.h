// Runs that are cut, and the search through the states that the cuts leave.
#pragma once

#include <climits>
#include <functional>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <unordered_set>
#include <vector>

#include "../support/durable_support.h"
#include "disk_model.h"

namespace powercut {

// What a recovery may find: the contents after certain batches. Batch 0 is the empty store.
struct Bounds {
  int acknowledged = -1;  // -1: the creation has not returned
  int begun = 0;
  std::vector<int> refused;
  int logged = INT_MAX;  // last one that the log has: later ones are left out

  void apply(const Op &mark);
  bool allows(int batch) const;
};

enum class Arrays {
  one,    // of those of `small`, for scenarios in which many generations are half written
  small,  // two arrays of one or two sectors, so that all states can be visited
  large   // of every kind, with changes of every kind
};

struct Failure {
  std::string what;
};

struct LoggedGroup {
  tslb_log_position_t position;
  std::string body;  // empty at the begin of an epoch

  tslb_group_t view() const { return {body.data(), body.size(), body.empty() ? 0u : 1u, position}; }
};

// A log that a cut does not change. Group n is that of batch n; the begin of an epoch is a batch without changes.
class Log {
 public:
  const tslb_store_log_t *functions();  // valid while the log is at its address
  tslb_log_position_t begin_epoch_after(const tslb_log_position_t &last);
  void get_all();

  std::vector<LoggedGroup> groups;  // that were appended
  bool is_late = false;             // gets groups when it must confirm them, or an epoch begins

 private:
  void append(const tslb_group_t &group);
  bool has(const tslb_group_t &group) const;

  tslb_store_log_t functions_ = {};
};

// The store of a scenario, in the folder "store" below a root, and the contents that it had.
class StoreRun {
 public:
  StoreRun(Arrays arrays, uint64_t seed, std::string root) : arrays_(arrays), seed_(seed), root_(std::move(root)) {}

  // Steps. They throw Failure if the store does not do what it must without a cut, also if a call of the system fails:
  // then it is whole, or broken and says so.
  void open(uint32_t flags = TSLB_STORE_CREATE);
  void commit();    // tries again after a refusal, also with a store that is broken and opened again
  bool snapshot();  // returns false if it was not made
  void close();
  void save();       // copies the folder of the store,
  void use_saved();  // and replaces it with the copy: as a process leaves it that is killed at the time of the copy
  void import();     // creates the store with batch 1
  void back_up();    // to the folder "backup"
  void read();       // by a reader beside the store
  void refuse();     // a batch that is given up; then the store is restored
  void fill_log(int n_batches);  // with those of another store, which began an epoch
  void apply();                  // the next group of the log
  void adopt();                  // a copy of the store that filled the log
  void lead();                   // begins an epoch
  std::mt19937_64 &random() { return random_; }

  bool is_open() const { return store_ && store_->get() != nullptr; }
  int last() const { return last_; }
  uint64_t journal_bytes() const { return store_->info().journal_bytes; }
  std::string store_folder() const { return root_ + "/store"; }

  tslb_store_options_t options = {};
  std::function<void()> before_restoration;  // called once
  // Call each step of the store, and return whether memory was refused since then; null if it never is.
  std::function<bool(const std::function<bool()> &step)> around_step;
  std::function<bool()> was_memory_refused;
  size_t padding = 0;              // bytes that make the groups longer
  bool compresses = false;         // streams
  bool has_added_array = false;    // openings from then on declare another array
  bool marks_backup_only = false;  // the backup is recovered, not the store
  bool has_log = false;            // openings from then on have the log
  Log log;

  // Recovers what a cut left in the folder, twice, and then goes on with it or not. Returns the batch that was found. Throws
  // Failure.
  int recover(const std::string &folder, const Bounds &bounds, bool goes_on) const;

 private:
  std::unique_ptr<TestStore> new_store(Log *its_log = nullptr) const;
  std::string content_of_store(const TestStore &store, const std::string &payload) const;
  void change(TestStore &store, tslb_batch_t *batch, uint32_t number) const;
  int begin_batch();
  void acknowledge();
  bool attempt(const std::function<bool()> &step);
  void expect_fault(const std::string &what) const { expect_fault(what, store_->error); }
  void expect_fault(const std::string &what, const tslb_error_t &error) const;
  void restore(int refused);
  void replace_broken(int number);
  int found_in(const TestStore &store, const Bounds &bounds) const;
  bool is_batch(const TestStore &store, const std::string &content, int batch) const;
  void advance_to(int batch, const std::string &failure, const std::function<int()> &step);
  void apply(TestStore &store, const LoggedGroup &group) const;
  void promote(TestStore &store, Log &its_log) const;
  void use(TestStore &store, Log *its_log, const std::string &folder) const;
  std::string payload_of(int batch) const {
    return batch == 0 ? "none" : std::to_string(batch) + std::string(padding, '.');
  }

  const Arrays arrays_;
  const uint64_t seed_;
  const std::string root_;
  std::mt19937_64 random_{seed_};
  std::unique_ptr<TestStore> store_;
  std::vector<std::string> contents_;  // after each batch, with its payload; 0 is the empty store
  int last_ = 0;                       // batch that the store has
  int saved_ = 0;                      // batch of the saved folder
  bool can_be_broken_ = false;         // by a snapshot that failed
};

struct Scenario {
  std::string name;
  Arrays arrays;
  std::function<void(StoreRun &)> run;
  std::string family = name;  // scenarios of a family have the same contents after the same batches
};

// Scenarios whose states are all visited, and those of which samples are taken.
const std::vector<Scenario> &short_scenarios();
const std::vector<Scenario> &long_scenarios();

// Hashes of what was visited in a family. Runs that begin with the same operations have the same cuts until they differ.
struct Visited {
  std::unordered_set<size_t> states, recoveries, beginnings;
};

struct Counts {
  uint64_t n_cuts = 0;      // moments
  uint64_t n_states = 0;    // different ones, each of which was recovered
  uint64_t n_repeated = 0;  // equal to one of these
  uint64_t n_recovery = 0;  // of the states: after a cut of a recovery
  bool is_complete = true;
};

// A recorded run, and the states that were visited. All functions throw Failure, with a text that replay() takes.
class Search {
 public:
  // Records the run. `scratch` is an empty folder.
  Search(const Scenario &scenario, uint64_t seed, std::string scratch, Visited &visited);

  // Visits all states, and all that a cut of their recovery leaves; of one moment at most `max_states`. Recoveries that
  // do the same to the same files are cut once: the other files stay as they were when the first recovery succeeded.
  void visit_all(uint64_t max_states, const std::function<bool()> &is_time_over);
  // Visits a random state, and one that a cut of its recovery leaves.
  void visit_random(std::mt19937_64 &random);
  // Prints what led to one state, and visits it. `name` was reported for the same scenario and seed.
  void replay(const std::string &name);

  const Counts &counts() const { return counts_; }

 private:
  struct Cut {
    size_t n_ops;
    DiskModel disk;
    Bounds bounds;
  };
  static std::vector<Cut> cuts_of(const std::vector<Op> &ops, DiskModel disk, Bounds bounds);
  // Recovers the state. Returns the cuts of the recovery if it is `first` and did not occur before.
  std::vector<Cut> visit(const Cut &cut, const DiskState &state, const std::string &name, bool is_first);
  void visit_all_of(const Cut &cut, const std::string &prefix, bool is_first, uint64_t max_states,
                    const std::function<bool()> &is_time_over);
  bool is_new(const DiskState &state, const Bounds &bounds);

  const Scenario &scenario_;
  const uint64_t seed_;
  const std::string scratch_;
  const std::string root_;  // where states are recovered
  std::optional<StoreRun> run_;
  std::vector<Op> ops_, recovery_ops_;  // of the run, of the last recovery
  std::vector<Cut> cuts_;
  Visited &visited_;
  Counts counts_;
};

}  // namespace powercut
