// Stores with a log: what a leader appends, what followers apply, and what becomes of groups that are not in the log.
#include <gmock/gmock.h>

#include <cerrno>

#include "durable_support.h"
#include "fault_alloc.h"
#include "io_faults.h"

using testing::HasSubstr;

namespace {

struct LoggedGroup {
  std::string body;
  tslb_log_position_t position;
  uint32_t n_batches;
  tslb_group_t view() const { return {body.data(), body.size(), n_batches, position}; }
};

// A log in memory.
struct TestLog {
  std::vector<LoggedGroup> groups;
  std::string failure;         // of append and confirm, if it is not empty
  uint64_t kept = UINT64_MAX;  // number of the last group that an opening keeps
  uint64_t last_found = 0;

  static int report(const std::string &failure, char *why, size_t capacity) {
    if (failure.empty()) return 0;
    snprintf(why, capacity, "%s", failure.c_str());
    return -1;
  }
  static int append(void *arg, const tslb_group_t *group, char *why, size_t capacity) {
    auto &log = *static_cast<TestLog *>(arg);
    if (log.failure.empty())
      log.groups.push_back({{static_cast<const char *>(group->body), group->bytes}, group->position, group->n_batches});
    return report(log.failure, why, capacity);
  }
  static int confirm(void *arg, char *why, size_t capacity) {
    return report(static_cast<TestLog *>(arg)->failure, why, capacity);
  }
  static int found(void *arg, const tslb_group_t *group, char *, size_t) {
    auto &log = *static_cast<TestLog *>(arg);
    log.last_found = group->position.number;
    return group->position.number <= log.kept ? 1 : 0;
  }
  tslb_store_log_t functions() { return {this, append, confirm, found}; }
};

class LoggedStore : public TestStore {
 public:
  explicit LoggedStore(TestLog &log) : functions_(log.functions()) { options.log = &functions_; }

  bool apply(const tslb_group_t &group) { return tslb_store_apply(get(), &group, &error) == 0; }
  uint64_t number() const { return tslb_store_position(get()).number; }
  bool promote(uint64_t epoch) {
    const tslb_log_position_t position = {epoch, number() + 1};
    return tslb_store_promote(get(), &position, &error) == 0;
  }

 private:
  tslb_store_log_t functions_;
};

}  // namespace

class DurableLog : public DurableTest {
 protected:
  static constexpr uint64_t N_GROUPS = 12;

  // Fills the log: group 1 begins the epoch. states_[i] is the content after group i.
  void lead(LoggedStore &leader) {
    std::mt19937 random(11);
    ASSERT_TRUE(leader.open(folder_)) << leader.error.text;
    ASSERT_TRUE(leader.promote(1)) << leader.error.text;
    log_.groups.push_back({"", {1, 1}, 0});
    states_ = {leader.content(), leader.content()};
    while (states_.size() <= N_GROUPS) {
      tslb_batch_t *const batch = leader.begin();
      ASSERT_NE(batch, nullptr) << leader.error.text;
      leader.change(batch, random);
      const std::string payload = std::to_string(states_.size());
      tslb_batch_set_payload(batch, payload.data(), payload.size(), nullptr);
      ASSERT_EQ(tslb_batch_commit(batch, &leader.error), 0) << leader.error.text;
      states_.push_back(leader.content());
    }
  }

  void follow(LoggedStore &follower, size_t n_groups) {
    ASSERT_TRUE(follower.open(root_ + "/follower")) << follower.error.text;
    for (size_t i = 0; i < n_groups; ++i) ASSERT_TRUE(follower.apply(log_.groups[i].view())) << follower.error.text;
  }

  TestLog log_;
  std::vector<std::string> states_;
};

TEST_F(DurableLog, FollowersEqualTheLeaderAndCanLead) {
  LoggedStore leader(log_);
  lead(leader);
  ASSERT_EQ(log_.groups.size(), N_GROUPS);
  TestLog other;
  LoggedStore follower(other);
  ASSERT_TRUE(follower.open(root_ + "/follower"));
  EXPECT_EQ(tslb_store_layout(follower.get()), tslb_store_layout(leader.get()));
  for (uint64_t number = 1; number <= N_GROUPS; ++number) {
    ASSERT_TRUE(follower.apply(log_.groups[number - 1].view())) << follower.error.text;
    EXPECT_FALSE(follower.apply(log_.groups[number - 1].view())) << "a group was applied twice";
    ASSERT_EQ(follower.content(), states_[number]);
    EXPECT_EQ(follower.begin(), nullptr) << "a follower has batches of its own";
    if (number == 1) continue;
    EXPECT_EQ(follower.payload(), std::to_string(number));
    if (number == 7) {
      ASSERT_EQ(tslb_store_snapshot(follower.get(), &follower.error), 0);
    }
    if (number % 4 == 0) {
      ASSERT_EQ(follower.close(), 0);
      ASSERT_TRUE(follower.open(root_ + "/follower")) << follower.error.text;
      EXPECT_EQ(follower.number(), number);
      EXPECT_EQ(follower.content(), states_[number]);
    }
  }
  // It leads, and its groups fit the former leader.
  ASSERT_TRUE(follower.promote(2)) << follower.error.text;
  std::mt19937 random(5);
  for (int i = 0; i < 5; ++i) {
    tslb_batch_t *const batch = follower.begin();
    ASSERT_NE(batch, nullptr) << follower.error.text;
    follower.change(batch, random);
    ASSERT_EQ(tslb_batch_commit(batch, &follower.error), 0) << follower.error.text;
  }
  ASSERT_EQ(leader.close(), 0);
  ASSERT_TRUE(leader.open(folder_));
  const tslb_group_t begin = {nullptr, 0, 0, {2, N_GROUPS + 1}};
  ASSERT_TRUE(leader.apply(begin)) << leader.error.text;
  for (const LoggedGroup &group : other.groups) ASSERT_TRUE(leader.apply(group.view())) << leader.error.text;
  EXPECT_EQ(leader.content(), follower.content());
  EXPECT_EQ(tslb_store_position(leader.get()).epoch, 2u);
}

