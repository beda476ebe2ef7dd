// Queries of the server: threads of their own, the order of answers, limits, connections that end meanwhile.
#include <condition_variable>
#include <mutex>

#include <gmock/gmock.h>
#include "server_support.h"

using namespace metricdb;
using testing::HasSubstr;

namespace {

// A query function that answers with the text of the query when it is allowed to, and throws when it is interrupted.
class HeldQueries {
 public:
  QueryFunction function() {
    return [this](const QueryRequest &request, const IsInterrupted &is_interrupted) {
      std::unique_lock lock(mutex_);
      ++n_begun_;
      changed_.notify_all();
      while (!changed_.wait_for(lock, milliseconds(1), [this] { return is_open_; }))
        if (is_interrupted()) throw std::runtime_error("interrupted");
      return QueryAnswer{HTTP_STATUS_OK, "text/plain", "answer to " + request.text};
    };
  }
  void wait_until_begun(int n) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return n_begun_ >= n; });
  }
  void open() {
    const std::lock_guard lock(mutex_);
    is_open_ = true;
    changed_.notify_all();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int n_begun_ = 0;
  bool is_open_ = false;
};

ServerOptions options_with(QueryFunction function) {
  ServerOptions options = {.influx_port = 0, .graphite_port = 0};
  options.query = std::move(function);
  return options;
}

}  // namespace

TEST(Queries, RunBesideWritesAndAreAnsweredInOrder) {
  HeldQueries held;
  RunningServer server(options_with(held.function()));
  Peer asking(server.influx_port()), writing(server.influx_port());
  ASSERT_TRUE(asking.send(get("/query?q=one") + get("/ping") + get("/query?q=two") + post("m f=1 5")));
  held.wait_until_begun(2);
  EXPECT_EQ(ask(writing, post("m f=2 5")), 204) << "a query holds up other connections";
  held.open();
  EXPECT_THAT(asking.answer(), HasSubstr("\r\n\r\nanswer to one"));
  EXPECT_EQ(asking.status(), 204);
  EXPECT_THAT(asking.answer(), HasSubstr("\r\n\r\nanswer to two"));
  EXPECT_EQ(asking.status(), 204);
  EXPECT_EQ(server.ingest().points().size(), 2u);
}

TEST(Queries, TooManyAreRefused) {
  HeldQueries held;
  ServerOptions options = options_with(held.function());
  options.n_query_threads = 1;
  options.max_waiting_queries = 2;
  RunningServer server(options);
  Peer first(server.influx_port()), peer(server.influx_port());
  ASSERT_TRUE(first.send(get("/query?q=running")));
  held.wait_until_begun(1);
  std::string requests;
  for (int i = 0; i < 5; ++i) requests += get("/query?q=more");
  ASSERT_TRUE(peer.send(requests));
  ASSERT_TRUE(wait_until([&] { return server.counters().requests == 6; }));
  held.open();
  EXPECT_EQ(first.status(), 200);
  const int expected[] = {200, 200, 503, 503, 503};
  for (const int status : expected) EXPECT_EQ(peer.status(), status);
  EXPECT_THAT(answer_to(peer, get("/metrics")), HasSubstr("metricdb_queries_total{result=\"refused\"} 3\n"));
}

// The only thread is free again although the query would never end, and a query that waits does not begin. The
// descriptor of the closed connection is reused by the next one, which must not get the answer.
TEST(Queries, ClosedConnectionsInterruptThem) {
  const struct {
    const char *how;
    std::function<void(Peer &)> close;
  } rows[] = {{"reset", [](Peer &peer) { peer.reset(); }}, {"end of sending", [](Peer &peer) { peer.end_sending(); }}};
  for (const auto &row : rows)
    for (const char *kept : {"", "Connection: close\r\n"}) {
      SCOPED_TRACE(std::string(row.how) + kept);
      HeldQueries held;
      ServerOptions options = options_with(held.function());
      options.n_query_threads = 1;
      RunningServer server(options);
      Peer gone(server.influx_port()), waiting(server.influx_port());
      const std::string request = std::string("GET /query?q=lost HTTP/1.1\r\n") + kept + "\r\n";
      ASSERT_TRUE(gone.send(request));
      held.wait_until_begun(1);
      ASSERT_TRUE(waiting.send(request));
      ASSERT_TRUE(wait_until([&] { return server.counters().requests == 2; }));
      row.close(waiting);
      row.close(gone);
      ASSERT_TRUE(wait_until([&] { return server.counters().connections == 0; }));
      Peer next(server.influx_port());
      ASSERT_TRUE(next.send(get("/query?q=mine")));
      held.wait_until_begun(2);
      held.open();
      EXPECT_THAT(next.answer(), HasSubstr("answer to mine"));
      const std::string metrics = answer_to(next, get("/metrics"));
      for (const char *line : {"metricdb_queries_total{result=\"answered\"} 1\n", "{result=\"interrupted\"} 2\n",
                               "metricdb_waiting_queries 0\n", "metricdb_query_seconds_count 3\n"})
        EXPECT_THAT(metrics, HasSubstr(line));
    }
}

