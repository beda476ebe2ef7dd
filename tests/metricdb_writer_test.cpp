// A database that is written to while it is open: what was settled comes back, whatever happens, and nothing else does.
#include <gmock/gmock.h>
#include <poll.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <cstdlib>
#include <functional>
#include <set>

#include "database_writer.h"
#include "io_faults.h"
#include "journal_reader.h"
#include "metricdb_support.h"
#include "store_internal.h"

namespace metricdb {
namespace {

using testing::HasSubstr;

// "value@time ..." by key, in order of arrival; behind it what lists and records say.
std::map<std::string, std::string> content_of(const Store &store) {
  std::map<std::string, std::string> content;
  for (uint32_t series = 0; series < store.n_slots(); ++series) {
    if (!store.holds_series(series)) continue;
    std::string &shown = content[std::string(store.key(series))];
    PointCursor cursor(store, series);
    for (Point point; cursor.next(point);) shown += fmt::format("{}@{} ", point.value, point.ts_ns);
    const SeriesRecord record = store.record(series);
    shown += fmt::format("| {} {} {} {} {}", series, store.is_inactive(series), record.n_points(),
                         record.written_at_ns(), record.interval_ms());
  }
  return content;
}

std::map<std::string, std::string> points_of(const Store &store) {
  auto content = content_of(store);
  for (auto &[key, shown] : content) shown.resize(shown.find('|'));
  return content;
}

// Both lists of the catalogue, as they are linked: a series that is given away next must be the same one.
std::string lists_text(const Store &store) {
  const DynArrLLI_t lists = *lists_of(store.catalogue());
  std::string text = "free";
  const auto walk = [&](uint32_t at) {
    for (; at != TSLB_DA_NIL_IDX;) {
      text += fmt::format(" {}", at);
      const auto *const slot = static_cast<const char *>(tslb_da_get_ptr(store.catalogue(), at));
      at = reinterpret_cast<const node_fw *>(slot - sizeof(node_fw))->next;
    }
  };
  walk(lists.free_head);
  text += ", inactive";
  walk(lists.inact_head);
  return text;
}

// Batch `number` of an endless input: keys that come, fall silent and return, one that stays,
// and points that come late.
std::string batch_text(int number) {
  std::mt19937 random(static_cast<uint32_t>(number) + 20261125u);
  std::string text;
  for (int i = 0; i < 60; ++i) {
    const int64_t ts_ns = 10'000 + number * 60 + i - (random() % 16 == 0 ? random() % 3000 : random() % 8);
    const int source = i % 4 == 0 ? 0 : 1 + number / 15 * 5 + static_cast<int>(random() % 9);
    text += fmt::format("m,n={} f={},g={} {}\n", source, random() % 100, random() * 0.25, ts_ns);
  }
  return text;
}

// A store in memory alone. Never beside a writer: its arrays would be logged as the writer's.
class Model {
 public:
  explicit Model(const StoreConfig &config = {})
      : store_(config),
        loader_(store_, Loader::WhenFull::stop, [](uint64_t, const std::string &reason) { ADD_FAILURE() << reason; }) {}
  void take(std::string_view text) { loader_.load(text, Precision::ns, 0); }
  Store &store() { return store_; }

 private:
  Store store_;
  Loader loader_;
};

class Writer : public Folder {
 protected:
  std::string db() const { return path("db"); }

  // A batch, waited for. Why it was refused, or nothing.
  static std::string put(DatabaseWriter &writer, std::string_view text) {
    try {
      const Taken taken = writer.take(text, Precision::ns);
      EXPECT_EQ(taken.malformed, 0u) << taken.first_reason;
      return writer.wait(writer.commit());
    } catch (const IngestRefused &refused) {
      return refused.what();
    }
  }

