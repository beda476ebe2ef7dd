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

TEST_F(Serve, OtherMachinesNeedTlsAndUsers) {
  const struct {
    const char *arguments, *reason;
  } rows[] = {
      {"--address 0.0.0.0", "use --tls-cert and --tls-key, or --insecure"},
      {"--address 192.0.2.1 --tls-cert c --tls-key k", "use --user-file, or --insecure"},
      {"--address 128.0.0.1 --tls-cert c --tls-key k --user-file u --graphite 0", "Graphite's protocol has no users"},
      {"--tls-cert c", "--tls-cert and --tls-key need each other"},
      {"--tls-cert c --tls-key k", "c: "},
      {"--user-file u", "u: No such file"},
  };
  for (const auto &row : rows) {
    const Outcome refused = run(std::string("serve --db db --influx 0 ") + row.arguments);
    EXPECT_EQ(refused.exit_code, 1);
    EXPECT_THAT(refused.err, HasSubstr(row.reason));
    EXPECT_FALSE(fs::exists(path("db")));
  }
  ServeProcess serve(root_, "--db db --address 0.0.0.0 --insecure");
  EXPECT_TRUE(wait_until([&] { return serve.output().find("influx 0.0.0.0:") != std::string::npos; }))
      << serve.output();
  EXPECT_EQ(serve.end(SIGTERM), 0);
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
