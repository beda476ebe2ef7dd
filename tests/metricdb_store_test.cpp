// metricdb without its command line: the two readers of line protocol, the store on tslb's arrays, the check
// that compares them, and what is printed.
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <bit>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <random>

#include "check.h"
#include "input.h"
#include "line_protocol.h"
#include "loader.h"
#include "metricdb_support.h"
#include "proc_sampler.h"
#include "reference_reader.h"
#include "report.h"
#include "store.h"

namespace metricdb {
namespace {

constexpr int64_t NOW_NS = 77;

// ---- Line protocol ----

// The points of a line as both readers can tell them: "key=value@time" each, by what they mean for the store.
std::string points_text(std::string_view text, Precision precision = Precision::ns) {
  LineParser parser(precision);
  if (parser.parse(text) != LineParser::Outcome::line) return "";
  std::string shown;
  for (const ParsedField &field : parser.line().fields)
    shown +=
        fmt::format("{} {}={}@{}|", parser.line().head, field.key, field.value, parser.line().ts_ns.value_or(NOW_NS));
  return shown;
}

std::string reference_text(std::string_view text, Precision precision = Precision::ns) {
  std::string shown;
  for (const ReferencePoint &point : reference_points(text, static_cast<int64_t>(precision), NOW_NS))
    shown += fmt::format("{}={}@{}|", point.key, point.value, point.ts_ns);
  return shown;
}

TEST(LineProtocol, GoodLines) {
  static const struct {
    const char *fault;  // what the row would catch
    const char *line;
    const char *points;
    uint32_t strings_skipped;
  } rows[] = {
      {"time or its sign lost", "m f=1 -5", "m f=1@-5|", 0},
      {"missing time is not now", "m f=1", "m f=1@77|", 0},
      {"blanks around the parts matter", "  m   f=1   5  ", "m f=1@5|", 0},
      {"tags keep the line's order", "m,b=1,a=2,c=0 f=1 5", "m,a=2,b=1,c=0 f=1@5|", 0},
      {"fields lose their order", "m,a=2 z=1,b=2.5 5", "m,a=2 z=1@5|m,a=2 b=2.5@5|", 0},
      {"escaped bytes end a name", R"(m\,\ x,t\=\,\ k=v\ \,\= f\=\ \,=1 5)", R"(m\,\ x,t\=\,\ k=v\ \,\= f\=\ \,=1@5|)",
       0},
      {"equals sign ends a measurement", R"(m=\=,a=2 f=1 5)", R"(m=\=,a=2 f=1@5|)", 0},
      {"a backslash alone escapes", R"(m\n,a=\\b\,c\x f=1 5)", R"(m\n,a=\\b\,c\x f=1@5|)", 0},
      {"integers", "m a=1i,b=-9223372036854775808i,c=18446744073709551615u 5",
       "m a=1@5|m b=-9.223372036854776e+18@5|m c=1.8446744073709552e+19@5|", 0},
      {"floats", "m a=-.5,b=5.,c=1e3,d=1E-3,e=-0,f=4.9e-324 5",
       "m a=-0.5@5|m b=5@5|m c=1000@5|m d=0.001@5|m e=-0@5|m f=5e-324@5|", 0},
      {"one spelling of a boolean is missing", "m a=t,b=T,c=true,d=True,e=TRUE 5",
       "m a=1@5|m b=1@5|m c=1@5|m d=1@5|m e=1@5|", 0},
      {"or of the other", "m a=f,b=F,c=false,d=False,e=FALSE 5", "m a=0@5|m b=0@5|m c=0@5|m d=0@5|m e=0@5|", 0},
      {"a string's bytes end it", R"(m a="x, \"y\"=1 \\",b=2,c="" 5)", "m b=2@5|", 2},
      {"a line of strings alone is malformed", R"(m a="x" 5)", "", 1},
      {"names beyond ASCII", "Temperatur,ort=Zürich grad=1 5", "Temperatur,ort=Zürich grad=1@5|", 0},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    LineParser parser(Precision::ns);
    EXPECT_EQ(parser.parse(row.line), LineParser::Outcome::line) << parser.reason();
    EXPECT_EQ(parser.line().strings_skipped, row.strings_skipped);
    EXPECT_EQ(points_text(row.line), row.points);
    EXPECT_EQ(reference_text(row.line), row.points);
  }
  LineParser parser(Precision::ns);
  for (const char *line : {"", "   ", "# m f=1 5", "  #"})
    EXPECT_EQ(parser.parse(line), LineParser::Outcome::nothing) << line;
}

TEST(LineProtocol, MalformedLinesAndTheirReasons) {
  static const struct {
    const char *line;
    const char *reason;
  } rows[] = {
      {",a=1 f=1", "no measurement"},
      {"\tm f=1", "control character in the measurement"},
      {"m\tf=1", "control character behind \"m\""},
      {"m,a=x\x7f f=1", "control character behind \"m,a=x\""},
      {"m, f=1", "a tag has no name"},
      {"m,=x f=1", "a tag has no name"},
      {"m,a f=1", "tag \"a\" has no value"},
      {"m,a= f=1", "tag \"a\" has no value"},
      {"m,a=x=y f=1", "tag \"a\" has a second equals sign"},
      {"m,a=x,b=y,a=z f=1", "tag \"a\" is given twice"},
      {"m", "no fields"},
      {"m,a=x\\ f=1", "tag \"a\" has a second equals sign"},
      {"m =1", "a field has no name"},
      {"m f=1,", "a field has no name"},
      {"m f", "field \"f\" has no value"},
      {"m f= 5", "field \"f\" has no value"},
      {"m g=1,f=,h=1 5", "field \"f\" has no value"},
      {"m f=\"x 5", "the string of field \"f\" has no closing quote"},
      {"m f=\"x\\\" 5", "the string of field \"f\" has no closing quote"},
      {"m f=\"x\"y 5", "text behind the string of field \"f\""},
      {"m f=1x 5", "field \"f\": \"1x\" is no number, boolean or string"},
      {"m f=+1 5", "field \"f\": \"+1\" is no number, boolean or string"},
      {"m f=0x1 5", "field \"f\": \"0x1\" is no number, boolean or string"},
      {"m f=nan 5", "field \"f\": \"nan\" is no number, boolean or string"},
      {"m f=-inf 5", "field \"f\": \"-inf\" is no number, boolean or string"},
      {"m f=1e 5", "field \"f\": \"1e\" is no number, boolean or string"},
      {"m f=i 5", "field \"f\": \"i\" is no number, boolean or string"},
      {"m f=1.5i 5", "field \"f\": \"1.5i\" is no number, boolean or string"},
      {"m f=-1u 5", "field \"f\": \"-1u\" is no number, boolean or string"},
      {"m f=TrUe 5", "field \"f\": \"TrUe\" is no number, boolean or string"},
      {"m f=9223372036854775808i 5", "field \"f\": \"9223372036854775808i\" is out of range"},
      {"m f=1e400 5", "field \"f\": \"1e400\" is out of range"},
      {"m f=1e-400 5", "field \"f\": \"1e-400\" is out of range"},
      {"m f=1 5s", "timestamp \"5s\" is no integer"},
      {"m f=1 9223372036854775808", "timestamp \"9223372036854775808\" is out of range"},
      {"m f=1 5 6", "text behind the timestamp"},
      {"m fffffffffffffffffffffffffffffffffffffffffffffffffff",
       "field \"ffffffffffffffffffffffffffffffffffffffff...\" has no value"},
      {"m f=\x1b[31m 5", "field \"f\": \"?[31m\" is no number, boolean or string"},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.line);
    LineParser parser(Precision::ns);
    EXPECT_EQ(parser.parse(row.line), LineParser::Outcome::malformed);
    EXPECT_EQ(parser.reason(), row.reason);
    EXPECT_EQ(reference_text(row.line), "");
  }
}

TEST(LineProtocol, PrecisionScalesUpToTheLastNanosecond) {
  EXPECT_EQ(points_text("m f=1 7", Precision::us), "m f=1@7000|");
  EXPECT_EQ(points_text("m f=1 -7", Precision::ms), "m f=1@-7000000|");
  for (const char *line : {"m f=1 9223372036", "m f=1 9223372037", "m f=1 -9223372037"})
    EXPECT_EQ(points_text(line, Precision::s), reference_text(line, Precision::s)) << line;
  EXPECT_EQ(points_text("m f=1 9223372036", Precision::s), "m f=1@9223372036000000000|");
  EXPECT_EQ(points_text("m f=1 9223372037", Precision::s), "");
}

// A good line with up to four edits. Two readers that were written apart agree on each.
std::string damaged_line(std::mt19937 &random) {
  static const std::string_view good[] = {R"(m,b=x\ y,a=1 f=1.5,g=2i 5)", R"(m f="q \" \\",h=t,i=-0.25e2)",
                                          R"(m\,1,c=2,a=\=,b=3 f\ 1=7u 12)"};
  static const std::string_view pieces[] = {"=", ",", " ", "\\", "\"", "1", ".", "-", "i", "u", "e2", "\t", "\xff", ""};
  std::string line(good[random() % std::size(good)]);
  for (size_t n = random() % 5; n > 0; --n)
    line.replace(random() % line.size(), random() % 2, pieces[random() % std::size(pieces)]);
  return line;
}

