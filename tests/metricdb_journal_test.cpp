// Committed batches are read in order, and damage is reported with its position.
#include <memory>

#include "journal_support.h"

TEST_F(JournalTest, RecordsRoundTrip) {
  const std::string long_bytes(3 << 20, 'x');  // more than one read
  const std::vector<RecordWithBytes> written = {
      {"metricdb", "bytes", {1, 5, nullptr, 0, 1, 2, 3, "", 5}},
      {"", std::string("\0\xff", 2), {~0ull, -3, nullptr, 0, ~0u, ~0ull, ~0u, "", 2}},
      {"pool", "", {~0ull, 13, nullptr, 0, 4, 1088, ~0u, nullptr, 0}},
      {"pool", "", {0, 0, nullptr, 0, 0, 0, 0, nullptr, 77}},
      {std::string(MAX_NAME_BYTES, 'n'), long_bytes, {9, 2, nullptr, 0, 1, 2, 3, "", 3 << 20}},
  };
  const std::string payloads[] = {"", std::string(MAX_PAYLOAD_BYTES, 'p'), "end"};
  std::vector<std::string> expected;
  for (const Sync sync : {Sync::always, Sync::batch, Sync::none}) {
    fs::remove(path_);
    expected.clear();
    // Half of the batches by one writer, the rest by a second one that continues. Uncommitted records are lost.
    for (int round = 0; round < 2; ++round) {
      const auto journal = round == 0 ? std::make_unique<Journal>(path_, GENERATION, sync)
                                      : std::make_unique<Journal>(path_, read_journal(path_).result.place, sync);
      for (const std::string &payload : payloads) {
        for (const RecordWithBytes &one : written) {
          journal->append(one.get());
          expected.push_back(text_of_record(one.get()));
        }
        const uint64_t ticket = journal->commit(payload);
        journal->wait(ticket);
        EXPECT_EQ(journal->failure(ticket), "");
      }
      journal->commit("nothing but a mark");
      EXPECT_THROW(journal->commit(std::string(MAX_PAYLOAD_BYTES + 1, 'p')), std::length_error);
      journal->append(small_record(1).get());
      if (round == 0) journal->close();
    }
    const JournalContent read = read_journal(path_);
    EXPECT_EQ(read.records, expected);
    EXPECT_THAT(read.payloads, ElementsAre(payloads[0], payloads[1], payloads[2], "nothing but a mark", payloads[0],
                                           payloads[1], payloads[2], "nothing but a mark"));
    EXPECT_EQ(read.result.end, JournalEnd::clean);
    EXPECT_TRUE(read.result.is_closed);
    EXPECT_EQ(read.result.place.generation, GENERATION);
    EXPECT_EQ(read.result.place.next_sequence, 1 + 30 + 8 + 4u)
        << "records, commit marks, and the marks of two writers";
  }
  EXPECT_THROW(Journal(path_, GENERATION, Sync::batch), FileError) << "an existing journal is overwritten";
}

TEST_F(JournalTest, OversizedRecordRefusesItsBatch) {
  Journal journal(path_, GENERATION, Sync::batch);
  const uint64_t good = commit_batch(journal, 1);
  RecordWithBytes too_long = small_record(1);
  too_long.name.assign(MAX_NAME_BYTES + 1, 'n');
  journal.append(too_long.get());
  const uint64_t bad = commit_batch(journal, 2), next = commit_batch(journal, 3);
  journal.wait(next);
  EXPECT_EQ(journal.failure(good), "");
  EXPECT_EQ(journal.failure(bad), path_ + ": record too long");
  EXPECT_EQ(journal.failure(next), journal.failure(bad)) << "a batch follows a refused one";
  journal.restart();
  journal.wait(commit_batch(journal, 4));
  journal.close();
  EXPECT_THAT(read_journal(path_).payloads, ElementsAre(payload_of(1), payload_of(4)));
}

// Three batches with one, two and three records, and the positions of the entries.
struct Layout {
  std::string bytes;  // of a file whose writer was closed
  size_t open_bytes;  // without the last mark: the file of a writer that was killed
  std::vector<size_t> begins, batch_ends;
};

static Layout write_three_batches(const std::string &path) {
  Layout layout;
  Journal journal(path, GENERATION, Sync::batch);
  layout.begins = {sizeof(JournalHead)};
  for (uint64_t batch = 1; batch <= 3; ++batch) {
    for (uint64_t i = 0; i < batch; ++i) {
      layout.begins.push_back(journal.end());
      journal.append(small_record(i).get());
    }
    layout.begins.push_back(journal.end());
    journal.wait(journal.commit(payload_of(batch)));
    layout.batch_ends.push_back(journal.end());
  }
  layout.open_bytes = journal.end();
  layout.begins.push_back(layout.open_bytes);
  journal.close();
  layout.bytes = read_file(path);
  return layout;
}

static size_t count_up_to(const std::vector<size_t> &sorted, size_t limit) {
  return static_cast<size_t>(std::upper_bound(sorted.begin(), sorted.end(), limit) - sorted.begin());
}

