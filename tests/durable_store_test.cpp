// Durable stores: opening, batches, what is named and what is forgotten, upgrades, payloads.
#include <gmock/gmock.h>
#include <poll.h>
#include <sys/stat.h>

#include <set>

#include "durable_support.h"
#include "fault_alloc.h"
#include "io_faults.h"
#include "stored_array.h"
#include "stream_writer.h"

using testing::HasSubstr;

using DurableStore = DurableTest;

TEST_F(DurableStore, FolderIsOnlyTakenWhenAllowed) {
  TestStore store;
  EXPECT_FALSE(store.open(folder_, 0));
  EXPECT_EQ(store.error.code, TSLB_DURABLE_NO_STORE);
  EXPECT_THAT(store.error.text, HasSubstr("does not exist"));
  fs::create_directory(folder_);
  put_bytes(folder_ + "/notes.txt", "mine");
  EXPECT_FALSE(store.open(folder_, 0));
  EXPECT_EQ(store.error.code, TSLB_DURABLE_NO_STORE);
  EXPECT_THAT(store.error.text, HasSubstr("is not a store"));
  EXPECT_FALSE(store.open(folder_, TSLB_STORE_CREATE));
  EXPECT_EQ(store.error.code, TSLB_DURABLE_NOT_EMPTY);
  EXPECT_THAT(store.error.text, HasSubstr("notes.txt"));
  EXPECT_EQ(std::distance(fs::directory_iterator(folder_), {}), 1) << "a refused opening left files";
  ASSERT_TRUE(store.open(folder_, TSLB_STORE_CREATE | TSLB_STORE_IN_ANY)) << store.error.text;
  EXPECT_EQ(store.info().was_created, 1);

  TestStore second;
  EXPECT_FALSE(second.open(folder_, TSLB_STORE_CREATE));
  EXPECT_EQ(second.error.code, TSLB_DURABLE_LOCKED);
  EXPECT_THAT(second.error.text, HasSubstr("another writer has the store: this process, or a child of it"));
  ASSERT_TRUE(store.commit_slot(5, 16)) << store.error.text;
  TestStore reader;
  ASSERT_TRUE(reader.open(folder_, TSLB_STORE_READ_ONLY)) << reader.error.text;
  EXPECT_EQ(reader.content(), store.content());
  EXPECT_EQ(reader.begin(), nullptr);
  EXPECT_EQ(reader.error.code, TSLB_DURABLE_INVALID);
  EXPECT_EQ(bytes_of(folder_ + "/notes.txt"), "mine");
}

// They are read by programs that compress and by others, without the bytes that no chunk has, and each changed byte is noticed.
TEST_F(DurableStore, CompressedStreams) {
  std::vector<tslb_array_decl_t> decls = test_decls();
  const auto used = [](const TestStore &store) {
    std::string all;
    for (const uint32_t array : {RECORDS, SLOTS, BYTES, BITS})
      all += fmt::format("{:08x} ", tslb_durable::digest_of(store.array(array)).crc32c);
    return all;
  };
  std::mt19937 random(11);
  std::string before;
  uint64_t generation = 1;
  for (const bool compresses : {true, true, false, false}) {
    for (tslb_array_decl_t &decl : decls) decl.compresses = compresses;
    TestStore store(decls);
    ASSERT_TRUE(store.open(folder_)) << store.error.text;
    EXPECT_TRUE(before.empty() || used(store) == before);
    ASSERT_TRUE(store.commit_changes(random, 40)) << store.error.text;
    ASSERT_EQ(tslb_store_snapshot(store.get(), &store.error), 0) << store.error.text;
    ASSERT_TRUE(store.commit_changes(random, 3)) << store.error.text;
    before = used(store);
    const std::string folder = fmt::format("{}/generation.{}", folder_, ++generation);
    EXPECT_EQ(bytes_of(folder + "/manifest").starts_with("tslb-generation 4\n"), compresses);
    const std::string stream = folder + "/bits.stream", whole = bytes_of(stream);
    for (size_t at = 0; compresses && at < whole.size(); at += 1 + at / 50) {
      std::string changed = whole;
      changed[at] = static_cast<char>(changed[at] ^ 4);
      put_bytes(stream, changed);
      TestStore reader(decls);
      EXPECT_FALSE(reader.open(folder_, TSLB_STORE_READ_ONLY)) << "byte " << at;
      EXPECT_EQ(reader.error.code, TSLB_DURABLE_DAMAGED);
    }
    put_bytes(stream, whole);
  }
}

// The child that writes a generation has the heap as some thread left it.
TEST_F(DurableStore, StreamsAreWrittenWithoutAnAllocation) {
  std::vector<tslb_array_decl_t> decls = test_decls();
  for (tslb_array_decl_t &decl : decls) decl.compresses = 1;
  TestStore store(decls);
  ASSERT_TRUE(store.open(folder_)) << store.error.text;
  std::mt19937 random(3);
  ASSERT_TRUE(store.commit_changes(random, 40)) << store.error.text;
  const auto checked = tslb_durable::checked_decls(decls.data(), static_cast<uint32_t>(decls.size()));
  tslb_durable::StreamWriter writer(0, true);
  for (uint32_t i = 0; i < decls.size(); ++i) {
    const tslb_durable::File file = tslb_durable::File::create(root_ + "/" + decls[i].name);
    tslb_durable::StoredFile written;
    const unsigned long before = allocations_so_far();
    ASSERT_EQ(writer.write(store.array(i), checked[i], file.fd(), written), 0);
    EXPECT_EQ(allocations_so_far(), before) << decls[i].name;
    EXPECT_GT(written.bytes, 0u);
  }
}

