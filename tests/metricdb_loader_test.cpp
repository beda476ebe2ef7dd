// Loading by heads: lines that are like those before them, and lines that are not.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "check.h"
#include "loader.h"
#include "reference_reader.h"
#include "series_cache.h"
#include "store.h"

namespace metricdb {
namespace {

constexpr int64_t NOW_NS = 77;

void expect_loaded(std::string_view text) {
  Store store;
  Loader loader(store, Loader::WhenFull::stop, [](uint64_t, const std::string &reason) { ADD_FAILURE() << reason; });
  loader.load(text, Precision::ns, NOW_NS);
  Check check(store, Precision::ns, NOW_NS);
  check.compare(text);
  check.finish();
  EXPECT_EQ(check.n_differences(), 0u) << check.first_differences().front();
  EXPECT_EQ(check.n_matching(), loader.stats().points);
}

TEST(Loader, LinesLikeTheLastOfTheirHeadAndOthers) {
  static const struct {
    const char *fault;  // what the row would catch
    const char *text;
  } rows[] = {
      {"a field's place decides", "m a=1,b=2 1\nm b=3,a=4 2\nm a=5,b=6 3\n"},
      {"a missing field moves the others", "m a=1,b=2,c=3 1\nm a=4,c=5 2\nm a=6,b=7,c=8 3\n"},
      {"a new field joins the last one's series", "m a=1 1\nm a=2,b=3 2\nm c=4,a=5,b=6 3\n"},
      {"a field given twice", "m a=1,a=2 1\nm a=3,a=4 2\nm a=5,b=6 3\n"},
      {"names that begin alike", "m a=1,aa=2 1\nm aa=3,a=4 2\nm aaa=5,aa=6 3\n"},
      {"heads that begin alike", "m,t=1 a=1 1\nm,t=11 a=2 2\nm a=3 3\nm,t=1 a=4 4\n"},
      {"tags in another order are another source", "m,t=1,u=2 a=1,b=2 1\nm,u=2,t=1 a=3,b=4 2\n"},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    expect_loaded(row.text);
  }
}

TEST(Loader, RandomLinesOfAFewSources) {
  constexpr uint32_t SEED = 20260103;
  std::mt19937 random(SEED);
  std::string text;
  for (int i = 0; i < 20'000; ++i) {
    text += fmt::format("m,source={} ", random() % 20);
    // Mostly the fields of the source's last line, in their order.
    const uint32_t shape = random() % 10 == 0 ? random() : 0;
    for (uint32_t field = 0; field < 5 + shape % 3; ++field)
      text += fmt::format("{}f{}={}i", field == 0 ? "" : ",", (field + shape) % 7, random() % 1000);
    text += fmt::format(" {}\n", i);
  }
  SCOPED_TRACE(SEED);
  expect_loaded(text);
}

TEST(SeriesCache, KeepsTheLastFieldsOfAHeadWithinItsBytes) {
  constexpr size_t MOST_BYTES = 100'000;
  SeriesCache cache(MOST_BYTES);
  size_t most_heads = 0;
  for (uint32_t i = 0; i < 10'000; ++i) {
    const std::string head = fmt::format("m,host={:030}", i);
    const std::string names[] = {fmt::format("shared{}", i % 3), fmt::format("own{}", i)};
    EXPECT_TRUE(cache.fields_of(head).empty());
    for (const uint32_t series : {i, i + 1}) {
      const SeriesCache::Field fields[] = {{names[0], series}, {names[1], 7}};
      cache.keep(head, fields);
      const auto kept = cache.fields_of(head);
      ASSERT_EQ(kept.size(), 2u);
      EXPECT_EQ(kept[0].name, names[0]);
      EXPECT_EQ(kept[0].series, series);
      EXPECT_EQ(kept[1].name, names[1]);
      EXPECT_NE(kept[1].name.data(), names[1].data()) << "the line's own text, which goes with it";
    }
    most_heads = std::max(most_heads, cache.n_heads());
  }
  EXPECT_LT(most_heads, MOST_BYTES / 200);
  EXPECT_GT(most_heads, MOST_BYTES / 500) << "bytes are counted twice";
  cache.clear();
  EXPECT_EQ(cache.n_heads(), 0u);
}

std::string shown(LineParser &parser, LineParser::Outcome outcome) {
  if (outcome == LineParser::Outcome::nothing) return "nothing";
  if (outcome == LineParser::Outcome::malformed) return parser.reason();
  std::string text = std::string(parser.line().head);
  for (const ParsedField &field : parser.line().fields) text += fmt::format("|{}={}", field.key, field.value);
  return text + fmt::format("|{}|{}", parser.line().ts_ns.value_or(-1), parser.line().strings_skipped);
}

// Lines one or two bytes away from others, so that what is expected of a line is nearly true. Read with and without it,
// they are the same, and the fields that are said to be the expected ones are.
TEST(LineProtocol, WhatIsLikelyChangesNothing) {
  constexpr uint32_t SEED = 20260104;
  SCOPED_TRACE(SEED);
  std::mt19937 random(SEED);
  constexpr std::string_view BYTES = "ab=,, \\\"#1.i\t";
  const std::string_view origins[] = {"m,a=1,b=2 f=1i,g=2.5 10", "m,b=2,a=1 f=1,g=\"s\",h=2i 10", "m f=1,ff=2,f=3",
                                      "m,a=\\ b f=1i,f\\,=2 11"};
  SeriesCache cache;
  LineParser plain, helped;
  uint64_t n_likely = 0;
  for (uint32_t i = 0; i < 200'000; ++i) {
    std::string line(origins[random() % std::size(origins)]);
    for (uint32_t n = random() % 3; n > 0; --n) {
      const size_t at = random() % line.size();
      const std::string byte(1, BYTES[random() % BYTES.size()]);
      random() % 2 == 0 ? line.replace(at, 1, byte) : line.insert(at, byte);
    }
    const LikelyLine likely = cache.likely(line);
    const LineParser::Outcome outcome = helped.parse(line, likely);
    ASSERT_EQ(shown(helped, outcome), shown(plain, plain.parse(line))) << line;
    if (outcome != LineParser::Outcome::line) continue;
    std::vector<SeriesCache::Field> fields;
    for (const ParsedField &field : helped.line().fields) fields.push_back({field.key, i});
    ASSERT_LE(helped.line().n_likely, likely.fields.size());
    for (size_t f = 0; f < helped.line().n_likely; ++f) ASSERT_EQ(fields[f].name, likely.fields[f].name) << line;
    n_likely += helped.line().n_likely;
    if (random() % 4 == 0) cache.keep(helped.line().head, fields);
  }
  EXPECT_GT(n_likely, 10'000u);
}

// Names are looked through by 16 bytes at once, and numbers by two ways: special bytes at each place, and digits around
// each limit, mean to both readers the same.
TEST(LineProtocol, EveryPlaceOfASpecialByteAndEveryLengthOfANumber) {
  std::vector<std::string> lines;
  for (size_t length = 1; length < 40; ++length)
    for (size_t at = 0; at < length; ++at)
      for (const std::string_view special :
           {"\\,", "\\ ", "\\=", "=", ",", " ", "\\", "\t", "\x7f", "\x80", "!", "<", "~"}) {
        std::string name(length, 'n');
        name.replace(at, 1, special);
        for (const char *form : {"{}=1 5", "m,{}=t f=1 5", "m,t={} f=1 5", "{} f=1 5", "m {}=1 5"})
          lines.push_back(fmt::format(fmt::runtime(form), name));
      }
  for (size_t n_digits = 1; n_digits < 22; ++n_digits)
    for (const char digit : {'0', '1', '9'})
      for (const char *form :
           {"{}i", "-{}i", "{}u", "{}", "-{}", "{}.", ".{}", "{}.5", "-{}e-3", "+{}", "--{}i", "{}i1", "{}ii"})
        for (const char *behind : {" 5", ",g=2 5", "", "x"})
          lines.push_back("m f=" + fmt::format(fmt::runtime(form), std::string(n_digits, digit)) + behind);
  for (const std::string &line : lines) {
    LineParser parser(Precision::ns);
    std::string points, expected;
    if (parser.parse(line) == LineParser::Outcome::line)
      for (const ParsedField &field : parser.line().fields)
        points += fmt::format("{} {}={}@{}|", parser.line().head, field.key, field.value,
                              parser.line().ts_ns.value_or(NOW_NS));
    for (const ReferencePoint &point : reference_points(line, 1, NOW_NS))
      expected += fmt::format("{}={}@{}|", point.key, point.value, point.ts_ns);
    EXPECT_EQ(points, expected) << line;
  }
}

}  // namespace
}  // namespace metricdb
