// Damage in the folder of a database is refused with the name of the file, even if all checksums agree with it.
#include <sys/stat.h>

#include <cstring>

#include "database_support.h"
#include "journal/checksum.h"
#include "query/report.h"

class Damage : public SmallDatabase {
 protected:
  std::vector<fs::path> files() const {
    std::vector<fs::path> files;
    for (const auto &entry : fs::recursive_directory_iterator(generation()))
      if (entry.is_regular_file()) files.push_back(entry.path());
    return files;
  }

  // Rewrites the manifest with the current checksums of the files.
  void seal_manifest() const {
    Manifest manifest = read_manifest(read_file(generation() / "manifest"));
    for (StoredArray &array : manifest.arrays)
      for (StoredFile &file : array.files) {
        const FileSum sum = sum_of(File::open((generation() / file.name).string()));
        file.bytes = sum.bytes;
        file.crc32c = sum.crc32c;
      }
    write_file(generation() / "manifest", manifest_text(manifest));
  }
};

class DamagedFile : public Damage, public testing::WithParamInterface<StoreKind> {};

TEST_P(DamagedFile, EveryFlippedBitIsReportedWithItsFile) {
  ASSERT_NO_FATAL_FAILURE(keep_filled(GetParam()));
  EXPECT_EQ(files().size(), GetParam() == StoreKind::snapshot ? 4u : 1 + 1 + 2 + 2);
  for (const fs::path &file : files()) {
    SCOPED_TRACE(file);
    const std::string whole = read_file(file);
    // Every byte of a small file; the headers and a sample of a large file; a sample of a very large file.
    const bool is_very_large = whole.size() > 100'000;
    const size_t header_step = is_very_large ? 11 : 1;
    const size_t step = whole.size() < 1000 ? 1 : whole.size() / (is_very_large ? 10 : 50);
    for (size_t at = 0; at < whole.size(); at += at < 200 ? header_step : step) {
      std::string damaged = whole;
      damaged[at] = static_cast<char>(damaged[at] ^ (1 << at % 8));
      write_file(file, damaged);
      ASSERT_THAT(refusal_of([this] { database_->open(); }), StartsWith(file.string() + ": ")) << "byte " << at;
      ASSERT_EQ(read_file(file), damaged);
    }
    write_file(file, whole);
  }
  EXPECT_EQ(refusal(), "") << "the damage was not undone, so the loop proves nothing";
}

TEST_P(DamagedFile, MissingShortLongOrOfAnotherType) {
  ASSERT_NO_FATAL_FAILURE(keep_filled(GetParam()));
  // The manifest contains the sizes of the other files, and its own checksum.
  const std::string manifest_message = "wrong checksum, or unexpected end";
  static const struct {
    const char *fault;
    void (*damage)(const fs::path &);
    const char *message;
  } rows[] = {
      {"missing", [](const fs::path &file) { fs::remove(file); }, "cannot be opened: No such file or directory"},
      {"cut", [](const fs::path &file) { fs::resize_file(file, fs::file_size(file) - 1); }, "the manifest says"},
      {"longer", [](const fs::path &file) { fs::resize_file(file, fs::file_size(file) + 1); }, "the manifest says"},
      {"a folder", [](const fs::path &file) { fs::remove(file), fs::create_directory(file); }, "not a regular file"},
      {"a pipe without a writer", [](const fs::path &file) { fs::remove(file), mkfifo(file.c_str(), 0600); },
       "not a regular file"},
  };
  for (const auto &row : rows)
    for (const fs::path &file : files()) {
      SCOPED_TRACE(fmt::format("{}: {}", row.fault, file.string()));
      const std::string whole = read_file(file);
      row.damage(file);
      const std::string what = refusal_of([this] { database_->open(); });
      EXPECT_THAT(what, StartsWith(file.string() + ": "));
      const bool is_manifest = file.filename() == "manifest" && row.message == std::string("the manifest says");
      EXPECT_THAT(what, HasSubstr(is_manifest ? manifest_message : row.message));
      fs::remove(file);
      write_file(file, whole);
    }
  EXPECT_EQ(refusal(), "");
}
INSTANTIATE_TEST_SUITE_P(Stores, DamagedFile, testing::ValuesIn(STORE_KINDS), name_of_kind);

static std::string resealed(const std::string &body) {
  return body + fmt::format("crc32c {:08x}\n", crc32c(body.data(), body.size()));
}

