// What metricdb keeps in a folder: that it comes back as it was and goes on as if it had never been away, that whatever
// is damaged is refused by name, and that a writer which does not come to its end leaves the old state readable.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <tslb_util.h>

#include <atomic>
#include <bit>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <limits>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "checksum.h"
#include "database.h"
#include "metricdb_support.h"
#include "report.h"
#include "store.h"
#include "store_internal.h"

namespace metricdb {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

Stored keep(Database &database, const Store &store) {
  return NewGeneration(database).write_streams(store);
}

// ---- Checksum ----

TEST(Checksum, KnownValues) {
  static const struct {
    std::string bytes;
    uint32_t crc;
  } rows[] = {{"", 0},
              {"123456789", 0xE3069283},
              {std::string(32, '\0'), 0x8A9136AA},
              {std::string(32, '\xFF'), 0x62A8AB43},
              {"The quick brown fox jumps over the lazy dog", 0x22620404}};
  for (const auto &row : rows) {
    EXPECT_EQ(crc32c(row.bytes.data(), row.bytes.size()), row.crc);
    for (size_t cut = 0; cut <= row.bytes.size(); ++cut)
      EXPECT_EQ(crc32c(row.bytes.data() + cut, row.bytes.size() - cut, crc32c(row.bytes.data(), cut)), row.crc) << cut;
  }
}

// ---- Round trip ----

struct RoundTripRow {
  const char *what;
  StoreConfig config;
  bool parks, ages, reuses;  // what must have happened for the row to show anything
};

const RoundTripRow ROUND_TRIPS[] = {
    {"nothing is forgotten", {.key_slot_bytes = 1024, .point_slot_bytes = 3000}, false, false, false},
    {"retention and idleness, sweeps under way",
     {.key_slot_bytes = 256, .point_slot_bytes = 3000, .retain_ns = 2500, .idle_ns = 300, .points_per_sweep = 900},
     true,
     true,
     false},
    {"reuse of inactive series",
     {.key_slot_bytes = 256,
      .point_slot_bytes = 3000,
      .idle_ns = 300,
      .reuse_inactive_pct = 20,
      .points_per_sweep = 400},
     true,
     false,
     true},
};

class RoundTrip : public Folder, public testing::WithParamInterface<StoreKind> {};

// Against one store that is never interrupted. Blocks are compared as they lie: points, records, nodes, lists, cursors.
TEST_P(RoundTrip, ComesBackAndGoesOnAsIfItHadNeverBeenAway) {
  constexpr int N_POINTS = 12'345;  // no multiple of what comes between two sweeps
  int number = 0;
  for (const RoundTripRow &row : ROUND_TRIPS) {
    SCOPED_TRACE(row.what);
    StoreConfig config = row.config;
    ++number;
    Database straight_folder(path(fmt::format("straight{}", number)), Database::Use::create);
    Database folder(path(fmt::format("db{}", number)), Database::Use::create);
    std::optional<NewGeneration> straight_blocks, blocks;
    if (GetParam() == StoreKind::shm) {
      config.mem_type = MPOOL_TYPE_SHM;
      straight_blocks.emplace(straight_folder).take_block_files();
    }
    Store straight(config);
    Feed straight_feed;
    straight_feed.into(straight, N_POINTS);
    const std::string half_way = image_of(straight), half_way_figures = figures_of(straight);
    straight_feed.into(straight, N_POINTS);
    EXPECT_EQ(straight.n_inactive() > 0, row.parks);
    EXPECT_EQ(straight.forgotten().series_aged > 0, row.ages);
    EXPECT_EQ(straight.forgotten().series_reused > 0, row.reuses);
    EXPECT_EQ(straight.forgotten().chunks > 0, row.ages || row.reuses);
    EXPECT_EQ(lists_of(straight.points())->n_free > 0, row.ages || row.reuses);

    Feed feed;
    Stored written;
    {
      if (GetParam() == StoreKind::shm) blocks.emplace(folder).take_block_files();
      Store store(config);
      feed.into(store, N_POINTS);
      ASSERT_EQ(image_of(store), half_way) << "the feed is not the same twice";
      written = blocks ? blocks->seal_block_files(store) : keep(folder, store);
    }
    Opened opened = folder.open();
    EXPECT_EQ(opened.stored.kind, GetParam());
    EXPECT_EQ(opened.stored.bytes(), written.bytes());
    uint64_t bytes_there = 0;
    for (const auto &[name, content] : tree_of(folder.folder())) bytes_there += content.size();
    EXPECT_EQ(written.bytes(), bytes_there);
    EXPECT_EQ(figures_of(opened.store), half_way_figures);
    EXPECT_TRUE(image_of(opened.store) == half_way) << "what came back differs";
    EXPECT_EQ(series_table(opened.store, "m,n=1* f").find("no series"), std::string::npos);

    feed.into(opened.store, N_POINTS);
    EXPECT_EQ(figures_of(opened.store), figures_of(straight));
    EXPECT_TRUE(image_of(opened.store) == image_of(straight)) << "it did not go on as it would have";
    EXPECT_EQ(series_table(opened.store, "*"), series_table(straight, "*"));

    // And as streams, whatever it was.
    EXPECT_EQ(keep(folder, opened.store).generation, 2u);
    EXPECT_EQ(names_in(folder.folder()), std::vector<std::string>{"generation.2"});
    const Opened again = folder.open();
    EXPECT_EQ(again.stored.kind, StoreKind::snapshot);
    EXPECT_EQ(figures_of(again.store), figures_of(straight));
    EXPECT_TRUE(image_of(again.store) == image_of(straight));
  }
}
INSTANTIATE_TEST_SUITE_P(Stores, RoundTrip, testing::Values(StoreKind::snapshot, StoreKind::shm),
                         [](const auto &row) { return STORE_NAMES[static_cast<int>(row.param)]; });

using RoundTripOfPoints = Folder;

TEST_F(RoundTripOfPoints, BitForBit) {
  using Limits = std::numeric_limits<double>;
  const std::vector<Point> points = {
      {INT64_MIN, 0.0},          {INT64_MAX, -0.0},         {0, Limits::infinity()},
      {-1, -Limits::infinity()}, {1, Limits::denorm_min()}, {2, std::bit_cast<double>(uint64_t{0xFFF8000000000001})},
      {3, Limits::max()}};
  Database folder(path("db"), Database::Use::create);
  {
    Store store;
    for (const Point &point : points) store.add("m f", point);
    store.add(std::string(Store::LONGEST_KEY, 'k'), {0, 1.0});
    keep(folder, store);
  }
  const Opened opened = folder.open();
  std::vector<Point> found;
  PointCursor cursor(opened.store, 0);
  for (Point point; cursor.next(point);) found.push_back(point);
  ASSERT_EQ(found.size(), points.size());
  EXPECT_EQ(std::memcmp(found.data(), points.data(), points.size() * sizeof(Point)), 0);
  EXPECT_EQ(opened.store.key(1), std::string(Store::LONGEST_KEY, 'k'));
  // Their span is beyond 64 bits, and their years before 1970.
  EXPECT_THAT(database_summary("db", opened.store, opened.stored, 0.0),
              HasSubstr("oldest           -9223372036854775808 (1677-09-21 00:12:43.145224192 UTC)\n"
                        "newest           9223372036854775807 (2262-04-11 23:47:16.854775807 UTC)\n"));
}

TEST_F(RoundTripOfPoints, AnEmptyStoreIsOneToo) {
  Database folder(path("db"), Database::Use::create);
  keep(folder, Store({.retain_ns = 7}));
  Opened opened = folder.open();
  EXPECT_EQ(opened.store.n_slots(), 0u);
  EXPECT_EQ(opened.store.config().retain_ns, 7);
  opened.store.add("m f", {5, 1.0});
  EXPECT_EQ(opened.store.n_visible(), 1u);
}

TEST_F(RoundTripOfPoints, OtherRulesOfForgettingHoldFromThenOn) {
  Database folder(path("db"), Database::Use::create);
  {
    Store store({.idle_ns = 10, .reuse_inactive_pct = 10});
    for (const auto &[key, ts_ns] : {std::pair("a f", 0), {"b f", 1}, {"c f", 100}}) store.add(key, {ts_ns, 1.0});
    store.sweep();
    ASSERT_EQ(store.n_inactive(), 2u);
    keep(folder, store);
  }
  Opened kept = folder.open(), changed = folder.open();
  changed.store.forget_by(0, 10, 0);
  for (Store *store : {&kept.store, &changed.store}) store->add("d f", {101, 1.0});
  EXPECT_EQ(kept.store.forgotten().series_reused, 1u) << "the policy did not come back";
  EXPECT_EQ(changed.store.forgotten().series_reused, 0u) << "the stored policy outlives its end";
}

// ---- Damage ----

// A small database with free slots, deleted chunks and an inactive series, in the folder of one test.
class Damage : public Folder {
 protected:
  void SetUp() override {
    Folder::SetUp();
    database_.emplace(path("db"), Database::Use::create);
  }

