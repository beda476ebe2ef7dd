// Loading with cached heads, and the check of loaded points.
#include "extent.h"
#include "metricdb_support.h"
#include "store/series_cache.h"

// Heads and names with common prefixes, tags in both orders, and fields that are added, removed, moved and repeated.
TEST(Loader, RandomLinesOfAFewSources) {
  constexpr uint32_t SEED = 20260103;
  std::mt19937 random(SEED);
  std::string text;
  for (int i = 0; i < 10'000; ++i) {
    text += fmt::format(fmt::runtime(random() % 8 != 0 ? "m,t={0},u=1 " : "m,u=1,t={0} "), random() % 20);
    // Usually the fields of the source's previous line.
    const uint32_t shape = random() % 10 == 0 ? random() : 0;
    for (uint32_t field = 0; field < 5 + shape % 4; ++field)
      text +=
          fmt::format("{}{}={}i", field == 0 ? "" : ",", std::string(1 + (field + shape) % 7, 'f'), random() % 1000);
    text += fmt::format(" {}\n", i);
  }
  SCOPED_TRACE(SEED);
  Store store;
  const LoadStats stats = load(store, text);
  expect_checked(checked(store, text), stats.points, 0, "");
}

TEST(Loader, SkipsMalformedLinesAsAWhole) {
  const std::string long_field(Store::MAX_KEY_BYTES - 1, 'f');  // one byte too long with "m "
  Store store;
  std::vector<std::string> messages;
  Loader loader(store, Loader::OnFull::stop, [&](uint64_t line, const std::string &reason) {
    messages.push_back(fmt::format("{}: {}", line, reason));
  });
  loader.load("# a comment\r\n\r\nm a=1,s=\"x\" 1\r\nm a=2,b=3,load 2\nm a=4,b=\"y\"z\n m a=5,b=6\nm a=7," +
                  long_field + "=8\nm a=9 3",
              Precision::ns, NOW_NS);
  EXPECT_EQ(messages,
            (std::vector<std::string>{"4: field \"load\" has no value", "5: text after the string of field \"b\"",
                                      "7: a series key is longer than 65534 bytes"}));
  EXPECT_EQ(loader.stats().lines, 8u);
  EXPECT_EQ(loader.stats().malformed, 3u);
  EXPECT_EQ(loader.stats().strings_skipped, 1u) << "strings of a skipped line are counted";
  EXPECT_EQ(loader.stats().points, 4u);
  EXPECT_EQ(content_of(store), (Content{{"m a", "1@1 5@77 9@3 "}, {"m b", "6@77 "}}));
}

// A series has the type of its first point. All 64 bits of an integer come back, also from sealed chunks.
TEST(Loader, IntegersKeepAllBits) {
  Store store;
  std::vector<std::string> messages;
  Loader loader(store, Loader::OnFull::stop, [&](uint64_t line, const std::string &reason) {
    messages.push_back(fmt::format("{}: {}", line, reason));
  });
  std::string text = "m,t=a n=1i,x=1 1\nm,t=a g=1,n=2.5 2\nm,t=a x=3i,n=4u 3\nm,t=a n=9223372036854775808u 4\n";
  for (int64_t i = 0; i < 400; ++i) text += fmt::format("m,t=a n={}i {}\n", INT64_MIN + i * i * 1'000'003, 5 + i);
  loader.load(text, Precision::ns, NOW_NS);
  EXPECT_EQ(messages,
            (std::vector<std::string>{"2: field type conflict: input field \"n\" on measurement \"m\" is type "
                                      "float, already exists as type integer",
                                      "4: field \"n\": \"9223372036854775808u\" is out of range"}));
  EXPECT_EQ(loader.stats().malformed, 2u);
  EXPECT_FALSE(store.find("m,t=a g")) << "a series without points stays";
  expect_checked(checked(store, text), loader.stats().points, 0, "");
  PointCursor x(store, *store.find("m,t=a x"));
  Point point;
  ASSERT_TRUE(x.next(point) && x.next(point));
  EXPECT_EQ(x.type(), ValueType::real);
  EXPECT_EQ(point.value, 3.0) << "an integer in a series of real numbers";

  loader.load("m,t=a x=5,z=3i,z=4.5 5", Precision::ns, NOW_NS);
  EXPECT_THAT(messages.back(), HasSubstr("\"z\" on measurement \"m\" is type float"));
  EXPECT_FALSE(x.next(point)) << "a part of the line was stored";
}

