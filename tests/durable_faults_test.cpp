// Durable stores whose process is killed, or whose disk fails, at each step on the disk.
#include <io_faults.h>
#include <tslb/tslb_util.h>

#include <algorithm>

#include "durable_support.h"

namespace {

// A sanitizer slows a process down by ten times.
#if defined(TSLB_SANITIZES_ADDRESS)
constexpr uint64_t STEP = 5;
#else
constexpr uint64_t STEP = 1;
#endif
constexpr int N_BATCHES = 14;
constexpr int SNAPSHOT_AFTER = 5;  // a batch; also the second opening comes after so many

// Batches that are the same in each run. A batch that was taken back can be repeated.
class DurableFaults : public DurableTest {
 protected:
  DurableFaults() {
    // Nodes contain the time.
    tslb_set_timer_factor(1e18);
    reference_ = reference_contents();
  }
  ~DurableFaults() override {
    tslb_durable::crash_at_io(0);
    tslb_durable::fail_at_io(0, 0);
    tslb_set_timer_factor(1.0);
  }

  static bool run_batch(TestStore &store, int number) {
    std::mt19937 random(static_cast<uint32_t>(number));
    tslb_batch_t *const batch = store.begin();
    if (batch == nullptr) return false;
    for (int left = 4; left > 0; --left) store.change(batch, random);
    tslb_batch_set_payload(batch, &number, sizeof number, nullptr);
    return tslb_batch_commit(batch, &store.error) == 0;
  }

  static bool open(TestStore &store, const std::string &folder) {
    store.options.keep = 1;
    return store.open(folder);
  }

  // Contents after no batch, one batch, and so on.
  std::vector<std::string> reference_contents() {
    TestStore store;
    EXPECT_TRUE(open(store, root_ + "/reference")) << store.error.text;
    std::vector<std::string> contents = {store.content()};
    for (int number = 0; number < N_BATCHES; ++number) {
      EXPECT_TRUE(run_batch(store, number)) << store.error.text;
      contents.push_back(store.content());
    }
    return contents;
  }

  // Returns the number of batches in a store; -1 if the content is that of no number.
  int n_batches_in(const TestStore &store) const {
    const int n_batches = n_batches_in_memory(store);
    int last = -1;
    size_t size;
    const void *const payload = tslb_store_payload(store.get(), &size);
    if (payload != nullptr) std::memcpy(&last, payload, sizeof last);
    EXPECT_EQ(last, n_batches - 1) << "the payload is that of another batch";
    return n_batches;
  }

  // As before, without the payload, which is that of the opening.
  int n_batches_in_memory(const TestStore &store) const {
    const auto found = std::find(reference_.begin(), reference_.end(), store.content());
    return found == reference_.end() ? -1 : static_cast<int>(found - reference_.begin());
  }