  static StoreConfig config() {
    return {.key_slot_bytes = 64, .point_slot_bytes = 2400, .retain_ns = 100, .idle_ns = 50};
  }

  static void fill(Store &store) {
    for (int i = 0; i < 100; ++i) store.add("a f", {i, 1.0 * i});
    for (int i = 0; i < 30; ++i) store.add(fmt::format("gone,n={} f", i % 3), {i, 1.0});
    for (int i = 0; i < 400; ++i) store.add("b f", {100 + i / 16, 2.0 * i});
    store.add("c f", {180, 3.0});
    store.sweep();
    ASSERT_EQ(store.forgotten().series_aged, 3u);
    ASSERT_EQ(store.n_inactive(), 2u);
    ASSERT_GT(store.key_bytes().deleted + lists_of(store.keys())->n_free, 0u);
    ASSERT_GT(store.point_bytes().deleted, 0u);
  }

  fs::path generation() const { return root_ / "db" / "generation.1"; }

  std::string refusal() const {
    const auto before = tree_of(root_);
    std::string what = "it was opened";
    try {
      database_->open();
    } catch (const std::runtime_error &error) {
      what = error.what();
    }
    EXPECT_TRUE(tree_of(root_) == before) << "the folder was changed";
    EXPECT_EQ(what.find('\n'), std::string::npos) << what;
    return what;
  }

