// metricdb as replicas, with a NATS server: followers answer queries from whole batches, and one takes over.
#include <gmock/gmock.h>

#include <atomic>
#include <thread>

#include "nats_support.h"
#include "net/http_client.h"
#include "query/store_source.h"
#include "serve_process.h"
#include "store/database_writer.h"
#include "store/erasure.h"

namespace {

constexpr uint32_t MAX_WORK = 1'000'000;

class MetricdbReplica : public Folder {
 protected:
  void SetUp() override {
    Folder::SetUp();
    if (!NatsServer::is_installed() || !KNOWS_REPLICAS)
      GTEST_SKIP() << "no nats-server or no libnats: nothing was tested";
    server_.emplace(path("nats"));
  }
  void TearDown() override {
    server_.reset();
    Folder::TearDown();
  }

  std::unique_ptr<DatabaseWriter> open(const std::string &name, const ReplicaOptions &changed = {}) const {
    WriterOptions options;
    options.is_live = true;
    options.replica = changed;
    options.replica->name = "points";
    options.replica->servers = server_->url();
    // A child of this process that writes a generation of the other replica has the locks of both in its first steps.
    std::unique_ptr<DatabaseWriter> writer;
    wait_until([&] {
      const std::string refusal = refusal_of([&] { writer = std::make_unique<DatabaseWriter>(path(name), options); });
      EXPECT_TRUE(refusal.empty() || refusal.find("another writer") != std::string::npos) << refusal;
      return refusal.find("another writer") == std::string::npos;
    });
    return writer;
  }
  std::string serve_options(const std::string &name) const {
    return fmt::format("--influx 0 --graphite 0 --db {} --replica points --replica-servers {}", name, server_->url());
  }

  std::optional<NatsServer> server_;
};

// Returns why the points were refused; empty if they are durable.
std::string put(DatabaseWriter &writer, const std::string &lines) {
  try {
    EXPECT_EQ(writer.take(lines, Precision::ns).n_skipped(), 0u);
    return writer.wait(writer.commit());
  } catch (const IngestRefused &refusal) {
    return refusal.what();
  }
}

// The points by name. A value says to which series it belongs.
using Points = std::map<std::string, std::vector<Point>>;
Points read_all(const DatabaseWriter &writer) {
  Points points;
  writer.read([&points](const Store &store) {
    const StoreSource source(store);
    std::vector<std::pair<uint32_t, std::string>> series;
    source.for_each_series({}, [&series](uint32_t number, const SeriesName &name) {
      series.emplace_back(number, name.tags.at(0).second);
    });
    PointList list;
    for (const auto &[number, name] : series) {
      source.read(number, {}, list);
      points[name] = list.points;
    }
  });
  return points;
}

// Waits until a follower has this point of a series.
testing::AssertionResult has(DatabaseWriter &writer, const std::string &name, int64_t ts_ns) {
  const bool has_it = wait_until([&] {
    if (!writer.why_unreadable().empty()) return false;
    const Points points = read_all(writer);
    const auto found = points.find(name);
    return found != points.end() && !found->second.empty() && found->second.back().ts_ns == ts_ns;
  });
  if (has_it) return testing::AssertionSuccess();
  const ReplicaFigures now = *writer.replica();
  return testing::AssertionFailure() << fmt::format("group {} of epoch {}, lag {}, \"{}\"; {}", now.number, now.epoch,
                                                    now.lag, now.text, writer.why_ended());
}

// A batch writes series "a" and "b" at the same time, and one of a changing name. Each value is the time and the name.
std::string batch(int64_t k) {
  return fmt::format("m,n=a f={0} {0}\nm,n=b f={0} {0}\nm,n={1} f={2} {0}\n", k, k / 8, k / 8 * 1'000'000 + k);
}

// Returns what is wrong with what a query saw; empty if nothing is.
//
// is_whole  of one moment: a leader's queries are so for each series only.
std::string fault_of(const Points &points, bool is_whole) {
  for (const auto &[name, list] : points) {
    const int64_t base = name == "a" || name == "b" ? 0 : std::stoll(name) * 1'000'000;
    for (const Point &point : list)
      if (point.value != static_cast<double>(base + point.ts_ns)) return fmt::format("{}: value {}", name, point.value);
    if (!is_whole) continue;
    const std::vector<Point> &a = points.at("a"), &b = points.at("b");
    if (a.size() != b.size()) return fmt::format("{} points of a, and {} of b", a.size(), b.size());
    if (list.empty() || list.back().ts_ns > a.back().ts_ns) return name + ": a batch in part";
  }
  return "";
}

// Deletes the series with a name, so that its slot and its chunks are taken again.
void drop(DatabaseWriter &writer, const std::string &name) {
  std::shared_ptr<StoreChange> change;
  writer.read([&](const Store &store) {
    const StoreSource source(store);
    Erasure erasure;
    SeriesFilter filter;
    filter.tags = {{"n", name}};
    source.for_each_series(
        filter, [&](uint32_t series, const SeriesName &) { erasure.series.push_back(source.live_series(series)); });
    change = writer.request([erasure](Store &changed) mutable { return changed.erase_some(erasure, MAX_WORK); });
  });
  while (writer.work()) writer.wait(writer.commit());
  writer.wait(writer.commit());
}

std::string query_of(const std::string &statement, const std::string &method = "GET") {
  return get("/query?db=x&q=" + url_encoded(statement), method);
}

}  // namespace