TEST(LineProtocol, BothReadersAgreeOnDamagedLines) {
  constexpr uint32_t SEED = 20240611;
  constexpr int N_LINES = 100'000;
  std::mt19937 random(SEED);
  int n_with_points = 0;
  for (int i = 0; i < N_LINES; ++i) {
    const std::string line = damaged_line(random);
    const std::string points = points_text(line);
    n_with_points += points.empty() ? 0 : 1;
    ASSERT_EQ(points, reference_text(line)) << "seed " << SEED << ", line " << i << ": " << line;
    // A key with a value behind it is a line again, with the same key.
    for (const ReferencePoint &point : reference_points(line, 1, NOW_NS))
      ASSERT_EQ(points_text(point.key + "=1"), point.key + "=1@77|");
  }
  EXPECT_GT(n_with_points, N_LINES / 4) << "too few lines survive for this to show anything";
  EXPECT_LT(n_with_points, N_LINES * 3 / 4) << "too few lines are damaged";
}

// ---- Store ----
//
// Records lie unaligned: their fields are compared as copies, never by reference.

std::vector<Point> points_of(const Store &store, uint32_t series) {
  std::vector<Point> points;
  PointCursor cursor(store, series);
  for (Point point; cursor.next(point);) points.push_back(point);
  return points;
}