// Each array is loaded while the writer replaces the generation that is being read.
TEST_F(DurableStore, ReaderIsNotDisturbedByLaterGenerations) {
  TestStore store;
  ASSERT_TRUE(store.open(folder_)) << store.error.text;
  std::vector<std::string> contents;
  const std::function<void()> replace = [&] {
    tslb_batch_t *const batch = store.begin();
    store.add_slot(batch, 5, 16);
    EXPECT_EQ(tslb_batch_commit(batch, &store.error), 0) << store.error.text;
    contents.push_back(store.content());
    EXPECT_EQ(tslb_store_snapshot(store.get(), &store.error), 0) << store.error.text;
  };
  replace();
  TestStore reader;
  reader.options.progress = [](void *step, uint64_t, uint64_t) { (*static_cast<std::function<void()> *>(step))(); };
  reader.options.progress_arg = const_cast<std::function<void()> *>(&replace);
  ASSERT_TRUE(reader.open(folder_, TSLB_STORE_READ_ONLY)) << reader.error.text;
  EXPECT_THAT(contents, testing::Contains(reader.content()));
  EXPECT_GT(contents.size(), 2u);
  EXPECT_FALSE(fs::exists(folder_ + "/generation.2")) << "the generation that was read stayed";
}

TEST_F(DurableStore, DeclarationsMustFitTheStore) {
  TestStore first;
  ASSERT_TRUE(first.open(folder_));
  ASSERT_EQ(first.close(), 0);
  const struct {
    const char *fault;
    void (*change)(std::vector<tslb_array_decl_t> &);
    const char *why;
  } rows[] = {
      {"another record size is read with wrong offsets", [](auto &d) { d[SLOTS].record_bytes = 44; },
       "record_bytes 40 is stored, but 44 is declared"},
      {"another kind", [](auto &d) { d[BITS].kind = TSLB_POOL_BIG_BUFFER; },
       "kind bit_vector is stored, but big_buffer is declared"},
      {"another table id", [](auto &d) { d[SLOTS].tbl_id = 9; }, "table id 2 is stored, but 9 is declared"},
      {"other lists", [](auto &d) { d[SLOTS].daflag = TSLB_DA_DAFLAG_LL; }, "daflag 2 is stored, but 1 is declared"},
      {"compaction headers", [](auto &d) { d[BITS].has_compat = 0; }, "compaction flag"},
      {"a newer version without a converter", [](auto &d) { d[SLOTS].rec_version = 1; },
       "rec_version 0 is stored, but 1 is declared"},
      {"an array of the store is forgotten", [](auto &d) { d.pop_back(); }, "\"bytes\", which is not declared"},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    std::vector<tslb_array_decl_t> decls = test_decls();
    row.change(decls);
    TestStore store(decls);
    EXPECT_FALSE(store.open(folder_));
    EXPECT_EQ(store.error.code, TSLB_DURABLE_MISMATCH);
    EXPECT_THAT(store.error.text, HasSubstr(row.why));
  }
}

TEST_F(DurableStore, InvalidDeclarationsAndOptionsAreRefused) {
  const struct {
    const char *why;
    void (*change)(std::vector<tslb_array_decl_t> &, tslb_store_options_t &);
  } rows[] = {
      {"name", [](auto &d, auto &) { d[0].name = "a/b"; }},
      {"declared twice", [](auto &d, auto &) { d[1].name = "records"; }},
      {"needs TSLB_DA_DAFLAG_LL", [](auto &d, auto &) { d[SLOTS].daflag = 0; }},
      {"has no lists", [](auto &d, auto &) { d[RECORDS].daflag = TSLB_DA_DAFLAG_LL; }},
      {"multiple of 4", [](auto &d, auto &) { d[BITS].record_bytes = 510; }},
      {"without bytes", [](auto &d, auto &) { d[SLOTS].record_bytes = 0; }},
      {"are for pools", [](auto &d, auto &) { d[SLOTS].has_compat = 1; }},
      {"one line", [](auto &d, auto &) { d[SLOTS].description = "a\nb"; }},
      {"unknown sync 7", [](auto &, auto &o) { std::memset(&o.sync, 7, 1); }},
      {"max_slots -1", [](auto &d, auto &) { d[BITS].max_slots = -1; }},
      {"journal_level 11", [](auto &, auto &o) { o.journal_level = 11; }},
      {"unknown kind 9", [](auto &d, auto &) { std::memset(&d[1].kind, 9, 1); }},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.why);
    std::vector<tslb_array_decl_t> decls = test_decls();
    tslb_store_options_t options = {};
    row.change(decls, options);
    TestStore store(decls);
    store.options = options;
    EXPECT_FALSE(store.open(folder_));
    EXPECT_EQ(store.error.code, TSLB_DURABLE_INVALID);
    EXPECT_THAT(store.error.text, HasSubstr(row.why));
    EXPECT_FALSE(fs::exists(folder_));
  }
}

