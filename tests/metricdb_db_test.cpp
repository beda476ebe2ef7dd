// A database is the same after it was closed and opened.
#include <cstring>
#include <limits>

#include "database_support.h"
#include "query/report.h"
#include "store/figures.h"

using RoundTrip = Folder;

// Compared with a store that is never closed. Compares blocks: points, records, nodes, lists and cursors.
TEST_F(RoundTrip, ReopenedStoreContinuesUnchanged) {
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
    fs::remove_all(path("db"));
    StoreConfig config = row.config;
    config.key_slot_bytes = 256;
    config.point_slot_bytes = 3000;
    Store straight(config);
    fill(straight, 0);
    const std::string half_time = image_of(straight), half_time_figures = figures_of(straight);
    fill(straight, N_BATCHES);
    EXPECT_EQ(straight.n_inactive() > 0, row.ages || row.reuses);
    EXPECT_EQ(straight.forgotten().series_aged > 0, row.ages);
    EXPECT_EQ(straight.forgotten().series_reused > 0, row.reuses);
    EXPECT_EQ(straight.forgotten().chunks > 0, row.ages || row.reuses);
    EXPECT_TRUE(lists_of(straight.points())->n_free > 0 || !row.ages);

    GenerationInfo written;
    {
      OpenDatabase created = open_to_change(path("db"), config);
      fill(created.store(), 0);
      ASSERT_EQ(image_of(created.store()), half_time) << "the input is not reproducible";
      written = created.write();
    }
    OpenDatabase opened = open_to_change(path("db"));
    EXPECT_EQ(generation_info(path("db"), opened.generation()).bytes(), written.bytes());
    EXPECT_EQ(figures_of(opened.store()), half_time_figures);
    EXPECT_TRUE(image_of(opened.store()) == half_time) << "the opened store differs";
    EXPECT_EQ(series_table(opened.store(), "m,n=* f").find("no series"), std::string::npos);

    fill(opened.store(), N_BATCHES);
    EXPECT_EQ(figures_of(opened.store()), figures_of(straight));
    EXPECT_TRUE(image_of(opened.store()) == image_of(straight)) << "it did not continue as the original";
    EXPECT_EQ(series_table(opened.store(), "*"), series_table(straight, "*"));

    EXPECT_EQ(opened.write().number, 3u);
    EXPECT_THAT(names_in(path("db")), ElementsAre("generation.3", "journal.3", "lock", "store"));
    const OpenDatabase again(path("db"));
    EXPECT_EQ(figures_of(again.store()), figures_of(straight));
    EXPECT_TRUE(image_of(again.store()) == image_of(straight));
  }
}
TEST_F(RoundTrip, PointsBitForBit) {
  using Limits = std::numeric_limits<double>;
  const std::vector<Point> points = {
      {INT64_MIN, 0.0},          {INT64_MAX, -0.0},         {0, Limits::infinity()},
      {-1, -Limits::infinity()}, {1, Limits::denorm_min()}, {2, std::bit_cast<double>(uint64_t{0xFFF8000000000001})},
      {3, Limits::max()}};
  {
    OpenDatabase created = open_to_change(path("db"));
    for (const Point &point : points) created.store().add("m f", point);
    created.store().add(std::string(Store::MAX_KEY_BYTES, 'k'), {0, 1.0});
    created.write();
  }
  const OpenDatabase opened(path("db"));
  const std::vector<Point> found = points_of(opened.store(), 0);
  ASSERT_EQ(found.size(), points.size());
  EXPECT_EQ(std::memcmp(found.data(), points.data(), points.size() * sizeof(Point)), 0);
  EXPECT_EQ(opened.store().key(1), std::string(Store::MAX_KEY_BYTES, 'k'));
  // The range exceeds 64 bits, and some times are before 1970.
  EXPECT_THAT(database_summary("db", opened.store(), generation_info(path("db"), opened.generation()), 0.0),
              HasSubstr("oldest           -9223372036854775808 (1677-09-21 00:12:43.145224192 UTC)\n"
                        "newest           9223372036854775807 (2262-04-11 23:47:16.854775807 UTC)\n"));
}

