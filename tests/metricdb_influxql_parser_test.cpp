// InfluxQL: what the parser refuses, with the position, and what it makes of times.
#include "metricdb_support.h"
#include "query/influxql_parser.h"

namespace metricdb::influxql {

static constexpr int64_t PARSER_NOW_NS = 1'767'323'045'000'000'000;  // 2026-01-02T03:04:05Z

static std::string refusal_of(const std::string &text) {
  try {
    parse_statements(text, PARSER_NOW_NS);
  } catch (const BadStatement &error) {
    return error.what();
  }
  return "accepted";
}

TEST(InfluxqlParser, RefusalsHaveThePosition) {
  static const struct {
    const char *text;
    const char *why;
  } rows[] = {
      {"blah", "found blah, expected SELECT, SHOW, DELETE, DROP, CREATE, ALTER at line 1, char 1"},
      {"SELECT", "found EOF, expected identifier, number, function, *, regex at line 1, char 7"},
      {"SELECT load", "found EOF, expected FROM at line 1, char 12"},
      {"select load from", "found EOF, expected identifier, regex at line 1, char 17"},
      {"SELECT load FROM cpu blah", "found blah, expected ; or EOF at line 1, char 22"},
      {"SELECT load\nFROM cpu\nWHERE ,", "found ,, expected tag name, time, ( at line 3, char 7"},
      {"SELECT \"\xc3\xa4\xc3\xb6\" FRM cpu", "found FRM, expected FROM at line 1, char 13"},
      {"SELECT load FROM cpu; SELECT", "found EOF, expected identifier, number, function, *, regex at line 1, char 29"},
      {"SELECT load INTO copy FROM cpu", "found INTO, expected FROM at line 1, char 13"},
      {"SELECT load FROM (SELECT load FROM cpu)", "subqueries are not supported at line 1, char 18"},
      {"SELECT load FROM db.week.cpu", "retention policy not found: week: the only one is autogen at line 1, char 18"},
      {"SELECT median(load) FROM cpu", "undefined function median() at line 1, char 8"},
      {"SELECT mean('load') FROM cpu", "found load, expected field name at line 1, char 13"},
      {"SELECT mean(max(load)) FROM cpu", "expected field argument at line 1, char 13"},
      {"SELECT mean() FROM cpu", "found ), expected field name at line 1, char 13"},
      {"SELECT percentile(load) FROM cpu", "found ), expected , at line 1, char 23"},
      {"SELECT percentile(load, 101) FROM cpu", "a percentile that is not 0 to 100 at line 1, char 25"},
      {"SELECT derivative(load, 0s) FROM cpu", "a duration of zero at line 1, char 25"},
      {"SELECT derivative(derivative(load)) FROM cpu", "a derivative of a derivative at line 1, char 19"},
      {"SELECT 1 FROM cpu", "at least 1 non-time field must be queried at line 1, char 8"},
      {"SELECT time FROM cpu", "at least 1 non-time field must be queried at line 1, char 8"},
      {"SELECT mean(load), load FROM cpu",
       "mixing aggregate and non-aggregate queries is not supported at line 1, char 20"},
      {"SELECT derivative(load), load FROM cpu",
       "mixing aggregate and non-aggregate queries is not supported at line 1, char 26"},
      {"SELECT derivative(load), max(load) FROM cpu",
       "mixing derivatives of fields and aggregates is not supported at line 1, char 8"},
      {"SELECT * + 1 FROM cpu", "a wildcard or regular expression in arithmetic at line 1, char 8"},
      {"SELECT load FROM cpu GROUP BY time(1m)", "GROUP BY requires at least one aggregate function at line 1, char 8"},
      {"SELECT derivative(load) FROM cpu GROUP BY time(1m)",
       "aggregate function required inside the call to the derivative at line 1, char 8"},
      {"SELECT derivative(mean(load)) FROM cpu",
       "a derivative of an aggregate requires a GROUP BY interval at line 1, char 8"},
      {"SELECT mean(load) FROM cpu GROUP BY time(0s)", "a duration of zero at line 1, char 42"},
      {"SELECT mean(load) FROM cpu GROUP BY time(60)", "found 60, expected duration at line 1, char 42"},
      {"SELECT mean(load) FROM cpu GROUP BY time(1m), time(2m)",
       "multiple time dimensions not allowed at line 1, char 47"},
      {"SELECT mean(load) FROM cpu GROUP BY floor(1m)", "only time() calls allowed in dimensions at line 1, char 37"},
      {"SELECT mean(load) FROM cpu GROUP BY time(1m) fill(zero)",
       "found zero, expected null, none, previous, linear, number at line 1, char 51"},
      {"SELECT load FROM cpu ORDER BY host", "found host, expected time, ASC, DESC at line 1, char 31"},
      {"SELECT load FROM cpu LIMIT -1", "found -, expected integer at line 1, char 28"},
      {"SELECT load FROM cpu OFFSET 1 LIMIT 1", "found LIMIT, expected ; or EOF at line 1, char 31"},
      {"SELECT load FROM cpu LIMIT 9223372036854775808", "an integer that 64 bits do not hold at line 1, char 28"},
      {"SELECT load FROM cpu WHERE load > 5",
       "conditions on fields are not supported, only on tags and time at line 1, char 28"},
      {"SELECT load FROM cpu WHERE load = -5",
       "conditions on fields are not supported, only on tags and time at line 1, char 28"},
      {"SELECT load FROM cpu WHERE host = \"a\"", "found a, expected string at line 1, char 35"},
      {"SELECT load FROM cpu WHERE host = 'a", "string without an end at line 1, char 35"},
      {"SELECT load FROM cpu WHERE host = '\\a'",
       "a backslash that is not followed by \\, n or a quote at line 1, char 36"},
      {"SELECT load FROM cpu WHERE host =~ 'a'", "found a, expected regex at line 1, char 36"},
      {"SELECT load FROM cpu WHERE host =~ /a", "regular expression without an end at line 1, char 36"},
      {"SELECT load FROM cpu WHERE host =~ /(a/", "regular expression: missing ): (a at line 1, char 36"},
      {"SELECT load FROM cpu WHERE (host = 'a'", "found EOF, expected ) at line 1, char 39"},
      {"SELECT load FROM cpu WHERE host = 'a' OR time > 5", "a condition on time below OR at line 1, char 42"},
      {"SELECT load FROM cpu WHERE time != 5", "found !=, expected =, <, <=, >, >= at line 1, char 33"},
      {"SELECT load FROM cpu WHERE time > 'yesterday'", "invalid time at line 1, char 35"},
      {"SELECT load FROM cpu WHERE time > '2026-02-30'", "invalid time at line 1, char 35"},
      {"SELECT load FROM cpu WHERE time > now() - 1x",
       "a duration without a unit of ns, u, ms, s, m, h, d, w at line 1, char 43"},
      {"SELECT load FROM cpu WHERE time > now() - 16000w",
       "a duration that 64 bits of nanoseconds do not hold at line 1, char 43"},
      {"SELECT load FROM cpu WHERE time > 0 - 15000w - 15000w",
       "a time that 64 bits of nanoseconds do not hold at line 1, char 48"},
      {"SELECT load FROM cpu /* all", "comment without an end at line 1, char 22"},
      {"SHOW", "found EOF, expected DATABASES, FIELD, MEASUREMENTS, RETENTION, SERIES, TAG at line 1, char 5"},
      {"SHOW TAG", "found EOF, expected KEYS, VALUES at line 1, char 9"},
      {"SHOW TAG VALUES FROM cpu", "found EOF, expected WITH at line 1, char 25"},
      {"SHOW TAG VALUES WITH KEY > host", "found >, expected IN, =, !=, =~, !~ at line 1, char 26"},
      {"CREATE USER x", "found USER, expected DATABASE, RETENTION at line 1, char 8"},
      {"CREATE DATABASE d WITH", "found EOF, expected DURATION, REPLICATION, SHARD, NAME, DEFAULT at line 1, char 23"},
      {"CREATE DATABASE d WITH NAME x", "the only retention policy is autogen at line 1, char 29"},
      {"CREATE RETENTION POLICY x ON d DEFAULT", "a new retention policy needs a DURATION at line 1, char 32"},
      {"ALTER RETENTION POLICY autogen ON d DURATION 7", "found 7, expected duration at line 1, char 46"},
      {"DELETE", "found EOF, expected FROM, WHERE at line 1, char 7"},
      {"DELETE FROM cpu WHERE load > 5",
       "conditions on fields are not supported, only on tags and time at line 1, char 23"},
      {"DROP SERIES", "found EOF, expected FROM, WHERE at line 1, char 12"},
      {"DROP SERIES FROM cpu WHERE time < 5", "DROP SERIES doesn't support time in WHERE clause at line 1, char 22"},
      {"DROP MEASUREMENT /cpu/", "found /, expected identifier at line 1, char 18"},
      {"DROP", "found EOF, expected DATABASE, MEASUREMENT, SERIES at line 1, char 5"},
  };
  for (const auto &row : rows)
    EXPECT_EQ(refusal_of(row.text), std::string("error parsing query: ") + row.why) << row.text;
}

// Without the limits these end the process, because each level uses the stack.
TEST(InfluxqlParser, RefusesWhatIsTooDeepOrTooLong) {
  const std::string select = "SELECT load FROM cpu WHERE ";
  EXPECT_THAT(refusal_of(select + std::string(100'000, '(')), testing::HasSubstr("more than 64 nested parts"));
  EXPECT_THAT(refusal_of("SELECT " + std::string(100'000, '(')), testing::HasSubstr("more than 64 nested parts"));
  std::string minus = "SELECT ";
  for (int i = 0; i < 100'000; ++i) minus += "- ";
  EXPECT_THAT(refusal_of(minus), testing::HasSubstr("more than 64 nested parts"));
  EXPECT_THAT(refusal_of("SELECT load" + repeated(" + 1", 100'000)), testing::HasSubstr("more than 64 operations"));
  EXPECT_THAT(refusal_of(select + "a='b'" + repeated(" OR a='b'", 100'000)),
              testing::HasSubstr("more than 1000 comparisons"));
  EXPECT_EQ(refusal_of(select + "a='b'" + repeated(" OR a='b'", 999)), "accepted");
  EXPECT_THAT(refusal_of("SELECT a FROM b" + repeated(", b", 1'000)), testing::HasSubstr("more than 1000 entries"));
  EXPECT_EQ(refusal_of("SELECT a FROM b" + repeated(", b", 999)), "accepted");
  EXPECT_THAT(refusal_of("SELECT a" + repeated(", a", 1'000)), testing::HasSubstr("more than 1000 entries"));
  EXPECT_THAT(refusal_of("SELECT a FROM b GROUP BY a" + repeated(", a", 1'000)),
              testing::HasSubstr("more than 1000 entries"));
  EXPECT_THAT(refusal_of("SHOW TAG VALUES WITH KEY IN (a" + repeated(", a", 1'000)),
              testing::HasSubstr("more than 1000 entries"));
  // Each expression has memory of its own.
  EXPECT_THAT(refusal_of("SELECT a FROM b" + repeated(", /b/", 101)), testing::HasSubstr("more than 100 regular"));
  EXPECT_EQ(refusal_of("SELECT a FROM b" + repeated(", /b/", 100)), "accepted");
  EXPECT_THAT(refusal_of(repeated("SHOW DATABASES;", 1'001)), testing::HasSubstr("more than 1000 statements"));
}

// A zero byte ended the message before its position.
TEST(InfluxqlParser, ControlCharactersAreNotInMessages) {
  using namespace std::string_literals;
  EXPECT_EQ(refusal_of("SHOW\0SERIES"s),
            "error parsing query: found ?, expected DATABASES, FIELD, MEASUREMENTS, RETENTION, SERIES, TAG at line 1, "
            "char 5");
  EXPECT_EQ(refusal_of("SELECT a FROM /(\0\x1b\x7f/"s),
            "error parsing query: regular expression: missing ): (??? at line 1, char 15");
}

TEST(InfluxqlParser, TimesOfTheCondition) {
  static constexpr int64_t S = 1'000'000'000;
  static const struct {
    const char *condition;
    std::optional<int64_t> from_ns;
    std::optional<int64_t> to_ns;
    bool is_empty = false;
  } rows[] = {
      {"time >= '2026-01-02T03:04:05Z'", PARSER_NOW_NS, {}},
      {"time > '2026-01-02T03:04:05.5Z'", PARSER_NOW_NS + S / 2 + 1, {}},
      {"time <= '2026-01-02T04:34:05+01:30'", {}, PARSER_NOW_NS},
      {"time <= '2026-01-01T22:04:05-05:00'", {}, PARSER_NOW_NS},
      {"time < '2026-01-02 03:04:05'", {}, PARSER_NOW_NS - 1},
      {"time = '2026-01-02'", PARSER_NOW_NS - 11'045 * S, PARSER_NOW_NS - 11'045 * S},
      {"time >= 1767323045000ms AND time <= 1767323046000ms", PARSER_NOW_NS, PARSER_NOW_NS + S},
      {"time >= 1767323045000000000", PARSER_NOW_NS, {}},
      {"\"time\" >= -5", -5, {}},
      {"time > now() - 1h30m + 1s AND time < now()", PARSER_NOW_NS - 5'399 * S + 1, PARSER_NOW_NS - 1},
      {"now() - 1m <= time AND (now() > time)", PARSER_NOW_NS - 60 * S, PARSER_NOW_NS - 1},
      {"time > 5 AND time > 3 AND time < 9 AND time < 8", 6, 7},
      {"time > 5 AND time < 6", 6, 5, true},
      {"time > 9223372036854775807", {}, {}, true},
      {"host = 'a' AND (rack = 'b' AND time >= 7)", 7, {}},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.condition);
    const auto statements = parse_statements(std::string("SELECT load FROM cpu WHERE ") + row.condition, PARSER_NOW_NS);
    const TimeRange &range = std::get<SelectStatement>(statements.at(0)).range;
    EXPECT_EQ(range.from_ns, row.from_ns);
    EXPECT_EQ(range.to_ns, row.to_ns);
    EXPECT_EQ(range.is_empty, row.is_empty);
  }
}

}  // namespace metricdb::influxql
