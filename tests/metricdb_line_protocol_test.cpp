// The two parsers of line protocol: values, errors, and that the parsers agree.
#include <iterator>

#include "codec/line_protocol.h"
#include "codec/line_scanner.h"
#include "codec/printable.h"
#include "extent.h"
#include "extra/reference_reader.h"
#include "metricdb_support.h"
#include "store/series_cache.h"

static std::string value_text(std::string_view key, double value, const std::optional<int64_t> &integer) {
  return integer ? fmt::format("{}={}i", key, *integer) : fmt::format("{}={}", key, value);
}

// The points of a line as both parsers return them, as "key=value@time".
static std::string points_text(std::string_view text, Precision precision = Precision::ns) {
  LineParser parser(precision);
  if (parser.parse(text) != LineParser::Outcome::line) return "";
  std::string shown;
  for (const ParsedField &field : parser.line().fields)
    shown += fmt::format("{} {}@{}|", parser.line().head, value_text(field.key, field.value, field.integer),
                         parser.line().ts_ns.value_or(NOW_NS));
  return shown;
}

static std::string reference_text(std::string_view text, Precision precision = Precision::ns) {
  std::string shown;
  for (const ReferencePoint &point : reference_points(text, static_cast<int64_t>(precision), NOW_NS))
    shown += fmt::format("{}@{}|", value_text(point.key, point.value, point.integer), point.ts_ns);
  return shown;
}

TEST(LineProtocol, GoodLines) {
  static const struct {
    const char *fault, *line, *points;
    uint32_t strings_skipped = 0;
  } rows[] = {
      {"time or its sign lost", "m f=1 -5", "m f=1@-5|"},
      {"missing time is not now", "m f=1", "m f=1@77|"},
      {"blanks around the parts matter", "  m   f=1   5  ", "m f=1@5|"},
      {"tags keep the line's order", "m,b=1,a=2,c=0 f=1 5", "m,a=2,b=1,c=0 f=1@5|"},
      {"fields lose their order", "m,a=2 z=1,b=2.5 5", "m,a=2 z=1@5|m,a=2 b=2.5@5|"},
      {"escaped bytes end a name", R"(m\,\ x,t\=\,\ k=v\ \,\= f\=\ \,=1 5)", R"(m\,\ x,t\=\,\ k=v\ \,\= f\=\ \,=1@5|)"},
      {"equals sign ends a measurement", R"(m=\=,a=2 f=1 5)", R"(m=\=,a=2 f=1@5|)"},
      {"a backslash alone escapes", R"(m\n,a=\\b\,c\x f=1 5)", R"(m\n,a=\\b\,c\x f=1@5|)"},
      {"integers", "m a=1i,b=-9223372036854775808i,c=9223372036854775807u 5",
       "m a=1i@5|m b=-9223372036854775808i@5|m c=9223372036854775807i@5|"},
      {"floats", "m a=-.5,b=5.,c=1e3,d=1E-3,e=-0,f=4.9e-324 5",
       "m a=-0.5@5|m b=5@5|m c=1000@5|m d=0.001@5|m e=-0@5|m f=5e-324@5|"},
      {"a spelling of true is missing", "m a=t,b=T,c=true,d=True,e=TRUE 5", "m a=1@5|m b=1@5|m c=1@5|m d=1@5|m e=1@5|"},
      {"or of false", "m a=f,b=F,c=false,d=False,e=FALSE 5", "m a=0@5|m b=0@5|m c=0@5|m d=0@5|m e=0@5|"},
      {"a string's bytes end it", R"(m a="x, \"y\"=1 \\",b=2,c="" 5)", "m b=2@5|", 2},
      {"a line of strings alone is malformed", R"(m a="x" 5)", "", 1},
      {"names beyond ASCII", "Temperatur,ort=Zürich grad=1 5", "Temperatur,ort=Zürich grad=1@5|"},
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
    const char *reason;
    std::vector<const char *> lines;
  } rows[] = {
      {"no measurement", {",a=1 f=1"}},
      {"control character in the measurement", {"\tm f=1"}},
      {"control character after \"m\"", {"m\tf=1"}},
      {"control character after \"m,a=x\"", {"m,a=x\x7f f=1"}},
      {"a tag has no name", {"m, f=1", "m,=x f=1"}},
      {"tag \"a\" has no value", {"m,a f=1", "m,a= f=1"}},
      {"tag \"a\" has a second equals sign", {"m,a=x=y f=1", "m,a=x\\ f=1"}},
      {"tag \"a\" is given twice", {"m,a=x,b=y,a=z f=1"}},
      {"no fields", {"m"}},
      {"a field has no name", {"m =1", "m f=1,"}},
      {"field \"f\" has no value", {"m f", "m f= 5", "m g=1,f=,h=1 5"}},
      {"the string of field \"f\" has no closing quote", {"m f=\"x 5", "m f=\"x\\\" 5"}},
      {"text after the string of field \"f\"", {"m f=\"x\"y 5"}},
      {"field \"f\": \"9223372036854775808i\" is out of range", {"m f=9223372036854775808i 5"}},
      {"field \"f\": \"1e400\" is out of range", {"m f=1e400 5"}},
      {"field \"f\": \"1e-400\" is out of range", {"m f=1e-400 5"}},
      {"timestamp \"5s\" is not an integer", {"m f=1 5s"}},
      {"timestamp \"9223372036854775808\" is out of range", {"m f=1 9223372036854775808"}},
      {"text after the timestamp", {"m f=1 5 6"}},
      {"field \"ffffffffffffffffffffffffffffffffffffffff...\" has no value",
       {"m fffffffffffffffffffffffffffffffffffffffffffffffffff"}},
      {"field \"f\": \"?[31m\" is not a number, boolean or string", {"m f=\x1b[31m 5"}},
  };
  const auto expect_malformed = [](const std::string &line, const std::string &reason) {
    LineParser parser(Precision::ns);
    EXPECT_EQ(parser.parse(line), LineParser::Outcome::malformed) << line;
    EXPECT_EQ(parser.reason(), reason) << line;
    EXPECT_EQ(reference_text(line), "");
  };
  for (const auto &row : rows)
    for (const char *line : row.lines) expect_malformed(line, row.reason);
  for (const char *value : {"1x", "+1", "0x1", "nan", "-inf", "1e", "i", "1.5i", "-1u", "TrUe"})
    expect_malformed(fmt::format("m f={} 5", value),
                     fmt::format("field \"f\": \"{}\" is not a number, boolean or string", value));
}

