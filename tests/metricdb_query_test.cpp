// Queries: parsing of times and durations, results, and output formats.
#include <cmath>
#include <limits>

#include "extra/plot_svg.h"
#include "extra/plot_ticks.h"
#include "metricdb_support.h"
#include "query/escape.h"
#include "query/query.h"
#include "query/query_text.h"
#include "query/time_text.h"

constexpr int64_t S = 1'000'000'000;
constexpr int64_t MIN = std::numeric_limits<int64_t>::min();
constexpr int64_t MAX = std::numeric_limits<int64_t>::max();
constexpr int64_t T0 = 1'767'323'045 * S;  // 2026-01-02T03:04:05Z
constexpr double INF = std::numeric_limits<double>::infinity();
constexpr double NOT_A_NUMBER = std::numeric_limits<double>::quiet_NaN();
constexpr double BIG = std::numeric_limits<double>::max();

TEST(TimeText, ValidTimes) {
  static const struct {
    const char *text;
    int64_t ts_ns;
  } rows[] = {
      {"2026-01-02T03:04:05Z", T0},
      {"2026-01-02", T0 - (3 * 3600 + 4 * 60 + 5) * S},
      {"2026-01-02T03:04:05.5Z", T0 + S / 2},
      {"2026-01-02T03:04:05.1234567899Z", T0 + 123'456'789},
      {"2024-02-29T23:59:59.999999999Z", 1'709'251'200 * S - 1},
      {"1969-12-31T23:59:59.75Z", -S / 4},
      {"1677-09-21T00:12:43.145224192Z", MIN},
      {"2262-04-11T23:47:16.854775807Z", MAX},
      {"1767323045000000000", T0},
      {"-9223372036854775808", MIN},
      {"now", T0},
      {"now-15m", T0 - 900 * S},
      {"now+1h30m", T0 + 5400 * S},
  };
  for (const auto &row : rows) EXPECT_EQ(time_of(row.text, T0), row.ts_ns) << row.text;
}

TEST(TimeText, ValidDurations) {
  static const struct {
    const char *text;
    int64_t ns;
  } rows[] = {{"1ns", 1},
              {"7us", 7'000},
              {"250ms", 250'000'000},
              {"10s", 10 * S},
              {"1m", 60 * S},
              {"2h", 7200 * S},
              {"1d", 86'400 * S},
              {"1w", 604'800 * S},
              {"1h30m", 5400 * S},
              {"1m1ms", 60 * S + 1'000'000},
              {"9223372036854775807ns", MAX}};
  for (const auto &row : rows) EXPECT_EQ(duration_of(row.text), row.ns) << row.text;
}

TEST(TimeText, InvalidTimesAndDurations) {
  static const struct {
    const char *why;
    std::vector<std::string> times, durations;
  } rows[] = {
      {" is not a time",
       {"", "yesterday", "12x", "2026-1-2", "2026-01-02T", "2026-01-02T03:04Z", "2026-01-02T03:04:05",
        "2026-01-02T03:04:05.Z", "2026-01-02T03:04:05+01:00", "2026-01-02T03:04:05Z ", "2026-01-02T24:00:00Z",
        "2026-01-02T03:60:00Z", "2026-01-02T03:04:60Z", "now15m", "now\n"},
       {}},
      {"no such day", {"2026-02-29", "2026-13-01"}, {}},
      {"the time is out of range",
       {"1677-09-21T00:12:43.145224191Z", "2262-04-11T23:47:16.854775808Z", "0001-01-01", "9223372036854775808",
        "now-1s"},
       {}},
      {" is not a duration", {"now-"}, {"", "10", "s", "0s", "-1s", "1.5h", "1 h", "1hm", "1y", "1h30"}},
      {"the duration is out of range", {}, {"15251w", "9223372036854775807ns1ns", "99999999999999999999ns"}},
  };
  const auto expect_refused = [](const std::string &text, const std::string &why, const auto &read) {
    const std::string message = refusal_of([&] { read(text); });
    EXPECT_NE(message.find(why), message.npos) << text << ": " << message;
    EXPECT_EQ(message.find('\n'), message.npos);
  };
  for (const auto &row : rows) {
    for (const std::string &time : row.times)
      expect_refused(time, row.why, [](const std::string &text) { time_of(text, MIN + 1); });
    for (const std::string &duration : row.durations) expect_refused(duration, row.why, duration_of);
  }
}

TEST(TimeText, FormattedTimesParseToTheSameTime) {
  std::mt19937_64 random(1);
  for (int i = 0; i < 10'000; ++i) {
    const auto ts_ns = static_cast<int64_t>(random() << random() % 8);
    ASSERT_EQ(time_of(time_text(ts_ns, 9), 0), ts_ns);
    const int64_t whole_ms = ts_ns / 1'000'000 * 1'000'000;
    ASSERT_EQ(time_of(time_text(whole_ms, time_decimals(whole_ms)), 0), whole_ms);
  }
  EXPECT_EQ(time_text(MIN, 0), "1677-09-21T00:12:43Z");
  EXPECT_EQ(time_text(-1, 3), "1969-12-31T23:59:59.999Z");
}

static std::vector<Point> answer_of(const Query &query, const std::vector<Point> &points) {
  size_t n_given = 0;
  return answer(query, [&](Point &point) {
    if (n_given == points.size()) return false;
    point = points[n_given++];
    return true;
  });
}

TEST(Query, PointsAndWindows) {
  const std::vector<Point> mixed = {{5, 1}, {-1, 2}, {10, 3}, {5, 4}, {-11, 5}, {9, 6}};
  static const struct {
    const char *fault;  // what the row detects
    Query query;
    const char *answer;
  } rows[] = {
      {"order of arrival instead of time, or not kept at one time", {}, "5@-11 2@-1 1@5 4@5 6@9 3@10 "},
      {"the range begins one late or ends one late", {.from_ns = -1, .to_ns = 9}, "2@-1 1@5 4@5 "},
      {"an empty range", {.from_ns = 9, .to_ns = 9}, ""},
      {"windows round to zero", {.every_ns = 10, .fn = Fn::count}, "1@-20 1@-10 3@0 1@10 "},
      {"the range cuts no window", {.from_ns = 6, .every_ns = 10, .fn = Fn::count}, "1@0 1@10 "},
      {"mean", {.every_ns = 10, .fn = Fn::mean}, "5@-20 2@-10 3.6666666666666665@0 3@10 "},
      {"max", {.every_ns = 10, .fn = Fn::max}, "5@-20 2@-10 6@0 3@10 "},
      {"min", {.every_ns = 10, .fn = Fn::min}, "5@-20 2@-10 1@0 3@10 "},
      {"sum", {.every_ns = 10, .fn = Fn::sum}, "5@-20 2@-10 11@0 3@10 "},
      {"the last to arrive is used, not the latest", {.every_ns = 10, .fn = Fn::last}, "5@-20 2@-10 6@0 3@10 "},
      {"of equal times the first to arrive is used", {.to_ns = 9, .every_ns = 10, .fn = Fn::last}, "5@-20 2@-10 4@0 "},
  };
  for (const auto &row : rows) EXPECT_EQ(shown(answer_of(row.query, mixed)), row.answer) << row.fault;
}

TEST(Query, LimitsOfTimesAndValues) {
  const std::vector<Point> ends = {{MAX, 1}, {MIN, 2}};
  EXPECT_EQ(shown(answer_of({}, ends)), fmt::format("2@{} 1@{} ", MIN, MAX)) << "the last time is not in any range";
  for (const int64_t every_ns : {int64_t{1}, int64_t{10}, MAX})
    EXPECT_EQ(shown(answer_of({.every_ns = every_ns}, ends)),
              fmt::format("2@{} 1@{} ", MIN, MAX / every_ns * every_ns));

  const auto value = [](Fn fn, const std::vector<double> &values) {
    std::vector<Point> points;
    for (const double one : values) points.push_back({0, one});
    return answer_of({.every_ns = 10, .fn = fn}, points).at(0).value;
  };
  EXPECT_EQ(value(Fn::mean, {BIG, BIG, BIG}), BIG) << "the sum exceeds a double";
  EXPECT_EQ(value(Fn::sum, {BIG, BIG, -BIG}), BIG);
  EXPECT_EQ(value(Fn::sum, {BIG, BIG}), INF);
  for (const Fn fn : {Fn::mean, Fn::max, Fn::min, Fn::sum}) {
    EXPECT_EQ(value(fn, {NOT_A_NUMBER, 2, NOT_A_NUMBER}), 2) << name_of(fn) << ": a missing value is used";
    EXPECT_TRUE(std::isnan(value(fn, {NOT_A_NUMBER}))) << name_of(fn);
  }
  EXPECT_EQ(value(Fn::count, {NOT_A_NUMBER, 2}), 2);
  EXPECT_TRUE(std::isnan(value(Fn::last, {2, NOT_A_NUMBER})));
}

const std::vector<Point> FOUR = {{T0, 1.5}, {T0 + S / 4, -20}, {T0 + S, NOT_A_NUMBER}, {T0 + 2 * S, INF}};
const std::string HARD_KEY = "cpu,host=\"<a>&b\\\" use\xff\xc3\xbcr";  // contains one byte that is not UTF-8

TEST(QueryText, TableLinesUp) {
  EXPECT_EQ(answer_table({"m f", {}}, FOUR),
            "m f\n"
            "time                      value\n"
            "2026-01-02T03:04:05.000Z    1.5\n"
            "2026-01-02T03:04:05.250Z    -20\n"
            "2026-01-02T03:04:06.000Z    nan\n"
            "2026-01-02T03:04:07.000Z    inf\n"
            "4 points  █▁\n");
  EXPECT_EQ(answer_table({"m f", {.every_ns = 5400 * S, .fn = Fn::max}}, std::vector<Point>{{0, 123456.5}}),
            "m f, max of 1h30m\n"
            "time                       max\n"
            "1970-01-01T00:00:00Z  123456.5\n"
            "1 point  ▅\n");
  EXPECT_EQ(answer_table({"m f", {}}, {}), "m f\nno points\n");
}

TEST(QueryText, CsvAndJsonEscapeTheKeyAndKeepEveryDigit) {
  const std::vector<Point> points = {{T0, 0.1}, {T0 + 1, -BIG}, {T0 + 2, 4.9e-324}, {T0 + 3, -INF}};
  EXPECT_EQ(answer_csv({HARD_KEY, {}}, points),
            "time,\"cpu,host=\"\"<a>&b\\\"\" use\xff\xc3\xbcr\"\r\n"
            "2026-01-02T03:04:05.000000000Z,0.1\r\n"
            "2026-01-02T03:04:05.000000001Z,-1.7976931348623157e+308\r\n"
            "2026-01-02T03:04:05.000000002Z,5e-324\r\n"
            "2026-01-02T03:04:05.000000003Z,-inf\r\n");
  EXPECT_EQ(answer_json({HARD_KEY, {.every_ns = S}}, points),
            "{\"key\": \"cpu,host=\\\"<a>&b\\\\\\\" use\xef\xbf\xbd\xc3\xbcr\", \"fn\": \"mean\", \"every_ns\": "
            "1000000000, \"points\": [\n"
            "[\"2026-01-02T03:04:05.000000000Z\", 0.1],\n"
            "[\"2026-01-02T03:04:05.000000001Z\", -1.7976931348623157e+308],\n"
            "[\"2026-01-02T03:04:05.000000002Z\", 5e-324],\n"
            "[\"2026-01-02T03:04:05.000000003Z\", null]]}\n");
  EXPECT_EQ(answer_json({"m f", {}}, {}), "{\"key\": \"m f\", \"points\": []}\n");
}

TEST(Escape, InvalidUtf8IsReplaced) {
  const std::string_view good[] = {"a", "\u00fc", "\u20ac", "\U0001f600", "\xf4\x8f\xbf\xbf", "\xee\x80\x80"};
  for (const std::string_view text : good) {
    EXPECT_EQ(xml_text(text), text);
    EXPECT_EQ(json_string(text), fmt::format("\"{}\"", text));
  }
  // A single continuation byte, incomplete sequences, overlong sequences, a surrogate, a value after the last
  // character.
  const std::string_view bad[] = {"\x80",         "\xc3",         "\xe2\x82",         "\xc0\xaf",
                                  "\xe0\x80\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80", "\xf0\x80\x80\xaf",
                                  "\xff"};
  for (const std::string_view text : bad) {
    std::string replaced;
    for (size_t i = 0; i < text.size(); ++i) replaced += "\xef\xbf\xbd";
    EXPECT_EQ(xml_text(text), replaced);
  }
  EXPECT_EQ(json_string(std::string_view("\0\x1f", 2)), "\"\\u0000\\u001f\"");
  EXPECT_EQ(xml_text("<&>\"\x01"), "&lt;&amp;&gt;&quot;\xef\xbf\xbd");
  EXPECT_EQ(csv_field("a b"), "a b");
  EXPECT_EQ(csv_field("a\nb"), "\"a\nb\"");
}

TEST(PlotTicks, RoundValues) {
  static const struct {
    double low, high;
    const char *labels;
  } rows[] = {
      {0, 100, "0 20 40 60 80 100 "},
      {3, 97, "0 20 40 60 80 100 "},
      {-0.31, 0.12, "-0.4 -0.3 -0.2 -0.1 0.0 0.1 0.2 "},
      {5, 5, "4.4 4.6 4.8 5.0 5.2 5.4 5.6 "},
      {0, 0, "-1.0 -0.5 0.0 0.5 1.0 "},
      {1e6, 1e6 + 0.002, "1000000.0000 1000000.0005 1000000.0010 1000000.0015 1000000.0020 "},
      {0, 1.5e12, "0 5e+11 1e+12 1.5e+12 "},
      {-BIG, BIG, "-2e+308 -1e+308 0 1e+308 2e+308 "},
  };
  for (const auto &row : rows) {
    std::string labels;
    for (const ValueTick &tick : value_ticks(row.low, row.high, 6)) labels += tick.label + " ";
    EXPECT_EQ(labels, row.labels) << row.low << " to " << row.high;
  }
}

TEST(PlotTicks, RoundTimes) {
  static const struct {
    const char *first, *last, *ticks;
  } rows[] = {
      {"2026-01-02T21:40:03Z", "2026-01-03T01:10:00Z",
       "22:00(2026-01-02) 22:30 23:00 23:30 00:00(2026-01-03) 00:30 01:00 "},
      {"2026-01-02T00:00:00Z", "2026-01-02T00:00:20Z", "00:00:00(2026-01-02) 00:00:05 00:00:10 00:00:15 00:00:20 "},
      {"1969-12-31T23:59:59.9996Z", "1970-01-01T00:00:00.0001Z",
       "23:59:59.999600(1969-12-31) 23:59:59.999700 23:59:59.999800 23:59:59.999900 00:00:00.000000(1970-01-01) "
       "00:00:00.000100 "},
      {"2025-12-31T12:00:00Z", "2026-01-04T00:00:00Z", "2026-01-01 2026-01-02 2026-01-03 2026-01-04 "},
      {"2025-11-20", "2026-04-20", "2025-12 2026-01 2026-02 2026-03 2026-04 "},
      {"1999-06-01", "2004-06-01", "2000 2001 2002 2003 2004 "},
      {"1677-09-21T00:12:44Z", "2262-04-11T23:47:16Z", "1700 1800 1900 2000 2100 2200 "},
      {"2026-01-02T03:04:05.250Z", "2026-01-02T03:04:05.250Z", "03:04:05.250(2026-01-02) "},
  };
  for (const auto &row : rows) {
    std::string ticks;
    for (const TimeTick &tick : time_ticks(time_of(row.first, 0), time_of(row.last, 0), 7))
      ticks += tick.label + (tick.date.empty() ? " " : "(" + tick.date + ") ");
    EXPECT_EQ(ticks, row.ticks) << row.first << " to " << row.last;
  }
}

TEST(PlotSvg, MissingValuesInterruptTheLine) {
  std::vector<Point> points;
  for (int64_t i = 0; i < 200'000; ++i) points.push_back({T0 + i * S, std::sin(static_cast<double>(i) / 9000)});
  points[150'000].value = NOT_A_NUMBER;
  points[10'000].value = 50;  // one maximum among many points of a column
  const std::string svg = answer_svg({HARD_KEY, {}}, points);
  EXPECT_EQ(count_of(svg, "<path "), 2u);
  EXPECT_LT(svg.size(), 100'000u) << "invisible points are drawn";
  EXPECT_NE(svg.find("<title>cpu,host=&quot;&lt;a&gt;&amp;b\\&quot; use\xef\xbf\xbd\xc3\xbcr</title>"), svg.npos);
  // The maximum has the position of the tick at 50, up to rounding.
  const size_t label = svg.find(">50</text>");
  ASSERT_NE(label, svg.npos);
  const size_t y = svg.rfind("y1=\"", label) + 4;
  const std::string spot = fmt::format(",{} ", std::string_view(svg).substr(y, svg.find('"', y) - y));
  EXPECT_NE(svg.find(spot, svg.find("<path ")), svg.npos) << "the maximum is not drawn";
}

TEST(PlotSvg, AnyResultHasAPicture) {
  const std::vector<Point> answers[] = {
      {}, {{T0, 5}}, {{T0, NOT_A_NUMBER}}, {{MIN, -BIG}, {0, 0}, {MAX, BIG}}, {{T0, 4.9e-324}, {T0 + 1, 0}}, FOUR};
  for (const std::vector<Point> &points : answers) {
    const std::string svg = answer_svg({"m f", {}}, points);
    SCOPED_TRACE(svg);
    const size_t n_finite = static_cast<size_t>(
        std::count_if(points.begin(), points.end(), [](const Point &point) { return std::isfinite(point.value); }));
    EXPECT_EQ(count_of(svg, "<circle "), n_finite);
    EXPECT_EQ(count_of(svg, ">no point"), n_finite == 0 ? 1u : 0u);
    EXPECT_TRUE(svg.ends_with("</svg>\n"));
    for (const char *number : {"nan", "inf"}) EXPECT_EQ(count_of(svg, number), 0u);
  }
}