TEST_F(DurableLog, NothingOfAnInvalidGroupIsApplied) {
  LoggedStore leader(log_);
  lead(leader);
  TestLog other;
  LoggedStore follower(other);
  ASSERT_NO_FATAL_FAILURE(follow(follower, 6));
  const LoggedGroup &next = log_.groups[6];
  for (size_t bytes = 1; bytes < next.body.size(); ++bytes) {
    tslb_group_t cut = next.view();
    cut.bytes = bytes;
    ASSERT_FALSE(follower.apply(cut)) << "the first " << bytes << " bytes";
    ASSERT_EQ(follower.error.code, TSLB_DURABLE_INVALID) << follower.error.text;
    ASSERT_EQ(follower.content(), states_[6]) << "the first " << bytes << " bytes";
  }
  tslb_group_t renamed = next.view();
  renamed.position.number = 8;
  EXPECT_FALSE(follower.apply(renamed));
  EXPECT_THAT(follower.error.text, HasSubstr("another group"));
  // A failure of the disk is no fault of the group: it can be applied later.
  tslb_durable::fail_at_io(1, ENOSPC);
  EXPECT_FALSE(follower.apply(next.view()));
  EXPECT_EQ(follower.error.code, TSLB_DURABLE_REFUSED) << follower.error.text;
  EXPECT_EQ(follower.content(), states_[6]);
  ASSERT_TRUE(follower.apply(next.view())) << follower.error.text;
  EXPECT_EQ(follower.content(), states_[7]);
  ASSERT_EQ(follower.close(), 0);
  ASSERT_TRUE(follower.open(root_ + "/follower")) << follower.error.text;
  EXPECT_EQ(follower.content(), states_[7]);
}

TEST_F(DurableLog, RefusedAllocationAppliesAllOfAGroupOrNothing) {
  if (!fault_t::works()) GTEST_SKIP();
  LoggedStore leader(log_);
  lead(leader);
  TestLog other;
  LoggedStore follower(other);
  ASSERT_NO_FATAL_FAILURE(follow(follower, 6));
  int n_struck = 0;
  for (bool is_applied = false;; ++n_struck) {
    const tslb_group_t group = log_.groups[6].view();
    {
      const fault_t fault(n_struck + 1);
      is_applied = tslb_store_apply(follower.get(), &group, &follower.error) == 0;
    }
    ASSERT_EQ(follower.content(), states_[is_applied ? 7 : 6]) << "allocation " << n_struck + 1;
    if (is_applied) break;
    EXPECT_THAT(follower.error.code, testing::AnyOf(TSLB_DURABLE_NO_MEMORY, TSLB_DURABLE_REFUSED));
  }
  EXPECT_GT(n_struck, 1);  // AddressSanitizer has its own operator new
}

TEST_F(DurableLog, FailureOfTheLogBreaksTheStore) {
  LoggedStore leader(log_);
  lead(leader);
  log_.failure = "another leads";
  EXPECT_EQ(tslb_store_snapshot(leader.get(), &leader.error), -1) << "a generation has groups that are not in the log";
  EXPECT_THAT(leader.error.text, HasSubstr("another leads"));
  log_.failure.clear();
  ASSERT_EQ(tslb_store_snapshot(leader.get(), &leader.error), 0) << leader.error.text;
  log_.failure = "another leads";
  tslb_batch_t *const batch = leader.begin();
  leader.add_slot(batch, 1, 8);
  EXPECT_EQ(tslb_batch_commit(batch, &leader.error), -1) << "a group that is not in the log was acknowledged";
  EXPECT_EQ(leader.error.code, TSLB_DURABLE_BROKEN);
  EXPECT_THAT(leader.error.text, HasSubstr("another leads"));
  EXPECT_EQ(leader.begin(), nullptr);
}

