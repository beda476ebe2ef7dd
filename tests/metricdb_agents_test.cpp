// Agents from Debian packages: their points are stored, and they accept the answers.
#include <fcntl.h>

#include "certificate.h"
#include "server_support.h"

// A separate program, killed with its owner. Its output is written to a file.
class Program {
 public:
  Program(const std::vector<std::string> &words, const fs::path &output) : output_(output) {
    std::vector<char *> arguments;
    for (const std::string &word : words) arguments.push_back(const_cast<char *>(word.c_str()));
    arguments.push_back(nullptr);
    pid_ = fork();
    if (pid_ != 0) return;
    const int out = open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    const int in = open("/dev/null", O_RDONLY);
    if (dup2(in, 0) < 0 || dup2(out, 1) < 0 || dup2(out, 2) < 0) _exit(126);
    execv(arguments[0], arguments.data());
    _exit(127);
  }
  ~Program() { end(SIGKILL); }
  Program(const Program &) = delete;
  Program &operator=(const Program &) = delete;

  // Returns the exit status; -1 if it was killed, or did not end.
  int wait() {
    int status = 0;
    if (!wait_until([&] { return waitpid(pid_, &status, WNOHANG) == pid_; })) return -1;
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  int end(int signal) {
    if (pid_ <= 0) return -1;
    kill(pid_, signal);
    return wait();
  }
  // Returns the output so far.
  std::string output() const { return fs::exists(output_) ? read_file(output_) : ""; }

 private:
  const fs::path output_;
  pid_t pid_;
};

class Agents : public Folder {
 protected:
  std::string write(const std::string &name, const std::string &text) const {
    write_file(root_ / name, text);
    return path(name);
  }
  // Returns the output of a program that must succeed.
  std::string run_to_end(const std::vector<std::string> &words) const {
    Program program(words, root_ / "program.out");
    EXPECT_EQ(program.wait(), 0) << program.output();
    return program.output();
  }

