// Uses of a store that a host can get wrong: in a child process, with an open batch, with a path that changes its meaning;
// and what an ended process leaves. tests/powercut ends it at each moment and lets each call fail.
#include <io_faults.h>

#include "durable_support.h"

using DurableMisuse = DurableTest;

// A child that ends with exit runs destructors, and one that goes on could use the store.
TEST_F(DurableMisuse, ForkedChildCannotTouchTheStore) {
  const std::function<bool(TestStore &)> rows[] = {
      [](TestStore &store) { return tslb_store_close(store.get(), &store.error) == -1; },
      [](TestStore &store) { return store.begin() == nullptr; },
      [](TestStore &store) { return tslb_store_snapshot(store.get(), &store.error) == -1; },
      [](TestStore &store) { return tslb_store_restore(store.get(), &store.error) == -1; },
      [](TestStore &store) { return tslb_store_wait(store.get(), 1, &store.error) == -1; },
  };
  TestStore store;
  ASSERT_TRUE(store.open(folder_));
  uint32_t n_slots = 0;
  for (const auto &is_refused : rows) {
    ASSERT_TRUE(store.commit_slot(++n_slots, 16));
    const auto in_the_child = [&] {
      if (!is_refused(store) || store.error.code != TSLB_DURABLE_INVALID) return 1;
      uint32_t idx;
      tslb_da_get_newptr(store.array(SLOTS), &idx);  // its own copy
      return store.info().n_batches == 0 && tslb_store_settled(store.get()) == 0 ? 0 : 2;
    };
    EXPECT_EQ(in_child(in_the_child), 0);
    // A batch that was begun by the parent.
    tslb_batch_t *const batch = store.begin();
    EXPECT_EQ(in_child([&] { return tslb_batch_end(batch) == 0 && tslb_batch_commit(batch, nullptr) == -1 ? 0 : 1; }),
              0);
    ASSERT_EQ(tslb_batch_commit(batch, &store.error), 0) << store.error.text;
  }
  const std::string expected = store.content();
  store.abandon();
  TestStore again;
  // The lock of the store that was abandoned is still there.
  ASSERT_TRUE(again.open(folder_, TSLB_STORE_READ_ONLY)) << again.error.text;
  EXPECT_EQ(again.content(), expected);
}

TEST_F(DurableMisuse, CloseWithAnOpenBatchReleasesNothing) {
  TestStore store;
  ASSERT_TRUE(store.open(folder_));
  tslb_batch_t *const batch = store.begin();
  store.add_slot(batch, 1, 16);
  EXPECT_EQ(tslb_store_close(store.get(), &store.error), -1);
  EXPECT_EQ(store.error.code, TSLB_DURABLE_INVALID);
  ASSERT_EQ(tslb_batch_commit(batch, &store.error), 0) << store.error.text;
  const std::string expected = store.content();
  ASSERT_EQ(store.close(), 0) << store.error.text;
  ASSERT_TRUE(store.open(folder_));
  EXPECT_EQ(store.content(), expected);
}

// A restoration took the group that was not written yet, and lost it.
TEST_F(DurableMisuse, RestorationKeepsOrRefusesBatchesThatWereNotWrittenYet) {
  TestStore store;
  ASSERT_TRUE(store.open(folder_));
  tslb_batch_t *batch = store.begin();
  store.add_slot(batch, 1, 16);
  const uint64_t kept = tslb_batch_end(batch);
  ASSERT_EQ(tslb_store_restore(store.get(), &store.error), 0) << store.error.text;
  EXPECT_EQ(tslb_store_check(store.get(), kept, &store.error), 0) << store.error.text;
  const std::string expected = store.content();
  batch = store.begin();
  store.add_slot(batch, 2, 16);
  const uint64_t given_up = tslb_batch_refuse(batch, "no reason");
  ASSERT_EQ(tslb_store_restore(store.get(), &store.error), 0) << store.error.text;
  EXPECT_EQ(tslb_store_check(store.get(), given_up, &store.error), -1);
  EXPECT_NE(std::string(store.error.text).find("a batch was given up: no reason"), std::string::npos);
  EXPECT_EQ(store.content(), expected);
  ASSERT_TRUE(store.commit_slot(3, 16)) << store.error.text;
  const std::string last = store.content();
  ASSERT_EQ(store.close(), 0) << store.error.text;
  ASSERT_TRUE(store.open(folder_));
  EXPECT_EQ(store.content(), last);
}

