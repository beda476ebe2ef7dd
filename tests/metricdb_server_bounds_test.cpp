// The limits of the server: other connections are served meanwhile, and violations are logged.

#include <list>

#include "server_support.h"
#include "store/log.h"

using Bounds = Folder;

// The log contains one line for each such peer, and none for others.
TEST_F(Bounds, OversizedInputClosesTheConnection) {
  const struct {
    std::string stream;
    int status;
    const char *logged;
  } rows[] = {
      {post(std::string(1001, '#')), 413, "the body has more than 1000 bytes; connection closed"},
      // More than the socket buffers, so that the peer is still sending when it is refused.
      {post(std::string(5 << 20, '#')), 413, "the body has more than 1000 bytes; connection closed"},
      {"GET /" + std::string(100'000, 'a'), 414, "the request's target is too long; connection closed"},
      {"GET / HTTP/1.1\r\nA: " + std::string(100'000, 'a'), 431, "the headers are too long; connection closed"},
      {std::string("\x00\xff\x16\x03", 4) + std::string(200'000, '\xee'), 400, "invalid request: "},
  };
  std::map<std::string, size_t> logged;
  TSLB_DLOG_INIT(path("log").c_str(), LOG_REFUSALS, 10);
  {
    RunningServer server({.influx_port = 0, .graphite_port = 0, .max_body_bytes = 1000});
    for (const auto &row : rows) {
      Peer peer(server.influx_port());
      EXPECT_TRUE(peer.send(post("m f=1 5") + row.stream)) << "not read to its end, so the answer can be lost";
      EXPECT_EQ(peer.status(), 204);
      const std::string answer = peer.answer();
      EXPECT_EQ(Peer::status_of(answer), row.status);
      EXPECT_THAT(answer, HasSubstr("\r\nConnection: close\r\n"));
      peer.end_sending();
      EXPECT_TRUE(peer.is_closed());
      ++logged[row.logged];
    }
    Peer line(server.graphite_port());
    line.send("a 1 7\n" + std::string(100'000, 'a'));
    EXPECT_TRUE(line.is_closed());
    ++logged["a line is longer than 64 KiB; connection closed"];
    Peer garbage(server.graphite_port());
    ASSERT_TRUE(garbage.send(repeated("GET / HTTP/1.1\n", 10'000)));
    garbage.end_sending();
    EXPECT_TRUE(garbage.is_closed());
    EXPECT_EQ(server.counters().malformed, 10'000u);
    ++logged["the value is not a finite number; such lines are skipped without further messages"];
    Peer fits(server.influx_port());
    EXPECT_EQ(ask(fits, post(std::string(1000, '#'))), 204);
  }
  TSLB_DLOG_INIT(nullptr, 0, 10);
  std::string log;
  for (const auto &[name, content] : tree_of(root_)) log += content;
  for (const auto &[text, times] : logged) EXPECT_EQ(count_of(log, text), times) << text << "\n" << log;
  EXPECT_EQ(count_of(log, "127.0.0.1:"), std::size(rows) + 3) << "one of them also has a final line\n" << log;
}

TEST_F(Bounds, UnansweredBytesStopReceiving) {
  constexpr size_t MAX = 1000;
  RunningServer server(
      {.influx_port = 0, .graphite_port = 0, .max_unanswered_bytes = MAX, .max_connection_bytes = MAX / 2});
  server.ingest().settle_up_to(0);
  constexpr size_t LINE = 17;
  constexpr int N = 100;
  const std::string pipeline = repeated(post("m f=1 1700000000\n"), N);
  std::list<Peer> peers;
  const auto add_peer = [&] { ASSERT_TRUE(peers.emplace_back(server.influx_port()).send(pipeline)); };
  add_peer();
  ASSERT_TRUE(wait_until([&] { return server.counters().points * LINE >= MAX / 2; }));
  expect_others_are_served(server);
  EXPECT_LE(server.counters().points * LINE, MAX / 2 + LINE);
  add_peer();
  add_peer();
  ASSERT_TRUE(wait_until([&] { return server.counters().points * LINE >= MAX; }));
  // At the limit no request is received. It is answered when other answers are sent.
  Peer late(server.influx_port());
  ASSERT_TRUE(late.send(get("/ping")));
  EXPECT_LE(server.counters().points * LINE, MAX + LINE);
  EXPECT_TRUE(late.has_read_everything());
  server.ingest().settle_all();
  EXPECT_EQ(late.status(), 204);
  for (Peer &peer : peers)
    for (int i = 0; i < N; ++i) ASSERT_EQ(peer.status(), 204) << i;
  EXPECT_EQ(server.counters().points, 3u * N);
}

TEST_F(Bounds, SlowReadersDoNotDelayOthers) {
  RunningServer server;
  Peer slow(server.influx_port());
  // Long requests, so that few of them fill the socket buffers.
  const std::string request = "GET /health HTTP/1.1\r\nX: " + std::string(4000, 'x') + "\r\n\r\n";
  const std::string pipeline = repeated(request, 1000);
  size_t sent = 0;
  // When the answers fill the socket buffers, the server receives no more, and the requests fill the buffers too.
  ASSERT_TRUE(wait_until([&] {
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

// The peer reads nothing, and the limit of the whole end is not reached.
TEST_F(Bounds, SlowReadersDoNotDelayTheEnd) {
  TSLB_DLOG_INIT(path("log").c_str(), LOG_REFUSALS, 10);
  {
    RunningServer server({.influx_port = 0,
                          .graphite_port = 0,
                          .drain_timeout = milliseconds(600'000),
                          .drain_read_timeout = milliseconds(50)});
    Peer slow(server.influx_port());
    const std::string pipeline = repeated("GET /query?q=" + std::string(60, 'x') + " HTTP/1.1\r\n\r\n", 1000);
    ASSERT_TRUE(wait_until([&] {
      const uint64_t before = server.counters().requests;
      slow.send_some(pipeline);
      expect_others_are_served(server);
      return server.counters().requests == before + 1;
    }));
    server.stop();
  }
  TSLB_DLOG_INIT(nullptr, 0, 10);
  std::string log;
  for (const auto &[name, content] : tree_of(root_)) log += content;
  EXPECT_EQ(count_of(log, "the answers are not read; connection closed"), 1u) << log;
}

constexpr milliseconds NEVER(3'600'000);

TEST_F(Bounds, MemoryForIncompleteRequests) {
  RunningServer server({.influx_port = 0, .graphite_port = 0, .max_buffered_bytes = 1 << 20, .stall_timeout = NEVER});
  const std::string request = post(std::string(400'000, '#') + "\n");
  std::list<Peer> peers;
  for (int i = 0; i < 4; ++i) peers.emplace_back(server.influx_port()).send(request.substr(0, 390'000));
  ASSERT_TRUE(wait_until([&] { return server.counters().requests != 0; })) << "no request was refused";
  expect_others_are_served(server);
  int n_good = 0;
  for (Peer &peer : peers) {
    peer.send(request.substr(390'000));
    const int status = peer.status();
    EXPECT_TRUE(status == 204 || status == 503) << status;
    n_good += status == 204;
  }
  EXPECT_GE(n_good, 1);
  EXPECT_LT(n_good, 4);
}

// Each peer announces a large body and sends one byte of it, after its header was processed.
TEST_F(Bounds, AnnouncedBodiesUseNoMemory) {
  constexpr size_t MAX = size_t{64} << 20;
  RunningServer server({.influx_port = 0, .graphite_port = 0, .max_buffered_bytes = MAX, .stall_timeout = NEVER});
  std::list<Peer> peers;
  for (size_t i = 0; i < MAX / (size_t{4} << 20); ++i) {
    Peer &peer = peers.emplace_back(server.influx_port());
    ASSERT_EQ(ask(peer, "POST /write HTTP/1.1\r\nExpect: 100-continue\r\nContent-Length: 4194304\r\n\r\n"), 100);
    ASSERT_TRUE(peer.send("#"));
  }
  expect_others_are_served(server);
  Peer writer(server.influx_port());
  EXPECT_EQ(ask(writer, post("m f=1 5\n" + std::string(100'000, '#'))), 204);
}

TEST_F(Bounds, StalledPeersAreClosedWhenMemoryIsShort) {
  constexpr size_t MAX = 1280 << 10;  // two such requests, and a smaller block while one of them moves to a larger one
  RunningServer server(
      {.influx_port = 0, .graphite_port = 0, .max_buffered_bytes = MAX, .stall_timeout = milliseconds(0)});
  const std::string request = post(std::string(400'000, '#') + "\nm f=1 5");
  std::list<Peer> stalled;
  // Two of them fill the memory. Each waits until the server has received what the previous one has sent.
  for (uint64_t sent = 0; stalled.size() < 2;) {
    ASSERT_TRUE(stalled.emplace_back(server.influx_port()).send(request.substr(0, 390'000)));
    sent += 390'000;
    ASSERT_TRUE(wait_until([&] { return server.counters().bytes >= sent; }));
  }
  Peer waiting(server.influx_port());  // uses no memory, so it stays
  EXPECT_EQ(ask(waiting, get("/ping")), 204);
  Peer writer(server.influx_port());
  EXPECT_EQ(ask(writer, post(std::string(400'000, '#') + "\nm f=1 5")), 204);
  EXPECT_EQ(server.counters().stalled, 1u);
  EXPECT_TRUE(stalled.front().is_closed()) << "the other one has been silent for less time";
  EXPECT_EQ(ask(stalled.back(), request.substr(390'000)), 204);
  EXPECT_EQ(ask(waiting, get("/ping")), 204);
}

TEST_F(Bounds, IdlePeersAreClosed) {
  constexpr milliseconds SHORT(200);
  RunningServer server({.influx_port = 0, .graphite_port = 0, .idle_timeout = SHORT, .request_timeout = SHORT});
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
  // Single bytes do not extend the time limit.
  Peer dripping(server.influx_port());
  ASSERT_TRUE(dripping.send("GET /"));
  EXPECT_TRUE(wait_until([&] { return !dripping.send("a"); }));
  EXPECT_TRUE(wait_until([&] { return server.counters().connections == 1; }));
  // A peer that waits for an answer is not idle.
  EXPECT_TRUE(waiting.has_read_everything());
  server.ingest().settle_all();
  EXPECT_EQ(waiting.status(), 204);
}

TEST_F(Bounds, ConnectionsBeyondTheLimitAreClosed) {
  RunningServer server({.influx_port = 0, .graphite_port = 0, .max_connections = 3});
  std::list<Peer> peers;
  for (int i = 0; i < 3; ++i) EXPECT_EQ(ask(peers.emplace_back(server.influx_port()), get("/ping")), 204);
  Peer beyond(server.graphite_port());
  EXPECT_TRUE(beyond.is_closed());
  EXPECT_EQ(server.counters().turned_away, 1u);
  peers.pop_back();
  ASSERT_TRUE(wait_until([&] { return server.counters().connections == 2; }));
  expect_others_are_served(server);
}

TEST_F(Bounds, DescriptorsRunOut) {
  RunningServer server;
  Peer first(server.influx_port());
  EXPECT_EQ(ask(first, get("/ping")), 204);
  {
    Peer refused(0);  // created before the limit
    const int next = dup(0);
    close(next);
    const limit_t fewer(RLIMIT_NOFILE, static_cast<rlim_t>(next));
    refused.connect_to(server.influx_port());
    EXPECT_TRUE(refused.is_closed());
    EXPECT_EQ(server.counters().turned_away, 1u);
    EXPECT_EQ(ask(first, get("/ping")), 204);
  }
  expect_others_are_served(server);
}

TEST_F(Bounds, ResetsAtAnyTime) {
  RunningServer server;
  server.ingest().settle_up_to(0);
  const std::string request = post("m f=1 5\nm f=2 6\n");
  // A peer that has sent two requests and an incomplete one, and waits for the answers.
  Peer bystander(server.influx_port());
  ASSERT_TRUE(bystander.send(post("m f=3 5") + post("m f=4 5") + "POST /wri"));
  bystander.end_sending();
  for (size_t n = 0; n <= request.size(); ++n) {
    Peer peer(server.influx_port());
    ASSERT_TRUE(peer.send(request.substr(0, n)));
    if (n % 2 == 0) peer.end_sending();
    peer.reset();
  }
  // Answers are sent to peers that have disconnected.
  server.ingest().settle_all();
  for (int i = 0; i < 100; ++i) {
    Peer peer(server.influx_port());
    ASSERT_TRUE(peer.send(request + request));
    peer.reset();
  }
  for (int i = 0; i < 2; ++i) EXPECT_EQ(bystander.status(), 204);
  EXPECT_TRUE(bystander.is_closed());
  EXPECT_TRUE(wait_until([&] { return server.counters().connections == 0; }));
}
