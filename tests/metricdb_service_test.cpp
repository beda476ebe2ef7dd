// `metricdb serve` as a service of systemd: notices, and sockets that are passed.
#include <sys/un.h>

#include "serve_process.h"

namespace {

// The socket of a service manager for notices.
class Manager {
 public:
  explicit Manager(const std::string &path) : fd_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
  }
  ~Manager() { close(fd_); }
  Manager(const Manager &) = delete;
  Manager &operator=(const Manager &) = delete;

  // Returns the notices up to the first one that contains the text.
  std::vector<std::string> until(const std::string &text) const {
    std::vector<std::string> notices;
    for (pollfd waited = {fd_, POLLIN, 0}; poll(&waited, 1, 60'000) == 1;) {
      char bytes[4096];
      const ssize_t got = recv(fd_, bytes, sizeof bytes, 0);
      notices.emplace_back(bytes, static_cast<size_t>(std::max<ssize_t>(got, 0)));
      if (notices.back().find(text) != std::string::npos) return notices;
    }
    ADD_FAILURE() << "no notice with " << text;
    return notices;
  }

 private:
  const int fd_;
};

// A socket at a free port of this machine.
class Bound {
 public:
  explicit Bound(int type = SOCK_STREAM, in_addr_t at = INADDR_LOOPBACK)
      : fd_(socket(AF_INET, type | SOCK_CLOEXEC, 0)) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(at);
    socklen_t bytes = sizeof address;
    EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr *>(&address), bytes), 0);
    if (type == SOCK_STREAM) {
      EXPECT_EQ(listen(fd_, 10), 0);
    }
    EXPECT_EQ(getsockname(fd_, reinterpret_cast<sockaddr *>(&address), &bytes), 0);
    port_ = ntohs(address.sin_port);
  }
  ~Bound() { close(fd_); }
  Bound(const Bound &) = delete;
  Bound &operator=(const Bound &) = delete;
  int fd() const { return fd_; }
  int port() const { return port_; }

 private:
  const int fd_;
  int port_ = 0;
};

}  // namespace

class Service : public Folder {
 protected:
  void SetUp() override {
    Folder::SetUp();
    if (run("--version").out.find("with systemd") == std::string::npos) GTEST_SKIP() << "built without libsystemd";
  }
};

TEST_F(Service, NoticesFollowTheStates) {
  const Manager manager(path("notify"));
  ServeProcess serve(root_, "--influx 0 --db db",
                     "export NOTIFY_SOCKET=$PWD/notify WATCHDOG_USEC=2000000 WATCHDOG_PID=$$");
  const std::vector<std::string> start = manager.until("READY=1");
  EXPECT_THAT(start.front(), HasSubstr("STATUS=opening the database, 0 %\nEXTEND_TIMEOUT_USEC="));
  EXPECT_THAT(start.back(), HasSubstr("STATUS=serving influx 127.0.0.1:"));
  Peer peer(std::atoi(start.back().c_str() + start.back().rfind(':') + 1));
  EXPECT_EQ(ask(peer, post("m f=1 5")), 204) << "it was not ready";
  for (int i = 0; i < 2; ++i) EXPECT_THAT(manager.until("WATCHDOG=1").back(), "WATCHDOG=1");
  serve.signal(SIGTERM);
  manager.until("STOPPING=1");
  EXPECT_EQ(serve.end(SIGTERM), 0);
}

TEST_F(Service, FailedStartIsNeverReady) {
  const Manager manager(path("notify"));
  fs::create_directory(path("db"));
  write_file(path("db/notes.txt"), "mine");
  ServeProcess serve(root_, "--influx 0 --db db", "export NOTIFY_SOCKET=$PWD/notify WATCHDOG_USEC=1 WATCHDOG_PID=1");
  for (const std::string &notice : manager.until("STOPPING=1")) {
    EXPECT_THAT(notice, testing::Not(HasSubstr("READY")));
    EXPECT_THAT(notice, testing::Not(HasSubstr("WATCHDOG"))) << "of another process";
  }
  EXPECT_EQ(serve.end(0), 1);
}

// Clients that connect before the start, or between two processes, wait and are answered.
TEST_F(Service, PassedSocketsOutliveTheProcess) {
  const Bound graphite, influx;
  const std::string environment = "export LISTEN_PID=$$ LISTEN_FDS=2 LISTEN_FDNAMES=graphite:influx";
  Peer early(influx.port()), line(graphite.port());
  ASSERT_TRUE(early.send(post("m f=1 5")));
  ASSERT_TRUE(line.send("g 1 7\n"));
  // The socket replaces the port of the option, which is in use.
  const Bound used;
  const std::string arguments = fmt::format("--db db --influx {}", used.port());
  ServeProcess first(root_, arguments, environment, {graphite.fd(), influx.fd()});
  const int status = early.status();
  EXPECT_TRUE(status == 204 || status == 503) << status;  // 503: it was still being opened
  ASSERT_TRUE(wait_until([&] { return first.output().ends_with("\n"); }));
  EXPECT_THAT(first.output(),
              HasSubstr(fmt::format(" influx passed:{} graphite passed:{}\n", influx.port(), graphite.port())));
  Peer asking(influx.port());
  ASSERT_TRUE(wait_until([&] {
    return answer_to(asking, get("/metrics")).find("\nmetricdb_series " + std::to_string(status == 204 ? 2 : 1)) !=
           std::string::npos;
  }));
  EXPECT_EQ(first.end(SIGTERM), 0);
  Peer between(influx.port());
  ASSERT_TRUE(between.is_connected());
  ASSERT_TRUE(between.send(get("/ping")));
  ServeProcess second(root_, "--db db", environment, {graphite.fd(), influx.fd()});
  EXPECT_EQ(between.status(), 204);
  EXPECT_EQ(second.end(SIGTERM), 0);
}

TEST_F(Service, WrongSocketsAreRefused) {
  const Bound stream, other, datagrams(SOCK_DGRAM), open(SOCK_STREAM, INADDR_ANY);
  const struct {
    const char *environment;
    std::vector<int> passed;
    const char *message;
  } rows[] = {
      {"LISTEN_PID=$$ LISTEN_FDS=1", {stream.fd()}, "the passed socket \"unknown\" needs FileDescriptorName=influx"},
      {"LISTEN_PID=$$ LISTEN_FDS=1 LISTEN_FDNAMES=http", {stream.fd()}, "the passed socket \"http\" needs"},
      {"LISTEN_PID=$$ LISTEN_FDS=2 LISTEN_FDNAMES=influx:influx",
       {stream.fd(), other.fd()},
       "two sockets with the name \"influx\""},
      {"LISTEN_PID=$$ LISTEN_FDS=1 LISTEN_FDNAMES=influx", {datagrams.fd()}, "is not a listening stream socket"},
      {"LISTEN_PID=$$ LISTEN_FDS=1 LISTEN_FDNAMES=influx",
       {open.fd()},
       "other machines can reach 0.0.0.0: use --tls-cert"},
      {"LISTEN_PID=1 LISTEN_FDS=1 LISTEN_FDNAMES=influx", {stream.fd()}, "nothing to serve"},
  };
  for (const auto &row : rows) {
    ServeProcess serve(root_, "--db db", std::string("export ") + row.environment, row.passed);
    EXPECT_EQ(serve.end(0), 1) << row.environment;
    EXPECT_THAT(serve.output(), HasSubstr(row.message));
  }
  EXPECT_FALSE(fs::exists(path("db")));
}