// Edits with a correct checksum, which must be refused because of their content.
TEST_F(Damage, InconsistentManifests) {
  ASSERT_NO_FATAL_FAILURE(keep_filled(StoreKind::snapshot));
  static const struct {
    const char *fault, *found, *put, *message;  // the text that is replaced, and the replacement
  } rows[] = {
      {"a later version", "metricdb 2\n", "metricdb 3\n", "manifest: unknown format version \"3\", expected 2"},
      {"one without a number", "metricdb 2\n", "metricdb one\n", "unknown format version \"one\", expected 2"},
      {"a store", "store snapshot", "store tape", "manifest: line 2: store \"tape\", expected snapshot or shm"},
      {"an unknown layout", "layout 1", "layout 2", "line 3: layout \"2\""},
      {"not the records' layout", "layout 1", "layout 0", "catalogue.stream: byte 1: rec_version 1, expected 0"},
      {"streams taken for block files", "store snapshot", "store shm", "manifest: array "},
      {"a line left out", "retain_ns 100\n", "", "line 6: \"idle_ns\", expected \"retain_ns\""},
      {"a negative time span", "retain_ns 100", "retain_ns -100", "line 6: retain_ns \"-100\""},
      {"a percentage above 100", "reuse_inactive_pct 0", "reuse_inactive_pct 101",
       "line 8: reuse_inactive_pct \"101\""},
      {"letters after a number", "idle_ns 50", "idle_ns 50s", "line 7: idle_ns \"50s\""},
      {"another spelling", "idle_ns 50", "idle_ns 050", "not the text that this program writes"},
      {"another line end", "idle_ns 50\n", "idle_ns 50 ", "not the text that this program writes"},
      {"other slot sizes", "key_slot_bytes 64", "key_slot_bytes 68", "keys.stream: record size 72, expected 76"},
      {"a huge slot size", "point_slot_bytes 2400", "point_slot_bytes 16777217", "line 5: point_slot_bytes \""},
      {"series that are not there", "\nseries 3\n", "\nseries 4\n", "manifest: the figures say 4 series with "},
      {"an old data time", "data_time_ns 180", "data_time_ns 110", "catalogue.stream: series "},
      {"another array's file", "file keys.stream", "file points.stream",
       "manifest: array keys: file \"points.stream\", not keys.stream"},
      {"no file", "slot_bytes 80 files 1", "slot_bytes 80 files 0", "line 24: \"file\", expected \"array\""},
      {"a file too many", "slot_bytes 116 files 1\n",
       "slot_bytes 116 files 2\nfile catalogue.stream bytes 1 crc32c 00000000\n",
       "array catalogue: 2 files, expected 1"},
      {"more files than the text has", "slot_bytes 2416 files 1", "slot_bytes 2080 files 4294967295", "unexpected end"},
      {"another table", "table -3", "table -4", "array points: table -4, expected -3"},
      {"a slot more than the stream has", "direct 64", "direct 65",
       "catalogue.stream: 6 slots of 116 bytes, 64 of them direct; the manifest says 6 of 116, 65"},
  };
  const std::string whole = read_file(generation() / "manifest");
  ASSERT_EQ(resealed(whole.substr(0, whole.size() - 16)), whole);
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    std::string body = whole.substr(0, whole.size() - 16);
    const size_t at = body.find(row.found);
    ASSERT_NE(at, body.npos) << body;
    body.replace(at, std::strlen(row.found), row.put);
    write_file(generation() / "manifest", resealed(body));
    const std::string what = refusal();
    EXPECT_THAT(what, StartsWith(generation().string() + "/"));
    EXPECT_THAT(what, HasSubstr(row.message));
  }
  for (size_t bytes = 0; bytes < whole.size(); ++bytes) {
    write_file(generation() / "manifest", whole.substr(0, bytes));
    ASSERT_THAT(refusal(), StartsWith((generation() / "manifest: ").string())) << bytes;
  }
  write_file(generation() / "manifest", resealed(whole));
  EXPECT_THAT(refusal(), HasSubstr("unexpected text after the last array"));
  write_file(generation() / "manifest", whole);
  EXPECT_EQ(refusal(), "");
}

// The parts of a store that the rows damage.
struct Parts {
  explicit Parts(Store &of) : store(of) {}

  SealedChunk *sealed(const maddr_t &address) const { return reinterpret_cast<SealedChunk *>(points_at(address)); }
  char *points_at(const maddr_t &address) const {
    return static_cast<char *>(tslb_dynmem_get_maddr2ptr(store.points(), address));
  }
  SeriesRecord record_of(std::string_view key) const { return store.record(store.series_of(key)); }
  SeriesRecord free_record() const {
    uint32_t slot = 0;
    while (store.holds_series(slot)) ++slot;
    return store.record(slot);
  }