TEST_F(JournalTest, EveryChangedByteIsReported) {
  const Layout layout = write_three_batches(path_);
  for (const size_t size : {layout.bytes.size(), layout.open_bytes}) {
    // Each mark says that all batches before its own were on the disk, and the last mark that everything was.
    const size_t proven = size == layout.open_bytes ? layout.batch_ends[1] : layout.open_bytes;
    for (size_t at = 0; at < size; ++at) {
      SCOPED_TRACE(fmt::format("byte {} of {}", at, size));
      std::string bytes = layout.bytes.substr(0, size);
      bytes[at] = static_cast<char>(bytes[at] ^ (1 << (at % 8)));
      write_file(path_, bytes);
      const JournalContent read = read_journal(path_);
      if (at < sizeof(JournalHead)) {
        EXPECT_EQ(read.result.end, JournalEnd::damaged);
        EXPECT_THAT(read.result.fault, StartsWith(path_ + ": byte 0: "));
        continue;
      }
      const size_t begin = layout.begins[count_up_to(layout.begins, at) - 1];
      const size_t n_before = count_up_to(layout.batch_ends, begin);
      EXPECT_EQ(read.payloads.size(), n_before);
      EXPECT_THAT(read.result.fault, StartsWith(fmt::format("{}: byte {}: ", path_, begin)));
      EXPECT_EQ(read.result.end, begin < proven ? JournalEnd::damaged : JournalEnd::torn);
      EXPECT_EQ(read.result.warning(),
                fmt::format("{}; {} bytes from byte {} on are {}", read.result.fault, read.result.bytes_cut,
                            size - read.result.bytes_cut, begin < proven ? "lost" : "cut"));
    }
  }
}

TEST_F(JournalTest, EveryTruncatedFileIsReadUpToItsLastMark) {
  const Layout layout = write_three_batches(path_);
  const size_t end_of_first_mark = layout.begins[1];
  for (size_t size = 0; size <= layout.bytes.size(); ++size) {
    SCOPED_TRACE(size);
    write_file(path_, layout.bytes.substr(0, size));
    const JournalContent read = read_journal(path_);
    if (size < sizeof(JournalHead)) {
      EXPECT_THAT(read.result.fault, HasSubstr("shorter than the head"));
      continue;
    }
    const size_t n_batches = count_up_to(layout.batch_ends, size);
    const size_t place = size == layout.bytes.size() ? size
                         : n_batches != 0            ? layout.batch_ends[n_batches - 1]
                         : size >= end_of_first_mark ? end_of_first_mark
                                                     : sizeof(JournalHead);
    EXPECT_EQ(read.payloads.size(), n_batches);
    EXPECT_EQ(read.result.place.position, place);
    EXPECT_EQ(read.result.end, size == place ? JournalEnd::clean : JournalEnd::torn);
    EXPECT_EQ(read.result.is_closed, size == layout.bytes.size());
  }
}

TEST_F(JournalTest, UnsyncedTailMayHaveHoles) {
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
      bytes = read_file(path_);  // the file as a crash of the machine leaves it
    }
    bytes.replace(hole_at + 10, 512, 512, '\0');
    write_file(path_, bytes);
    const JournalContent read = read_journal(path_);
    EXPECT_EQ(read.result.end, row.end) << read.result.fault;
    EXPECT_THAT(read.payloads, ElementsAre(payload_of(2)));
    // A writer continues there, and the bytes after the hole do not reappear.
    Journal journal(path_, read.result.place, row.sync);
    journal.wait(journal.commit("later"));
    EXPECT_THAT(read_journal(path_).payloads, ElementsAre(payload_of(2), "later"));
    EXPECT_EQ(read_journal(path_).result.end, JournalEnd::clean);
  }
}

// A journal that is stored in a record contains valid marks of the same generation, which must not be used.
TEST_F(JournalTest, MarksInsideARecordAreIgnored) {
  const std::string stored = write_three_batches(path_).bytes;
  fs::remove(path_);
  std::string bytes;
  {
    Journal journal(path_, GENERATION, Sync::none);
    RecordWithBytes record = small_record(1);
    record.bytes = std::string(sizeof(RedoHead), 'x') + stored;
    journal.append(record.get());
    journal.wait(journal.commit(""));
    bytes = read_file(path_);
  }
  bytes[sizeof(JournalHead) + sizeof(MarkHead) + 60] ^= 1;
  write_file(path_, bytes);
  EXPECT_EQ(read_journal(path_).result.end, JournalEnd::torn);
}

// Entries with correct checksums in an order that no writer produces.
TEST_F(JournalTest, EntriesInWrongOrder) {
  static const struct {
    const char *fault, *what;
    uint64_t skipped;
    EntryKind mark;
  } rows[] = {{"entries are missing", "sequence 5, expected 2", 3, EntryKind::commit},
              {"batch ends without its mark", "a mark within a batch", 0, EntryKind::opened}};
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    const JournalHead head = make_head(GENERATION);
    std::string bytes(reinterpret_cast<const char *>(&head), sizeof head);
    JournalPlace place = place_after_head(GENERATION);
    add_mark(bytes, place, EntryKind::opened, place.position, "");
    place.next_sequence += row.skipped;
    add_redo(bytes, place, small_record(1).get());
    add_mark(bytes, place, row.mark, sizeof head, "");
    write_file(path_, bytes);
    const JournalContent read = read_journal(path_);
    EXPECT_THAT(read.result.fault, HasSubstr(row.what));
    EXPECT_EQ(read.result.place.position, sizeof(JournalHead) + sizeof(MarkHead));
    EXPECT_EQ(read.payloads.size(), 0u);
  }
}
