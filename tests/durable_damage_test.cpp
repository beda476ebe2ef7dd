// Durable stores whose files were changed, removed or exchanged; salvage, kept generations, backups.
#include <checksum.h>
#include <gmock/gmock.h>

#include <algorithm>

#include "durable_support.h"

using testing::HasSubstr;

namespace {

// A sanitizer slows openings down by ten times.
#if defined(TSLB_SANITIZES_ADDRESS)
constexpr size_t STEP = 9;
#else
constexpr size_t STEP = 1;
#endif

class DurableDamage : public DurableTest {
 protected:
  // Makes a store with a generation and two journals' worth of batches. The contents after each batch are kept.
  void fill(const std::string &folder, bool closes, uint32_t keep = 0, uint32_t seed = 1) {
    contents_.clear();
    TestStore store;
    store.options.keep = keep;
    ASSERT_TRUE(store.open(folder)) << store.error.text;
    std::mt19937 random(seed);
    for (int i = 0; i < 12; ++i) {
      tslb_batch_t *const batch = store.begin();
      store.change(batch, random);
      tslb_batch_set_payload(batch, &i, sizeof i, nullptr);
      ASSERT_EQ(tslb_batch_commit(batch, &store.error), 0) << store.error.text;
      contents_.push_back(store.content());
      if (i == 4 || i == 7) {
        ASSERT_EQ(tslb_store_snapshot(store.get(), &store.error), 0) << store.error.text;
      }
    }
    if (closes) {
      ASSERT_EQ(store.close(), 0) << store.error.text;
    } else {
      // A copy of the folder is what a killed process leaves.
      fs::copy(folder, folder + ".killed", fs::copy_options::recursive);
      store.close();
      fs::remove_all(folder);
      fs::rename(folder + ".killed", folder);
    }
  }

  static void flip(const std::string &path, size_t at) {
    std::string changed = bytes_of(path);
    changed.at(at) ^= 1;
    put_bytes(path, changed);
  }

  // Bytes of the journal up to the end of its last group. Zeros follow, which later groups would replace.
  size_t bytes_of_groups() const {
    TestStore store;
    EXPECT_TRUE(store.open(folder_, TSLB_STORE_READ_ONLY)) << store.error.text;
    return store.info().journal_bytes;
  }

  std::vector<std::string> files() const {
    std::vector<std::string> names;
    for (const auto &entry : fs::recursive_directory_iterator(folder_))
      if (entry.is_regular_file() && entry.path().filename() != "lock")
        names.push_back(fs::relative(entry.path(), folder_).string());
    std::sort(names.begin(), names.end());
    return names;
  }

