// Forgetting: retention, idle series, reuse of slots, and released memory.
#include "extent.h"
#include "metricdb_support.h"
#include "query/report.h"
#include "store/store_internal.h"

static uint32_t slot_of(const Store &store, std::string_view key) {
  uint32_t series = 0;
  while (series < store.n_slots() && !(store.holds_series(series) && store.key(series) == key)) ++series;
  return series;
}

static std::string points_text(std::string_view head, int first, int last) {
  std::string text;
  for (int i = first; i <= last; ++i) text += fmt::format("{}={} {}\n", head, i, i);
  return text;
}

// Cases that the model below rarely meets.
TEST(Retention, KeepsPointsWithinTheLimit) {
  static const struct {
    const char *fault;
    std::string text;
    const char *of_m;  // after a load with a retention of 10 and a sweep
    uint64_t chunks_gone = 0;
  } rows[] = {
      {"a chunk of old points is kept", points_text("m f", 1, 130) + "n f=0 139\n", "129@129 130@130 ", 1},
      {"only the last point of a chunk is examined", "m f=1 9\n" + repeated("m f=0 1\n", 127) + "m f=2 10\nn f=0 12\n",
       "1@9 2@10 "},
      {"an old chunk after a young one is shown, or the young one is deleted with it",
       "m f=9 9\n" + repeated("m f=0 0\n", 255) + "m f=20 10\nn f=0 12\n", "9@9 20@10 "},
      {"the limit is before the minimum time", "m f=1 -9223372036854775808\nm f=2 -9223372036854775800\n",
       "1@-9223372036854775808 2@-9223372036854775800 "},
      {"the difference wraps", "m f=1 -9223372036854775808\nm f=2 9223372036854775807\n", "2@9223372036854775807 "},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    Store store({.forgetting = {.retain_ns = 10}});
    const LoadStats stats = load(store, row.text);
    const Content content = content_of(store);
    EXPECT_EQ(content.at("m f"), row.of_m) << "visibility must not depend on sweeps";
    const uint64_t n_visible = store.n_visible();
    store.sweep();
    EXPECT_EQ(content_of(store), content);
    EXPECT_EQ(store.n_visible(), n_visible);
    const ForgetCounts &gone = store.forgotten();
    EXPECT_EQ(gone.chunks, row.chunks_gone);
    EXPECT_EQ(gone.late_points + gone.series_aged + lists_of(store.catalogue())->n_free, 0u);
    EXPECT_EQ(gone.points + store.n_points(), stats.points);
    expect_checked(checked(store, row.text, 10), n_visible, 0, "");
  }
}

// The loader must not use the number of the old series, whose slot another series has now.
TEST(Retention, ForgottenSeriesReturnsAsNew) {
  Store store({.forgetting = {.retain_ns = 10}, .points_per_sweep = 1});
  load(store, "a f=1 0\nb f=1 100\nc f=1 101\na f=2 102\n");
  EXPECT_EQ(store.forgotten().series_aged, 1u);
  EXPECT_EQ(store.n_slots(), 3u) << "the slot of a was not reused";
  EXPECT_EQ(content_of(store), (Content{{"a f", "2@102 "}, {"b f", "1@100 "}, {"c f", "1@101 "}}));
}