TEST(Store, ChainsKeepEachSeriesInOrderAcrossChunks) {
  // Open chunks grow behind 8 and 32 points and are sealed behind each 128; slots of 3,000 bytes hold few chunks, so
  // chains cross slots too.
  static const uint64_t counts[] = {1, 7, 8, 9, 31, 32, 33, 127, 128, 129, 256, 257, 3000};
  static const uint32_t n_sealed[] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 2, 23};
  Store store({.key_slot_bytes = 3000, .point_slot_bytes = 3000});
  for (const uint64_t count : counts) store.series_of(fmt::format("m,n={} f", count));
  for (uint64_t i = 0; i < 3000; ++i)
    for (uint32_t series = 0; series < std::size(counts); ++series)
      if (i < counts[series]) store.append(series, {static_cast<int64_t>(i), i * 0.5 + series});

  for (uint32_t series = 0; series < std::size(counts); ++series) {
    SCOPED_TRACE(counts[series]);
    EXPECT_EQ(store.record(series).n_points(), counts[series]);
    EXPECT_EQ(store.record(series).n_sealed(), n_sealed[series]);
    const std::vector<Point> points = points_of(store, series);
    ASSERT_EQ(points.size(), counts[series]);
    for (uint64_t i = 0; i < points.size(); ++i) {
      ASSERT_EQ(points[i].ts_ns, static_cast<int64_t>(i));
      ASSERT_EQ(points[i].value, i * 0.5 + series);
    }
  }
}

