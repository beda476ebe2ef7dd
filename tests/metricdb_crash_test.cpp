// The program, ended at each step on the way to the disk, and where nobody listens.

#include <set>

#include "writer_support.h"

using Crash = Writer;

// Not under ThreadSanitizer: a process that is killed tells of no race, and a hundred of them take minutes there.
TEST_F(Crash, AtEachStepWhatWasAcknowledgedIsThereAndNothingElse) {
#if defined(TSLB_SANITIZES_THREAD)
  GTEST_SKIP();
#endif
  // Batches of a line; a journal of more than a mebibyte begins a generation, and that happens on the way.
  constexpr int N_LINES = 10;
  std::string input;
  std::vector<std::string> lines;
  for (int i = 0; i < N_LINES; ++i) {
    std::string fields = "f0=0";
    for (int field = 1; field < 400; ++field) fields += fmt::format(",f{}={}", field, i * field);
    lines.push_back(fmt::format("m,n={} {} {}\n", i % 7, fields, 1000 + i));
    input += lines.back();
  }
  write_file(root_ / "input.lp", input);
  const std::string ingest = "ingest --db db --batch-lines 1 --snapshot-mb 1 --acks input.lp";
  std::set<uint64_t> acknowledged;
  int n_killed = 0;
  for (int k = 1;; ++k) {
    SCOPED_TRACE(fmt::format("step {}", k));
    fs::remove_all(root_ / "db");
    const Outcome outcome = run(ingest, fmt::format("METRICDB_CRASH_AT={}", k));
    const size_t last = outcome.out.rfind("durable ");
    const uint64_t n_acknowledged = last == outcome.out.npos ? 0 : std::stoull(outcome.out.substr(last + 8));
    if (outcome.exit_code == 0) {
      EXPECT_EQ(n_acknowledged, uint64_t{N_LINES});
      EXPECT_GT(reopened().generation.number, 1u) << "no generation began";
      break;
    }
    ASSERT_EQ(outcome.exit_code, -1) << outcome.err;
    ++n_killed;
    acknowledged.insert(n_acknowledged);
    uint64_t n_found = 0;
    // Ahead of the first generation there is nothing, and nothing was acknowledged.
    if (Database(db(), Database::Use::create).newest()) {
      const LoadedDatabase opened = reopened();
      ASSERT_EQ(opened.store.n_points() % 400, 0u) << "a part of a batch";
      n_found = opened.store.n_points() / 400;
      Store straight;
      for (uint64_t i = 0; i < n_found; ++i) load(straight, lines[i]);
      ASSERT_EQ(records_of(opened.store), records_of(straight));
    }
    ASSERT_GE(n_found, n_acknowledged) << "what was acknowledged is lost";
    // And it goes on: the rest follows, as if nothing had been.
    std::string rest;
    for (uint64_t i = n_found; i < lines.size(); ++i) rest += lines[i];
    write_file(root_ / "rest.lp", rest);
    const Outcome went_on = run("ingest --db db --batch-lines 5 --snapshot-mb 1 rest.lp");
    ASSERT_EQ(went_on.exit_code, 0) << went_on.err;
    Store whole;
    load(whole, input);
    ASSERT_EQ(records_of(reopened().store), records_of(whole));
  }
  EXPECT_GT(n_killed, 40) << "too few steps";
  EXPECT_GT(acknowledged.size(), 5u) << "the steps did not fall between the batches";
}

// The standard streams closed, or full: files keep what is theirs, and the exit codes hold.
TEST_F(Crash, NobodyListensToWhatIsSaid) {
  write_file(root_ / "input.lp", "m f=1 1\nnonsense\nm f=2 2\n");
  for (const char *streams : {"2>/dev/full", "2>&-", "0<&- 1>&- 2>&-"}) {
    SCOPED_TRACE(streams);
    fs::remove_all(root_ / "db");
    EXPECT_EQ(run("ingest --db db input.lp", "", streams).exit_code, 2) << "one line is malformed";
    EXPECT_EQ(reopened().store.n_points(), 2u);
  }
}

TEST_F(Crash, FaultsCanBeAskedForByVariables) {
  write_file(root_ / "input.lp", "cpu,host=a load=1 1000\n");
  for (const auto &[variable, told] : {std::pair("METRICDB_FAIL_AT=6:EDQUOT", "Disk quota exceeded"),
                                       {"METRICDB_FAIL_AT=6:5", "Input/output error"}}) {
    const Outcome outcome = run("load input.lp --db db", variable);
    EXPECT_EQ(outcome.exit_code, 1) << variable;
    EXPECT_THAT(outcome.err, HasSubstr(told));
  }
  EXPECT_EQ(run("load input.lp --db db", "METRICDB_FAIL_AT=1000000:EIO").exit_code, 0);
}