// Each row has a line `m f=1 1` that a string contains or that follows the string.
TEST(Loader, LineFeedsInStringsEndNoLine) {
  static const struct {
    const char *fault, *text, *points, *messages;
  } rows[] = {
      {"the rest of a string is a line", "m s=\"x\nm f=1 1\n\",g=2 3\nm f=1 1\n", "m f 1@1 |m g 2@3 |", ""},
      {"carriage returns", "m s=\"x\r\n\",g=2 3\r\nm f=1 1\r\n", "m f 1@1 |m g 2@3 |", ""},
      {"only one string per line", "m s=\"\n\",t=\"\n\n\",g=2\nm f=1 1", "m f 1@1 |m g 2@77 |", ""},
      {"an escaped quote ends a string", "m s=\"x\\\"\nm f=2 2\n\\\\\",g=2 3\nm f=1 1", "m f 1@1 |m g 2@3 |", ""},
      {"the string of a malformed line is ignored", "m g=x,s=\"\nm f=2 2\n\"\nm f=1 1", "m f 1@1 |",
       "1: field \"g\": \"x\" is not a number, boolean or string|"},
      {"lines are counted wrongly", "m s=\"\n\n\"\nm f=\nm f=1 1", "m f 1@1 |", "4: field \"f\" has no value|"},
      {"a string without an end leaves lines", "m f=1 1\nm s=\"x\nm f=2 2\nm f=3 3\n", "m f 1@1 |",
       "2: the string of field \"s\" has no closing quote|"},
      {"a quote elsewhere begins a string", "m\"=\"x f=1 1\nm,a=\"b f=1 1\n#=\"\nm f=1\"\nm f=1 1\n",
       "m f 1@1 |m\"=\"x f 1@1 |m,a=\"b f 1@1 |", "4: field \"f\": \"1\"\" is not a number, boolean or string|"},
      {"an escaped equals sign begins a value", "m a\\=\"=1 1\nm f=1 1\n", "m a\\=\" 1@1 |m f 1@1 |", ""},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    Store store;
    std::string messages, points;
    Loader loader(store, Loader::OnFull::stop,
                  [&](uint64_t line, const std::string &reason) { messages += fmt::format("{}: {}|", line, reason); });
    EXPECT_EQ(loader.load(row.text, Precision::ns, NOW_NS), std::strlen(row.text));
    for (const auto &[key, shown] : content_of(store)) points += key + " " + shown + "|";
    EXPECT_EQ(points, row.points);
    EXPECT_EQ(messages, row.messages);
    expect_checked(checked(store, row.text), store.n_points(), 0, "");
    // In pieces: each call loads one line with everything that belongs to it.
    Store other;
    Loader in_pieces(other, Loader::OnFull::stop, [](uint64_t, const std::string &) {});
    for (std::string_view rest = row.text; !rest.empty();)
      rest.remove_prefix(in_pieces.load(rest, Precision::ns, NOW_NS, 1));
    EXPECT_EQ(content_of(other), content_of(store));
    EXPECT_EQ(in_pieces.stats().lines, loader.stats().lines);
    EXPECT_EQ(in_pieces.stats().malformed, loader.stats().malformed);
  }
}