TEST(Store, KeysAreFoundAgainAndLeadBackToTheirRecords) {
  Store store;
  const std::string longest(Store::LONGEST_KEY, 'k');
  const std::string keys[] = {"m f", "m,a=1 f", "m f2", longest};
  for (uint32_t i = 0; i < std::size(keys); ++i) EXPECT_EQ(store.series_of(keys[i]), i);
  for (uint32_t i = 0; i < std::size(keys); ++i) {
    EXPECT_EQ(store.series_of(keys[i]), i);
    EXPECT_EQ(store.key(i), keys[i]);
    EXPECT_EQ(store.key(i).data()[keys[i].size()], '\0');
    EXPECT_EQ(store.record(i).flags(), SERIES_READY);
    EXPECT_TRUE(points_of(store, i).empty());
    compat_t header;
    std::memcpy(&header, store.key(i).data() - sizeof header, sizeof header);
    EXPECT_EQ(uint32_t{header.srcaddr.tbl_id}, store.catalogue()->tbl_id);
    EXPECT_EQ(uint32_t{header.srcaddr.tbl_idx}, i);
    EXPECT_EQ(short{header.srcaddr.tbl_moff}, static_cast<short>(KEY_REFERENCE));
  }
  EXPECT_THROW(store.series_of(longest + "k"), StoreFull);
  EXPECT_EQ(store.n_series(), std::size(keys));
}

// The library ends the process when a pool runs out of addresses: the store refuses ahead of that.
TEST(Store, PointsAreRefusedWhenTheirPoolIsFull) {
  // A slot holds the open chunk of 128 points, or one sealed one of points that cannot be encoded in less; the first
  // two of the open chunk's sizes share the first slot, and when they are gone it takes a sealed one too.
  Store store({.key_slot_bytes = 1 << 10, .point_slot_bytes = 2064});
  const uint32_t series = store.series_of("m f");
  constexpr uint64_t ROOM = 2040 * SEALED_POINTS;
  testing::internal::CaptureStderr();  // the pool warns on its way
  for (uint64_t i = 0; i < ROOM; ++i) store.append(series, {static_cast<int64_t>(i), noise(i)});
  testing::internal::GetCapturedStderr();
  for (int attempt = 0; attempt < 3; ++attempt) {
    try {
      store.append(series, {0, 0.0});
      FAIL() << "a point was taken beyond the last slot";
    } catch (const StoreFull &full) {
      EXPECT_STREQ(full.what(), "no room for more points: all 2040 memory slots of 2064 bytes are full");
    }
  }
  const std::vector<Point> points = points_of(store, series);
  ASSERT_EQ(points.size(), ROOM);
  EXPECT_EQ(points.back().value, noise(ROOM - 1));
  EXPECT_EQ(store.record(series).n_points(), ROOM);
  EXPECT_EQ(store.n_points(), ROOM);
}

TEST(Store, KeysAreRefusedWhenTheirPoolIsFull) {
  Store store({.key_slot_bytes = 64, .point_slot_bytes = 1 << 20});
  Loader loader(store, Loader::WhenFull::stop, [](uint64_t, const std::string &reason) { ADD_FAILURE() << reason; });
  std::string text;
  for (int i = 0; i < 256; ++i) text += fmt::format("measurement,number={:010} field=1 5\n", i);
  try {
    loader.load(text, Precision::ns, NOW_NS);
    FAIL() << "a 256th key found room in 255 slots";
  } catch (const LoadStopped &stopped) {
    EXPECT_EQ(stopped.line(), 256u);
    EXPECT_STREQ(stopped.what(), "no room for more series keys: all 255 memory slots of 64 bytes are full");
  }
  EXPECT_EQ(store.n_series(), 255u);
  loader.load("measurement,number=0000000254 field=2 6\n", Precision::ns, NOW_NS);
  EXPECT_EQ(points_of(store, 254).size(), 2u);
  EXPECT_THROW(store.series_of(std::string(64, 'k')), StoreFull) << "longer than a slot";
}

// ---- Loading and checking ----

