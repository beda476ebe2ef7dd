// Inputs of a store, full pools, and reports.

#include <limits>

#include "cli/input.h"
#include "extent.h"
#include "extra/proc_sampler.h"
#include "metricdb_support.h"
#include "query/report.h"

TEST(Store, FullPoolStopsALoadAtItsLine) {
  Store store({.key_slot_bytes = 64, .point_slot_bytes = 1 << 20});
  std::string text;
  for (int i = 0; i < 256; ++i) text += fmt::format("measurement,number={:010} field=1 5\n", i);
  EXPECT_THAT([&] { load(store, text); }, testing::Throws<LoadStopped>(testing::Property(&LoadStopped::line, 256u)));
  EXPECT_EQ(store.n_series(), 255u);
  load(store, "measurement,number=0000000254 field=2 6\n");
  EXPECT_EQ(shown(points_of(store, 254)), "1@5 2@6 ");
  EXPECT_THROW(store.series_of(std::string(64, 'k')), StoreFull) << "longer than a slot";
}

// The chunks at the end of a chain are joined, and an end of the database joins them with the open points: the chain stays short
// whether points come all at once or a few between two openings. The slots of what was joined become free.
TEST(Store, ChainsAreJoinedAndPacked) {
  for (const int per_opening : {100'000, 700, 37 * EVERY}) {
    SCOPED_TRACE(per_opening);
    constexpr uint32_t N_SERIES = 5;
    constexpr int N_POINTS = 6'000;
    const StoreConfig config = {.point_slot_bytes = 1 << 14};
    std::optional<Store> store(std::in_place, config);
    std::string text;
    for (int i = 0; i < N_POINTS; ++i) {
      for (uint32_t s = 0; s < N_SERIES; ++s) {
        const std::string line = fmt::format("m,n={} f={} {}\n", s, i * (s + 7) % 101, i);
        load(*store, line);
        text += line;
      }
      if (i % per_opening != per_opening - 1) continue;
      EXPECT_EQ(store->pack(0), N_SERIES);
      EXPECT_TRUE(store->compact(true));
    }
    const uint32_t long_chunks = N_POINTS / 1'500;
    for (uint32_t s = 0; s < N_SERIES; ++s) EXPECT_LE(store->record(s).n_sealed(), long_chunks + 16);
    EXPECT_EQ(store->pack(0), N_SERIES);
    for (uint32_t s = 0; s < N_SERIES; ++s) {
      EXPECT_LE(store->record(s).n_sealed(), long_chunks + 1);
      EXPECT_EQ(store->record(s).flags() & SERIES_HAS_OPEN, 0);
    }
    EXPECT_TRUE(store->compact(true));
    const PoolBytes bytes = store->point_bytes();
    EXPECT_LE(bytes.deleted, bytes.used / 10 + config.point_slot_bytes);
    expect_checked(checked(*store, text), N_SERIES * N_POINTS, 0, "");
    store->add("m,n=0 f", {N_POINTS, 1.0});
    EXPECT_EQ(store->record(0).n_open(), 1u);
  }
}

// The points of a short series are in one sealed chunk, which grows in place, and a small open one.
TEST(Store, ShortSeriesTakeLittleMemory) {
  constexpr uint32_t N_SERIES = 200;
  const struct {
    uint32_t n_points;
    uint64_t max_bytes;  // of a series, with what was deleted
  } rows[] = {{1, 150}, {9, 270}, {33, 270}, {64, 900}, {128, 3'200}};
  Store store;
  std::string text;
  uint32_t n_points = 0;
  for (const auto &row : rows) {
    for (; n_points < row.n_points; ++n_points)
      for (uint32_t s = 0; s < N_SERIES; ++s) {
        const std::string line = fmt::format("m,n={} f={} {}\n", s, 50 + (n_points * (s + 7) % 5), n_points * 10);
        load(store, line);
        text += line;
      }
    EXPECT_LE(store.point_bytes().used / N_SERIES, row.max_bytes) << row.n_points;
    EXPECT_LE(store.record(0).n_sealed(), 1u);
    expect_checked(checked(store, text), N_SERIES * n_points, 0, "");
  }
}

using Files = Folder;

TEST_F(Files, InputIsReadTwiceOrHeld) {
  write_file(path("a.lp"), "m f=1 1\n");
  Input file(path("a.lp"));
  EXPECT_EQ(file.text(), "m f=1 1\n");
  file.release(true);
  write_file(path("a.lp"), "m f=2 1\n");
  EXPECT_EQ(file.text(), "m f=2 1\n") << "the second pass must read the file again";

  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  ASSERT_EQ(::write(ends[1], "m f=3 1\n", 8), 8);
  close(ends[1]);
  Input piped(fmt::format("/dev/fd/{}", ends[0]));
  EXPECT_EQ(piped.text(), "m f=3 1\n");
  close(ends[0]);
  piped.release(true);
  EXPECT_EQ(piped.text(), "m f=3 1\n") << "a pipe can be read only once";
}

TEST_F(Files, ProcSamplerSkipsUnusedDevices) {
  for (const char *folder : {"net", "self"}) fs::create_directory(path(folder));
  const auto write = [this](const char *name, const char *text) { write_file(path(name), text); };
  write("stat", "cpu  10 1 20 60 5 1 1 2 0 0\ncpu0 10 1 20 60 5 1 1 2 0 0\nintr 5 0 0\nctxt 1\n");
  write("loadavg", "0.50 0.25 0.05 2/83 3968\n");
  write("meminfo", "MemTotal:  100 kB\nMemFree:   40 kB\nBuffers:  1 kB\n");
  write("vmstat", "pgpgin 5\npgfault 7\n");
  write("net/dev",
        "Inter-| Receive | Transmit\n face |bytes packets|bytes\n"
        "  eth0:18 2 1 0 0 0 0 0 24 3 1 0 0 0 0 0\n  ifb0: 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0\n");
  write("diskstats",
        " 7 0 loop0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0\n 8 0 sda 1 0 2 0 3 0 4 0 5 6 7 0 0 0 0 0 0\n"
        " 8 1 sda1 1 0 2 0 3 0 4 0 5 6 7 0 0 0 0 0 0\n");
  write("self/stat", "1 (a ) b) R 1 1 1 0 -1 1 101 0 0 0 31 32 0 0 20 0 1 0 5 3133440 342 18 1 1 1\n");
  ProcSampler sampler("my host", root_.string());
  std::string text;
  sampler.sample(1, text);
  EXPECT_EQ(text,
            "cpu,host=my\\ host,core=all user=10i,system=20i,idle=60i,iowait=5i,steal=2i 1\n"
            "cpu,host=my\\ host,core=0 user=10i,system=20i,idle=60i,iowait=5i,steal=2i 1\n"
            "load,host=my\\ host load1=0.5,load5=0.25,load15=0.05,runnable=2i,threads=83i 1\n"
            "mem,host=my\\ host total=102400i,free=40960i 1\n"
            "paging,host=my\\ host in_kib=5i,faults=7i 1\n"
            "net,host=my\\ host,interface=eth0 "
            "rx_bytes=18i,rx_packets=2i,rx_errors=1i,tx_bytes=24i,tx_packets=3i,tx_errors=1i 1\n"
            "disk,host=my\\ host,device=sda "
            "reads=1i,sectors_read=2i,writes=3i,sectors_written=4i,in_flight=5i,busy_ms=6i 1\n"
            "self,host=my\\ host minor_faults=101i,user=31i,system=32i,rss_pages=342i 1\n");

  text.clear();
  write("stat", "cpu  35 1 20 130 10 1 1 2 0 0\n");
  for (const char *name : {"loadavg", "meminfo", "vmstat", "net/dev", "diskstats", "self/stat"}) write(name, "\n ? \n");
  sampler.sample(2, text);
  EXPECT_EQ(text, "cpu,host=my\\ host,core=all user=35i,system=20i,idle=130i,iowait=10i,steal=2i,busy=25.0 2\n");
}

TEST(Report, Sparkline) {
  constexpr double BIG = std::numeric_limits<double>::max();
  static const struct {
    const char *fault;
    std::vector<double> values;
    const char *line;
  } rows[] = {
      {"no values", {}, ""},
      {"all alike divide by zero", {3, 3, 3}, "▅▅▅"},
      {"a level missing or twice", {0, 1, 2, 3, 4, 5, 6, 7}, "▁▂▃▄▅▆▇█"},
      {"the largest beyond the last level", {0, 1}, "▁█"},
      {"offset counts as height", {1000, 1001, 1002}, "▁▅█"},
      {"the span is infinite as a double", {-BIG, 0, BIG}, "▁▅█"},
  };
  for (const auto &row : rows) EXPECT_EQ(sparkline(row.values), row.line) << row.fault;
}

TEST(Report, SeriesTable) {
  std::string text = "cpu,core=1 user=-1.5 1\ncpu,core=0 user=250000 1\nmem free=1 1\n";
  for (int i = 0; i < 64; ++i) text += fmt::format("cpu,core=0 user={} 1\n", i < 32 ? 0 : 100);
  Store store;
  load(store, text);
  // 65 points in 32 cells. Only the first cell contains the large value.
  std::string spark = "█";
  for (int i = 1; i < 32; ++i) spark += "▁";
  EXPECT_EQ(series_table(store, "cpu,core=? *"),
            "series           count   min     max     mean  last  in order of arrival\n"
            "cpu,core=0 user     65     0  250000  3895.38   100  " +
                spark +
                "\n"
                "cpu,core=1 user      1  -1.5    -1.5     -1.5  -1.5  ▅\n");
  EXPECT_EQ(series_table(store, "*core"), "no series matches *core\n");
}
