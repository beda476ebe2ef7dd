// The journal: that what was committed comes back, in order, that nothing else does, and that whatever befalls the file
// is told for what it is. Faults strike at every step of the file layer.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "array_check.h"
#include "array_loader.h"
#include "array_support.h"
#include "checksum.h"
#include "io_faults.h"
#include "journal.h"
#include "journal_reader.h"
#include "redo_applier.h"
#include "redo_hook.h"
#include "threads.h"

namespace metricdb {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::StartsWith;

constexpr uint64_t GENERATION = 7;

class JournalTest : public testing::Test {
 protected:
  void SetUp() override {
    char name[] = "/tmp/metricdb_journal_test_XXXXXX";
    ASSERT_NE(mkdtemp(name), nullptr);
    folder_ = name;
    path_ = folder_ + "/journal";
  }
  void TearDown() override {
    fail_at_io(0, 0);
    fs::remove_all(folder_);
  }

  std::string folder_, path_;
};

// ---- Writing and reading -------------------------------------------------------------------------------------------

// Owns what a record points to.
struct Written {
  std::string name, bytes;
  RedoRecord record;

  RedoRecord get() const {
    RedoRecord whole = record;
    whole.ctx_name = name;
    if (whole.data_ptr != nullptr) whole.data_ptr = bytes.data();
    return whole;
  }
};

std::string text_of_record(const RedoRecord &record) {
  const std::string_view bytes(static_cast<const char *>(record.data_ptr),
                               record.data_ptr != nullptr ? record.data_sz : 0);
  return fmt::format("{} {} \"{}\" {} {} {} {} {} {}", record.txn_id, static_cast<int>(record.rec_type),
                     record.ctx_name, record.tbl_id, record.data_off, record.aux_idx, record.data_ptr != nullptr,
                     record.data_sz, bytes);
}

Written small_record(uint64_t number) {
  return {"metricdb", fmt::format("record {}", number), {number, 5, {}, 1, 84 + number, ~0u, "", 0}};
}

void append(Journal &journal, Written written) {
  if (written.record.data_ptr != nullptr && written.record.data_sz == 0)
    written.record.data_sz = static_cast<uint32_t>(written.bytes.size());
  journal.append(written.get());
}

// Batch `number` has that many records, and says so.
std::string payload_of(uint64_t number) {
  return fmt::format("state {}", number);
}
uint64_t commit_batch(Journal &journal, uint64_t number) {
  for (uint64_t i = 0; i < number; ++i) append(journal, small_record(100 * number + i));
  return journal.commit(payload_of(number));
}

struct Read {
  ScanResult result;
  std::string error;                 // of JournalDamaged
  std::vector<std::string> records;  // of all batches
  std::vector<std::string> payloads;
  std::vector<uint64_t> ends;
};

Read read_journal(const std::string &path, bool salvage = false) {
  Read read;
  const JournalVisitor visitor = {[&read](const RedoRecord &record) { read.records.push_back(text_of_record(record)); },
                                  [&read](std::string_view payload, uint64_t position) {
                                    read.payloads.emplace_back(payload);
                                    read.ends.push_back(position);
                                  }};
  try {
    read.result = scan_journal(path, visitor, salvage);
    EXPECT_EQ(read.result.n_batches, read.payloads.size());
    EXPECT_EQ(read.result.n_records, read.records.size());
    EXPECT_EQ(read.result.place.position + read.result.bytes_cut, fs::file_size(path));
    EXPECT_EQ(read.result.what.empty(), read.result.end == JournalEnd::clean);
  } catch (const JournalDamaged &damage) {
    read.error = damage.what();
  }
  return read;
}

std::string content_of(const std::string &path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

// In place: a file that is cut first is written to the disk each time.
void put_content(const std::string &path, const std::string &content) {
  if (!fs::exists(path)) std::ofstream(path, std::ios::binary);
  std::fstream(path, std::ios::binary | std::ios::in | std::ios::out) << content;
  fs::resize_file(path, content.size());
}

TEST_F(JournalTest, RecordsComeBackAsTheyWereAppended) {
  const std::string long_bytes(3 << 20, 'x');  // more than is read at once
  const std::vector<Written> written = {
      {"metricdb", "bytes", {1, 5, {}, 1, 2, 3, "", 5}},
      {"", std::string("\0\xff", 2), {~0ull, -3, {}, ~0u, ~0ull, ~0u, "", 2}},
      {"pool", "", {~0ull, 13, {}, 4, 1088, ~0u, nullptr, 0}},
      {"pool", "", {0, 0, {}, 0, 0, 0, nullptr, 77}},
      {std::string(MOST_NAME_BYTES, 'n'), long_bytes, {9, 2, {}, 1, 2, 3, "", 3 << 20}},
  };
  const std::string payloads[] = {"", std::string(MOST_PAYLOAD_BYTES, 'p'), "end"};
  std::vector<std::string> expected;
  for (const Sync sync : {Sync::always, Sync::batch, Sync::none}) {
    fs::remove(path_);
    expected.clear();
    // Half of it by a first writer, the rest by one that goes on behind it; what is appended and not committed is gone.
    for (int round = 0; round < 2; ++round) {
      const auto journal = round == 0 ? std::make_unique<Journal>(path_, GENERATION, sync)
                                      : std::make_unique<Journal>(path_, read_journal(path_).result.place, sync);
      for (const std::string &payload : payloads) {
        for (const Written &one : written) {
          journal->append(one.get());
          expected.push_back(text_of_record(one.get()));
        }
        const uint64_t ticket = journal->commit(payload);
        journal->wait(ticket);
        EXPECT_EQ(journal->failure(ticket), "");
      }
      journal->commit("nothing but a mark");
      EXPECT_THROW(journal->commit(std::string(MOST_PAYLOAD_BYTES + 1, 'p')), std::length_error);
      append(*journal, small_record(1));
      if (round == 0) journal->close();
    }
    const Read read = read_journal(path_);
    EXPECT_EQ(read.records, expected);
    EXPECT_THAT(read.payloads, testing::ElementsAre(payloads[0], payloads[1], payloads[2], "nothing but a mark",
                                                    payloads[0], payloads[1], payloads[2], "nothing but a mark"));
    EXPECT_EQ(read.result.end, JournalEnd::clean);
    EXPECT_TRUE(read.result.closed);
    EXPECT_EQ(read.result.place.generation, GENERATION);
    EXPECT_EQ(read.result.place.next_sequence, 1 + 30 + 8 + 4u) << "records, commit marks, and those of two writers";
  }
  EXPECT_THROW(Journal(path_, GENERATION, Sync::batch), FileError) << "a journal is not written over";
}

TEST_F(JournalTest, RecordThatCannotBeTakenRefusesItsBatch) {
  Journal journal(path_, GENERATION, Sync::batch);
  const uint64_t good = commit_batch(journal, 1);
  Written too_long = small_record(1);
  too_long.name.assign(MOST_NAME_BYTES + 1, 'n');
  append(journal, too_long);
  const uint64_t bad = commit_batch(journal, 2), behind = commit_batch(journal, 3);
  journal.wait(behind);
  EXPECT_EQ(journal.failure(good), "");
  EXPECT_EQ(journal.failure(bad), path_ + ": record too long");
  EXPECT_EQ(journal.failure(behind), journal.failure(bad)) << "nothing can follow what is not there";
  journal.restart();
  journal.wait(commit_batch(journal, 4));
  journal.close();
  EXPECT_THAT(read_journal(path_).payloads, testing::ElementsAre(payload_of(1), payload_of(4)));
}

// ---- Damage --------------------------------------------------------------------------------------------------------

// Three batches of one, two and three records, and where each entry begins.
struct Layout {
  std::string bytes;  // of a file whose writer came to its end
  size_t open_bytes;  // ahead of its last mark: what one that was killed leaves
  std::vector<size_t> begins;
  std::vector<size_t> batch_ends;
};

Layout write_three_batches(const std::string &path) {
  Layout layout;
  Journal journal(path, GENERATION, Sync::batch);
  layout.begins = {sizeof(JournalHead)};
  for (uint64_t batch = 1; batch <= 3; ++batch) {
    for (uint64_t i = 0; i < batch; ++i) {
      layout.begins.push_back(journal.end());
      append(journal, small_record(i));
    }
    layout.begins.push_back(journal.end());
    journal.wait(journal.commit(payload_of(batch)));
    layout.batch_ends.push_back(journal.end());
  }
  layout.open_bytes = journal.end();
  layout.begins.push_back(layout.open_bytes);
  journal.close();
  layout.bytes = content_of(path);
  return layout;
}

size_t count_up_to(const std::vector<size_t> &sorted, size_t limit) {
  return static_cast<size_t>(std::upper_bound(sorted.begin(), sorted.end(), limit) - sorted.begin());
}

TEST_F(JournalTest, EveryByteThatChangesIsFoundAndTold) {
  const Layout layout = write_three_batches(path_);
  for (const size_t size : {layout.bytes.size(), layout.open_bytes}) {
    // Each mark says that the disk had all batches ahead of its own, and the last mark that it had all.
    const size_t proven = size == layout.open_bytes ? layout.batch_ends[1] : layout.open_bytes;
    for (size_t at = 0; at < size; ++at) {
      SCOPED_TRACE(fmt::format("byte {} of {}", at, size));
      std::string bytes = layout.bytes.substr(0, size);
      bytes[at] = static_cast<char>(bytes[at] ^ (1 << (at % 8)));
      put_content(path_, bytes);
      const Read read = read_journal(path_);
      if (at < sizeof(JournalHead)) {
        EXPECT_THAT(read.error, StartsWith(path_ + ": byte 0: "));
        continue;
      }
      const size_t begin = layout.begins[count_up_to(layout.begins, at) - 1];
      const size_t n_ahead = count_up_to(layout.batch_ends, begin);
      EXPECT_EQ(read.payloads.size(), n_ahead);
      if (begin >= proven) {
        EXPECT_EQ(read.result.end, JournalEnd::torn);
        EXPECT_THAT(read.result.what, StartsWith(fmt::format("{}: byte {}: ", path_, begin)));
        continue;
      }
      EXPECT_THAT(read.error, StartsWith(fmt::format("{}: byte {}: ", path_, begin)));
      const Read salvaged = read_journal(path_, true);
      EXPECT_EQ(salvaged.result.end, JournalEnd::damaged);
      EXPECT_EQ(salvaged.payloads.size(), n_ahead);
      EXPECT_THAT(salvaged.result.what,
                  HasSubstr(fmt::format("; {} bytes from byte {} on are lost", salvaged.result.bytes_cut,
                                        size - salvaged.result.bytes_cut)));
    }
  }
}

TEST_F(JournalTest, EveryLengthThatACrashLeavesIsReadUpToItsLastMark) {
  const Layout layout = write_three_batches(path_);
  const size_t behind_first_mark = layout.begins[1];
  for (size_t size = 0; size <= layout.bytes.size(); ++size) {
    SCOPED_TRACE(size);
    put_content(path_, layout.bytes.substr(0, size));
    const Read read = read_journal(path_);
    if (size < sizeof(JournalHead)) {
      EXPECT_THAT(read.error, HasSubstr("ends ahead of the head"));
      continue;
    }
    const size_t n_batches = count_up_to(layout.batch_ends, size);
    const size_t place = size == layout.bytes.size() ? size
                         : n_batches != 0            ? layout.batch_ends[n_batches - 1]
                         : size >= behind_first_mark ? behind_first_mark
                                                     : sizeof(JournalHead);
    EXPECT_EQ(read.payloads.size(), n_batches);
    EXPECT_EQ(read.result.place.position, place);
    EXPECT_EQ(read.result.end, size == place ? JournalEnd::clean : JournalEnd::torn);
    EXPECT_EQ(read.result.closed, size == layout.bytes.size());
  }
}

TEST_F(JournalTest, TailThatNoSyncReachedMayHaveHoles) {
  static const struct {
    const char *fault;
    Sync sync;
    JournalEnd end;
  } rows[] = {{"hole in what was never synced is taken for damage", Sync::none, JournalEnd::torn},
              {"hole in what was synced is taken for a crash", Sync::batch, JournalEnd::damaged}};
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    fs::remove(path_);
    std::string bytes;
    uint64_t hole_at = 0;
    {
      Journal journal(path_, GENERATION, row.sync);
      journal.wait(commit_batch(journal, 2));
      hole_at = journal.end();
      for (uint64_t batch = 3; batch < 40; ++batch) journal.wait(commit_batch(journal, batch));
      bytes = content_of(path_);  // as of a machine that stops now
    }
    bytes.replace(hole_at + 10, 512, 512, '\0');
    put_content(path_, bytes);
    const Read read = read_journal(path_, true);
    EXPECT_EQ(read.result.end, row.end) << read.result.what;
    EXPECT_THAT(read.payloads, testing::ElementsAre(payload_of(2)));
    // A writer goes on there, and what stood behind the hole does not come back.
    Journal journal(path_, read.result.place, row.sync);
    journal.wait(journal.commit("later"));
    EXPECT_THAT(read_journal(path_).payloads, testing::ElementsAre(payload_of(2), "later"));
    EXPECT_EQ(read_journal(path_).result.end, JournalEnd::clean);
  }
}

// A journal that is stored in a record has marks, of the same generation too, and they prove nothing.
TEST_F(JournalTest, BytesOfAJournalWithinARecordAreNoMarks) {
  const std::string stored = write_three_batches(path_).bytes;
  fs::remove(path_);
  std::string bytes;
  {
    Journal journal(path_, GENERATION, Sync::none);
    Written record = small_record(1);
    record.bytes = std::string(sizeof(RedoHead), 'x') + stored;
    append(journal, record);
    journal.wait(journal.commit(""));
    bytes = content_of(path_);
  }
  bytes[sizeof(JournalHead) + sizeof(MarkHead) + 60] ^= 1;
  put_content(path_, bytes);
  EXPECT_EQ(read_journal(path_).result.end, JournalEnd::torn);
}

// Entries whose checksums are right, and which no writer puts so.
TEST_F(JournalTest, OrderOfEntriesIsPartOfTheFormat) {
  static const struct {
    const char *fault, *what;
    uint64_t skipped;
    EntryKind mark;
  } rows[] = {{"entries are missing", "sequence 5 in place of 2", 3, EntryKind::commit},
              {"batch ends without its mark", "a mark within a batch", 0, EntryKind::opened}};
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    const JournalHead head = make_head(GENERATION);
    std::string bytes(reinterpret_cast<const char *>(&head), sizeof head);
    JournalPlace place = behind_head(GENERATION);
    add_mark(bytes, place, EntryKind::opened, place.position, "");
    place.next_sequence += row.skipped;
    add_redo(bytes, place, small_record(1).get());
    add_mark(bytes, place, row.mark, sizeof head, "");
    put_content(path_, bytes);
    const Read read = read_journal(path_);
    EXPECT_THAT(read.result.what, HasSubstr(row.what));
    EXPECT_EQ(read.result.place.position, sizeof(JournalHead) + sizeof(MarkHead));
    EXPECT_EQ(read.payloads.size(), 0u);
  }
}

