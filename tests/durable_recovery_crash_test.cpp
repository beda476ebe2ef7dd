// A process that is killed while it recovers, in a snapshot after one that failed, or while a child has its lock.
#include <io_faults.h>

#include "durable_support.h"

using DurableRecovery = DurableTest;

namespace {

void commit_one(TestStore &store, uint32_t value) {
  tslb_batch_t *const batch = store.begin();
  ASSERT_NE(batch, nullptr) << store.error.text;
  store.add_slot(batch, value, 16);
  ASSERT_EQ(tslb_batch_commit(batch, &store.error), 0) << store.error.text;
}

}  // namespace

// The process ends between the change to the next journal and the end of the generation. The first journal has its seal,
// but the state of the store does not say so yet. A recovery that opens it again, and is killed before it seals it,
// would leave groups after a journal without a seal.
TEST_F(DurableRecovery, KilledAtAnyStepLeavesTheStoreReadable) {
#if defined(TSLB_SANITIZES_THREAD)
  GTEST_SKIP() << "a killed process reports no race";
#endif
  constexpr uint64_t MAX_STEPS = 200;
  uint64_t n_recoveries = 0, n_with_two_journals = 0;
  for (uint64_t failing = 1; failing < MAX_STEPS; ++failing) {
    SCOPED_TRACE(fmt::format("step {} of the snapshot fails", failing));
    fs::remove_all(folder_);
    std::string expected;
    {
      TestStore store;
      ASSERT_TRUE(store.open(folder_, TSLB_STORE_CREATE | TSLB_STORE_NO_FORK)) << store.error.text;
      commit_one(store, 1);
      tslb_durable::fail_at_io(failing, EIO);
      const bool is_done = tslb_store_snapshot(store.get(), nullptr) == 0;
      tslb_durable::fail_at_io(0, 0);
      if (is_done) break;  // the snapshot has fewer steps
      commit_one(store, 2);
      expected = store.content();
      // As a kill leaves it: the folder is copied before the store is closed.
      fs::copy(folder_, root_ + "/killed", fs::copy_options::recursive);
    }
    n_with_two_journals += fs::exists(root_ + "/killed/journal.2") && fs::file_size(root_ + "/killed/journal.2") > 40;
    for (uint64_t step = 1; step < MAX_STEPS; ++step) {
      SCOPED_TRACE(fmt::format("killed at step {} of the recovery", step));
      const std::string copy = root_ + "/copy";
      fs::remove_all(copy);
      fs::copy(root_ + "/killed", copy, fs::copy_options::recursive);
      const int result = in_child([&] {
        tslb_durable::crash_at_io(step);
        TestStore store;
        const bool is_open = store.open(copy, 0);
        store.abandon();
        return is_open ? 0 : 1;
      });
      ASSERT_NE(result, 1) << "the first recovery failed";
      TestStore again;
      ASSERT_TRUE(again.open(copy, TSLB_STORE_SHADOW)) << again.error.text;
      ASSERT_EQ(again.content(), expected);
      ++n_recoveries;
      if (result == 0) break;  // the recovery has fewer steps
    }
    fs::remove_all(root_ + "/killed");
  }
  EXPECT_GT(n_recoveries, 20u);
  EXPECT_GT(n_with_two_journals, 0u) << "the snapshot never failed after the change to the next journal";
}

// A failed snapshot can leave a state that names the next journal. The next snapshot makes this journal anew: if it is
// killed before that, the state must not name a journal that is missing.
TEST_F(DurableRecovery, KilledInTheSnapshotAfterAFailedOneLeavesTheStoreReadable) {
#if defined(TSLB_SANITIZES_THREAD)
  GTEST_SKIP() << "a killed process reports no race";
#endif
  constexpr uint64_t MAX_STEPS = 200;
  constexpr uint64_t MAX_KILLED_STEPS = 20;  // until the next journal is in the state; then the failed one is replaced
  enum { DONE = 0, FIRST_SUCCEEDED = 1, OTHER = 2 };
  bool has_first_succeeded = false;
  for (uint64_t failing = 1; failing < MAX_STEPS && !has_first_succeeded; ++failing) {
    for (uint64_t step = 1; step < MAX_KILLED_STEPS && !has_first_succeeded; ++step) {
      SCOPED_TRACE(fmt::format("step {} of a snapshot fails, killed at step {} of the next", failing, step));
      fs::remove_all(folder_);
      const int result = in_child([&] {
        TestStore store;
        if (!store.open(folder_, TSLB_STORE_CREATE | TSLB_STORE_NO_FORK)) return OTHER;
        commit_one(store, 1);
        tslb_durable::fail_at_io(failing, EIO);
        if (tslb_store_snapshot(store.get(), nullptr) == 0) return FIRST_SUCCEEDED;
        tslb_durable::crash_at_io(step);
        return tslb_store_snapshot(store.get(), nullptr) == 0 ? DONE : OTHER;
      });
      ASSERT_NE(result, OTHER);
      has_first_succeeded = result == FIRST_SUCCEEDED;
      TestStore store;
      ASSERT_TRUE(store.open(folder_, TSLB_STORE_SHADOW)) << store.error.text;
      ASSERT_EQ(tslb_da_get_size(store.array(SLOTS)), 1u);
    }
  }
  EXPECT_TRUE(has_first_succeeded) << "a snapshot has more steps than are tried";
}

// A child of a killed writer has the lock for a moment after the kill. Another writer in the same process has it for
// longer, and is reported at once.
TEST_F(DurableRecovery, LockOfAKilledWriterIsWaitedFor) {
  const int result = in_child([&] {
    TestStore store;
    if (!store.open(folder_)) return 1;
    if (fork() == 0) {
      usleep(200'000);
      _exit(0);
    }
    kill(getpid(), SIGKILL);
    return 2;
  });
  ASSERT_EQ(result, -SIGKILL);
  TestStore store;
  ASSERT_TRUE(store.open(folder_)) << store.error.text;
  TestStore second;
  EXPECT_FALSE(second.open(folder_));
  EXPECT_EQ(second.error.code, TSLB_DURABLE_LOCKED);
}

// An unfinished generation has the next number. If a step of its removal fails, the snapshot succeeds nevertheless, or
// reports the error of this step, and not that the folder exists.
TEST_F(DurableRecovery, FailedStepOfASnapshotAfterAnUnfinishedOneIsReported) {
  constexpr uint64_t MAX_STEPS = 200;
  int n_failed = 0;
  bool had_fault = true;
  for (uint64_t failing = 1; failing < MAX_STEPS && had_fault; ++failing) {
    SCOPED_TRACE(fmt::format("step {} of a snapshot fails", failing));
    fs::remove_all(folder_);
    TestStore store;
    ASSERT_TRUE(store.open(folder_, TSLB_STORE_CREATE | TSLB_STORE_NO_FORK)) << store.error.text;
    fs::create_directory(folder_ + "/generation.2.new");
    put_bytes(folder_ + "/generation.2.new/slots.stream", "unfinished");
    const uint64_t before = tslb_durable::io_operations();
    tslb_durable::fail_at_io(failing, EDQUOT);
    if (tslb_store_snapshot(store.get(), &store.error) != 0) {
      ++n_failed;
      EXPECT_EQ(store.error.errnum, EDQUOT) << store.error.text;
    }
    had_fault = tslb_durable::io_operations() - before >= failing;
    tslb_durable::fail_at_io(0, 0);
  }
  EXPECT_FALSE(had_fault) << "a snapshot has more steps than are tried";
  EXPECT_GT(n_failed, 10);
}