struct Loaded {
  Store store;
  LoadStats stats;
  std::vector<std::string> messages;

  explicit Loaded(std::string_view text) {
    Loader loader(store, Loader::WhenFull::stop, [this](uint64_t line, const std::string &reason) {
      messages.push_back(fmt::format("{}: {}", line, reason));
    });
    loader.load(text, Precision::ns, NOW_NS);
    stats = loader.stats();
  }
};

TEST(Loader, SkipsMalformedLinesAsAWhole) {
  const std::string long_field(Store::LONGEST_KEY - 1, 'f');  // one byte too many with "m "
  const Loaded loaded("# a comment\r\n\r\nm a=1,s=\"x\" 1\r\nm a=2,b=3,load 2\nm a=4,b=\"y\n m a=5,b=6\nm a=7," +
                      long_field + "=8\nm a=9 3");
  EXPECT_EQ(loaded.messages, (std::vector<std::string>{"4: field \"load\" has no value",
                                                       "5: the string of field \"b\" has no closing quote",
                                                       "7: a series key is longer than 65534 bytes"}));
  EXPECT_EQ(loaded.stats.lines, 8u);
  EXPECT_EQ(loaded.stats.malformed, 3u);
  EXPECT_EQ(loaded.stats.strings_skipped, 1u) << "strings of a skipped line count for nothing";
  EXPECT_EQ(loaded.stats.points, 4u);
  ASSERT_EQ(loaded.store.n_series(), 2u);
  std::string shown;
  for (const Point &point : points_of(loaded.store, 0)) shown += fmt::format("{}@{} ", point.value, point.ts_ns);
  EXPECT_EQ(shown, "1@1 5@77 9@3 ");
}

TEST(Check, FindsWhatDiffers) {
  static const struct {
    const char *fault;  // as if this had gone wrong between text and arrays
    const char *text;
    uint64_t n_matching, n_differences;
    const char *first;
  } rows[] = {
      {"nothing", "m f=1 1\nm f=2 2\nm g=0 1\n", 3, 0, ""},
      {"order between series is free", "m g=0 1\nm f=1 1\nm f=2 2\n", 3, 0, ""},
      {"a value", "m f=1 1\nm f=2.5 2\nm g=0 1\n", 2, 1, "series \"m f\", point 1: expected 2.5 at 2, found 2 at 2"},
      {"a time", "m f=1 1\nm f=2 3\nm g=0 1\n", 2, 1, "series \"m f\", point 1: expected 2 at 3, found 2 at 2"},
      {"a sign that == forgives", "m f=1 1\nm f=2 2\nm g=-0 1\n", 2, 1,
       "series \"m g\", point 0: expected -0 at 1, found 0 at 1"},
      {"order of arrival", "m f=2 2\nm f=1 1\nm g=0 1\n", 1, 2,
       "series \"m f\", point 0: expected 2 at 2, found 1 at 1"},
      {"a lost point", "m f=1 1\nm f=2 2\nm g=0 1\nm f=3 3\n", 3, 1,
       "series \"m f\", point 2: expected 3 at 3, found none"},
      {"a point from nowhere", "m f=1 1\nm g=0 1\n", 2, 1, "series \"m f\", point 1: expected none, found 2 at 2"},
      {"a lost series", "m f=1 1\nm f=2 2\nm g=0 1\nm h=1 1\n", 3, 1,
       "series \"m h\": expected 1 at 1, found no such series"},
  };
  const Loaded loaded("m f=1 1\nm f=2 2\nm g=0 1\n");
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    Check check(loaded.store, Precision::ns, NOW_NS);
    check.compare(row.text);
    check.finish();
    EXPECT_EQ(check.n_matching(), row.n_matching);
    EXPECT_EQ(check.n_differences(), row.n_differences);
    EXPECT_EQ(check.first_differences().empty() ? "" : check.first_differences()[0], row.first);
  }
}

