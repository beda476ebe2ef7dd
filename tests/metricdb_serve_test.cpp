// `metricdb serve` as a process: signals, its log, and what an operator sees.
#include <sys/wait.h>

#include <csignal>

#include "server_support.h"

// A server on a free port, killed with its owner.
class ServeProcess {
 public:
  ServeProcess(const fs::path &folder, const std::string &arguments) : output_(folder / "serve.out") {
    const std::string command = fmt::format("cd {} && exec {} serve --influx 0 {} >{} 2>&1", folder.string(), METRICDB,
                                            arguments, output_.string());
    fs::remove(output_);  // of an earlier process
    pid_ = fork();
    if (pid_ == 0) {
      execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
      _exit(127);
    }
  }
  ~ServeProcess() {
    if (pid_ > 0) end(SIGKILL);
  }
  ServeProcess(const ServeProcess &) = delete;
  ServeProcess &operator=(const ServeProcess &) = delete;

  std::string output() const { return fs::exists(output_) ? read_file(output_) : ""; }
  // Waits until it serves. Returns its port, or 0.
  int port() const {
    const std::string before = " influx 127.0.0.1:";
    if (!wait_until([&] { return output().find(before) != std::string::npos && output().ends_with("\n"); })) return 0;
    return std::atoi(output().c_str() + output().find(before) + before.size());
  }
  void signal(int number) const { kill(pid_, number); }
  // Returns the exit status; -1 if it was killed.
  int end(int number) {
    kill(pid_, number);
    int status = 0;
    waitpid(std::exchange(pid_, -1), &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  pid_t pid() const { return pid_; }

 private:
  const fs::path output_;
  pid_t pid_;
};

class Serve : public Folder {};

TEST_F(Serve, SignalsThatDoNotEndIt) {
  ServeProcess serve(root_, "--db db");
  for (const int number : {SIGPIPE, SIGHUP, SIGUSR1, SIGUSR2}) {
    Peer peer(serve.port());
    serve.signal(number);
    EXPECT_EQ(ask(peer, post("m f=1 5")), 204) << number;
  }
  EXPECT_EQ(serve.end(SIGTERM), 0);
  EXPECT_THAT(serve.output(), HasSubstr("4 requests"));
}

TEST_F(Serve, DefaultLogShowsSkippedLinesAndSnapshots) {
  ServeProcess serve(root_, "--db db --log log --snapshot-mb 0.001");
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
  ServeProcess serve(root_, "--db db");
  Peer peer(serve.port());
  std::string text;
  for (int i = 0; i < 1000; ++i) text += fmt::format("m f={}i,b=true {}\n", i, i);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(ask(peer, post(text)), 204);
  EXPECT_THAT(body_of(answer_to(peer, get("/metrics"))), HasSubstr("\nmetricdb_stored_points 2000\n"));
  const std::string refused = answer_to(peer, post("m s=\"x\" 5"));
  EXPECT_EQ(Peer::status_of(refused), 400);
  EXPECT_THAT(refused, HasSubstr("is a string, and strings are not stored"));
  EXPECT_EQ(serve.end(SIGTERM), 0);
  ServeProcess dropping(root_, "--db db --drop-strings");
  Peer other(dropping.port());
  EXPECT_EQ(ask(other, post("m s=\"x\" 5")), 204);
  EXPECT_EQ(dropping.end(SIGTERM), 0);
}

TEST_F(Serve, HangUpOpensTheLogAgain) {
  ServeProcess serve(root_, "--db db --log log");
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

// What clients of one or several databases send, in this order.
TEST_F(Serve, StatementsThatChangeDatabases) {
  const std::string now = fmt::format("{}000000000", std::time(nullptr));
  struct Row {
    const char *statement, *database, *answer;  // the answer without the brackets of "results"
    bool is_only = true;                        // also for a server with one database
  };
  static constexpr const char *DONE = R"({"statement_id":0})";
  const Row rows[] = {
      {"CREATE DATABASE other WITH DURATION 90m", "", DONE, false},
      {"CREATE DATABASE other WITH DURATION 2h", "",
       R"({"statement_id":0,"error":"retention policy conflicts with an existing policy"})"},
      {"SHOW RETENTION POLICIES", "other",
       R"({"statement_id":0,"series":[{"columns":["name","duration","shardGroupDuration","replicaN","default"],)"
       R"("values":[["autogen","1h30m0s","0s",1,true]]}]})",
       false},
      {"ALTER RETENTION POLICY autogen ON d DURATION 59m", "",
       R"({"statement_id":0,"error":"retention policy duration must be at least 1h0m0s"})"},
      {"ALTER RETENTION POLICY p ON d DURATION 2h", "",
       R"({"statement_id":0,"error":"retention policy not found: p: the only one is autogen, which ALTER RETENTION )"
       R"(POLICY changes"})"},
      {"CREATE RETENTION POLICY autogen ON d DURATION 2h REPLICATION 1", "",
       R"({"statement_id":0,"error":"retention policy already exists"})"},
      {"SHOW SERIES", "", R"({"statement_id":0,"error":"database name required"})", false},
      {"SHOW SERIES", "other", DONE, false},
      {"SELECT x FROM d..a, other..b", "d",
       R"({"statement_id":0,"error":"a statement about several databases is not supported"})", false},
      {"DELETE FROM a WHERE h = '1' AND time < 1000", "d", DONE},
      {"DROP SERIES FROM /b|c/ WHERE h =~ /2/; SHOW SERIES", "d",
       R"({"statement_id":0},{"statement_id":1,"series":[{"columns":["key"],"values":[["a,h=1"],["a,h=2"],["b,h=1"],)"
       R"(["c,h=1"]]}]})"},
      {"DROP MEASUREMENT b; DELETE WHERE time > 100; SHOW SERIES", "d",
       R"({"statement_id":0},{"statement_id":1},)"
       R"({"statement_id":2,"series":[{"columns":["key"],"values":[["a,h=2"]]}]})"},
      {"DROP DATABASE other; SHOW DATABASES", "",
       R"({"statement_id":0},{"statement_id":1,"series":[{"name":"databases","columns":["name"],"values":[["d"]]}]})",
       false},
      {"ALTER RETENTION POLICY autogen ON d DURATION 7d SHARD DURATION 1d DEFAULT; SHOW SERIES", "d",
       R"({"statement_id":0},{"statement_id":1,"series":[{"columns":["key"],"values":[["a,h=2"]]}]})"},
  };
  for (const bool is_only : {true, false}) {
    SCOPED_TRACE(is_only ? "--db" : "--data");
    const std::string arguments = is_only ? "--db only" : "--data several";
    ServeProcess serve(root_, arguments);
    Peer peer(serve.port());
    const auto ask_for = [&](const std::string &statement, const std::string &database) {
      std::string form = fmt::format("db={}&q={}", database, statement);
      for (size_t at = 0; (at = form.find(';', at)) != form.npos; at += 3) form.replace(at, 1, "%3B");
      return answer_to(peer, fmt::format("POST /query HTTP/1.1\r\nContent-Type: application/x-www-form-urlencoded\r\n"
                                         "Content-Length: {}\r\n\r\n{}",
                                         form.size(), form));
    };
    EXPECT_EQ(Peer::status_of(ask_for("CREATE DATABASE d", "")), 200);
    std::string lines;
    for (const char *const name : {"a", "b", "c"})
      for (int h = 1; h <= 2; ++h) lines += fmt::format("{},h={} x=1 {}\n", name, h, name[0] == 'a' ? "99" : now);
    lines += "a,h=1 x=2 " + now + "\n";
    const std::string request =
        fmt::format("POST /write?db=d HTTP/1.1\r\nContent-Length: {}\r\n\r\n{}", lines.size(), lines);
    EXPECT_EQ(ask(peer, request), 204);
    for (const Row &row : rows) {
      if (!row.is_only && is_only) continue;
      EXPECT_EQ(body_of(ask_for(row.statement, row.database)), fmt::format("{{\"results\":[{}]}}\n", row.answer))
          << row.statement;
    }
    EXPECT_THAT(answer_to(peer, get("/query?db=d&q=DELETE+FROM+a")), HasSubstr("needs a POST request"));
    EXPECT_EQ(Peer::status_of(ask_for("SHOW SERIES", "missing")), is_only ? 200 : 404);
    // The point of h=2 is too old now.
    EXPECT_THAT(ask_for("SELECT count(x) FROM a", "d"), Not(HasSubstr("series")));
    EXPECT_THAT(body_of(answer_to(peer, get("/metrics"))),
                HasSubstr(is_only ? "\nmetricdb_series 1\n" : "\nmetricdb_series{database=\"d\"} 1\n"));
    EXPECT_EQ(serve.end(SIGTERM), 0) << serve.output();
    ServeProcess again(root_, arguments);
    Peer later(again.port());
    EXPECT_THAT(answer_to(later, get("/query?db=d&q=SHOW+RETENTION+POLICIES")), HasSubstr("168h0m0s"));
    EXPECT_EQ(again.end(SIGTERM), 0);
  }
  // Without a server.
  EXPECT_EQ(run("query --db only --influxql 'DROP SERIES FROM a; SHOW SERIES'").exit_code, 0);
  EXPECT_THAT(run("verify --db only").out, HasSubstr("series           0 in "));
  EXPECT_EQ(run("query --db missing --influxql 'DROP SERIES FROM a'").exit_code, 1);
  EXPECT_FALSE(fs::exists(path("missing")));
}