TEST(LineProtocol, PrecisionScalesTimestamps) {
  EXPECT_EQ(points_text("m f=1 7", Precision::us), "m f=1@7000|");
  EXPECT_EQ(points_text("m f=1 -7", Precision::ms), "m f=1@-7000000|");
  for (const char *line : {"m f=1 9223372036", "m f=1 9223372037", "m f=1 -9223372037"})
    EXPECT_EQ(points_text(line, Precision::s), reference_text(line, Precision::s)) << line;
  EXPECT_EQ(points_text("m f=1 9223372036", Precision::s), "m f=1@9223372036000000000|");
  EXPECT_EQ(points_text("m f=1 9223372037", Precision::s), "");
}

static std::string shown(LineParser &parser, LineParser::Outcome outcome) {
  if (outcome == LineParser::Outcome::nothing) return "nothing";
  if (outcome == LineParser::Outcome::malformed) return parser.reason();
  std::string text = std::string(parser.line().head);
  for (const ParsedField &field : parser.line().fields) text += "|" + value_text(field.key, field.value, field.integer);
  return text + fmt::format("|{}|{}", parser.line().ts_ns.value_or(-1), parser.line().strings_skipped);
}

// Random variations of lines, so that the expected content is often almost right. The result must not depend on the
// expected content, and must agree with the other parser.
TEST(LineProtocol, ExpectedContentDoesNotChangeTheResult) {
  constexpr uint32_t SEED = 20260104;
  SCOPED_TRACE(SEED);
  std::mt19937 random(SEED);
  constexpr std::string_view BYTES = "ab=,, \\\"#1.i\t";
  const std::string_view origins[] = {
      "m,a=1,b=2 f=1i,g=2.5 10", "m,b=2,a=1 f=1,g=\"s\",h=2i 10",  "m f=1,ff=2,f=3",
      "m,a=\\ b f=1i,f\\,=2 11", R"(m f="q \" \\",h=t,i=-0.25e2)", R"(m\,1,c=2,a=\=,b=3 f\ 1=7u 12)"};
  SeriesCache cache;
  LineParser plain, helped;
  uint64_t n_likely = 0;
  for (uint32_t i = 0; i < 50'000 / EVERY; ++i) {
    std::string line(origins[random() % std::size(origins)]);
    for (uint32_t n = random() % 4; n > 0; --n) {
      const size_t at = random() % line.size();
      const std::string byte(1, BYTES[random() % BYTES.size()]);
      random() % 2 == 0 ? line.replace(at, 1, byte) : line.insert(at, byte);
    }
    const LikelyLine likely = cache.likely(line);
    const LineParser::Outcome outcome = helped.parse(line, likely);
    ASSERT_EQ(shown(helped, outcome), shown(plain, plain.parse(line))) << line;
    ASSERT_EQ(points_text(line), reference_text(line)) << line;
    if (outcome != LineParser::Outcome::line) continue;
    std::vector<SeriesCache::Field> fields;
    for (const ParsedField &field : helped.line().fields) fields.push_back({field.key, i});
    ASSERT_LE(helped.line().n_likely, likely.fields.size());
    for (size_t f = 0; f < helped.line().n_likely; ++f) ASSERT_EQ(fields[f].name, likely.fields[f].name) << line;
    n_likely += helped.line().n_likely;
    if (random() % 4 == 0) cache.keep(helped.line().head, fields);
  }
  EXPECT_GT(n_likely, 5'000u / EVERY);
}

TEST(Printable, ReplacesWhatATerminalExecutes) {
  static const struct {
    const char *text, *shown;
  } rows[] = {
      {"a b~", "a b~"},
      {"\x1b[31m\x7f\r\n\t", "?[31m??\n\t"},
      {"\xc2\x9b"
       "31m",
       "??31m"},  // CSI in UTF-8
      {"\x9b"
       "31m",
       "?31m"},  // CSI in 8 bits
      {"Z\xc3\xbcrich \xe2\x82\xac \xf0\x9f\x99\x82", "Z\xc3\xbcrich \xe2\x82\xac \xf0\x9f\x99\x82"},
      {"\xc3\x9b \xc2\xa0", "\xc3\x9b \xc2\xa0"},  // the same second byte
      {"\xe2\x9b", "??"},
      {"\xc3", "?"},
      {"\xc3\x1b", "??"},
      {"\xff\xfe", "??"},
  };
  for (const auto &row : rows) EXPECT_EQ(printable(row.text, "\n\t"), row.shown);
  EXPECT_EQ(printable("a\nb"), "a?b");
}

// Random texts with strings, quotes and line feeds anywhere. The parser, the scanner, which gets the text in pieces, and
// the reference must find the same lines.
TEST(LineProtocol, LinesOfRandomTexts) {
  constexpr uint32_t SEED = 20261126;
  SCOPED_TRACE(SEED);
  std::mt19937 random(SEED);
  constexpr std::string_view PARTS[] = {"m,a=b ", "m ",  "s=\"", "\"",      "\\", "\n",      "\r\n",      ",",
                                        "=",      "f=1", " 5\n", "g=\"x\"", "#",  "m f=1\n", "\nm f=2\n", " "};
  uint64_t n_long = 0, n_points = 0;
  for (int i = 0; i < 50'000 / EVERY; ++i) {
    std::string text;
    for (uint32_t n = 1 + random() % 12; n > 0; --n) text += PARTS[random() % std::size(PARTS)];
    SCOPED_TRACE(text);
    LineParser parser;
    LineScanner scanner;
    std::string_view rest = text, reference_rest = text, line, reference_line;
    size_t scanned = 0;
    while (next_line(rest, line)) {
      const auto outcome = parser.parse(line, {}, rest);
      rest.remove_prefix(parser.n_following());
      n_long += parser.n_following() != 0;
      ASSERT_TRUE(next_reference_line(reference_rest, reference_line));
      ASSERT_EQ(rest, reference_rest) << "another end of a line";
      const auto points = reference_points(reference_line, 1, NOW_NS);
      ASSERT_EQ(outcome == LineParser::Outcome::line ? parser.line().fields.size() : 0, points.size());
      for (size_t field = 0; field < points.size(); ++field)
        ASSERT_EQ(parser.line().fields[field].value, points[field].value);
      n_points += points.size();
      size_t end = scanner.npos;
      while (end == scanner.npos && scanned < text.size()) {
        const size_t n = std::min<size_t>(1 + random() % 9, text.size() - scanned);
        end = scanner.end_of_line(std::string_view(text).substr(scanned, n));
        scanned += end == scanner.npos ? n : end;
      }
      ASSERT_EQ(scanned, text.size() - rest.size()) << "the scanner";
    }
  }
  EXPECT_GT(n_long, 1'000u / EVERY);
  EXPECT_GT(n_points, 5'000u / EVERY);
}

// The parser compares names in groups of 16 bytes, and converts numbers in two ways. Special bytes at each position,
// and numbers of each length, must have the same result in both parsers.
TEST(LineProtocol, SpecialBytesAtEachPositionAndNumbersOfEachLength) {
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
        for (const char *rest : {" 5", ",g=2 5", "", "x"})
          lines.push_back("m f=" + fmt::format(fmt::runtime(form), std::string(n_digits, digit)) + rest);
  for (const std::string &line : lines) EXPECT_EQ(points_text(line), reference_text(line)) << line;
}
