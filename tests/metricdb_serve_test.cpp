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
  std::string example;
  for (std::string line; std::getline(lines, line);) {
    if (line.find("/run/credentials/") != std::string::npos) continue;  // files that are not here
    if (line.starts_with("# ") && line.find(" = ") != std::string::npos) line.erase(0, 2);
    for (const std::string folder : {"/var/lib/metricdb/", "/var/log/metricdb/"})
      if (const size_t at = line.find(folder); at != std::string::npos) line.erase(at, folder.size());
    example += line + "\n";
  }
  write_file(path("metricdb.toml"), example);
  EXPECT_EQ(count_of(example, "\n# log-level"), 0u) << "the examples are not tested";
  ServeProcess serve(root_, "--config metricdb.toml --influx 0 --graphite 0");
  ASSERT_NE(serve.port(), 0) << serve.output();
  EXPECT_EQ(serve.end(SIGTERM), 0);
  EXPECT_TRUE(fs::exists(path("db")));
}

TEST_F(Serve, CommandLineReplacesTheConfiguration) {
  write_file(path("some.toml"), "db = \"of the file\"\ninflux = 0\nretain = 5\ndrop-strings = true\n");
  ServeProcess serve(root_, "--db db --config some.toml");
  Peer peer(serve.port());
  EXPECT_EQ(ask(peer, post("m f=1,s=\"x\" 10000000000")), 204) << "drop-strings";
  EXPECT_EQ(ask(peer, post("m f=1 1000000000")), 400) << "retain";
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
      if (word.starts_with("--") && word.size() > 2) options.insert(word.substr(2, word.find_first_of("=,.;`") - 2));
  }
  EXPECT_GT(options.size(), 30u);
  for (const std::string &option : options) EXPECT_GT(count_of(manual, "Fl -" + option), 0u) << option;
}
