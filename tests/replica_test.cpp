// Replicas with a NATS server: followers equal the leader, one replica leads, and what is not in the log is set aside.
#include <gmock/gmock.h>
#include <nats/nats.h>
#include <tslb/replica.h>

#include <algorithm>

#include "changes.h"
#include "durable_support.h"
#include "log_message.h"
#include "nats_log.h"
#include "nats_support.h"

using testing::HasSubstr;

namespace {

class TestReplica {
 public:
  TestReplica(std::string folder, std::string url) : folder_(std::move(folder)), url_(std::move(url)) {}
  ~TestReplica() { close(); }
  TestReplica(const TestReplica &) = delete;
  TestReplica &operator=(const TestReplica &) = delete;

  bool open() {
    const std::vector<tslb_array_decl_t> decls = test_decls();
    options.servers = url_.c_str();
    options.name = "test";
    options.store.flags = TSLB_STORE_CREATE | TSLB_STORE_SHADOW;
    if (options.patience_ms == 0) options.patience_ms = 20'000;
    replica_ = tslb_replica_open(folder_.c_str(), decls.data(), static_cast<uint32_t>(decls.size()), &options, &error);
    if (replica_ != nullptr) store.use(tslb_replica_store(replica_));
    return replica_ != nullptr;
  }
  int close() {
    store.abandon();
    return tslb_replica_close(std::exchange(replica_, nullptr), &error);
  }
  tslb_replica_t *get() const { return replica_; }
  bool promote() { return tslb_replica_promote(replica_, &error) == 0; }
  bool publish_snapshot(bool cuts_log) { return tslb_replica_publish_snapshot(replica_, cuts_log, &error) == 0; }
  tslb_replica_info_t info() const {
    tslb_replica_info_t info;
    tslb_replica_get_info(replica_, &info);
    return info;
  }
  // Returns the ticket's result.
  int change(std::mt19937 &random) {
    tslb_batch_t *const batch = tslb_batch_begin(store.get(), &error);
    if (batch == nullptr) return -1;
    store.change(batch, random);
    return tslb_batch_commit(batch, &error);
  }
  std::string content() const {
    tslb_store_begin_reading(store.get());
    const std::string content = store.content();
    tslb_store_end_reading(store.get());
    return content;
  }

  tslb_replica_options_t options = {};
  tslb_error_t error = {};
  TestStore store;

