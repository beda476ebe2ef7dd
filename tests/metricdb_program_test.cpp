// The program with databases: output, refusals that change nothing, and the log.

#include <fcntl.h>
#include <stdlib.h>

#include "metricdb_support.h"
#include "store/database.h"

class Program : public Folder {
 protected:
  void SetUp() override {
    Folder::SetUp();
    std::string first, second;
    for (int i = 0; i < 500; ++i) {
      first += fmt::format("cpu,host=a user={},idle={} {}\nload one={} {}\n", i, 1000 - i, i, i * 0.5, i);
      second += fmt::format("cpu,host=a user={} {}\ncpu,host=b user={} {}\n", i, 500 + i, i, 500 + i);
    }
    write_file(root_ / "first.lp", first);
    write_file(root_ / "second.lp", second);
  }

  void expect_good(const std::string &arguments, const std::string &in_output = "") const {
    const Outcome outcome = run(arguments);
    EXPECT_EQ(outcome.exit_code, 0) << arguments << "\n" << outcome.out << outcome.err;
    EXPECT_EQ(outcome.err, "") << arguments;
    EXPECT_THAT(outcome.out, HasSubstr(in_output));
  }

  void expect_refused(const std::string &arguments, const testing::Matcher<std::string> &message) const {
    const auto before = tree_of(root_);
    const Outcome outcome = run(arguments);
    EXPECT_EQ(outcome.exit_code, 1) << arguments << "\n" << outcome.out;
    EXPECT_THAT(outcome.err, message) << arguments;
    EXPECT_EQ(count_of(outcome.err, "\n"), 1u) << outcome.err;
    EXPECT_TRUE(tree_of(root_) == before) << arguments << ": the folder was changed";
  }
};

TEST_F(Program, LoadStatSeriesCheckAndSnapshot) {
  expect_good("load --db db first.lp --check", "check: 1500 points match\n");
  expect_good("stat --db db", "database         db: generation 1, opened ");
  expect_good("stat --db db",
              "series           3, 0 inactive\nvisible points   1500, 0 hidden\n"
              "oldest           0 (1970-01-01 00:00:00.000000000 UTC)\n"
              "newest           499 (1970-01-01 00:00:00.000000499 UTC)\n");
  expect_good("series --db db 'cpu*user'", "cpu,host=a user    500    0  499  249.5   499  ▁");
  expect_good("series --db db", "load one ");
  expect_good("check --db db first.lp", "check: 1500 points match\n");
  expect_good("load --db db second.lp", ": generation 3, ");
  expect_good("check --db db first.lp second.lp", "check: 2500 points match\n");
  expect_good("snapshot --db db", ": generation 5, ");
  expect_good("check --db db first.lp second.lp", "check: 2500 points match\n");
  const Outcome wrong = run("check --db db second.lp");
  EXPECT_EQ(wrong.exit_code, 1);
  EXPECT_THAT(wrong.out, HasSubstr("differences"));
  expect_good("load --db straight first.lp second.lp");
  EXPECT_EQ(run("series --db db").out, run("series --db straight").out);
}

TEST_F(Program, RetentionIsStoredWithTheDatabase) {
  write_file(root_ / "old.lp", "cpu,host=a user=1 100\n");
  expect_good("load --db db --retain 1 --precision ms first.lp --check", "check: 1500 points match\n");
  write_file(root_ / "later.lp", "cpu,host=a user=7 1300\n");
  expect_good("load --db db --precision ms later.lp", "visible points   601, ");
  expect_good("check --db db --precision ms first.lp later.lp", "check: 601 points match\n");
  expect_good("load --db db --precision ms old.lp", "1 late");
  expect_good("stat --db db", "visible points   601, ");
  expect_good("check --db db --precision ms first.lp later.lp old.lp", "check: 601 points match\n");
  write_file(root_ / "far.lp", "other f=1 9000\n");
  expect_good("load --db db --precision ms far.lp", "3 series aged");
  expect_good("stat --db db", "series           1, 0 inactive\nvisible points   1, 0 hidden");
  expect_good("load --db db --precision ms --retain 100000 old.lp");
  expect_good("stat --db db", "series           2, 0 inactive\nvisible points   2, 0 hidden");
  // Statements see it too.
  expect_good("query --db db --influxql 'CREATE DATABASE x WITH DURATION 100000s; SHOW RETENTION POLICIES'",
              ",autogen,27h46m40s,");
  expect_refused("query --db db --influxql 'CREATE DATABASE x WITH DURATION 2h'",
                 StartsWith("metricdb: retention policy conflicts with an existing policy\n"));
}