static void load_once(Store &store, Loader &loader, std::string_view text) {
  const uint64_t points = loader.stats().points;
  loader.load(text, Precision::ns, NOW_NS);
  EXPECT_EQ(loader.stats().points - points, static_cast<uint64_t>(std::count(text.begin(), text.end(), '='))) << text;
  EXPECT_EQ(loader.stats().malformed + loader.stats().refused, 0u);
  EXPECT_LE(store.n_points(), loader.stats().points);
}

// Batches of some chunks per series, in which one series is not in order. Earlier batches return at random.
TEST(RepeatedPoints, BatchesThatAreSentAgainChangeNothing) {
  constexpr uint32_t SEED = 20261127;
  SCOPED_TRACE(SEED);
  std::mt19937 random(SEED);
  std::vector<std::string> batches;
  constexpr uint32_t N_BATCHES = 40 / EVERY;
  for (uint32_t batch = 0; batch < N_BATCHES; ++batch) {
    std::string text;
    for (uint32_t i = 0; i < 400; ++i) {
      const uint32_t time = batch * 400 + i;
      text += fmt::format("m a={} {}\nm b={} {}\n", random() % 100, time, random() % 100,
                          time / 100 * 100 + 99 - time % 100);
    }
    batches.push_back(text);
  }
  Store once, again;
  const auto ignore = [](uint64_t, const std::string &) {};
  Loader loader(once, Loader::OnFull::stop, ignore), repeating(again, Loader::OnFull::stop, ignore);
  repeating.set_limits({.one_per_time = true});
  for (size_t batch = 0; batch < batches.size(); ++batch) {
    load_once(once, loader, batches[batch]);
    load_once(again, repeating, batches[batch]);
    for (int n = 0; n < 3; ++n) load_once(again, repeating, batches[random() % (batch + 1)]);
    ASSERT_EQ(again.n_points(), once.n_points()) << "after batch " << batch;
  }
  EXPECT_EQ(content_of(again), content_of(once));
  EXPECT_EQ(once.n_points(), N_BATCHES * 800);
}

TEST(RepeatedPoints, TheLastValueOfATimeWins) {
  Store store;
  Loader loader(store, Loader::OnFull::stop, [](uint64_t, const std::string &reason) { ADD_FAILURE() << reason; });
  loader.set_limits({.one_per_time = true});
  load_once(store, loader, "m f=1 5\nm f=2 6\nm f=3 5\nm f=4 4\nm f=5,f=6 7\nm f=-0 8\nm f=0 8\n");
  EXPECT_EQ(content_of(store), (Content{{"m f", "3@5 2@6 4@4 6@7 0@8 "}}));
  // Sealed chunks keep their points, and the last one is still found.
  std::string text;
  for (int i = 0; i < 300; ++i) text += fmt::format("s f={} {}\n", i, i);
  load_once(store, loader, text);
  for (int i = 0; i < 2; ++i) load_once(store, loader, "s f=7 3\ns f=3 3\ns f=8 3\n");
  EXPECT_EQ(store.record(*store.find("s f")).n_points(), 301u);
  EXPECT_TRUE(content_of(store).at("s f").ends_with("299@299 8@3 ")) << content_of(store).at("s f");
  // Older points in later chunks hide no point.
  for (const int from : {5'000, 0, 5'000, 0}) {
    text.clear();
    for (int i = from; i < from + 4'500; ++i) text += fmt::format("t f={} {}\n", i, i);
    load_once(store, loader, text);
  }
  EXPECT_EQ(store.record(*store.find("t f")).n_points(), 9'000u);
}

// With a retention the chunks that were examined are deleted, and their memory is used again.
TEST(RepeatedPoints, ForgottenChunksAreNotExamined) {
  Store store({.point_slot_bytes = 4096, .forgetting = {.retain_ns = 700}, .points_per_sweep = 50});
  Loader loader(store, Loader::OnFull::stop, [](uint64_t, const std::string &reason) { ADD_FAILURE() << reason; });
  loader.set_limits({.one_per_time = true});
  std::string last;
  for (int batch = 0; batch < 60; ++batch) {
    std::string text;
    for (int i = 0; i < 300; ++i) text += fmt::format("m{} f={} {}\n", batch / 3 % 2, i % 7, batch * 300 + i);
    load_once(store, loader, text);
    if (batch % 3 != 0) load_once(store, loader, last);
    last = text;
  }
  EXPECT_GT(store.forgotten().chunks, 20u);
  EXPECT_EQ(store.n_visible(), 701u);
}

TEST(SeriesCache, KeepsTheLastFieldsWithinItsLimit) {
  constexpr size_t MAX_BYTES = 100'000;
  SeriesCache cache(MAX_BYTES);
  size_t max_heads = 0;
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
      EXPECT_NE(kept[1].name.data(), names[1].data()) << "a view of the line, which is freed";
    }
    max_heads = std::max(max_heads, cache.n_heads());
  }
  EXPECT_LT(max_heads, MAX_BYTES / 200);
  EXPECT_GT(max_heads, MAX_BYTES / 500) << "bytes are counted twice";
  cache.clear();
  EXPECT_EQ(cache.n_heads(), 0u);
}