  Opened reopened() const { return Database(db(), Database::Use::read).open(); }
};

struct ForgettingRow {
  const char *what;
  WriterOptions options;
};

const ForgettingRow FORGETTING[] = {
    {"everything stays", {}},
    {"retention and idleness", {.retain_ns = 2500, .idle_ns = 300}},
    {"reuse of inactive series", {.idle_ns = 300, .reuse_inactive_pct = 20}},
    {"an older layout", {.layout = OLDEST_LAYOUT, .retain_ns = 2500, .idle_ns = 300}},
};

// Against a store in memory alone that took the same batches. Memory slots are small, so that each batch touches several,
// and sweeps come within batches. Each opening adds to a journal, or begins a generation.
TEST_F(Writer, ComesBackAsIfItHadNeverBeenClosed) {
  constexpr int N_BATCHES = 200;
  static const struct {
    uint64_t snapshot_bytes;
    int batches_of_a_writer;
  } sessions[] = {{0, 40}, {60'000, 40}, {60'000, 1}};
  for (const auto &row : FORGETTING) {
    for (const auto &session : sessions) {
      SCOPED_TRACE(fmt::format("{}, {} batches to a writer, a snapshot behind {} bytes", row.what,
                               session.batches_of_a_writer, session.snapshot_bytes));
      fs::remove_all(db());
      StoreConfig config = {.key_slot_bytes = 256, .point_slot_bytes = 4096, .points_per_sweep = 70};
      config.layout = row.options.layout.value_or(NEWEST_LAYOUT);
      config.retain_ns = row.options.retain_ns.value_or(0);
      config.idle_ns = row.options.idle_ns.value_or(0);
      config.reuse_inactive_pct = row.options.reuse_inactive_pct.value_or(0);
      {
        Database database(db(), Database::Use::create);
        NewGeneration(database).write_streams(Store(config));
      }
      WriterOptions options;
      options.snapshot_bytes = session.snapshot_bytes;
      Model straight(config);
      for (int number = 0; number < N_BATCHES; number += session.batches_of_a_writer) {
        {
          DatabaseWriter writer(db(), options);
          EXPECT_EQ(writer.found(), "");
          ASSERT_EQ(content_of(writer.store()), content_of(straight.store())) << "batch " << number;
          ASSERT_EQ(figures_of(writer.store()), figures_of(straight.store())) << "batch " << number;
          ASSERT_EQ(lists_text(writer.store()), lists_text(straight.store())) << "batch " << number;
          for (int i = 0; i < session.batches_of_a_writer; ++i) ASSERT_EQ(put(writer, batch_text(number + i)), "");
        }
        for (int i = 0; i < session.batches_of_a_writer; ++i) straight.take(batch_text(number + i));
      }
      EXPECT_EQ(reopened().stored.generation > 1, session.snapshot_bytes != 0);
      EXPECT_EQ(content_of(reopened().store), content_of(straight.store()));
    }
  }
}

TEST_F(Writer, OptionsAreKeptWithTheDatabase) {
  { DatabaseWriter writer(db(), {.retain_ns = 25, .idle_ns = 5}); }
  { DatabaseWriter writer(db(), {.idle_ns = 7}); }
  DatabaseWriter writer(db(), {});
  EXPECT_EQ(writer.store().config().retain_ns, 25);
  EXPECT_EQ(writer.store().config().idle_ns, 7);
}

TEST_F(Writer, WhatIsNotCommittedIsNotThere) {
  {
    DatabaseWriter writer(db(), {});
    ASSERT_EQ(put(writer, "m f=1 1\n"), "");
    writer.take("m f=2 2\nn f=3 3\n", Precision::ns);
    EXPECT_EQ(writer.settled(), 1u);
    const Opened opened = reopened();
    EXPECT_EQ(opened.store.n_points(), 1u);
    EXPECT_EQ(opened.store.n_series(), 1u);
  }
  EXPECT_EQ(reopened().store.n_points(), 1u);
}

// The batch that makes a snapshot due is settled by the journal that ends with it.
TEST_F(Writer, WhoeverWaitsForTheLastTicketOfAJournalHearsOfIt) {
  WriterOptions options;
  options.snapshot_bytes = 1;
  DatabaseWriter writer(db(), options);
  for (const uint64_t ticket : {1u, 2u}) {
    writer.take("m f=1 1\n", Precision::ns);
    ASSERT_EQ(writer.commit(), ticket);
    struct pollfd ready = {writer.settled_fd(), POLLIN, 0};
    ASSERT_EQ(poll(&ready, 1, 10'000), 1);
    EXPECT_EQ(writer.settled(), ticket);
    EXPECT_EQ(poll(&ready, 1, 0), 0) << "still readable, so the server would never sleep";
  }
}

TEST_F(Writer, MalformedLinesAreToldAndTheRestIsKept) {
  DatabaseWriter writer(db(), {});
  const Taken taken = writer.take("m f=1 1\nnonsense\nm f=2 2\n= \n", Precision::ns);
  EXPECT_EQ(taken.points, 2u);
  EXPECT_EQ(taken.malformed, 2u);
  EXPECT_EQ(taken.first_reason, "line 2: no fields");
  EXPECT_EQ(writer.commit(), 1u);
  EXPECT_EQ(writer.take("# nothing\n", Precision::ns).points, 0u);
  EXPECT_EQ(writer.commit(), 1u) << "nothing came since";
  EXPECT_EQ(writer.wait(1), "");
  EXPECT_EQ(reopened().store.n_points(), 2u);
}

// A line is stored whole or not at all, and those of series that have room go on.
TEST_F(Writer, AFullStoreRefusesLinesThatItHasNoRoomFor) {
  {
    Database database(db(), Database::Use::create);
    NewGeneration(database).write_streams(Store({.key_slot_bytes = 64}));
  }
  DatabaseWriter writer(db(), {});
  std::string text;
  for (int i = 0; i < 254; ++i) text += fmt::format("measurement,number={:010} field=1 5\n", i);
  EXPECT_EQ(writer.take(text, Precision::ns).malformed, 0u);
  // Room for one key more: a known field beside two new ones, then a known series, then one new one.
  const Taken taken = writer.take(
      "measurement,number=0000000001 field=2,new=3,newer=4 6\n"
      "measurement,number=0000000002 field=5 6\n"
      "measurement,number=0000000003 other=1 6\n",
      Precision::ns);
  EXPECT_EQ(taken.points, 1u);
  EXPECT_EQ(taken.malformed, 2u);
  EXPECT_THAT(taken.first_reason, testing::StartsWith("line 1: no room for more series keys"));
  EXPECT_THROW(writer.take("measurement,number=9999999999 field=1 7\n", Precision::ns), IngestRefused);
  EXPECT_EQ(writer.wait(writer.commit()), "");
  const auto points = points_of(reopened().store);
  EXPECT_EQ(points.at("measurement,number=0000000001 field"), "1@5 ");
  EXPECT_EQ(points.at("measurement,number=0000000002 field"), "1@5 5@6 ");
}

// A text without a point comes between a batch and its failure: the next batch is good again.
TEST_F(Writer, OneFailureRefusesOneBatch) {
  for (uint64_t k = 1; k < 8; ++k) {
    SCOPED_TRACE(k);
    fs::remove_all(db());
    DatabaseWriter writer(db(), {});
    ASSERT_EQ(put(writer, "m f=1 1\n"), "");
    fail_at_io(k, EIO);
    try {
      writer.take("m f=2 2\n", Precision::ns);
      const uint64_t ticket = writer.commit();
      writer.take("nonsense\n", Precision::ns);
      writer.wait(ticket);
    } catch (const std::runtime_error &) {
      // Refused, or already known to be broken: either is told again below.
    }
    fail_at_io(0, 0);
    try {
      EXPECT_EQ(put(writer, "m f=3 3\n"), "");
    } catch (const DatabaseError &broken) {
      EXPECT_THAT(broken.what(), HasSubstr("is of no use any more")) << "only a failed sync may end a writer";
    }
  }
}

// Every step on the way to the disk fails once, with batches, snapshots and openings around it: the batches that were
// settled as good are there afterwards, those that were refused are not, and the database goes on.
TEST_F(Writer, AFailureAnywhereRefusesABatchAndLosesNothing) {
  constexpr int N_BATCHES = 6;
  WriterOptions options;
  options.snapshot_bytes = 20'000;
  uint64_t n_refused = 0, n_in_snapshots = 0;
  for (uint64_t k = 1;; ++k) {
    SCOPED_TRACE(fmt::format("step {}", k));
    fs::remove_all(db());
    { DatabaseWriter first(db(), options); }
    std::vector<int> settled;
    const uint64_t before = io_operations();
    fail_at_io(k, ENOSPC);
    bool met_end = false, is_broken = false;
    try {
      DatabaseWriter writer(db(), options);
      for (int number = 0; number < N_BATCHES; ++number) {
        const std::string why = put(writer, batch_text(number));
        if (why.empty())
          settled.push_back(number);
        else
          ++n_refused;
      }
      met_end = io_operations() - before < k;
      writer.close();
    } catch (const std::runtime_error &error) {
      // A sync that failed, or an opening: told, and for the next process to go on from.
      EXPECT_THAT(error.what(), HasSubstr("db")) << error.what();
      ++n_refused;
      is_broken = true;
    }
    fail_at_io(0, 0);
    // What a broken journal had not settled may have reached the disk all the same.
    Model straight, with_next;
    for (const int number : settled) straight.take(batch_text(number));
    for (const int number : settled) with_next.take(batch_text(number));
    with_next.take(batch_text(settled.empty() ? 0 : settled.back() + 1));
    DatabaseWriter again(db(), options);
    const auto found = content_of(again.store());
    EXPECT_TRUE(found == content_of(straight.store()) || (is_broken && found == content_of(with_next.store())))
        << "neither what was settled, nor that and the batch at hand";
    n_in_snapshots += again.store().n_points() == 0 ? 0 : 1;
    EXPECT_EQ(put(again, batch_text(100)), "");
    if (met_end) break;
    ASSERT_LT(k, 500u) << "it does not end";
  }
  EXPECT_GT(n_refused, 5u) << "too few steps failed for this to show anything";
  EXPECT_GT(n_in_snapshots, 5u);
}

// ---- Older layouts, and damage ----

TEST_F(Writer, AnOlderLayoutIsMadeOfTheNewerOneForGood) {
  const WriterOptions forgetting = {.retain_ns = 2500, .idle_ns = 300};
  StoreConfig config;
  config.retain_ns = *forgetting.retain_ns;
  config.idle_ns = *forgetting.idle_ns;
  {
    DatabaseWriter writer(db(), forgetting);
    for (int number = 0; number < 100; ++number) ASSERT_EQ(put(writer, batch_text(number)), "");
    // Sweeps come later by themselves: the conversion has to meet free slots and inactive ones.
    writer.snapshot();
  }
  {
    Opened opened = reopened();
    opened.store.sweep();
    ASSERT_GT(lists_of(opened.store.catalogue())->n_free, 0u);
    ASSERT_GT(opened.store.n_inactive(), 0u);
    NewGeneration(*std::make_unique<Database>(db(), Database::Use::write)).write_streams(opened.store);
  }
  const auto before = points_of(reopened().store);
  WriterOptions older = forgetting;
  older.layout = OLDEST_LAYOUT;
  {
    DatabaseWriter writer(db(), older);
    EXPECT_EQ(points_of(writer.store()), before);
    EXPECT_EQ(tslb_da_get_record_size(writer.store().catalogue()), sizeof(ty_sub_t_v0));
    EXPECT_GT(lists_of(writer.store().catalogue())->n_free, 0u) << "free slots are lost";
    for (int number = 100; number < 140; ++number) ASSERT_EQ(put(writer, batch_text(number)), "");
  }
  // From now on it has that layout, whoever opens it; and there is no way back.
  const Opened opened = reopened();
  EXPECT_EQ(opened.stored.layout, OLDEST_LAYOUT);
  Model straight(config);
  for (int number = 0; number < 140; ++number) straight.take(batch_text(number));
  straight.store().sweep();
  Opened swept = reopened();
  swept.store.sweep();
  EXPECT_EQ(points_of(swept.store), points_of(straight.store()));
  EXPECT_THROW(Database(db(), Database::Use::read).open({.layout = NEWEST_LAYOUT}), DatabaseError);
}

TEST_F(Writer, DamageIsRefusedByItsPlaceAndSalvagedUpToIt) {
  {
    DatabaseWriter writer(db(), {});
    for (int number = 0; number < 20; ++number) ASSERT_EQ(put(writer, batch_text(number)), "");
  }
  const fs::path journal = fs::path(db()) / "journal.1";
  const std::string whole = read_file(journal);
  std::string damaged = whole;
  damaged[damaged.size() / 2] ^= 0x10;
  write_file(journal, damaged);
  std::string refusal;
  try {
    reopened();
  } catch (const std::runtime_error &error) {
    refusal = error.what();
  }
  EXPECT_THAT(refusal, testing::StartsWith(journal.string() + ": byte "));
  EXPECT_THROW(DatabaseWriter(db(), {}), std::runtime_error);
  EXPECT_EQ(read_file(journal), damaged) << "what might be mended is gone";

  WriterOptions salvage;
  salvage.salvage = true;
  {
    DatabaseWriter writer(db(), salvage);
    EXPECT_THAT(writer.found(), HasSubstr(journal.string() + ": byte "));
    EXPECT_GT(writer.store().n_points(), 0u);
    EXPECT_LT(writer.store().n_points(), 20u * 120);
    EXPECT_EQ(writer.store().n_points() % 120, 0u) << "a part of a batch";
  }
  Model straight;
  for (uint64_t number = 0; number < reopened().store.n_points() / 120; ++number)
    straight.take(batch_text(static_cast<int>(number)));
  EXPECT_EQ(content_of(reopened().store), content_of(straight.store()));

  // A torn end is no damage: it is cut, and said.
  const fs::path last = fs::path(db()) / "journal.2";
  write_file(last, read_file(last) + "torn");
  {
    DatabaseWriter writer(db(), {});
    EXPECT_THAT(writer.found(), HasSubstr(last.string() + ": "));
    EXPECT_EQ(content_of(writer.store()), content_of(straight.store()));
  }
  EXPECT_EQ(reopened().stored.generation, 2u) << "a torn end costs a whole generation";

  // A head that cannot be read leaves the generation; and a generation that is gone leaves nothing to go on from.
  write_file(last, "x" + read_file(last).substr(1));
  EXPECT_THROW(reopened(), JournalDamaged);
  EXPECT_EQ(Database(db(), Database::Use::read).open({.salvage = true}).store.n_series(), straight.store().n_series());
  fs::remove_all(fs::path(db()) / "generation.2");
  EXPECT_THROW(DatabaseWriter(db(), {}), DatabaseError);
  EXPECT_TRUE(fs::exists(last));
}

// Batches are refused while there is no room, and all others are there: the disk is met as a limit on the file's size,
// at the write, and as a small file system of its own, ahead of any change.
class FullDisk : public Writer {
 protected:
  void fill_and_go_on(const std::function<void()> &make_room) {
    Model straight;
    int n_refused = 0;
    {
      WriterOptions options;
      options.snapshot_bytes = 0;
      DatabaseWriter writer(db(), options);
      std::vector<int> kept;
      for (int number = 0; number < 400 && n_refused < 3; ++number) {
        const std::string why = put(writer, batch_text(number));
        if (why.empty())
          kept.push_back(number);
        else
          ++n_refused;
        EXPECT_TRUE(why.empty() || why.find("journal.1: ") != why.npos) << why;
      }
      EXPECT_EQ(n_refused, 3) << "the disk did not fill";
      EXPECT_GT(kept.size(), 5u);
      make_room();
      for (int number = 400; number < 410; ++number) {
        EXPECT_EQ(put(writer, batch_text(number)), "");
        kept.push_back(number);
      }
      EXPECT_EQ(writer.store().n_points(), kept.size() * 120);
      kept_ = kept;
    }
    for (const int number : kept_) straight.take(batch_text(number));
    EXPECT_EQ(content_of(reopened().store), content_of(straight.store()));
  }

  std::vector<int> kept_;
};

TEST_F(FullDisk, AsALimitOnTheFile) {
  { DatabaseWriter first(db(), {}); }
  struct rlimit limit;
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &limit), 0);
  const auto old_handler = signal(SIGXFSZ, SIG_IGN);
  const struct rlimit tight = {400'000, limit.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &tight), 0);
  fill_and_go_on([&limit] { ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0); });
  signal(SIGXFSZ, old_handler);
}

TEST_F(FullDisk, AsASmallFileSystem) {
  fs::create_directory(root_ / "small");
  const std::string small = (root_ / "small").string();
  if (mount("none", small.c_str(), "tmpfs", 0, "size=2m") != 0) GTEST_SKIP() << "this user mounts nothing";
  const struct Unmount {
    std::string where;
    ~Unmount() { umount2(where.c_str(), MNT_DETACH); }
  } unmount{small};
  fs::create_directory(root_ / "small" / "db");
  fs::create_directory_symlink(root_ / "small" / "db", db());
  write_file(root_ / "small" / "ballast", std::string(1'000'000, 'b'));
  fill_and_go_on([this] { fs::remove(root_ / "small" / "ballast"); });
}

// ---- The program, ended at each step ----

class Crash : public Writer {
 protected:
  // What the program printed; -1 for a process that was killed.
  std::pair<int, std::string> run(const std::string &environment, const std::string &arguments) const {
    const std::string command =
        fmt::format("cd {} && {} {} {} >out.txt 2>err.txt", root_.string(), environment, METRICDB, arguments);
    const int status = std::system(command.c_str());
    const int code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return {code == 128 + SIGKILL ? -1 : code, read_file(root_ / "out.txt") + read_file(root_ / "err.txt")};
  }