  std::vector<std::string> reference_;
};

TEST_F(DurableFaults, KillAtEachStepKeepsAcknowledgedBatches) {
#if defined(TSLB_SANITIZES_THREAD)
  GTEST_SKIP() << "a killed process reports no race";
#endif
  int n_kills = 0;
  for (uint64_t k = 1;; k += STEP) {
    SCOPED_TRACE(fmt::format("step {}", k));
    fs::remove_all(folder_);
    int acks[2];
    ASSERT_EQ(pipe(acks), 0);
    const int ended = in_child([&] {
      tslb_durable::crash_at_io(k);
      TestStore store;
      if (!open(store, folder_)) return 1;
      for (int number = 0; number < N_BATCHES; ++number) {
        if (!run_batch(store, number)) return 2;
        if (write(acks[1], "+", 1) != 1) return 3;
        if (number == SNAPSHOT_AFTER && tslb_store_snapshot(store.get(), &store.error) != 0) return 0;
        if (number == SNAPSHOT_AFTER + 3 && (store.close() != 0 || !open(store, folder_))) return 4;
      }
      return store.close() == 0 ? 0 : 5;
    });
    close(acks[1]);
    char marks[N_BATCHES];
    const auto n_acknowledged = static_cast<int>(read(acks[0], marks, sizeof marks));
    close(acks[0]);
    ASSERT_TRUE(ended == 0 || ended == -SIGKILL) << ended;
    n_kills += ended != 0 ? 1 : 0;

    TestStore store;
    if (n_acknowledged > 0) {
      TestStore reader;
      ASSERT_TRUE(reader.open(folder_, TSLB_STORE_READ_ONLY)) << reader.error.text;
      ASSERT_GE(n_batches_in(reader), n_acknowledged);
    }
    ASSERT_TRUE(open(store, folder_)) << store.error.text;
    int n_found = n_batches_in(store);
    ASSERT_GE(n_found, n_acknowledged) << "an acknowledged batch is lost";
    ASSERT_LE(n_found, n_acknowledged + 1);
    // Another process continues.
    for (; n_found < N_BATCHES; ++n_found) ASSERT_TRUE(run_batch(store, n_found)) << store.error.text;
    ASSERT_EQ(tslb_store_snapshot(store.get(), &store.error), 0) << store.error.text;
    ASSERT_EQ(store.close(), 0) << store.error.text;
    ASSERT_TRUE(open(store, folder_)) << store.error.text;
    ASSERT_EQ(n_batches_in(store), N_BATCHES);
    if (ended == 0 && n_acknowledged == N_BATCHES) break;
  }
  EXPECT_GT(n_kills, 60 / static_cast<int>(STEP));
}

TEST_F(DurableFaults, FailureOfEachStepRefusesOrBreaksAndLosesNothing) {
  for (const int error : {ENOSPC, EIO}) {
    int n_refused = 0, n_broken = 0, n_failed_snapshots = 0;
    for (uint64_t k = 1;; k += STEP) {
      SCOPED_TRACE(fmt::format("step {} fails with {}", k, error));
      fs::remove_all(folder_);
      const uint64_t before = tslb_durable::io_operations();
      tslb_durable::fail_at_io(k, error);
      TestStore store;
      if (!open(store, folder_)) {
        ASSERT_EQ(store.error.code, TSLB_DURABLE_IO) << store.error.text;
        ASSERT_EQ(store.error.errnum, error);
        ASSERT_TRUE(open(store, folder_)) << store.error.text;
      }
      for (int number = 0; number < N_BATCHES;) {
        if (run_batch(store, number)) {
          ++number;
        } else if (store.error.code == TSLB_DURABLE_REFUSED) {
          ++n_refused;
          ASSERT_EQ(tslb_store_restore(store.get(), &store.error), 0) << store.error.text;
          ASSERT_EQ(n_batches_in(store), number);
          continue;
        } else {
          ++n_broken;
          ASSERT_EQ(store.error.code, TSLB_DURABLE_BROKEN) << store.error.text;
          ASSERT_EQ(store.close(), -1);
          ASSERT_TRUE(open(store, folder_)) << store.error.text;
          const int n_found = n_batches_in(store);
          ASSERT_TRUE(n_found == number || n_found == number + 1) << n_found;
          number = n_found;
          continue;
        }
        if (number == SNAPSHOT_AFTER && tslb_store_snapshot(store.get(), &store.error) != 0) ++n_failed_snapshots;
      }
      ASSERT_EQ(n_batches_in_memory(store), N_BATCHES);
      store.close();
      const bool had_fault = tslb_durable::io_operations() - before >= k;
      tslb_durable::fail_at_io(0, 0);
      ASSERT_TRUE(open(store, folder_)) << store.error.text;
      ASSERT_EQ(n_batches_in(store), N_BATCHES);
      if (!had_fault) break;
    }
    EXPECT_GT(n_refused, 0);
    EXPECT_GT(n_broken, 0);
    EXPECT_GT(n_failed_snapshots, 0);
  }
}

}  // namespace
