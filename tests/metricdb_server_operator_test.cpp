// What a server does for its operator: /health, /metrics, the log and backups.
#include "net/limited_log.h"
#include "server_support.h"
#include "store/log.h"

using Operator = Folder;
using Metrics = std::map<std::string, double>;

// Values by name and labels. Each name has a help text and a type before its values.
static Metrics metrics_of(Peer &peer) {
  const std::string answer = answer_to(peer, get("/metrics"));
  EXPECT_EQ(Peer::status_of(answer), 200);
  EXPECT_THAT(answer, HasSubstr("\r\nContent-Type: text/plain; version=0.0.4"));
  const std::string text = body_of(answer);
  Metrics metrics;
  std::string typed, helped;
  std::string_view rest = text;
  for (std::string_view line; next_line(rest, line);) {
    const std::string words(line);
    if (line.starts_with("# HELP ")) {
      helped = words.substr(7, words.find(' ', 7) - 7);
      continue;
    }
    if (line.starts_with("# TYPE ")) {
      typed = words.substr(7, words.find(' ', 7) - 7);
      EXPECT_EQ(typed, helped);
      continue;
    }
    const size_t blank = words.rfind(' ');
    EXPECT_TRUE(words.starts_with(typed)) << words;
    EXPECT_TRUE(metrics.emplace(words.substr(0, blank), std::stod(words.substr(blank))).second) << words << " twice";
  }
  return metrics;
}

// Everything that was logged since the log was started there.
static std::string end_log(const fs::path &folder) {
  TSLB_DLOG_INIT(nullptr, 0, 10);
  std::string log;
  for (const auto &[name, content] : tree_of(folder)) log += content;
  return log;
}

TEST_F(Operator, MetricsCountWhatHappened) {
  RunningServer server;
  FakeIngest &ingest = server.ingest();
  Peer peer(server.influx_port()), graphite(server.graphite_port());
  EXPECT_EQ(ask(peer, post("m f=1,g=2 5\nbad\n")), 400);
  ingest.fail(2, "disk full");
  EXPECT_EQ(ask(peer, post("m f=1 5\n")), 507);
  ingest.refuse_all("no room");
  EXPECT_EQ(ask(peer, post("m f=1 5\n")), 503);
  ingest.refuse_all("");
  ASSERT_TRUE(graphite.send("bad\n"));
  ASSERT_TRUE(wait_until([&] { return server.counters().malformed == 2; }));
  IngestFigures figures;
  figures.series = 7;
  figures.key_bytes = 70;
  figures.max_key_bytes = 700;
  figures.snapshot_failure = "disk full";
  ingest.set_figures(figures);
  const Metrics metrics = metrics_of(peer);
  const Metrics expected = {{"metricdb_points_total", 3},
                            {"metricdb_requests_total", 4},
                            {"metricdb_skipped_lines_total{reason=\"malformed\"}", 2},
                            {"metricdb_refused_requests_total{reason=\"no_room\"}", 1},
                            {"metricdb_refused_requests_total{reason=\"batch_lost\"}", 1},
                            {"metricdb_connections", 2},
                            {"metricdb_waiting_batches", 0},
                            {"metricdb_waiting_bytes", 0},
                            {"metricdb_batch_seconds_count", 2},
                            {"metricdb_batch_seconds_bucket{le=\"+Inf\"}", 2},
                            {"metricdb_series", 7},
                            {"metricdb_key_bytes", 70},
                            {"metricdb_max_key_bytes", 700},
                            {"metricdb_snapshot_failed", 1}};
  for (const auto &[name, value] : expected) {
    ASSERT_TRUE(metrics.contains(name)) << name;
    EXPECT_EQ(metrics.at(name), value) << name;
  }
  EXPECT_GT(metrics.at("process_resident_memory_bytes"), 1e6);
  double before = 0;
  for (const char *limit : {"0.0005", "0.005", "0.1", "10", "+Inf"}) {
    const double up_to = metrics.at(fmt::format("metricdb_batch_seconds_bucket{{le=\"{}\"}}", limit));
    EXPECT_GE(up_to, before) << limit;
    before = up_to;
  }
}