TEST_F(Program, RefusesInOneLineAndChangesNothing) {
  expect_good("load --db db first.lp");
  expect_good("load --db reusing --idle 1 --reuse-inactive-pct 5 first.lp");
  write_file(root_ / "plain", "");
  fs::create_directory(root_ / "etc");
  write_file(root_ / "etc/passwd", "");
  static const struct {
    const char *arguments, *line;
  } rows[] = {
      {"load --db db --check first.lp", "db: holds points of other inputs: use `metricdb check` with all of them"},
      {"load --db db none.lp", "none.lp: cannot be read: No such file or directory"},
      {"load --db db .", ".: cannot be read: Is a directory"},
      {"load --db new none.lp", "none.lp: cannot be read: No such file or directory"},
      {"load --db no/such/folder first.lp", "no/such/folder: cannot be created: No such file or directory"},
      {"load --db plain first.lp", "plain: cannot be read: Not a directory"},
      {"stat --db plain", "plain: holds no database"},
      {"stat --db none", "none: holds no database"},
      {"stat --db db --log no/such/log", "no/such/log: the log cannot be opened: No such file or directory"},
      {"snapshot --db none", "none: holds no database"},
      {"serve --db etc --influx 0", "etc: is not a store and has other content, such as \"passwd\""},
      {"ingest --db etc first.lp", "etc: is not a store and has other content, such as \"passwd\""},
      {"load --db etc first.lp", "etc: is not a store and has other content, such as \"passwd\""},
      {"check --db none first.lp", "none: holds no database"},
      {"stat --db .", ".: holds no database"},
      {"snapshot --db .", ".: holds no database"},
      {"check --db reusing first.lp",
       "check does not know which series --reuse-inactive-pct replaces: use one of them"},
      {"query --db db", "use either a KEY or --influxql"},
      {"query --influxql SHOW", "use either --db or --server"},
      {"query --server 127.0.0.1:1 key", "--server needs --influxql"},
      {"query --server 127.0.0.1:1 --influxql SHOW", "127.0.0.1:1: Connection refused"},
      {"query --server a:1 --server a:1 --influxql SHOW", "a --server is named twice"},
      {"query --server 127 --influxql SHOW", "127: not ADDRESS:PORT"},
      {"query --db db --influxql SELECT",
       "\"error parsing query: found EOF, expected identifier, number, function, *, regex at line 1, char 7\""},
      {"load --db db --reuse-inactive-pct 5 first.lp",
       "--reuse-inactive-pct needs --idle: without it no series is inactive"},
  };
  for (const auto &row : rows) expect_refused(row.arguments, fmt::format("metricdb: {}\n", row.line));

  fs::resize_file(root_ / "db/generation.1/points.stream", 99);
  for (const char *arguments : {"stat --db db", "series --db db", "snapshot --db db", "load --db db second.lp"})
    expect_refused(arguments, StartsWith("metricdb: db/generation.1/points.stream: has 99 bytes, expected "));
}

TEST_F(Program, TerminalsGetNoControlCharacters) {
  write_file(root_ / "control.lp",
             "m\xc2\x9b"
             "31m f=1 1\n");
  expect_good("load --db db control.lp");
  EXPECT_THAT(run("series --db db").out, HasSubstr("m\xc2\x9b"
                                                   "31m f"))
      << "files get keys as they are";
  const int terminal = posix_openpt(O_RDWR | O_NOCTTY);
  ASSERT_TRUE(terminal >= 0 && grantpt(terminal) == 0 && unlockpt(terminal) == 0);
  const std::string name = ptsname(terminal);
  const int other_end = open(name.c_str(), O_RDWR | O_NOCTTY);  // keeps the output until it is read
  ASSERT_GE(other_end, 0);
  run("series --db db", "", fmt::format(">{}", name).c_str());
  char shown[4096];
  const ssize_t n = read(terminal, shown, sizeof shown);
  ASSERT_GT(n, 0);
  EXPECT_THAT(std::string(shown, static_cast<size_t>(n)), HasSubstr("m??31m f"));
  close(other_end);
  close(terminal);
}

// Lines are passed one at a time, and a line that is too long ends where its string ends.
TEST_F(Program, IngestReadsStringsWithLineFeeds) {
  const std::string long_string = repeated("m f=2 2\n", 10'000);
  write_file(root_ / "strings.lp", "m s=\"\nm f=2 2\n\",g=3 3\nm s=\"" + long_string + "\",h=4 4\nm f=1 1\n");
  const Outcome outcome = run("ingest --db db --batch-lines 1 strings.lp");
  EXPECT_EQ(outcome.exit_code, 2) << outcome.err;
  EXPECT_THAT(outcome.err, HasSubstr("1 lines longer than 65536 bytes"));
  EXPECT_EQ(content_of(OpenDatabase(path("db")).store()), (Content{{"m f", "1@1 "}, {"m g", "3@3 "}}));
}

TEST_F(Program, LogsItsProgress) {
  write_file(root_ / "bad.lp", "m f=1 1\nm f= 2\n");
  EXPECT_EQ(run("load --db other bad.lp").exit_code, 2) << "some lines were malformed";
  static const struct {
    const char *arguments;
    std::vector<const char *> there, not_there;
  } rows[] = {
      {"load --db db first.lp bad.lp",
       {"|metricdb|start: load\n", "|metricdb|first.lp: 1000 lines, 1500 points, 0 malformed lines, ",
        "|metricdb|bad.lp: 2 lines, 1 points, 1 malformed lines, ", "|metricdb|db: generation 1 written, "},
       {"|sweep: ", "line skipped", "refused"}},
      {"load --db db first.lp bad.lp --log-level 3",
       {"|metricdb|start: load\n", "|metricdb|sweep: 4 series, ",
        "|metricdb|bad.lp:2: ", "|metricdb|db: opened, generation 1, 4 series, 1501 points\n", "generation 3 written"},
       {"refused"}},
      {"stat --db none --log-level 1", {"|metricdb|refused: none: holds no database\n"}, {"start"}},
      {"stat --db db --log-level 1", {}, {"|"}},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.arguments);
    run(fmt::format("--log log {}", row.arguments));
    std::string log;
    int n_files = 0;
    for (const auto &[name, text] : tree_of(root_)) {
      if (!name.starts_with("log.")) continue;
      EXPECT_TRUE(name.ends_with(".0")) << name;
      log += text;
      n_files += fs::remove(root_ / name);
    }
    EXPECT_LE(n_files, 1);
    for (const char *line : row.there) EXPECT_THAT(log, HasSubstr(line));
    for (const char *line : row.not_there) EXPECT_EQ(log.find(line), std::string::npos) << log;
  }
}