  void keep_filled(StoreKind kind) {
    std::optional<NewGeneration> blocks;
    StoreConfig with_memory = config();
    if (kind == StoreKind::shm) {
      blocks.emplace(*database_).take_block_files();
      with_memory.mem_type = MPOOL_TYPE_SHM;
    }
    Store store(with_memory);
    ASSERT_NO_FATAL_FAILURE(fill(store));
    if (blocks)
      blocks->seal_block_files(store);
    else
      keep(*database_, store);
    ASSERT_EQ(refusal(), "it was opened");
  }

  // Rewrites the manifest so that it tells the files as they are now.
  void seal_manifest(const std::function<void(Manifest &)> &edit = [](Manifest &) {}) const {
    Manifest manifest = read_manifest(read_file(generation() / "manifest"));
    for (StoredArray &array : manifest.arrays)
      for (StoredFile &file : array.files) {
        const FileSum sum = sum_of(File::open((generation() / file.name).string()));
        file.bytes = sum.bytes;
        file.crc32c = sum.crc32c;
      }
    edit(manifest);
    write_file(generation() / "manifest", manifest_text(manifest));
  }

  std::optional<Database> database_;
};

class DamagedFile : public Damage, public testing::WithParamInterface<StoreKind> {};

TEST_P(DamagedFile, EveryFlippedBitIsRefusedByTheFilesName) {
  ASSERT_NO_FATAL_FAILURE(keep_filled(GetParam()));
  size_t n_files = 0;
  for (const auto &entry : fs::recursive_directory_iterator(generation())) {
    if (!entry.is_regular_file()) continue;
    ++n_files;
    SCOPED_TRACE(entry.path());
    const std::string whole = read_file(entry.path());
    // Each byte of a small file; of a large one its headers and every so many, and of a very large one some of both.
    const bool is_very_large = whole.size() > 100'000;
    const size_t header_step = is_very_large ? 11 : 1;
    const size_t step = whole.size() < 1000 ? 1 : whole.size() / (is_very_large ? 10 : 50);
    for (size_t at = 0; at < whole.size(); at += at < 200 ? header_step : step) {
      std::string damaged = whole;
      damaged[at] = static_cast<char>(damaged[at] ^ (1 << at % 8));
      write_file(entry.path(), damaged);
      std::string what = "it was opened";
      try {
        database_->open();
      } catch (const std::runtime_error &error) {
        what = error.what();
      }
      ASSERT_THAT(what, StartsWith(entry.path().string() + ": ")) << "byte " << at;
      ASSERT_EQ(read_file(entry.path()), damaged);
    }
    write_file(entry.path(), whole);
  }
  EXPECT_EQ(n_files, GetParam() == StoreKind::snapshot ? 4u : 1 + 1 + 2 + 2);
  EXPECT_EQ(refusal(), "it was opened") << "the damage was not undone, so the loop shows nothing";
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
  std::vector<fs::path> files;
  for (const auto &entry : fs::recursive_directory_iterator(generation()))
    if (entry.is_regular_file()) files.push_back(entry.path());
  for (const auto &row : rows)
    for (const fs::path &file : files) {
      SCOPED_TRACE(fmt::format("{}: {}", row.fault, file.string()));
      const std::string whole = read_file(file);
      row.damage(file);
      std::string what = "it was opened";
      try {
        database_->open();
      } catch (const std::runtime_error &error) {
        what = error.what();
      }
      EXPECT_THAT(what, StartsWith(file.string() + ": "));
      EXPECT_THAT(what, HasSubstr(file.filename() == "manifest" ? row.of_manifest : row.told));
      fs::remove(file);
      write_file(file, whole);
    }
  EXPECT_EQ(refusal(), "it was opened");
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
      {"a number beyond its word", "reuse_inactive_pct 0", "reuse_inactive_pct 256",
       "line 8: reuse_inactive_pct \"256\""},
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
      {"a file elsewhere", "file keys.stream", "file ../keys.stream", "array keys: file \"../keys.stream\""},
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
  EXPECT_EQ(refusal(), "it was opened");
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
      {"a chunk in a slot that is not there",
       [](Store &s) { record_of(s, "b f").set_first_sealed(moved(record_of(s, "b f").first_sealed(), 100, 0)); },
       "catalogue", "and there is no such slot"},
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
      {"a key inside another",
       [](Store &s) {
         maddr_t key = record_of(s, "a f").key();
         key.mchunk_idx += 1;
         record_of(s, "a f").set_key(key);
       },
       "catalogue", "where no chunk in use begins"},
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
      {"a chain that leads into another", [](Store &s) { first_of(s, "b f")->next = record_of(s, "a f").open(); },
       "catalogue", "which was referred to before"},
      {"a chain longer than its count", [](Store &s) { record_of(s, "b f").set_n_sealed(2); }, "catalogue",
       "its last sealed chunk is not the end of its chain"},
      {"a chain shorter than its count", [](Store &s) { record_of(s, "b f").set_n_sealed(4); }, "catalogue",
       "sealed chunk 3 names slot 0, byte 0, "},
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
      {"an end of chain that is none",
       [](Store &s) { record_of(s, "b f").set_last_sealed(record_of(s, "b f").first_sealed()); }, "catalogue",
       "its last sealed chunk is not the end of its chain"},
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
      {"a chunk that names another place",
       [](Store &s) { header_before(chunk_at(s, record_of(s, "c f").open()))->srcaddr.tbl_idx += 1; }, "catalogue",
       "whose header names another reference"},
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
    {
      Store store(config());
      ASSERT_NO_FATAL_FAILURE(fill(store));
      row.damage(store);
      keep(*database_, store);
    }
    const std::string what = refusal();
    EXPECT_THAT(what, StartsWith(fmt::format("{}/generation.1/{}.stream: ", database_->folder(), row.file)));
    EXPECT_THAT(what, HasSubstr(row.told));
    fs::remove_all(generation());
  }
}