TEST(Reuse, ReplacesTheSeriesInactiveLongest) {
  // A memory slot holds one open chunk of 32 points, or several smaller chunks.
  Store store({.point_slot_bytes = 16 + 32 * 16, .forgetting = {.idle_ns = 100, .reuse_inactive_pct = 50}});
  load(store, "b f=1 1\n" + points_text("a f", 1, 84) + "b f=2 100\nc f=1 205\nd f=1 205\n");
  store.sweep();
  const uint32_t a = slot_of(store, "a f");
  ASSERT_EQ(store.n_inactive(), 2u);
  uint32_t head;
  tslb_da_get_inactive_head_ptr(store.catalogue(), &head);
  EXPECT_EQ(head, a) << "the order is by slot, not by last write";

  load(store, "b f=3 206\ne f=1 207\n");
  EXPECT_EQ(slot_of(store, "e f"), store.n_slots() - 1) << "reused with less than half of the slots inactive";
  load(store, "c f=2 400\n");
  store.sweep();
  EXPECT_EQ(store.n_inactive(), 4u);

  const uint64_t released_before = store.forgotten().point_slots;
  load(store, "new f=1 401\n");
  EXPECT_EQ(slot_of(store, "new f"), a) << "a was last written at 84, d at 205, b at 206, e at 207";
  EXPECT_EQ(store.forgotten().series_reused, 1u);
  EXPECT_EQ(store.forgotten().chunks, 2u);
  EXPECT_EQ(store.forgotten().points, 84u);
  EXPECT_EQ(store.forgotten().point_slots, released_before + 1) << "the slot of a's large chunk is not released";
  const Content expected = {
      {"b f", "1@1 2@100 3@206 "}, {"c f", "1@205 2@400 "}, {"d f", "1@205 "}, {"e f", "1@207 "}, {"new f", "1@401 "}};
  EXPECT_EQ(content_of(store), expected);
  EXPECT_EQ(store.n_series(), expected.size()) << "the store's look-up and the catalogue disagree";

  load(store, "a f=9 402\n");
  EXPECT_EQ(content_of(store).at("a f"), "9@402 ") << "a reused series comes back as a new one";
  EXPECT_EQ(content_of(store).count("d f"), 0u) << "half of the slots are still inactive, so a replaces d";

  load(store, "a f=9 900\n");
  store.sweep();
  ASSERT_EQ(store.n_inactive(), 4u);
  store.set_forgetting({.idle_ns = 100});
  load(store, "late f=1 901\n");
  EXPECT_EQ(store.n_inactive(), 4u) << "the policy is still active";
}

// The library ends the process when the last slot of a pool is current and full, or when a slot after the last one is
// needed, even if other slots are free. The store must refuse before, and continue when slots are free. In the first
// round the highest slot is current when all are full, in later rounds it is a reused slot.
TEST(Retention, FullPoolContinuesWhenSlotsAreFree) {
  static const struct {
    const char *what;
    uint64_t n_slots;
    int slot_bytes;
    uint64_t room_per_slot;
  } rows[] = {{"points", 2040, 2064, 128}, {"series keys", 255, 64, 1}};
  for (const auto &row : rows) {
    SCOPED_TRACE(row.what);
    const bool is_of_keys = row.room_per_slot == 1;
    Store store(is_of_keys ? StoreConfig{.key_slot_bytes = row.slot_bytes, .forgetting = {.retain_ns = 10}}
                           : StoreConfig{.point_slot_bytes = row.slot_bytes, .forgetting = {.retain_ns = 10}});
    const uint64_t room = row.n_slots * row.room_per_slot;
    int64_t ts_ns = 0;
    uint64_t n_stored = 0;
    const auto add = [&] {
      const uint64_t number = is_of_keys ? n_stored : 0;
      store.add(fmt::format("measurement,number={:010} field", number), {ts_ns, noise(n_stored)});
      ++n_stored;
    };
    testing::internal::CaptureStderr();  // the pool prints warnings
    for (int round = 0; round < (EVERY == 1 ? 4 : 2); ++round, ts_ns += 100) {
      if (round != 0) {
        EXPECT_THROW(add(), StoreFull) << "data time must move on";
        store.sweep();
        EXPECT_EQ(store.n_series(), 0u);
      }
      const uint64_t before = n_stored;
      const std::string why = refusal_of([&] {
        while (n_stored - before <= room) add();
      });
      EXPECT_EQ(why, fmt::format("no room for more {}: all {} memory slots of {} bytes are full", row.what, row.n_slots,
                                 row.slot_bytes));
      EXPECT_LE(n_stored - before, room);
      EXPECT_EQ(store.n_series() + lists_of(store.catalogue())->n_free, store.n_slots())
          << "a refused series keeps its slot";
      // In later rounds the slot that was current at the sweep is not free.
      EXPECT_GE(n_stored - before, room - (round == 0 ? 0 : 2 * row.room_per_slot)) << "round " << round;
      EXPECT_EQ(store.n_points(), n_stored - before) << "a refused point is counted";
      EXPECT_LE(store.n_slots(), row.n_slots + 1) << "free slots of the catalogue are not reused";
    }
    testing::internal::GetCapturedStderr();
  }
}

