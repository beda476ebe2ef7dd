// Tests of locks that operations take, of invariants, and of ids of real threads. tests/explore searches all interleavings
// of small cases.
#include <set>

#include "forced.h"
#include "pool_support.h"
#include "threads.h"

TEST(Locks, TakenOncePerListOperationAndNowhereElse) {
  const array_t lists(tslb_da_init_ll(8, 4, MPOOL_TYPE_DRAM, nullptr, 0, TSLB_DA_DAFLAG_LL));
  const array_t plain(tslb_da_init_v5(8, 4, MPOOL_TYPE_DRAM, nullptr, 0));
  const auto calls_of = [](auto work) {
    const unsigned before = n_lock_swaps;
    work();
    return n_lock_swaps - before;
  };
  uint32_t idx, last_ts;
  uint8_t last_status;
  EXPECT_EQ(calls_of([&] { tslb_da_get_newptr(lists.get(), &idx); }), 2u);
  EXPECT_EQ(calls_of([&] { tslb_da_get_newptr_inll(lists.get(), &idx, &last_ts, &last_status); }), 2u);
  EXPECT_EQ(calls_of([&] { tslb_da_get_newptr_ex(lists.get(), &idx, 0); }), 0u);
  EXPECT_EQ(calls_of([&] { tslb_da_get_range(lists.get(), 3); }), 2u);
  EXPECT_EQ(calls_of([&] { tslb_da_get_newptr(plain.get(), &idx); }), 0u);
  EXPECT_EQ(calls_of([&] { tslb_da_get_ptr(lists.get(), 1); }), 0u);
}

// A word that an operation must not change is changed while it holds the lock.
TEST(Invariants, OperationThatBreaksOneEndsTheProcess) {
#ifndef TSLB_CHECKS_INVARIANTS
  GTEST_SKIP() << "the library was built without TSLB_CHECK_INVARIANTS";
#endif
  static const struct {
    const char *rule;
    bool is_pool;
    void (*damage)(const array_t &array);
  } rows[] = {
      {"LIST_COUNT", false, [](const array_t &array) { ++list_roots(array.get()).n_free; }},
      {"LIST_TAIL", false, [](const array_t &array) { list_roots(array.get()).inact_tail = 0; }},
      {"LIST_STRAY", false,
       [](const array_t &array) { forward_node(tslb_da_get_ptr(array.get(), 0)).status = TSLB_DA_SLOT_FREE; }},
      {"POOL_CURSOR_BYTE", true, [](const array_t &pool) { set_cursor(pool, 0, 1001); }},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.rule);
    const array_t array =
        row.is_pool ? pool_of() : array_t(tslb_da_init_ll(8, 8, MPOOL_TYPE_DRAM, nullptr, 0, TSLB_DA_DAFLAG_INLL));
    uint32_t idx;
    tslb_da_get_newptr(array.get(), &idx);
    EXPECT_DEATH(
        {
          before_addition.arm(&get_dyn_hdr(array.get())->n_used, [&] { row.damage(array); });
          tslb_da_get_newptr(array.get(), &idx);
        },
        row.rule);
  }
}

TEST(Threads, IdsAreUniqueAndRecordsDistinct) {
  constexpr int kThreads = 4, kIds = 6000;
  const array_t array(get_default_dyn_array_ex(57, 12, 20, MPOOL_TYPE_DRAM, 0, nullptr, TSLB_DA_DAFLAG_INLL));
  std::vector<std::vector<std::pair<int32_t, void *>>> taken(kThreads);
  on_threads(kThreads, [&](int self) {
    for (int i = 0; i < kIds; ++i) {
      void *record;
      const int32_t id = get_dyn_arr_new_record_id_ex(array.get(), &record, TSLB_DA_DAFLAG_INLL);
      // Nodes included: an overlap with another thread's slot shows in the check below, and immediately under TSan.
      memset(bytes_of(record) - 8, self + 1, 28);
      taken[static_cast<size_t>(self)].push_back({id, record});
    }
  });
  std::set<int32_t> ids;
  for (int self = 0; self < kThreads; ++self) {
    for (const auto &[id, record] : taken[static_cast<size_t>(self)]) {
      ids.insert(id);
      ASSERT_EQ(get_dyn_arr_record_position_ex(array.get(), static_cast<uint32_t>(id), 0, nullptr, 2), record);
      ASSERT_EQ(std::string(bytes_of(record) - 8, 28), std::string(28, static_cast<char>(self + 1)));
    }
  }
  EXPECT_EQ(ids.size(), size_t{kThreads * kIds});
  EXPECT_EQ(*ids.rbegin(), kThreads * kIds - 1);
  const uint32_t blocks = (kThreads * kIds - 20 + 15) / 16;
  EXPECT_EQ(get_dyn_total_allocated_records(array.get()), 20 + 16 * blocks);
}
