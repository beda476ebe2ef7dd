// Erasing points by series and time: against a model, beside readers, in batches that fail.
#include <atomic>
#include <thread>

#include "query/store_source.h"
#include "store/erasure.h"
#include "writer_support.h"

namespace metricdb {
namespace {

std::vector<LiveSeries> all_series(const Store &store) {
  std::vector<LiveSeries> series;
  store.live()->index.for_each({}, [&](uint32_t number, uint32_t stamp, const SeriesName &) {
    series.push_back({number, stamp});
  });
  return series;
}

StoreChange::Step erasing(Erasure erasure, uint32_t max_work) {
  return [erasure, max_work](Store &store) mutable { return store.erase_some(erasure, max_work); };
}

// Makes all requested changes, and waits until they are durable.
void make_changes(DatabaseWriter &writer) {
  for (bool has_more = true; has_more;) {
    has_more = writer.work();
    writer.wait(writer.commit());
  }
  writer.settled();
}

class Erasing : public Writer {
 protected:
  static WriterOptions options() {
    WriterOptions options;
    options.is_live = true;
    return options;
  }
};

}  // namespace

// Random ranges are erased from some of the series, in small steps between which points arrive in any order, chunks age and
// series are forgotten. The database is opened from its journal now and then, which checks all of it.
TEST_F(Erasing, AgreesWithAModel) {
  constexpr uint32_t SEED = 20260817;
  constexpr int N_ROUNDS = 150;
  std::mt19937 random(SEED);
  const auto below = [&](uint32_t n) { return static_cast<int64_t>(random() % n); };
  StoreConfig config = {.key_slot_bytes = 64, .point_slot_bytes = 4096, .points_per_sweep = 3000};
  create(config);
  std::map<std::string, std::vector<Point>> model;
  std::optional<DatabaseWriter> writer(std::in_place, db(), options());
  int64_t now = 10'000, limit = INT64_MIN;
  uint64_t n_replaced = 0;
  const auto put_some = [&] {
    std::string text;
    for (int64_t i = below(400); i > 0; --i) {
      const std::string key = fmt::format("m,n={}", below(5) * 5 / 4);
      const Point point = {(now += below(3)) - (below(4) == 0 ? below(900) : 0), static_cast<double>(below(1000))};
      text += fmt::format("{} f={} {}\n", key, point.value, int64_t{point.ts_ns});
      if (point.ts_ns >= limit) model[key + " f"].push_back(point);
    }
    ASSERT_EQ(put(*writer, text), "");
  };
  for (int round = 0; round < N_ROUNDS; ++round) {
    put_some();
    Erasure erasure;
    std::vector<std::string> keys;
    const int64_t kind = below(8);  // 0: no beginning, 1: all points
    if (kind > 1) erasure.range.from_ns = now - below(2500);
    if (kind != 1) erasure.range.to_ns = kind == 0 ? now - below(2500) : erasure.range.from_ns + below(800);
    for (const LiveSeries &one : all_series(writer->store())) {
      if (below(3) == 0) continue;
      erasure.series.push_back(one);
      keys.emplace_back(writer->store().key(one.series));
    }
    // Points are stored between the steps only if they are after the range.
    const bool is_mixed = erasure.range.to_ns < now - 900;
    const uint64_t n_chunks = writer->store().forgotten().chunks;
    const auto change = writer->request(erasing(erasure, is_mixed ? 600 : 100'000));
    while (writer->work())
      if (is_mixed) put_some();
    make_changes(*writer);
    ASSERT_EQ(change->wait(nullptr), "");
    n_replaced += writer->store().forgotten().chunks != n_chunks ? 1 : 0;
    for (const std::string &key : keys)
      std::erase_if(model[key], [&](const Point &point) { return erasure.range.contains(point.ts_ns); });
    if (round == N_ROUNDS / 2) {
      const auto limited = writer->request([](Store &store) {
        store.set_forgetting({.retain_ns = 2'000});
        return true;
      });
      make_changes(*writer);
      ASSERT_EQ(limited->wait(nullptr), "");
    }
    Content expected;
    limit = writer->store().visible_from_ns();
    for (auto &[key, points] : model) {
      std::erase_if(points, [&](const Point &point) { return point.ts_ns < limit; });
      if (!points.empty()) expected[key] = shown(points);
    }
    Content visible = content_of(writer->store());
    std::erase_if(visible, [](const auto &series) { return series.second.empty(); });
    ASSERT_EQ(visible, expected) << "seed " << SEED << ", round " << round;
    ASSERT_TRUE(round >= N_ROUNDS / 2 || writer->store().n_series() == expected.size()) << "an empty series is kept";
    if (round % 10 != 0) continue;
    writer.reset();
    writer.emplace(db(), options());
    visible = content_of(writer->store());
    std::erase_if(visible, [](const auto &series) { return series.second.empty(); });
    ASSERT_EQ(visible, expected) << "seed " << SEED << ", opened after round " << round;
  }
  EXPECT_GT(n_replaced, 50u) << "too few chunks were erased or replaced";
  EXPECT_GT(writer->store().forgotten().series_aged, 20u);
}

// Times vanish one by one if they are odd, and then from the front on. The first point stays.
TEST(LiveErasing, EachReadIsOfOneMoment) {
  constexpr int64_t N_POINTS = 3'000;
  StoreConfig config;
  config.point_slot_bytes = 1 << 14;
  Store store(config);
  store.go_live();
  std::atomic<bool> is_done = false;
  std::atomic<int> n_reads = 0, n_faults = 0;
  const uint32_t series = store.series_of("m f");
  store.append(series, {-2, 0.0});  // so that the series is never empty
  std::thread reader([&] {
    const StoreSource source(store);
    source.for_each_series({}, [](uint32_t, const SeriesName &) {});
    PointList list;
    const std::vector<Point> &points = list.points;
    for (; !is_done; ++n_reads) {
      source.read(series, {}, list);
      bool is_good = !points.empty() && points.front().ts_ns == -2;
      for (size_t i = 1; is_good && i < points.size(); ++i) {
        const int64_t step = points[i].ts_ns - points[i - 1].ts_ns;
        is_good = i == 1 || step == 1 || (step == 2 && points[i].ts_ns % 2 == 0);
      }
      if (!is_good) ++n_faults;
    }
  });
  for (int round = 0; round < 20 || (n_reads < 50 && round < 2'000); ++round) {
    for (int64_t ts_ns = 0; ts_ns < N_POINTS; ++ts_ns) store.append(series, {ts_ns, 0.0});
    const auto erase = [&](int64_t from_ns, int64_t to_ns) {
      Erasure erasure = {.series = all_series(store), .range = {from_ns, to_ns}};
      while (!store.erase_some(erasure, 2'000)) std::this_thread::yield();
    };
    for (int64_t ts_ns = 1; ts_ns < N_POINTS; ts_ns += 150) erase(ts_ns, ts_ns);
    for (int64_t to_ns = 500; to_ns <= N_POINTS; to_ns += 500) erase(0, to_ns);
    EXPECT_EQ(store.n_points(), 1u);
    EXPECT_EQ(store.newest_ns(series), -2) << "the newest time is that of an erased point";
  }
  is_done = true;
  reader.join();
  EXPECT_EQ(n_faults, 0) << "of " << n_reads;
}

// An erasure that is given up, here after the first chunk, no longer keeps the chunks of its series from being joined.
TEST(LiveErasing, GivenUpErasureHoldsNothing) {
  Store store;
  store.go_live();
  const uint32_t series = store.series_of("m f");
  auto append = [&store, series, ts_ns = int64_t{0}](int n) mutable {
    for (; n > 0; --n) store.append(series, {ts_ns++, 0.0});
  };
  append(3'000);
  {
    Erasure erasure = {.series = all_series(store), .range = {5, 5}};
    ASSERT_FALSE(store.erase_some(erasure, 1));
  }
  append(20'000);
  EXPECT_EQ(store.n_points(), 22'999u);
  EXPECT_LT(store.record(series).n_sealed(), 30u);
}

TEST_F(Erasing, RoomComesBack) {
  Store store({.key_slot_bytes = 256, .point_slot_bytes = 2400});
  store.go_live();
  const auto fill = [&store] {
    for (int i = 0; i < 20'000; ++i) store.add(fmt::format("m,n={} f", i % 40), {i, noise(static_cast<uint64_t>(i))});
  };
  fill();
  const uint32_t n_points_slots = tslb_da_get_size(store.points()), n_key_slots = tslb_da_get_size(store.keys());
  for (int round = 0; round < 3; ++round) {
    Erasure erasure = {.series = all_series(store)};
    EXPECT_TRUE(store.erase_some(erasure, UINT32_MAX));
    EXPECT_EQ(store.n_series() + store.n_points(), 0u);
    fill();
  }
  EXPECT_LE(tslb_da_get_size(store.points()), n_points_slots + 1);
  EXPECT_LE(tslb_da_get_size(store.keys()), n_key_slots + 1);
  EXPECT_EQ(store.n_slots(), 40u);
}

// Each step of the file operations fails once. What is reported as erased stays erased. A change that failed has erased
// whole chunks from the front.
TEST_F(Erasing, RefusedChangeIsReported) {
  uint64_t n_failed = 0;
  for (uint64_t k = 1;; ++k) {
    SCOPED_TRACE(fmt::format("step {}", k));
    fs::remove_all(db());
    std::string first, second;
    bool met_end = false;
    try {
      DatabaseWriter writer(db(), options());
      std::string text = "n f=1 1\n";
      for (int i = 0; i < 1000; ++i) text += fmt::format("m f={} {}\n", i, i);
      ASSERT_EQ(put(writer, text), "");
      const std::vector<LiveSeries> all = all_series(writer.store());
      const uint64_t before = tslb_durable::io_operations();
      tslb_durable::fail_at_io(k, ENOSPC);
      const auto change = writer.request(erasing({.series = all, .range = {5, 499}}, 100));
      const auto next = writer.request(erasing({.series = all, .range = {0, 1}}, 100));
      refusal_of([&] { make_changes(writer); });
      met_end = tslb_durable::io_operations() - before < k;
      tslb_durable::fail_at_io(0, 0);
      first = change->wait([] { return true; });
      second = next->wait([] { return true; });
      EXPECT_EQ(put(writer, "o f=1 1\n"), "");
    } catch (const DatabaseError &) {  // a broken journal; the next process continues
    }
    tslb_durable::fail_at_io(0, 0);
    const OpenDatabase opened = reopened();
    std::vector<Point> points = points_of(opened.store(), opened.store().find("m f").value());
    EXPECT_TRUE(!second.empty() || (points.front().ts_ns == 2 && !opened.store().find("n f")));
    std::erase_if(points, [](const Point &point) { return point.ts_ns < 5; });
    const int64_t from = points.front().ts_ns;
    EXPECT_EQ(points.size(), static_cast<size_t>(1000 - from));
    EXPECT_TRUE(!first.empty() || from == 500) << from;
    n_failed += first.empty() ? 0 : 1;
    if (met_end) break;
    ASSERT_LT(k, 500u) << "too many steps";
  }
  EXPECT_GT(n_failed, 2u);
}

TEST_F(Erasing, InterruptedChangeIsNotMade) {
  DatabaseWriter writer(db(), options());
  ASSERT_EQ(put(writer, "m f=1 1\n"), "");
  const auto change = writer.request(erasing({.series = all_series(writer.store())}, 1'000));
  EXPECT_NE(change->wait([] { return true; }), "");
  const uint64_t ticket = writer.commit();
  EXPECT_FALSE(writer.work());
  EXPECT_EQ(writer.commit(), ticket);
  EXPECT_EQ(writer.store().n_points(), 1u);
}

}  // namespace metricdb
