// That whatever is damaged in a folder of metricdb's is refused by name, though every checksum may agree with it.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <cstring>
#include <random>

#include "checksum.h"
#include "database_support.h"
#include "report.h"

namespace metricdb {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

class Damage : public SmallDatabase {
 protected:
  std::vector<fs::path> files() const {
    std::vector<fs::path> files;
    for (const auto &entry : fs::recursive_directory_iterator(generation()))
      if (entry.is_regular_file()) files.push_back(entry.path());
    return files;
  }

  // Rewrites the manifest so that it tells the files as they are now.
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

TEST_P(DamagedFile, EveryFlippedBitIsRefusedByTheFilesName) {
  ASSERT_NO_FATAL_FAILURE(keep_filled(GetParam()));
  EXPECT_EQ(files().size(), GetParam() == StoreKind::snapshot ? 4u : 1 + 1 + 2 + 2);
  for (const fs::path &file : files()) {
    SCOPED_TRACE(file);
    const std::string whole = read_file(file);
    // Each byte of a small file; of a large one its headers and every so many, and of a very large one some of both.
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
  EXPECT_EQ(refusal(), "") << "the damage was not undone, so the loop shows nothing";
}

TEST_P(DamagedFile, MissingCutLongOrOfAnotherKind) {
  ASSERT_NO_FATAL_FAILURE(keep_filled(GetParam()));
  static const struct {
    const char *fault;
    void (*damage)(const fs::path &);
    const char *told;         // by a stream or block file
    const char *of_manifest;  // by the manifest
  } rows[] = {
      {"missing", [](const fs::path &file) { fs::remove(file); }, "cannot be opened: No such file or directory",
       "cannot be opened: No such file or directory"},
      {"cut", [](const fs::path &file) { fs::resize_file(file, fs::file_size(file) - 1); }, "the manifest says",
       "its checksum is wrong, or it ends too early"},
      {"empty", [](const fs::path &file) { fs::resize_file(file, 0); }, "0 bytes long, the manifest says",
       "it does not begin as a manifest of metricdb does"},
      {"longer", [](const fs::path &file) { fs::resize_file(file, fs::file_size(file) + 1); }, "the manifest says",
       "its checksum is wrong, or it ends too early"},
      {"a folder", [](const fs::path &file) { fs::remove(file), fs::create_directory(file); }, "is not a regular file",
       "is not a regular file"},
      {"a pipe that nobody writes", [](const fs::path &file) { fs::remove(file), mkfifo(file.c_str(), 0600); },
       "is not a regular file", "is not a regular file"},
  };
  for (const auto &row : rows)
    for (const fs::path &file : files()) {
      SCOPED_TRACE(fmt::format("{}: {}", row.fault, file.string()));
      const std::string whole = read_file(file);
      row.damage(file);
      const std::string what = refusal_of([this] { database_->open(); });
      EXPECT_THAT(what, StartsWith(file.string() + ": "));
      EXPECT_THAT(what, HasSubstr(file.filename() == "manifest" ? row.of_manifest : row.told));
      fs::remove(file);
      write_file(file, whole);
    }
  EXPECT_EQ(refusal(), "");
}
INSTANTIATE_TEST_SUITE_P(Stores, DamagedFile, testing::Values(StoreKind::snapshot, StoreKind::shm),
                         [](const auto &row) { return STORE_NAMES[static_cast<int>(row.param)]; });

std::string resealed(std::string body) {
  return body + fmt::format("crc32c {:08x}\n", crc32c(body.data(), body.size()));
}

// Edits that carry a right checksum: what the text says must be refused for itself.
TEST_F(Damage, ManifestsThatContradict) {
  ASSERT_NO_FATAL_FAILURE(keep_filled(StoreKind::snapshot));
  static const struct {
    const char *fault;
    const char *found, *put;  // in the text
    const char *told;
  } rows[] = {
      {"a later version is read as ours", "metricdb 2\n", "metricdb 3\n",
       "manifest: its format version is \"3\", and 2 is known"},
      {"so is one without a number", "metricdb 2\n", "metricdb one\n", "its format version is \"one\", and 2 is known"},
      {"a store of a kind that is not known", "store snapshot", "store tape",
       "manifest: line 2: store \"tape\" is neither snapshot nor shm"},
      {"a layout that nobody knows", "layout 1", "layout 2", "line 3: layout \"2\""},
      {"a layout that the records do not have", "layout 1", "layout 0",
       "catalogue.stream: record version 1, which is not 0"},
      {"streams taken for block files", "store snapshot", "store shm", "manifest: array "},
      {"a line left out", "retain_ns 100\n", "", "line 6: \"idle_ns\" in place of \"retain_ns\""},
      {"a negative time span", "retain_ns 100", "retain_ns -100", "line 6: retain_ns \"-100\""},
      {"a share beyond all", "reuse_inactive_pct 0", "reuse_inactive_pct 101", "line 8: reuse_inactive_pct \"101\""},
      {"letters behind a number", "idle_ns 50", "idle_ns 50s", "line 7: idle_ns \"50s\""},
      {"the same number in another way", "idle_ns 50", "idle_ns 050", "it is not written as this program writes it"},
      {"another line end", "idle_ns 50\n", "idle_ns 50 ", "it is not written as this program writes it"},
      {"slots of another size", "key_slot_bytes 64", "key_slot_bytes 68",
       "keys.stream: bytes of a record 72, which is not 76"},
      {"a slot size beyond what addresses reach", "point_slot_bytes 2400", "point_slot_bytes 16777217",
       "line 5: point_slot_bytes \"16777217\""},
      {"series that are not there", "\nseries 3\n", "\nseries 4\n", "manifest: 4 series with "},
      {"an old data time, so that the future is stored", "data_time_ns 180", "data_time_ns 110",
       "catalogue.stream: series "},
      {"another array's file", "file keys.stream", "file points.stream",
       "manifest: array keys: file \"points.stream\", not keys.stream"},
      {"no file, so that none is compared", "slot_bytes 80 files 1", "slot_bytes 80 files 0",
       "line 24: \"file\" in place of \"array\""},
      {"a file too many", "slot_bytes 116 files 1\n",
       "slot_bytes 116 files 2\nfile catalogue.stream bytes 1 crc32c 00000000\n",
       "array catalogue: 2 files, and it has 1"},
      {"files beyond the text", "slot_bytes 2416 files 1", "slot_bytes 2080 files 4294967295", "it ends too early"},
      {"another table", "table -3", "table -4", "array points: table -4, which is not -3"},
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
    EXPECT_THAT(what, HasSubstr(row.told));
  }
  for (size_t bytes = 0; bytes < whole.size(); ++bytes) {
    write_file(generation() / "manifest", whole.substr(0, bytes));
    ASSERT_THAT(refusal(), StartsWith((generation() / "manifest: ").string())) << bytes;
  }
  write_file(generation() / "manifest", resealed(whole));
  EXPECT_THAT(refusal(), HasSubstr("goes on behind its last array"));
  write_file(generation() / "manifest", whole);
  EXPECT_EQ(refusal(), "");
}

// ---- Damage that every checksum agrees with ----

SeriesRecord record_of(Store &store, std::string_view key) {
  return store.record(store.series_of(key));
}
char *chunk_at(Store &store, const maddr_t &address) {
  return static_cast<char *>(tslb_dynmem_get_maddr2ptr(store.points(), address));
}
SealedChunk *sealed_at(Store &store, const maddr_t &address) {
  return reinterpret_cast<SealedChunk *>(chunk_at(store, address));
}
SealedChunk *first_of(Store &store, std::string_view key) {
  return sealed_at(store, record_of(store, key).first_sealed());
}
compat_t *header_before(void *data) {
  return reinterpret_cast<compat_t *>(data) - 1;
}
char *key_text(Store &store, std::string_view key) {
  return const_cast<char *>(store.key(store.series_of(key)).data());
}
MemSlot_t *memory_slot(dynmem_t *pool, uint32_t index) {
  return static_cast<MemSlot_t *>(tslb_da_get_ptr(pool, index));
}
maddr_t moved(maddr_t address, int slots, int units) {
  maddrBV_t bits;
  std::memcpy(&bits, &address, sizeof bits);
  bits.mslot_idx = (bits.mslot_idx + static_cast<unsigned>(slots)) & 0xFF;
  bits.mchunk_idx = (bits.mchunk_idx + static_cast<unsigned>(units)) & 0x1FFFFF;
  std::memcpy(&address, &bits, sizeof bits);
  return address;
}

TEST_F(Damage, StoresThatContradictThemselves) {
  static const struct {
    const char *fault;
    void (*damage)(Store &);
    const char *file, *told;
  } rows[] = {
      {"a chunk beyond its slot",
       [](Store &s) { record_of(s, "b f").set_first_sealed(moved(record_of(s, "b f").first_sealed(), 0, 0x1FFFF0)); },
       "catalogue", "where no chunk in use begins"},
      {"an address inside a chunk",
       [](Store &s) { record_of(s, "b f").set_open(moved(record_of(s, "b f").open(), 0, 1)); }, "catalogue",
       "where no chunk in use begins"},
      {"a key outside of its pool",
       [](Store &s) {
         maddr_t key = record_of(s, "a f").key();
         key.mslot_idx = 200;
         record_of(s, "a f").set_key(key);
       },
       "catalogue", "its key names slot 200"},
      {"one key for two series", [](Store &s) { record_of(s, "a f").set_key(record_of(s, "b f").key()); }, "catalogue",
       "whose header names another reference"},
      {"a key without its end", [](Store &s) { key_text(s, "a f")[3] = 'x'; }, "catalogue",
       "its key does not end with a zero"},
      {"two series with one name", [](Store &s) { key_text(s, "a f")[0] = 'b'; }, "catalogue",
       "its key \"b f\" is another's too"},
      {"a ring of chunks",
       [](Store &s) { sealed_at(s, record_of(s, "b f").last_sealed())->next = record_of(s, "b f").first_sealed(); },
       "catalogue", "sealed chunk 2 is the last and names another one"},
      {"a ring that the count allows", [](Store &s) { first_of(s, "b f")->next = record_of(s, "b f").first_sealed(); },
       "catalogue", "which was referred to before"},
      {"a chain longer than its count", [](Store &s) { record_of(s, "b f").set_n_sealed(2); }, "catalogue",
       "its last sealed chunk is not the end of its chain"},
      {"a series that lost its chunk",
       [](Store &s) {
         const SeriesRecord record = record_of(s, "c f");
         record.set_flags(SERIES_READY);
         record.set_n_open(0);
         record.set_n_points(0);
       },
       "points", "nothing refers to the chunk at byte "},
      {"points of an open chunk that is not there", [](Store &s) { record_of(s, "b f").set_flags(SERIES_READY); },
       "catalogue", "it has points and no open chunk"},
      {"a flag of somebody else", [](Store &s) { record_of(s, "a f").set_flags(0x07); }, "catalogue", "flags 0x07"},
      {"a count of points", [](Store &s) { record_of(s, "a f").set_n_points(1); }, "catalogue", "its record counts 1"},
      {"more points than fit", [](Store &s) { record_of(s, "c f").set_n_open(9); }, "catalogue",
       "counts 9 points of 8"},
      {"a sealed chunk that was not full", [](Store &s) { first_of(s, "b f")->count = 127; }, "catalogue",
       "sealed chunk 0 holds 127 points"},
      {"a size of points beyond the chunk", [](Store &s) { first_of(s, "b f")->bytes += 8; }, "catalogue",
       "has not the size of its points"},
      {"bytes that no points have", [](Store &s) { std::memset(first_of(s, "b f") + 1, 0xFF, 40); }, "catalogue",
       "sealed chunk 0 cannot be read"},
      {"points of other times than the chunk claims", [](Store &s) { first_of(s, "b f")->oldest_ns = 90; }, "catalogue",
       "sealed chunk 0 holds times from 100 to 107, not what it claims"},
      {"a length beyond the slot",
       [](Store &s) { header_before(chunk_at(s, record_of(s, "b f").last_sealed()))->mchunk_len = 60000; }, "points",
       "goes beyond the bytes in use"},
      {"a deleted chunk that is referred to",
       [](Store &s) { tslb_dynmem_del_mchunk(s.points(), record_of(s, "b f").first_sealed()); }, "catalogue",
       "where no chunk in use begins"},
      {"a count of deleted bytes", [](Store &s) { memory_slot(s.keys(), 0)->bytes_del += 8; }, "keys",
       "the slot counts "},
      {"a slot used beyond its size",
       [](Store &s) { memory_slot(s.points(), cursor_of(s.points()).mslot_idx)->bytes_used = 5000; }, "points",
       "5000 bytes in use of 2400"},
      {"a cursor inside a chunk",
       [](Store &s) { memory_slot(s.points(), cursor_of(s.points()).mslot_idx)->bytes_used += 8; }, "points",
       "and the cursor stands at "},
      {"a free slot that claims a series",
       [](Store &s) {
         for (uint32_t i = 0; i < s.n_slots(); ++i)
           if (!s.holds_series(i)) s.record(i).set_flags(SERIES_READY);
       },
       "catalogue", "flags 0x01 at status 1"},
      {"a free slot without its mark",
       [](Store &s) {
         for (uint32_t i = 0; i < s.n_slots(); ++i)
           if (!s.holds_series(i)) s.record(i).set_key({});
       },
       "catalogue", "gatekeeper 0x0 in a free slot"},
      {"a slot in use without a series", [](Store &s) { record_of(s, "a f").set_flags(0); }, "catalogue",
       "flags 0x00 at status "},
      {"a point behind the newest",
       [](Store &s) {
         const int64_t later = 1000;
         std::memcpy(chunk_at(s, record_of(s, "c f").open()), &later, sizeof later);
       },
       "catalogue", "a point at 1000, behind its newest at 180"},
      {"written in the future", [](Store &s) { record_of(s, "a f").set_written_at_ns(1000); }, "catalogue",
       "it was written behind data time"},
      {"the newest in the future", [](Store &s) { record_of(s, "a f").set_newest_ns(1000); }, "catalogue",
       "it was written behind data time"},
      {"a word that nobody writes", [](Store &s) { record_of(s, "a f").at()[offsetof(ty_sub_t_v1, prev_id)] = 1; },
       "catalogue", "bytes without a meaning are not zero"},
      {"a pool of another kind", [](Store &s) { header_of(s.keys())->flag |= MPOOL_FLAG_BV; }, "keys",
       "a pool with flags 0x11"},
      {"a pool with a limit", [](Store &s) { header_of(s.keys())->max_slots = 3; }, "keys",
       "a pool limited to 3 slots"},
      {"records of another version",
       [](Store &s) { static_cast<DynHdr_t *>(tslb_da_get_dynhdr(s.catalogue()))->rec_version = 0; }, "catalogue",
       "record version 0, which is not 1"},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    ASSERT_NO_FATAL_FAILURE(keep_filled(StoreKind::snapshot, row.damage));
    const std::string what = refusal();
    EXPECT_THAT(what, StartsWith(fmt::format("{}/generation.1/{}.stream: ", database_->folder(), row.file)));
    EXPECT_THAT(what, HasSubstr(row.told));
    fs::remove_all(generation());
  }
}

// A damaged record of block files is told by the file that it lies in.
TEST_F(Damage, BlockFilesAreToldApart) {
  ASSERT_NO_FATAL_FAILURE(keep_filled(StoreKind::shm, [](Store &store) {
    memory_slot(store.points(), cursor_of(store.points()).mslot_idx)->bytes_used += 8;
  }));
  EXPECT_THAT(refusal(), StartsWith((generation() / "metricdb/-3.1.darr: slot ").string()));
}

// With sums that agree, bytes of values can be anything; but nothing may be reached that is not there. What opens is
// used: read, written to and swept.
TEST_F(Damage, RandomBytesAreRefusedOrHarmless) {
  constexpr uint32_t SEED = 20250608;
  constexpr int ROUNDS = 500;
  ASSERT_NO_FATAL_FAILURE(keep_filled(StoreKind::snapshot));
  const char *const names[] = {"catalogue.stream", "keys.stream", "points.stream"};
  std::string whole[3];
  for (int i = 0; i < 3; ++i) whole[i] = read_file(generation() / names[i]);
  std::mt19937 random(SEED);
  int n_refused = 0;
  testing::internal::CaptureStderr();
  for (int round = 0; round < ROUNDS; ++round) {
    SCOPED_TRACE(fmt::format("seed {}, round {}", SEED, round));
    const size_t which = random() % 3;
    std::string damaged = whole[which];
    for (uint32_t n = 1 + random() % 3; n > 0; --n) {
      static const unsigned char bytes[] = {0x00, 0x01, 0x02, 0x04, 0x10, 0x40, 0x7F, 0x80, 0xFF};
      char &byte = damaged[random() % damaged.size()];
      byte = static_cast<char>(random() % 2 == 0 ? bytes[random() % std::size(bytes)]
                                                 : static_cast<unsigned char>(byte) ^ (1u << random() % 8));
    }
    write_file(generation() / names[which], damaged);
    seal_manifest();
    try {
      Opened opened = database_->open();
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
    write_file(generation() / names[which], whole[which]);
  }
  testing::internal::GetCapturedStderr();
  EXPECT_GT(n_refused, ROUNDS / 4);
  EXPECT_LT(n_refused, ROUNDS) << "nothing was opened, so use after damage was not tried";
}

}  // namespace
}  // namespace metricdb