TEST(Check, FindsDifferences) {
  std::string thirty;
  for (int i = 1; i <= 30; ++i) thirty += fmt::format("m f={} {}\n", i, i);
  const std::string far = "m f=1 1\nm g=0 30\n";
  const struct {
    const char *fault;  // the difference between text and arrays
    std::string text;
    uint64_t n_matching, n_differences;
    const char *first;
    std::string stored = "m f=1 1\nm f=2 2\nm g=0 1\n";
    int64_t retain_ns = 0;  // if set, the check expects a retention of 10
  } rows[] = {
      {"nothing", "m f=1 1\nm f=2 2\nm g=0 1\n", 3, 0, ""},
      {"order between series is free", "m g=0 1\nm f=1 1\nm f=2 2\n", 3, 0, ""},
      {"a value", "m f=1 1\nm f=2.5 2\nm g=0 1\n", 2, 1, "series \"m f\", point 1: expected 2.5 at 2, found 2 at 2"},
      {"a time", "m f=1 1\nm f=2 3\nm g=0 1\n", 2, 1, "series \"m f\", point 1: expected 2 at 3, found 2 at 2"},
      {"a sign", "m f=1 1\nm f=2 2\nm g=-0 1\n", 2, 1, "series \"m g\", point 0: expected -0 at 1, found 0 at 1"},
      {"order", "m f=2 2\nm f=1 1\nm g=0 1\n", 1, 2, "series \"m f\", point 0: expected 2 at 2, found 1 at 1"},
      {"a point", "m f=1 1\nm f=2 2\nm g=0 1\nm f=3 3\n", 3, 1, "series \"m f\", point 2: expected 3 at 3, found none"},
      {"a point from nowhere", "m f=1 1\nm g=0 1\n", 2, 1, "series \"m f\", point 1: expected none, found 2 at 2"},
      {"a series", "m f=1 1\nm f=2 2\nm g=0 1\nm h=1 1\n", 3, 1,
       "series \"m h\": expected 1 at 1, found no such series"},
      {"nothing of what is retained", thirty, 11, 0, "", thirty, 10},
      {"points stay too long", thirty, 0, 12, "series \"m f\", point 0: expected 20 at 20, found 19 at 19", thirty, 11},
      {"points go too early", thirty, 0, 11, "series \"m f\", point 0: expected 20 at 20, found 21 at 21", thirty, 9},
      {"a series without points", far, 1, 1, "series \"m f\": expected none, found one without points", far, 10},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    Store store({.forgetting = {.retain_ns = row.retain_ns}});
    load(store, row.stored);
    const Check check = checked(store, row.text, row.retain_ns == 0 ? 0 : 10);
    expect_checked(check, row.n_matching, row.n_differences, row.first);
  }
}
