// Tests of races for table entries, ids and bytes: with a forced interleaving where an outcome is required, and with
// real threads.
#include <sys/mman.h>

#include <set>

#include "fault_alloc.h"
#include "forced.h"
#include "pool_support.h"
#include "single_step.h"
#include "stored_image.h"
#include "threads.h"

// Another thread fills an entry directly before the swap.
template <class Entry>
static void fill_ahead(Entry *entry, void *with) {
  before_swap.arm(entry, [=] { *entry = static_cast<Entry>(with); });
}

TEST(Growth, LostBlockSwapCountsNothingAndUsesTheOtherBlock) {
  const base_path_t base;
  for (const char mem_type : {MPOOL_TYPE_DRAM, MPOOL_TYPE_SHM}) {
    const array_t array(get_default_dyn_array_ex(0, 8, 0, mem_type, 12, "metrics", 0));
    ASSERT_EQ(get_dyn_arr_new_record_id(array.get()), 0);  // tables and block 1 exist
    pretend_issued(array.get(), 17);
    void *const block = mem_type == MPOOL_TYPE_DRAM
                            ? calloc(16, 8)
                            : mmap(nullptr, 128, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    fill_ahead(&array->ir_base->ir1[1], block);
    EXPECT_EQ(get_dyn_arr_record_position(array.get(), 16), block);
    EXPECT_EQ(before_swap.word, nullptr) << "the swap did not happen";
    EXPECT_EQ(get_dyn_total_allocated_records(array.get()), 16u) << "memory type " << int{mem_type};
  }
}

TEST(Growth, LostTableSwapUsesTheOtherTable) {
  const array_t array(get_default_dyn_array(8, 0, MPOOL_TYPE_DRAM));
  pretend_issued(array.get(), 1);
  void *const root = calloc(16, 8);
  fill_ahead(&array->ir_base, root);
  EXPECT_NE(get_dyn_arr_record_position(array.get(), 0), nullptr);
  EXPECT_EQ(static_cast<void *>(array->ir_base), root);
  pretend_issued(array.get(), 257);
  // The other thread's table already contains a block, which is used too.
  void *const block = calloc(16, 8);
  void **const table = static_cast<void **>(calloc(16, 8)), **const below = static_cast<void **>(calloc(16, 8));
  table[0] = below;
  below[0] = block;
  fill_ahead(&array->ir_base->ir2, table);
  const unsigned long before = allocations_so_far();
  EXPECT_EQ(get_dyn_arr_record_position(array.get(), 256), block);
  if (fault_t::works()) {
    EXPECT_EQ(allocations_so_far(), before + 1) << "more was allocated than the table that lost the race";
  }
  EXPECT_EQ(static_cast<void *>(array->ir_base->ir2), table);
  EXPECT_EQ(below[0], block);
}

// Takes a chunk with a 32-bit or 64-bit address. Returns its offset.
static uint32_t take_either(const array_t &pool, int len, bool wide) {
  return wide ? take64(pool, len).mchunk_idx : take(pool, len).mchunk_idx;
}

TEST(ChangeOfSlot, CountersAreZeroBeforeTheCursorShowsTheSlot) {
  const array_t pool = pool_of({.compat = 0});
  take(pool, 1000);
  uint32_t as_seen = 77;
  before_swap.arm(&hdr_of(pool).cur_slot_addr, [&] { as_seen = slot_at(pool, 1).bytes_used; });
  take(pool, 500);
  EXPECT_EQ(as_seen, 0u) << "another thread's first reservation would be lost";
}

TEST(ChangeOfSlot, RingThatAnotherThreadMovedIsNotMovedAgain) {
  const array_t pool =
      pool_of({.compat = 0, .daflag = 0, .slot_type = MPOOL_FLAG_BV, .mem_type = MPOOL_TYPE_DRAM_TMP}, 4, 64);
  ASSERT_EQ(as_word(take_several(pool, 254 + 10, 64).back()), 9u) << "the ring has wrapped and slot 9 is full";
  before_swap.arm(&hdr_of(pool).cur_slot_addr, [&] { set_cursor(pool, 10, 24); });
  EXPECT_EQ(as_word(take(pool, 8)), 10u | (3u << 11)) << "another thread's bytes were allocated twice";
}

// While a thread waits for the lock to leave slot 252, other threads complete the ring and reach that slot again. The
// state under the lock decides: slot 254 would be above the ring, and its addresses would name two chunks.
TEST(ChangeOfSlot, RingCompletedDuringTheWaitGetsNoFurtherSlot) {
  static const struct {
    const char *fault;
    int filled;  // of the 64 bytes of slot 252, when it is reached again
    uint32_t slot, byte_off;
  } rows[] = {
      {"slot 254 issued", 64, 253, 0},
      {"slot left that has room again", 32, 252, 32},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    const array_t pool =
        pool_of({.compat = 0, .daflag = 0, .slot_type = MPOOL_FLAG_BV, .mem_type = MPOOL_TYPE_DRAM_TMP}, 4, 64);
    take_several(pool, 253, 64);
    before_lock.arm(&pool->spinlock, [&] {
      stdout_of([&] { take_several(pool, 1 + 252, 64); });
      take(pool, row.filled);
      ASSERT_EQ(cursor_slot(pool), 252u);
    });
    EXPECT_EQ(as_word(take(pool, 32)), row.slot | row.byte_off / 8 << 11);
    EXPECT_EQ(tslb_da_get_size(pool.get()), 254u);
  }
}

// The same in a pool with lists: the slot was freed and taken again, and half of it is free.
TEST(ChangeOfSlot, ReusedCurrentSlotWithRoomIsNotLeft) {
  for (const bool wide : {false, true}) {
    const array_t pool = pool_of();
    const maddr_t first = take(pool, 900);
    before_lock.arm(&pool->spinlock, [&] {
      take(pool, 900);
      del(pool, first);
      EXPECT_EQ(as_word(take(pool, 500)), 0u);
    });
    EXPECT_EQ(take_either(pool, 400, wide), 500u);
    EXPECT_EQ(cursor_slot(pool), 0u);
    EXPECT_EQ(tslb_da_get_size(pool.get()), 2u);
  }
}

// A pool reaches its limit with a slot that another thread has just taken and that has room.
TEST(ChangeOfSlot, LimitDoesNotRefuseWhatTheCurrentSlotCanHold) {
#if defined(TSLB_SANITIZES_THREAD)
  GTEST_SKIP() << "ThreadSanitizer delays signals";
#elif defined(TSLB_SANITIZES_ADDRESS)
  GTEST_SKIP() << "single steps through AddressSanitizer's checks take minutes";
#endif
  size_t instructions = 0;
  for (bool reached = true; reached; ++instructions) {
    // Small slots: clearing a new block takes one step per byte.
    const array_t pool = pool_of({.max_slots = 8}, 4, 64);
    take_several(pool, 4, 64);
    maddr_t address = {};
    void *chunk = nullptr;
    reached = single_step_t::run(
        pool.get(), instructions + 1, [&] { chunk = tslb_dynmem_get_mchunk(pool.get(), &address, 8, srcaddr_t{}); },
        [&] { take(pool, 24); });
    ASSERT_NE(chunk, nullptr) << "interrupted at instruction " << instructions + 1;
  }
  EXPECT_GT(instructions, 30u) << "the allocation was not interrupted";
}

TEST(ChangeOfSlot, ThreadThatLosesUsesTheOthersSlot) {
  for (const bool wide : {false, true}) {
    const array_t pool = pool_of();
    take(pool, 900);
    before_lock.arm(&pool->spinlock, [&] { EXPECT_EQ(as_word(take(pool, 300)), 1u); });
    EXPECT_EQ(take_either(pool, 400, wide), 300u);
    ASSERT_EQ(before_lock.word, nullptr);
    EXPECT_EQ(tslb_da_get_size(pool.get()), 2u) << "more than one slot was taken";
    EXPECT_EQ(slot_at(pool, 1).bytes_used, 700u);
  }
}

// No other thread may use the lists, and the ids of an array with lists are issued under the same lock.
TEST(ChangeOfSlot, NewSlotIsTakenUnderTheLock) {
  for (const bool wide : {false, true}) {
    const array_t pool = pool_of();
    uint32_t held = 9;
    before_addition.arm(&get_dyn_hdr(pool.get())->n_used, [&] { held = pool->spinlock; });
    take_either(pool, 400, wide);
    EXPECT_EQ(held, 1u);
    EXPECT_EQ(pool->spinlock, 0);
  }
  // The cursor's slot in a complete ring also changes only under the lock.
  const array_t ring =
      pool_of({.compat = 0, .daflag = 0, .slot_type = MPOOL_FLAG_BV, .mem_type = MPOOL_TYPE_DRAM_TMP}, 4, 64);
  take_several(ring, 254 + 1, 64);
  uint32_t held = 9;
  before_swap.arm(&hdr_of(ring).cur_slot_addr, [&] { held = ring->spinlock; });
  EXPECT_EQ(as_word(take(ring, 64)), 1u);
  EXPECT_EQ(held, 1u) << "the ring moves its cursor without the lock";
  EXPECT_EQ(ring->spinlock, 0);
}

// A swap that fails twice is tried a third time, at the offset that the second thread left.
TEST(Reservation, RetriedUntilItSucceeds) {
  for (const bool wide : {false, true}) {
    const array_t pool = pool_of({.compat = 0, .daflag = 0});
    take(pool, 100);
    const auto reserve_10 = [&] { set_cursor(pool, 0, cursor_off(pool) + 10); };
    before_swap.arm(&hdr_of(pool).cur_slot_addr, [&] {
      reserve_10();
      before_swap.arm(&hdr_of(pool).cur_slot_addr, reserve_10);
    });
    EXPECT_EQ(take_either(pool, 50, wide), 120u) << "bytes were allocated twice";
    EXPECT_EQ(cursor_off(pool), 170u);
    EXPECT_EQ(tslb_da_get_size(pool.get()), 1u) << "a slot with room was left";
  }
}

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