// A damaged record of block files is told by the file that it lies in.
TEST_F(Damage, BlockFilesAreToldApart) {
  NewGeneration blocks(*database_);
  blocks.take_block_files();
  {
    StoreConfig with_memory = config();
    with_memory.mem_type = MPOOL_TYPE_SHM;
    Store store(with_memory);
    ASSERT_NO_FATAL_FAILURE(fill(store));
    memory_slot(store.points(), cursor_of(store.points()).mslot_idx)->bytes_used += 8;
    blocks.seal_block_files(store);
  }
  EXPECT_THAT(refusal(), StartsWith((generation() / "metricdb/-3.1.darr: slot ").string()));
}

// With sums that agree, bytes of values can be anything; but nothing may be reached that is not there. What opens is
// used: read, written to and swept.
TEST_F(Damage, RandomBytesAreRefusedOrHarmless) {
  constexpr uint32_t SEED = 20250608;
  constexpr int ROUNDS = 1500;
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

// ---- Writers that do not come to their end ----

using Writing = Damage;

TEST_F(Writing, AnUnfinishedGenerationIsNotReadAndGoesWithTheNextWriter) {
  ASSERT_NO_FATAL_FAILURE(keep_filled(StoreKind::snapshot));
  const std::string before = figures_of(database_->open().store);
  // As a process leaves it that ends between writing and renaming: whole, or cut anywhere.
  const fs::path left = root_ / "db" / "generation.2.new";
  fs::copy(generation(), left);
  EXPECT_EQ(database_->open().stored.generation, 1u);
  fs::resize_file(left / "points.stream", 10);
  fs::remove(left / "manifest");
  fs::create_directory(root_ / "db" / "generation.7.new");
  fs::create_directory(root_ / "db" / "somebody's.new");
  Opened opened = database_->open();
  EXPECT_EQ(opened.stored.generation, 1u);
  EXPECT_EQ(figures_of(opened.store), before);
  opened.store.add("d f", {181, 1.0});
  keep(*database_, opened.store);
  EXPECT_EQ(names_in(root_ / "db"), (std::vector<std::string>{"generation.2", "somebody's.new"}));
  EXPECT_EQ(database_->open().store.n_series(), 4u);
}

TEST_F(Writing, BetweenRenamingAndRemovalTheNewOneCounts) {
  ASSERT_NO_FATAL_FAILURE(keep_filled(StoreKind::snapshot));
  const fs::path old = root_ / "old";
  fs::copy(generation(), old, fs::copy_options::recursive);
  Opened opened = database_->open();
  opened.store.add("d f", {181, 1.0});
  keep(*database_, opened.store);
  fs::rename(old, generation());
  EXPECT_EQ(database_->open().stored.generation, 2u);
  // Damage of the one that counts is not hidden by an older one.
  const fs::path points = root_ / "db" / "generation.2" / "points.stream";
  const std::string whole = read_file(points);
  fs::remove(points);
  EXPECT_THAT(refusal(), StartsWith(points.string()));
  write_file(points, whole);
  keep(*database_, opened.store);
  EXPECT_EQ(names_in(root_ / "db"), std::vector<std::string>{"generation.3"});
}

// The n-th byte that cannot be written, for several n: in each of the files.
TEST_F(Writing, AFailedWriteLeavesTheFolderAsItWas) {
  ASSERT_NO_FATAL_FAILURE(keep_filled(StoreKind::snapshot));
  Opened opened = database_->open();
  for (int i = 0; i < 3000; ++i) opened.store.add(fmt::format("many,n={} f", i % 40), {181 + i % 7, 1.0});
  const auto before = tree_of(root_);
  struct rlimit limit;
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &limit), 0);
  const auto old_handler = signal(SIGXFSZ, SIG_IGN);
  std::set<std::string> refused_files;
  for (const rlim_t most : {0, 100, 1500, 2300, 2500, 2800, 3500, 20'000}) {
    const struct rlimit tight = {most, limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &tight), 0);
    std::string what = "it was written";
    testing::internal::CaptureStderr();
    try {
      keep(*database_, opened.store);
    } catch (const std::runtime_error &error) {
      what = error.what();
    }
    testing::internal::GetCapturedStderr();
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    EXPECT_THAT(what, HasSubstr("cannot be written")) << most;
    const fs::path named = what.substr(0, what.find(": "));
    refused_files.insert(named.filename().string());
    EXPECT_TRUE(tree_of(root_) == before) << most;
  }
  signal(SIGXFSZ, old_handler);
  EXPECT_GE(refused_files.size(), 2u) << "all limits met the same file";
  keep(*database_, opened.store);
  EXPECT_EQ(figures_of(database_->open().store), figures_of(opened.store));
}

