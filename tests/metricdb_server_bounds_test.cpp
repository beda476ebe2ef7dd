// That the server's bounds hold while others are served, and what is said of peers that meet them.
#include <gmock/gmock.h>
#include <sys/resource.h>

#include <memory>
#include <vector>

#include "log.h"
#include "metricdb_support.h"
#include "server_support.h"

namespace metricdb {
namespace {

using std::chrono::milliseconds;
using testing::HasSubstr;

TEST(Bounds, WhatIsTooLongEndsTheConnection) {
  RunningServer server(options_with([](ServerOptions &options) { options.max_body_bytes = 1000; }));
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
  EXPECT_EQ(ask(fits, post(std::string(1000, '#'))), 204);
}

TEST(Bounds, UnansweredBytesHoldReadersBack) {
  constexpr size_t MOST = 1000;
  RunningServer server(options_with([](ServerOptions &options) {
    options.max_unanswered_bytes = MOST;
    options.max_connection_bytes = MOST / 2;
  }));
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
  RunningServer server(options_with([](ServerOptions &options) { options.max_buffered_bytes = 1 << 20; }));
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
  RunningServer server(options_with([](ServerOptions &options) {
    options.idle_timeout = milliseconds(200);
    options.request_timeout = milliseconds(200);
  }));
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
  RunningServer server(options_with([](ServerOptions &options) { options.max_connections = 3; }));
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
  EXPECT_EQ(ask(first, get("/ping")), 204);
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
    EXPECT_EQ(ask(first, get("/ping")), 204);
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
  ASSERT_TRUE(server.comes_to_points(2));
  server.ingest().settle_all();
  EXPECT_EQ(peer.status(), 204);
  EXPECT_EQ(peer.status(), 204);
  EXPECT_TRUE(peer.is_closed());
}

using Log = Folder;

// One line each, however much noise they make, and none for who behaves.
TEST_F(Log, EveryHostilePeerOnce) {
  TSLB_DLOG_INIT(path("log").c_str(), LOG_REFUSALS, 10);
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
  for (const auto &[name, content] : tree_of(root_)) log += content;
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

}  // namespace
}  // namespace metricdb
