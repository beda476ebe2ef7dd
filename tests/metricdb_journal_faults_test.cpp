// The journal with failing file operations and with several threads.
#include <poll.h>
#include <sys/stat.h>

#include "journal_support.h"
#include "threads.h"

// Commits batches 1 to 4. Restarts the journal after a refusal and tries again.
struct Owner {
  std::vector<std::string> settled;    // payloads that were not refused
  std::vector<std::string> attempted;  // the same, and possibly the next one
  std::string failure;                 // the last reason

  void run(const std::string &path, Sync sync) try {
    Journal journal(path, GENERATION, sync);
    uint64_t refused = 0;
    for (uint64_t batch = 1; batch <= 4; ++batch) {
      journal.reserve(1000);
      attempted.push_back(payload_of(batch));
      const uint64_t ticket = commit_batch(journal, batch), next = journal.commit("with it");
      journal.wait(next);
      if (const std::string why = journal.failure(ticket); !why.empty()) {
        failure = why;
        refused = ticket;
        EXPECT_EQ(journal.failure(next), why);
        journal.restart();
        EXPECT_EQ(fs::file_size(path), journal.settled_end()) << "not truncated";
        attempted.pop_back();
        --batch;
        continue;
      }
      settled.push_back(payload_of(batch));
      attempted = settled;
      EXPECT_EQ(journal.failure(refused), failure) << "the reason is lost";
      if (!journal.failure(next).empty()) journal.restart();
    }
    journal.close();
  } catch (const FileError &error) {
    failure = error.what();
  }

  // An existing file contains all settled batches and only attempted ones, in order.
  void compare(const std::string &path) const {
    JournalContent read = read_journal(path);
    EXPECT_NE(read.result.end, JournalEnd::damaged) << read.result.fault;
    std::erase(read.payloads, "with it");
    ASSERT_GE(read.payloads.size(), settled.size());
    ASSERT_LE(read.payloads.size(), attempted.size());
    for (size_t i = 0; i < read.payloads.size(); ++i) EXPECT_EQ(read.payloads[i], attempted[i]);
    { Journal(path, read.result.place, Sync::batch).commit("goes on"); }
    EXPECT_EQ(read_journal(path).payloads.back(), "goes on");
  }
};

TEST_F(JournalTest, EveryStepCanFail) {
  for (const Sync sync : {Sync::always, Sync::batch, Sync::none}) {
    for (uint64_t k = 1;; ++k) {
      SCOPED_TRACE(fmt::format("sync {}, step {}", static_cast<int>(sync), k));
      fs::remove(path_);
      const uint64_t before = io_operations();
      Owner owner;
      fail_at_io(k, ENOSPC);
      owner.run(path_, sync);
      const bool struck = io_operations() - before >= k;
      fail_at_io(0, 0);
      EXPECT_THAT(owner.failure, testing::AnyOf("", HasSubstr("No space left on device")));
      if (fs::exists(path_)) owner.compare(path_);
      if (!struck) {
        EXPECT_EQ(owner.settled.size(), 4u);
        EXPECT_GT(k, 20u);
        break;
      }
    }
  }
}

TEST_F(JournalTest, FailedSyncIsNotRepeated) {
  Journal journal(path_, GENERATION, Sync::batch);
  fail_at_io(3, EIO);  // after the two steps of the write
  const uint64_t ticket = commit_batch(journal, 1);
  journal.wait(ticket);
  EXPECT_THAT(journal.failure(ticket), HasSubstr("cannot be synced: Input/output error"));
  EXPECT_TRUE(journal.is_broken());
  EXPECT_THROW(journal.restart(), FileError);
  const uint64_t later = journal.commit("");
  EXPECT_EQ(journal.settled(), later) << "refused at once";
  EXPECT_EQ(journal.failure(later), journal.failure(ticket));
  EXPECT_FALSE(journal.reserve(1));
  EXPECT_THROW(journal.close(), FileError);
}

TEST_F(JournalTest, SpaceIsReservedAndReleased) {
  const auto allocated = [this] {
    struct stat about;
    EXPECT_EQ(stat(path_.c_str(), &about), 0);
    return static_cast<uint64_t>(about.st_blocks) * 512;
  };
  Journal journal(path_, GENERATION, Sync::batch);
  uint64_t wanted = 0;  // grows with each attempt
  // The file system cannot reserve; no space for a whole step, but for the requested bytes; a failing disk.
  for (const auto &[error, result] : {std::pair(EOPNOTSUPP, true), {ENOSPC, true}, {EIO, false}}) {
    std::string why;
    fail_at_io(1, error);
    EXPECT_EQ(journal.reserve(wanted += 100, &why), result) << error;
    EXPECT_EQ(why.empty(), result) << error;
  }
  const uint64_t size = fs::file_size(path_);
  EXPECT_TRUE(journal.reserve(10 << 20));
  EXPECT_GE(allocated(), 10u << 20);
  EXPECT_EQ(fs::file_size(path_), size);
  const uint64_t steps = io_operations();
  EXPECT_TRUE(journal.reserve(10 << 20));
  EXPECT_EQ(io_operations(), steps) << "reserved space is reserved again";
  journal.close();
  EXPECT_LE(allocated(), 64u << 10);
}

TEST_F(JournalTest, ThreadsAppendCommitWaitAndRead) {
  constexpr uint64_t PER_THREAD = 3000;
  Journal journal(path_, GENERATION, Sync::batch);
  on_threads(4, [&](int thread) {
    for (uint64_t i = 0; i < PER_THREAD && thread < 2; ++i)
      journal.append(small_record(PER_THREAD * static_cast<uint64_t>(thread) + i).get());
    for (int i = 0; i < 60 && thread == 2; ++i) {
      const uint64_t ticket = journal.commit("");
      if (i % 3 != 0) continue;
      journal.wait(ticket);
      EXPECT_GE(journal.settled(), ticket);
      pollfd event = {journal.event_fd(), POLLIN, 0};
      EXPECT_EQ(poll(&event, 1, 0), 1);
      uint64_t count;
      EXPECT_EQ(read(event.fd, &count, sizeof count), static_cast<ssize_t>(sizeof count));
    }
    for (int i = 0; i < 40 && thread == 3; ++i) {
      const uint64_t settled = journal.settled();
      const ScanResult seen = scan_journal(path_, {});
      EXPECT_NE(seen.end, JournalEnd::damaged);
      EXPECT_GE(seen.n_batches, settled);
    }
  });
  const uint64_t last = journal.commit("last");
  journal.wait(last);
  EXPECT_EQ(journal.settled(), last);
  journal.close();
  std::vector<std::string> expected, found = read_journal(path_).records;
  // The text of a record begins with its number. The records of one thread stay in order.
  std::stable_partition(found.begin(), found.end(),
                        [](const std::string &text) { return std::stoull(text) < PER_THREAD; });
  for (uint64_t i = 0; i < 2 * PER_THREAD; ++i) expected.push_back(text_of_record(small_record(i).get()));
  EXPECT_EQ(found, expected);
}
