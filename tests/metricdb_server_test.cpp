// The server with real sockets: answers and their order, and that a stop answers all requests that have arrived.

#include <nlohmann/json.hpp>

#include "net/influx_api.h"
#include "server_support.h"

using testing::EndsWith;

TEST(Influx, AnswersToRequests) {
  static const struct {
    std::string request;
    int status;
    const char *message;  // in the body
    size_t points;        // stored
  } rows[] = {
      {post("m f=1,g=2 5\nm f=3 6"), 204, "", 3},
      {post(""), 204, "", 0},
      {post("# nothing\n"), 204, "", 0},
      {post("m f=1 5\nm f=x 5\nm f=2 6\nm\n"), 400, "partial write: line 2: field \\\"f\\\": ", 2},
      {post("m f=x 5\n"), 400, "dropped=1", 0},
      {post("m f=\xff\xfe 5\n"), 400, "dropped=1", 0},
      {post("m f=1 5", "precision=fortnight"), 400, "precision \\\"fortnight\\\" is not one of", 0},
      {post("m f=1 5", "db=x", "Content-Encoding: br\r\n"), 415, "content encoding \\\"br\\\"", 0},
      {post("m f=1 5", "db=x", "Content-Encoding: gzip\r\n"), 400, "not valid gzip", 0},
      {post("m f=1 5", "db=x", "Content-Encoding: identity\r\nContent-Type: text/plain\r\n"), 204, "", 1},
      {get("/write"), 405, "POST", 0},
      {get("/ping"), 204, "", 0},
      {get("/ping", "HEAD"), 204, "", 0},
      {get("/ping", "DELETE"), 405, "GET, HEAD", 0},
      {get("/health"), 200, "\"status\":\"pass\"", 0},
      {get("/metrics", "POST"), 405, "GET, HEAD", 0},
      {get("/"), 404, "/write", 0},
      {get("/writes"), 404, "/write", 0},
      {get("/query"), 400, "missing required parameter", 0},
      {get("/query?q=SHOW+DATABASES"), 501, "queries are not answered", 0},
  };
  RunningServer server;
  Peer kept(server.influx_port());
  std::string pipeline;
  size_t points = 0;
  for (const auto &row : rows) {
    SCOPED_TRACE(row.request);
    const std::string answer = answer_to(kept, row.request);
    EXPECT_EQ(Peer::status_of(answer), row.status);
    EXPECT_THAT(answer, HasSubstr("\r\nX-Influxdb-Version: 1.8-metricdb\r\n"));
    EXPECT_THAT(body_of(answer), HasSubstr(row.message));
    EXPECT_TRUE(body_of(answer).empty() || nlohmann::json::accept(body_of(answer))) << answer;
    points += row.points;
    EXPECT_EQ(server.ingest().points().size(), points);
    ASSERT_TRUE(wait_until([&] { return !server.ingest().is_open(); })) << "the batch stays open";
    pipeline += row.request;
  }
  EXPECT_EQ(server.counters().requests, std::size(rows));
  EXPECT_EQ(server.counters().malformed, 4u);

  // The same requests together, and byte by byte.
  Peer at_once(server.influx_port()), in_bytes(server.influx_port());
  ASSERT_TRUE(at_once.send(pipeline));
  for (const char byte : pipeline) ASSERT_TRUE(in_bytes.send({&byte, 1}));
  for (const auto &row : rows) {
    EXPECT_EQ(at_once.status(), row.status) << row.request;
    EXPECT_EQ(in_bytes.status(), row.status) << row.request;
  }
}

TEST(Influx, Precisions) {
  static const struct {
    const char *unit;
    int64_t ns;
  } rows[] = {{"n", 1},         {"ns", 1},       {"", 1},           {"u", 1000},        {"us", 1000},
              {"%C2%B5", 1000}, {"ms", 1000000}, {"s", 1000000000}, {"m", 60000000000}, {"h", 3600000000000}};
  RunningServer server;
  Peer peer(server.influx_port());
  for (const auto &row : rows) {
    EXPECT_EQ(ask(peer, post("m f=1 7", std::string("precision=") + row.unit)), 204);
    EXPECT_THAT(server.ingest().points().back(), EndsWith(fmt::format("@{}", 7 * row.ns)));
  }
}