// Queries run all the time: while batches arrive, series come and go, the follower is promoted, and the former leader, whose
// log was cut meanwhile, begins again from a snapshot.
TEST_F(MetricdbReplica, QueriesSeeWholeBatches) {
  auto leader = open("one", {.leads = true, .snapshot_bytes = 1, .asked_every = milliseconds(20)});
  auto follower = open("two", {.snapshot_bytes = 1, .asked_every = milliseconds(20)});
  ASSERT_EQ(put(*leader, batch(1)), "");
  ASSERT_TRUE(has(*follower, "a", 1));
  EXPECT_THAT(put(*follower, batch(2)), HasSubstr("follows points"));
  std::atomic<bool> is_done = false, is_promoting = false;
  std::atomic<int> n_reads = 0;
  std::string faults[2];
  std::vector<std::thread> readers;
  for (std::string &fault : faults)
    readers.emplace_back([&] {
      for (; !is_done && fault.empty(); ++n_reads) {
        const Points points = read_all(*follower);
        fault = fault_of(points, !is_promoting);
      }
    });
  const auto write_some = [](DatabaseWriter &writer, int64_t from, int64_t to) {
    for (int64_t k = from; k < to; ++k) {
      ASSERT_EQ(put(writer, batch(k)), "");
      if (k % 8 == 7) drop(writer, std::to_string(k / 8 - 1));
    }
  };
  write_some(*leader, 2, 150);
  EXPECT_TRUE(has(*follower, "a", 149));
  is_promoting = true;
  EXPECT_EQ(follower->promote(), 2u);
  EXPECT_EQ(follower->promote(), 2u) << "it leads already";
  write_some(*follower, 150, 300);
  is_done = true;
  for (std::thread &reader : readers) reader.join();
  EXPECT_EQ(faults[0] + faults[1], "");
  EXPECT_GT(n_reads, 10);
  // A batch of the former leader is refused, and only it is set aside.
  EXPECT_NE(put(*leader, batch(150)), "");
  EXPECT_THAT(put(*leader, batch(151)), HasSubstr("leads points no more"));
  EXPECT_NE(leader->why_ended(), "");
  leader.reset();
  ASSERT_TRUE(wait_until([&] { return follower->replica()->n_snapshots != 0; }));
  ASSERT_EQ(put(*follower, batch(300)), "");
  leader = open("one", {.leads = true});
  EXPECT_THAT(leader->warnings(), HasSubstr("does not lead by itself")) << "it would depose the other";
  ASSERT_TRUE(has(*leader, "a", 300));
  EXPECT_GE(leader->replica()->n_set_aside, 1u);
  const Points expected = read_all(*follower), found = read_all(*leader);
  ASSERT_EQ(found.size(), expected.size());
  for (const auto &[name, list] : expected) EXPECT_EQ(found.at(name).size(), list.size()) << name;
  // The last leader leads again, and has all that it needs to write.
  follower->close();
  follower = open("two", {.leads = true});
  EXPECT_EQ(follower->warnings(), "");
  ASSERT_EQ(put(*follower, batch(301)), "");
  ASSERT_TRUE(has(*leader, "b", 301));
}

TEST_F(MetricdbReplica, IdleLeaderNoticesThatAnotherLeads) {
  auto leader = open("one", {.leads = true, .heartbeat = milliseconds(1)}), follower = open("two");
  ASSERT_EQ(put(*leader, batch(1)), "");
  ASSERT_TRUE(has(*follower, "a", 1));
  follower->promote();
  EXPECT_TRUE(wait_until([&] {
    leader->work();
    return !leader->why_ended().empty();
  }));
  leader.reset();
  leader = open("one");
  ASSERT_TRUE(has(*leader, "a", 1));
  EXPECT_EQ(leader->replica()->n_set_aside, 0u) << "an empty batch is nothing to keep";
}

