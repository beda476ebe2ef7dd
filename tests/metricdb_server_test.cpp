// The server over real sockets: what each request is answered and when, that bounds hold while others are served, and
// that a stop leaves nothing unanswered that had arrived.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>
#include <vector>

#include "log.h"
#include "server_support.h"

namespace metricdb {
namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

std::string body_of(const std::string &answer) {
  const size_t end = answer.find("\r\n\r\n");
  return end == std::string::npos ? "" : answer.substr(end + 4);
}

std::string get(const std::string &target, const std::string &method = "GET") {
  return method + " " + target + " HTTP/1.1\r\nHost: x\r\n\r\n";
}

// Whatever was sent before this returns has had a turn.
void expect_others_are_served(const RunningServer &server) {
  Peer other(server.influx_port());
  ASSERT_TRUE(other.send(get("/ping")));
  EXPECT_EQ(other.status(), 204);
}

// ---- Answers ----

TEST(Influx, AnswersToRequests) {
  static const struct {
    std::string request;
    int status;
    const char *told;  // in the body's error or text
    size_t points;     // taken
  } rows[] = {
      {post("m f=1 5\n"), 204, "", 1},
      {post("m f=1,g=2 5\nm f=3 6"), 204, "", 3},
      {post(""), 204, "", 0},
      {post("# nothing\n"), 204, "", 0},
      {post("m f=1 5\nm f=x 5\nm f=2 6\nm\n"), 400, "partial write: line 2: field \\\"f\\\": ", 2},
      {post("m f=x 5\n"), 400, "dropped=1", 0},
      {post("m f=\xff\xfe 5\n"), 400, "dropped=1", 0},
      {post("m f=1 5", "precision=fortnight"), 400, "precision \\\"fortnight\\\" is none of", 0},
      {post("m f=1 5", "db=x", "Content-Encoding: br\r\n"), 415, "content encoding \\\"br\\\"", 0},
      {post("m f=1 5", "db=x", "Content-Encoding: gzip\r\n"), 400, "not whole in gzip", 0},
      {post("m f=1 5", "db=x", "Content-Encoding: identity\r\nContent-Type: text/plain\r\n"), 204, "", 1},
      {get("/write"), 405, "POST", 0},
      {get("/ping"), 204, "", 0},
      {get("/ping", "HEAD"), 204, "", 0},
      {get("/ping", "DELETE"), 405, "GET, HEAD", 0},
      {get("/health"), 200, "\"status\":\"pass\"", 0},
      {get("/"), 404, "/write", 0},
      {get("/writes"), 404, "/write", 0},
      {get("/query"), 400, "missing required parameter", 0},
      {get("/query?q=show+databases"), 200, "[\"metricdb\"]", 0},
      {get("/query?db=x&q=SELECT%20%22a%22%20FROM%20m"), 200, "not supported here: SELECT \\\"a\\\" FROM m", 0},
      {get("/query?q=%"), 200, "not supported here: %", 0},
  };
  RunningServer server;
  Peer kept(server.influx_port());
  std::string pipeline;
  size_t points = 0;
  for (const auto &row : rows) {
    SCOPED_TRACE(row.request);
    ASSERT_TRUE(kept.send(row.request));
    const std::string answer = kept.answer();
    EXPECT_EQ(Peer::status_of(answer), row.status);
    EXPECT_THAT(answer, HasSubstr("\r\nX-Influxdb-Version: 1.8-metricdb\r\n"));
    EXPECT_THAT(body_of(answer), HasSubstr(row.told));
    EXPECT_TRUE(body_of(answer).empty() || nlohmann::json::accept(body_of(answer))) << answer;
    points += row.points;
    EXPECT_EQ(server.ingest().points().size(), points);
    pipeline += row.request;
  }
  EXPECT_EQ(server.counters().requests, std::size(rows));
  EXPECT_EQ(server.counters().malformed, 4u);

  // The same all at once, and in pieces of a byte.
  Peer at_once(server.influx_port()), in_bytes(server.influx_port());
  ASSERT_TRUE(at_once.send(pipeline));
  for (const char byte : pipeline) ASSERT_TRUE(in_bytes.send({&byte, 1}));
  for (const auto &row : rows) {
    EXPECT_EQ(at_once.status(), row.status) << row.request;
    EXPECT_EQ(in_bytes.status(), row.status) << row.request;
  }
}

TEST(Influx, PrecisionsAndBodies) {
  static const struct {
    const char *unit;
    int64_t ns;
  } rows[] = {{"n", 1},         {"ns", 1},       {"", 1},           {"u", 1000},        {"us", 1000},
              {"%C2%B5", 1000}, {"ms", 1000000}, {"s", 1000000000}, {"m", 60000000000}, {"h", 3600000000000}};
  RunningServer server;
  Peer peer(server.influx_port());
  for (const auto &row : rows) {
    ASSERT_TRUE(peer.send(post("m f=1 7", std::string("precision=") + row.unit)));
    EXPECT_EQ(peer.status(), 204);
    EXPECT_THAT(server.ingest().points().back(), EndsWith(fmt::format("@{}", 7 * row.ns)));
  }
  ASSERT_TRUE(
      peer.send("POST /write HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nm f=4\r\n3\r\n2 8\r\n0\r\n\r\n"));
  EXPECT_EQ(peer.status(), 204);
  EXPECT_EQ(server.ingest().points().back(), "m f=42@8");
}

TEST(Influx, DatabasesAreRemembered) {
  RunningServer server;
  Peer peer(server.influx_port());
  const std::string form = "q=CREATE+DATABASE+%22a+%5Cb%22";
  ASSERT_TRUE(peer.send(get("/query?q=create%20database%20telegraf%20WITH%20DURATION%201d%3B") +
                        "POST /query HTTP/1.1\r\nContent-Type: application/x-www-form-urlencoded\r\nContent-Length: " +
                        std::to_string(form.size()) + "\r\n\r\n" + form + get("/query?q=SHOW+DATABASES")));
  EXPECT_EQ(body_of(peer.answer()), "{\"results\":[{\"statement_id\":0}]}\n");
  EXPECT_EQ(body_of(peer.answer()), "{\"results\":[{\"statement_id\":0}]}\n");
  const auto shown = nlohmann::json::parse(body_of(peer.answer()));
  EXPECT_EQ(shown["results"][0]["series"][0]["values"].dump(), R"([["a \\b"],["metricdb"],["telegraf"]])");

  for (int i = 0; i < 100; ++i) {
    ASSERT_TRUE(peer.send(get(fmt::format("/query?q=CREATE+DATABASE+d{}", i))));
    EXPECT_EQ(peer.status(), 200);
  }
  ASSERT_TRUE(peer.send(get("/query?q=SHOW+DATABASES")));
  EXPECT_LE(nlohmann::json::parse(body_of(peer.answer()))["results"][0]["series"][0]["values"].size(), 64u);
}

TEST(Influx, ExpectationsAreAnsweredAheadOfTheBody) {
  RunningServer server;
  Peer peer(server.influx_port());
  const auto head = [](const char *arguments, size_t n) {
    return std::string("POST /write?") + arguments +
           " HTTP/1.1\r\nExpect: 100-continue\r\nContent-Length: " + std::to_string(n) + "\r\n\r\n";
  };
  // Behind an answer that has to wait, too.
  server.ingest().settle_up_to(0);
  ASSERT_TRUE(peer.send(post("m f=1 5") + head("", 7)));
  ASSERT_TRUE(comes_true([&] { return server.counters().points == 1; }));
  expect_others_are_served(server);
  EXPECT_TRUE(peer.hears_nothing());
  server.ingest().settle_all();
  EXPECT_EQ(peer.status(), 204);
  EXPECT_EQ(peer.status(), 100);
  ASSERT_TRUE(peer.send("m f=2 6"));
  EXPECT_EQ(peer.status(), 204);
  ASSERT_TRUE(peer.send(head("precision=x", 7)));
  EXPECT_EQ(peer.status(), 400);
  EXPECT_TRUE(peer.is_closed());
}

// ---- When ----

TEST(GroupCommit, AnswersWaitForTheirBatch) {
  RunningServer server;
  FakeIngest &ingest = server.ingest();
  ingest.settle_up_to(0);
  Peer first(server.influx_port()), second(server.influx_port()), third(server.influx_port());
  // Until it is committed: what is sent as soon as it is taken can still come into the same batch.
  const auto send_and_wait = [&](Peer &peer, const std::string &request, uint64_t batches) {
    ASSERT_TRUE(peer.send(request));
    ASSERT_TRUE(comes_true([&] { return ingest.n_batches() == batches; }));
  };
  send_and_wait(first, post("m f=1 1\nbad\n"), 1);
  send_and_wait(second, post("m f=2 2\n"), 2);
  // Behind its own, and with nothing to wait for itself.
  ASSERT_TRUE(second.send(get("/ping")));
  send_and_wait(second, post("m f=3 3\n"), 3);
  expect_others_are_served(server);
  for (Peer *peer : {&first, &second}) EXPECT_TRUE(peer->hears_nothing());

  ingest.settle_up_to(1);
  EXPECT_EQ(first.status(), 400);
  expect_others_are_served(server);
  EXPECT_TRUE(second.hears_nothing());
  ingest.settle_up_to(2);
  EXPECT_EQ(second.answer().substr(9, 3), "204");
  EXPECT_THAT(second.answer(), HasSubstr("204 No Content"));
  expect_others_are_served(server);
  EXPECT_TRUE(second.hears_nothing());
  ingest.settle_up_to(3);
  EXPECT_EQ(second.status(), 204);
}

TEST(GroupCommit, RefusedBatchesAreTold) {
  RunningServer server;
  FakeIngest &ingest = server.ingest();
  ingest.fail(1, "disk \"full\"\n");
  ingest.settle_up_to(0);
  Peer peer(server.influx_port()), graphite(server.graphite_port());
  // One batch of the three, or several: the first always fails.
  ASSERT_TRUE(peer.send(post("m f=1 1\nbad\n") + post("bad\n")));
  ASSERT_TRUE(comes_true([&] { return server.counters().points == 1; }));
  ingest.settle_all();
  const std::string failed = peer.answer();
  EXPECT_EQ(Peer::status_of(failed), 507);
  EXPECT_THAT(failed, HasSubstr("X-Influxdb-Error: disk \"full\"?\r\n"));
  EXPECT_EQ(body_of(failed), "{\"error\":\"disk \\\"full\\\"\\n\"}\n");
  EXPECT_EQ(peer.status(), 400) << "took nothing, so nothing of it was lost";
  ASSERT_TRUE(peer.send(post("m f=2 2\n")));
  EXPECT_EQ(peer.status(), 204) << "the next batch is another one";

  ingest.refuse_all("no room");
  ASSERT_TRUE(peer.send(post("m f=3 3\n")));
  const std::string refused = peer.answer();
  EXPECT_EQ(Peer::status_of(refused), 503);
  EXPECT_EQ(body_of(refused), "{\"error\":\"no room\"}\n");
  ASSERT_TRUE(graphite.send("a 1 7\n"));
  EXPECT_TRUE(comes_true([&] { return server.counters().refused == 3; }));
  ingest.refuse_all("");
  ASSERT_TRUE(graphite.send("a 2 7\n"));
  EXPECT_TRUE(comes_true([&] { return server.counters().points == 3; }));
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
  EXPECT_EQ(server.counters().malformed, 3u) << "and half a line is none";
}

// ---- Bounds ----

TEST(Bounds, WhatIsTooLongEndsTheConnection) {
  ServerOptions options = on_free_ports();
  options.max_body_bytes = 1000;
  RunningServer server(options);
  static const struct {
    std::string stream;
    int status;
  } rows[] = {
      {post(std::string(1001, '#')), 413},
      {"POST /write HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n3e9\r\n" + std::string(1001, '#'), 413},
      {post(std::string(5 << 20, '#')), 413},  // more than the peer can send before it is refused
      {"GET /" + std::string(100'000, 'a'), 414},
      {"GET / HTTP/1.1\r\nA: " + std::string(100'000, 'a'), 431},
      {std::string("\x00\xff\x16\x03", 4) + std::string(200'000, '\xee'), 400},
  };
  for (const auto &row : rows) {
    Peer peer(server.influx_port());
    EXPECT_TRUE(peer.send(post("m f=1 5") + row.stream)) << "it is read to its end, lest the answer gets lost";
    EXPECT_EQ(peer.status(), 204);
    const std::string answer = peer.answer();
    EXPECT_EQ(Peer::status_of(answer), row.status);
    EXPECT_THAT(answer, HasSubstr("\r\nConnection: close\r\n"));
    peer.end_sending();
    EXPECT_TRUE(peer.is_closed());
  }
  Peer line(server.graphite_port());
  line.send("a 1 7\n" + std::string(70'000, 'a'));
  EXPECT_TRUE(line.is_closed());
  Peer fits(server.influx_port());
  ASSERT_TRUE(fits.send(post(std::string(1000, '#'))));
  EXPECT_EQ(fits.status(), 204);
}

TEST(Bounds, UnansweredBytesHoldReadersBack) {
  constexpr size_t MOST = 1000;
  ServerOptions options = on_free_ports();
  options.max_unanswered_bytes = MOST;
  options.max_connection_bytes = MOST / 2;
  RunningServer server(options);
  server.ingest().settle_up_to(0);
  const std::string request = post("m f=1 1700000000\n");
  constexpr size_t LINE = 17;
  constexpr int N = 100;
  std::string pipeline;
  for (int i = 0; i < N; ++i) pipeline += request;
  std::vector<std::unique_ptr<Peer>> peers;
  const auto add_peer = [&] {
    peers.push_back(std::make_unique<Peer>(server.influx_port()));
    ASSERT_TRUE(peers.back()->send(pipeline));
  };
  add_peer();
  ASSERT_TRUE(comes_true([&] { return server.counters().points * LINE >= MOST / 2; }));
  expect_others_are_served(server);
  EXPECT_LE(server.counters().points * LINE, MOST / 2 + LINE);
  add_peer();
  add_peer();
  ASSERT_TRUE(comes_true([&] { return server.counters().points * LINE >= MOST; }));
  // Full: not even a ping is read. It is answered when there is room again.
  Peer late(server.influx_port());
  ASSERT_TRUE(late.send(get("/ping")));
  EXPECT_LE(server.counters().points * LINE, MOST + LINE);
  EXPECT_TRUE(late.hears_nothing());
  server.ingest().settle_all();
  EXPECT_EQ(late.status(), 204);
  for (const auto &peer : peers)
    for (int i = 0; i < N; ++i) ASSERT_EQ(peer->status(), 204) << i;
  EXPECT_EQ(server.counters().points, 3u * N);
}

TEST(Bounds, SlowReadersHoldNobodyUp) {
  RunningServer server;
  Peer slow(server.influx_port());
  // Long ones, so that few fill what the system buffers.
  const std::string request = "GET /query?q=x HTTP/1.1\r\nX: " + std::string(4000, 'x') + "\r\n\r\n";
  std::string pipeline;
  for (int i = 0; i < 1000; ++i) pipeline += request;
  size_t sent = 0;
  // Until its answers fill both sockets, the server reads no more of it, and its requests fill them too.
  ASSERT_TRUE(comes_true([&] {
    for (size_t n = 1; n != 0; sent += n) n = slow.send_some(std::string_view(pipeline).substr(sent % pipeline.size()));
    const uint64_t before = server.counters().requests;
    expect_others_are_served(server);
    expect_others_are_served(server);
    return server.counters().requests == before + 2 &&
           slow.send_some(std::string_view(pipeline).substr(sent % pipeline.size(), 1)) == 0;
  }));
  const size_t n_whole = sent / request.size();
  for (size_t i = 0; i < n_whole; ++i) ASSERT_EQ(slow.status(), 200) << i << " of " << n_whole;
}

TEST(Bounds, MemoryForHalfRequests) {
  ServerOptions options = on_free_ports();
  options.max_buffered_bytes = 1 << 20;
  RunningServer server(options);
  const std::string request = post(std::string(400'000, '#') + "\n");
  std::vector<std::unique_ptr<Peer>> peers;
  for (int i = 0; i < 4; ++i) {
    peers.push_back(std::make_unique<Peer>(server.influx_port()));
    peers.back()->send(request.substr(0, 390'000));
  }
  ASSERT_TRUE(comes_true([&] { return server.counters().requests != 0; })) << "somebody was refused";
  expect_others_are_served(server);
  int n_good = 0;
  for (const auto &peer : peers) {
    peer->send(request.substr(390'000));
    const int status = peer->status();
    EXPECT_TRUE(status == 204 || status == 503) << status;
    n_good += status == 204;
  }
  EXPECT_GE(n_good, 1);
  EXPECT_LT(n_good, 4);
}

TEST(Bounds, SilentPeersAreGivenUp) {
  ServerOptions options = on_free_ports();
  options.idle_timeout = milliseconds(200);
  options.request_timeout = milliseconds(200);
  RunningServer server(options);
  server.ingest().settle_up_to(0);
  Peer waiting(server.influx_port());
  ASSERT_TRUE(waiting.send(post("m f=1 5")));
  for (const char *begun : {"", "POST /wri", "POST /write HTTP/1.1\r\nContent-Length: 9\r\n\r\nm"}) {
    Peer peer(server.influx_port());
    peer.send(begun);
    EXPECT_TRUE(peer.is_closed()) << begun;
  }
  Peer half_line(server.graphite_port());
  half_line.send("a 1 ");
  EXPECT_TRUE(half_line.is_closed());
  // A byte now and then keeps nobody.
  Peer dripping(server.influx_port());
  ASSERT_TRUE(dripping.send("GET /"));
  EXPECT_TRUE(comes_true([&] { return !dripping.send("a"); }));
  EXPECT_TRUE(comes_true([&] { return server.counters().connections == 1; }));
  // Who waits for us is not silent.
  EXPECT_TRUE(waiting.hears_nothing());
  server.ingest().settle_all();
  EXPECT_EQ(waiting.status(), 204);
}

TEST(Bounds, ConnectionsBeyondTheLimitAreClosed) {
  ServerOptions options = on_free_ports();
  options.max_connections = 3;
  RunningServer server(options);
  std::vector<std::unique_ptr<Peer>> peers;
  for (int i = 0; i < 3; ++i) {
    peers.push_back(std::make_unique<Peer>(server.influx_port()));
    ASSERT_TRUE(peers.back()->send(get("/ping")));
    EXPECT_EQ(peers.back()->status(), 204);
  }
  Peer beyond(server.graphite_port());
  EXPECT_TRUE(beyond.is_closed());
  EXPECT_EQ(server.counters().turned_away, 1u);
  peers.pop_back();
  ASSERT_TRUE(comes_true([&] { return server.counters().connections == 2; }));
  expect_others_are_served(server);
}

TEST(Bounds, DescriptorsRunOut) {
  RunningServer server;
  Peer first(server.influx_port());
  ASSERT_TRUE(first.send(get("/ping")));
  EXPECT_EQ(first.status(), 204);
  rlimit before, fewer;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  {
    // The peer's own descriptor is made while there are some.
    Peer unlucky(0);
    const int next = dup(0);
    close(next);
    fewer = {static_cast<rlim_t>(next), before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &fewer), 0);
    unlucky.connect_to(server.influx_port());
    EXPECT_TRUE(unlucky.is_closed());
    EXPECT_EQ(server.counters().turned_away, 1u);
    ASSERT_TRUE(first.send(get("/ping")));
    EXPECT_EQ(first.status(), 204);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
  }
  expect_others_are_served(server);
}

TEST(Bounds, ResetsAtAnyTimeHarmNobody) {
  RunningServer server;
  server.ingest().settle_up_to(0);
  const std::string request = post("m f=1 5\nm f=2 6\n");
  Peer bystander(server.influx_port());
  ASSERT_TRUE(bystander.send(post("m f=3 5")));
  for (size_t n = 0; n <= request.size(); ++n) {
    Peer peer(server.influx_port());
    ASSERT_TRUE(peer.send(request.substr(0, n)));
    if (n % 2 == 0) peer.end_sending();
    peer.reset();
  }
  // With answers under way to peers that are gone.
  server.ingest().settle_all();
  for (int i = 0; i < 100; ++i) {
    Peer peer(server.influx_port());
    ASSERT_TRUE(peer.send(request + request));
    peer.reset();
  }
  EXPECT_EQ(bystander.status(), 204);
  EXPECT_TRUE(comes_true([&] { return server.counters().connections == 1; }));
}

TEST(Bounds, HalfClosedPeersHearTheirAnswers) {
  RunningServer server;
  server.ingest().settle_up_to(0);
  Peer peer(server.influx_port());
  ASSERT_TRUE(peer.send(post("m f=1 5") + post("m f=2 5") + "POST /wri"));
  peer.end_sending();
  ASSERT_TRUE(comes_true([&] { return server.counters().points == 2; }));
  server.ingest().settle_all();
  EXPECT_EQ(peer.status(), 204);
  EXPECT_EQ(peer.status(), 204);
  EXPECT_TRUE(peer.is_closed());
}

// One line each, however much noise they make, and none for who behaves.
TEST(Log, EveryHostilePeerOnce) {
  char folder[] = "/tmp/metricdb_server_test_XXXXXX";
  ASSERT_NE(mkdtemp(folder), nullptr);
  TSLB_DLOG_INIT(fmt::format("{}/log", folder).c_str(), LOG_REFUSALS, 10);
  {
    RunningServer server;
    expect_others_are_served(server);
    const struct {
      int port;
      std::string noise;
    } rows[] = {{server.influx_port(), std::string(100'000, '\xee')},
                {server.influx_port(), "GET / HTTP/1.1\r\nA: " + std::string(100'000, 'a')},
                {server.graphite_port(), std::string(100'000, 'a')}};
    for (const auto &row : rows) {
      Peer peer(row.port);
      peer.send(row.noise);
      peer.end_sending();
      peer.answer();
      EXPECT_TRUE(peer.is_closed());
    }
    Peer garbage(server.graphite_port());
    std::string lines;
    for (int i = 0; i < 10'000; ++i) lines += "GET / HTTP/1.1\n";
    ASSERT_TRUE(garbage.send(lines));
    EXPECT_TRUE(comes_true([&] { return server.counters().malformed == 10'000; }));
  }
  TSLB_DLOG_INIT(nullptr, 0, 10);
  std::string log;
  for (const auto &entry : std::filesystem::directory_iterator(folder)) {
    std::ifstream file(entry.path());
    log.append(std::istreambuf_iterator<char>(file), {});
  }
  std::filesystem::remove_all(folder);
  const auto n_with = [&](std::string_view text) {
    size_t n = 0;
    for (size_t at = 0; (at = log.find(text, at)) != log.npos; ++at) ++n;
    return n;
  };
  EXPECT_EQ(n_with("not a request: "), 1u) << log;
  EXPECT_EQ(n_with("the headers are too long; connection closed"), 1u) << log;
  EXPECT_EQ(n_with("a line is longer than 64 KiB; connection closed"), 1u) << log;
  EXPECT_EQ(n_with("a value is no finite number; skipped, here and from now on"), 1u) << log;
  EXPECT_EQ(n_with("127.0.0.1:"), 5u) << "the last one also with its sum\n" << log;
}

// ---- The end ----

TEST(Stop, WhatHasArrivedIsAnswered) {
  ServerOptions options = on_free_ports();
  options.max_connection_bytes = 1;  // so one write at a time is read, and the next is still unread at the stop
  RunningServer server(options);
  server.ingest().settle_up_to(0);
  Peer idle(server.influx_port()), busy(server.influx_port()), half(server.influx_port()),
      lines(server.graphite_port());
  ASSERT_TRUE(busy.send(post("m f=1 5")));
  ASSERT_TRUE(comes_true([&] { return server.counters().points == 1; }));
  ASSERT_TRUE(half.send(post("m f=2 5") + "POST /write HTTP/1.1\r\n"));
  ASSERT_TRUE(lines.send("a 1 7\na 2 7\na 3"));
  ASSERT_TRUE(busy.send(post("m f=3 5") + post("m f=4 5")));
  ASSERT_TRUE(comes_true([&] { return server.counters().points == 4; }));
  expect_others_are_served(server);
  server.stop_later();
  EXPECT_TRUE(comes_true([&] { return !Peer(server.influx_port()).is_connected(); }));
  EXPECT_TRUE(busy.hears_nothing());
  EXPECT_EQ(server.counters().points, 4u);
  server.ingest().settle_all();
  for (int i = 0; i < 3; ++i) EXPECT_EQ(busy.status(), 204) << i;
  EXPECT_EQ(half.status(), 204);
  for (Peer *peer : {&idle, &busy, &half, &lines}) EXPECT_TRUE(peer->is_closed());
  server.stop();
  EXPECT_EQ(server.counters().points, 6u);
  EXPECT_EQ(server.counters().connections, 0u);
}

TEST(Stop, ReturnsWithoutAnswersInTheEnd) {
  ServerOptions options = on_free_ports();
  options.drain_timeout = milliseconds(50);
  RunningServer server(options);
  server.ingest().settle_up_to(0);
  Peer peer(server.influx_port());
  ASSERT_TRUE(peer.send(post("m f=1 5")));
  ASSERT_TRUE(comes_true([&] { return server.counters().points == 1; }));
  server.stop();
  EXPECT_TRUE(peer.is_closed());
}

TEST(Stop, AheadOfTheStart) {
  FakeIngest ingest;
  ServerOptions options = on_free_ports();
  options.graphite_port.reset();
  Server server(options, ingest);
  EXPECT_NE(server.influx_port(), 0);
  EXPECT_EQ(server.graphite_port(), 0);
  server.stop();
  server.run();
}

TEST(Start, AddressesThatCannotBeHad) {
  FakeIngest ingest;
  ServerOptions options = on_free_ports();
  const Server first(options, ingest);
  options.influx_port = first.influx_port();
  EXPECT_THROW(Server(options, ingest), ServerError);
  options.influx_port = 0;
  options.address = "nowhere";
  EXPECT_THROW(Server(options, ingest), ServerError);
}

}  // namespace
}  // namespace metricdb