using Writing = SmallDatabase;

// 300 lines of earlier versions: 3, which wrote runs and stored integers as real numbers, 4, whose blocks have at most 128
// points, and 5, whose chunks have no room for more. New points are in blocks beside them, and packing joins both.
TEST_F(Writing, DatabasesOfEarlierVersionsGoOn) {
  const auto line = [](int i) {
    return fmt::format("cpu,host=a load={},n={}i,on={} {}\n", 20 + i * i % 7 * 0.25, 1'000'000 * i, i % 7 != 0,
                       1'700'000'000'000'000'000 + i * 10'000'000'000 + i % 3);
  };
  for (const char *version : {"/version_3", "/version_4", "/version_5"}) {
    SCOPED_TRACE(version);
    std::string text;
    for (int i = 0; i < 300; ++i) text += line(i);
    fs::remove_all(db());
    fs::copy(METRICDB_OLD_DATABASE + std::string(version), db(), fs::copy_options::recursive);
    expect_checked(checked(OpenDatabase(db()).store(), text), 900, 0, "");
    for (int round = 0; round < 2; ++round) {
      OpenDatabase opened = open_to_change(db());
      std::string more;
      for (int i = 300 * (round + 1); i < 300 * (round + 2); ++i) more += line(i);
      load(opened.store(), more);
      EXPECT_GT(opened.store().record(0).n_sealed(), 1u);
      EXPECT_EQ(opened.store().pack(0), 3u);
      EXPECT_EQ(opened.store().record(0).n_sealed(), 1u);
      opened.write();
      text += more;
      expect_checked(checked(OpenDatabase(db()).store(), text), 900u * (static_cast<unsigned>(round) + 2), 0, "");
    }
  }
}

// Payloads that other programs, or later versions, could have written.
TEST_F(Writing, FiguresHaveOneTextAndLimits) {
  Store store(config());
  fill(store);
  const std::string whole = figures_text(store.config(), store.state());
  const struct {
    const char *fault, *found, *put, *message;
  } rows[] = {
      {"a later version", "metricdb 6\n", "metricdb 7\n", "unknown format \"metricdb 7\""},
      {"an unknown layout", "layout 1", "layout 2", "layout \"2\""},
      {"a line left out", "retain_ns 100\n", "", "\"idle_ns 50\", expected \"retain_ns\""},
      {"a negative time span", "retain_ns 100", "retain_ns -100", "retain_ns \"-100\""},
      {"a percentage above 100", "reuse_inactive_pct 0", "reuse_inactive_pct 101", "reuse_inactive_pct \"101\""},
      {"letters after a number", "idle_ns 50", "idle_ns 50s", "idle_ns \"50s\""},
      {"another spelling", "idle_ns 50", "idle_ns 050", "not the text that this program writes"},
      {"a huge slot size", "point_slot_bytes 2400", "point_slot_bytes 16777217", "point_slot_bytes \""},
      {"more text", "point_slots_freed", "more 1\npoint_slots_freed", "\"more 1\", expected \"point_slots_freed\""},
  };
  StoreConfig read_config;
  StoreState read_state;
  read_figures(whole, read_config, read_state);
  EXPECT_EQ(figures_text(read_config, read_state), whole);
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    std::string text = whole;
    const size_t at = text.find(row.found);
    ASSERT_NE(at, text.npos) << text;
    text.replace(at, std::strlen(row.found), row.put);
    EXPECT_THAT(refusal_of([&] { read_figures(text, read_config, read_state); }), HasSubstr(row.message));
  }
  for (size_t bytes = 0; bytes < whole.size(); ++bytes)
    ASSERT_NE(refusal_of([&] { read_figures(whole.substr(0, bytes), read_config, read_state); }), "") << bytes;
}