TEST_F(Operator, HealthFailsWhileItCannotWrite) {
  RunningServer server({.influx_port = 0, .graphite_port = 0, .stuck_batch = milliseconds(0)});
  Peer peer(server.influx_port()), writer(server.influx_port());
  EXPECT_EQ(ask(peer, get("/health")), 200);
  server.ingest().set_not_writable("the disk is \"full\"");
  const std::string answer = answer_to(peer, get("/health"));
  EXPECT_EQ(Peer::status_of(answer), 503);
  EXPECT_EQ(body_of(answer), "{\"name\":\"metricdb\",\"message\":\"the disk is \\\"full\\\"\",\"status\":\"fail\"}\n");
  server.ingest().set_not_writable("");
  EXPECT_EQ(ask(peer, get("/health")), 200);
  server.ingest().settle_up_to(0);
  ASSERT_TRUE(writer.send(post("m f=1 5")));
  ASSERT_TRUE(wait_until([&] { return server.ingest().n_batches() == 1; }));
  const std::string stuck = answer_to(peer, get("/health"));
  EXPECT_EQ(Peer::status_of(stuck), 503);
  EXPECT_THAT(stuck, HasSubstr("the disk has not confirmed a batch for 0 s"));
  server.ingest().settle_all();
  EXPECT_EQ(writer.status(), 204);
  EXPECT_EQ(ask(peer, get("/health")), 200);
}

// Graphite lines have no answer, so they are not received before they can be stored.
TEST_F(Operator, AnswersWhileTheDatabaseIsOpened) {
  FakeIngest fake;
  Server server({.influx_port = 0, .graphite_port = 0});
  std::thread thread([&server] { server.run(); });
  Peer peer(server.influx_port()), graphite(server.graphite_port());
  ASSERT_TRUE(graphite.send("early 1 7\n"));
  server.set_progress(1, 4);
  const std::string health = answer_to(peer, get("/health"));
  EXPECT_EQ(Peer::status_of(health), 503);
  EXPECT_THAT(health, HasSubstr("starting: the database is being opened, 25 % are read"));
  EXPECT_EQ(ask(peer, post("m f=1 5")), 503);
  EXPECT_EQ(ask(peer, get("/ping")), 204);
  EXPECT_EQ(ask(peer, get("/metrics")), 200);
  server.open(fake);
  ASSERT_TRUE(wait_until([&] { return server.counters().points == 1; })) << "the Graphite line";
  EXPECT_EQ(ask(peer, get("/health")), 200);
  EXPECT_EQ(ask(peer, post("m f=1 5")), 204);
  EXPECT_THAT(fake.points(), ElementsAre("early value=1@7000000000", "m f=1@5"));
  server.stop();
  thread.join();
}

// An interval that does not end during the test, so its lines are reported when the server ends.
TEST_F(Operator, LogShowsFaultsAndLimitsTheirRate) {
  TSLB_DLOG_INIT(path("log").c_str(), LOG_PROGRESS, 10);
  {
    RunningServer server({.influx_port = 0,
                          .graphite_port = 0,
                          .slow_request = milliseconds(0),
                          .log_interval = milliseconds(3'600'000),
                          .max_log_lines = 3});
    FakeIngest &ingest = server.ingest();
    Peer peer(server.influx_port());
    for (int i = 0; i < 10; ++i) EXPECT_EQ(ask(peer, post("# comment\nm f=\x1b[31m 5\n")), 400);
    ingest.refuse_all("no room");
    for (int i = 0; i < 2; ++i) EXPECT_EQ(ask(peer, post("m f=1 5")), 503);
    ingest.refuse_all("");
    ingest.settle_up_to(0);
    ASSERT_TRUE(peer.send(post("m f=1 5")));
    ASSERT_TRUE(wait_until([&] { return ingest.n_batches() == 1; }));
    IngestFigures figures;
    figures.generation = 12;
    figures.snapshots = 1;
    ingest.set_figures(figures);
    ingest.settle_all();
    EXPECT_EQ(peer.status(), 204);
  }
  const std::string log = end_log(root_);
  EXPECT_EQ(count_of(log, "1 lines were skipped; the first: line 2: field \"f\": \"?[31m\" is not"), 3u) << log;
  EXPECT_EQ(count_of(log, "skipped lines: 7 further lines were left out\n"), 1u) << log;
  EXPECT_EQ(count_of(log, "7 bytes of lines were refused: no room\n"), 2u) << log;
  EXPECT_EQ(count_of(log, "a request with 7 bytes of lines was answered after "), 1u) << log;
  EXPECT_EQ(count_of(log, "generation 12 was written, "), 1u) << log;
  EXPECT_EQ(count_of(log, "left out"), 1u) << log;
}