// Random batches, snapshots and openings, with the replica compared after each group.
TEST_F(DurableStore, RandomBatchesComeBack) {
  for (const uint32_t seed : {1u, 2u, 3u}) {
    SCOPED_TRACE(fmt::format("seed {}", seed));
    fs::remove_all(folder_);
    std::mt19937 random(seed);
    std::string expected, payload = "none";
    uint64_t n_batches = 0;
    for (int opening = 0; opening < 8; ++opening) {
      TestStore store;
      store.options.journal_level = opening % 2 == 0 ? 0 : 10;
      store.options.keep = opening % 3;
      ASSERT_TRUE(store.open(folder_)) << store.error.text;
      if (opening != 0) {
        ASSERT_EQ(store.content(), expected);
        ASSERT_EQ(store.payload(), payload);
      }
      for (int i = 0; i < 40; ++i) {
        tslb_batch_t *const batch = store.begin();
        ASSERT_NE(batch, nullptr) << store.error.text;
        store.change(batch, random);
        if (i % 3 == 0) {
          payload = fmt::format("{} batches", n_batches);
          ASSERT_EQ(tslb_batch_set_payload(batch, payload.data(), payload.size(), &store.error), 0);
        }
        ASSERT_EQ(tslb_batch_commit(batch, &store.error), 0) << store.error.text;
        ++n_batches;
        if (i == 20 && opening % 2 == 1) {
          ASSERT_EQ(tslb_store_snapshot(store.get(), &store.error), 0) << store.error.text;
        }
      }
      expected = store.content();
      EXPECT_EQ(store.info().n_batches, 40u);
      if (opening % 4 != 3) {
        ASSERT_EQ(store.close(), 0) << store.error.text;
      }
    }
  }
}

TEST_F(DurableStore, ForgottenChangeIsReportedWithItsPlace) {
  const struct {
    const char *fault;
    std::function<void(TestStore &, tslb_batch_t *)> change;
    const char *why;
  } rows[] = {
      {"a record that is not named",
       [](TestStore &store, tslb_batch_t *) {
         static_cast<TestRecord *>(tslb_da_get_ptr(store.array(SLOTS), 1))->value = 9;
       },
       R"(batch 2, or a thread outside of a batch, changed array "slots" without naming it: slot 1, byte 4 of the record: 0x09 in the array, 0x05 in the journal)"},
      {"bytes next to those that are named",
       [](TestStore &store, tslb_batch_t *batch) {
         std::memset(static_cast<TestRecord *>(tslb_da_get_ptr(store.array(SLOTS), 0))->rest, 7, 2);
         tslb_batch_log_bytes(batch, SLOTS, 0, offsetof(TestRecord, rest), 1);
       },
       "slot 0, byte 17 of the record"},
      {"the bytes of a chunk",
       [](TestStore &, tslb_batch_t *batch) {
         maddr_t address;
         void *const chunk = tslb_batch_take_chunk(batch, BITS, 16, {}, &address, nullptr);
         std::memset(chunk, 1, 16);
       },
       R"(array "bits")"},
      {"a status that the host writes",
       [](TestStore &store, tslb_batch_t *) {
         char *const slot = static_cast<char *>(tslb_da_get_ptr(store.array(SLOTS), 0));
         const uint32_t status = TSLB_DA_SLOT_NOT_READY;
         std::memcpy(slot - TSLB_NODE_BYTES, &status, sizeof status);
       },
       "slot 0, byte 0, in a list node"},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    fs::remove_all(folder_);
    TestStore store;
    ASSERT_TRUE(store.open(folder_));
    tslb_batch_t *batch = store.begin();
    store.add_slot(batch, 5, 16);
    store.add_slot(batch, 5, 16);
    ASSERT_EQ(tslb_batch_commit(batch, &store.error), 0) << store.error.text;
    const std::string durable = store.content();
    batch = store.begin();
    row.change(store, batch);
    EXPECT_EQ(tslb_batch_commit(batch, &store.error), -1);
    EXPECT_EQ(store.error.code, TSLB_DURABLE_BROKEN);
    EXPECT_THAT(store.error.text, HasSubstr(row.why));
    EXPECT_EQ(store.begin(), nullptr);
    EXPECT_EQ(store.close(), -1);
    ASSERT_TRUE(store.open(folder_)) << store.error.text;
    EXPECT_EQ(store.content(), durable);
  }
}

TEST_F(DurableStore, ChangeOutsideOfABatchBreaksTheStore) {
  TestStore store;
  ASSERT_TRUE(store.open(folder_, TSLB_STORE_CREATE));
  uint32_t idx;
  tslb_da_get_newptr(store.array(SLOTS), &idx);
  EXPECT_EQ(store.begin(), nullptr);
  EXPECT_EQ(store.error.code, TSLB_DURABLE_BROKEN);
  EXPECT_THAT(store.error.text, HasSubstr("\"slots\" was changed outside of a batch"));
}