  Store &store;
  const SeriesRecord a = record_of("a f"), b = record_of("b f"), c = record_of("c f"), free = free_record();
  SealedChunk *const first = sealed(b.first_sealed()), *const last = sealed(b.last_sealed());
  char *const key_of_a = const_cast<char *>(store.key(store.series_of("a f")).data());
  MemSlot_t *const key_slot = static_cast<MemSlot_t *>(tslb_da_get_ptr(store.keys(), 0));
  MemSlot_t *const current_slot = static_cast<MemSlot_t *>(
      tslb_da_get_ptr(store.points(), tslb_stored_cursor_slot(header_of(store.points())->cur_slot_addr)));
};

static maddr_t moved(maddr_t address, unsigned units) {
  tslb_chunk_place_t place = tslb_stored_decode_bitvector(bits_of(address));
  place.byte_off += units * TSLB_BV_UNIT_BYTES;
  const uint32_t bits = tslb_stored_encode_bitvector(place);
  std::memcpy(&address, &bits, sizeof bits);
  return address;
}

constexpr maddr_t OUTSIDE = {200, 8};

TEST_F(Damage, InconsistentStores) {
  static const struct {
    const char *fault;
    void (*damage)(Parts);
    const char *message;
    const char *file = "catalogue";
  } rows[] = {
      {"after the end of its slot", [](Parts p) { p.b.set_first_sealed(moved(p.b.first_sealed(), 0x1FFFF0)); },
       "where no chunk in use begins"},
      {"inside a chunk", [](Parts p) { p.b.set_open(moved(p.b.open(), 1)); }, "where no chunk in use begins"},
      {"a key outside of its pool", [](Parts p) { p.a.set_key(OUTSIDE); }, "its key names slot 200"},
      {"one key for two series", [](Parts p) { p.a.set_key(p.b.key()); },
       "the header of that chunk names another reference"},
      {"a key without its end", [](Parts p) { p.key_of_a[3] = 'x'; }, "its key does not end with a zero"},
      {"two series with one name", [](Parts p) { p.key_of_a[0] = 'b'; }, "another series has the same key \"b f\""},
      {"a ring of chunks", [](Parts p) { p.last->next = p.b.first_sealed(); },
       "sealed chunk 2 is the last one, but names a next chunk"},
      {"a ring as counted", [](Parts p) { p.first->next = p.b.first_sealed(); },
       "another reference names the same chunk"},
      {"a longer chain", [](Parts p) { p.b.set_n_sealed(2); }, "its last sealed chunk is not the end of its chain"},
      {"a lost chunk", [](Parts p) { p.c.set_flags(SERIES_READY), p.c.set_n_open(0), p.c.set_n_points(0); },
       "nothing refers to the chunk at byte ", "points"},
      {"points without a chunk", [](Parts p) { p.b.set_flags(SERIES_READY); }, "it has points but no open chunk"},
      {"an unknown flag", [](Parts p) { p.a.set_flags(0x07); }, "flags 0x07"},
      {"a count of points", [](Parts p) { p.a.set_n_points(1); }, "but its record counts 1"},
      {"more points than fit", [](Parts p) { p.c.set_n_open(9); }, "counts 9 points, but holds at most 8"},
      {"a sealed chunk that was not full", [](Parts p) { p.first->count = 127; }, "sealed chunk 0 holds 127 points"},
      {"a size that exceeds the chunk", [](Parts p) { p.first->bytes += 8; }, "which is not the size of its points"},
      {"invalid sealed points", [](Parts p) { std::memset(p.first + 1, 0xFF, 40); }, "sealed chunk 0 cannot be read"},
      {"points of other times", [](Parts p) { p.first->oldest_ns = 90; },
       "sealed chunk 0 holds times from 100 to 107, but its header has others"},
      {"a length that exceeds the slot",
       [](Parts p) { (reinterpret_cast<compat_t *>(p.last) - 1)->mchunk_len = 60000; }, "exceeds the bytes in use",
       "points"},
      {"a deleted chunk", [](Parts p) { tslb_dynmem_del_mchunk(p.store.points(), p.b.first_sealed()); },
       "where no chunk in use begins"},
      {"a count of deleted bytes", [](Parts p) { p.key_slot->bytes_del += 8; }, "but the slot counts ", "keys"},
      {"used bytes exceed the slot", [](Parts p) { p.current_slot->bytes_used = 5000; },
       "bytes_used 5000 of slot 3, but the slot has 2400", "points"},
      {"a cursor inside", [](Parts p) { p.current_slot->bytes_used += 8; }, "is more than the cursor's ", "points"},
      {"a cursor beyond", [](Parts p) { p.current_slot->bytes_used -= 8; }, "but the slot counts 8", "points"},
      {"a free slot that claims a series", [](Parts p) { p.free.set_flags(SERIES_READY); }, "flags 0x01 at status 1"},
      {"a free slot without its mark", [](Parts p) { p.free.set_key({}); }, "gatekeeper 0x0 in a free slot"},
      {"a slot in use without a series", [](Parts p) { p.a.set_flags(0); }, "flags 0x00 at status "},
      {"a point after the newest",
       [](Parts p) {
         const int64_t later = 1000;
         std::memcpy(p.points_at(p.c.open()), &later, sizeof later);
       },
       "a point at 1000, but its newest is at 180"},
      {"written in the future", [](Parts p) { p.a.set_written_at_ns(1000); }, "its times are after data time"},
      {"the newest in the future", [](Parts p) { p.a.set_newest_ns(1000); }, "its times are after data time"},
      {"an unused word", [](Parts p) { p.a.at()[offsetof(ty_sub_t_v1, prev_id)] = 1; }, "unused bytes are not zero"},
      {"a pool of another kind", [](Parts p) { header_of(p.store.keys())->flag |= MPOOL_FLAG_BV; },
       "the pool has flags 0x11", "keys"},
      {"a limited pool", [](Parts p) { header_of(p.store.keys())->max_slots = 3; }, "the pool is limited to 3 slots",
       "keys"},
      {"records of another version",
       [](Parts p) { static_cast<DynHdr_t *>(tslb_da_get_dynhdr(p.store.catalogue()))->rec_version = 0; },
       "byte 1: rec_version 0, expected 1"},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    ASSERT_NO_FATAL_FAILURE(keep_filled(StoreKind::snapshot, [&row](Store &store) { row.damage(Parts(store)); }));
    const std::string what = refusal();
    EXPECT_THAT(what, StartsWith(fmt::format("{}/{}.stream: ", generation().string(), row.file)));
    EXPECT_THAT(what, HasSubstr(row.message));
    fs::remove_all(generation());
  }
}

