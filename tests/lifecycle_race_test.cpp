// Tests with threads that take and free: slots of one array with lists and a reuse policy, and chunks of one pool with
// concurrent sweeps. A table of owners detects a slot that two threads own at once. Afterwards everything is counted.
#include <atomic>
#include <random>

#include <tslb/tslb_settings.h>
#include <tslb/tslb_util.h>
#include "forced.h"
#include "list_audit.h"
#include "pool_support.h"
#include "threads.h"

constexpr int kThreads = 4;

[[maybe_unused]] static const bool kThreadsChange = additions_yield = true;

class slot_user_t {
 public:
  static constexpr uint32_t kRecordSize = 24;
  static constexpr size_t kMax = 60;  // slots of one thread

  slot_user_t(DynArrHandle_t *array, std::vector<std::atomic<int>> &owners, int self)
      : array_(array), owners_(owners), self_(self), random_(static_cast<uint32_t>(self) + 17) {}

  void step() {
    const uint32_t choice = mine_.empty() ? 0 : mine_.size() == kMax ? 40 + random_() % 60 : random_() % 100;
    if (choice < 40) return take();
    slot_t &slot = mine_[random_() % mine_.size()];
    check(slot);
    if (choice < 60) {
      give_up(slot, [&](uint32_t idx) { return tslb_da_free_idx(array_, idx); });
    } else if (slot.parked) {
      EXPECT_EQ(tslb_da_activate_idx(array_, slot.idx), 0);
      slot.parked = false;
    } else if (choice < 80) {
      // Too young for reuse while this test runs, so the slot stays this thread's.
      EXPECT_EQ(tslb_da_inactivate_idx(array_, slot.idx, tslb_get_time(nullptr) + 1000000), 0);
      slot.parked = true;
    } else {
      give_up(slot, [&](uint32_t idx) { return tslb_da_inactivate_idx(array_, idx, 1); });
    }
  }

  // Returns the number of active slots.
  size_t check_all() {
    size_t active = 0;
    for (const slot_t &slot : mine_) {
      check(slot);
      active += slot.parked ? 0 : 1;
    }
    return active;
  }
  uint32_t reused() const { return reused_; }

 private:
  struct slot_t {
    uint32_t idx;
    char mark;
    bool parked;
  };

  void take() {
    uint32_t idx, last_ts;
    uint8_t last_status = 0;
    void *const slot = random_() % 2 != 0 ? tslb_da_get_newptr(array_, &idx)
                                          : tslb_da_get_newptr_inll(array_, &idx, &last_ts, &last_status);
    EXPECT_EQ(owners_[idx].exchange(self_ + 1), 0) << "slot " << idx << " was given to two threads";
    reused_ += last_status == TSLB_DA_SLOT_INACTIVE ? 1 : 0;
    EXPECT_EQ(std::string(bytes_of(slot) + 4, kRecordSize - 4), std::string(kRecordSize - 4, '\0'));
    mine_.push_back({idx, static_cast<char>(random_()), false});
    memset(bytes_of(slot) + 4, mine_.back().mark, kRecordSize - 4);
  }

  void check(const slot_t &slot) {
    void *const payload = tslb_da_get_ptr(array_, slot.idx);
    EXPECT_EQ(std::string(bytes_of(payload) + 4, kRecordSize - 4), std::string(kRecordSize - 4, slot.mark));
    EXPECT_EQ(owners_[slot.idx].load(), self_ + 1);
  }

  template <class Operation>
  void give_up(slot_t &slot, Operation operation) {
    const uint32_t idx = slot.idx;
    slot = mine_.back();
    mine_.pop_back();
    owners_[idx].store(0);
    EXPECT_EQ(operation(idx), 0);
  }

  DynArrHandle_t *array_;
  std::vector<std::atomic<int>> &owners_;
  int self_;
  std::mt19937 random_;
  std::vector<slot_t> mine_;
  uint32_t reused_ = 0;
};

TEST(Slots, ConcurrentTakeFreeInactivateAndReuse) {
  constexpr int kSteps = 12000;
  const array_t array(
      tslb_da_init_ll(slot_user_t::kRecordSize, 8, MPOOL_TYPE_DRAM_TMP, nullptr, 0, TSLB_DA_DAFLAG_INLL));
  tsdb_mem_pressure_config_t policy = {1, {}, {0, 0, 0, 100, 0}, {}};
  tslb_da_register_reuse_policy(array.get(), &policy);
  lib_config.tslb_mvt_reuse_enabled = 1;
  // Both lists have members from the start, so that threads meet at their heads immediately.
  tslb_da_get_range(array.get(), 400);
  for (uint32_t idx = 0; idx < 400; ++idx) {
    if (idx % 2 == 0)
      tslb_da_free_idx(array.get(), idx);
    else
      tslb_da_inactivate_idx(array.get(), idx, 1);
  }

  std::vector<std::atomic<int>> owners(kThreads * kSteps);
  std::vector<slot_user_t> users;
  for (int self = 0; self < kThreads; ++self) users.emplace_back(array.get(), owners, self);
  on_threads(kThreads, [&](int self) {
    for (int i = 0; i < kSteps && !testing::Test::HasFailure(); ++i) users[static_cast<size_t>(self)].step();
  });
  lib_config.tslb_mvt_reuse_enabled = 0;

  const lists_t lists = audit_lists(array.get());
  size_t active = 0;
  uint32_t reused = 0;
  for (slot_user_t &user : users) {
    active += user.check_all();
    reused += user.reused();
  }
  EXPECT_EQ(lists.free.size() + lists.inactive.size() + active, tslb_da_get_size(array.get()));
  EXPECT_GT(reused, 100u) << "the inactive list was not used";
}

