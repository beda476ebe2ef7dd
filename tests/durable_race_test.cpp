// Durable stores with several threads.
#include <gmock/gmock.h>

#include "durable_support.h"
#include "threads.h"

namespace {

using DurableRace = DurableTest;

constexpr int N_THREADS = 4;

// Each batch moves an amount from one record to another, so the sum shows a half batch.
TEST_F(DurableRace, BatchesOfManyThreadsAreWholeBesideSnapshotsAndBackups) {
  constexpr uint32_t N_ACCOUNTS = 40, AMOUNT = 1000;
  const auto sum_of = [](const TestStore &store) {
    uint64_t sum = 0;
    for (uint32_t idx = 0; idx < tslb_da_get_size(store.array(SLOTS)); ++idx)
      sum += static_cast<const TestRecord *>(tslb_da_get_ptr(store.array(SLOTS), idx))->value;
    return sum;
  };
  TestStore store;
  store.options.snapshot_bytes = 8 << 10;
  ASSERT_TRUE(store.open(folder_));
  tslb_batch_t *const batch = store.begin();
  for (uint32_t i = 0; i < N_ACCOUNTS; ++i) store.add_slot(batch, AMOUNT, 0);
  ASSERT_EQ(tslb_batch_commit(batch, &store.error), 0) << store.error.text;

  std::atomic<int> n_failures = 0, n_ended = 0;
  std::vector<uint64_t> n_moves(N_THREADS);
  on_threads(N_THREADS, [&](int number) {
    std::mt19937 random(static_cast<uint32_t>(number));
    for (int i = 0; i < 150; ++i) {
      // Each thread has accounts of its own; the records are one batch.
      const auto from = static_cast<uint32_t>(number * 10 + static_cast<int>(random() % 5));
      const auto to = from + 5;
      tslb_error_t error;
      tslb_batch_t *const move = tslb_batch_begin(store.get(), &error);
      if (move == nullptr) {
        ++n_failures;
        break;
      }
      for (const uint32_t idx : {from, to}) {
        auto *const record = static_cast<TestRecord *>(tslb_da_get_ptr(store.array(SLOTS), idx));
        record->value += idx == from ? static_cast<uint32_t>(-1) : 1;
        tslb_batch_log_bytes(move, SLOTS, idx, offsetof(TestRecord, value), sizeof record->value);
      }
      maddr_t address;
      void *const chunk = tslb_batch_take_chunk(move, BITS, 24, {}, &address, &error);
      if (chunk != nullptr) {
        std::memset(chunk, number, 24);
        tslb_batch_log_chunk(move, BITS, address, 0, 24);
        tslb_batch_delete_chunk(move, BITS, address);
      }
      if (i % 7 == 0) tslb_batch_sweep(move, BITS);
      if (i % 3 == 0) {
        n_failures += tslb_batch_commit(move, &error) != 0 ? 1 : 0;
      } else {
        tslb_batch_end(move);
      }
      ++n_moves[static_cast<size_t>(number)];
      if (number == 0 && i % 50 == 20) n_failures += tslb_store_snapshot(store.get(), &error) != 0 ? 1 : 0;
      if (number == 1 && i == 60)
        n_failures += tslb_store_backup(store.get(), (root_ + "/backup").c_str(), &error) != 0 ? 1 : 0;
      if (number == 2 && i % 4 == 2) {
        TestStore reader;
        n_failures += reader.open(folder_, TSLB_STORE_READ_ONLY) && sum_of(reader) == N_ACCOUNTS * AMOUNT ? 0 : 1;
      }
    }
    ++n_ended;
  });
  EXPECT_EQ(n_failures, 0);
  EXPECT_EQ(n_ended, N_THREADS);
  const tslb_store_info_t info = store.info();
  EXPECT_GE(info.n_snapshots, 3u);
  EXPECT_STREQ(info.snapshot_failure, "");
  const std::string expected = store.content();
  ASSERT_EQ(store.close(), 0) << store.error.text;
  ASSERT_TRUE(store.open(folder_)) << store.error.text;
  EXPECT_EQ(store.content(), expected);
  TestStore backup;
  ASSERT_TRUE(backup.open(root_ + "/backup")) << backup.error.text;
  EXPECT_EQ(sum_of(backup), N_ACCOUNTS * AMOUNT);
}

// One thread's batch is refused; batches of other threads that share its group, or follow it, are refused too.
TEST_F(DurableRace, RefusalReachesAllTicketsAndRestoringEndsIt) {
  TestStore store;
  ASSERT_TRUE(store.open(folder_, TSLB_STORE_CREATE));
  std::atomic<uint32_t> n_durable = 0;
  for (int round = 0; round < 10; ++round) {
    std::atomic<int> n_refused = 0;
    on_threads(N_THREADS, [&](int number) {
      for (int i = 0; i < 20; ++i) {
        tslb_error_t error;
        tslb_batch_t *const batch = tslb_batch_begin(store.get(), &error);
        if (batch == nullptr) {
          n_refused += error.code == TSLB_DURABLE_REFUSED ? 1 : 100;
          return;
        }
        uint32_t idx;
        static_cast<TestRecord *>(tslb_da_get_newptr(store.array(SLOTS), &idx))->value = 3;
        tslb_batch_log_record(batch, SLOTS, idx);
        if (number == 0 && i == 10) tslb_batch_log_record(batch, SLOTS, UINT32_MAX);
        if (tslb_batch_commit(batch, &error) == 0) {
          ++n_durable;
        } else {
          n_refused += error.code == TSLB_DURABLE_REFUSED ? 1 : 100;
          return;
        }
      }
    });
    ASSERT_GE(n_refused, 1);
    ASSERT_LE(n_refused, N_THREADS);
    ASSERT_EQ(tslb_store_restore(store.get(), &store.error), 0) << store.error.text;
    ASSERT_EQ(tslb_da_get_size(store.array(SLOTS)), n_durable);
  }
}

}  // namespace