// ---- Faults at every step ------------------------------------------------------------------------------------------

// An owner that commits batches 1 to 4, brings itself back after a refusal and tries again.
struct Owner {
  std::vector<std::string> settled;    // payloads that were not refused
  std::vector<std::string> attempted;  // those, and perhaps one behind them
  std::string failure;                 // the last one

  void run(const std::string &path, Sync sync, const std::function<void()> &on_settled) try {
    Journal journal(path, GENERATION, sync);
    for (uint64_t batch = 1; batch <= 4; ++batch) {
      journal.reserve(1000);
      attempted.push_back(payload_of(batch));
      const uint64_t ticket = commit_batch(journal, batch), next = journal.commit("with it");
      journal.wait(next);
      if (const std::string why = journal.failure(ticket); !why.empty()) {
        failure = why;
        EXPECT_EQ(journal.failure(next), why);
        journal.restart();
        attempted.pop_back();
        --batch;
        continue;
      }
      settled.push_back(payload_of(batch));
      attempted = settled;
      on_settled();
      if (!journal.failure(next).empty()) journal.restart();
    }
    journal.close();
  } catch (const FileError &error) {
    failure = error.what();
  }

  // Of a file that is there: it holds all that was settled and nothing that was not attempted, in order.
  void compare(const std::string &path) const {
    Read read = read_journal(path);
    EXPECT_EQ(read.error, "");
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
      owner.run(path_, sync, [] {});
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

// In a process of its own, which is killed. What it says through the pipe, it knows to be settled.
TEST_F(JournalTest, ProcessCanBeKilledAtEveryStep) {
  for (uint64_t k = 1;; ++k) {
    SCOPED_TRACE(k);
    fs::remove(path_);
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const pid_t child = fork();
    if (child == 0) {
      crash_at_io(k);
      Owner().run(path_, Sync::batch, [&ends] { std::ignore = write(ends[1], "s", 1); });
      _exit(0);
    }
    close(ends[1]);
    Owner owner;
    char ignored;
    while (read(ends[0], &ignored, 1) == 1) owner.settled.push_back(payload_of(owner.settled.size() + 1));
    close(ends[0]);
    int status;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    owner.attempted = owner.settled;
    owner.attempted.push_back(payload_of(owner.settled.size() + 1));
    if (fs::exists(path_)) owner.compare(path_);
    if (WIFEXITED(status)) {
      EXPECT_GT(k, 20u);
      break;
    }
    EXPECT_EQ(WTERMSIG(status), SIGKILL);
  }
}

TEST_F(JournalTest, SyncThatFailedIsNeverTriedAgain) {
  Journal journal(path_, GENERATION, Sync::batch);
  fail_at_io(3, EIO);  // behind the two steps of the write
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

// The disk refuses by itself: with a file that may not grow.
TEST_F(JournalTest, GoesOnBehindAWriteThatTheSystemRefused) {
  rlimit before;
  getrlimit(RLIMIT_FSIZE, &before);
  const auto old_handler = std::signal(SIGXFSZ, SIG_IGN);
  Journal journal(path_, GENERATION, Sync::batch);
  journal.wait(commit_batch(journal, 1));
  const uint64_t end = journal.end();
  const rlimit limit = {end + 5000, before.rlim_max};
  setrlimit(RLIMIT_FSIZE, &limit);
  Written large = small_record(1);
  large.bytes.assign(8000, 'x');
  append(journal, large);
  const uint64_t refused = journal.commit("large");
  journal.wait(refused);
  EXPECT_THAT(journal.failure(refused), HasSubstr("cannot be written: File too large"));
  EXPECT_EQ(fs::file_size(path_), end) << "cut back";
  journal.restart();
  const uint64_t taken = commit_batch(journal, 2);
  journal.wait(taken);
  EXPECT_EQ(journal.failure(taken), "");
  EXPECT_NE(journal.failure(refused), "") << "still known";
  journal.close();
  setrlimit(RLIMIT_FSIZE, &before);
  std::signal(SIGXFSZ, old_handler);
  EXPECT_THAT(read_journal(path_).payloads, testing::ElementsAre(payload_of(1), payload_of(2)));
}

TEST_F(JournalTest, RoomIsReservedAndGivenBack) {
  const auto allocated = [this] {
    struct stat about;
    EXPECT_EQ(stat(path_.c_str(), &about), 0);
    return static_cast<uint64_t>(about.st_blocks) * 512;
  };
  Journal journal(path_, GENERATION, Sync::batch);
  static const struct {
    const char *fault;
    int error;
    bool result;
  } rows[] = {{"file system without reservations counts as full", EOPNOTSUPP, true},
              {"no second attempt with the least that is needed", ENOSPC, true},
              {"disk that fails counts as free", EIO, false}};
  uint64_t wanted = 0;  // more each time than was had
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    std::string why;
    fail_at_io(1, row.error);
    EXPECT_EQ(journal.reserve(wanted += 100, &why), row.result);
    EXPECT_EQ(why.empty(), row.result);
  }
  const uint64_t size = fs::file_size(path_);
  EXPECT_TRUE(journal.reserve(10 << 20));
  EXPECT_GE(allocated(), 10u << 20);
  EXPECT_EQ(fs::file_size(path_), size);
  const uint64_t steps = io_operations();
  EXPECT_TRUE(journal.reserve(10 << 20));
  EXPECT_EQ(io_operations(), steps) << "room that is there is not asked for again";
  journal.close();
  EXPECT_LE(allocated(), 64u << 10);
}

// ---- Threads -------------------------------------------------------------------------------------------------------

TEST_F(JournalTest, ThreadsAppendWhileOthersCommitWaitAndRead) {
  constexpr uint64_t PER_THREAD = 3000;
  Journal journal(path_, GENERATION, Sync::batch);
  on_threads(4, [&](int thread) {
    for (uint64_t i = 0; i < PER_THREAD && thread < 2; ++i)
      append(journal, small_record(PER_THREAD * static_cast<uint64_t>(thread) + i));
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
  std::vector<std::string> expected[2], found[2];
  scan_journal(path_, {[&found](const RedoRecord &record) {
                         found[record.txn_id / PER_THREAD].push_back(text_of_record(record));
                       },
                       {}});
  for (uint64_t i = 0; i < 2 * PER_THREAD; ++i) {
    Written record = small_record(i);
    record.record.data_sz = static_cast<uint32_t>(record.bytes.size());
    expected[i / PER_THREAD].push_back(text_of_record(record.get()));
  }
  EXPECT_EQ(found[0], expected[0]);
  EXPECT_EQ(found[1], expected[1]);
}

// ---- With arrays ---------------------------------------------------------------------------------------------------

TEST_F(JournalTest, ArrayComesBackFromItsRecords) {
  const auto create = [] { return tslb_da_init_ll(20, 3, MPOOL_TYPE_DRAM, "metricdb", 1, TSLB_DA_DAFLAG_INLL); };
  const array_t source(create()), replica(create());
  uint32_t idx;
  {
    Journal journal(path_, GENERATION, Sync::batch);
    {
      const RedoTo scope(journal);
      for (int i = 0; i < 40; ++i) {
        memset(tslb_da_get_newptr(source.get(), &idx), i, 20);
        tslb_redo_log_da(source.get(), idx, 1, 5);
      }
      for (const uint32_t freed : {3u, 30u, 7u}) tslb_da_free_idx(source.get(), freed);
    }
    const uint64_t end = journal.end();
    tsdb_mem_pressure_config_t policy = {};
    tslb_da_register_reuse_policy(source.get(), &policy);
    EXPECT_EQ(journal.end(), end) << "logged while no journal is on";
    journal.commit("");
  }
  char error[256] = "";
  scan_journal(path_, {[&](const RedoRecord &record) {
                         const redo_args_t args = {record.txn_id,          record.rec_type, record.ctx_name.data(),
                                                   record.ctx_name.size(), record.tbl_id,   record.data_off,
                                                   record.aux_idx,         record.data_ptr, record.data_sz};
                         ASSERT_EQ(redo_apply(replica.get(), &args, ARRAY_LOAD_ANY, 100, error, sizeof error), 0);
                       },
                       {}});
  EXPECT_STREQ(error, "");
  EXPECT_EQ(array_check(replica.get(), ARRAY_LOAD_ANY, error, sizeof error), 0) << error;
  ASSERT_EQ(tslb_da_get_size(replica.get()), 40u);
  for (idx = 8; idx < 30; ++idx)
    EXPECT_EQ(memcmp(tslb_da_get_ptr(source.get(), idx), tslb_da_get_ptr(replica.get(), idx), 20), 0) << idx;
  EXPECT_EQ(list_roots(replica.get()).n_free, 3u);
}

// ---- The file layer's variables, and checksums ---------------------------------------------------------------------

TEST_F(JournalTest, FaultsCanBeAskedForByVariables) {
  put_content(folder_ + "/in", "cpu,host=a load=1 1000\n");
  const auto run = [this](const std::string &variable) {
    return std::system(
        fmt::format("{} {} load {}/in --db {}/db >{}/out 2>&1", variable, METRICDB, folder_, folder_, folder_).c_str());
  };
  EXPECT_EQ(WEXITSTATUS(run("METRICDB_FAIL_AT=6:EDQUOT")), 1);
  EXPECT_THAT(content_of(folder_ + "/out"), HasSubstr("Disk quota exceeded"));
  EXPECT_EQ(WEXITSTATUS(run("METRICDB_FAIL_AT=6:5")), 1);
  EXPECT_THAT(content_of(folder_ + "/out"), HasSubstr("Input/output error"));
  EXPECT_EQ(WTERMSIG(run("exec env METRICDB_CRASH_AT=6")), SIGKILL);
  EXPECT_EQ(WEXITSTATUS(run("METRICDB_FAIL_AT=1000000:EIO")), 0);
}

TEST(Checksum, InstructionAndTableAgree) {
  std::mt19937 random(5);
  std::string bytes(300, '\0');
  for (char &byte : bytes) byte = static_cast<char>(random());
  for (size_t from = 0; from < 9; ++from) {
    for (size_t count = 0; count < 280; ++count) {
      const uint32_t before = static_cast<uint32_t>(random());
      ASSERT_EQ(crc32c(&bytes[from], count, before), crc32c_by_table(&bytes[from], count, before)) << from << count;
    }
  }
  EXPECT_EQ(crc32c("123456789", 9), 0xE3069283u);
  EXPECT_EQ(crc32c_by_table("123456789", 9), 0xE3069283u);
}

}  // namespace
}  // namespace metricdb