  std::vector<std::string> contents_;
};

TEST(DurableChecksum, InstructionAndTableAgree) {
  using tslb_durable::crc32c, tslb_durable::crc32c_by_table;
  EXPECT_EQ(crc32c("123456789", 9), 0xE3069283);
  EXPECT_EQ(crc32c("6789", 4, crc32c("12345", 5)), 0xE3069283);
  std::mt19937 random(5);
  std::string bytes(300, '\0');
  for (char &byte : bytes) byte = static_cast<char>(random());
  for (size_t from = 0; from < 9; ++from)
    for (size_t count = 0; count < 280; ++count) {
      const uint32_t before = static_cast<uint32_t>(random());
      ASSERT_EQ(crc32c(&bytes[from], count, before), crc32c_by_table(&bytes[from], count, before)) << from << count;
    }
}

TEST_F(DurableDamage, EachFlippedBitAfterAnOrderlyEndIsRefused) {
  ASSERT_NO_FATAL_FAILURE(fill(folder_, true));
  ASSERT_THAT(files(),
              testing::ElementsAre("generation.3/bits.stream", "generation.3/bytes.stream", "generation.3/manifest",
                                   "generation.3/payload", "generation.3/records.stream", "generation.3/slots.stream",
                                   "journal.3", "store"));
  for (const std::string &name : files()) {
    const std::string path = folder_ + "/" + name;
    const std::string intact = bytes_of(path);
    // Every byte of short files and of the first bytes, then a sample.
    for (size_t at = 0; at < intact.size(); at += at < 300 ? STEP : 61) {
      std::string changed = intact;
      changed[at] = static_cast<char>(changed[at] ^ (1 << at % 8));
      put_bytes(path, changed);
      TestStore store;
      ASSERT_FALSE(store.open(folder_, TSLB_STORE_READ_ONLY)) << name << ", byte " << at;
      ASSERT_EQ(store.error.code, TSLB_DURABLE_DAMAGED) << store.error.text;
      ASSERT_EQ(store.error.file, path) << store.error.text;
      ASSERT_THAT(store.error.text, testing::StartsWith(path + ": "));
    }
    put_bytes(path, intact);
  }
  TestStore store;
  ASSERT_TRUE(store.open(folder_)) << store.error.text;
  EXPECT_EQ(store.content(), contents_.back());
}

// A flipped bit in the last group looks like a write that a crash cut. Before the last group it is damage.
TEST_F(DurableDamage, FlippedBitInAnOpenJournalCostsAtMostTheLastGroup) {
  ASSERT_NO_FATAL_FAILURE(fill(folder_, false));
  const std::string path = folder_ + "/journal.3";
  const std::string intact = bytes_of(path);
  const size_t n_bytes = bytes_of_groups();
  int n_refused = 0, n_cut = 0;
  for (size_t at = 0; at < n_bytes; at += STEP) {
    std::string changed = intact;
    changed[at] = static_cast<char>(changed[at] ^ (1 << at % 8));
    put_bytes(path, changed);
    TestStore store;
    if (!store.open(folder_, TSLB_STORE_READ_ONLY)) {
      ASSERT_EQ(store.error.code, TSLB_DURABLE_DAMAGED);
      ASSERT_EQ(store.error.file, path);
      ++n_refused;
      continue;
    }
    ++n_cut;
    ASSERT_EQ(store.content(), contents_[contents_.size() - 2]) << "byte " << at;
    ASSERT_GT(store.info().cut_bytes, 0u);
    ASSERT_THAT(store.info().warning, HasSubstr("were cut"));
  }
  EXPECT_GT(n_refused, n_cut);
  EXPECT_GT(n_cut, 40 / static_cast<int>(STEP));
}

TEST_F(DurableDamage, BytesAfterTheLastGroupAreCutAndCostNoGroup) {
  ASSERT_NO_FATAL_FAILURE(fill(folder_, false));
  const std::string path = folder_ + "/journal.3";
  const std::string intact = bytes_of(path);
  const size_t n_bytes = bytes_of_groups();
  ASSERT_GT(intact.size(), n_bytes + 1000);
  // The first bytes, those before and after a length that is not zero, and the last one.
  for (const size_t at :
       {n_bytes, n_bytes + 3, n_bytes + 4, n_bytes + 39, n_bytes + 40, n_bytes + 999, intact.size() - 1}) {
    std::string changed = intact;
    changed[at] = 'x';
    put_bytes(path, changed);
    TestStore store;
    ASSERT_TRUE(store.open(folder_, TSLB_STORE_READ_ONLY)) << store.error.text;
    ASSERT_EQ(store.content(), contents_.back()) << "byte " << at;
    ASSERT_EQ(store.info().cut_bytes, intact.size() - n_bytes);
  }
}

// Only the last group says that the one before it was synced, and it begins where the zeros end.
TEST_F(DurableDamage, SyncedGroupThatBecameZerosIsDamage) {
  std::vector<uint64_t> ends;
  {
    TestStore store;
    ASSERT_TRUE(store.open(folder_)) << store.error.text;
    std::mt19937 random(3);
    for (int i = 0; i < 3; ++i) {
      ASSERT_TRUE(store.commit_changes(random)) << store.error.text;
      ends.push_back(store.info().journal_bytes);
    }
    fs::copy(folder_, folder_ + ".killed", fs::copy_options::recursive);
  }
  const std::string path = folder_ + ".killed/journal.1";
  std::string changed = bytes_of(path);
  changed.replace(ends[0], ends[1] - ends[0], ends[1] - ends[0], '\0');
  put_bytes(path, changed);
  TestStore store;
  ASSERT_FALSE(store.open(folder_ + ".killed", TSLB_STORE_READ_ONLY));
  EXPECT_EQ(store.error.code, TSLB_DURABLE_DAMAGED);
  EXPECT_EQ(store.error.byte, ends[0]);
}

TEST_F(DurableDamage, CutJournalOfAKilledWriterEndsAfterItsLastWholeGroup) {
  ASSERT_NO_FATAL_FAILURE(fill(folder_, false));
  const std::string path = folder_ + "/journal.3";
  const std::string intact = bytes_of(path);
  size_t n_batches = 12;
  for (size_t bytes = bytes_of_groups() + 50; bytes >= 40; bytes -= STEP) {
    put_bytes(path, intact.substr(0, bytes));
    TestStore store;
    ASSERT_TRUE(store.open(folder_, TSLB_STORE_READ_ONLY)) << store.error.text;
    const auto found = std::find(contents_.begin() + 7, contents_.end(), store.content());
    ASSERT_NE(found, contents_.end()) << bytes;
    const auto n_found = static_cast<size_t>(found - contents_.begin()) + 1;
    ASSERT_LE(n_found, n_batches);
    n_batches = n_found;
  }
  EXPECT_EQ(n_batches, 8u) << "the generation has eight batches";
  put_bytes(path, intact.substr(0, 39));
  TestStore store;
  EXPECT_FALSE(store.open(folder_, TSLB_STORE_READ_ONLY)) << "a journal always has its head";
}

TEST_F(DurableDamage, FilesOfTheFolderBelongTogether) {
  const std::string other = root_ + "/other";
  ASSERT_NO_FATAL_FAILURE(fill(other, true, 0, 2));
  ASSERT_NO_FATAL_FAILURE(fill(folder_, true));
  const std::string old_journal = bytes_of(folder_ + "/journal.3");
  const std::string old_state = bytes_of(folder_ + "/store");
  {
    TestStore store;
    ASSERT_TRUE(store.open(folder_));
    std::mt19937 random(5);
    ASSERT_TRUE(store.commit_changes(random)) << store.error.text;
    ASSERT_EQ(store.close(), 0);
  }
  fs::copy(folder_, root_ + "/intact", fs::copy_options::recursive);
  const struct {
    const char *fault;
    std::function<void()> damage;
    const char *why;
  } rows[] = {
      {"the journal is gone", [&] { fs::remove(folder_ + "/journal.3"); }, "journal.3: is missing"},
      {"the journal is empty", [&] { put_bytes(folder_ + "/journal.3", ""); }, "shorter than the head"},
      {"the journal is cut at a group", [&] { put_bytes(folder_ + "/journal.3", old_journal); },
       "bytes, but was sealed"},
      {"the journal of another store",
       [&] { fs::copy(other + "/journal.3", folder_ + "/journal.3", fs::copy_options::overwrite_existing); },
       "the journal of another store"},
      {"the journal has more bytes", [&] { put_bytes(folder_ + "/journal.3", bytes_of(folder_ + "/journal.3") + "x"); },
       "journal.3"},
      {"the state of an earlier end", [&] { put_bytes(folder_ + "/store", old_state); }, "journal.3: has"},
      {"the state is gone", [&] { fs::remove(folder_ + "/store"); }, "is not a store"},
      {"the state of another store",
       [&] { fs::copy(other + "/store", folder_ + "/store", fs::copy_options::overwrite_existing); },
       "is the generation of another store"},
      {"the generation is gone", [&] { fs::remove_all(folder_ + "/generation.3"); }, "generation.3/manifest"},
      {"the generation of another store",
       [&] {
         fs::remove_all(folder_ + "/generation.3");
         fs::copy(other + "/generation.3", folder_ + "/generation.3", fs::copy_options::recursive);
       },
       "is the generation of another store"},
      {"two streams are exchanged",
       [&] {
         fs::copy(folder_ + "/generation.3/slots.stream", folder_ + "/generation.3/records.stream",
                  fs::copy_options::overwrite_existing);
       },
       "records.stream: has"},
      {"the payload is gone", [&] { fs::remove(folder_ + "/generation.3/payload"); }, "generation.3/payload"},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    fs::remove_all(folder_);
    fs::copy(root_ + "/intact", folder_, fs::copy_options::recursive);
    row.damage();
    for (const uint32_t flags : {uint32_t{TSLB_STORE_READ_ONLY}, uint32_t{TSLB_STORE_CREATE}}) {
      TestStore store;
      EXPECT_FALSE(store.open(folder_, flags));
      if (flags == TSLB_STORE_READ_ONLY) {
        EXPECT_THAT(store.error.text, HasSubstr(row.why));
      }
    }
  }
}

TEST_F(DurableDamage, SalvageUsesWhatPrecedesTheDamage) {
  ASSERT_NO_FATAL_FAILURE(fill(folder_, false));
  const std::string path = folder_ + "/journal.3";
  std::string changed = bytes_of(path);
  changed[bytes_of_groups() / 2] ^= 1;
  put_bytes(path, changed);
  TestStore store;
  EXPECT_FALSE(store.open(folder_));
  ASSERT_TRUE(store.open(folder_, TSLB_STORE_SALVAGE | TSLB_STORE_SHADOW)) << store.error.text;
  EXPECT_THAT(store.info().warning, HasSubstr("what follows is lost"));
  const auto found = std::find(contents_.begin() + 7, contents_.end() - 1, store.content());
  ASSERT_NE(found, contents_.end() - 1);
  // The salvaged state is a generation of its own, so the damage does not come back.
  std::mt19937 random(9);
  ASSERT_TRUE(store.commit_changes(random)) << store.error.text;
  const std::string expected = store.content();
  ASSERT_EQ(store.close(), 0);
  ASSERT_TRUE(store.open(folder_)) << store.error.text;
  EXPECT_EQ(store.content(), expected);
  EXPECT_STREQ(store.info().warning, "");
}

TEST_F(DurableDamage, KeptGenerationLeadsToTheSameState) {
  ASSERT_NO_FATAL_FAILURE(fill(folder_, true, 1));
  EXPECT_TRUE(fs::exists(folder_ + "/generation.2"));
  EXPECT_FALSE(fs::exists(folder_ + "/generation.1")) << "more generations than requested are kept";
  EXPECT_FALSE(fs::exists(folder_ + "/journal.1"));
  flip(folder_ + "/generation.3/slots.stream", 100);
  fs::rename(folder_, root_ + "/damaged");
  const std::string journal = folder_ + "/journal.2";
  const struct {
    std::function<void()> damage;
    int last;  // batch that is there
    std::string why;
  } rows[] = {
      {[] {}, 11, ""},
      {[&] { fs::remove(journal); }, 4, "journal.2: is missing; what follows is lost"},
      {[&] { flip(journal, 200); }, 4, "what follows is lost"},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.why);
    fs::remove_all(folder_);
    fs::copy(root_ + "/damaged", folder_, fs::copy_options::recursive);
    row.damage();
    TestStore store;
    EXPECT_FALSE(store.open(folder_));
    ASSERT_TRUE(store.open(folder_, TSLB_STORE_SALVAGE | TSLB_STORE_SHADOW)) << store.error.text;
    EXPECT_TRUE(store.content() == contents_[static_cast<size_t>(row.last)]);
    EXPECT_THAT(store.info().warning, HasSubstr("generation 2 and the journals since it were used"));
    EXPECT_THAT(store.info().warning, HasSubstr(row.why));
    ASSERT_EQ(store.close(), 0);
    ASSERT_TRUE(store.open(folder_)) << store.error.text;
    EXPECT_TRUE(store.content() == contents_[static_cast<size_t>(row.last)]);
  }
}