// Compared with a list of all points. Some points are late, series are silent for some time, and sweeps are random.
TEST(Retention, AgreesWithAModel) {
  constexpr uint32_t SEED = 20250131;
  constexpr int64_t RETAIN_NS = 300, IDLE_NS = 60;
  constexpr int N_KEYS = 12, N_BATCHES = EVERY == 1 ? 300 : 150;
  std::mt19937 random(SEED);
  Store store(
      {.key_slot_bytes = 64, .point_slot_bytes = 2064, .forgetting = {.retain_ns = RETAIN_NS, .idle_ns = IDLE_NS}});
  std::vector<std::pair<std::string, Point>> all;
  std::map<std::string, int64_t> written_at;
  int64_t data_time = 0;
  uint64_t n_idle = 0;
  for (int batch = 0; batch < N_BATCHES; ++batch) {
    const uint32_t n_active = 1 + random() % N_KEYS;  // the others get no points in this batch
    for (int i = 0; i < 60; ++i) {
      const std::string key = fmt::format("m,n={} f", random() % n_active * (batch / 40 + 1));
      const int64_t lag = random() % 8 == 0 ? random() % 400 : random() % 5;
      const Point point = {data_time + 1 - lag, 1.0 * static_cast<double>(all.size())};
      store.add(key, point);
      data_time = std::max(data_time, point.ts_ns);
      all.push_back({key, point});
      if (point.ts_ns >= data_time - RETAIN_NS) written_at[key] = data_time;
    }
    Content expected;
    for (const auto &[key, point] : all)
      if (point.ts_ns >= data_time - RETAIN_NS) expected[key] += shown({point});
    Content visible = content_of(store);
    std::erase_if(visible, [](const auto &series) { return series.second.empty(); });
    ASSERT_EQ(visible, expected) << "seed " << SEED << ", batch " << batch;
    if (random() % 3 == 0) continue;  // visibility must not depend on sweeps
    store.sweep();
    ASSERT_EQ(content_of(store), expected) << "seed " << SEED << ", batch " << batch;
    ASSERT_EQ(store.n_series(), expected.size());
    for (const auto &[key, shown] : expected) {
      const bool is_idle = data_time - written_at[key] >= IDLE_NS;
      ASSERT_EQ(store.is_inactive(slot_of(store, key)), is_idle) << key << ", batch " << batch;
      n_idle += is_idle ? 1 : 0;
    }
  }
  EXPECT_GT(store.forgotten().series_aged, EVERY == 1 ? 20u : 10u) << "too few series are forgotten";
  EXPECT_GT(n_idle, 100u) << "too few are idle";
  EXPECT_GT(store.forgotten().late_points, 100u);
}

TEST(Report, ForgottenData) {
  Store store({.point_slot_bytes = 2064, .forgetting = {.retain_ns = 10, .idle_ns = 5}});
  const LoadStats stats = load(store, points_text("m f", 1, 200) + "m f=0 1\nn f=0 206\n");
  const Sweep last = store.sweep();
  EXPECT_NE(series_table(store, "m f").find("inactive"), std::string::npos);
  EXPECT_EQ(series_table(store, "n f").find("inactive"), std::string::npos);
  const std::string summary = load_summary(store, stats, last, 1.0);
  const uint64_t headers = (8 + 60 + 16) + 2 * (8 + 56 + 60 + 16);
  EXPECT_EQ(store.bytes_in_use(), headers + 2 * (100 + 16) + last.keys.used_bytes + last.points.used_bytes);
  // The sealed chunk of m has 128 points. Its open chunk has points on both sides of 196. One slot with its smaller
  // chunks was released.
  EXPECT_EQ(store.n_visible(), 6u);
  EXPECT_THAT(summary,
              HasSubstr(fmt::format("bytes per point  {:.2f} in use", static_cast<double>(store.bytes_in_use()) / 6)));
  for (const char *line :
       {"\npoints per s     202 (1.000 s", "series           2, 1 inactive\n", "points           202\n",
        "visible points   6, 67 hidden\n", "forgotten        128 points in 1 chunks, 1 late; 0 series aged, 0 reused\n",
        "points swept     1 memory slots released; last sweep: 0 free before, 1 after; "})
    EXPECT_THAT(summary, HasSubstr(line));
}