// As a daemon does after it has read its configuration.
TEST_F(DurableMisuse, WorkingFolderMayChange) {
  const auto run = [this] {
    fs::current_path(root_);
    TestStore store;
    if (!store.open("store") || !store.commit_slot(1, 16)) return 1;
    fs::create_directory("elsewhere");
    fs::current_path("elsewhere");
    if (tslb_store_snapshot(store.get(), &store.error) != 0 || !store.commit_slot(2, 16)) return 2;
    if (store.close() != 0) return 3;
    return fs::is_empty(".") ? 0 : 4;
  };
  EXPECT_EQ(in_child(run), 0);
  TestStore store;
  ASSERT_TRUE(store.open(folder_)) << store.error.text;
  EXPECT_EQ(tslb_da_get_size(store.array(SLOTS)), 2u);
}

TEST_F(DurableMisuse, PathThatIsNoFolderIsNoStore) {
  put_bytes(folder_, "text");
  TestStore store;
  EXPECT_FALSE(store.open(folder_, 0));
  EXPECT_EQ(store.error.code, TSLB_DURABLE_NO_STORE);
  EXPECT_EQ(bytes_of(folder_), "text");
}

// A limit lets free slots be used, and can be another at the next opening.
TEST_F(DurableMisuse, LimitOfSlotsIsExact) {
  tslb_array_decl_t decl = decl_of("pool", TSLB_POOL_BIG_BUFFER, BBP_TBLID, 400, 4, TSLB_DA_DAFLAG_LL);
  decl.has_compat = 1;
  std::vector<maddr_t> chunks;
  for (const int16_t max_slots : {4, 5, 21}) {
    SCOPED_TRACE(max_slots);
    decl.max_slots = max_slots;
    TestStore store({decl});
    ASSERT_TRUE(store.open(folder_)) << store.error.text;
    tslb_batch_t *const batch = store.begin();
    tslb_pool_room_t room = {};
    for (maddr_t address; tslb_batch_take_chunk(batch, 0, 300, {}, &address, &store.error) != nullptr;) {
      chunks.push_back(address);
      ASSERT_EQ(tslb_store_pool_room(store.get(), 0, &room), 0);
      EXPECT_EQ(room.fresh, 400u * (static_cast<uint32_t>(max_slots) - tslb_da_get_size(store.array(0))));
    }
    EXPECT_EQ(store.error.code, TSLB_DURABLE_FULL);
    EXPECT_EQ(tslb_da_get_size(store.array(0)), static_cast<uint32_t>(max_slots));
    tslb_batch_delete_chunk(batch, 0, chunks.front());
    chunks.erase(chunks.begin());
    tslb_batch_sweep(batch, 0);
    maddr_t address;
    EXPECT_NE(tslb_batch_take_chunk(batch, 0, 300, {}, &address, &store.error), nullptr) << store.error.text;
    chunks.push_back(address);
    EXPECT_EQ(tslb_batch_take_chunk64(batch, 0, 300, {}, nullptr, &store.error), nullptr);
    EXPECT_EQ(store.error.code, TSLB_DURABLE_INVALID);
    ASSERT_EQ(tslb_batch_commit(batch, &store.error), 0) << store.error.text;
  }
}

TEST_F(DurableMisuse, RefusedBackupLeavesNothing) {
  TestStore store;
  ASSERT_TRUE(store.open(folder_));
  ASSERT_TRUE(store.commit_slot(1, 16));
  EXPECT_EQ(tslb_store_backup(store.get(), (folder_ + "/copy").c_str(), &store.error), -1);
  EXPECT_EQ(store.error.code, TSLB_DURABLE_INVALID);
  EXPECT_FALSE(fs::exists(folder_ + "/copy"));
  const std::string target = root_ + "/copy";
  // The journal is shorter than what was settled, so it cannot be copied.
  const std::string journal = folder_ + "/journal.1", bytes = bytes_of(journal);
  fs::resize_file(journal, sizeof(uint64_t));
  EXPECT_EQ(tslb_store_backup(store.get(), target.c_str(), &store.error), -1);
  EXPECT_TRUE(fs::is_empty(target)) << store.error.text;
  put_bytes(journal, bytes);
  EXPECT_EQ(tslb_store_backup(store.get(), target.c_str(), &store.error), 0) << store.error.text;
}

// A child of a killed writer has the lock for a moment after the kill. Another writer in the same process has it for
// longer, and is reported at once.
TEST_F(DurableMisuse, LockOfAKilledWriterIsWaitedFor) {
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
TEST_F(DurableMisuse, FailedStepOfASnapshotAfterAnUnfinishedOneIsReported) {
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
