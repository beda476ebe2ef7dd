// InfluxQL: the answers to statements.
#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <random>

#include "influxql_support.h"
#include "metricdb_support.h"
#include "query/byte_text.h"
#include "query/influxql.h"
#include "query/influxql_execute.h"
#include "query/influxql_parser.h"
#include "query/influxql_select.h"
#include "query/store_source.h"

namespace metricdb {

static constexpr int64_t SECOND_NS = 1'000'000'000;
static constexpr int64_t PRESENT_NS = 100 * SECOND_NS;

static std::vector<Point> points_at_seconds(const std::vector<std::pair<int64_t, double>> &values) {
  std::vector<Point> points;
  for (const auto &[s, value] : values) points.push_back({s * SECOND_NS, value});
  return points;
}

static MemorySource two_hosts() {
  MemorySource source;
  // Not in order of names: results are sorted.
  source.add("mem", {{"host", "a"}}, "free", points_at_seconds({{0, 100}, {10, 60}, {20, 140}}));
  source.add("cpu", {{"host", "b"}, {"zone", "y"}}, "load", points_at_seconds({{5, 10}, {10, 20}, {65, 30}}));
  source.add("cpu", {{"host", "a"}, {"zone", "x"}}, "load", points_at_seconds({{0, 1}, {10, 2}, {20, 4}, {30, 3}}));
  source.add("cpu", {{"host", "a"}, {"zone", "x"}}, "idle", points_at_seconds({{0, 90}, {20, 80}}));
  source.add("net", {}, "rx", points_at_seconds({{1, 7}}));
  return source;
}

// Integers above 2^53, and a series of real numbers with the same field.
static MemorySource counters() {
  MemorySource source;
  source.add_integers("c", {{"host", "a"}}, "n",
                      {{0, 9007199254740993}, {10 * SECOND_NS, 9007199254740995}, {20 * SECOND_NS, INT64_MAX}});
  source.add_integers("c", {{"host", "b"}}, "n", {{10 * SECOND_NS, -7}});
  source.add("c", {{"host", "c"}}, "n", points_at_seconds({{10, 0.5}}));
  return source;
}

struct StatementRow {
  const char *text;
  const char *results;  // between the brackets of "results"
};

// Of three servers with a part of the series each, one of them without any.
static InfluxqlAnswer answer_of_three(const MemorySource &source, InfluxqlRequest request) {
  request.is_partial = true;
  std::vector<std::string> bodies;
  for (const MemorySource &part : {source.part(0, 2), source.part(1, 2), MemorySource()})
    bodies.push_back(answer_influxql(part, request, {"metrics", "other"}).body);
  request.is_partial = false;
  return answer_of_servers(bodies, request);
}

static void expect_results(const MemorySource &source, std::span<const StatementRow> rows) {
  for (const StatementRow &row : rows) {
    InfluxqlRequest request{.text = row.text, .epoch = "s", .now_ns = PRESENT_NS};
    const InfluxqlAnswer answer = answer_influxql(source, request, {"metrics", "other"});
    EXPECT_EQ(answer.body, fmt::format("{{\"results\":[{}]}}\n", row.results)) << row.text;
    EXPECT_FALSE(answer.is_bad_request);
    EXPECT_EQ(answer.content_type, "application/json");
    const std::string_view text = row.text;
    if (!text.starts_with("S") || text.find("SHOW DATABASES") != text.npos) continue;
    EXPECT_EQ(answer_of_three(source, request).body, answer.body) << "several servers: " << row.text;
  }
}

// A client refuses an answer that was cut anywhere, is longer, or is of another program, and reports the error of a server.
TEST(Influxql, PartsOfServersAreWhole) {
  const std::string text =
      "SELECT percentile(load, 50), max(idle) FROM cpu GROUP BY time(20s), host; SELECT * FROM mem";
  const InfluxqlRequest partial = {.text = text, .is_partial = true}, request = {.text = text};
  const std::string body = answer_influxql(two_hosts(), partial, {}).body;
  for (size_t n = 0; n < body.size(); ++n)
    EXPECT_THROW(answer_of_servers(std::vector{body.substr(0, n)}, request), BytesDamaged) << n;
  EXPECT_THROW(answer_of_servers(std::vector{body + "x"}, request), BytesDamaged);
  EXPECT_THROW(answer_of_servers(std::vector<std::string>{"{}"}, request), BytesDamaged);
  EXPECT_THROW(answer_of_servers(std::vector{body}, {.text = "SELECT * FROM mem"}), BytesDamaged);
  const InfluxqlRequest failing = {.text = "SELECT max(idle) FROM cpu GROUP BY time(1ns); SHOW DATABASES",
                                   .is_partial = true};
  EXPECT_EQ(answer_of_servers(std::vector{answer_influxql(two_hosts(), failing, {}).body}, request).body,
            "{\"results\":[{\"statement_id\":0,\"error\":\"GROUP BY time makes more than 100000 windows\"},"
            "{\"statement_id\":1,\"error\":\"not executed\"}]}\n");
}

// A long answer for a client of several servers ends in the statement that exceeds the limit.
TEST(Influxql, PartsOfServersAreLimited) {
  constexpr size_t N_POINTS = 4'000'000, N_STATEMENTS_READ = 5;  // of 64 MB each
  MemorySource source;
  std::vector<Point> points(N_POINTS);
  for (size_t i = 0; i < N_POINTS; ++i) points[i].ts_ns = static_cast<int64_t>(i);
  source.add("m", {}, "v", std::move(points));
  InfluxqlRequest request{.is_partial = true};
  for (size_t i = 0; i < N_STATEMENTS_READ + 2; ++i) request.text += "SELECT v FROM m;";
  const InfluxqlAnswer answer = answer_influxql(source, request, {});
  EXPECT_TRUE(answer.is_bad_request);
  EXPECT_EQ(answer.body.substr(0, 100), "{\"error\":\"the answer is larger than 268435456 bytes\"}\n");
  EXPECT_EQ(source.n_read, N_STATEMENTS_READ * N_POINTS);
}

// One series, in statement 0.
#define SERIES(text) R"({"statement_id":0,"series":[{)" text R"(}]})"

// Integers are exact until a real number takes part.
TEST(Influxql, Integers) {
  static const StatementRow rows[] = {
      {"SELECT n, n + 1, n / 2 FROM c WHERE host = 'a'",
       SERIES(R"("name":"c","columns":["time","n","n_1","n_2"],"values":[)"
              R"([0,9007199254740993,9007199254740994,4503599627370496],)"
              R"([10,9007199254740995,9007199254740996,4503599627370498],)"
              R"([20,9223372036854775807,9223372036854775808,4611686018427387904]])")},
      {"SELECT min(n), max(n), first(n), last(n), sum(n), spread(n), count(n), percentile(n, 60) FROM c "
       "WHERE time <= 10s AND (host = 'a' OR host = 'b')",
       SERIES(
           R"("name":"c","columns":["time","min","max","first","last","sum","spread","count","percentile"],"values":[)"
           R"([0,-7,9007199254740995,9007199254740993,9007199254740995,18014398509481981,9007199254741002,3,)"
           R"(9007199254740993]])")},
      {"SELECT spread(n), mean(n) FROM c WHERE time >= 10s AND (host = 'a' OR host = 'b')",
       SERIES(
           R"("name":"c","columns":["time","spread","mean"],"values":[[10,9223372036854775808,3077459745369839104]])")},
      // With the series of real numbers all are.
      {"SELECT max(n), sum(n), last(n) FROM c WHERE time <= 10s",
       SERIES(R"("name":"c","columns":["time","max","sum","last"],"values":[)"
              R"([0,9007199254740996,18014398509481980,9007199254740996]])")},
      {"SELECT derivative(n, 1s) FROM c WHERE time <= 10s AND host = 'a'",
       SERIES(R"("name":"c","columns":["time","derivative"],"values":[[10,0.2]])")},
      {"SELECT sum(n) FROM c WHERE time >= 0 AND time <= 20s AND host = 'b' GROUP BY time(10s) fill(previous)",
       SERIES(R"("name":"c","columns":["time","sum"],"values":[[0,null],[10,-7],[20,-7]])")},
      {"SHOW FIELD KEYS WHERE host = 'a' OR host = 'b'",
       SERIES(R"("name":"c","columns":["fieldKey","fieldType"],"values":[["n","integer"]])")},
      {"SHOW FIELD KEYS", SERIES(R"("name":"c","columns":["fieldKey","fieldType"],"values":[["n","float"]])")},
  };
  expect_results(counters(), rows);
}

TEST(Influxql, PointsOfFields) {
  static const StatementRow rows[] = {
      {"SELECT free FROM mem", SERIES(R"("name":"mem","columns":["time","free"],"values":[[0,100],[10,60],[20,140]])")},
      {"select \"free\" as f from \"mem\" where time >= 10s and time < 20s",
       SERIES(R"("name":"mem","columns":["time","f"],"values":[[10,60]])")},
      // Fields of one series are one row. Those of different tags are not.
      {"SELECT load, idle, host FROM cpu WHERE time <= 10s",
       SERIES(R"("name":"cpu","columns":["time","load","idle","host"],)"
              R"("values":[[0,1,90,"a"],[5,10,null,"b"],[10,2,null,"a"],[10,20,null,"b"]])")},
      {"SELECT * FROM cpu WHERE host = 'a' LIMIT 1",
       SERIES(R"("name":"cpu","columns":["time","host","idle","load","zone"],"values":[[0,"a",90,1,"x"]])")},
      {"SELECT * FROM cpu WHERE host = 'a' GROUP BY * LIMIT 1 OFFSET 1",
       SERIES(
           R"("name":"cpu","tags":{"host":"a","zone":"x"},"columns":["time","idle","load"],"values":[[10,null,2]])")},
      {"SELECT *::field FROM mem LIMIT 1", SERIES(R"("name":"mem","columns":["time","free"],"values":[[0,100]])")},
      {"SELECT load, /^(host|idle)$/ FROM cpu LIMIT 1",
       SERIES(R"("name":"cpu","columns":["time","load","host","idle"],"values":[[0,1,"a",90]])")},
      {"SELECT load, load FROM cpu LIMIT 1",
       SERIES(R"("name":"cpu","columns":["time","load","load_1"],"values":[[0,1,1]])")},
      {"SELECT time AS t, free FROM mem LIMIT 1", SERIES(R"("name":"mem","columns":["t","free"],"values":[[0,100]])")},
      {"SELECT load FROM cpu ORDER BY time DESC LIMIT 2 OFFSET 1",
       SERIES(R"("name":"cpu","columns":["time","load"],"values":[[30,3],[20,4]])")},
      {"SELECT load::field FROM cpu GROUP BY host::tag ORDER BY time DESC LIMIT 1",
       R"({"statement_id":0,"series":[{"name":"cpu","tags":{"host":"a"},"columns":["time","load"],"values":[[30,3]]},)"
       R"({"name":"cpu","tags":{"host":"b"},"columns":["time","load"],"values":[[65,30]]}]})"},
      {"SELECT load FROM cpu LIMIT 3 OFFSET 5",
       SERIES(R"("name":"cpu","columns":["time","load"],"values":[[30,3],[65,30]])")},
      {"SELECT load FROM cpu LIMIT 3 OFFSET 7", R"({"statement_id":0})"},
      {"SELECT load * 2 + 1, load - idle, idle / 0, -load FROM cpu LIMIT 1",
       SERIES(R"("name":"cpu","columns":["time","load","load_idle","idle","load_1"],"values":[[0,3,-89,0,-1]])")},
      {"SELECT load % 3 + host FROM cpu LIMIT 1",
       SERIES(R"("name":"cpu","columns":["time","load_host"],"values":[[0,null]])")},
      {"SELECT free, load FROM mem, cpu LIMIT 1",
       R"({"statement_id":0,"series":[{"name":"cpu","columns":["time","free","load"],"values":[[0,null,1]]},)"
       R"({"name":"mem","columns":["time","free","load"],"values":[[0,100,null]]}]})"},
      {"SELECT rx FROM /^n/", SERIES(R"("name":"net","columns":["time","rx"],"values":[[1,7]])")},
      {"SELECT free FROM metrics.autogen.mem LIMIT 1",
       SERIES(R"("name":"mem","columns":["time","free"],"values":[[0,100]])")},
      {"SELECT free FROM metrics..\"mem\" LIMIT 1",
       SERIES(R"("name":"mem","columns":["time","free"],"values":[[0,100]])")},
      {"SELECT free FROM autogen.mem LIMIT 1", SERIES(R"("name":"mem","columns":["time","free"],"values":[[0,100]])")},
      // Without a field there are no points.
      {"SELECT host FROM cpu", R"({"statement_id":0})"},
      {"SELECT nothing FROM cpu", R"({"statement_id":0})"},
      {"SELECT *::tag FROM cpu", R"({"statement_id":0})"},
      {"SELECT load FROM cpu WHERE time > 5 AND time < 5", R"({"statement_id":0})"},
      {"SELECT free FROM any.autogen.mem LIMIT 1",
       SERIES(R"("name":"mem","columns":["time","free"],"values":[[0,100]])")},
  };
  expect_results(two_hosts(), rows);
}

TEST(Influxql, ConditionsOnTags) {
  static const char *const A =
      R"({"statement_id":0,"series":[{"name":"cpu","columns":["time","last"],"values":[[30,3]]}]})";
  static const char *const B =
      R"({"statement_id":0,"series":[{"name":"cpu","columns":["time","last"],"values":[[65,30]]}]})";
  static const char *const NONE = R"({"statement_id":0})";
  static const struct {
    const char *condition;
    const char *results;
  } rows[] = {
      {"host = 'a'", A},
      {"host != 'a'", B},
      {"host <> 'a'", B},
      {"host =~ /^[a]$/", A},
      {"host !~ /a/", B},
      {"host =~ /c/", NONE},
      {"host =~ /a\\/|^b\\/?$/", B},
      {"host = 'a' AND zone = 'y'", NONE},
      {"host = 'a' OR zone = 'y'", B},
      {"host = 'b' OR host = 'a' AND zone = 'y'", B},
      {"(host = 'b' OR host = 'a') AND zone = 'x'", A},
      {"host = 'a' AND (zone = 'y' OR zone = 'x') AND time <= 30s", A},
      {"rack = '' AND host = 'a'", A},
      {"rack != ''", NONE},
      {"rack = 'r'", NONE},
      {"rack != 'r' AND host = 'a'", A},
      {"rack =~ /^$/ AND host = 'a'", A},
      {"\"host\"::tag = 'a'", A},
  };
  const MemorySource source = two_hosts();
  for (const auto &row : rows) {
    const std::string text = fmt::format("SELECT last(load) FROM cpu WHERE {}", row.condition);
    const StatementRow statement{text.c_str(), row.results};
    expect_results(source, {&statement, 1});
  }
}

TEST(Influxql, AggregatesOfAllPoints) {
  static const StatementRow rows[] = {
      // The time is the beginning of the range, or 1970, and of a single selected point its own.
      {"SELECT count(load), sum(load), mean(load) FROM cpu",
       SERIES(R"("name":"cpu","columns":["time","count","sum","mean"],"values":[[0,7,70,10]])")},
      {"SELECT mean(load) FROM cpu WHERE time >= 10s AND time < 60s AND host = 'a'",
       SERIES(R"("name":"cpu","columns":["time","mean"],"values":[[10,3]])")},
      {"SELECT max(load) FROM cpu", SERIES(R"("name":"cpu","columns":["time","max"],"values":[[65,30]])")},
      {"SELECT min(load) FROM cpu WHERE time > 0",
       SERIES(R"("name":"cpu","columns":["time","min"],"values":[[10,2]])")},
      {"SELECT first(load) FROM cpu", SERIES(R"("name":"cpu","columns":["time","first"],"values":[[0,1]])")},
      {"SELECT last(load) FROM cpu", SERIES(R"("name":"cpu","columns":["time","last"],"values":[[65,30]])")},
      // Of points with the same time that with the greater value.
      {"SELECT last(load) FROM cpu WHERE time <= 10s",
       SERIES(R"("name":"cpu","columns":["time","last"],"values":[[10,20]])")},
      {"SELECT first(load), last(load) FROM cpu",
       SERIES(R"("name":"cpu","columns":["time","first","last"],"values":[[0,1,30]])")},
      {"SELECT spread(load), stddev(free) FROM cpu, mem",
       R"({"statement_id":0,"series":[{"name":"cpu","columns":["time","spread","stddev"],"values":[[0,29,null]]},)"
       R"({"name":"mem","columns":["time","spread","stddev"],"values":[[0,null,40]]}]})"},
      {"SELECT stddev(rx) FROM net", R"({"statement_id":0})"},
      {"SELECT percentile(load, 50) FROM cpu",
       SERIES(R"("name":"cpu","columns":["time","percentile"],"values":[[20,4]])")},
      {"SELECT percentile(load, 100), percentile(load, 15), percentile(load, 1) FROM cpu",
       SERIES(
           R"("name":"cpu","columns":["time","percentile","percentile_1","percentile_2"],"values":[[0,30,1,null]])")},
      {"SELECT mean(*) FROM cpu GROUP BY host",
       R"({"statement_id":0,"series":[{"name":"cpu","tags":{"host":"a"},"columns":["time","mean_idle","mean_load"],)"
       R"("values":[[0,85,2.5]]},{"name":"cpu","tags":{"host":"b"},"columns":["time","mean_idle","mean_load"],)"
       R"("values":[[0,null,20]]}]})"},
      {"SELECT sum(/^l/) AS total FROM cpu",
       SERIES(R"("name":"cpu","columns":["time","total_load"],"values":[[0,70]])")},
      {"SELECT sum(load) / count(load) AS mean, max(load) - 1 FROM cpu",
       SERIES(R"("name":"cpu","columns":["time","mean","max"],"values":[[0,10,29]])")},
      {"SELECT count(load) FROM cpu GROUP BY /^z/, rack",
       R"({"statement_id":0,"series":[{"name":"cpu","tags":{"rack":"","zone":"x"},"columns":["time","count"],)"
       R"("values":[[0,4]]},{"name":"cpu","tags":{"rack":"","zone":"y"},"columns":["time","count"],"values":[[0,3]]}]})"},
      {"SELECT count(load) FROM cpu GROUP BY host SLIMIT 1 SOFFSET 1",
       SERIES(R"("name":"cpu","tags":{"host":"b"},"columns":["time","count"],"values":[[0,3]])")},
      {"SELECT count(load) FROM cpu WHERE time > 70s", R"({"statement_id":0})"},
  };
  expect_results(two_hosts(), rows);
}

TEST(Influxql, AggregatesOfWindows) {
  static const StatementRow rows[] = {
      // Without limits: from the first to the last point.
      {"SELECT max(load) FROM cpu WHERE host = 'a' GROUP BY time(20s)",
       SERIES(R"("name":"cpu","columns":["time","max"],"values":[[0,2],[20,4]])")},
      {"SELECT mean(load) FROM cpu GROUP BY time(20s)",
       SERIES(R"("name":"cpu","columns":["time","mean"],"values":[[0,8.25],[20,3.5],[40,null],[60,30]])")},
      {"SELECT mean(load) FROM cpu GROUP BY time(20s) fill(none)",
       SERIES(R"("name":"cpu","columns":["time","mean"],"values":[[0,8.25],[20,3.5],[60,30]])")},
      {"SELECT mean(load) FROM cpu GROUP BY time(20s) fill(-1.5) ORDER BY time DESC LIMIT 2",
       SERIES(R"("name":"cpu","columns":["time","mean"],"values":[[60,30],[40,-1.5]])")},
      {"SELECT mean(load) FROM cpu GROUP BY time(20s) fill(previous)",
       SERIES(R"("name":"cpu","columns":["time","mean"],"values":[[0,8.25],[20,3.5],[40,3.5],[60,30]])")},
      {"SELECT first(load) FROM cpu GROUP BY time(10s) FILL(linear)",
       SERIES(
           R"("name":"cpu","columns":["time","first"],"values":[[0,1],[10,20],[20,4],[30,3],[40,12],[50,21],[60,30]])")},
      // A count of nothing is 0.
      {"SELECT count(load), mean(load) FROM cpu GROUP BY time(20s) LIMIT 2 OFFSET 1",
       SERIES(R"("name":"cpu","columns":["time","count","mean"],"values":[[20,2,3.5],[40,0,null]])")},
      {"SELECT count(load) FROM cpu GROUP BY time(20s) fill(none)",
       SERIES(R"("name":"cpu","columns":["time","count"],"values":[[0,4],[20,2],[60,1]])")},
      // With limits: all their windows. The first one begins before the limit.
      {"SELECT sum(load) FROM cpu WHERE host = 'b' AND time >= 5s AND time < 40s GROUP BY time(10s)",
       SERIES(R"("name":"cpu","columns":["time","sum"],"values":[[0,10],[10,20],[20,null],[30,null]])")},
      {"SELECT sum(load) FROM cpu WHERE host = 'b' AND time <= 20s GROUP BY time(10s)",
       SERIES(R"("name":"cpu","columns":["time","sum"],"values":[[0,10],[10,20],[20,null]])")},
      // Without an end, windows go to the present.
      {"SELECT last(load) FROM cpu WHERE time > now() - 60s GROUP BY time(20s)",
       SERIES(R"("name":"cpu","columns":["time","last"],"values":[[40,null],[60,30],[80,null],[100,null]])")},
      {"SELECT count(load) FROM cpu GROUP BY time(20s, 5s)",
       SERIES(R"("name":"cpu","columns":["time","count"],"values":[[-15,1],[5,4],[25,1],[45,0],[65,1]])")},
      {"SELECT count(load) FROM cpu GROUP BY time(20s, -15s) LIMIT 1",
       SERIES(R"("name":"cpu","columns":["time","count"],"values":[[-15,1]])")},
      {"SELECT percentile(load, 90) FROM cpu GROUP BY time(1m)",
       SERIES(R"("name":"cpu","columns":["time","percentile"],"values":[[0,10],[60,30]])")},
      {"SELECT stddev(free), spread(free) FROM mem GROUP BY time(20s)",
       SERIES(R"("name":"mem","columns":["time","stddev","spread"],"values":[[0,28.284271247461902,40],[20,null,0]])")},
      {"SELECT min(load) AS low, max(idle) FROM cpu GROUP BY time(20s), host SLIMIT 1",
       SERIES(R"("name":"cpu","tags":{"host":"a"},"columns":["time","low","max"],"values":[[0,1,90],[20,3,80]])")},
      {"SELECT mean(load) * 2 + count(idle) FROM cpu WHERE host = 'a' GROUP BY time(20s)",
       SERIES(R"("name":"cpu","columns":["time","mean_count"],"values":[[0,4],[20,8]])")},
      // A group without points is left out, also if it would be filled.
      {"SELECT count(load) FROM cpu WHERE time >= 60s AND time < 70s GROUP BY time(10s), host fill(0)",
       SERIES(R"("name":"cpu","tags":{"host":"b"},"columns":["time","count"],"values":[[60,1]])")},
  };
  expect_results(two_hosts(), rows);
}

TEST(Influxql, Derivatives) {
  static const StatementRow rows[] = {
      {"SELECT derivative(free) FROM mem",
       SERIES(R"("name":"mem","columns":["time","derivative"],"values":[[10,-4],[20,8]])")},
      {"SELECT non_negative_derivative(free, 5s) AS rate FROM mem",
       SERIES(R"("name":"mem","columns":["time","rate"],"values":[[20,40]])")},
      {"SELECT derivative(load, 10s), derivative(idle) / 2 FROM cpu WHERE host = 'a'",
       SERIES(R"("name":"cpu","columns":["time","derivative","derivative_1"],)"
              R"("values":[[10,1,null],[20,2,-0.25],[30,-1,null]])")},
      // Of points of several series with the same time, the first one counts.
      {"SELECT derivative(load) FROM cpu WHERE time <= 20s",
       SERIES(R"("name":"cpu","columns":["time","derivative"],"values":[[5,1.8],[10,-1.6],[20,0.2]])")},
      // The unit of an aggregate is the window.
      {"SELECT derivative(max(free)) FROM mem GROUP BY time(10s)",
       SERIES(R"("name":"mem","columns":["time","derivative"],"values":[[10,-40],[20,80]])")},
      {"SELECT non_negative_derivative(max(free), 1s), max(free) FROM mem GROUP BY time(10s)",
       SERIES(
           R"("name":"mem","columns":["time","non_negative_derivative","max"],"values":[[0,null,100],[10,null,60],[20,8,140]])")},
      // The window before the range gives the first one a value.
      {"SELECT derivative(max(free), 1s) FROM mem WHERE time >= 10s AND time <= 20s GROUP BY time(10s)",
       SERIES(R"("name":"mem","columns":["time","derivative"],"values":[[10,-4],[20,8]])")},
      // Points before the range that are in its first window count in neither.
      {"SELECT derivative(max(free), 1s), count(free) FROM mem WHERE time >= 5s AND time <= 20s GROUP BY time(10s)",
       SERIES(R"("name":"mem","columns":["time","derivative","count"],"values":[[0,null,0],[10,null,1],[20,8,1]])")},
      {"SELECT derivative(max(load), 1s), count(load) FROM cpu WHERE time >= 15s AND time < 30s GROUP BY time(10s)",
       SERIES(R"("name":"cpu","columns":["time","derivative","count"],"values":[[10,null,0],[20,-0.3,1]])")},
      // It is not a row of the result.
      {"SELECT derivative(max(free), 1s), max(free) FROM mem WHERE time >= 10s AND time <= 20s GROUP BY time(10s)",
       SERIES(R"("name":"mem","columns":["time","derivative","max"],"values":[[10,-4,60],[20,8,140]])")},
      {"SELECT derivative(max(free), 1s), max(free) FROM mem WHERE time >= 10s AND time <= 20s GROUP BY time(10s) "
       "fill(none)",
       SERIES(R"("name":"mem","columns":["time","derivative","max"],"values":[[10,-4,60],[20,8,140]])")},
      {"SELECT derivative(max(free), 1s), max(free) FROM mem WHERE time >= 0 AND time <= 20s GROUP BY time(10s) "
       "fill(none)",
       SERIES(R"("name":"mem","columns":["time","derivative","max"],"values":[[0,null,100],[10,-4,60],[20,8,140]])")},
      {"SELECT derivative(last(load), 1s) FROM cpu WHERE host = 'b' GROUP BY time(10s)",
       SERIES(R"("name":"cpu","columns":["time","derivative"],"values":[[10,1],[60,0.2]])")},
      {"SELECT derivative(last(load), 1s) FROM cpu WHERE host = 'b' GROUP BY time(20s) fill(previous)",
       SERIES(R"("name":"cpu","columns":["time","derivative"],"values":[[20,0],[40,0],[60,0.5]])")},
      {"SELECT derivative(rx) FROM net", R"({"statement_id":0})"},
  };
  expect_results(two_hosts(), rows);
}

TEST(Influxql, Listings) {
  static const StatementRow rows[] = {
      {"SHOW DATABASES", SERIES(R"("name":"databases","columns":["name"],"values":[["metrics"],["other"]])")},
      {"SHOW MEASUREMENTS", SERIES(R"("name":"measurements","columns":["name"],"values":[["cpu"],["mem"],["net"]])")},
      {"show measurements on metrics with measurement =~ /m|n/ limit 1 offset 1",
       SERIES(R"("name":"measurements","columns":["name"],"values":[["net"]])")},
      {"SHOW MEASUREMENTS WITH MEASUREMENT = mem",
       SERIES(R"("name":"measurements","columns":["name"],"values":[["mem"]])")},
      {"SHOW MEASUREMENTS WHERE zone =~ /./", SERIES(R"("name":"measurements","columns":["name"],"values":[["cpu"]])")},
      {"SHOW SERIES",
       SERIES(R"("columns":["key"],"values":[["cpu,host=a,zone=x"],["cpu,host=b,zone=y"],["mem,host=a"],["net"]])")},
      {"SHOW SERIES FROM cpu, mem WHERE host = 'a' LIMIT 1 OFFSET 1",
       SERIES(R"("columns":["key"],"values":[["mem,host=a"]])")},
      {"SHOW TAG KEYS",
       R"({"statement_id":0,"series":[{"name":"cpu","columns":["tagKey"],"values":[["host"],["zone"]]},)"
       R"({"name":"mem","columns":["tagKey"],"values":[["host"]]}]})"},
      {"SHOW TAG KEYS FROM cpu LIMIT 1 OFFSET 1", SERIES(R"("name":"cpu","columns":["tagKey"],"values":[["zone"]])")},
      {"SHOW TAG KEYS SLIMIT 1 SOFFSET 1", SERIES(R"("name":"mem","columns":["tagKey"],"values":[["host"]])")},
      {"SHOW TAG VALUES WITH KEY = host",
       R"({"statement_id":0,"series":[{"name":"cpu","columns":["key","value"],"values":[["host","a"],["host","b"]]},)"
       R"({"name":"mem","columns":["key","value"],"values":[["host","a"]]}]})"},
      {"SHOW TAG VALUES FROM cpu WITH KEY IN (\"host\", zone) WHERE host = 'b' AND time > now() - 1h",
       SERIES(R"("name":"cpu","columns":["key","value"],"values":[["host","b"],["zone","y"]])")},
      {"SHOW TAG VALUES FROM /^c/ WITH KEY =~ /^z/ LIMIT 1",
       SERIES(R"("name":"cpu","columns":["key","value"],"values":[["zone","x"]])")},
      {"SHOW TAG VALUES FROM cpu WITH KEY != host",
       SERIES(R"("name":"cpu","columns":["key","value"],"values":[["zone","x"],["zone","y"]])")},
      {"SHOW TAG VALUES FROM cpu WITH KEY !~ /z/ LIMIT 1",
       SERIES(R"("name":"cpu","columns":["key","value"],"values":[["host","a"]])")},
      {"SHOW FIELD KEYS FROM cpu",
       SERIES(R"("name":"cpu","columns":["fieldKey","fieldType"],"values":[["idle","float"],["load","float"]])")},
      {"SHOW TAG KEYS FROM nothing", R"({"statement_id":0})"},
      {"SHOW SERIES ON any FROM any..net", SERIES(R"("columns":["key"],"values":[["net"]])")},
      {"SHOW SERIES ON any FROM other..net",
       R"({"statement_id":0,"error":"a statement about several databases is not supported"})"},
      {"CREATE DATABASE new", R"({"statement_id":0})"},
      {"DELETE FROM cpu; SHOW DATABASES",
       R"({"statement_id":0,"error":"the database is open for reading only"},{"statement_id":1,"error":"not executed"})"},
      {"", ""},
      {"CREATE DATABASE new; SHOW FIELD KEYS FROM net;",
       R"({"statement_id":0},{"statement_id":1,"series":[{"name":"net","columns":["fieldKey","fieldType"],)"
       R"("values":[["rx","float"]]}]})"},
      {"CREATE DATABASE new; SELECT rx FROM a..net, b..net; SHOW DATABASES",
       R"({"statement_id":0},{"statement_id":1,"error":"a statement about several databases is not supported"},)"
       R"({"statement_id":2,"error":"not executed"})"},
  };
  expect_results(two_hosts(), rows);
}

// A server whose series have no points in the range contributes their fields, tags and groups.
TEST(Influxql, NamesWithoutPointsCount) {
  MemorySource source;
  source.add("m", {{"host", "a"}}, "v", points_at_seconds({{0, 1}}));
  source.add("m", {{"host", "b"}, {"rack", "1"}}, "w", points_at_seconds({{50, 2}}));
  source.add("m", {{"host", "c"}}, "v", points_at_seconds({{50, 3}}));
  static const StatementRow rows[] = {
      {"SELECT mean(v) FROM m WHERE time >= 40s GROUP BY host SLIMIT 1", R"({"statement_id":0})"},
      {"SELECT mean(v) FROM m WHERE time >= 40s GROUP BY time(20s), host fill(none) SLIMIT 1 SOFFSET 1",
       SERIES(R"("name":"m","tags":{"host":"c"},"columns":["time","mean"],"values":[[40,3]])")},
      {"SELECT mean(*) FROM m WHERE time < 40s GROUP BY *",
       SERIES(
           R"("name":"m","tags":{"host":"a","rack":""},"columns":["time","mean_v","mean_w"],"values":[[0,1,null]])")},
      {"SELECT v FROM m GROUP BY /./ LIMIT 1",
       SERIES(R"("name":"m","tags":{"host":"a","rack":""},"columns":["time","v"],"values":[[0,1]]},)"
              R"({"name":"m","tags":{"host":"c","rack":""},"columns":["time","v"],"values":[[50,3]])")},
      {"SELECT max(/^v/) FROM m WHERE host != 'a' GROUP BY /./",
       SERIES(R"("name":"m","tags":{"host":"c","rack":""},"columns":["time","max_v"],"values":[[50,3]])")},
      {"SELECT mean(no), max(*) FROM m",
       SERIES(R"("name":"m","columns":["time","mean","max_v","max_w"],"values":[[0,null,3,2]])")},
  };
  expect_results(source, rows);
}

// Of points with the same time the greater value is selected, and of the same value the earlier point. Fails if the order
// of the series decides.
TEST(Influxql, SelectedPointsOfSeveralSeries) {
  MemorySource source;
  source.add("up", {{"i", "0"}}, "v", points_at_seconds({{1, 1}, {5, 1}}));
  source.add("up", {{"i", "1"}}, "v", points_at_seconds({{1, 2}, {5, 2}}));
  source.add("down", {{"i", "0"}}, "v", points_at_seconds({{1, 2}, {5, 2}}));
  source.add("down", {{"i", "1"}}, "v", points_at_seconds({{1, 1}, {5, 1}}));
  source.add("late", {{"i", "0"}}, "v", points_at_seconds({{5, 2}}));
  source.add("late", {{"i", "1"}}, "v", points_at_seconds({{1, 2}}));
  for (const auto &[function, up_and_down, late] : std::vector<std::array<const char *, 3>>{{"first", "[1,2]", "[1,2]"},
                                                                                            {"last", "[5,2]", "[5,2]"},
                                                                                            {"min", "[1,1]", "[1,2]"},
                                                                                            {"max", "[1,2]", "[1,2]"}})
    for (const auto &[measurement, row] : std::vector<std::pair<const char *, const char *>>{
             {"up", up_and_down}, {"down", up_and_down}, {"late", late}}) {
      const std::string text = fmt::format("SELECT {}(v) FROM {}", function, measurement);
      const std::string results =
          fmt::format(R"({{"statement_id":0,"series":[{{"name":"{}","columns":["time","{}"],"values":[{}]}}]}})",
                      measurement, function, row);
      const StatementRow statement{text.c_str(), results.c_str()};
      expect_results(source, {&statement, 1});
    }
}

TEST(Influxql, PointsThatAreNotNumbersOrRepeatATime) {
  constexpr double NOT_A_NUMBER = std::numeric_limits<double>::quiet_NaN();
  constexpr double BIG = std::numeric_limits<double>::max();
  MemorySource source;
  source.add("m", {}, "v", points_at_seconds({{0, 1}, {0, 2}, {1, NOT_A_NUMBER}, {2, 5}, {2, NOT_A_NUMBER}}));
  source.add("m", {}, "big", points_at_seconds({{0, BIG}, {1, BIG}}));
  static const StatementRow rows[] = {
      {"SELECT v FROM m", SERIES(R"("name":"m","columns":["time","v"],"values":[[0,2],[2,5]])")},
      {"SELECT count(v), sum(v) FROM m", SERIES(R"("name":"m","columns":["time","count","sum"],"values":[[0,2,7]])")},
      // JSON has no infinity.
      {"SELECT sum(big) FROM m", SERIES(R"("name":"m","columns":["time","sum"],"values":[[0,null]])")},
  };
  expect_results(source, rows);
}

// Fails if differences of times overflow, or if times before 1970 are rounded up.
TEST(Influxql, TimesAtTheLimits) {
  constexpr int64_t MIN = std::numeric_limits<int64_t>::min();
  constexpr int64_t MAX = std::numeric_limits<int64_t>::max();
  MemorySource source;
  source.add("m", {}, "v", {{MIN, 1}, {-1, 2}, {0, 3}, {MAX, 4}});
  static const struct {
    const char *text;
    const char *values;
  } rows[] = {
      {"SELECT v FROM m", "[-9223372036854775808,1],[-1,2],[0,3],[9223372036854775807,4]"},
      {"SELECT count(v) FROM m GROUP BY time(10000w) fill(none)",
       "[-9223372036854775808,1],[-6048000000000000000,1],[0,1],[6048000000000000000,1]"},
      {"SELECT count(v) FROM m GROUP BY time(15000w, 1ns) fill(none)",
       "[-9223372036854775808,1],[-9071999999999999999,2],[9072000000000000001,1]"},
      {"SELECT count(v) FROM m WHERE time > -10 AND time < 10 GROUP BY time(10ns)", "[-10,1],[0,1]"},
      {"SELECT derivative(v, 1ns) FROM m WHERE time >= -1", "[0,1],[9223372036854775807,1.0842021724855044e-19]"},
  };
  for (const auto &row : rows) {
    InfluxqlRequest request{.text = row.text, .epoch = "ns"};
    EXPECT_THAT(answer_influxql(source, request, {}).body,
                testing::HasSubstr(fmt::format("\"values\":[{}]", row.values)))
        << row.text;
  }
}

TEST(Influxql, Limits) {
  MemorySource source;
  for (int i = 0; i < 5; ++i)
    source.add("m", {{"host", std::to_string(i)}}, "v", points_at_seconds({{0, 1}, {1, 2}, {2, 3}, {99, 4}}));
  const influxql::Limits limits{.n_series = 5, .n_windows = 100, .n_cells = 600, .n_points = 20};
  static const struct {
    const char *text;
    influxql::Limits limits;
    const char *error;
  } rows[] = {
      {"SELECT v FROM m", {4, 100, 600, 20}, "more than 4 series match"},
      {"SHOW SERIES", {4, 100, 600, 20}, "more than 4 series match"},
      {"SHOW SERIES", {5, 100, 4, 20}, "more than 4 results"},
      {"SELECT mean(v) FROM m GROUP BY time(1s)", {5, 99, 600, 20}, "GROUP BY time makes more than 99 windows"},
      {"SELECT mean(v) FROM m WHERE time >= 0 AND time < 100s GROUP BY time(1ns)",
       {5, 100'000, 1'000'000, 20},
       "GROUP BY time makes more than 100000 windows"},
      {"SELECT mean(v) FROM m GROUP BY time(1s), host", {5, 100, 499, 20}, "more than 499 values in the result"},
      {"SELECT mean(v), max(v) FROM m GROUP BY time(1s)", {5, 100, 199, 20}, "more than 199 values in the result"},
      {"SELECT v FROM m", {5, 100, 19, 20}, "more than 19 values in the result"},
      {"SELECT percentile(v, 50) FROM m", {5, 100, 600, 19}, "more than 19 points for a percentile"},
      {"SELECT derivative(v) FROM m", {5, 100, 600, 19}, "more than 19 points for a derivative"},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.text);
    const auto statement = influxql::parse_statements(row.text, PRESENT_NS).at(0);
    EXPECT_FALSE(
        influxql::execute({source, {}, PRESENT_NS, limits}, influxql::parse_statements("SELECT v FROM m", 0)[0])
            .empty());
    try {
      influxql::execute({source, {}, PRESENT_NS, row.limits}, statement);
      ADD_FAILURE() << "no error";
    } catch (const influxql::ExecutionFailed &error) {
      EXPECT_STREQ(error.what(), row.error);
    }
  }
  // One group after another is executed, but all groups are in the answer to a client of several servers.
  const auto grouped = influxql::parse_statements("SELECT percentile(v, 50) FROM m GROUP BY host", 0)[0];
  const influxql::Environment few_points = {source, {}, 0, {.n_points = 19}};
  EXPECT_EQ(influxql::execute(few_points, grouped).size(), 5U);
  EXPECT_THROW(influxql::parts_of_select(few_points, std::get<influxql::SelectStatement>(grouped)),
               influxql::ExecutionFailed);
}

// The points of one series, and the same points in a hundred, which several threads read in parts and merge. With few
// permitted values there are no parts. Whole numbers, whose sums are exact.
TEST(Influxql, PartsOfManySeries) {
  MemorySource source;
  std::mt19937 random(4);
  std::vector<std::vector<Point>> of_host(100);
  std::vector<Point> all;
  for (int64_t i = 0; i < 4'000; ++i) {
    const Point point{i * SECOND_NS / 10, static_cast<double>(random() % 1'000)};
    all.push_back(point);
    of_host[random() % of_host.size()].push_back(point);
  }
  source.add("all", {}, "v", all);
  for (size_t i = 0; i < of_host.size(); ++i) {
    if (i % 3 == 0)
      for (Point &point : of_host[i]) point = integer_point(point.ts_ns, static_cast<int64_t>(point.value));
    source.add("parts", {{"host", std::to_string(i)}, {"zone", std::to_string(i % 2)}}, "v", {});
    source.set_last(of_host[i], i % 3 == 0 ? ValueType::integer : ValueType::real);
  }
  const auto values_of = [&](const std::string &measurement, const char *rest, unsigned n_threads, size_t n_cells) {
    const std::string text =
        "SELECT count(v), sum(v), mean(v), min(v), max(v), first(v), last(v), spread(v), percentile(v, 70), stddev(v) "
        "FROM " +
        measurement + rest;
    influxql::Limits limits;
    limits.n_cells = n_cells;
    std::vector<double> values;
    for (const influxql::ResultSeries &result :
         influxql::execute({source, {}, PRESENT_NS, limits, {}, n_threads}, influxql::parse_statements(text, 0)[0]))
      for (const influxql::Cell &cell : result.cells)
        values.push_back(cell.kind == influxql::Cell::Kind::integer ? static_cast<double>(cell.integer) : cell.number);
    return values;
  };
  for (const char *rest : {"", " GROUP BY time(7s)", " WHERE time >= 100s AND time < 333s GROUP BY time(1s, 300ms)"}) {
    SCOPED_TRACE(rest);
    const std::vector<double> expected = values_of("all", rest, 1, 1'000'000);
    ASSERT_FALSE(expected.empty());
    for (const size_t n_cells : {expected.size(), size_t{1'000'000}}) {
      const std::vector<double> found = values_of("parts", rest, 4, n_cells);
      ASSERT_EQ(found.size(), expected.size());
      for (size_t i = 0; i < found.size(); ++i) EXPECT_NEAR(found[i], expected[i], i % 10 == 9 ? 1e-9 : 0.0) << i;
      EXPECT_EQ(values_of("parts", rest, 1, n_cells), found) << "the result depends on the number of threads";
    }
  }
  EXPECT_EQ(values_of("parts", " GROUP BY zone", 4, 20).size(), 20u);
  EXPECT_THROW(values_of("parts", " GROUP BY zone", 4, 19), influxql::ExecutionFailed);
}

// Of a store whose long chunks have summaries, and of the same points without a store. Some series have points at earlier times,
// again at the same times, or that are not numbers, so that some chunks overlap others or have no summary.
TEST(Influxql, SummariesOfChunksChangeNoAnswer) {
  std::mt19937 random(11);
  constexpr int N = 7'000;
  size_t n_summaries = 0;
  for (int round = 0; round < 8; ++round) {
    SCOPED_TRACE(round);
    Store store;
    store.go_live();
    MemorySource plain;
    for (const bool are_integers : {false, true}) {
      const std::string host = are_integers ? "a" : "b";
      const ValueType type = are_integers ? ValueType::integer : ValueType::real;
      std::vector<Point> points;
      const uint32_t series = store.series_of(fmt::format("m,host={} v", host), type);
      for (int i = 0; i < N; ++i) {
        // In quarters, so that sums are exact.
        const int value = static_cast<int>(random() % 4'000) - 2'000;
        int at = i;
        if (round % 2 != 0 && random() % 700 == 0) at -= static_cast<int>(random() % 3'000);
        const bool is_number = round % 4 < 2 || are_integers || random() % 2'000 != 0;
        const int64_t ts_ns = at * SECOND_NS;
        const Point point = are_integers ? integer_point(ts_ns, value) : Point{ts_ns, is_number ? value / 4.0 : NAN};
        store.append(series, point);
        points.push_back(point);
      }
      if (round % 3 == 0) store.pack(0);
      std::stable_sort(points.begin(), points.end(), [](auto &a, auto &b) { return a.ts_ns < b.ts_ns; });
      plain.add("m", {{"host", host}}, "v", {});
      plain.set_last(points, type);
    }
    const StoreSource source(store);
    for (const char *range : {"", " WHERE time >= 1000s AND time < 6500s", " WHERE time >= 2000s AND time <= 2001s"})
      for (const char *group : {"", " GROUP BY host", " GROUP BY time(1000s),host", " GROUP BY time(3000s)"})
        for (const char *functions :
             {"count(v),sum(v),mean(v),min(v),max(v),first(v),last(v),spread(v)", "max(v)", "min(v)", "first(v)",
              "last(v)", "stddev(v),count(v)", "percentile(v,90),sum(v)", "derivative(max(v)),count(v)"}) {
          const std::string text = fmt::format("SELECT {} FROM m{}{}", functions, range, group);
          const InfluxqlRequest request{.text = text, .now_ns = N * SECOND_NS};
          EXPECT_EQ(answer_influxql(source, request, {}).body, answer_influxql(plain, request, {}).body) << text;
        }
    EXPECT_EQ(source.type(*store.find("m,host=a v")), ValueType::integer);
    PointList list;
    source.read(0, {.is_summary_enough = [](int64_t, int64_t) { return true; }}, list);
    n_summaries += list.summaries.size();
  }
  EXPECT_GT(n_summaries, 4u) << "too few summaries were used";
}

TEST(Influxql, InterruptedQueries) {
  MemorySource source;
  for (int i = 0; i < 1'000; ++i) source.add("m", {{"host", std::to_string(i)}}, "v", points_at_seconds({{i, i}}));
  int n_asked = 0;
  InfluxqlRequest request{.text = "SELECT mean(v) FROM m GROUP BY host; SHOW DATABASES"};
  request.is_interrupted = [&] { return ++n_asked == 20; };
  EXPECT_EQ(answer_influxql(source, request, {}).body,
            "{\"results\":[{\"statement_id\":0,\"error\":\"query interrupted\"},"
            "{\"statement_id\":1,\"error\":\"not executed\"}]}\n");
  // Four times while series were searched.
  EXPECT_EQ(source.n_read, 15U);
  n_asked = 17;
  request.text = "SHOW SERIES";
  EXPECT_THAT(answer_influxql(source, request, {}).body, testing::HasSubstr("query interrupted"));
}

// Only rows that can be in the page are kept. Fails if a limit of memory counts the others, or if the page lacks rows.
TEST(Influxql, PagesOfManySeries) {
  MemorySource source;
  for (int i = 0; i < 3'000; ++i)
    source.add("m", {{"host", fmt::format("{:04}", i)}}, "v", points_at_seconds({{i, i}, {4'000, i}, {9'000 - i, i}}));
  std::vector<Point> points(9'000);
  for (size_t i = 0; i < points.size(); ++i) points[i].ts_ns = static_cast<int64_t>(i) * SECOND_NS;
  source.add("long", {}, "v", points);
  for (int field = 0; field < 5; ++field) {
    source.add("wide", {}, fmt::format("f{}", field), points);
    for (Point &point : points) point.ts_ns += SECOND_NS / 20;
  }
  static const struct {
    const char *text;
    std::vector<std::pair<int64_t, double>> rows;
  } rows[] = {
      {"m LIMIT 3 OFFSET 1", {{1, 1}, {2, 2}, {3, 3}}},
      {"m LIMIT 2 OFFSET 2999", {{2'999, 2'999}, {4'000, 0}}},
      {"m ORDER BY time DESC LIMIT 2 OFFSET 2", {{8'998, 2}, {8'997, 3}}},
      {"m ORDER BY time DESC LIMIT 2 OFFSET 2999", {{6'001, 2'999}, {4'000, 2'999}}},
      {"wide ORDER BY time DESC LIMIT 1 OFFSET 404", {{8'919, 0}}},
      {"long ORDER BY time DESC LIMIT 2 OFFSET 1", {{8'998, 0}, {8'997, 0}}},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.text);
    const char *const column = row.text[0] == 'w' ? "*" : "v";
    const auto statement = influxql::parse_statements(fmt::format("SELECT {} FROM {}", column, row.text), 0).at(0);
    const auto results = influxql::execute({source, {}, 0, {.n_cells = 8'000}}, statement);
    ASSERT_EQ(results.size(), 1U);
    std::vector<std::pair<int64_t, double>> found;
    for (size_t i = 0; i < results[0].n_rows(); ++i)
      found.emplace_back(results[0].times_ns[i] / SECOND_NS, results[0].cells[i * results[0].n_cells_of_row()].number);
    EXPECT_EQ(found, row.rows);
  }
}

// Without the filter a source visits all series for each statement.
TEST(Influxql, SourcesGetTheFilterOfTheStatement) {
  static const struct {
    const char *text;
    size_t n_visited;
  } rows[] = {
      {"SELECT load FROM cpu", 2},
      {"SELECT mean(load) FROM cpu WHERE host = 'a' AND time > 0", 1},
      {"SELECT * FROM cpu WHERE (host = 'a' AND (zone = 'x'))", 2},
      {"SELECT * FROM cpu WHERE host = 'a' OR host = 'b'", 3},
      {"SELECT * FROM cpu WHERE rack = ''", 3},
      {"SELECT * FROM cpu, mem, cpu", 4},
      {"SHOW TAG VALUES FROM mem WITH KEY = host", 1},
  };
  for (const auto &row : rows) {
    const MemorySource source = two_hosts();
    answer_influxql(source, {.text = row.text}, {});
    EXPECT_EQ(source.n_visited, row.n_visited) << row.text;
  }
}

TEST(Influxql, TimesInTheAnswer) {
  MemorySource source;
  source.add("m", {}, "v", {{-1'500'000'000, 1}, {7'200'000'000'000, 2}, {1'767'323'045'120'000'000, 3}});
  static const struct {
    const char *epoch;
    const char *values;
  } rows[] = {
      {"", R"(["1969-12-31T23:59:58.5Z",1],["1970-01-01T02:00:00Z",2],["2026-01-02T03:04:05.12Z",3])"},
      {"ns", "[-1500000000,1],[7200000000000,2],[1767323045120000000,3]"},
      {"u", "[-1500000,1],[7200000000,2],[1767323045120000,3]"},
      {"ms", "[-1500,1],[7200000,2],[1767323045120,3]"},
      {"s", "[-1,1],[7200,2],[1767323045,3]"},
      {"m", "[0,1],[120,2],[29455384,3]"},
      {"h", "[0,1],[2,2],[490923,3]"},
  };
  for (const auto &row : rows) {
    InfluxqlRequest request{.text = "SELECT v FROM m", .epoch = row.epoch};
    EXPECT_THAT(answer_influxql(source, request, {}).body,
                testing::HasSubstr(fmt::format("\"values\":[{}]", row.values)))
        << row.epoch;
  }
}

TEST(Influxql, NumbersAndTextsInTheAnswer) {
  MemorySource source;
  const std::vector<double> numbers = {0.1, -0.0, 1e20, 1e21, 1.5e-6, 1.5e-7, 1e-300, 123456789.125, 5e-324};
  for (size_t i = 0; i < numbers.size(); ++i)
    source.add(fmt::format("m\"{}\n,", i), {{"k=", "v \xff"}}, "v", {{0, numbers[i]}});
  const std::string body = answer_influxql(source, {.text = "SELECT v FROM /m/ GROUP BY *", .epoch = "ns"}, {}).body;
  for (const char *const number :
       {"0.1", "-0", "100000000000000000000", "1e+21", "0.0000015", "1.5e-7", "1e-300", "123456789.125", "5e-324"})
    EXPECT_THAT(body, testing::HasSubstr(fmt::format("[[0,{}]]", number)));
  EXPECT_THAT(body, testing::HasSubstr(R"("name":"m\"3\u000a,","tags":{"k=":"v )"
                                       "\xef\xbf\xbd"
                                       R"("})"));
  EXPECT_THAT(answer_influxql(source, {.text = "SHOW SERIES LIMIT 1"}, {}).body,
              testing::HasSubstr(R"(m\"0\u000a\\,,k\\==v\\ )"));
}

TEST(Influxql, PrettyAnswer) {
  const InfluxqlRequest request{.text = "SELECT rx FROM net GROUP BY a; SELECT x FROM y", .epoch = "s", .pretty = true};
  EXPECT_EQ(answer_influxql(two_hosts(), request, {}).body, R"({
    "results": [
        {
            "statement_id": 0,
            "series": [
                {
                    "name": "net",
                    "tags": {
                        "a": ""
                    },
                    "columns": [
                        "time",
                        "rx"
                    ],
                    "values": [
                        [
                            1,
                            7
                        ]
                    ]
                }
            ]
        },
        {
            "statement_id": 1
        }
    ]
}
)");
}

TEST(Influxql, ChunkedAnswer) {
  InfluxqlRequest request{.text = "SELECT load FROM cpu GROUP BY host; DROP DATABASE x", .epoch = "s", .chunked = true};
  request.chunk_size = 3;
  EXPECT_EQ(answer_influxql(two_hosts(), request, {}).body,
            R"({"results":[{"statement_id":0,"series":[{"name":"cpu","tags":{"host":"a"},"columns":["time","load"],)"
            R"("values":[[0,1],[10,2],[20,4]],"partial":true}],"partial":true}]})"
            "\n"
            R"({"results":[{"statement_id":0,"series":[{"name":"cpu","tags":{"host":"a"},"columns":["time","load"],)"
            R"("values":[[30,3]]}],"partial":true}]})"
            "\n"
            R"({"results":[{"statement_id":0,"series":[{"name":"cpu","tags":{"host":"b"},"columns":["time","load"],)"
            R"("values":[[5,10],[10,20],[65,30]]}]}]})"
            "\n"
            R"({"results":[{"statement_id":1,"error":"the database is open for reading only"}]})"
            "\n");
}

TEST(Influxql, CsvAnswer) {
  MemorySource source = two_hosts();
  source.add("a,\"b\"", {{"k", "v,w"}}, "x", {{5, 1e21}});
  const InfluxqlRequest request{
      .text =
          "SELECT load, idle FROM cpu WHERE time <= 5s GROUP BY host, rack; SELECT x FROM z; CREATE DATABASE q; "
          "SHOW TAG KEYS FROM cpu; SELECT x FROM /b/ GROUP BY k; DROP DATABASE x",
      .csv = true};
  const InfluxqlAnswer answer = answer_influxql(source, request, {});
  EXPECT_EQ(answer.content_type, "text/csv");
  EXPECT_EQ(answer.body,
            "name,tags,time,load,idle\ncpu,host=a,0,1,90\ncpu,host=b,5000000000,10,\n"
            "\nname,tags,tagKey\ncpu,,host\ncpu,,zone\n"
            "\nname,tags,time,x\n\"a,\"\"b\"\"\",\"k=v\\,w\",5,1000000000000000000000\n"
            "\nerror\nthe database is open for reading only\n");
}

TEST(Influxql, RefusedStatements) {
  static const std::pair<const char *, const char *> rows[] = {
      {"SELECT load FROM cpu", "no reading"},
      {"SHOW DATABASES", "no reading"},
      {"CREATE DATABASE x", "no creation"},
      {"DROP DATABASE x", "no change"},
      {"DELETE FROM cpu; CREATE DATABASE x", "no change"},
  };
  for (const auto &[text, why] : rows) {
    const InfluxqlRequest request{.text = text,
                                  .refusal_of_reads = "no reading",
                                  .refusal_of_creations = "no creation",
                                  .refusal_of_changes = "no change"};
    const InfluxqlAnswer answer = answer_influxql(two_hosts(), request, {});
    EXPECT_TRUE(answer.is_forbidden);
    EXPECT_EQ(answer.body, fmt::format("{{\"error\":\"{}\"}}\n", why)) << text;
  }
}

TEST(Influxql, BadRequests) {
  InfluxqlRequest request{.text = "SHOW DATABASES; SELECT \"a\" FRM cpu"};
  InfluxqlAnswer answer = answer_influxql(two_hosts(), request, {});
  EXPECT_TRUE(answer.is_bad_request);
  EXPECT_EQ(answer.body, "{\"error\":\"error parsing query: found FRM, expected FROM at line 1, char 28\"}\n");
  request.csv = true;
  answer = answer_influxql(two_hosts(), request, {});
  EXPECT_TRUE(answer.is_bad_request);
  EXPECT_EQ(answer.body, "error\n\"error parsing query: found FRM, expected FROM at line 1, char 28\"\n");
}

}  // namespace metricdb
