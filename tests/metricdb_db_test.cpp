// A database is the same after it was closed and opened, and a failed write leaves the old state intact.
#include <atomic>
#include <cstring>
#include <limits>
#include <set>
#include <thread>
#include <utility>

#include "database_support.h"
#include "journal/checksum.h"
#include "query/report.h"

TEST(Checksum, InstructionAndTableAgree) {
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

class RoundTrip : public Folder, public testing::WithParamInterface<StoreKind> {};

// Compared with a store that is never closed. Compares blocks: points, records, nodes, lists and cursors.
TEST_P(RoundTrip, ReopenedStoreContinuesUnchanged) {
  constexpr int N_BATCHES = 103;  // so that the number of points is no multiple of points_per_sweep
  const auto fill = [](Store &store, int first) {
    for (int number = first; number < first + N_BATCHES; ++number) load(store, batch_text(number));
  };
  static const struct {
    const char *what;
    bool ages, reuses;  // what must happen so that the row is meaningful
    StoreConfig config;
  } rows[] = {
      {"nothing is forgotten", false, false, {}},
      {"sweeps", true, false, {.forgetting = {.retain_ns = 2500, .idle_ns = 300}, .points_per_sweep = 900}},
      {"reuse of series",
       false,
       true,
       {.forgetting = {.idle_ns = 300, .reuse_inactive_pct = 20}, .points_per_sweep = 400}},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.what);
    fs::remove_all(path("straight"));
    fs::remove_all(path("db"));
    StoreConfig config = row.config;
    config.key_slot_bytes = 256;
    config.point_slot_bytes = 3000;
    Database straight_folder(path("straight"), Database::Use::create), folder(path("db"), Database::Use::create);
    std::optional<NewGeneration> straight_blocks, blocks;
    if (GetParam() == StoreKind::shm) {
      config.mem_type = MPOOL_TYPE_SHM;
      straight_blocks.emplace(straight_folder).set_block_file_path();
    }
    Store straight(config);
    fill(straight, 0);
    const std::string half_time = image_of(straight), half_time_figures = figures_of(straight);
    fill(straight, N_BATCHES);
    EXPECT_EQ(straight.n_inactive() > 0, row.ages || row.reuses);
    EXPECT_EQ(straight.forgotten().series_aged > 0, row.ages);
    EXPECT_EQ(straight.forgotten().series_reused > 0, row.reuses);
    EXPECT_EQ(straight.forgotten().chunks > 0, row.ages || row.reuses);
    EXPECT_EQ(lists_of(straight.points())->n_free > 0, row.ages);

    GenerationInfo written;
    {
      if (GetParam() == StoreKind::shm) blocks.emplace(folder).set_block_file_path();
      Store store(config);
      fill(store, 0);
      ASSERT_EQ(image_of(store), half_time) << "the input is not reproducible";
      written = blocks ? blocks->seal_block_files(store) : keep(folder, store);
    }
    LoadedDatabase opened = folder.open();
    EXPECT_EQ(opened.generation.kind, GetParam());
    EXPECT_EQ(opened.generation.bytes(), written.bytes());
    uint64_t bytes_there = 0;
    for (const auto &[name, content] : tree_of(folder.folder())) bytes_there += content.size();
    EXPECT_EQ(written.bytes(), bytes_there);
    EXPECT_EQ(figures_of(opened.store), half_time_figures);
    EXPECT_TRUE(image_of(opened.store) == half_time) << "the opened store differs";
    EXPECT_EQ(series_table(opened.store, "m,n=* f").find("no series"), std::string::npos);

    fill(opened.store, N_BATCHES);
    EXPECT_EQ(figures_of(opened.store), figures_of(straight));
    EXPECT_TRUE(image_of(opened.store) == image_of(straight)) << "it did not continue as the original";
    EXPECT_EQ(series_table(opened.store, "*"), series_table(straight, "*"));

    // The next generation is written as streams in any case.
    EXPECT_EQ(keep(folder, opened.store).number, 2u);
    EXPECT_THAT(names_in(folder.folder()), ElementsAre("generation.2"));
    const LoadedDatabase again = folder.open();
    EXPECT_EQ(again.generation.kind, StoreKind::snapshot);
    EXPECT_EQ(figures_of(again.store), figures_of(straight));
    EXPECT_TRUE(image_of(again.store) == image_of(straight));
  }
}
INSTANTIATE_TEST_SUITE_P(Stores, RoundTrip, testing::ValuesIn(STORE_KINDS), name_of_kind);

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
    store.add(std::string(Store::MAX_KEY_BYTES, 'k'), {0, 1.0});
    keep(folder, store);
  }
  const LoadedDatabase opened = folder.open();
  const std::vector<Point> found = points_of(opened.store, 0);
  ASSERT_EQ(found.size(), points.size());
  EXPECT_EQ(std::memcmp(found.data(), points.data(), points.size() * sizeof(Point)), 0);
  EXPECT_EQ(opened.store.key(1), std::string(Store::MAX_KEY_BYTES, 'k'));
  // The range exceeds 64 bits, and some times are before 1970.
  EXPECT_THAT(database_summary("db", opened.store, opened.generation, 0.0),
              HasSubstr("oldest           -9223372036854775808 (1677-09-21 00:12:43.145224192 UTC)\n"
                        "newest           9223372036854775807 (2262-04-11 23:47:16.854775807 UTC)\n"));
}

