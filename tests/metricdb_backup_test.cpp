// Backups, restorations and exports, also beside a server that takes points.
#include <atomic>
#include <thread>

#include "extent.h"
#include "serve_process.h"

namespace {

// Sends batches to a server until its end. Batch k has one point of each of 50 series, with time and value k.
class Feeder {
 public:
  static constexpr int N_SERIES = 50;
  static constexpr int MAX_BATCHES = 2000;  // more would only make the exports long

  explicit Feeder(int port) : thread_([this, port] { run(port); }) {}
  ~Feeder() {
    is_ending_ = true;
    thread_.join();
  }
  int n_acknowledged() const { return n_acknowledged_; }
  bool wait_for(int n) const {
    return wait_until([&] { return n_acknowledged_ >= n; });
  }

 private:
  void run(int port) {
    Peer peer(port);
    for (int k = 1; !is_ending_ && k <= MAX_BATCHES; ++k) {
      std::string text;
      for (int i = 0; i < N_SERIES; ++i) text += fmt::format("m,n={} f={} {}\n", i, k, k);
      if (ask(peer, post(text)) != 204) return;
      n_acknowledged_ = k;
    }
  }

  std::atomic<int> n_acknowledged_ = 0;
  std::atomic<bool> is_ending_ = false;
  std::thread thread_;
};

// Expects batches 1 to n of the feeder in an export, for an n that is at least n_acknowledged: in each series all points
// without a gap, and no batch in part.
void expect_batches(const std::string &exported, int n_acknowledged) {
  std::map<std::string, int> n_points;
  std::string_view rest = exported;
  for (std::string_view line; next_line(rest, line);) {
    const std::string text(line);
    const std::string series = text.substr(0, text.find(' '));
    const int k = ++n_points[series];
    if (text != fmt::format("{} f={} {}", series, k, k)) FAIL() << text << " is point " << k << " of its series";
  }
  EXPECT_EQ(n_points.size(), size_t{Feeder::N_SERIES});
  for (const auto &[series, n] : n_points) {
    EXPECT_GE(n, n_acknowledged) << series << ": acknowledged points are missing";
    EXPECT_EQ(n, n_points.begin()->second) << series << ": a batch is there in part";
  }
}

}  // namespace