 private:
  const std::string folder_, url_;
  tslb_replica_t *replica_ = nullptr;
};

// Waits for a condition, for so long that only a fault ends it.
bool becomes(const std::function<bool()> &condition) {
  for (int left = 3000; left > 0; --left) {
    if (condition()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return false;
}

bool follows(const TestReplica &follower, const TestReplica &leader) {
  return becomes([&] { return follower.info().position.number == leader.info().position.number; });
}

class Replica : public DurableTest {
 protected:
  void SetUp() override {
    if (!NatsServer::is_installed()) GTEST_SKIP() << "nats-server is not installed: nothing was tested";
    server_.emplace(root_ + "/nats");
  }
  std::unique_ptr<TestReplica> make(const std::string &name) {
    return std::make_unique<TestReplica>(root_ + "/" + name, server_->url());
  }

  std::mt19937 random_{7};
  std::optional<NatsServer> server_;
};

}  // namespace

// Any part is started again at random: a follower, the leader, the server. Small chunks, so most groups are several
// messages.
TEST_F(Replica, FollowersEqualTheLeaderAfterAnyRestart) {
  std::vector<std::unique_ptr<TestReplica>> replicas;
  for (const char *const name : {"a", "b", "c"}) {
    replicas.push_back(make(name));
    replicas.back()->options.chunk_bytes = 300;
    ASSERT_TRUE(replicas.back()->open()) << replicas.back()->error.text;
  }
  TestReplica &leader = *replicas[0];
  ASSERT_TRUE(leader.promote()) << leader.error.text;
  EXPECT_EQ(replicas[1]->store.begin(), nullptr);
  uint64_t epoch = 1;
  for (int round = 0; round < 12; ++round) {
    SCOPED_TRACE(fmt::format("round {}", round));
    for (int i = 0; i < 8; ++i) ASSERT_EQ(leader.change(random_), 0) << leader.error.text;
    if (round % 4 == 3) {
      server_->kill_now();
      server_->start();
      continue;
    }
    TestReplica &restarted = *replicas[random_() % 3];
    ASSERT_EQ(restarted.close(), 0) << restarted.error.text;
    ASSERT_TRUE(restarted.open()) << restarted.error.text;
    if (&restarted != &leader) continue;
    ASSERT_TRUE(leader.promote()) << leader.error.text;
    ++epoch;
  }
  for (const auto &follower : {replicas[1].get(), replicas[2].get()}) {
    ASSERT_TRUE(follows(*follower, leader)) << follower->info().text;
    EXPECT_EQ(follower->content(), leader.content());
    EXPECT_EQ(follower->info().position.epoch, epoch);
    EXPECT_EQ(follower->info().n_set_aside, 0u);
  }
}

TEST_F(Replica, FormerLeaderAcknowledgesNothingAndSetsAside) {
  for (const tslb_replica_mode_t mode : {TSLB_REPLICA_BOTH, TSLB_REPLICA_STREAM, TSLB_REPLICA_ASYNC}) {
    SCOPED_TRACE(mode);
    fs::remove_all(root_ + "/a");
    fs::remove_all(root_ + "/b");
    server_.reset();
    fs::remove_all(root_ + "/nats");
    server_.emplace(root_ + "/nats");
    const auto former = make("a"), next = make("b");
    former->options.mode = next->options.mode = mode;
    ASSERT_TRUE(former->open() && next->open());
    ASSERT_TRUE(former->promote()) << former->error.text;
    for (int i = 0; i < 5; ++i) ASSERT_EQ(former->change(random_), 0) << former->error.text;
    ASSERT_TRUE(next->promote()) << next->error.text;
    ASSERT_EQ(next->change(random_), 0) << next->error.text;
    if (mode == TSLB_REPLICA_ASYNC) {
      // Acknowledged here, and then found not to be in the log.
      EXPECT_EQ(former->change(random_), 0);
      EXPECT_TRUE(becomes([&] { return former->info().role == TSLB_REPLICA_ENDED; }));
    }
    EXPECT_EQ(former->change(random_), -1) << "a deposed leader acknowledged a batch";
    EXPECT_THAT(former->error.text, HasSubstr("another replica has written"));
    EXPECT_EQ(former->info().role, TSLB_REPLICA_ENDED);
    former->close();
    ASSERT_TRUE(former->open()) << former->error.text;
    EXPECT_GE(former->info().n_set_aside, 1u);
    EXPECT_GT(fs::file_size(former->info().set_aside), 96u);
    ASSERT_TRUE(follows(*former, *next)) << former->info().text;
    EXPECT_EQ(former->content(), next->content());
  }
}

TEST_F(Replica, OfSeveralThatArePromotedAtOnceOneLeads) {
  const auto a = make("a"), b = make("b"), c = make("c");
  const std::vector<TestReplica *> replicas = {a.get(), b.get(), c.get()};
  for (TestReplica *const replica : replicas) ASSERT_TRUE(replica->open()) << replica->error.text;
  ASSERT_TRUE(c->promote()) << c->error.text;
  for (int i = 0; i < 5; ++i) ASSERT_EQ(c->change(random_), 0);
  for (int round = 0; round < 4; ++round) {
    SCOPED_TRACE(round);
    ASSERT_TRUE(follows(*a, *c) && follows(*b, *c));
    bool has_won[2];
    std::thread other([&] { has_won[1] = b->promote(); });
    has_won[0] = a->promote();
    other.join();
    // If one came after the other had led already, it deposed it.
    ASSERT_TRUE(has_won[0] || has_won[1]) << a->error.text << "; " << b->error.text;
    int n_acknowledged = 0;
    for (TestReplica *const replica : {a.get(), b.get(), c.get()})
      n_acknowledged += replica->change(random_) == 0 ? 1 : 0;
    EXPECT_EQ(n_acknowledged, 1);
    const TestReplica *const leader = a->info().role == TSLB_REPLICA_LEADER ? a.get() : b.get();
    for (TestReplica *const replica : replicas) {
      if (replica != leader && replica->info().role == TSLB_REPLICA_ENDED) {
        replica->close();
        ASSERT_TRUE(replica->open()) << replica->error.text;
      }
      ASSERT_TRUE(follows(*replica, *leader)) << replica->info().text;
      ASSERT_EQ(replica->content(), leader->content());
    }
    // The next round begins with c as the leader.
    ASSERT_TRUE(c->promote()) << c->error.text;
    for (TestReplica *const replica : {a.get(), b.get()}) {
      replica->close();
      ASSERT_TRUE(replica->open()) << replica->error.text;
    }
  }
}

TEST_F(Replica, FollowerBeginsFromASnapshotWhenTheLogWasCut) {
  const auto leader = make("a/"), late = make("b"), fresh = make("c"), near = make("d");
  leader->options.mode = TSLB_REPLICA_ASYNC;
  ASSERT_TRUE(leader->open());
  ASSERT_TRUE(leader->promote()) << leader->error.text;
  ASSERT_TRUE(late->open() && near->open());
  for (int i = 0; i < 20; ++i) ASSERT_EQ(leader->change(random_), 0);
  ASSERT_TRUE(follows(*late, *leader));
  EXPECT_EQ(late->info().n_bootstraps, 1u);
  ASSERT_EQ(late->close(), 0);
  for (int i = 0; i < 20; ++i) ASSERT_EQ(leader->change(random_), 0);
  ASSERT_TRUE(leader->publish_snapshot(true)) << leader->error.text;
  for (int i = 0; i < 3; ++i) ASSERT_EQ(leader->change(random_), 0);
  ASSERT_TRUE(follows(*near, *leader));
  ASSERT_TRUE(late->open() && fresh->open() && near->close() == 0 && near->open());
  for (TestReplica *const follower : {late.get(), fresh.get(), near.get()}) {
    ASSERT_TRUE(follows(*follower, *leader)) << follower->info().text;
    // The log has the end of what `near` has, so all of it was in the log.
    EXPECT_EQ(follower->info().n_bootstraps, follower == near.get() ? 0 : 1u);
    EXPECT_EQ(follower->info().n_set_aside > 0, follower == late.get()) << "what the log may lack is set aside";
    EXPECT_EQ(follower->content(), leader->content());
  }
  // It can lead at once, and the former leader follows it.
  ASSERT_TRUE(fresh->publish_snapshot(true)) << fresh->error.text;
  ASSERT_TRUE(fresh->promote()) << fresh->error.text;
  ASSERT_EQ(fresh->change(random_), 0);
  leader->close();
  ASSERT_TRUE(leader->open()) << leader->error.text;
  ASSERT_TRUE(follows(*leader, *fresh));
  EXPECT_EQ(leader->content(), fresh->content());
}

// Its last group has the number before the log's first one, but the log had another group with that number.
TEST_F(Replica, FormerLeaderBeginsFromASnapshotWhenTheLogWasCutWhereTheyPart) {
  const auto former = make("a"), next = make("b");
  ASSERT_TRUE(former->open() && next->open());
  ASSERT_TRUE(former->promote()) << former->error.text;
  // The log has the begin of the epoch alone. It stays.
  ASSERT_TRUE(former->publish_snapshot(true)) << former->error.text;
  ASSERT_TRUE(follows(*next, *former)) << next->info().text;
  ASSERT_EQ(former->change(random_), 0);
  ASSERT_TRUE(follows(*next, *former)) << next->info().text;
  EXPECT_EQ(next->info().n_bootstraps, 1u) << "a group was not in the log";
  EXPECT_EQ(tslb_replica_promote_after(next->get(), 0, &next->error), -1) << "it deposed a leader";
  EXPECT_EQ(next->error.code, TSLB_DURABLE_REFUSED);
  EXPECT_EQ(tslb_replica_promote_after(next->get(), 1, &next->error), 0) << next->error.text;
  ASSERT_EQ(next->change(random_), 0);
  uint64_t before = 0, after = 0;
  EXPECT_EQ(tslb_replica_get_log_bytes(next->get(), &before, nullptr), 0);
  ASSERT_TRUE(next->publish_snapshot(true)) << next->error.text;
  EXPECT_EQ(tslb_replica_get_log_bytes(next->get(), &after, nullptr), 0);
  EXPECT_LT(after, before);
  EXPECT_FALSE(former->publish_snapshot(false)) << "nobody could begin from it";
  EXPECT_THAT(former->error.text, HasSubstr("has a newer snapshot"));
  ASSERT_EQ(former->change(random_), -1);
  former->close();
  ASSERT_TRUE(former->open()) << former->error.text;
  ASSERT_TRUE(follows(*former, *next)) << former->info().text;
  EXPECT_EQ(former->content(), next->content());
}

TEST_F(Replica, FaultInTheLogEndsFollowingWithItsPlace) {
  const auto leader = make("a"), follower = make("b");
  ASSERT_TRUE(leader->open() && follower->open());
  ASSERT_TRUE(leader->promote()) << leader->error.text;
  ASSERT_EQ(leader->change(random_), 0);
  ASSERT_TRUE(follows(*follower, *leader));
  const std::string content = follower->content();
  natsConnection *connection = nullptr;
  ASSERT_EQ(natsConnection_ConnectTo(&connection, server_->url().c_str()), NATS_OK);
  ASSERT_EQ(natsConnection_PublishString(connection, "test.log", "not a message of the log"), NATS_OK);
  natsConnection_Flush(connection);
  natsConnection_Destroy(connection);
  ASSERT_TRUE(becomes([&] { return follower->info().role == TSLB_REPLICA_ENDED; }));
  EXPECT_THAT(follower->info().text, HasSubstr("test_log: sequence 3"));
  EXPECT_EQ(follower->content(), content);
  EXPECT_EQ(leader->change(random_), -1) << "the leader's group is not the next one";
}

// A store with content that is not from the log founds a log, but follows none.
TEST_F(Replica, ForeignContentIsNeitherMixedInNorLost) {
  for (const char *const name : {"a", "b"}) {
    TestStore plain;
    ASSERT_TRUE(plain.open(root_ + "/" + name));
    tslb_batch_t *const batch = plain.begin();
    plain.add_slot(batch, 1, 8);
    ASSERT_EQ(tslb_batch_commit(batch, nullptr), 0);
  }
  const auto leader = make("a"), foreign = make("b"), follower = make("c");
  ASSERT_TRUE(leader->open() && foreign->open() && follower->open());
  ASSERT_TRUE(leader->promote()) << leader->error.text;
  ASSERT_EQ(leader->change(random_), 0);
  ASSERT_TRUE(follows(*follower, *leader)) << follower->info().text;
  EXPECT_EQ(follower->content(), leader->content());
  ASSERT_TRUE(becomes([&] { return foreign->info().role == TSLB_REPLICA_ENDED; }));
  EXPECT_THAT(foreign->info().text, HasSubstr("content that is not from the log"));
  EXPECT_FALSE(foreign->promote());
}

// The process ended after the store had the position of the begin, or after a generation had it, and before the log had it.
TEST_F(Replica, InterruptedFoundingIsRepeatedOrLeftOut) {
  for (const char *const name : {"a", "b", "c"}) {
    TestStore store;
    const tslb_store_log_t log = {nullptr, [](void *, const tslb_group_t *, char *, size_t) { return 0; }, nullptr,
                                  nullptr};
    store.options.log = &log;
    ASSERT_TRUE(store.open(root_ + "/" + name)) << store.error.text;
    const tslb_log_position_t begin = {1, 1};
    ASSERT_EQ(tslb_store_promote(store.get(), &begin, &store.error), 0) << store.error.text;
    if (*name != 'b') {
      ASSERT_EQ(tslb_store_snapshot(store.get(), &store.error), 0) << store.error.text;
    }
  }
  const auto leader = make("a");
  ASSERT_TRUE(leader->open()) << leader->error.text;
  ASSERT_TRUE(leader->promote()) << leader->error.text;
  for (const char *const name : {"b", "c"}) {
    const auto follower = make(name);
    ASSERT_TRUE(follower->open()) << follower->error.text;
    ASSERT_TRUE(becomes([&] { return follower->info().n_bootstraps == 1; })) << follower->info().text;
    ASSERT_EQ(leader->change(random_), 0);
    ASSERT_TRUE(follows(*follower, *leader)) << follower->info().text;
    EXPECT_EQ(follower->content(), leader->content());
  }
}

// A thread tries all the time to begin a batch. The first one that can begin is acknowledged, also while a log is founded.
TEST_F(Replica, BatchThatBeginsDuringAPromotionIsAcknowledged) {
  const auto a = make("a"), b = make("b");
  b->options.mode = TSLB_REPLICA_ASYNC;
  ASSERT_TRUE(a->open() && b->open());
  for (TestReplica *const replica : {a.get(), b.get(), a.get(), b.get()}) {
    std::thread batches([&] {
      tslb_batch_t *batch = nullptr;
      tslb_error_t refused = {};
      while ((batch = tslb_batch_begin(replica->store.get(), &refused)) == nullptr &&
             refused.code == TSLB_DURABLE_INVALID)
        std::this_thread::sleep_for(std::chrono::microseconds(50));
      ASSERT_NE(batch, nullptr) << refused.text;
      replica->store.add_slot(batch, 1, 8);
      EXPECT_EQ(tslb_batch_commit(batch, &refused), 0) << refused.text;
    });
    EXPECT_TRUE(replica->promote()) << replica->error.text;
    batches.join();
    EXPECT_EQ(replica->info().role, TSLB_REPLICA_LEADER) << replica->info().text;
    ASSERT_EQ(replica->change(random_), 0) << replica->error.text;
    TestReplica &other = replica == a.get() ? *b : *a;
    other.close();
    ASSERT_TRUE(other.open()) << other.error.text;
  }
}

// The seal of the journal is damaged when the store reads it first, and right when it reads it again.
TEST_F(Replica, GroupsAreSetAsideIfTheJournalIsReadTwice) {
  struct Damage {
    std::string folder, journal;
    void flip() const {
      std::fstream file(journal, std::ios::in | std::ios::out | std::ios::binary);
      file.seekg(-1, std::ios::end);
      const char last = static_cast<char>(file.get() ^ 1);
      file.seekp(-1, std::ios::end);
      file.put(last);
    }
    bool has_set_aside() const {
      return std::any_of(fs::directory_iterator(folder), {},
                         [](const auto &entry) { return entry.path().filename().string().starts_with("set_aside"); });
    }
    bool is_there = true;
  } damage = {root_ + "/a", root_ + "/a/journal.1"};
  const auto former = make("a");
  former->options.mode = TSLB_REPLICA_ASYNC;
  former->options.patience_ms = 1000;
  ASSERT_TRUE(former->open());
  ASSERT_TRUE(former->promote()) << former->error.text;
  for (int i = 0; i < 3; ++i) ASSERT_EQ(former->change(random_), 0);
  ASSERT_TRUE(becomes([&] { return former->info().lag == 0; }));
  server_->kill_now();
  for (int i = 0; i < 5; ++i) ASSERT_EQ(former->change(random_), 0);
  EXPECT_EQ(former->close(), -1) << "the groups are in the log";
  server_->start();
  damage.flip();
  former->options.patience_ms = 20'000;
  former->options.store.progress = [](void *arg, uint64_t, uint64_t) {
    Damage &made = *static_cast<Damage *>(arg);
    if (!made.is_there || !made.has_set_aside()) return;
    made.flip();
    made.is_there = false;
  };
  former->options.store.progress_arg = &damage;
  ASSERT_TRUE(former->open()) << former->error.text;
  EXPECT_FALSE(damage.is_there) << "the journal was read once";
  EXPECT_EQ(former->info().position.number, 4u);
  EXPECT_EQ(former->info().n_set_aside, 5u);
  const std::string groups = bytes_of(former->info().set_aside);
  size_t n_groups = 0;
  for (size_t at = 0; (at = groups.find(tslb_replica::MESSAGE_MAGIC, at)) != std::string::npos; ++at) ++n_groups;
  EXPECT_EQ(n_groups, 5u);
}

// A group does not fit on the disk, nor does the frame with which the arrays are restored.
TEST_F(Replica, FollowerGoesOnWhenADiskIsNoLongerFull) {
  const auto leader = make("a"), follower = make("b");
  ASSERT_TRUE(leader->open() && follower->open());
  {
    const FileSizeLimit limit(leader->store.info().journal_bytes + 10);
    EXPECT_FALSE(leader->promote());
    EXPECT_EQ(leader->error.code, TSLB_DURABLE_IO) << leader->error.text;
    EXPECT_EQ(leader->info().role, TSLB_REPLICA_FOLLOWER) << leader->info().text;
  }
  ASSERT_TRUE(leader->promote()) << leader->error.text;
  for (int i = 0; i < 20; ++i) ASSERT_EQ(leader->change(random_), 0);
  ASSERT_TRUE(follows(*follower, *leader)) << follower->info().text;
  tslb_store_begin_reading(follower->store.get());
  for (int i = 0; i < 3; ++i) ASSERT_EQ(leader->change(random_), 0);
  {
    const FileSizeLimit limit(follower->store.info().journal_bytes + 10);
    tslb_store_end_reading(follower->store.get());
    EXPECT_TRUE(
        becomes([&] { return std::string(follower->info().text).find("File too large") != std::string::npos; }));
    EXPECT_EQ(follower->info().role, TSLB_REPLICA_FOLLOWER) << follower->info().text;
  }
  ASSERT_TRUE(follows(*follower, *leader)) << follower->info().text;
  EXPECT_EQ(follower->content(), leader->content());
  EXPECT_EQ(follower->info().n_bootstraps, 1u);
}

TEST_F(Replica, LagIsNotNegativeIfTheClockOfTheLeaderIsFast) {
  const auto leader = make("a"), follower = make("b");
  ASSERT_TRUE(leader->open() && follower->open());
  ASSERT_TRUE(leader->promote()) << leader->error.text;
  ASSERT_EQ(leader->change(random_), 0);
  ASSERT_TRUE(follows(*follower, *leader));
  tslb_replica::NatsLog log({server_->url(), "test"});
  uint64_t last = log.log().span().last;
  tslb_replica::MessageHead head = tslb_replica::read_message(log.log().read(last).value(), "").head;
  head.n_chunks = 1;
  head.chunk = 0;
  head.made_ns += 3'600'000'000'000;
  const auto publish_next = [&] {
    ++head.number;
    const std::string body = tslb_durable::body_of_position({head.epoch, head.number});
    log.log().publish(tslb_replica::messages_of(head, body, body.size()), last++);
  };
  publish_next();
  ASSERT_TRUE(becomes([&] { return follower->info().position.number == head.number && follower->info().lag == 0; }))
      << follower->info().text;
  tslb_store_begin_reading(follower->store.get());
  publish_next();
  EXPECT_TRUE(becomes([&] { return follower->info().lag == 1; }));
  const double lag_s = follower->info().lag_s;
  tslb_store_end_reading(follower->store.get());
  EXPECT_GE(lag_s, 0);
  EXPECT_LT(lag_s, 30);
}

TEST_F(Replica, OpenBatchKeepsAReplicaFromClosing) {
  const auto replica = make("a");
  ASSERT_TRUE(replica->open());
  ASSERT_TRUE(replica->promote()) << replica->error.text;
  tslb_batch_t *const batch = replica->store.begin();
  ASSERT_NE(batch, nullptr);
  tslb_error_t error = {};
  ASSERT_EQ(tslb_replica_close(replica->get(), &error), -1);
  EXPECT_EQ(error.code, TSLB_DURABLE_INVALID) << error.text;
  replica->store.add_slot(batch, 1, 8);
  EXPECT_EQ(tslb_batch_commit(batch, &error), 0) << error.text;
  EXPECT_EQ(replica->close(), 0) << replica->error.text;
}