// The library reports no ids of records and no chunks within a memory slot.
TEST_F(DurableStore, UnreportedChangeOutsideOfABatchReachesTheNextGroupInPart) {
  for (const bool has_shadow : {false, true}) {
    fs::remove_all(folder_);
    TestStore store;
    ASSERT_TRUE(store.open(folder_, TSLB_STORE_CREATE | (has_shadow ? TSLB_STORE_SHADOW : 0)));
    ASSERT_TRUE(store.commit_slot(5, 16)) << store.error.text;
    maddr_t address;
    ASSERT_NE(tslb_dynmem_get_mchunk(store.array(BITS), &address, 16, {}), nullptr);
    std::memset(tslb_dynmem_get_maddr2ptr(store.array(BITS), address), 7, 16);
    void *record;
    get_dyn_arr_new_record_id_ex(store.array(RECORDS), &record, 0);
    std::memset(record, 7, 20);
    EXPECT_EQ(store.commit_slot(6, 16), !has_shadow);
    if (has_shadow) {
      EXPECT_EQ(store.error.code, TSLB_DURABLE_BROKEN);
      EXPECT_THAT(store.error.text, HasSubstr("a thread outside of a batch, changed array \"records\""));
      continue;
    }
    ASSERT_EQ(store.close(), 0);
    ASSERT_TRUE(store.open(folder_)) << store.error.text;
    ASSERT_EQ(tslb_da_get_size(store.array(RECORDS)), 1u);
    EXPECT_EQ(*static_cast<char *>(tslb_da_get_ptr(store.array(RECORDS), 0)), 0);
    EXPECT_EQ(*static_cast<char *>(tslb_dynmem_get_maddr2ptr(store.array(BITS), address)), 0);
  }
}

TEST_F(DurableStore, BatchWithAnInvalidRangeIsRefusedAndTakenBack) {
  TestStore store;
  ASSERT_TRUE(store.open(folder_));
  ASSERT_TRUE(store.commit_slot(5, 16)) << store.error.text;
  const std::string durable = store.content();
  const struct {
    const char *why;
    void (*log)(tslb_batch_t *);
  } rows[] = {
      {"4 are declared", [](tslb_batch_t *b) { tslb_batch_log_record(b, 4, 0); }},
      {"record 7 was named", [](tslb_batch_t *b) { tslb_batch_log_record(b, SLOTS, 7); }},
      {"8 bytes at byte 33", [](tslb_batch_t *b) { tslb_batch_log_bytes(b, SLOTS, 0, 33, 8); }},
      {"is not a pool", [](tslb_batch_t *b) { tslb_batch_log_chunk(b, SLOTS, {}, 0, 8); }},
      {"are not in the array", [](tslb_batch_t *b) { tslb_batch_log_chunk(b, BITS, {}, 0, 600); }},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.why);
    tslb_batch_t *const batch = store.begin();
    ASSERT_NE(batch, nullptr) << store.error.text;
    store.add_slot(batch, 6, 120);
    row.log(batch);
    EXPECT_EQ(tslb_batch_commit(batch, &store.error), -1);
    EXPECT_EQ(store.error.code, TSLB_DURABLE_REFUSED);
    EXPECT_THAT(store.error.text, HasSubstr(row.why));
    EXPECT_EQ(store.begin(), nullptr);
    EXPECT_EQ(store.error.code, TSLB_DURABLE_REFUSED);
    ASSERT_EQ(tslb_store_restore(store.get(), &store.error), 0) << store.error.text;
    EXPECT_EQ(store.content(), durable);
  }
  ASSERT_TRUE(store.commit_slot(7, 24)) << store.error.text;
  const std::string expected = store.content();
  ASSERT_EQ(store.close(), 0);
  ASSERT_TRUE(store.open(folder_)) << store.error.text;
  EXPECT_EQ(store.content(), expected);
}

// Record layouts of the upgrade.
struct OldRecord {
  uint32_t gatekeeper, value;
};
struct NewRecord {
  uint32_t gatekeeper, value, doubled;
};

static std::vector<tslb_array_decl_t> versioned(uint8_t version) {
  const auto record_bytes = static_cast<uint32_t>(version == 0 ? sizeof(OldRecord) : sizeof(NewRecord));
  std::vector<tslb_array_decl_t> decls = {decl_of("events", TSLB_ARRAY_SLOTS, 3, record_bytes, 4, TSLB_DA_DAFLAG_INLL)};
  decls[0].rec_version = version;
  if (version == 1) {
    decls[0].convert = [](void *arg, uint8_t from_version, const void *from, uint32_t from_bytes, void *to, uint32_t) {
      if (from_version != 0 || from_bytes != sizeof(OldRecord)) return -1;
      const auto &old_record = *static_cast<const OldRecord *>(from);
      if (arg != nullptr && old_record.value == 7) return -1;
      *static_cast<NewRecord *>(to) = {old_record.gatekeeper, old_record.value, 2 * old_record.value};
      return 0;
    };
  }
  return decls;
}