class Backup : public Folder {
 protected:
  void load_points() {
    std::string text;
    for (int i = 0; i < 3000; ++i) text += fmt::format("m,n={} f={} {}\n", i % 7, i * 7919 % 100'003, i);
    write_file(path("input.lp"), text);
    ASSERT_EQ(run("load input.lp --db db").exit_code, 0);
  }
  std::string exported(const std::string &db) {
    const Outcome outcome = run("export --db " + db);
    EXPECT_EQ(outcome.exit_code, 0) << outcome.err;
    return outcome.out;
  }
};

TEST_F(Backup, RestoresTheSamePoints) {
  load_points();
  fs::create_directory(path("empty"));
  EXPECT_THAT(run("backup --db db/ empty/").out, HasSubstr(": generation 1, "));
  const auto backup = tree_of(root_ / "empty");
  EXPECT_EQ(run("restore empty --db new").exit_code, 0);
  EXPECT_EQ(tree_of(root_ / "empty"), backup);
  EXPECT_EQ(exported("new"), exported("db"));
  EXPECT_EQ(run("ingest input.lp --db new").exit_code, 0) << "the restored database cannot be written";
  EXPECT_THAT(names_in(root_), ElementsAre("db", "empty", "input.lp", "new"));
}

TEST_F(Backup, RefusalsNameTheReasonAndLeaveNothing) {
  load_points();
  ASSERT_EQ(run("backup --db db good").exit_code, 0);
  fs::create_directories(path("used/folder"));
  fs::create_directory(path("killed.partial"));
  fs::copy(path("good"), path("damaged"), fs::copy_options::recursive);
  std::string stream = read_file(path("damaged/generation.1/points.stream"));
  stream[stream.size() / 2] ^= 1;
  write_file(path("damaged/generation.1/points.stream"), stream);
  fs::copy(path("good"), path("cut"), fs::copy_options::recursive);
  fs::remove(path("cut/journal.1"));
  // The database itself is opened for a backup, which its journal shows.
  const auto others = [this] {
    auto tree = tree_of(root_);
    std::erase_if(tree, [](const auto &file) { return file.first.starts_with("db/"); });
    return tree;
  };
  const auto before = others();
  const struct {
    const char *arguments, *message, *environment = "";
  } rows[] = {
      {"backup --db missing to", "missing: holds no database"},
      {"backup --db db good", "good: exists already"},
      {"backup --db db used", "used: exists already"},
      {"backup --db db db/inside", "is in the folder of the store"},
      {"backup --db db no/folder", "no/folder.partial: cannot be created: No such file or directory"},
      {"backup --db db killed", "killed.partial: is left by a backup"},
      {"backup --db db to", "File too large", "ulimit -f 4;"},
      {"backup to", "use either --db or --server"},
      {"restore good --db db", "db: exists already"},
      {"restore missing --db to", "missing: holds no database"},
      {"restore damaged --db to", "damaged/generation.1/points.stream"},
      {"restore cut --db to", "cut/journal.1"},
      {"restore good --db to", "points.stream: cannot be written: File too large", "ulimit -f 4;"},
  };
  for (const auto &row : rows) {
    const Outcome outcome = run(row.arguments, row.environment);
    EXPECT_EQ(outcome.exit_code, 1) << row.arguments;
    EXPECT_THAT(outcome.err, HasSubstr(row.message));
    EXPECT_EQ(count_of(outcome.err, "\n"), 1u) << outcome.err;
    EXPECT_TRUE(others() == before) << row.arguments;
  }
}

// A fault or a kill at each step of the files: without success there is no folder with the name.
TEST_F(Backup, IsCompleteOrAbsentAfterEachFault) {
  load_points();
  ASSERT_EQ(run("backup --db db good").exit_code, 0);
  const std::string points = exported("good");
  int n_failures = 0, n_kills = 0;
  for (int k = 1, n_good = 0; n_good < 2; k += 2 * EVERY) {
    n_good = 0;
    for (const bool kills : {false, true}) {
      const std::string fault = kills ? fmt::format("CRASH_AT={}", k) : fmt::format("FAIL_AT={}:ENOSPC", k);
      const Outcome outcome = run("backup --db db to", "TSLB_DURABLE_" + fault);
      (kills ? n_kills : n_failures) += outcome.exit_code == (kills ? -1 : 1) ? 1 : 0;
      if (!kills) {
        EXPECT_FALSE(fs::exists(path("to.partial"))) << fault << ": " << outcome.err;
      }
      // A fault after the backup, at the closing of the database, is no failure of it.
      const bool is_there = fs::exists(path("to"));
      EXPECT_TRUE(is_there == (outcome.exit_code == 0) || (is_there && kills)) << fault << ": " << outcome.err;
      n_good += outcome.exit_code == 0 && outcome.err.empty() ? 1 : 0;
      if (is_there) {
        ASSERT_EQ(exported("to"), points) << fault;
      }
      fs::remove_all(path("to"));
      fs::remove_all(path("to.partial"));
    }
    ASSERT_LT(k, 1000);
  }
  EXPECT_GT(n_failures, 5 / EVERY);
  EXPECT_GT(n_kills, 5 / EVERY);
  EXPECT_EQ(exported("db"), points);
}

TEST_F(Backup, OfAServerHasAllAcknowledgedBatches) {
  fs::create_directory(path("backups"));
  ServeProcess serve(root_, "--influx 0 --db db --backup-folder backups --snapshot-mb 0.2");
  const int port = serve.port();
  Feeder feeder(port);
  ASSERT_TRUE(feeder.wait_for(20));
  EXPECT_THAT(run("backup --db db other").err, HasSubstr("another writer has the store"));
  for (const char *name : {"one", "two", "three"}) {
    const int n_before = feeder.n_acknowledged();
    const Outcome outcome = run(fmt::format("backup --server 127.0.0.1:{} {}", port, name));
    EXPECT_EQ(outcome.exit_code, 0) << outcome.err;
    EXPECT_THAT(outcome.out, HasSubstr(fmt::format("{{\"backup\":\"backups/{}\",\"generation\":", name)));
    ASSERT_EQ(run(fmt::format("restore backups/{} --db {}", name, name)).exit_code, 0);
    expect_batches(exported(name), n_before);
  }
  Peer peer(port);
  const struct {
    const char *fault, *target;
    int status;
  } rows[] = {
      {"leaves the folder", "/backup?name=../out", 400},
      {"leaves the folder, encoded", "/backup?name=..%2Fout", 400},
      {"names the folder itself", "/backup?name=.", 400},
      {"looks like the rest of a killed backup", "/backup?name=x.partial", 400},
      {"no name", "/backup", 400},
      {"replaces a backup", "/backup?name=one", 409},
  };
  for (const auto &row : rows) EXPECT_EQ(ask(peer, get(row.target, "POST")), row.status) << row.fault;
  EXPECT_EQ(ask(peer, get("/backup?name=four")), 405);
  fs::remove_all(path("backups"));
  const std::string answer = answer_to(peer, get("/backup?name=five", "POST"));
  EXPECT_EQ(Peer::status_of(answer), 500);
  EXPECT_THAT(answer, HasSubstr("backups/five.partial: cannot be created: No such file or directory"));
  EXPECT_THAT(names_in(root_), ElementsAre("db", "one", "serve.out", "three", "two"));
  EXPECT_EQ(serve.end(SIGTERM), 0);
}

// Generations are replaced meanwhile, about one per 100 batches.
TEST_F(Backup, ExportBesideAServerHasAllAcknowledgedBatches) {
  ServeProcess serve(root_, "--influx 0 --db db --snapshot-mb 0.1");
  const int port = serve.port();
  Feeder feeder(port);
  ASSERT_TRUE(feeder.wait_for(20));
  for (int i = 0; i < 15 / EVERY; ++i) {
    const int n_before = feeder.n_acknowledged();
    expect_batches(exported("db"), n_before);
    if (HasFailure()) break;
  }
  Peer peer(port);
  EXPECT_EQ(count_of(answer_to(peer, get("/metrics")), "\nmetricdb_snapshots_total 0\n"), 0u) << "nothing was replaced";
}