// No journal leads to the generation of an upgrade, also if older ones are there.
TEST_F(DurableDamage, OlderGenerationWithOtherArraysGetsNoLaterGroups) {
  ASSERT_NO_FATAL_FAILURE(fill(folder_, true, 1));
  fs::copy(folder_, root_ + "/old", fs::copy_options::recursive);
  std::vector<tslb_array_decl_t> decls = test_decls();
  decls.insert(decls.begin(), decl_of("added", TSLB_ARRAY_RECORDS, 9, 20, 2, 0));
  const auto content = [](const TestStore &store) {
    std::string all;
    for (uint32_t i = 1; i <= 4; ++i) all += content_of(store.array(i));
    return all;
  };
  TestStore store(decls);
  store.options.keep = 1;
  ASSERT_TRUE(store.open(folder_)) << store.error.text;
  const std::string before = content(store);
  EXPECT_FALSE(fs::exists(folder_ + "/generation.3"));
  ASSERT_TRUE(store.commit([&](tslb_batch_t *batch) {
    const int32_t id = get_dyn_arr_new_record_id(store.array(0));
    tslb_batch_log_record(batch, 0, static_cast<uint32_t>(id));
  }));
  ASSERT_EQ(store.close(), 0);
  for (const char *const name : {"/generation.3", "/journal.3"})
    fs::copy(root_ + "/old" + name, folder_ + name, fs::copy_options::recursive);
  flip(folder_ + "/generation.4/slots.stream", 100);
  ASSERT_TRUE(store.open(folder_, TSLB_STORE_SALVAGE)) << store.error.text;
  EXPECT_EQ(content(store), before);
  EXPECT_EQ(tslb_da_get_size(store.array(0)), 0u);
  EXPECT_THAT(store.info().warning, HasSubstr("has other arrays than the generation before; what follows is lost"));
}