TEST_F(DurableStore, UpgradeConvertsRecordsAndKeepsIndicesAndLists) {
  std::vector<uint32_t> freed;
  {
    TestStore store(versioned(0));
    ASSERT_TRUE(store.open(folder_));
    tslb_batch_t *const batch = store.begin();
    for (uint32_t value = 0; value < 30; ++value) {
      uint32_t idx;
      *static_cast<OldRecord *>(tslb_da_get_newptr(store.array(0), &idx)) = {1, value};
      tslb_batch_log_record(batch, 0, idx);
    }
    for (const uint32_t idx : {12u, 3u, 25u}) tslb_da_free_idx(store.array(0), idx);
    for (const uint32_t idx : {20u, 2u}) tslb_da_inactivate_idx(store.array(0), idx, 55);
    ASSERT_EQ(tslb_batch_commit(batch, &store.error), 0) << store.error.text;
    ASSERT_EQ(store.close(), 0);
  }
  std::vector<tslb_array_decl_t> failing = versioned(1);
  failing[0].convert_arg = &failing;
  TestStore refused(failing);
  EXPECT_FALSE(refused.open(folder_));
  EXPECT_THAT(refused.error.text, HasSubstr("record 7 cannot be converted from version 0 to 1"));

  TestStore store(versioned(1));
  ASSERT_TRUE(store.open(folder_)) << store.error.text;
  EXPECT_EQ(store.info().was_upgraded, 1);
  DynamicArray_t const array = store.array(0);
  for (uint32_t idx = 0; idx < 30; ++idx) {
    if (idx == 12 || idx == 3 || idx == 25) continue;
    const auto &record = *static_cast<const NewRecord *>(tslb_da_get_ptr(array, idx));
    EXPECT_EQ(record.value, idx);
    EXPECT_EQ(record.doubled, 2 * idx);
  }
  uint32_t head;
  tslb_da_get_inactive_head_ptr(array, &head);
  EXPECT_EQ(head, 20u);
  tslb_batch_t *const batch = store.begin();
  for (const uint32_t expected : {12u, 3u, 25u, 30u}) {
    uint32_t idx;
    tslb_da_get_newptr(array, &idx);
    tslb_batch_log_record(batch, 0, idx);
    EXPECT_EQ(idx, expected);
  }
  ASSERT_EQ(tslb_batch_commit(batch, &store.error), 0) << store.error.text;
  const std::string expected = store.content();
  ASSERT_EQ(store.close(), 0);

  TestStore older(versioned(0));
  EXPECT_FALSE(older.open(folder_));
  EXPECT_THAT(older.error.text, HasSubstr("rec_version 1 is stored, but 0 is declared"));
  ASSERT_TRUE(store.open(folder_)) << store.error.text;
  EXPECT_EQ(store.info().was_upgraded, 0);
  EXPECT_EQ(store.content(), expected);
}

TEST_F(DurableStore, ArrayIsAddedAndOrderOfDeclarationsIsFree) {
  std::vector<tslb_array_decl_t> decls = test_decls();
  decls.pop_back();
  std::string slots;
  {
    TestStore store(decls);
    ASSERT_TRUE(store.open(folder_));
    ASSERT_TRUE(store.commit_slot(3, 40)) << store.error.text;
    slots = content_of(store.array(SLOTS));
  }
  decls = test_decls();
  std::reverse(decls.begin(), decls.end());
  for (const bool is_first : {true, false}) {
    TestStore store(decls);
    ASSERT_TRUE(store.open(folder_)) << store.error.text;
    EXPECT_EQ(store.info().was_upgraded, is_first ? 1 : 0);
    EXPECT_EQ(content_of(store.array(3 - SLOTS)), slots);
    tslb_batch_t *const batch = store.begin();
    maddr64_t address;
    ASSERT_NE(tslb_batch_take_chunk64(batch, 3 - BYTES, 10, {}, &address, &store.error), nullptr);
    ASSERT_EQ(tslb_batch_commit(batch, &store.error), 0) << store.error.text;
  }
}

TEST_F(DurableStore, StreamIsThatOfTheLibrary) {
  TestStore store;
  ASSERT_TRUE(store.open(folder_));
  std::mt19937 random(7);
  ASSERT_TRUE(store.commit_changes(random, 60)) << store.error.text;
  ASSERT_EQ(tslb_store_snapshot(store.get(), &store.error), 0) << store.error.text;
  tslb_test_mode = 0;
  lib_config.tslb_enable_file_trimming_flag = 1;
  for (uint32_t i = 0; i < 4; ++i) {
    const fs::path path = root_ + "/expected";
    FILE *const file = fopen(path.c_str(), "w");
    size_t ignored = 0;
    ASSERT_EQ(tslb_create_dump_for_dynarr(store.array(i), fileno(file), 0, &ignored), 0);
    fclose(file);
    const std::string name = test_decls()[i].name;
    EXPECT_EQ(bytes_of(fmt::format("{}/generation.2/{}.stream", folder_, name)), bytes_of(path)) << name;
  }
}

// Streams of more than some MiB are handed to the disk, and removed, in pieces.
TEST_F(DurableStore, LargeGenerationReplacesAnother) {
  constexpr uint32_t N_RECORDS = 600, RECORD_BYTES = 1 << 16;
  const std::vector<tslb_array_decl_t> decls = {decl_of("large", TSLB_ARRAY_RECORDS, 1, RECORD_BYTES, 0, 0)};
  std::string expected;
  {
    TestStore store(decls);
    ASSERT_TRUE(store.open(folder_, TSLB_STORE_CREATE)) << store.error.text;
    for (const int value : {'a', 'b'}) {
      tslb_batch_t *const batch = store.begin();
      while (tslb_da_get_size(store.array(0)) < N_RECORDS) get_dyn_arr_new_record_id(store.array(0));
      for (uint32_t id = 0; id < N_RECORDS; ++id) {
        std::memset(tslb_da_get_ptr(store.array(0), id), value + static_cast<int>(id % 20), RECORD_BYTES);
        tslb_batch_log_record(batch, 0, id);
      }
      ASSERT_EQ(tslb_batch_commit(batch, &store.error), 0) << store.error.text;
      ASSERT_EQ(tslb_store_snapshot(store.get(), &store.error), 0) << store.error.text;
    }
    expected = store.content();
    EXPECT_FALSE(fs::exists(folder_ + "/generation.2"));
    EXPECT_GT(fs::file_size(folder_ + "/generation.3/large.stream"), uint64_t{N_RECORDS} * RECORD_BYTES);
    EXPECT_LT(store.info().journal_bytes, 1000u) << "the generation has the batches";
  }
  TestStore store(decls);
  ASSERT_TRUE(store.open(folder_)) << store.error.text;
  EXPECT_EQ(store.info().n_batches_found, 0u);
  EXPECT_TRUE(store.content() == expected);
}

