// A database that is written to while it is open: what was settled comes back, whatever happens, and nothing else does.
#include <gmock/gmock.h>
#include <poll.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>

#include <functional>

#include "journal_reader.h"
#include "list_audit.h"
#include "writer_support.h"

namespace metricdb {
namespace {

using testing::HasSubstr;

// Both lists of the catalogue, as they are linked: a series that is given away next must be the same one.
std::pair<indices_t, indices_t> lists_in(const Store &store) {
  const lists_t lists = audit_lists(store.catalogue());
  return {lists.free, lists.inactive};
}

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
  constexpr int N_BATCHES = 80;
  static const struct {
    uint64_t snapshot_bytes;
    int batches_of_a_writer;
  } sessions[] = {{0, 20}, {60'000, 20}, {60'000, 4}};
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
      create(config);
      WriterOptions options;
      options.snapshot_bytes = session.snapshot_bytes;
      Model straight(config);
      for (int number = 0; number < N_BATCHES; number += session.batches_of_a_writer) {
        {
          DatabaseWriter writer(db(), options);
          EXPECT_EQ(writer.found(), "");
          ASSERT_EQ(records_of(writer.store()), records_of(straight.store())) << "batch " << number;
          ASSERT_EQ(figures_of(writer.store()), figures_of(straight.store())) << "batch " << number;
          ASSERT_EQ(lists_in(writer.store()), lists_in(straight.store())) << "batch " << number;
          for (int i = 0; i < session.batches_of_a_writer; ++i) ASSERT_EQ(put(writer, batch_text(number + i)), "");
        }
        for (int i = 0; i < session.batches_of_a_writer; ++i) straight.take(batch_text(number + i));
      }
      EXPECT_EQ(reopened().stored.generation > 1, session.snapshot_bytes != 0);
      EXPECT_EQ(records_of(reopened().store), records_of(straight.store()));
    }
  }
}

// It changes the roots of the catalogue's lists, which the array does not log; here nothing else in the batch does.
TEST_F(Writer, ASeriesThatReturnsIsOffTheInactiveList) {
  create({.idle_ns = 10, .points_per_sweep = 1});
  for (const char *text : {"a f=1 0\n", "b f=1 50\n", "a f=2 51\n"}) {
    DatabaseWriter writer(db(), {});
    EXPECT_EQ(put(writer, text), "");
    EXPECT_EQ(writer.store().n_inactive(), *text == 'b' ? 1u : 0u);
  }
  EXPECT_EQ(reopened().store.n_inactive(), 0u);
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
  create({.key_slot_bytes = 64});
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
  const auto points = content_of(reopened().store);
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
  constexpr int N_BATCHES = 4;
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
    const auto found = records_of(again.store());
    EXPECT_TRUE(found == records_of(straight.store()) || (is_broken && found == records_of(with_next.store())))
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
  const auto before = content_of(reopened().store);
  WriterOptions older = forgetting;
  older.layout = OLDEST_LAYOUT;
  {
    DatabaseWriter writer(db(), older);
    EXPECT_EQ(content_of(writer.store()), before);
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
  EXPECT_EQ(content_of(swept.store), content_of(straight.store()));
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
  EXPECT_THAT(refusal_of([this] { reopened(); }), testing::StartsWith(journal.string() + ": byte "));
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
  EXPECT_EQ(records_of(reopened().store), records_of(straight.store()));

  // A torn end is no damage: it is cut, and said.
  const fs::path last = fs::path(db()) / "journal.2";
  write_file(last, read_file(last) + "torn");
  {
    DatabaseWriter writer(db(), {});
    EXPECT_THAT(writer.found(), HasSubstr(last.string() + ": "));
    EXPECT_EQ(records_of(writer.store()), records_of(straight.store()));
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
    std::vector<int> kept;
    int n_refused = 0;
    {
      WriterOptions options;
      options.snapshot_bytes = 0;
      DatabaseWriter writer(db(), options);
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
    }
    Model straight;
    for (const int number : kept) straight.take(batch_text(number));
    EXPECT_EQ(records_of(reopened().store), records_of(straight.store()));
  }
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

}  // namespace
}  // namespace metricdb