  RunningServer server_;
};

#define SKIP_WITHOUT(program) \
  if (!fs::exists(program)) GTEST_SKIP() << program << " is not there"

constexpr const char *INFLUX = "/usr/bin/influx";
constexpr const char *CURL = "/usr/bin/curl";

TEST_F(Agents, InfluxClient) {
  SKIP_WITHOUT(INFLUX);
  const auto run = [&](std::vector<std::string> words) {
    words.insert(words.begin(), {INFLUX, "-host", "127.0.0.1", "-port", fmt::format("{}", server_.influx_port())});
    return run_to_end(words);
  };
  EXPECT_EQ(run({"-database", "x", "-execute", "INSERT cpu,host=a load=0.5,n=3i 1700000000000000000"}), "");
  EXPECT_THAT(server_.ingest().points(),
              ElementsAre("cpu,host=a load=0.5@1700000000000000000", "cpu,host=a n=3@1700000000000000000"));
  EXPECT_THAT(run({"-execute", "CREATE DATABASE telegraf"}), "");

  std::string file = "# DDL\nCREATE DATABASE imported\n# DML\n# CONTEXT-DATABASE: imported\n";
  constexpr size_t N = 12'000;
  for (size_t i = 0; i < N; ++i) file += fmt::format("disk,n={} used={} {}\n", i % 100, i, 1'700'000'000 + i);
  const std::string output = run({"-import", "-precision", "s", "-path", write("import.lp", file)});
  EXPECT_THAT(output, HasSubstr(fmt::format("Processed {} inserts", N)));
  EXPECT_THAT(output, HasSubstr("Failed 0 inserts"));
  EXPECT_EQ(server_.ingest().points().size(), N + 2);
  EXPECT_EQ(server_.ingest().points().back(),
            fmt::format("disk,n={} used={}@{}000000000", (N - 1) % 100, N - 1, 1'700'000'000 + N - 1));
}

// A server with a database of its own, and its clients for InfluxDB.
class QueryClients : public Agents {
 protected:
  void SetUp() override {
    Agents::SetUp();
    serve_.emplace(std::vector<std::string>{METRICDB, "serve", "--db", path("db"), "--influx", "0"},
                   root_ / "serve.out");
    const std::string mark = "influx 127.0.0.1:";
    ASSERT_TRUE(wait_until([&] { return serve_->output().find('\n') != std::string::npos; }));
    port_ = serve_->output().substr(serve_->output().find(mark) + mark.size());
    port_ = port_.substr(0, port_.find_first_of(" \n"));
  }
  void TearDown() override {
    EXPECT_EQ(serve_->end(SIGTERM), 0) << serve_->output();
    Agents::TearDown();
  }

  std::optional<Program> serve_;
  std::string port_;
};

TEST_F(QueryClients, InfluxClient) {
  SKIP_WITHOUT(INFLUX);
  const auto run = [&](const std::string &statement) {
    return run_to_end({INFLUX, "-host", "127.0.0.1", "-port", port_, "-database", "metricdb", "-precision", "s",
                       "-execute", statement});
  };
  for (int i = 0; i < 6; ++i)
    EXPECT_EQ(run(fmt::format("INSERT cpu,host={} load={} {}", i % 2 == 0 ? "a" : "b", i, 1'700'000'000 + 60 * i)), "");
  EXPECT_EQ(run("CREATE DATABASE telegraf"), "");
  EXPECT_THAT(run("SHOW DATABASES"), AllOf(HasSubstr("metricdb\n"), HasSubstr("telegraf\n")));
  EXPECT_THAT(run("SHOW SERIES"), AllOf(HasSubstr("cpu,host=a\n"), HasSubstr("cpu,host=b\n")));
  EXPECT_EQ(run("SELECT load FROM cpu WHERE host = 'b' AND time > 1700000100s ORDER BY time DESC LIMIT 1"),
            "name: cpu\ntime       load\n----       ----\n1700000300 5\n");
  EXPECT_EQ(run("SELECT mean(load), count(load) FROM cpu WHERE time >= 1699999980s AND time < 1700000340s "
                "GROUP BY time(3m), host"),
            "name: cpu\ntags: host=a\ntime       mean count\n----       ---- -----\n1699999920 0    1\n"
            "1700000100 3    2\n1700000280      0\n\nname: cpu\ntags: host=b\ntime       mean count\n"
            "----       ---- -----\n1699999920 1    1\n1700000100 3    1\n1700000280 5    1\n");
}

// The program itself, beside the server and on its database.
TEST_F(QueryClients, OwnProgram) {
  write_file(root_ / "points.lp", "cpu,host=a load=1 1\ncpu,host=a load=2 2\ncpu,host=b load=5 2\n");
  run_to_end({CURL, "-sS", "--fail", "--data-binary", "@" + path("points.lp"),
              fmt::format("http://127.0.0.1:{}/write?precision=s", port_)});
  const std::string statement = "SELECT sum(load) AS s FROM cpu GROUP BY host";
  const std::string csv = "name,tags,time,s\ncpu,host=a,0,3\ncpu,host=b,0,5\n";
  EXPECT_EQ(run_to_end({METRICDB, "query", "--server", "127.0.0.1:" + port_, "--influxql", statement}), csv);
  EXPECT_EQ(run_to_end({METRICDB, "query", "--db", path("db"), "--influxql", statement}), csv);
  EXPECT_THAT(run_to_end({METRICDB, "query", "--server", "127.0.0.1:" + port_, "--format", "json", "--influxql",
                          "SHOW FIELD KEYS"}),
              HasSubstr("\"values\":[[\"load\",\"float\"]]"));
}

// TLS and a user with a password: clients of others and the program itself.
TEST_F(Agents, TlsAndPasswords) {
  SKIP_WITHOUT(INFLUX);
  make_certificate(root_, "server");
  const std::string hash = run_to_end({"/usr/bin/openssl", "passwd", "-6", "s3cret word"});
  fs::permissions(write("users", "ann:" + hash), fs::perms::owner_read | fs::perms::owner_write);
  Program serve({METRICDB, "serve", "--db", path("db"), "--influx", "0", "--tls-cert", path("server.crt"), "--tls-key",
                 path("server.key"), "--user-file", path("users")},
                root_ / "serve.out");
  int port = 0;
  ASSERT_TRUE(wait_until([&] {
    return std::sscanf(serve.output().c_str(), "serving influx 127.0.0.1:%d", &port) == 1;
  })) << serve.output();
  const std::string address = fmt::format("https://127.0.0.1:{}", port);
  const auto curl = [&](const std::string &user) {
    return run_to_end({CURL, "-sS", "--noproxy", "*", "-o", "/dev/null", "-w", "%{http_code}", "--cacert",
                       path("server.crt"), "-u", user, "--data-binary", "cpu load=1 1700000000",
                       address + "/write?precision=s"});
  };
  EXPECT_EQ(curl("ann:s3cret word"), "204");
  EXPECT_EQ(curl("ann:guess"), "401");
  const auto influx = [&](const std::string &statement) {
    return run_to_end({INFLUX, "-host", "127.0.0.1", "-port", fmt::format("{}", port), "-ssl", "-unsafeSsl",
                       "-username", "ann", "-password", "s3cret word", "-precision", "s", "-database", "x", "-execute",
                       statement});
  };
  EXPECT_EQ(influx("INSERT cpu load=2 1700000060"), "");
  EXPECT_EQ(influx("SELECT load FROM cpu"),
            "name: cpu\ntime       load\n----       ----\n1700000000 1\n1700000060 2\n");
  const auto own = [&](const std::string &arguments, const std::string &environment = "") {
    return run(
        fmt::format("query --server {} --ca server.crt --influxql 'SELECT sum(load) FROM cpu' {}", address, arguments),
        environment);
  };
  write("password", "s3cret word\n");
  EXPECT_THAT(own("--user ann --password-file password").out, HasSubstr("cpu,,0,3\n"));
  EXPECT_THAT(own("--user ann", "METRICDB_PASSWORD='s3cret word'").out, HasSubstr("cpu,,0,3\n"));
  EXPECT_THAT(own("--user ann").err, HasSubstr("METRICDB_PASSWORD"));
  EXPECT_THAT(own("--user ann", "METRICDB_PASSWORD=guess").err, HasSubstr("authorization failed"));
  EXPECT_THAT(own("").err, HasSubstr("unable to parse authentication credentials"));
  EXPECT_EQ(serve.end(SIGTERM), 0) << serve.output();
}

constexpr const char *PYTHON = "/usr/bin/python3";

TEST_F(QueryClients, PythonClient) {
  SKIP_WITHOUT("/usr/lib/python3/dist-packages/influxdb");
  const std::string script = write("client.py", R"(
import sys
from influxdb import InfluxDBClient
client = InfluxDBClient(host="127.0.0.1", port=int(sys.argv[1]), database="metricdb")
client.create_database("metricdb")
client.write_points([{"measurement": "disk", "tags": {"host": h, "dev": "sda"}, "time": 1700000000 + 10 * i,
                      "fields": {"used": float(i), "free": 100.0 - i}} for h in ("a", "b") for i in range(30)],
                    time_precision="s")
print(sorted(d["name"] for d in client.get_list_database()), client.get_list_measurements())
rows = list(client.query("SELECT max(used) AS m FROM disk WHERE time < 1700000300s GROUP BY host", epoch="s").items())
print([(dict(key[1]), [row["m"] for row in points]) for key, points in rows])
print([row["free"] for row in client.query("SELECT free FROM disk WHERE host='b' LIMIT 3").get_points()])
print([len(list(part.get_points())) for part in client.query("SELECT used FROM disk", chunked=True, chunk_size=25)])
try:
    client.query("SELECT used FROM")
except Exception as error:
    print(error.code)
)");
  EXPECT_EQ(run_to_end({PYTHON, script, port_}),
            "['metricdb'] [{'name': 'disk'}]\n"
            "[({'host': 'a'}, [29]), ({'host': 'b'}, [29])]\n"
            "[100, 99, 98]\n[25, 25, 10]\n400\n");
}

constexpr const char *COLLECTD = "/usr/sbin/collectd";

// Rates are off, because each begins with a NaN.
constexpr const char *COLLECTD_CONFIGURATION = R"(Hostname "{0}"
FQDNLookup false
Interval 0.2
BaseDir "{1}"
PIDFile "{1}/{0}.pid"
TypesDB "/usr/share/collectd/types.db"
LoadPlugin cpu
LoadPlugin load
LoadPlugin memory
LoadPlugin interface
LoadPlugin write_graphite
<Plugin write_graphite>
<Node "metricdb">
Host "127.0.0.1"
Port "{2}"
Protocol "tcp"
LogSendErrors true
StoreRates false
Prefix "collectd."
</Node>
</Plugin>
)";

// The points of two agents are in the database when the program ends after a signal. A second run adds those of
// collectd, and none of curl, which sends its points again.
TEST_F(Agents, CollectdAndCurlFeedADatabase) {
  SKIP_WITHOUT(COLLECTD);
  SKIP_WITHOUT(CURL);
  const std::string db = path("db");
  constexpr int N_LINES = 60'000;  // so long that curl asks whether to send the body
  std::string lines;
  for (int i = 0; i < N_LINES; ++i) lines += fmt::format("m,n={} f={}i {}\n", i % 10, i, i + 1);
  const std::string file = write("curl.lp", lines);
  for (int round = 0; round < 2; ++round) {
    Program serve({METRICDB, "serve", "--db", db, "--influx", "0", "--graphite", "0"},
                  root_ / fmt::format("serve{}.out", round));
    int influx = 0, graphite = 0;
    ASSERT_TRUE(wait_until([&] {
      return std::sscanf(serve.output().c_str(), "serving influx 127.0.0.1:%d graphite 127.0.0.1:%d", &influx,
                         &graphite) == 2;
    })) << serve.output();
    const std::string name = fmt::format("sender{}", round);
    const std::string configuration = fmt::format(COLLECTD_CONFIGURATION, name, root_.string(), graphite);
    Program collectd({COLLECTD, "-f", "-C", write(name + ".conf", configuration)}, root_ / "collectd.out");
    EXPECT_EQ(run_to_end({CURL, "-sS", "--noproxy", "*", "-w", "%{http_code}", "--data-binary", "@" + file,
                          fmt::format("http://127.0.0.1:{}/write", influx)}),
              "204");
    // Another process reads the points while the program runs.
    for (const char *series : {".load*", ".cpu-0*", ".memory*", ".interface-lo*"})
      EXPECT_TRUE(wait_until([&] {
        return !run_to_end({METRICDB, "export", "--db", db, "collectd." + name + series}).empty();
      })) << series
          << "\n"
          << collectd.output();
    EXPECT_EQ(collectd.end(SIGTERM), 0);
    EXPECT_EQ(serve.end(SIGTERM), 0) << serve.output();
    EXPECT_THAT(serve.output(), HasSubstr(" 0 malformed lines, 0 late, 0 in the future, 0 without room; 0 refused"));
    EXPECT_THAT(run_to_end({METRICDB, "verify", "--db", db}), HasSubstr("verified "));
    const std::string kept = run_to_end({METRICDB, "export", "--db", db, "m,*"});
    EXPECT_EQ(std::count(kept.begin(), kept.end(), '\n'), N_LINES) << "the second run sends the same lines again";
  }
}