TEST_F(Writing, ANewFolderGoesAgainIfNothingComesIntoIt) {
  {
    Database created(path("fresh"), Database::Use::create);
    NewGeneration generation(created);
    EXPECT_THROW(Database(path("fresh"), Database::Use::read).open(), DatabaseError);
  }
  EXPECT_FALSE(fs::exists(path("fresh")));
  EXPECT_THROW(Database(path("fresh"), Database::Use::write), FileError);
  EXPECT_FALSE(fs::exists(path("fresh"))) << "only loading makes a folder";
}

TEST_F(Writing, OneWriterAtATime) {
  ASSERT_NO_FATAL_FAILURE(keep_filled(StoreKind::snapshot));
  try {
    Database second(path("db"), Database::Use::write);
    FAIL() << "two writers";
  } catch (const DatabaseError &error) {
    EXPECT_EQ(error.what(), path("db") + ": another process is writing to it");
  }
  EXPECT_EQ(Database(path("db"), Database::Use::read).open().stored.generation, 1u) << "readers are kept out";
  database_.reset();
  Database second(path("db"), Database::Use::write);
}

TEST_F(Writing, ReadersSeeTheOldStateOrTheNewOneWhole) {
  Database folder(path("busy"), Database::Use::create);
  Store store(config());
  store.add("a f", {0, 0.0});
  keep(folder, store);
  std::atomic<bool> done{false};
  std::string failure;
  uint64_t n_opened = 0, last_points = 0;
  std::thread reader([&] {
    const Database reading(folder.folder(), Database::Use::read);
    while (!done) {
      try {
        const Opened opened = reading.open();
        // A generation holds as many points as its number says.
        if (opened.store.n_points() != opened.stored.generation || opened.stored.generation < last_points)
          failure = fmt::format("{} points in generation {}", opened.store.n_points(), opened.stored.generation);
        last_points = opened.store.n_points();
        ++n_opened;
      } catch (const std::exception &error) {
        failure = error.what();
      }
    }
  });
  for (int i = 1; i < 60; ++i) {
    store.append(0, {i, 0.0});
    keep(folder, store);
  }
  done = true;
  reader.join();
  EXPECT_EQ(failure, "");
  EXPECT_GT(n_opened, 5u);
}