// Nor does one lead to the generation of an import.
TEST_F(DurableDamage, OlderGenerationGetsNoGroupsAfterAnImport) {
  ASSERT_NO_FATAL_FAILURE(fill(folder_, true));
  fs::copy(folder_, root_ + "/old", fs::copy_options::recursive);
  TestStore store;
  ASSERT_TRUE(store.open(folder_, TSLB_STORE_BULK)) << store.error.text;
  uint32_t idx;
  tslb_da_get_newptr(store.array(SLOTS), &idx);
  ASSERT_EQ(tslb_store_snapshot(store.get(), &store.error), 0) << store.error.text;
  ASSERT_EQ(store.close(), 0);
  std::mt19937 random(3);
  ASSERT_TRUE(store.open(folder_) && store.commit_changes(random)) << store.error.text;
  const uint64_t generation = store.info().generation;
  ASSERT_EQ(store.close(), 0);
  for (const char *const name : {"/generation.3", "/journal.3"})
    fs::copy(root_ + "/old" + name, folder_ + name, fs::copy_options::recursive);
  flip(fmt::format("{}/generation.{}/slots.stream", folder_, generation), 100);
  ASSERT_TRUE(store.open(folder_, TSLB_STORE_SALVAGE)) << store.error.text;
  EXPECT_EQ(store.content(), contents_.back());
  EXPECT_THAT(store.info().warning, HasSubstr("is missing; what follows is lost"));
}

