// A database that is open for writing: settled batches are durable in all cases, and refused ones are not stored.
#include <poll.h>

#include "list_audit.h"
#include "writer_support.h"

// Both lists of the catalogue in order, because they decide which series is replaced next.
static std::pair<indices_t, indices_t> lists_in(const Store &store) {
  const lists_t lists = audit_lists(store.catalogue());
  return {lists.free, lists.inactive};
}

// Compared with a store in memory with the same batches. Memory slots are small, so each batch changes several, and
// sweeps occur within batches. Each opening continues the journal or begins a generation.
TEST_F(Writer, ReopenedDatabaseContinuesUnchanged) {
  constexpr int N_BATCHES = 80;
  static const struct {
    const char *what;
    StoreConfig config;
  } rows[] = {
      {"nothing is forgotten", {}},
      {"retention and idleness", {.forgetting = {.retain_ns = 2500, .idle_ns = 300}}},
      {"reuse of inactive series", {.forgetting = {.idle_ns = 300, .reuse_inactive_pct = 20}}},
      {"an older layout", {.forgetting = {.retain_ns = 2500, .idle_ns = 300}, .layout = OLDEST_LAYOUT}},
  };
  static const struct {
    uint64_t snapshot_bytes;
    int batches_per_writer;
  } sessions[] = {{0, 20}, {6'000, 20}, {6'000, 4}};
  for (const auto &row : rows) {
    for (const auto &session : sessions) {
      SCOPED_TRACE(fmt::format("{}, {} batches per writer, a snapshot after {} bytes", row.what,
                               session.batches_per_writer, session.snapshot_bytes));
      fs::remove_all(db());
      StoreConfig config = row.config;
      config.key_slot_bytes = 256;
      config.point_slot_bytes = 4096;
      config.points_per_sweep = 70;
      create(config);
      Store straight(config);
      for (int number = 0; number < N_BATCHES; number += session.batches_per_writer) {
        const auto batches = numbers_from(number, number + session.batches_per_writer);
        {
          DatabaseWriter writer(db(), {.snapshot_bytes = session.snapshot_bytes});
          EXPECT_EQ(writer.warnings(), "");
          ASSERT_EQ(records_of(writer.store()), records_of(straight)) << "batch " << number;
          ASSERT_EQ(figures_of(writer.store()), figures_of(straight)) << "batch " << number;
          ASSERT_EQ(lists_in(writer.store()), lists_in(straight)) << "batch " << number;
          for (const int batch : batches) ASSERT_EQ(put(writer, batch_text(batch)), "");
        }
        for (const int batch : batches) load(straight, batch_text(batch));
      }
      EXPECT_EQ(reopened().generation() > 1, session.snapshot_bytes != 0);
      EXPECT_EQ(records_of(reopened().store()), records_of(straight));
    }
  }
}

TEST_F(Writer, ReturningSeriesLeavesTheInactiveList) {
  create({.forgetting = {.idle_ns = 10}, .points_per_sweep = 1});
  for (const char *text : {"a f=1 0\n", "b f=1 50\n", "a f=2 51\n"}) {
    DatabaseWriter writer(db(), {});
    EXPECT_EQ(put(writer, text), "");
    EXPECT_EQ(writer.store().n_inactive(), *text == 'b' ? 1u : 0u);
  }
  EXPECT_EQ(reopened().store().n_inactive(), 0u);
}

TEST_F(Writer, OptionsAreStoredWithTheDatabase) {
  { DatabaseWriter writer(db(), {.forgetting = {.retain_ns = 25, .idle_ns = 5}}); }
  { DatabaseWriter writer(db(), {.forgetting = {.idle_ns = 7}}); }
  DatabaseWriter writer(db(), {});
  EXPECT_EQ(writer.store().config().forgetting.retain_ns, 25);
  EXPECT_EQ(writer.store().config().forgetting.idle_ns, 7);
}