// ---- The program ----

class Program : public Folder {
 protected:
  struct Outcome {
    int exit_code;
    std::string out, err;
  };

  void SetUp() override {
    Folder::SetUp();
    std::string first, second;
    for (int i = 0; i < 500; ++i) {
      first += fmt::format("cpu,host=a user={},idle={} {}\nload one={} {}\n", i, 1000 - i, i, i * 0.5, i);
      second += fmt::format("cpu,host=a user={} {}\ncpu,host=b user={} {}\n", i, 500 + i, i, 500 + i);
    }
    write_file(root_ / "first.lp", first);
    write_file(root_ / "second.lp", second);
  }

  // In a process of its own, in the test's folder.
  Outcome run(const std::string &arguments) const {
    const std::string command = fmt::format("cd {} && {} {} >out.txt 2>err.txt", root_.string(), METRICDB, arguments);
    const int status = std::system(command.c_str());
    Outcome outcome = {WIFEXITED(status) ? WEXITSTATUS(status) : -1, read_file(root_ / "out.txt"),
                       read_file(root_ / "err.txt")};
    fs::remove(root_ / "out.txt");
    fs::remove(root_ / "err.txt");
    return outcome;
  }

  void expect_good(const std::string &arguments, const std::string &in_output = "") const {
    const Outcome outcome = run(arguments);
    EXPECT_EQ(outcome.exit_code, 0) << arguments << "\n" << outcome.out << outcome.err;
    EXPECT_EQ(outcome.err, "") << arguments;
    EXPECT_THAT(outcome.out, HasSubstr(in_output));
  }

  void expect_refused(const std::string &arguments, const std::string &line) const {
    const auto before = tree_of(root_);
    const Outcome outcome = run(arguments);
    EXPECT_EQ(outcome.exit_code, 1) << arguments << "\n" << outcome.out;
    EXPECT_EQ(outcome.err, "metricdb: " + line + "\n");
    EXPECT_TRUE(tree_of(root_) == before) << arguments << ": the folder was changed";
  }
};