using Writing = SmallDatabase;

// The state after a process that ended between writing and renaming, or between renaming and removing the old
// generation. The crash tests meet each of these moments.
TEST_F(Writing, NewestGenerationIsUsedAndLeftoversAreRemoved) {
  ASSERT_NO_FATAL_FAILURE(keep_filled(StoreKind::snapshot));
  const fs::path old = root_ / "old", half = root_ / "db" / "generation.3.new";
  fs::copy(generation(), old);
  LoadedDatabase opened = database_->open();
  opened.store.add("d f", {181, 1.0});
  keep(*database_, opened.store);
  fs::rename(old, generation());
  fs::copy(generation(), half);
  fs::resize_file(half / "points.stream", 10);
  fs::create_directory(root_ / "db" / "somebody's.new");
  EXPECT_EQ(database_->open().generation.number, 2u);
  EXPECT_EQ(figures_of(database_->open().store), figures_of(opened.store));
  // An older generation must not hide damage of the newest one.
  const fs::path points = root_ / "db" / "generation.2" / "points.stream";
  const std::string whole = read_file(points);
  fs::remove(points);
  EXPECT_THAT(refusal(), StartsWith(points.string()));
  write_file(points, whole);
  keep(*database_, opened.store);
  EXPECT_THAT(names_in(root_ / "db"), ElementsAre("generation.3", "somebody's.new"));
}

// Limits on the file size make writes to each of the files fail.
TEST_F(Writing, FailedWriteChangesNothing) {
  ASSERT_NO_FATAL_FAILURE(keep_filled(StoreKind::snapshot));
  LoadedDatabase opened = database_->open();
  for (int i = 0; i < 3000; ++i) opened.store.add(fmt::format("many,n={} f", i % 40), {181 + i % 7, 1.0});
  const auto before = tree_of(root_);
  const auto old_handler = signal(SIGXFSZ, SIG_IGN);
  std::set<std::string> refused_files;
  for (const rlim_t max_bytes : {0, 100, 1500, 2300, 2500, 2800, 3500, 20'000}) {
    testing::internal::CaptureStderr();
    const std::string what = refusal_of([&] {
      const limit_t tight(RLIMIT_FSIZE, max_bytes);
      keep(*database_, opened.store);
    });
    testing::internal::GetCapturedStderr();
    EXPECT_THAT(what, HasSubstr("cannot be written")) << max_bytes;
    refused_files.insert(fs::path(what.substr(0, what.find(": "))).filename());
    EXPECT_TRUE(tree_of(root_) == before) << max_bytes;
  }
  signal(SIGXFSZ, old_handler);
  EXPECT_GE(refused_files.size(), 2u) << "all limits affected the same file";
  keep(*database_, opened.store);
  EXPECT_EQ(figures_of(database_->open().store), figures_of(opened.store));
}

TEST_F(Writing, OneWriterAtATime) {
  ASSERT_NO_FATAL_FAILURE(keep_filled(StoreKind::snapshot));
  const auto write = [this] { const Database second(path("db"), Database::Use::write); };
  EXPECT_EQ(refusal_of(write), path("db") + ": another process is writing to it");
  EXPECT_EQ(Database(path("db"), Database::Use::read).open().generation.number, 1u) << "readers are kept out";
  database_.reset();
  EXPECT_EQ(refusal_of(write), "");
}

TEST_F(Writing, ReadersSeeCompleteGenerations) {
  Database folder(path("busy"), Database::Use::create);
  Store store(config());
  store.add("a f", {0, 0.0});
  keep(folder, store);
  std::atomic<bool> done{false};
  std::string failure;
  std::atomic<uint64_t> n_opened{0};
  uint64_t last_points = 0;
  std::thread reader([&] {
    const Database reading(folder.folder(), Database::Use::read);
    for (; !done && failure.empty(); ++n_opened)
      failure = refusal_of([&] {
        const LoadedDatabase opened = reading.open();
        // A generation contains as many points as its number.
        EXPECT_EQ(opened.store.n_points(), opened.generation.number);
        EXPECT_GE(opened.store.n_points(), std::exchange(last_points, opened.store.n_points()));
      });
  });
  // The reader may start late: the writer then goes on, more slowly, until enough generations were opened.
  for (int i = 1; i < 60 || (n_opened <= 5 && i < 10000); ++i) {
    store.append(0, {i, 0.0});
    keep(folder, store);
    if (i >= 60) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  done = true;
  reader.join();
  EXPECT_EQ(failure, "");
  EXPECT_GT(n_opened, 5u);
}