TEST(Check, FindsOneFlippedBitInAChunk) {
  std::string text;
  for (int i = 0; i < 500; ++i) text += fmt::format("m f={} {}\n", i, i);
  const Loaded loaded(text);
  const SeriesRecord record = loaded.store.record(0);
  auto *const open = static_cast<char *>(tslb_dynmem_get_maddr2ptr(loaded.store.points(), record.open()));
  open[offsetof(Point, value)] ^= 1;
  Check check(loaded.store, Precision::ns, NOW_NS);
  check.compare(text);
  check.finish();
  EXPECT_EQ(check.n_matching(), 499u);
  EXPECT_EQ(check.n_differences(), 1u);
}

// ---- Inputs and output ----

class Files : public testing::Test {
 protected:
  void SetUp() override {
    char name[] = "/tmp/metricdb_test_XXXXXX";
    ASSERT_NE(mkdtemp(name), nullptr);
    folder_ = name;
  }
  void TearDown() override { std::filesystem::remove_all(folder_); }
  void write(const std::string &name, const std::string &text) {
    std::filesystem::create_directories((folder_ / name).parent_path());
    std::ofstream(folder_ / name) << text;
  }
  std::filesystem::path folder_;
};

TEST_F(Files, InputIsReadTwiceOrKept) {
  write("a.lp", "m f=1 1\n");
  Input file((folder_ / "a.lp").string());
  EXPECT_EQ(file.text(), "m f=1 1\n");
  file.release(true);
  write("a.lp", "m f=2 1\n");
  EXPECT_EQ(file.text(), "m f=2 1\n") << "a second pass must see the file, not a copy";

  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  ASSERT_EQ(::write(ends[1], "m f=3 1\n", 8), 8);
  close(ends[1]);
  Input piped(fmt::format("/dev/fd/{}", ends[0]));
  EXPECT_EQ(piped.text(), "m f=3 1\n");
  close(ends[0]);
  piped.release(true);
  EXPECT_EQ(piped.text(), "m f=3 1\n") << "a pipe gives its text only once";
}

TEST_F(Files, InputSaysWhyItCannotBeRead) {
  for (const auto &[path, reason] :
       {std::pair<std::string, std::string>{(folder_ / "none").string(), "No such file or directory"},
        {folder_.string(), "Is a directory"}}) {
    try {
      Input(path).text();
      FAIL() << path;
    } catch (const InputError &error) {
      EXPECT_EQ(error.what(), path + ": cannot be read: " + reason);
    }
  }
  EXPECT_EQ(Input("-").name(), "stdin");
}

TEST_F(Files, ProcSamplerReadsCountersAndSkipsTheSilent) {
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
  ProcSampler sampler("my host", folder_.string());
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
  const Loaded loaded(text);
  // 65 points in 32 cells; only the first holds the large value.
  std::string spark = "█";
  for (int i = 1; i < 32; ++i) spark += "▁";
  EXPECT_EQ(series_table(loaded.store, "cpu,core=? *"),
            "series           count   min     max     mean  last  in order of arrival\n"
            "cpu,core=0 user     65     0  250000  3895.38   100  " +
                spark +
                "\n"
                "cpu,core=1 user      1  -1.5    -1.5     -1.5  -1.5  ▅\n");
  EXPECT_EQ(series_table(loaded.store, "*core"), "no series matches *core\n");
}

TEST(Report, SummaryCountsEveryByte) {
  const Loaded loaded("m f=1 1\nm f=2 2\n");
  // One record with two nodes of 8 bytes, one key chunk, one chunk of 8 points, three times the headers.
  const uint64_t headers = (8 + 60 + 16) + 2 * (8 + 56 + 60 + 16);
  EXPECT_EQ(loaded.store.bytes_in_use(), headers + (100 + 16) + (16 + 4) + (16 + 8 * 16));
  const std::string summary = load_summary(loaded.store, loaded.stats, {}, 0.5);
  EXPECT_NE(summary.find("\npoints per s     4 (0.500 s"), summary.npos) << summary;
  EXPECT_NE(summary.find(fmt::format("\nbytes per point  {:.2f} in use", loaded.store.bytes_in_use() / 2.0)),
            summary.npos)
      << summary;
}

}  // namespace
}  // namespace metricdb
