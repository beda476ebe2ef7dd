// `metricdb serve` as a process: signals, its log, and what an operator sees.
#include <csignal>

#include "serve_process.h"

class Serve : public Folder {};

TEST_F(Serve, SignalsThatDoNotEndIt) {
  ServeProcess serve(root_, "--influx 0 --db db");
  for (const int number : {SIGPIPE, SIGHUP, SIGUSR1, SIGUSR2}) {
    Peer peer(serve.port());
    serve.signal(number);
    EXPECT_EQ(ask(peer, post("m f=1 5")), 204) << number;
  }
  EXPECT_EQ(serve.end(SIGTERM), 0);
  EXPECT_THAT(serve.output(), HasSubstr("4 requests"));
}

TEST_F(Serve, DefaultLogShowsSkippedLinesAndSnapshots) {
  ServeProcess serve(root_, "--influx 0 --db db --log log --snapshot-mb 0.001");
  const std::string log = path(fmt::format("log.{}.0", serve.pid()));
  Peer peer(serve.port());
  EXPECT_EQ(ask(peer, post("bad\n")), 400);
  EXPECT_TRUE(wait_until([&] {
    for (int i = 0; i < 10; ++i) EXPECT_EQ(ask(peer, post(repeated("m f=1 5\n", 200))), 204);
    return read_file(log).find(" was written, writes were stopped for ") != std::string::npos;
  }));
  EXPECT_THAT(read_file(log), HasSubstr("1 lines were skipped; the first: line 1: no fields"));
  EXPECT_THAT(body_of(answer_to(peer, get("/metrics"))), HasSubstr("metricdb_max_key_bytes 267386880\n"));
  EXPECT_EQ(ask(peer, get("/health")), 200);
  EXPECT_EQ(serve.end(SIGTERM), 0);
}

TEST_F(Serve, RequestsCanBeSentAgain) {
  ServeProcess serve(root_, "--influx 0 --db db");
  Peer peer(serve.port());
  std::string text;
  for (int i = 0; i < 1000; ++i) text += fmt::format("m f={}i,b=true {}\n", i, i);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(ask(peer, post(text)), 204);
  EXPECT_THAT(body_of(answer_to(peer, get("/metrics"))), HasSubstr("\nmetricdb_stored_points 2000\n"));
  const std::string refused = answer_to(peer, post("m s=\"x\" 5"));
  EXPECT_EQ(Peer::status_of(refused), 400);
  EXPECT_THAT(refused, HasSubstr("is a string, and strings are not stored"));
  EXPECT_EQ(serve.end(SIGTERM), 0);
  ServeProcess dropping(root_, "--influx 0 --db db --drop-strings");
  Peer other(dropping.port());
  EXPECT_EQ(ask(other, post("m s=\"x\" 5")), 204);
  EXPECT_EQ(dropping.end(SIGTERM), 0);
}

TEST_F(Serve, HangUpOpensTheLogAgain) {
  ServeProcess serve(root_, "--influx 0 --db db --log log");
  const int port = serve.port();
  const std::string log = path(fmt::format("log.{}.0", serve.pid()));
  ASSERT_TRUE(fs::exists(log));
  fs::rename(log, path("older"));
  serve.signal(SIGHUP);
  EXPECT_TRUE(wait_until([&] { return fs::exists(log) && read_file(log).find("opened again") != std::string::npos; }));
  Peer peer(port);
  EXPECT_EQ(ask(peer, get("/ping")), 204);
  EXPECT_EQ(serve.end(SIGTERM), 0);
  EXPECT_THAT(read_file(log), HasSubstr("|metricdb|stopped\n"));
  EXPECT_EQ(count_of(read_file(path("older")), "stopped"), 0u);
}