// While a group is applied the next ones are read. A fault in them must not cost the groups before it.
TEST_F(DurableStore, LongGroupsAreReplayedUpToTheDamage) {
  constexpr uint32_t N_GROUPS = 6, N_RECORDS = 8, RECORD_BYTES = 1 << 16;
  const std::vector<tslb_array_decl_t> decls = {decl_of("large", TSLB_ARRAY_RECORDS, 1, RECORD_BYTES, 0, 0)};
  std::vector<std::string> contents;
  std::vector<uint64_t> ends;  // of the groups in the journal
  const std::string killed = folder_ + ".killed", journal = killed + "/journal.1";
  {
    TestStore store(decls);
    ASSERT_TRUE(store.open(folder_, TSLB_STORE_CREATE)) << store.error.text;
    for (uint32_t group = 0; group < N_GROUPS; ++group) {
      ASSERT_TRUE(store.commit([&](tslb_batch_t *batch) {
        while (tslb_da_get_size(store.array(0)) < N_RECORDS) get_dyn_arr_new_record_id(store.array(0));
        for (uint32_t id = 0; id < N_RECORDS; ++id) {
          std::memset(tslb_da_get_ptr(store.array(0), id), static_cast<int>(1 + group * N_RECORDS + id), RECORD_BYTES);
          tslb_batch_log_record(batch, 0, id);
        }
      })) << store.error.text;
      contents.push_back(store.content());
      ends.push_back(store.info().journal_bytes);
    }
    fs::copy(folder_, killed, fs::copy_options::recursive);
  }
  const std::string intact = bytes_of(journal);
  static const struct {
    uint32_t group;  // whose last byte is changed
    uint32_t flags;
    const char *text;
  } rows[] = {
      {N_GROUPS, TSLB_STORE_READ_ONLY, ""},
      {N_GROUPS - 1, TSLB_STORE_READ_ONLY, "were cut"},
      {3, TSLB_STORE_READ_ONLY | TSLB_STORE_SALVAGE, "what follows is lost"},
      {3, TSLB_STORE_READ_ONLY, nullptr},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(fmt::format("group {}, flags {}", row.group, row.flags));
    std::string changed = intact;
    if (row.group < N_GROUPS) changed[ends[row.group] - 1] ^= 1;
    put_bytes(journal, changed);
    TestStore store(decls);
    const std::string place = row.group < N_GROUPS ? fmt::format("byte {}: ", ends[row.group - 1]) : "";
    ASSERT_EQ(store.open(killed, row.flags), row.text != nullptr) << store.error.text;
    const std::string text = row.text != nullptr ? store.info().warning : store.error.text;
    EXPECT_NE(text.find(place), std::string::npos) << text;
    if (row.text == nullptr) continue;
    EXPECT_NE(text.find(row.text), std::string::npos) << text;
    EXPECT_EQ(store.info().n_batches_found, row.group);
    EXPECT_TRUE(store.content() == contents[row.group - 1]);
  }
}

