// Each call of the system that a store makes fails with each error that it can have, and each allocation fails. Afterwards
// the store is whole, or it is broken and says so; opening it again finds every batch that was acknowledged.
#include <fault_alloc.h>
#include <tslb/tslb_util.h>

#include "search.h"

namespace powercut {
namespace {

// A sanitizer slows a process down by ten times.
#if defined(TSLB_SANITIZES_ADDRESS)
constexpr uint64_t STEP = 13;
#else
constexpr uint64_t STEP = 1;
#endif

// A part of the life of a store.
struct Part {
  const char *name;
  std::function<void(StoreRun &)> before, run;  // faults are in `run`
};

void make_store(StoreRun &run) {
  run.open();
  run.commit();
}

// The folder of a process that is killed in a snapshot, with a group in the next journal.
void make_two_journals(StoreRun &run) {
  make_store(run);
  int n_renames = 0;
  call_before_renames([&] {
    if (++n_renames != 3) return;  // of the generation
    run.commit();
    run.save();
  });
  run.snapshot();
  call_before_renames(nullptr);
  run.use_saved();
  if (!fs::exists(run.store_folder() + "/journal.2")) throw Failure{"the snapshot did not change to the next journal"};
}

// A follower lacks groups of the log, with which an array gets another block.
void make_follower(StoreRun &run) {
  run.has_log = true;
  run.fill_log(3);
  run.open();
  run.apply();
}

const Part PARTS[] = {
    {"creation", [](StoreRun &) {}, [](StoreRun &run) { run.open(); }},
    {"first batch", [](StoreRun &run) { run.open(); }, [](StoreRun &run) { run.commit(); }},
    {"batch", make_store, [](StoreRun &run) { run.commit(); }},
    {"snapshot", make_store, [](StoreRun &run) { run.snapshot(); }},
    {"snapshot without fork",
     [](StoreRun &run) {
       run.options.flags = TSLB_STORE_NO_FORK;
       make_store(run);
     },
     [](StoreRun &run) { run.snapshot(); }},
    {"batch that is given up", make_store, [](StoreRun &run) { run.refuse(); }},
    {"backup", make_store, [](StoreRun &run) { run.back_up(); }},
    {"reader", make_store, [](StoreRun &run) { run.read(); }},
    {"import", [](StoreRun &) {},
     [](StoreRun &run) {
       run.import();
       run.close();
     }},
    {"end", make_store, [](StoreRun &run) { run.close(); }},
    {"recovery",
     [](StoreRun &run) {
       make_store(run);
       run.save();
       run.use_saved();
     },
     [](StoreRun &run) { run.open(); }},
    // What is not decompressed for want of memory is not damaged, and salvage cuts nothing.
    {"salvage of compressed files",
     [](StoreRun &run) {
       run.compresses = true;
       run.padding = 2000;
       make_store(run);
       run.save();
       run.use_saved();
     },
     [](StoreRun &run) { run.open(TSLB_STORE_CREATE | TSLB_STORE_SALVAGE); }},
    {"recovery with two journals", make_two_journals, [](StoreRun &run) { run.open(); }},
    {"upgrade",
     [](StoreRun &run) {
       make_store(run);
       run.close();
       run.has_added_array = true;
     },
     [](StoreRun &run) { run.open(); }},
    {"applied group", make_follower,
     [](StoreRun &run) {
       for (int left = 3; left > 0; --left) run.apply();
       run.lead();
     }},
    {"adopted copy", make_follower,
     [](StoreRun &run) {
       run.adopt();
       run.lead();
     }},
};

class SyscallFaults : public DurableTest {
 protected:
  SyscallFaults() { tslb_set_timer_factor(1e18); }
  ~SyscallFaults() override {
    fail_call(0, 0);
    tslb_set_timer_factor(1.0);
  }

  // Runs a part with a fault. Then the store goes on, or is opened again.
  void run_with_fault(const Part &part, bool goes_on, const std::function<void(StoreRun &)> &faulty) {
    fs::remove_all(folder_);
    fs::create_directory(folder_);
    begin_recording(folder_);  // makes reservations of disk space cost nothing
    StoreRun run(Arrays::small, 1, folder_);
    part.before(run);
    faulty(run);
    if (!run.is_open()) run.open();
    run.commit();
    run.close();
    Bounds bounds = {run.last(), run.last(), {}};
    if (run.has_log) bounds.logged = run.last();
    run.recover(run.store_folder(), bounds, goes_on);
  }
};

TEST_F(SyscallFaults, EachErrorOfEachCallLosesNothing) {
  std::map<std::string, int> struck;
  for (const Part &part : PARTS) {
    uint64_t n = 1;
    for (bool is_made = true; is_made; n += STEP)
      for (unsigned which = 0;; ++which) {
        SCOPED_TRACE(fmt::format("{}: call {} fails with its error {}", part.name, n, which));
        Struck became = Struck::no;
        try {
          run_with_fault(part, n % 4 == 1, [&](StoreRun &run) {
            fail_call(n, which);
            part.run(run);
            became = fault_struck();
            fail_call(0, 0);
          });
        } catch (const Failure &failure) {
          FAIL() << struck_call() << ": " << failure.what;
        }
        if (became == Struck::fault) ++struck[struck_call()];
        is_made = became != Struck::no;
        if (became != Struck::fault) break;
      }
    EXPECT_GE(n, 5u) << part.name << " makes too few calls";
  }
#if !defined(TSLB_SANITIZES_ADDRESS)
  for (const char *const call :
       {"open",    "fstat",     "eventfd",   "read",      "pread", "write",   "pwrite",   "writev",
        "fsync",   "fdatasync", "ftruncate", "fallocate", "mkdir", "rename",  "unlink",   "rmdir",
        "opendir", "readdir",   "flock",     "pipe2",     "fork",  "waitpid", "getrandom"})
    EXPECT_GT(struck[call], 0) << call;
#endif
}

#if !defined(TSLB_SANITIZES_ADDRESS)
TEST_F(SyscallFaults, EachRefusedAllocationLosesNothing) {
  for (const Part &part : PARTS) {
    int n_struck = 0;
    for (int n = 1;; ++n) {
      SCOPED_TRACE(fmt::format("{}: allocation {} is refused", part.name, n));
      bool has_struck = false;
      try {
        run_with_fault(part, n % 4 == 1, [&](StoreRun &run) {
          run.around_step = [](const std::function<bool()> &step) {
            const counted_t counted;
            return step();
          };
          {
            const fault_everywhere_t fault(n);
            run.was_memory_refused = [&fault] { return fault.struck(); };
            part.run(run);
            has_struck = fault.struck();
          }
          run.around_step = nullptr;
          run.was_memory_refused = nullptr;
        });
      } catch (const Failure &failure) {
        FAIL() << failure.what;
      }
      if (!has_struck) break;
      ++n_struck;
    }
    EXPECT_GT(n_struck, 2) << part.name;
  }
}
#endif

}  // namespace
}  // namespace powercut