TEST_F(DurableLog, GroupsOutsideOfTheLogAreLeftOut) {
  for (const uint64_t kept : {5, 11}) {
    SCOPED_TRACE(kept);
    fs::remove_all(folder_);
    log_ = {};
    LoggedStore store(log_);
    lead(store);
    ASSERT_EQ(store.close(), 0);
    log_.kept = kept;
    ASSERT_TRUE(store.open(folder_)) << store.error.text;
    EXPECT_EQ(log_.last_found, N_GROUPS) << "not all groups that are left out were shown";
    EXPECT_EQ(store.content(), states_[kept]);
    EXPECT_EQ(store.payload(), std::to_string(kept));
    ASSERT_TRUE(store.apply(log_.groups[kept].view())) << store.error.text;
    ASSERT_EQ(store.close(), 0);
    log_.kept = UINT64_MAX;
    ASSERT_TRUE(store.open(folder_)) << store.error.text;
    EXPECT_EQ(store.content(), states_[kept + 1]);
  }
}

TEST_F(DurableLog, WithoutItsLogAStoreIsOnlyReadOrDetached) {
  LoggedStore leader(log_);
  lead(leader);
  const tslb_store_info_t before = leader.info();
  ASSERT_EQ(leader.close(), 0);
  TestStore alone;
  EXPECT_FALSE(alone.open(folder_));
  EXPECT_THAT(alone.error.text, HasSubstr("TSLB_STORE_DETACH"));
  EXPECT_FALSE(alone.open(folder_, TSLB_STORE_DETACH | TSLB_STORE_BULK)) << "another content for the same position";
  ASSERT_TRUE(alone.open(folder_, TSLB_STORE_READ_ONLY)) << alone.error.text;
  EXPECT_EQ(tslb_store_position(alone.get()).number, N_GROUPS);
  ASSERT_EQ(alone.close(), 0);
  ASSERT_TRUE(alone.open(folder_, TSLB_STORE_DETACH)) << alone.error.text;
  EXPECT_NE(std::memcmp(alone.info().identity, before.identity, sizeof before.identity), 0);
  ASSERT_EQ(alone.close(), 0);
  ASSERT_TRUE(alone.open(folder_)) << alone.error.text;
  EXPECT_EQ(alone.content(), states_.back());
}

// The restoration of a group that the full disk refuses finds no room either. What readers see is the state before.
TEST_F(DurableLog, ReadersSeeOneStateWhileADiskIsFull) {
  LoggedStore leader(log_);
  lead(leader);
  TestLog none;
  LoggedStore follower(none);
  ASSERT_NO_FATAL_FAILURE(follow(follower, 5));
  {
    const FileSizeLimit limit(follower.info().journal_bytes + 10);
    ASSERT_FALSE(follower.apply(log_.groups[5].view()));
    EXPECT_EQ(follower.error.code, TSLB_DURABLE_IO) << follower.error.text;
  }
  tslb_store_begin_reading(follower.get());
  EXPECT_EQ(follower.content(), states_[5]);
  EXPECT_EQ(follower.payload(), "5");
  tslb_store_end_reading(follower.get());
  ASSERT_EQ(tslb_store_restore(follower.get(), &follower.error), 0) << follower.error.text;
  ASSERT_TRUE(follower.apply(log_.groups[5].view())) << follower.error.text;
  EXPECT_EQ(follower.content(), states_[6]);
}

// The position and the arrays are of one group at every moment, also while a copy of the leader is adopted.
TEST_F(DurableLog, KilledFollowerHasAWholeState) {
  LoggedStore leader(log_);
  lead(leader);
  ASSERT_EQ(tslb_store_backup(leader.get(), (root_ + "/copy").c_str(), &leader.error), 0) << leader.error.text;
  const std::string empty = [this] {
    LoggedStore store(log_);
    return store.open(root_ + "/empty") ? store.content() : "";
  }();
  int n_kills = 0;
  for (uint64_t k = 1;; k += 3) {
    SCOPED_TRACE(fmt::format("step {}", k));
    fs::remove_all(root_ + "/follower");
    const int ended = in_child([&] {
      TestLog none;
      LoggedStore follower(none);
      if (!follower.open(root_ + "/follower")) return 1;
      tslb_durable::crash_at_io(k);
      for (size_t i = 0; i < 6; ++i)
        if (!follower.apply(log_.groups[i].view())) return 2;
      if (tslb_store_snapshot(follower.get(), &follower.error) != 0) return 3;
      if (tslb_store_adopt(follower.get(), (root_ + "/copy").c_str(), &follower.error) != 0) return 4;
      return follower.close() == 0 ? 0 : 5;
    });
    ASSERT_TRUE(ended == 0 || ended == -SIGKILL) << ended;
    n_kills += ended != 0 ? 1 : 0;
    TestLog none;
    LoggedStore follower(none);
    ASSERT_TRUE(follower.open(root_ + "/follower")) << follower.error.text;
    const uint64_t number = follower.number();
    ASSERT_EQ(follower.content(), number == 0 ? empty : states_[number]);
    const bool is_adopted =
        std::memcmp(follower.info().identity, leader.info().identity, sizeof(leader.info().identity)) == 0;
    ASSERT_EQ(is_adopted, number == N_GROUPS);
    if (ended != 0) continue;
    ASSERT_TRUE(is_adopted);
    break;
  }
  EXPECT_GT(n_kills, 10);
}
