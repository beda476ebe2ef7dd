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
  ServeProcess serve(root_, "--influx 0 --db db --address 0.0.0.0 --insecure");
  EXPECT_TRUE(wait_until([&] { return serve.output().find("influx 0.0.0.0:") != std::string::npos; }))
      << serve.output();
  EXPECT_EQ(serve.end(SIGTERM), 0);
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

// Every option of the example is one that the command has, with a value that it takes.
TEST_F(Serve, ExampleOfAConfigurationIsAccepted) {
  std::istringstream lines(read_file(METRICDB_PACKAGING "/metricdb.toml"));
  std::string example, of_clusters;  // the second part names servers that are not here
  for (std::string line; std::getline(lines, line);) {
    if (line.find("/run/credentials/") != std::string::npos) continue;  // files that are not here
    if (line.starts_with("# ") && line.find(" = ") != std::string::npos) line.erase(0, 2);
    for (const std::string folder : {"/var/lib/metricdb/", "/var/log/metricdb/"})
      if (const size_t at = line.find(folder); at != std::string::npos) line.erase(at, folder.size());
    const bool is_of_cluster = line.starts_with("nats") || line.starts_with("replica") || line.starts_with("lead ");
    (is_of_cluster ? of_clusters : example) += line + "\n";
  }
  write_file(path("metricdb.toml"), example);
  EXPECT_EQ(count_of(example, "\n# log-level"), 0u) << "the examples are not tested";
  ServeProcess serve(root_, "--config metricdb.toml --influx 0 --graphite 0");
  ASSERT_NE(serve.port(), 0) << serve.output();
  EXPECT_EQ(serve.end(SIGTERM), 0);
  EXPECT_TRUE(fs::exists(path("db")));
  write_file(path("cluster.toml"), example + of_clusters);
  EXPECT_THAT(run("serve --config cluster.toml --salvage").err,
              HasSubstr("--replica and --salvage exclude each other"));
}

TEST_F(Serve, CommandLineReplacesTheConfiguration) {
  write_file(path("some.toml"), "db = \"of the file\"\ninflux = 0\nretain = 5\ndrop-strings = true\n");
  ServeProcess serve(root_, "--db db --config some.toml");
  Peer peer(serve.port());
  EXPECT_EQ(ask(peer, post("m f=1,s=\"x\"")), 204) << "drop-strings";
  EXPECT_EQ(ask(peer, post(fmt::format("m f=1 {}000000000", std::time(nullptr) - 60))), 400) << "retain";
  EXPECT_EQ(serve.end(SIGTERM), 0);
  EXPECT_THAT(names_in(root_), ElementsAre("db", "serve.out", "some.toml"));
}

TEST_F(Serve, WrongConfigurationsNameFileAndLine) {
  const struct {
    const char *file, *message;
  } rows[] = {
      {"db = \"d\"\ninfluxx = 1\n", "wrong.toml:2: there is no option \"influxx\""},
      {"\n\ninflux = 99999\n", "wrong.toml:3: "},
      {"influx = \"port\"\n", "wrong.toml:1: "},
      {"sync = \"later\"\n", "wrong.toml:1: "},
      {"log-level = 9\n", "wrong.toml:1: "},
      {"influx = [1, 2]\n", "wrong.toml:1: influx: a text that is not empty, a number or a boolean is expected"},
      {"[serve]\ninflux = 1\n", "wrong.toml:1: there is no option \"serve\""},
      {"config = \"other.toml\"\n", "wrong.toml:1: there is no option \"config\""},
      {"influx = 1\ninflux = 2\n", "wrong.toml:2: "},
      {"influx 1\n", "wrong.toml:1: "},
  };
  for (const auto &row : rows) {
    std::ofstream(path("wrong.toml")) << row.file;
    const Outcome outcome = run("serve --db db --config wrong.toml");
    EXPECT_EQ(outcome.exit_code, 1) << row.file;
    EXPECT_THAT(outcome.err, HasSubstr(row.message));
  }
  EXPECT_THAT(run("serve --db db --config missing.toml").err, HasSubstr("missing.toml: No such file or directory"));
  EXPECT_FALSE(fs::exists(path("db")));
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
    const std::string arguments = is_only ? "--influx 0 --db only" : "--influx 0 --data several";
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
    for (const char *statement : {"SHOW SERIES ON missing", "SELECT x FROM missing..a", "DELETE FROM missing..z"})
      EXPECT_EQ(body_of(ask_for(statement, "d")).find("database not found: missing") == std::string::npos, is_only)
          << statement;
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

// The answers to the other statements are printed.
TEST_F(Serve, FailedStatementsFailTheQuery) {
  const auto expect_failure = [&](const std::string &arguments, const std::string &first = "SHOW SERIES") {
    const Outcome outcome = run(fmt::format("query {} --influxql '{}; SELECT x FROM a..m, b..m'", arguments, first));
    EXPECT_EQ(outcome.exit_code, 1) << arguments;
    EXPECT_EQ(outcome.err, "metricdb: a statement about several databases is not supported\n") << arguments;
    EXPECT_EQ(outcome.out.find("m,h=1") != std::string::npos, first == "SHOW SERIES") << arguments << outcome.out;
  };
  ServeProcess serve(root_, "--influx 0 --db db");
  Peer peer(serve.port());
  EXPECT_EQ(ask(peer, post("m,h=1 x=1 5")), 204);
  const std::string server = fmt::format("--server 127.0.0.1:{}", serve.port());
  expect_failure(server);
  expect_failure(server + " --format json");
  expect_failure(fmt::format("{} --server localhost:{}", server, serve.port()));
  EXPECT_EQ(serve.end(SIGTERM), 0);
  expect_failure("--db db");
  expect_failure("--db db", "DELETE FROM other");
}

// The manual pages have each option of each command.
TEST_F(Serve, ManualNamesEveryOption) {
  const std::string manual = read_file(METRICDB_MANUAL "/metricdb.1") + read_file(METRICDB_MANUAL "/metricdb-serve.1");
  const std::string summary = run("--help").out;
  std::istringstream commands("\n" + summary.substr(summary.find("Subcommands:\n") + 13));
  std::set<std::string> options;
  for (std::string command, line; commands >> command && std::getline(commands, line);) {
    EXPECT_THAT(manual, HasSubstr("Cm " + command)) << "the command is missing";
    std::istringstream words(run(command + " --help").out);
    for (std::string word; words >> word;)
      if (word.starts_with("--") && word.size() > 2) options.insert(word.substr(2, word.find_first_of("=,.;:`") - 2));
  }
  EXPECT_GT(options.size(), 30u);
  for (const std::string &option : options) EXPECT_GT(count_of(manual, "Fl -" + option), 0u) << option;
}