// Expects that the headers of a slot's chunks add up to its counters.
static void expect_counted(MemSlot_t &slot) {
  uint32_t used = 0, deleted = 0;
  while (used < slot.bytes_used) {
    const compat_t *const chunk = reinterpret_cast<const compat_t *>(slot.mslot + used);
    if ((chunk->flag & MCHUNK_FLAG_DELETED) != 0) deleted += chunk->mchunk_len + 16u;
    used += chunk->mchunk_len + 16u;
  }
  EXPECT_EQ(used, slot.bytes_used);
  EXPECT_EQ(deleted, slot.bytes_del);
}

class chunk_user_t {
 public:
  static constexpr size_t kMax = 24;  // chunks of one thread

  chunk_user_t(DynArrHandle_t *pool, int self) : pool_(pool), random_(static_cast<uint32_t>(self) + 71) {}

  void step() {
    const uint32_t choice = random_() % 100;
    if (choice < 4) {
      size_t total, used, deleted;
      tslb_dynmem_update_free_list(pool_, &total, &used, &deleted);
    } else if (live_.empty() || (choice < 53 && live_.size() < kMax)) {
      chunk_t chunk = {{}, static_cast<size_t>(8 + random_() % 300), static_cast<char>(random_())};
      char *const at = bytes_of(tslb_dynmem_get_mchunk(pool_, &chunk.address, static_cast<int>(chunk.len), {}));
      memset(at + 16, chunk.mark, chunk.len);
      reserved_ += chunk.len + 16;
      live_.push_back(chunk);
    } else {
      std::swap(live_[random_() % live_.size()], live_.back());
      delete_last();
    }
  }
  void delete_last() {
    check(live_.back());
    tslb_dynmem_del_mchunk(pool_, live_.back().address);
    live_.pop_back();
  }
  void delete_all() {
    while (!live_.empty()) delete_last();
  }
  size_t check_all() {
    size_t bytes = 0;
    for (const chunk_t &chunk : live_) {
      check(chunk);
      bytes += chunk.len + 16;
    }
    return bytes;
  }
  size_t reserved() const { return reserved_; }

 private:
  struct chunk_t {
    maddr_t address;
    size_t len;
    char mark;
  };

  void check(const chunk_t &chunk) {
    uint32_t size;
    const char *const data = bytes_of(tslb_dynmem_get_maddr2ptr_ex(pool_, chunk.address, &size));
    EXPECT_EQ(size, chunk.len - 1);
    EXPECT_EQ(std::string(data, chunk.len), std::string(chunk.len, chunk.mark));
  }

  DynArrHandle_t *pool_;
  std::mt19937 random_;
  std::vector<chunk_t> live_;
  size_t reserved_ = 0;
};

TEST(Chunks, ConcurrentTakeDeleteAndSweep) {
  constexpr int kSteps = 8000;
  const array_t pool = pool_of({}, 4, 2048);
  const size_t global_before = g_mem_st.total_mused;
  std::vector<chunk_user_t> users;
  for (int self = 0; self < kThreads; ++self) users.emplace_back(pool.get(), self);
  on_threads(kThreads, [&](int self) {
    for (int i = 0; i < kSteps && !testing::Test::HasFailure(); ++i) users[static_cast<size_t>(self)].step();
  });

  size_t total, used, deleted, live = 0, reserved = 0;
  for (chunk_user_t &user : users) {
    live += user.check_all();
    reserved += user.reserved();
  }
  EXPECT_EQ(hdr_of(pool).total_mused, reserved);
  EXPECT_EQ(g_mem_st.total_mused - global_before, reserved);
  tslb_dynmem_update_free_list(pool.get(), &total, &used, &deleted);
  EXPECT_EQ(used - deleted, live) << "a live chunk is in a freed slot, or was counted wrong";
  const uint32_t n_slots = tslb_da_get_size(pool.get()), current = cursor_slot(pool);
  EXPECT_EQ(status_at(pool.get(), current), TSLB_DA_SLOT_ACTIVE);
  for (uint32_t idx = 0; idx < n_slots; ++idx) {
    if (status_at(pool.get(), idx) != TSLB_DA_SLOT_ACTIVE) continue;
    MemSlot_t &slot = slot_at(pool, idx);
    expect_counted(slot);
    EXPECT_TRUE(idx == current || slot.bytes_del != slot.bytes_used)
        << "empty slot " << idx << " was not freed by a sweep";
  }
  // A slot that became empty while it was current is freed by one sweep.
  for (chunk_user_t &user : users) user.delete_all();
  tslb_dynmem_update_free_list(pool.get(), &total, &used, &deleted);
  EXPECT_EQ(used, deleted);
  EXPECT_EQ(used, slot_at(pool, current).bytes_used);
  EXPECT_EQ(audit_lists(pool.get()).free.size(), n_slots - 1);
}