// The message names the block file that contains the damaged record.
TEST_F(Damage, MessageNamesTheBlockFile) {
  ASSERT_NO_FATAL_FAILURE(
      keep_filled(StoreKind::shm, [](Store &store) { Parts(store).current_slot->bytes_used -= 8; }));
  EXPECT_THAT(refusal(), StartsWith((generation() / "metricdb/-3.1.darr: slot ").string()));
}

// Any bytes with correct checksums. Values can be anything, but no access may leave the arrays. A database that can be
// opened is used: read, written and swept.
TEST_F(Damage, RandomBytesAreRefusedOrUsable) {
  constexpr uint32_t SEED = 20250608;
  constexpr int ROUNDS = 500;
  ASSERT_NO_FATAL_FAILURE(keep_filled(StoreKind::snapshot));
  const char *const names[] = {"catalogue.stream", "keys.stream", "points.stream"};
  std::mt19937 random(SEED);
  int n_refused = 0;
  testing::internal::CaptureStderr();
  for (int round = 0; round < ROUNDS; ++round) {
    SCOPED_TRACE(fmt::format("seed {}, round {}", SEED, round));
    const fs::path file = generation() / names[random() % 3];
    const std::string whole = read_file(file);
    std::string damaged = whole;
    for (uint32_t n = 1 + random() % 3; n > 0; --n) {
      static const unsigned char bytes[] = {0x00, 0x01, 0x02, 0x04, 0x10, 0x40, 0x7F, 0x80, 0xFF};
      char &byte = damaged[random() % damaged.size()];
      byte = static_cast<char>(random() % 2 == 0 ? bytes[random() % std::size(bytes)]
                                                 : static_cast<unsigned char>(byte) ^ (1u << random() % 8));
    }
    write_file(file, damaged);
    seal_manifest();
    try {
      LoadedDatabase opened = database_->open();
      Store &store = opened.store;
      EXPECT_EQ(store.n_series(), 3u);
      EXPECT_FALSE(series_table(store, "*").empty());
      for (int i = 0; i < 40; ++i) store.add(fmt::format("new,n={} f", i % 5), {181 + i, 1.0});
      store.add("b f", {500, 1.0});
      store.sweep();
      EXPECT_EQ(store.n_series(), 1u);
    } catch (const std::runtime_error &error) {
      EXPECT_THAT(error.what(), StartsWith(generation().string() + "/"));
      ++n_refused;
    }
    write_file(file, whole);
  }
  testing::internal::GetCapturedStderr();
  EXPECT_GT(n_refused, ROUNDS / 4);
  EXPECT_LT(n_refused, ROUNDS) << "nothing was opened, so use after damage was not tested";
}