TEST_F(Writer, MalformedLinesAreReportedAndTheRestIsCommitted) {
  {
    DatabaseWriter writer(db(), {});
    const IngestResult taken = writer.take("m f=1 1\nnonsense\nm f=2 2\n= \n", Precision::ns);
    EXPECT_EQ(taken.points, 2u);
    EXPECT_EQ(taken.malformed, 2u);
    EXPECT_EQ(taken.first_reason, "line 2: no fields");
    EXPECT_EQ(writer.commit(), 1u);
    EXPECT_EQ(writer.take("# nothing\n", Precision::ns).points, 0u);
    EXPECT_EQ(writer.commit(), 1u) << "an empty batch has a new ticket";
    EXPECT_EQ(writer.wait(1), "");
    EXPECT_GE(writer.settled(), 1u);
    EXPECT_EQ(content_of(reopened().store()), (Content{{"m f", "1@1 2@2 "}}));
  }
  EXPECT_EQ(reopened().store().n_points(), 2u);
}

// A batch whose group is the last one of its journal.
TEST_F(Writer, LastTicketOfAJournalIsReported) {
  DatabaseWriter writer(db(), {.snapshot_bytes = 1});
  for (const uint64_t ticket : {1u, 2u}) {
    writer.take("m f=1 1\n", Precision::ns);
    ASSERT_EQ(writer.commit(), ticket);
    struct pollfd ready = {writer.settled_fd(), POLLIN, 0};
    ASSERT_EQ(poll(&ready, 1, 10'000), 1);
    EXPECT_EQ(writer.settled(), ticket);
    EXPECT_EQ(poll(&ready, 1, 0), 0) << "still readable, so the server would not wait";
    writer.snapshot();
  }
}

// A line is stored as a whole or not at all. Lines of existing series are stored if they have room.
TEST_F(Writer, FullStoreRefusesLinesWithoutRoom) {
  create({.key_slot_bytes = 64});
  DatabaseWriter writer(db(), {});
  std::string text;
  for (int i = 0; i < 254; ++i) text += fmt::format("measurement,number={:010} field=1 5\n", i);
  EXPECT_EQ(writer.take(text, Precision::ns).malformed, 0u);
  // Room for one more key: a known field with two new ones, then a known series, then one new series.
  const IngestResult taken = writer.take(
      "measurement,number=0000000001 field=2,new=3,newer=4 6\n"
      "measurement,number=0000000002 field=5 6\n"
      "measurement,number=0000000003 other=1 6\n",
      Precision::ns);
  EXPECT_EQ(taken.points, 1u);
  EXPECT_EQ(taken.no_room, 2u);
  EXPECT_THAT(taken.room_reason, StartsWith("line 1: no room for more series keys"));
  EXPECT_THROW(writer.take("measurement,number=9999999999 field=1 7\n", Precision::ns), IngestRefused);
  EXPECT_EQ(writer.wait(writer.commit()), "");
  const auto points = content_of(reopened().store());
  EXPECT_EQ(points.at("measurement,number=0000000001 field"), "1@5 ");
  EXPECT_EQ(points.at("measurement,number=0000000002 field"), "1@5 5@6 ");
}

static int64_t clock_ns() {
  using namespace std::chrono;
  return duration_cast<nanoseconds>(system_clock::now().time_since_epoch()).count();
}

// With the timestamp stored, the data time would be two hours later, and the last line would be late.
TEST_F(Writer, TimestampsFarAfterTheClockAreRefused) {
  constexpr int64_t HOUR_NS = 3'600'000'000'000;
  const int64_t now_ns = clock_ns();
  DatabaseWriter writer(db(), {.forgetting = {.retain_ns = HOUR_NS}, .max_future_ns = HOUR_NS});
  const IngestResult taken =
      writer.take(fmt::format("m f=1 {}\nm f=2,g=2 {}\nm f=3 {}\n", now_ns, now_ns + 2 * HOUR_NS, now_ns - HOUR_NS / 2),
                  Precision::ns);
  EXPECT_EQ(taken.points, 2u);
  EXPECT_EQ(taken.future, 1u);
  EXPECT_EQ(taken.n_skipped(), 1u);
  EXPECT_EQ(taken.first_reason, "line 2: the timestamp is too far after the server's clock");
  const IngestResult within = writer.take(fmt::format("m f=4 {}\n", now_ns + HOUR_NS / 2), Precision::ns);
  EXPECT_EQ(within.points, 1u);
  DatabaseWriter any(path("any"), {});
  EXPECT_EQ(any.take("m f=1 9223372036854775807\n", Precision::ns).points, 1u);
}

TEST_F(Writer, LateLinesAreReportedAndNotCounted) {
  DatabaseWriter writer(db(), {.forgetting = {.retain_ns = 10}});
  const IngestResult taken = writer.take("m f=1 100\nm f=2 50\nm f=3,g=4 20\nn f=5 95\n", Precision::ns);
  EXPECT_EQ(taken.points, 2u);
  EXPECT_EQ(taken.late, 2u);
  EXPECT_EQ(taken.n_skipped(), 2u);
  EXPECT_EQ(taken.first_reason, "line 2: the timestamp is older than the retention");
  const uint64_t ticket = writer.commit();
  EXPECT_EQ(writer.take("m f=6 1\n", Precision::ns).points, 0u);
  EXPECT_EQ(writer.commit(), ticket) << "the answer waits for a batch without points";
  EXPECT_EQ(writer.wait(ticket), "");
  EXPECT_EQ(content_of(reopened().store()), (Content{{"m f", "1@100 "}, {"n f", "5@95 "}}));
}

// One timestamp of the future hides nothing, points that are too old by the clock are refused, and the limit can be changed
// while the database is open.
TEST_F(Writer, RetentionByTheClock) {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  const int64_t now_ns = std::chrono::duration_cast<std::chrono::nanoseconds>(now).count(), hour_ns = 3'600'000'000'000;
  const auto line = [&](int hours) { return fmt::format("m f={} {}\n", hours, now_ns + hours * hour_ns); };
  WriterOptions options;
  options.forgetting.retain_ns = 10 * hour_ns;
  options.is_live = options.retains_by_clock = true;
  {
    DatabaseWriter writer(db(), options);
    EXPECT_EQ(writer.take(line(-1) + line(1000) + line(-9) + line(-11), Precision::ns).late, 1u);
    writer.wait(writer.commit());
    EXPECT_EQ(writer.store().n_visible(), 3u);
    const auto limit_to = [&](int64_t retain_ns) {
      const auto change = writer.request([retain_ns](Store &store) {
        store.set_forgetting({.retain_ns = retain_ns});
        return true;
      });
      const uint64_t ticket = writer.commit();
      writer.work();
      EXPECT_GT(writer.commit(), ticket);
      writer.wait(writer.commit());
      writer.settled();
      EXPECT_EQ(change->wait(nullptr), "");
      EXPECT_EQ(writer.store().live()->visible_from_ns == INT64_MIN, retain_ns == 0);
    };
    limit_to(0);
    EXPECT_EQ(writer.take(line(-12), Precision::ns).late, 0u);
    limit_to(5 * hour_ns);
    EXPECT_EQ(writer.store().n_visible(), 2u);
  }
  EXPECT_EQ(reopened().store().config().forgetting.retain_ns, 5 * hour_ns);
  EXPECT_EQ(reopened().store().n_visible(), 1u) << "without a clock the newest timestamp counts";
}

TEST_F(Writer, LimitsOfKeysAndOfNewSeries) {
  DatabaseWriter writer(db(), {.max_key_bytes = 10, .max_new_series = 3});
  const IngestResult keys = writer.take("m,t=seven f=1 1\nm,t=six6 f=1 1\n", Precision::ns);
  EXPECT_EQ(keys.points, 1u);
  EXPECT_EQ(keys.malformed, 1u);
  EXPECT_EQ(keys.first_reason, "line 1: a series key is longer than 10 bytes");
  const std::string text = "a f=1 1\nb f=1 1\nbad\nc f=1 1\nd f=1 1\ne f=1 1\na f=2 2\n";
  const IngestResult series = writer.take(text, Precision::ns);
  EXPECT_EQ(series.points, 4u);
  EXPECT_EQ(series.malformed, 1u);
  EXPECT_EQ(series.no_room, 2u);
  EXPECT_EQ(series.first_reason, "line 3: no fields");
  EXPECT_EQ(series.room_reason, "line 5: no room for more than 3 new series at a time");
  EXPECT_EQ(writer.take("d f=1 1\ne f=1 1\n", Precision::ns).points, 2u) << "the limit is not per text";
}

TEST_F(Writer, ReplacedValuesAreDurable) {
  {
    DatabaseWriter writer(db(), {.one_per_time = true});
    for (const char *text : {"m f=1 1\nm f=2 2\n", "m f=3 3\n", "m f=7 1\n", "m f=3 3\n", "m f=8 2\nm f=4 4\n"})
      EXPECT_EQ(put(writer, text), "");
    EXPECT_EQ(content_of(writer.store()), (Content{{"m f", "7@1 8@2 3@3 4@4 "}}));
    EXPECT_EQ(content_of(reopened().store()), (Content{{"m f", "7@1 8@2 3@3 4@4 "}}));
  }
  EXPECT_EQ(content_of(reopened().store()), (Content{{"m f", "7@1 8@2 3@3 4@4 "}}));
}

TEST_F(Writer, StringsAreRefusedOrLeftOut) {
  const std::string text = "m f=1,s=\"a\",t=\"b\" 1\nm f=2 2\nm s=\"a\" 3\n";
  DatabaseWriter refusing(db(), {.refuse_strings = true});
  const IngestResult taken = refusing.take(text, Precision::ns);
  EXPECT_EQ(taken.points, 1u);
  EXPECT_EQ(taken.malformed, 2u);
  EXPECT_EQ(taken.first_reason, "line 1: field \"s\" is a string, and strings are not stored");
  DatabaseWriter dropping(path("dropping"), {});
  EXPECT_EQ(dropping.take(text, Precision::ns).points, 2u);
}

TEST_F(Writer, FiguresOfTheStoreAndItsCapacity) {
  create({.key_slot_bytes = 64, .point_slot_bytes = 4096});
  DatabaseWriter writer(db(), {});
  EXPECT_EQ(writer.figures().series, 0u);
  EXPECT_EQ(put(writer, "m f=1,g=2 5\nm f=3 6\n"), "");
  const IngestFigures figures = writer.figures();
  EXPECT_EQ(figures.series, 2u);
  EXPECT_EQ(figures.points, 3u);
  EXPECT_EQ(figures.max_key_bytes, 64u * MAX_KEY_SLOTS);
  EXPECT_EQ(figures.key_bytes, 2 * (sizeof "m f" + TSLB_COMPAT_BYTES));
  EXPECT_EQ(figures.max_point_bytes, 4096u * MAX_POINT_SLOTS);
  EXPECT_EQ(figures.point_bytes, 2 * (8 * sizeof(Point) + TSLB_COMPAT_BYTES));
  EXPECT_EQ(figures.snapshots, 0u);
  const uint64_t generation = writer.snapshot().number;
  EXPECT_EQ(writer.figures().snapshots, 1u);
  EXPECT_EQ(writer.figures().generation, generation);
  EXPECT_GT(figures.journal_bytes, 0u);
}

TEST_F(Writer, ForgottenSeriesMakeRoomForNewOnes) {
  create({.key_slot_bytes = 64, .forgetting = {.retain_ns = 10}, .points_per_sweep = 1});
  DatabaseWriter writer(db(), {});
  std::string text;
  for (int i = 0; i < 255; ++i) text += fmt::format("measurement,number={:010},type=of,size=64 f=1 5\n", i);
  ASSERT_EQ(writer.take(text, Precision::ns).n_skipped(), 0u);
  const std::string other = "measurement,number=other,type=of,size=64 f=1 5\n";
  EXPECT_THROW(writer.take(other, Precision::ns), IngestRefused);
  writer.take(repeated("measurement,number=0000000001,type=of,size=64 f=1 500\n", 300), Precision::ns);
  EXPECT_EQ(writer.store().n_series(), 1u);
  EXPECT_EQ(writer.take("measurement,number=new,type=of,size=64 f=1 500\n", Precision::ns).points, 1u);
  EXPECT_EQ(writer.wait(writer.commit()), "");
}

// Each step of the file operations fails once, during batches, snapshots and openings. Afterwards all settled batches
// are stored, refused ones are not, and the database is usable. One failure refuses one batch, even if a text without
// points comes between the batch and its failure.
TEST_F(Writer, FailureAtAnyStepLosesNothing) {
  constexpr int N_BATCHES = 4;
  const WriterOptions options = {.snapshot_bytes = 3'000};
  uint64_t n_refused = 0, n_in_snapshots = 0;
  for (uint64_t k = 1;; ++k) {
    SCOPED_TRACE(fmt::format("step {}", k));
    fs::remove_all(db());
    { DatabaseWriter first(db(), options); }
    std::vector<int> settled;
    const uint64_t before = tslb_durable::io_operations();
    tslb_durable::fail_at_io(k, ENOSPC);
    bool met_end = false, is_broken = false;
    try {
      DatabaseWriter writer(db(), options);
      for (int number = 0; number < N_BATCHES; ++number) {
        const std::string why = put(writer, batch_text(number), "nonsense\n");
        if (why.empty())
          settled.push_back(number);
        else
          ++n_refused;
      }
      EXPECT_GE(settled.size() + 1, size_t{N_BATCHES});
      met_end = tslb_durable::io_operations() - before < k;
      writer.close();
    } catch (const std::runtime_error &error) {
      // After a failed sync or a failed opening the next process must continue.
      EXPECT_THAT(error.what(), HasSubstr("db")) << error.what();
      ++n_refused;
      is_broken = true;
    }
    tslb_durable::fail_at_io(0, 0);
    // An unsettled batch of a broken journal may be on the disk.
    std::vector<int> with_next = settled;
    with_next.push_back(settled.empty() ? 0 : settled.back() + 1);
    const Content expected = records_after(settled), perhaps = records_after(with_next);
    DatabaseWriter again(db(), options);
    const Content found = records_of(again.store());
    EXPECT_TRUE(found == expected || (is_broken && found == perhaps))
        << "neither the settled batches, nor these and the current one";
    n_in_snapshots += again.store().n_points() != 0;
    EXPECT_EQ(put(again, batch_text(100)), "");
    if (met_end) break;
    ASSERT_LT(k, 500u) << "too many steps";
  }
  EXPECT_GT(n_refused, 5u) << "too few steps failed";
  EXPECT_GT(n_in_snapshots, 5u);
}

TEST_F(Writer, ConversionToTheOlderLayoutIsPermanent) {
  {
    DatabaseWriter writer(db(), {.forgetting = {.retain_ns = 2500, .idle_ns = 300}});
    for (const int number : numbers_from(0, 100)) ASSERT_EQ(put(writer, batch_text(number)), "");
    // points_per_sweep is large, so nothing was forgotten yet. The sweep below makes free and inactive slots.
    writer.snapshot();
  }
  {
    OpenDatabase opened(db(), {}, OpenDatabase::Use::load);
    opened.store().sweep();
    ASSERT_GT(lists_of(opened.store().catalogue())->n_free, 0u);
    ASSERT_GT(opened.store().n_inactive(), 0u);
    opened.write();
  }
  const auto before = content_of(reopened().store());
  {
    DatabaseWriter writer(db(), {.layout = OLDEST_LAYOUT});
    EXPECT_EQ(content_of(writer.store()), before);
    EXPECT_EQ(tslb_da_get_record_size(writer.store().catalogue()), sizeof(ty_sub_t_v0));
    EXPECT_GT(lists_of(writer.store().catalogue())->n_free, 0u) << "free slots are lost";
    for (const int number : numbers_from(100, 140)) ASSERT_EQ(put(writer, batch_text(number)), "");
  }
  // From now on the database has this layout. It cannot be converted back.
  {
    OpenDatabase opened(db(), {}, OpenDatabase::Use::load);
    EXPECT_EQ(opened.store().config().layout, OLDEST_LAYOUT);
    Store straight({.forgetting = {.retain_ns = 2500, .idle_ns = 300}});
    for (const int number : numbers_from(0, 140)) load(straight, batch_text(number));
    for (Store *store : {&opened.store(), &straight}) store->sweep();
    EXPECT_EQ(content_of(opened.store()), content_of(straight));
  }
  EXPECT_THROW(OpenDatabase(db(), {.layout = NEWEST_LAYOUT}), DatabaseError);
}

TEST_F(Writer, DamageIsReportedAndSalvaged) {
  for (DatabaseWriter writer(db(), {}); const int number : numbers_from(0, 20))
    ASSERT_EQ(put(writer, batch_text(number)), "");
  const fs::path journal = fs::path(db()) / "journal.1";
  std::string damaged = read_file(journal);
  damaged[damaged.size() / 2] ^= 0x10;
  write_file(journal, damaged);
  EXPECT_THAT(refusal_of([this] { reopened(); }), StartsWith(journal.string() + ": byte "));
  EXPECT_THROW(DatabaseWriter(db(), {}), std::runtime_error);
  EXPECT_EQ(read_file(journal), damaged) << "the damaged journal was changed";

  uint64_t n_points;
  {
    DatabaseWriter writer(db(), {.salvage = true});
    EXPECT_THAT(writer.warnings(), HasSubstr(journal.string() + ": byte "));
    n_points = writer.store().n_points();
    EXPECT_GT(n_points, 0u);
    EXPECT_LT(n_points, 20u * 120);
    EXPECT_EQ(n_points % 120, 0u) << "a part of a batch";
  }
  const Content salvaged = records_after(numbers_from(0, static_cast<int>(n_points / 120)));
  EXPECT_EQ(records_of(reopened().store()), salvaged);
}

// The disk is simulated by a limit on the file size. Batches are refused while there is no space, and all others are
// stored.
// The first series has so many points that another thread finds the faults of later series before.
TEST_F(Writer, FaultOfTheLowestSeriesIsReported) {
  constexpr uint32_t N_SERIES = 200, N_POINTS = 1'000'000;
  static const auto damage_count = [](Store &store, uint32_t series) { store.record(series).set_n_points(1); };
  static const struct {
    const char *fault;
    void (*damage)(Store &store);
    std::string message;
  } rows[] = {
      {"what is found first is reported",
       [](Store &store) {
         for (uint32_t series = 0; series < N_SERIES; ++series) damage_count(store, series);
       },
       fmt::format("series 0: its chunks hold {} points", N_POINTS)},
      {"a reference is refused where threads found it",
       [](Store &store) { store.record(150).set_open(store.record(0).open()); },
       "but another reference names the same chunk"},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    fs::remove_all(db());
    {
      OpenDatabase database(db(), {}, OpenDatabase::Use::load, StoreConfig());
      for (uint32_t series = 0; series < N_SERIES; ++series)
        for (uint32_t i = 0; i < (series == 0 ? N_POINTS : 1); ++i)
          database.store().add(fmt::format("m,n={} f", series), {i, static_cast<double>(i * 2654435761u)});
      row.damage(database.store());
      database.write();
    }
    EXPECT_THAT(refusal_of([this] { OpenDatabase opened(db()); }), HasSubstr(row.message));
  }
}

TEST_F(Writer, FullDiskRefusesBatches) {
  std::vector<int> kept;
  int n_refused = 0;
  {
    DatabaseWriter writer(db(), {.snapshot_bytes = 0});
    const auto take = [&](int number) {
      const std::string why = put(writer, batch_text(number));
      EXPECT_THAT(why, testing::AnyOf("", HasSubstr("journal.1: ")));
      if (why.empty()) kept.push_back(number);
      n_refused += !why.empty();
    };
    const auto old_handler = signal(SIGXFSZ, SIG_IGN);
    {
      const limit_t tight(RLIMIT_FSIZE, 400'000);
      for (int number = 0; number < 400 && n_refused < 3; ++number) take(number);
      EXPECT_THAT(writer.why_not_writable(), HasSubstr("journal.1: "));
    }
    EXPECT_EQ(writer.why_not_writable(), "");
    signal(SIGXFSZ, old_handler);
    EXPECT_GT(kept.size(), 5u);
    for (const int number : numbers_from(400, 410)) take(number);
    EXPECT_EQ(n_refused, 3) << "the disk was never full, or stays full";
    EXPECT_EQ(writer.store().n_points(), kept.size() * 120);
  }
  EXPECT_EQ(records_of(reopened().store()), records_after(kept));
}