TEST_F(Program, LoadsKeepsAndShowsFromAnotherProcess) {
  for (const std::string store : {"snapshot", "shm"}) {
    SCOPED_TRACE(store);
    const std::string db = "db_" + store;
    expect_good(fmt::format("load --db {} --store {} first.lp --check", db, store), "check: 1500 points match\n");
    expect_good("stat --db " + db, fmt::format("database         {}: generation 1, store {}, ", db, store));
    expect_good("stat --db " + db,
                "series           3, 0 inactive\nvisible points   1500, and 0 hidden beside them\n"
                "oldest           0 (1970-01-01 00:00:00.000000000 UTC)\n"
                "newest           499 (1970-01-01 00:00:00.000000499 UTC)\n");
    expect_good("series --db " + db + " 'cpu*user'", "cpu,host=a user    500    0  499  249.5   499  ▁");
    expect_good("series --db " + db, "load one ");
    expect_good(fmt::format("check --db {} first.lp", db), "check: 1500 points match\n");
    expect_good(fmt::format("load --db {} second.lp", db), ": generation 2, store snapshot, ");
    expect_good(fmt::format("check --db {} first.lp second.lp", db), "check: 2500 points match\n");
    expect_good(fmt::format("snapshot --db {}", db), ": generation 3, store snapshot, ");
    expect_good(fmt::format("check --db {} first.lp second.lp", db), "check: 2500 points match\n");
    const Outcome wrong = run(fmt::format("check --db {} second.lp", db));
    EXPECT_EQ(wrong.exit_code, 1);
    EXPECT_THAT(wrong.out, HasSubstr("differences"));
  }
  expect_good("load --db straight first.lp second.lp");
  const std::string shown = run("series --db straight").out;
  EXPECT_EQ(run("series --db db_snapshot").out, shown);
  EXPECT_EQ(run("series --db db_shm").out, shown);
}

TEST_F(Program, BlockFilesBecomeASnapshotInPlace) {
  expect_good("load --db db --store shm first.lp");
  EXPECT_TRUE(fs::exists(root_ / "db/generation.1/metricdb/1.0.darr"));
  expect_good("snapshot --db db");
  EXPECT_EQ(names_in(root_ / "db/generation.2"),
            (std::vector<std::string>{"catalogue.stream", "keys.stream", "manifest", "points.stream"}));
  EXPECT_FALSE(fs::exists(root_ / "db/generation.1"));
}

TEST_F(Program, RetentionIsKeptWithTheDatabase) {
  write_file(root_ / "old.lp", "cpu,host=a user=1 100\n");
  expect_good("load --db db --retain 1 --precision ms first.lp --check", "check: 1500 points match\n");
  write_file(root_ / "later.lp", "cpu,host=a user=7 1300\n");
  expect_good("load --db db --precision ms later.lp", "visible points   601, and ");
  expect_good("check --db db --precision ms first.lp later.lp", "check: 601 points match\n");
  expect_good("load --db db --precision ms old.lp", "1 that came too late");
  expect_good("stat --db db", "visible points   601, and ");
  expect_good("check --db db --precision ms first.lp later.lp old.lp", "check: 601 points match\n");
  write_file(root_ / "far.lp", "other f=1 9000\n");
  expect_good("load --db db --precision ms far.lp", "3 series aged");
  expect_good("stat --db db", "series           1, 0 inactive\nvisible points   1, and 0 hidden");
  expect_good("load --db db --precision ms --retain 100000 old.lp");
  expect_good("stat --db db", "series           2, 0 inactive\nvisible points   2, and 0 hidden");
}