// Each long query would let a single group be applied after it.
TEST_F(MetricdbReplica, FollowerCatchesUpBetweenLongQueries) {
  constexpr int N_GROUPS = 100;
  auto leader = open("one", {.leads = true}), follower = open("two");
  ASSERT_EQ(put(*leader, batch(1)), "");
  ASSERT_TRUE(has(*follower, "a", 1));
  std::atomic<bool> is_done = false;
  std::atomic<int> n_reads = 0;
  std::vector<std::thread> readers;
  for (int i = 0; i < 2; ++i)
    readers.emplace_back([&] {
      for (; !is_done; ++n_reads) follower->read([](const Store &) { std::this_thread::sleep_for(milliseconds(150)); });
    });
  for (int k = 2; k <= N_GROUPS; ++k) ASSERT_EQ(put(*leader, batch(k)), "");
  const int n_before = n_reads;
  EXPECT_TRUE(has(*follower, "a", N_GROUPS));
  EXPECT_LT(n_reads - n_before, N_GROUPS / 2);
  is_done = true;
  for (std::thread &reader : readers) reader.join();
}

TEST_F(MetricdbReplica, ServersChangeTheirParts) {
  ServeProcess one(root_, serve_options("one") + " --lead");
  const int first = one.port();
  fs::create_directory(path("second"));
  ServeProcess two(root_ / "second", serve_options("two"));
  const int second = two.port();
  ASSERT_TRUE(first != 0 && second != 0) << one.output() << two.output();
  Peer leader(first), follower(second);
  ASSERT_EQ(ask(leader, post("m,n=a f=1 1\n")), 204) << one.output();
  const std::string count = query_of("SELECT count(f) FROM m");
  const auto counts = [&](Peer &peer, int n) {
    return wait_until([&] { return body_of(answer_to(peer, count)).ends_with(fmt::format("Z\",{}]]}}]}}]}}\n", n)); });
  };
  EXPECT_TRUE(counts(follower, 1)) << answer_to(follower, count);

  // What the follower refuses, and what it says about itself.
  const std::string refusal = answer_to(follower, post("m,n=a f=1 2\n"));
  EXPECT_EQ(Peer::status_of(refusal), 503);
  EXPECT_THAT(body_of(refusal), StartsWith("{\"error\":\"this server follows points and takes no points"));
  EXPECT_THAT(answer_to(follower, query_of("DROP SERIES FROM m", "POST")), HasSubstr("this server follows points"));
  EXPECT_EQ(ask(follower, get("/promote")), 405);
  const std::string health = answer_to(follower, get("/health"));
  EXPECT_EQ(Peer::status_of(health), 200);
  EXPECT_THAT(health, HasSubstr("\"role\":\"follower\",\"epoch\":1"));
  for (const char *const line :
       {"metricdb_replica_role{role=\"follower\"} 1\n", "metricdb_replica_epoch 1\n", "metricdb_stored_points 1\n",
        "metricdb_refused_requests_total{reason=\"read_only\"} 1\n", "metricdb_replica_lag_messages 0\n"}) {
    const auto has_line = [&] { return answer_to(follower, get("/metrics")).find(line) != std::string::npos; };
    EXPECT_TRUE(wait_until(has_line)) << line;
  }

  const Outcome promoted = run(fmt::format("promote --server 127.0.0.1:{}", second));
  EXPECT_EQ(promoted.out, "{\"role\":\"leader\",\"epoch\":2}\n") << promoted.err;
  EXPECT_EQ(ask(follower, post("m,n=a f=1 2\n")), 204);
  EXPECT_EQ(ask(leader, post("m,n=a f=1 3\n")), 503) << "a deposed leader took points";
  EXPECT_EQ(one.wait(), 1);
  EXPECT_THAT(one.output(), HasSubstr("this server leads points no more"));

  ServeProcess again(root_, serve_options("one") + " --lead");
  Peer former(again.port());
  EXPECT_TRUE(counts(former, 2)) << again.output();
  EXPECT_EQ(ask(former, post("m,n=a f=1 4\n")), 503) << "it took the lead back";
  EXPECT_EQ(again.end(SIGTERM), 0);
  EXPECT_EQ(two.end(SIGTERM), 0);
}