TEST_F(Operator, LimitedLogBeginsAgainWithTheNextInterval) {
  TSLB_DLOG_INIT(path("log").c_str(), LOG_REFUSALS, 10);
  LimitedLog log(2, std::chrono::seconds(10));
  const LimitedLog::Clock::time_point begin{std::chrono::seconds(1000)};
  for (const int second : {0, 1, 2, 9, 10, 11, 12}) {
    log.add(LogTopic::refusals, begin + std::chrono::seconds(second), fmt::format("second {};", second));
    if (second == 9) log.add(LogTopic::connections, begin, "another topic;");
  }
  const auto lines_of = [](const std::string &text) {
    std::vector<std::string> lines;
    std::string_view rest = text;
    for (std::string_view line; next_line(rest, line);)
      if (!line.starts_with('#')) lines.emplace_back(line.substr(line.rfind('|') + 1));
    return lines;
  };
  EXPECT_THAT(lines_of(end_log(root_)),
              ElementsAre("second 0;", "second 1;", "another topic;", "refusals: 2 further lines were left out",
                          "second 10;", "second 11;"));
}

TEST_F(Operator, BackupsAreOffWithoutAFolder) {
  RunningServer server;
  Peer peer(server.influx_port());
  const std::string answer = answer_to(peer, get("/backup?name=x", "POST"));
  EXPECT_EQ(Peer::status_of(answer), 403);
  EXPECT_THAT(answer, HasSubstr("the server has no --backup-folder"));
}

// A backup that does not end holds up neither writes nor queries; the end of the server waits for it.
TEST_F(Operator, BackupRunsBesideEverythingElse) {
  std::atomic<bool> has_begun = false, may_end = false, has_ended = false;
  ServerOptions options = {.influx_port = 0, .graphite_port = 0};
  options.backup = [&](const QueryRequest &request, const IsInterrupted &) {
    has_begun = true;
    EXPECT_TRUE(wait_until([&] { return may_end.load(); }));
    has_ended = true;
    return QueryAnswer{HTTP_STATUS_OK, "text/plain", "backup " + request.text};
  };
  options.query = [](const QueryRequest &, const IsInterrupted &) { return QueryAnswer{HTTP_STATUS_OK, "", "rows"}; };
  RunningServer server(options);
  Peer asking(server.influx_port()), others(server.influx_port());
  ASSERT_TRUE(asking.send(get("/backup?name=a", "POST")));
  ASSERT_TRUE(wait_until([&] { return has_begun.load(); }));
  EXPECT_EQ(ask(others, post("m f=1 5")), 204);
  EXPECT_EQ(ask(others, get("/query?q=x")), 200);
  ASSERT_TRUE(asking.send(get("/backup?name=b", "POST") + get("/backup?name=c", "POST")));
  ASSERT_TRUE(wait_until([&] { return server.counters().requests == 5; }));
  server.stop_later();
  may_end = true;
  EXPECT_EQ(body_of(asking.answer()), "backup a");
  EXPECT_EQ(body_of(asking.answer()), "backup b");
  EXPECT_EQ(asking.status(), 503);
  server.stop();
  EXPECT_TRUE(has_ended);
}