TEST_F(Program, RefusesInOneLineAndChangesNothing) {
  expect_good("load --db db first.lp");
  expect_good("load --db reusing --idle 1 --reuse-inactive-pct 5 first.lp");
  write_file(root_ / "plain", "");
  static const struct {
    const char *arguments, *line;
  } rows[] = {
      {"load --db db --store shm first.lp",
       "db: holds a database already, and --store shm cannot attach to stored arrays: it needs a new folder"},
      {"load --db db --check first.lp",
       "db: holds points of other inputs: check it with `metricdb check` and all of them"},
      {"load --store shm first.lp", "--store says how --db keeps the arrays: give both"},
      {"load --db db none.lp", "none.lp: cannot be read: No such file or directory"},
      {"load --db new none.lp", "none.lp: cannot be read: No such file or directory"},
      {"load --db new --store shm none.lp", "none.lp: cannot be read: No such file or directory"},
      {"load --db no/such/folder first.lp", "no/such/folder: cannot be made: No such file or directory"},
      {"load --db plain first.lp", "plain: cannot be opened: Not a directory"},
      {"stat --db plain", "plain: cannot be opened: Not a directory"},
      {"stat --db none", "none: cannot be opened: No such file or directory"},
      {"series --db none", "none: cannot be opened: No such file or directory"},
      {"snapshot --db none", "none: cannot be opened: No such file or directory"},
      {"check --db none first.lp", "none: cannot be opened: No such file or directory"},
      {"stat --db .", ".: holds no database"},
      {"snapshot --db .", ".: holds no database"},
      {"check --db reusing first.lp",
       "check cannot tell which series --reuse-inactive-pct gives away: use one of them"},
      {"load --db db --reuse-inactive-pct 5 first.lp",
       "--reuse-inactive-pct needs --idle: without it no series is inactive"},
  };
  for (const auto &row : rows) expect_refused(row.arguments, row.line);

  fs::resize_file(root_ / "db/generation.1/points.stream", 99);
  const std::string told = "db/generation.1/points.stream: 99 bytes long, the manifest says ";
  for (const std::string arguments : {"stat --db db", "series --db db", "snapshot --db db", "load --db db second.lp"}) {
    const auto before = tree_of(root_);
    const Outcome outcome = run(arguments);
    EXPECT_EQ(outcome.exit_code, 1) << arguments;
    EXPECT_THAT(outcome.err, StartsWith("metricdb: " + told)) << arguments;
    EXPECT_EQ(std::count(outcome.err.begin(), outcome.err.end(), '\n'), 1) << outcome.err;
    EXPECT_TRUE(tree_of(root_) == before) << arguments;
  }
}

TEST_F(Program, MalformedLinesDoNotKeepTheRestOut) {
  write_file(root_ / "bad.lp", "m f=1 1\nm f= 2\n");
  const Outcome outcome = run("load --db db bad.lp");
  EXPECT_EQ(outcome.exit_code, 2);
  EXPECT_THAT(outcome.out, HasSubstr("generation 1"));
  expect_good("stat --db db", "visible points   1, ");
}

TEST_F(Program, LogsItsProgress) {
  write_file(root_ / "bad.lp", "m f=1 1\nm f= 2\n");
  const auto log_of = [this](const std::string &arguments) {
    run("--log log " + arguments);
    std::string text;
    int n_files = 0;
    for (const std::string &name : names_in(root_))
      if (name.starts_with("log.")) {
        EXPECT_TRUE(name.ends_with(".0")) << name;
        text += read_file(root_ / name);
        fs::remove(root_ / name);
        ++n_files;
      }
    EXPECT_LE(n_files, 1);
    return text;
  };
  static const struct {
    const char *arguments;
    std::vector<const char *> there, not_there;
  } rows[] = {
      {"load --db db first.lp bad.lp",
       {"|metricdb|start: load\n", "|metricdb|first.lp: 1000 lines, 1500 points, 0 malformed lines, ",
        "|metricdb|bad.lp: 2 lines, 1 points, 1 malformed lines, ",
        "|metricdb|db: generation 1 written, store snapshot, "},
       {"|sweep: ", "line skipped", "refused"}},
      {"load --db db first.lp bad.lp --log-level 3",
       {"|metricdb|start: load\n", "|metricdb|sweep: 4 series, ",
        "|metricdb|bad.lp:2: ", "|metricdb|db/generation.1: opened, 4 series, 1501 points\n",
        "|metricdb|db/generation.1: points, 1 slots in 1 files, ", "generation 2 written"},
       {"refused"}},
      {"stat --db none --log-level 1",
       {"|metricdb|refused: none: cannot be opened: No such file or directory\n"},
       {"start"}},
      {"stat --db db --log-level 1", {}, {"|"}},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.arguments);
    const std::string log = log_of(row.arguments);
    for (const char *line : row.there) EXPECT_THAT(log, HasSubstr(line));
    for (const char *line : row.not_there) EXPECT_EQ(log.find(line), std::string::npos) << log;
  }
}

}  // namespace
}  // namespace metricdb