TEST_F(DurableStore, PoolRefusesAtItsLastSlot) {
  std::vector<tslb_array_decl_t> decls = test_decls();
  decls[BITS].kind = TSLB_POOL_BIG_BUFFER;
  decls[BITS].record_bytes = 64;
  TestStore store(decls);
  ASSERT_TRUE(store.open(folder_, TSLB_STORE_CREATE));
  tslb_batch_t *const batch = store.begin();
  maddr_t address;
  std::vector<maddr_t> taken;
  for (const uint32_t bytes : {0u, 49u, 70'000u}) {
    EXPECT_EQ(tslb_batch_take_chunk(batch, BITS, bytes, {}, &address, &store.error), nullptr);
    EXPECT_EQ(store.error.code, TSLB_DURABLE_INVALID);
  }
  while (tslb_batch_take_chunk(batch, BITS, 40, {}, &address, &store.error) != nullptr) taken.push_back(address);
  EXPECT_EQ(store.error.code, TSLB_DURABLE_FULL);
  EXPECT_THAT(store.error.text, HasSubstr("no room for 40 bytes; free 0, inactive 0, fresh 0, current 8"));
  EXPECT_EQ(taken.size(), 255u);
  tslb_batch_delete_chunk(batch, BITS, taken[17]);
  tslb_pool_room_t room;
  ASSERT_EQ(tslb_store_pool_room(store.get(), BITS, &room), 0);
  EXPECT_EQ(room.free, 64u);
  EXPECT_NE(tslb_batch_take_chunk(batch, BITS, 40, {}, &address, &store.error), nullptr) << store.error.text;
  EXPECT_EQ(tslb_batch_take_chunk(batch, BITS, 40, {}, &address, &store.error), nullptr);
  EXPECT_EQ(tslb_store_pool_room(store.get(), SLOTS, &room), -1);
  ASSERT_EQ(tslb_batch_commit(batch, &store.error), 0) << store.error.text;
}

TEST_F(DurableStore, TicketsSettleInOrderAndSignal) {
  for (const tslb_sync_t sync : {TSLB_SYNC_GROUP, TSLB_SYNC_ALWAYS, TSLB_SYNC_NONE}) {
    fs::remove_all(folder_);
    TestStore store;
    store.options.sync = sync;
    ASSERT_TRUE(store.open(folder_));
    uint64_t ticket = 0;
    for (uint32_t i = 1; i <= 5; ++i) {
      tslb_batch_t *const batch = store.begin();
      store.add_slot(batch, i, 0);
      ticket = tslb_batch_end(batch);
      EXPECT_EQ(ticket, i);
      if (sync == TSLB_SYNC_ALWAYS) {
        EXPECT_EQ(tslb_store_settled(store.get()), i);
      }
    }
    // The journal thread settles tickets that no thread waits for.
    while (tslb_store_settled(store.get()) < ticket) {
      pollfd event = {tslb_store_event_fd(store.get()), POLLIN, 0};
      ASSERT_EQ(poll(&event, 1, 10'000), 1) << "no ticket settled within ten seconds";
      uint64_t count;
      ASSERT_EQ(read(event.fd, &count, sizeof count), 8);
    }
    EXPECT_EQ(tslb_store_wait(store.get(), ticket, &store.error), 0);
    EXPECT_EQ(tslb_store_wait(store.get(), ticket + 1, &store.error), -1);
    EXPECT_EQ(store.error.code, TSLB_DURABLE_INVALID);
    tslb_batch_t *const batch = store.begin();
    EXPECT_EQ(store.begin(), nullptr) << "a second batch of a thread would wait for the first";
    EXPECT_EQ(tslb_store_wait(store.get(), ticket, &store.error), -1);
    EXPECT_EQ(store.error.code, TSLB_DURABLE_INVALID);
    tslb_batch_end(batch);
  }
}

TEST_F(DurableStore, ProgressRisesToAllBytes) {
  TestStore store;
  ASSERT_TRUE(store.open(folder_));
  std::mt19937 random(3);
  ASSERT_TRUE(store.commit_changes(random, 30)) << store.error.text;
  ASSERT_EQ(store.close(), 0);
  std::vector<std::pair<uint64_t, uint64_t>> reports;
  store.options.progress = [](void *arg, uint64_t done, uint64_t all) {
    static_cast<decltype(reports) *>(arg)->emplace_back(done, all);
  };
  store.options.progress_arg = &reports;
  ASSERT_TRUE(store.open(folder_));
  ASSERT_GT(reports.size(), 4u);
  for (size_t i = 1; i < reports.size(); ++i) {
    EXPECT_EQ(reports[i].second, reports[0].second) << "the total changed";
    EXPECT_GE(reports[i].first, reports[i - 1].first);
  }
  EXPECT_EQ(reports.back().first, reports.back().second);
}

TEST_F(DurableStore, ImportIsDurableWithItsSnapshotOnly) {
  std::string imported;
  for (const bool ends_with_snapshot : {false, true}) {
    TestStore store;
    ASSERT_TRUE(store.open(folder_, TSLB_STORE_CREATE | TSLB_STORE_BULK)) << store.error.text;
    EXPECT_EQ(store.begin(), nullptr);
    EXPECT_EQ(store.error.code, TSLB_DURABLE_INVALID);
    uint32_t idx;
    *static_cast<TestRecord *>(tslb_da_get_newptr(store.array(SLOTS), &idx)) = {1, 77, {}, 0, {}};
    if (ends_with_snapshot) {
      ASSERT_EQ(tslb_store_snapshot(store.get(), &store.error), 0) << store.error.text;
    }
    imported = store.content();
    ASSERT_EQ(store.close(), 0) << store.error.text;
    EXPECT_EQ(fs::exists(folder_), ends_with_snapshot) << "a store without an import stayed";
  }
  // A second import that is given up changes nothing.
  TestStore store;
  ASSERT_TRUE(store.open(folder_, TSLB_STORE_BULK)) << store.error.text;
  uint32_t idx;
  tslb_da_get_newptr(store.array(SLOTS), &idx);
  ASSERT_EQ(store.close(), 0);
  ASSERT_TRUE(store.open(folder_)) << store.error.text;
  EXPECT_EQ(store.content(), imported);
  EXPECT_EQ(store.info().was_sealed, 1);
}

// Each step of an import fails once, and it is given up: a new store is gone, another one is as it was.
TEST_F(DurableStore, FailedImportChangesNothing) {
  for (const bool is_new : {true, false}) {
    std::string before;
    if (!is_new) {
      TestStore store;
      ASSERT_TRUE(store.open(folder_)) << store.error.text;
      before = store.content();
    }
    int n_failed = 0;
    for (uint64_t k = 1;; ++k) {
      SCOPED_TRACE(k);
      TestStore store;
      ASSERT_TRUE(store.open(folder_, TSLB_STORE_CREATE | TSLB_STORE_BULK)) << store.error.text;
      uint32_t idx;
      tslb_da_get_newptr(store.array(SLOTS), &idx);
      tslb_durable::fail_at_io(k, ENOSPC);
      const bool is_stored = tslb_store_snapshot(store.get(), &store.error) == 0;
      tslb_durable::fail_at_io(0, 0);
      ASSERT_EQ(store.close(), 0) << store.error.text;
      if (is_stored) break;
      ++n_failed;
      ASSERT_EQ(fs::exists(folder_), !is_new);
      if (is_new) continue;
      ASSERT_TRUE(store.open(folder_)) << store.error.text;
      ASSERT_EQ(store.content(), before);
    }
    EXPECT_GT(n_failed, 20);
  }
}

TEST_F(DurableStore, DescriptionNamesTheArrays) {
  std::vector<tslb_array_decl_t> decls = test_decls();
  decls[SLOTS].description = "gatekeeper u32, value u32";
  tslb_error_t error;
  EXPECT_EQ(tslb_store_describe(folder_.c_str(), nullptr, 0, &error), -1);
  EXPECT_EQ(error.code, TSLB_DURABLE_NO_STORE);
  TestStore store(decls);
  ASSERT_TRUE(store.open(folder_));
  tslb_stored_array_t found[2];
  ASSERT_EQ(tslb_store_describe(folder_.c_str(), nullptr, 0, &error), 4);
  ASSERT_EQ(tslb_store_describe(folder_.c_str(), found, 2, &error), 4);
  EXPECT_STREQ(found[SLOTS].name, "slots");
  EXPECT_STREQ(found[SLOTS].description, "gatekeeper u32, value u32");
  EXPECT_EQ(found[SLOTS].kind, TSLB_ARRAY_SLOTS);
  EXPECT_EQ(found[SLOTS].record_bytes, sizeof(TestRecord));
  EXPECT_EQ(found[SLOTS].daflag, TSLB_DA_DAFLAG_INLL);
  EXPECT_EQ(found[SLOTS].n_direct, 5u);
}

TEST_F(DurableStore, NewerRecordsAreConvertedOnRequestOnly) {
  std::vector<tslb_array_decl_t> newer = versioned(1), older = versioned(0);
  older[0].convert = [](void *, uint8_t, const void *from, uint32_t, void *to, uint32_t to_bytes) {
    std::memcpy(to, from, to_bytes);
    return 0;
  };
  {
    TestStore store(newer);
    ASSERT_TRUE(store.open(folder_));
    tslb_batch_t *const batch = store.begin();
    uint32_t idx;
    *static_cast<NewRecord *>(tslb_da_get_newptr(store.array(0), &idx)) = {1, 5, 10};
    tslb_batch_log_record(batch, 0, idx);
    ASSERT_EQ(tslb_batch_commit(batch, &store.error), 0);
  }
  TestStore refused(older);
  EXPECT_FALSE(refused.open(folder_));
  EXPECT_EQ(refused.error.code, TSLB_DURABLE_MISMATCH);
  older[0].converts_newer = 1;
  TestStore store(older);
  ASSERT_TRUE(store.open(folder_)) << store.error.text;
  EXPECT_EQ(static_cast<const OldRecord *>(tslb_da_get_ptr(store.array(0), 0))->value, 5u);
  EXPECT_EQ(tslb_da_get_record_size(store.array(0)), sizeof(OldRecord));
}

TEST_F(DurableStore, TicketsCanBeCheckedWithoutWaiting) {
  TestStore store;
  ASSERT_TRUE(store.open(folder_));
  tslb_batch_t *batch = store.begin();
  store.add_slot(batch, 1, 0);
  const uint64_t durable = tslb_batch_end(batch);
  ASSERT_EQ(tslb_store_wait(store.get(), durable, &store.error), 0);
  batch = store.begin();
  tslb_batch_log_record(batch, SLOTS, 99);
  const uint64_t refused = tslb_batch_end(batch);
  EXPECT_EQ(tslb_store_wait(store.get(), refused, &store.error), -1);
  EXPECT_EQ(tslb_store_check(store.get(), durable, &store.error), 0);
  EXPECT_EQ(tslb_store_reserve(store.get(), 0, &store.error), -1);
  EXPECT_EQ(store.error.code, TSLB_DURABLE_REFUSED);
  EXPECT_EQ(tslb_store_check(store.get(), refused, &store.error), -1);
  EXPECT_THAT(store.error.text, HasSubstr("array \"slots\": record 99 was named, but the array has 1"));
  ASSERT_EQ(tslb_store_restore(store.get(), &store.error), 0);
  EXPECT_EQ(tslb_store_check(store.get(), refused + 1, &store.error), -1) << "a ticket that was not given";
  EXPECT_EQ(store.error.code, TSLB_DURABLE_INVALID);
  batch = store.begin();
  EXPECT_EQ(tslb_store_check(store.get(), refused, &store.error), -1) << "a refusal is remembered";
  EXPECT_EQ(tslb_store_reserve(store.get(), 1, &store.error), -1);
  EXPECT_EQ(store.error.code, TSLB_DURABLE_INVALID);
  tslb_batch_end(batch);
  EXPECT_EQ(tslb_store_reserve(store.get(), 10 << 20, &store.error), 0);
  // What was reserved in one journal is not in the next.
  ASSERT_EQ(tslb_store_snapshot(store.get(), &store.error), 0) << store.error.text;
  EXPECT_EQ(tslb_store_reserve(store.get(), 1 << 20, &store.error), 0);
  struct stat journal;
  ASSERT_EQ(stat((folder_ + "/journal.2").c_str(), &journal), 0);
  EXPECT_GE(journal.st_blocks * 512, 1 << 20);
  EXPECT_EQ(tslb_store_reserve(store.get(), uint64_t{1} << 60, &store.error), -1);
  EXPECT_EQ(store.error.code, TSLB_DURABLE_IO);
  EXPECT_NE(store.error.errnum, 0);
}
