// The program is killed at each step of its file operations, or runs with unusable standard streams.

#include <set>

#include "extent.h"
#include "writer_support.h"

using Crash = Writer;

// Not under ThreadSanitizer: a killed process reports no race, and a hundred processes take minutes.
TEST_F(Crash, EachStepKeepsAcknowledgedBatches) {
#if defined(TSLB_SANITIZES_THREAD)
  GTEST_SKIP();
#endif
  // One line per batch. The journal exceeds a mebibyte during the test, so a new generation is written.
  constexpr int N_LINES = 14;
  std::string input;
  std::vector<std::string> lines;
  for (int i = 0; i < N_LINES; ++i) {
    std::string fields = "f0=0";
    for (int field = 1; field < 120; ++field) fields += fmt::format(",f{}={}", field, i * field);
    lines.push_back(fmt::format("m,n={} {} {}\n", i % 7, fields, 1000 + i));
    input += lines.back();
  }
  write_file(root_ / "input.lp", input);
  const std::string ingest = "ingest --db db --batch-lines 1 --snapshot-mb 0.001 --acks input.lp";
  std::set<uint64_t> acknowledged;
  int n_killed = 0;
  for (int k = 1;; k += EVERY) {
    SCOPED_TRACE(fmt::format("step {}", k));
    fs::remove_all(root_ / "db");
    const Outcome outcome = run(ingest, fmt::format("TSLB_DURABLE_CRASH_AT={}", k));
    const size_t last = outcome.out.rfind("durable ");
    const uint64_t n_acknowledged = last == outcome.out.npos ? 0 : std::stoull(outcome.out.substr(last + 8));
    if (outcome.exit_code == 0) {
      EXPECT_EQ(n_acknowledged, uint64_t{N_LINES});
      EXPECT_GT(reopened().generation(), 1u) << "no generation was written";
      break;
    }
    ASSERT_EQ(outcome.exit_code, -1) << outcome.err;
    ++n_killed;
    acknowledged.insert(n_acknowledged);
    uint64_t n_found = 0;
    // Before the first generation exists, nothing was acknowledged.
    if (stored_parameters(db())) {
      const OpenDatabase opened = reopened();
      ASSERT_EQ(opened.store().n_points() % 120, 0u) << "a part of a batch";
      n_found = opened.store().n_points() / 120;
      Store straight;
      for (uint64_t i = 0; i < n_found; ++i) load(straight, lines[i]);
      ASSERT_EQ(records_of(opened.store()), records_of(straight));
    }
    ASSERT_GE(n_found, n_acknowledged) << "an acknowledged batch is lost";
    // A new process continues with the rest of the input.
    std::string rest;
    for (uint64_t i = n_found; i < lines.size(); ++i) rest += lines[i];
    write_file(root_ / "rest.lp", rest);
    const Outcome continued = run("ingest --db db --batch-lines 5 --snapshot-mb 0.001 rest.lp");
    ASSERT_EQ(continued.exit_code, 0) << continued.err;
    Store whole;
    load(whole, input);
    ASSERT_EQ(records_of(reopened().store()), records_of(whole));
  }
  EXPECT_GT(n_killed, 40 / EVERY) << "too few steps";
  EXPECT_GT(acknowledged.size(), 3u) << "the steps were not between the batches";
}

// With closed or full standard streams, files get only their own data, and the exit codes are correct.
TEST_F(Crash, UnusableStandardStreams) {
  write_file(root_ / "input.lp", "m f=1 1\nnonsense\nm f=2 2\n");
  for (const char *streams : {"2>/dev/full", "2>&-", "0<&- 1>&- 2>&-"}) {
    SCOPED_TRACE(streams);
    fs::remove_all(root_ / "db");
    EXPECT_EQ(run("ingest --db db input.lp", "", streams).exit_code, 2) << "one line is malformed";
    EXPECT_EQ(reopened().store().n_points(), 2u);
  }
}

TEST_F(Crash, FaultsFromEnvironmentVariables) {
  write_file(root_ / "input.lp", "cpu,host=a load=1 1000\n");
  for (const auto &[variable, message] : {std::pair("TSLB_DURABLE_FAIL_AT=6:EDQUOT", "Disk quota exceeded"),
                                          {"TSLB_DURABLE_FAIL_AT=6:5", "Input/output error"}}) {
    const Outcome outcome = run("load input.lp --db db", variable);
    EXPECT_EQ(outcome.exit_code, 1) << variable;
    EXPECT_THAT(outcome.err, HasSubstr(message));
  }
  EXPECT_EQ(run("load input.lp --db db", "TSLB_DURABLE_FAIL_AT=1000000:EIO").exit_code, 0);
}