// Answers that a peer does not read are in memory.
TEST(Queries, UnreadAnswersAreLimited) {
  constexpr size_t BYTES = 32 << 20;
  ServerOptions options = options_with([](const QueryRequest &request, const IsInterrupted &) {
    return QueryAnswer{HTTP_STATUS_OK, "text/plain", std::string(request.text == "long" ? BYTES : 1, 'x')};
  });
  options.max_query_bytes = BYTES / 4;
  RunningServer server(options);
  Peer slow(server.influx_port()), peer(server.influx_port());
  ASSERT_TRUE(slow.send(get("/query?q=long")));
  ASSERT_TRUE(wait_until([&] { return ask(peer, get("/query?q=short")) == 503; })) << "an unread answer is not counted";
  EXPECT_EQ(slow.answer().size() / BYTES, 1u);
  EXPECT_TRUE(wait_until([&] { return ask(peer, get("/query?q=short")) == 200; })) << "an answer that was read counts";
}

// They were admitted when there was none.
TEST(Queries, UnreadAnswersRefuseThoseThatWait) {
  constexpr size_t BYTES = 32 << 20;
  std::atomic<bool> is_open = false;
  ServerOptions options = options_with([&](const QueryRequest &, const IsInterrupted &) {
    wait_until([&] { return is_open.load(); });
    return QueryAnswer{HTTP_STATUS_OK, "text/plain", std::string(BYTES, 'x')};
  });
  options.n_query_threads = 1;
  options.max_query_bytes = BYTES / 4;
  RunningServer server(options);
  Peer slow(server.influx_port()), peer(server.influx_port());
  ASSERT_TRUE(slow.send(get("/query?q=1") + get("/query?q=2") + get("/query?q=3")));
  ASSERT_TRUE(wait_until([&] { return server.counters().requests == 3; }));
  is_open = true;
  const char *const two_refused = "metricdb_queries_total{result=\"refused\"} 2\n";
  EXPECT_TRUE(wait_until([&] { return answer_to(peer, get("/metrics")).find(two_refused) != std::string::npos; }));
  EXPECT_EQ(slow.answer().size() / BYTES, 1u);
  for (int i = 0; i < 2; ++i)
    EXPECT_THAT(slow.answer().substr(0, 300), HasSubstr("too many answers are not read, try again"));
  EXPECT_EQ(ask(peer, get("/query?q=4")), 200) << "an answer that was read counts";
}

TEST(Queries, ParametersAndFailures) {
  RunningServer server(options_with([](const QueryRequest &request, const IsInterrupted &) -> QueryAnswer {
    if (request.text == "fail") throw std::runtime_error("it failed");
    return {HTTP_STATUS_BAD_REQUEST, "application/csv",
            fmt::format("{} {} {} {} {} {} {} {}", request.text, request.epoch, request.is_pretty, request.is_chunked,
                        request.chunk_rows, request.is_csv, request.database, !request.refusal_of_changes.empty())};
  }));
  Peer peer(server.influx_port());
  EXPECT_THAT(answer_to(peer, get("/query?q=a+b&epoch=ms&pretty=true&chunked=true&chunk_size=7&db=d%2Fe")),
              testing::AllOf(HasSubstr(" 400 "), HasSubstr("Content-Type: application/csv\r\n"),
                             HasSubstr("\r\n\r\na b ms true true 7 false d/e true")));
  const std::string form = "q=c&epoch=s&db=f";
  EXPECT_THAT(answer_to(peer, fmt::format("POST /query HTTP/1.1\r\nAccept: text/csv\r\nContent-Type: "
                                          "application/x-www-form-urlencoded\r\nContent-Length: {}\r\n\r\n{}",
                                          form.size(), form)),
              HasSubstr("\r\n\r\nc s false false 10000 true f false"));
  const std::string failed = answer_to(peer, get("/query?q=fail"));
  EXPECT_EQ(Peer::status_of(failed), 500);
  EXPECT_THAT(failed, HasSubstr("it failed"));
  EXPECT_THAT(answer_to(peer, get("/metrics")), HasSubstr("metricdb_queries_total{result=\"failed\"} 3\n"));
}