// A client drops lines after 400, and sends the request again after 503.
TEST(Influx, AnswersToSkippedLines) {
  static const struct {
    IngestResult result;
    int status;
    const char *error;
  } rows[] = {
      {{.points = 1}, 204, ""},
      {{.malformed = 2, .first_reason = "line 3: a"}, 400, "partial write: line 3: a dropped=2"},
      {{.points = 1, .late = 3, .first_reason = "line 3: a"}, 400, "partial write: line 3: a dropped=3"},
      {{.points = 1, .future = 4, .first_reason = "line 3: a"}, 400, "partial write: line 3: a dropped=4"},
      {{.points = 1, .malformed = 1, .no_room = 2, .first_reason = "line 3: a", .room_reason = "line 4: b"},
       503,
       "partial write: line 4: b dropped=3"},
  };
  for (const auto &row : rows) {
    const HttpAnswer answer = answer_to(row.result);
    EXPECT_EQ(answer.status, row.status) << row.error;
    EXPECT_EQ(answer.error, row.error);
  }
}

// With several databases a batch can be lost for some of them only.
TEST(Influx, LostBatchOfOneDatabase) {
  RunningServer server;
  server.ingest().settle_up_to(0);
  server.ingest().fail(1, "the disk is full", "a");
  Peer peer(server.influx_port());
  const auto to = [](const char *database) {
    return fmt::format("POST /write?db={} HTTP/1.1\r\nContent-Length: 7\r\n\r\nm f=1 5", database);
  };
  ASSERT_TRUE(peer.send(to("a") + to("b") + to("unknown")));
  ASSERT_TRUE(server.wait_for_points(2));
  server.ingest().settle_all();
  EXPECT_EQ(peer.status(), 507);
  EXPECT_EQ(peer.status(), 204);
  EXPECT_THAT(peer.answer(), testing::AllOf(HasSubstr(" 404 "), HasSubstr(R"(database not found: \"unknown\")")));
}

TEST(Influx, ExpectationsAreAnsweredBeforeTheBody) {
  RunningServer server;
  Peer peer(server.influx_port());
  const auto head = [](const char *arguments) {
    return fmt::format("POST /write?{} HTTP/1.1\r\nExpect: 100-continue\r\nContent-Length: 7\r\n\r\n", arguments);
  };
  // The previous answer still waits for its batch.
  server.ingest().settle_up_to(0);
  ASSERT_TRUE(peer.send(post("m f=1 5") + head("")));
  ASSERT_TRUE(server.wait_for_points(1));
  expect_others_are_served(server);
  EXPECT_TRUE(peer.has_read_everything());
  server.ingest().settle_all();
  EXPECT_EQ(peer.status(), 204);
  EXPECT_EQ(peer.status(), 100);
  EXPECT_EQ(ask(peer, "m f=2 6"), 204);
  EXPECT_EQ(ask(peer, head("precision=x")), 400);
  EXPECT_TRUE(peer.is_closed());
}

TEST(GroupCommit, AnswersWaitForTheirBatch) {
  RunningServer server;
  FakeIngest &ingest = server.ingest();
  ingest.settle_up_to(0);
  Peer first(server.influx_port()), second(server.influx_port());
  // Waits until the batch is committed. Otherwise the next request could be in the same batch.
  const auto send_and_wait = [&](Peer &peer, const std::string &request, uint64_t batches) {
    ASSERT_TRUE(peer.send(request));
    ASSERT_TRUE(wait_until([&] { return ingest.n_batches() == batches; }));
  };
  send_and_wait(first, post("m f=1 1\nbad\n"), 1);
  send_and_wait(second, post("m f=2 2\n"), 2);
  // This request has its own answer ready, but must wait for the previous one.
  ASSERT_TRUE(second.send(get("/ping")));
  send_and_wait(second, post("m f=3 3\n"), 3);
  expect_others_are_served(server);
  for (Peer *peer : {&first, &second}) EXPECT_TRUE(peer->has_read_everything());

  ingest.settle_up_to(1);
  EXPECT_EQ(first.status(), 400);
  expect_others_are_served(server);
  EXPECT_TRUE(second.has_read_everything());
  ingest.settle_up_to(2);
  for (int i = 0; i < 2; ++i) EXPECT_EQ(second.status(), 204);
  expect_others_are_served(server);
  EXPECT_TRUE(second.has_read_everything());
  ingest.settle_up_to(3);
  EXPECT_EQ(second.status(), 204);
}