TEST_F(DurableDamage, BackupIsAStoreOfTheSettledState) {
  TestStore store;
  ASSERT_TRUE(store.open(folder_));
  std::mt19937 random(4);
  ASSERT_TRUE(store.commit_changes(random, 10)) << store.error.text;
  const std::string copied = store.content(), target = root_ + "/backup";
  ASSERT_EQ(tslb_store_backup(store.get(), target.c_str(), &store.error), 0) << store.error.text;
  EXPECT_EQ(tslb_store_backup(store.get(), target.c_str(), &store.error), -1);
  EXPECT_EQ(store.error.code, TSLB_DURABLE_NOT_EMPTY);
  ASSERT_TRUE(store.commit_changes(random)) << store.error.text;
  TestStore backup;
  ASSERT_TRUE(backup.open(target)) << backup.error.text;
  EXPECT_EQ(backup.content(), copied);
  EXPECT_EQ(std::memcmp(backup.info().identity, store.info().identity, 16), 0);

  // A source that is damaged gives no backup that looks whole.
  std::string changed = bytes_of(folder_ + "/generation.1/slots.stream");
  changed[changed.size() - 1] ^= 1;
  put_bytes(folder_ + "/generation.1/slots.stream", changed);
  EXPECT_EQ(tslb_store_backup(store.get(), (root_ + "/second").c_str(), &store.error), -1);
  EXPECT_EQ(store.error.code, TSLB_DURABLE_DAMAGED);
}

}  // namespace
