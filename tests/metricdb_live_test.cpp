// Reading a store on other threads while its own thread adds points, seals and deletes chunks, and replaces series.
#include <gmock/gmock.h>

#include <atomic>
#include <thread>

#include "extent.h"
#include "metricdb_support.h"
#include "query/store_source.h"

namespace metricdb {
namespace {

// The value of a point says to which series it belongs, so a point of another series is noticed.
double value_of(uint64_t series_number, int64_t ts_ns) {
  return static_cast<double>(series_number) * 1e9 + static_cast<double>(ts_ns);
}

std::string key_of(uint64_t number) {
  return fmt::format("live,number={} field", number);
}

// Returns what is wrong with the points of a series whose times are consecutive; empty if nothing is.
std::string fault_of(uint64_t number, const std::vector<Point> &points, int64_t step_ns) {
  for (size_t i = 0; i < points.size(); ++i) {
    if (points[i].value != value_of(number, points[i].ts_ns))
      return fmt::format("series {}: value {} at {}", number, points[i].value, int64_t{points[i].ts_ns});
    if (i != 0 && points[i].ts_ns != points[i - 1].ts_ns + step_ns)
      return fmt::format("series {}: {} follows {}", number, int64_t{points[i].ts_ns}, int64_t{points[i - 1].ts_ns});
  }
  return {};
}

struct Seen {
  uint64_t n_reads = 0, n_points = 0;
  std::string fault;
};

// Reads all series again and again.
Seen read_until(const Store &store, int64_t step_ns, const std::atomic<bool> &is_done) {
  Seen seen;
  PointList list;
  const std::vector<Point> &points = list.points;
  while (!is_done && seen.fault.empty()) {
    const StoreSource source(store);
    std::vector<std::pair<uint32_t, uint64_t>> series;
    source.for_each_series({}, [&](uint32_t number, const SeriesName &name) {
      series.emplace_back(number, std::stoull(name.tags.at(0).second));
    });
    for (const auto &[number, name] : series) {
      source.read(number, {}, list);
      ++seen.n_reads;
      seen.n_points += points.size();
      if (std::string fault = fault_of(name, points, step_ns); !fault.empty()) seen.fault = std::move(fault);
    }
  }
  return seen;
}

struct Scenario {
  const char *name;
  Forgetting forgetting;
  uint64_t n_series;       // at a time
  uint64_t n_rounds;       // each adds a point to each series
  uint64_t rounds_of_one;  // then other series are written; 0: always the same
  bool packs = false;      // now and then
};

class LiveReading : public testing::TestWithParam<Scenario> {};

}  // namespace

// The writer raises the values from the first point to the last, again and again. At each moment no value is larger than
// that of an earlier point, and the smallest is at most 1 less than the largest.
TEST(LiveReplacing, EachReadIsOfOneMoment) {
  constexpr int N_POINTS = 100, N_ROUNDS = 5'000 / EVERY;
  Store store;
  store.go_live();
  const uint32_t series = store.series_of(key_of(1));
  // After the first 128 points all N_POINTS are in one open chunk.
  for (int i = -128; i < N_POINTS; ++i) store.append(series, {i, 0.0});
  std::atomic<bool> is_done = false;
  std::atomic<int> n_reads = 0, n_changed = 0;
  int n_faults = 0;
  std::thread reader([&] {
    const StoreSource source(store);
    source.for_each_series({}, [](uint32_t, const SeriesName &) {});
    PointList list;
    const std::vector<Point> &points = list.points;
    while (!is_done) {
      source.read(series, {.from_ns = 0}, list);
      bool is_good = points.size() == N_POINTS && points.front().value - points.back().value <= 1.0;
      for (size_t i = 1; is_good && i < points.size(); ++i) is_good = points[i].value <= points[i - 1].value;
      n_faults += is_good ? 0 : 1;
      n_changed += !points.empty() && points.front().value > 0.0 ? 1 : 0;
      ++n_reads;
    }
  });
  // Goes on until the reader has read beside it. The limit only ends a failing test.
  for (int value = 1; value < N_ROUNDS || (n_changed < 10 && value < 100 * N_ROUNDS); ++value) {
    for (int i = 0; i < N_POINTS; ++i) EXPECT_TRUE(store.replace_open(series, {i, static_cast<double>(value)}));
    std::this_thread::yield();
  }
  is_done = true;
  reader.join();
  EXPECT_EQ(n_faults, 0) << "of " << n_reads;
  EXPECT_GE(n_changed, 10);
}

TEST_P(LiveReading, EachReadIsOfOneMoment) {
  const Scenario &scenario = GetParam();
  StoreConfig config;
  config.point_slot_bytes = 1 << 14;
  config.key_slot_bytes = 1 << 12;
  config.points_per_sweep = 2000;
  config.forgetting = scenario.forgetting;
  Store store(config);
  store.go_live();
  std::atomic<bool> is_done = false;
  std::vector<Seen> seen(2);
  std::vector<std::thread> readers;
  for (Seen &one : seen) readers.emplace_back([&] { one = read_until(store, 1, is_done); });
  uint64_t first = 0;
  for (uint64_t round = 0; round < scenario.n_rounds; ++round) {
    if (scenario.rounds_of_one != 0 && round % scenario.rounds_of_one == 0) first += scenario.n_series;
    const auto ts_ns = static_cast<int64_t>(round);
    for (uint64_t i = first; i < first + scenario.n_series; ++i) store.add(key_of(i), {ts_ns, value_of(i, ts_ns)});
    if (!scenario.packs || round % 700 != 0) continue;
    store.pack(0);
    EXPECT_TRUE(store.compact(true));
  }
  is_done = true;
  for (std::thread &reader : readers) reader.join();
  uint64_t n_points = 0;
  for (const Seen &one : seen) {
    EXPECT_EQ(one.fault, "");
    EXPECT_NE(one.n_reads, 0u);
    n_points += one.n_points;
  }
  EXPECT_NE(n_points, 0u) << "nothing was read beside the writer";
  EXPECT_EQ(store.forgotten().chunks != 0, scenario.forgetting.retain_ns != 0 || scenario.forgetting.idle_ns != 0);
  EXPECT_EQ(store.forgotten().series_reused != 0, scenario.forgetting.reuse_inactive_pct != 0);

  // Alone, a reader finds exactly what the store's own cursor finds.
  const StoreSource source(store);
  std::map<uint32_t, std::string> names;
  source.for_each_series({}, [&](uint32_t number, const SeriesName &name) { names[number] = name.tags.at(0).second; });
  EXPECT_EQ(names.size(), store.n_series());
  for (const auto &[number, name] : names) {
    EXPECT_EQ(store.key(number), fmt::format("live,number={} field", name));
    PointList list;
    const std::vector<Point> &points = list.points;
    // Readers learn the limit of the retention at the end of a batch.
    source.read(number, {.from_ns = store.visible_from_ns()}, list);
    PointCursor cursor(store, number);
    size_t n = 0;
    for (Point point; cursor.next(point); ++n) {
      ASSERT_LT(n, points.size());
      EXPECT_EQ(points[n].ts_ns, point.ts_ns);
    }
    EXPECT_EQ(n, points.size());
  }
}

INSTANTIATE_TEST_SUITE_P(
    Scenarios, LiveReading,
    testing::Values(Scenario{"appending", {}, 3, 60'000, 0}, Scenario{"retention", {.retain_ns = 3'000}, 3, 60'000, 0},
                    Scenario{"packing", {}, 3, 60'000, 0, true},
                    Scenario{"packing_and_retention", {.retain_ns = 3'000}, 3, 60'000, 0, true},
                    Scenario{"new_series", {.retain_ns = 300}, 50, 4'000, 60},
                    Scenario{"replaced_series", {.idle_ns = 100, .reuse_inactive_pct = 1}, 20, 6'000, 150}),
    [](const auto &scenario) { return std::string(scenario.param.name); });

// A series whose number another series has now is not read as that one.
TEST(LiveReading, NumberOfAForgottenSeriesReadsNothing) {
  StoreConfig config;
  config.forgetting.retain_ns = 10;
  Store store(config);
  store.go_live();
  store.add("m,a=1 f", {1, 1.0});
  const StoreSource source(store);
  uint32_t number = 0;
  source.for_each_series({}, [&](uint32_t series, const SeriesName &) { number = series; });
  PointList list;
  const std::vector<Point> &points = list.points;
  source.read(number, {}, list);
  EXPECT_EQ(points.size(), 1u);
  EXPECT_EQ(source.type(number), ValueType::real);
  store.add("m,a=2 f", {100, 2.0});
  store.sweep();
  store.add("m,a=3 f", {100, 3.0});
  ASSERT_EQ(store.find("m,a=3 f"), number) << "the slot was not taken again";
  source.read(number, {}, list);
  EXPECT_EQ(points.size(), 0u);
  EXPECT_EQ(source.type(number), std::nullopt);
}

// Points out of order, some of them at the same time or not numbers, in ranges that cut chunks.
TEST(LiveReading, NewestIsThatOfAllPoints) {
  std::mt19937 random(3);
  const auto below = [&](uint32_t n) { return static_cast<int64_t>(random() % n); };
  uint64_t n_shorter = 0;
  for (int round = 0; round < 60; ++round) {
    Store store;
    store.go_live();
    const auto spread = static_cast<uint32_t>(1 + below(2000));
    for (int64_t i = below(2000); i >= 0; --i)
      store.add("m f", {below(5) + below(spread), below(4) == 0 ? std::nan("") : static_cast<double>(i)});
    const StoreSource source(store);
    uint32_t series = 0;
    source.for_each_series({}, [&](uint32_t number, const SeriesName &) { series = number; });
    for (int i = 0; i < 40; ++i) {
      const int64_t from_ns = below(2000) - 5, to_ns = from_ns + below(2000);
      PointList all, newest;
      source.read(series, {from_ns, to_ns}, all);
      source.read(series, {from_ns, to_ns, true}, newest);
      n_shorter += newest.points.size() < all.points.size() ? 1 : 0;
      const auto last_number = [](const PointList &list) {
        const std::vector<Point> &points = list.points;
        const auto found =
            std::find_if(points.rbegin(), points.rend(), [](auto &point) { return !std::isnan(point.value); });
        return found == points.rend() ? Point{-100, 0.0} : *found;
      };
      EXPECT_EQ(last_number(newest).ts_ns, last_number(all).ts_ns) << round << ": " << from_ns << " to " << to_ns;
      EXPECT_EQ(last_number(newest).value, last_number(all).value) << round << ": " << from_ns << " to " << to_ns;
    }
  }
  EXPECT_NE(n_shorter, 0u) << "all points were read";
}

TEST(SeriesIndex, NamesAreTakenApart) {
  const struct {
    const char *key;
    SeriesName name;
  } rows[] = {
      {"cpu usage", {"cpu", {}, "usage"}},
      {"cpu,b=2,a=1 usage", {"cpu", {{"a", "1"}, {"b", "2"}}, "usage"}},
      {"a\\ b\\,c=d,e\\=f=g\\ h\\,i j\\ k\\=l", {"a b,c=d", {{"e=f", "g h,i"}}, "j k=l"}},
      {"a\\=b,c=d\\e f", {"a\\=b", {{"c", "d\\e"}}, "f"}},
  };
  for (const auto &row : rows) {
    const SeriesName name = series_name_of(row.key);
    EXPECT_EQ(name.measurement, row.name.measurement);
    EXPECT_EQ(name.tags, row.name.tags);
    EXPECT_EQ(name.field, row.name.field);
  }
}

// Against a scan of all keys, with series that come and go, until the index was built again several times.
TEST(SeriesIndex, VisitsWhatAScanFinds) {
  std::mt19937 random(5);
  const auto below = [&](uint32_t n) { return static_cast<uint32_t>(random() % n); };
  SeriesIndex index;
  std::map<uint32_t, std::string> keys;
  for (int step = 0; step < 30'000; ++step) {
    const uint32_t series = below(3000);
    if (keys.erase(series) != 0) {
      index.remove(series);
    } else {
      keys[series] = fmt::format("m{},h={},z={} f{}", below(3), below(50), below(4), below(5));
      index.add(series, static_cast<uint32_t>(step), keys[series]);
    }
    if (step % 1000 != 0) continue;
    const SeriesFilter filters[] = {{},
                                    {"m1", {}, {}},
                                    {{}, "f2", {}},
                                    {"m2", "f3", {{"z", "1"}}},
                                    {{}, {}, {{"h", "7"}, {"z", "2"}}},
                                    {{}, {}, {{"h", "none"}}}};
    for (const SeriesFilter &filter : filters) {
      std::vector<uint32_t> found, expected;
      index.for_each(filter, [&](uint32_t one, uint32_t, const SeriesName &) { found.push_back(one); });
      for (const auto &[one, key] : keys) {
        const SeriesName name = series_name_of(key);
        const bool has_tags = std::all_of(filter.tags.begin(), filter.tags.end(), [&](const auto &tag) {
          return std::find(name.tags.begin(), name.tags.end(), tag) != name.tags.end();
        });
        if (has_tags && filter.measurement.value_or(name.measurement) == name.measurement &&
            filter.field.value_or(name.field) == name.field)
          expected.push_back(one);
      }
      ASSERT_EQ(found, expected) << "step " << step;
    }
  }
}

// Also for a visit that waits for the lock between two batches, while the index is built again.
TEST(SeriesIndex, TextsOfRemovedSeriesAreReleased) {
  constexpr uint32_t N = 20'000, N_LEFT = 1'000;
  SeriesIndex index;
  const auto key_of = [](uint32_t series) { return fmt::format("m,h={} f", series); };
  for (int round = 0; round < 3; ++round) {
    for (uint32_t series = round == 0 ? 0 : N_LEFT; series < N; ++series) index.add(series, 1, key_of(series));
    EXPECT_EQ(index.n_texts(), N + 3);
    uint32_t n_seen = 0;
    std::thread removing;
    index.for_each({"m", "f", {}}, [&](uint32_t series, uint32_t, const SeriesName &name) {
      EXPECT_EQ(name.tags.at(0).second, std::to_string(series));
      if (++n_seen != 1) return;
      removing = std::thread([&] {
        for (uint32_t i = N_LEFT; i < N; ++i) index.remove(i);
      });
    });
    removing.join();
    EXPECT_GE(n_seen, N_LEFT);
    EXPECT_LE(index.n_texts(), 3 + 2 * N_LEFT + 4096);
  }
}

}  // namespace metricdb