  static uint64_t n_durable(const std::string &out) {
    const size_t last = out.rfind("durable ");
    return last == out.npos ? 0 : std::stoull(out.substr(last + 8));
  }
};

// Not under ThreadSanitizer: a process that is killed tells of no race, and a hundred of them take minutes there.
TEST_F(Crash, AtEachStepWhatWasAcknowledgedIsThereAndNothingElse) {
#if defined(__SANITIZE_THREAD__)
  GTEST_SKIP();
#endif
  // Batches of a line; a journal of more than a mebibyte begins a generation, several times on the way.
  constexpr int N_LINES = 20;
  std::string input;
  std::vector<std::string> lines;
  for (int i = 0; i < N_LINES; ++i) {
    std::string line = fmt::format("m,n={} ", i % 7);
    for (int field = 0; field < 400; ++field)
      line += fmt::format("f{}={}{}", field, i * field, field == 399 ? "" : ",");
    line += fmt::format(" {}\n", 1000 + i);
    lines.push_back(line);
    input += line;
  }
  write_file(root_ / "input.lp", input);
  const std::string ingest = "ingest --db db --batch-lines 1 --snapshot-mb 1 --acks input.lp";
  std::set<uint64_t> acknowledged;
  int n_killed = 0;
  for (int k = 1;; ++k) {
    SCOPED_TRACE(fmt::format("step {}", k));
    fs::remove_all(root_ / "db");
    const auto [code, out] = run(fmt::format("METRICDB_CRASH_AT={}", k), ingest);
    const uint64_t n_acknowledged = n_durable(out);
    if (code == 0) {
      EXPECT_EQ(n_acknowledged, uint64_t{N_LINES});
      break;
    }
    ASSERT_EQ(code, -1) << out;
    ++n_killed;
    acknowledged.insert(n_acknowledged);
    uint64_t n_found = 0;
    // Ahead of the first generation there is nothing, and nothing was acknowledged.
    if (Database(db(), Database::Use::create).newest()) {
      const Opened opened = reopened();
      ASSERT_EQ(opened.store.n_points() % 400, 0u) << "a part of a batch";
      n_found = opened.store.n_points() / 400;
      Model straight;
      for (uint64_t i = 0; i < n_found; ++i) straight.take(lines[i]);
      ASSERT_EQ(content_of(opened.store), content_of(straight.store()));
    }
    ASSERT_GE(n_found, n_acknowledged) << "what was acknowledged is lost";
    // And it goes on: the rest follows, as if nothing had been.
    std::string rest;
    for (uint64_t i = n_found; i < lines.size(); ++i) rest += lines[i];
    write_file(root_ / "rest.lp", rest);
    const auto [went_on, said] = run("", "ingest --db db --batch-lines 5 --snapshot-mb 1 rest.lp");
    ASSERT_EQ(went_on, 0) << said;
    Model whole;
    whole.take(input);
    ASSERT_EQ(content_of(reopened().store), content_of(whole.store()));
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
    const std::string command =
        fmt::format("cd {} && {} ingest --db db input.lp >out.txt {}", root_.string(), METRICDB, streams);
    const int status = std::system(command.c_str());
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 2) << "one line is malformed";
    EXPECT_EQ(reopened().store.n_points(), 2u);
  }
}

}  // namespace
}  // namespace metricdb