TEST(GroupCommit, RefusedBatchesAreReported) {
  RunningServer server;
  FakeIngest &ingest = server.ingest();
  ingest.fail(1, "disk \"full\"\n");
  ingest.settle_up_to(0);
  Peer peer(server.influx_port()), graphite(server.graphite_port());
  // The requests may be in one batch or several. The first one fails in any case.
  ASSERT_TRUE(peer.send(post("m f=1 1\nbad\n") + post("bad\n")));
  ASSERT_TRUE(server.wait_for_points(1));
  ingest.settle_all();
  const std::string failed = peer.answer();
  EXPECT_EQ(Peer::status_of(failed), 507);
  EXPECT_THAT(failed, HasSubstr("X-Influxdb-Error: disk \"full\"?\r\n"));
  EXPECT_EQ(body_of(failed), "{\"error\":\"disk \\\"full\\\"\\n\"}\n");
  EXPECT_EQ(peer.status(), 400) << "without points it does not depend on the batch";
  EXPECT_EQ(ask(peer, post("m f=2 2\n")), 204) << "the next batch is refused too";

  ingest.refuse_all("no room");
  const std::string refused = answer_to(peer, post("m f=3 3\n"));
  EXPECT_EQ(Peer::status_of(refused), 503);
  EXPECT_EQ(body_of(refused), "{\"error\":\"no room\"}\n");
  ASSERT_TRUE(graphite.send("a 1 7\n"));
  EXPECT_TRUE(wait_until([&] { return server.counters().refused == 3; }));
  ingest.refuse_all("");
  ASSERT_TRUE(graphite.send("a 2 7\n"));
  EXPECT_TRUE(server.wait_for_points(3));
}

TEST(Graphite, StreamsOfLines) {
  RunningServer server;
  Peer peer(server.graphite_port());
  const std::string lines = "a.b 1 7\nx nan 7\nc;k=v 2.5 8.5\r\n\nGET / HTTP/1.1\nd 3 N\nd 4";
  for (const char byte : lines) ASSERT_TRUE(peer.send({&byte, 1}));
  peer.end_sending();
  EXPECT_TRUE(peer.is_closed());
  EXPECT_THAT(server.ingest().points(),
              ElementsAre("a.b value=1@7000000000", "c,k=v value=2.5@8500000000", "d value=3"));
  EXPECT_EQ(server.counters().malformed, 3u) << "an incomplete line is not counted";
}

TEST(Stop, ArrivedRequestsAreAnswered) {
  // The limit makes the server process one write at a time, so the next one is not read before the stop.
  RunningServer server({.influx_port = 0, .graphite_port = 0, .max_connection_bytes = 1});
  server.ingest().settle_up_to(0);
  Peer idle(server.influx_port()), busy(server.influx_port()), half(server.influx_port()),
      lines(server.graphite_port());
  ASSERT_TRUE(busy.send(post("m f=1 5")));
  ASSERT_TRUE(server.wait_for_points(1));
  ASSERT_TRUE(half.send(post("m f=2 5") + "POST /write HTTP/1.1\r\n"));
  ASSERT_TRUE(lines.send("a 1 7\na 2 7\na 3"));
  ASSERT_TRUE(busy.send(post("m f=3 5") + post("m f=4 5")));
  ASSERT_TRUE(server.wait_for_points(4));
  expect_others_are_served(server);
  server.stop_later();
  EXPECT_TRUE(wait_until([&] { return !Peer(server.influx_port()).is_connected(); }));
  EXPECT_TRUE(busy.has_read_everything());
  EXPECT_EQ(server.counters().points, 4u);
  server.ingest().settle_all();
  for (int i = 0; i < 3; ++i) EXPECT_EQ(busy.status(), 204) << i;
  EXPECT_EQ(half.status(), 204);
  for (Peer *peer : {&idle, &busy, &half, &lines}) EXPECT_TRUE(peer->is_closed());
  server.stop();
  EXPECT_EQ(server.counters().points, 6u);
  EXPECT_EQ(server.counters().connections, 0u);
}

TEST(Stop, ReturnsAfterTheTimeout) {
  RunningServer server({.influx_port = 0, .graphite_port = 0, .drain_timeout = milliseconds(50)});
  server.ingest().settle_up_to(0);
  Peer peer(server.influx_port());
  ASSERT_TRUE(peer.send(post("m f=1 5")));
  ASSERT_TRUE(server.wait_for_points(1));
  server.stop();
  EXPECT_TRUE(peer.is_closed());
}

TEST(Stop, BeforeRunAndBeforeTheDatabaseIsOpen) {
  Server server({.influx_port = 0, .graphite_port = {}});
  EXPECT_NE(server.influx_port(), 0);
  EXPECT_EQ(server.graphite_port(), 0);
  server.stop();
  server.run();
}

TEST(Start, UnusableAddresses) {
  RunningServer first;
  EXPECT_THROW(Server({.influx_port = first.influx_port(), .graphite_port = 0}), ServerError);
  EXPECT_THROW(Server({.address = "nowhere", .influx_port = 0, .graphite_port = 0}), ServerError);
}
