// Races for table entries, ids and bytes: decided by hand where an outcome must be forced, and by real
// threads. This program defines the atomics itself and takes all other hooks from the stand-in.
#include <atomic>
#include <set>
#include <thread>
#include <utility>

#include "array_support.h"
#include "fault_alloc.h"
#include "threads.h"

static __thread void *rival;  // the next swap of an empty entry by this thread meets this pointer
static __thread unsigned lock_calls;
// Runs once, ahead of this thread's next swap of the word watched.
static __thread const uint64_t *watched_word;
static __thread void (*before_swap)(uint64_t desired);

extern "C" int32_t cas16(uint16_t *word, uint16_t expected, uint16_t desired) {
  ++lock_calls;
  return __atomic_compare_exchange_n(word, &expected, desired, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
}
extern "C" int32_t cas64(uint64_t *word, uint64_t expected, uint64_t desired) {
  if (rival != nullptr && expected == 0 && *word == 0)
    *word = reinterpret_cast<uint64_t>(std::exchange(rival, nullptr));
  if (word == watched_word) {
    watched_word = nullptr;
    before_swap(desired);
  }
  return __atomic_compare_exchange_n(word, &expected, desired, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
}
extern "C" uint32_t get_and_inc32(uint32_t *word, uint32_t amount) {
  return __atomic_fetch_add(word, amount, __ATOMIC_SEQ_CST);
}
extern "C" uint64_t get_and_inc64(uint64_t *word, uint64_t amount) {
  return __atomic_fetch_add(word, amount, __ATOMIC_SEQ_CST);
}

TEST(Growth, LoserOfTheBlockSwapCountsNothingAndUsesTheRivals) {
  const array_t array(get_default_dyn_array(8, 0, MPOOL_TYPE_DRAM));
  ASSERT_EQ(get_dyn_arr_new_record_id(array.get()), 0);  // tables and block 1 exist
  pretend_issued(array.get(), 17);
  void *const block = calloc(16, 8);
  rival = block;
  void *const record = get_dyn_arr_record_position(array.get(), 16);
  EXPECT_EQ(rival, nullptr) << "the swap that was to be lost did not happen";
  EXPECT_EQ(record, block);
  EXPECT_EQ(get_dyn_total_allocated_records(array.get()), 16u);
}

TEST(Growth, LoserOfTheTableSwapStepsDownTheRivals) {
  const array_t array(get_default_dyn_array(8, 0, MPOOL_TYPE_DRAM));
  pretend_issued(array.get(), 1);
  void *const root = calloc(16, 8);
  rival = root;
  EXPECT_NE(get_dyn_arr_record_position(array.get(), 0), nullptr);
  EXPECT_EQ(static_cast<void *>(array->ir_base), root);
  pretend_issued(array.get(), 257);
  // A rival that has come further: what hangs below its table serves too.
  void *const block = calloc(16, 8);
  void **const table = static_cast<void **>(calloc(16, 8)), **const below = static_cast<void **>(calloc(16, 8));
  table[0] = below;
  below[0] = block;
  rival = table;
  const unsigned long before = allocations_so_far();
  EXPECT_EQ(get_dyn_arr_record_position(array.get(), 256), block);
  if (fault_t::works()) {
    EXPECT_EQ(allocations_so_far(), before + 1) << "more made than the table that lost";
  }
  EXPECT_EQ(static_cast<void *>(array->ir_base->ir2), table);
  EXPECT_EQ(below[0], block);
}

TEST(Growth, FilledEntryIsLeftAlone) {
  const array_t array(get_default_dyn_array(8, 0, MPOOL_TYPE_DRAM));
  int here;
  void *entry = &here;
  get_dyn_array_of_pointers(16, &entry);
  get_dyn_data_array(array.get(), 8, 16, 1, &entry);
  EXPECT_EQ(entry, &here);
  EXPECT_EQ(get_dyn_total_allocated_records(array.get()), 0u);
}

// What a pool's change of slot must keep, with the rival's move made by hand just ahead of a swap of the cursor.
static DynArrHandle_t *pool_under_test;
static DynMemHdr_t &hdr_under_test() {
  return *static_cast<DynMemHdr_t *>(get_user_hdr(pool_under_test));
}
static uint32_t as_seen;

TEST(ChangeOfSlot, CountersAreZeroBeforeTheCursorShowsTheSlot) {
  const array_t pool(tslb_init_dynmem(1000, 4, 0, MPOOL_TYPE_DRAM, 0, nullptr, 0, TSLB_DA_DAFLAG_LL));
  pool_under_test = pool.get();
  maddr_t address;
  tslb_dynmem_get_mchunk(pool.get(), &address, 1000, srcaddr_t{});
  as_seen = 77;
  before_swap = [](uint64_t desired) {
    const uint32_t new_slot = static_cast<uint32_t>(desired);
    as_seen = static_cast<MemSlot_t *>(tslb_da_get_ptr(pool_under_test, new_slot))->bytes_used;
  };
  watched_word = &hdr_under_test().cur_slot_addr;
  tslb_dynmem_get_mchunk(pool.get(), &address, 500, srcaddr_t{});
  EXPECT_EQ(as_seen, 0u) << "a rival's first reservation would be wiped out";
}

TEST(ChangeOfSlot, LateReservationInTheOldSlotStands) {
  const array_t pool(tslb_init_dynmem(1000, 4, 0, MPOOL_TYPE_DRAM, 0, nullptr, 0, 0));
  pool_under_test = pool.get();
  maddr_t address;
  tslb_dynmem_get_mchunk(pool.get(), &address, 900, srcaddr_t{});
  before_swap = [](uint64_t) {
    maddr_t late;  // fits where the caller's chunk did not
    tslb_dynmem_get_mchunk(pool_under_test, &late, 60, srcaddr_t{});
    as_seen = as_word(late);
  };
  watched_word = &hdr_under_test().cur_slot_addr;
  tslb_dynmem_get_mchunk(pool.get(), &address, 500, srcaddr_t{});
  EXPECT_EQ(as_seen, 900u << 8);
  EXPECT_EQ(as_word(address), 1u) << "the change of slot gave up, or took a second slot";
  EXPECT_EQ(tslb_da_get_size(pool.get()), 2u);
  EXPECT_EQ(hdr_under_test().cur_slot_addr, 1 | (uint64_t{500} << 32));
}

// A swap that is lost twice is tried a third time, at the place that the second rival left.
TEST(Reservation, TriedUntilNoRivalIsFirst) {
  for (const bool wide : {false, true}) {
    const array_t pool(tslb_init_dynmem(1000, 4, 0, MPOOL_TYPE_DRAM, 0, nullptr, 0, 0));
    pool_under_test = pool.get();
    maddr_t address;
    tslb_dynmem_get_mchunk(pool.get(), &address, 100, srcaddr_t{});
    before_swap = [](uint64_t desired) {
      hdr_under_test().cur_slot_addr += uint64_t{10} << 32;
      if (desired >> 32 == 150) watched_word = &hdr_under_test().cur_slot_addr;  // the first attempt
    };
    watched_word = &hdr_under_test().cur_slot_addr;
    maddr64_t wide_address = {7, 7};
    if (wide)
      tslb_dynmem_get_mchunk64(pool.get(), &wide_address, 50, srcaddr64_t{});
    else
      tslb_dynmem_get_mchunk(pool.get(), &address, 50, srcaddr_t{});
    EXPECT_EQ(wide ? wide_address.mchunk_idx : address.mchunk_idx, 120u) << "bytes were handed out twice";
    EXPECT_EQ(hdr_under_test().cur_slot_addr >> 32, 170u);
    EXPECT_EQ(tslb_da_get_size(pool.get()), 1u) << "a slot with room was left";
  }
}

TEST(ChangeOfSlot, RingThatARivalMovedIsNotMovedAgain) {
  const array_t pool(tslb_init_dynmem(64, 4, 0, MPOOL_TYPE_DRAM_TMP, MPOOL_FLAG_BV, nullptr, 0, 0));
  pool_under_test = pool.get();
  maddr_t address;
  for (int i = 0; i < 254 + 10; ++i) tslb_dynmem_get_mchunk(pool.get(), &address, 64, srcaddr_t{});
  ASSERT_EQ(as_word(address), 9u) << "the ring has wrapped and slot 9 is full";
  before_swap = [](uint64_t) { hdr_under_test().cur_slot_addr = 10 | (uint64_t{24} << 32); };
  watched_word = &hdr_under_test().cur_slot_addr;
  tslb_dynmem_get_mchunk(pool.get(), &address, 8, srcaddr_t{});
  EXPECT_EQ(as_word(address), 10u | (3u << 11)) << "a rival's bytes were handed out twice";
}

TEST(Locks, TakenOnceWhereAListIsTouchedAndNowhereElse) {
  const array_t lists(tslb_da_init_ll(8, 4, MPOOL_TYPE_DRAM, nullptr, 0, TSLB_DA_DAFLAG_LL));
  const array_t plain(tslb_da_init_v5(8, 4, MPOOL_TYPE_DRAM, nullptr, 0));
  const auto calls_of = [](auto work) {
    const unsigned before = lock_calls;
    work();
    return lock_calls - before;
  };
  uint32_t idx;
  EXPECT_EQ(calls_of([&] { tslb_da_get_newptr(lists.get(), &idx); }), 2u);
  EXPECT_EQ(calls_of([&] { tslb_da_get_newptr_ex(lists.get(), &idx, 0); }), 0u);
  EXPECT_EQ(calls_of([&] { tslb_da_get_range(lists.get(), 0); }), 2u);
  EXPECT_EQ(calls_of([&] { tslb_da_get_range(lists.get(), 3); }), 2u);
  EXPECT_EQ(calls_of([&] { tslb_da_get_newptr(plain.get(), &idx); }), 0u);
  EXPECT_EQ(calls_of([&] { tslb_da_get_ptr(lists.get(), 1); }), 0u);
}

TEST(Threads, IdsAreUniqueAndRecordsDistinct) {
  constexpr int kThreads = 4, kIds = 6000;
  const array_t array(get_default_dyn_array_ex(57, 12, 20, MPOOL_TYPE_DRAM, 0, nullptr, TSLB_DA_DAFLAG_INLL));
  std::vector<std::vector<std::pair<int32_t, void *>>> taken(kThreads);
  on_threads(kThreads, [&](int self) {
    for (int i = 0; i < kIds; ++i) {
      void *record;
      const int32_t id = get_dyn_arr_new_record_id_ex(array.get(), &record, TSLB_DA_DAFLAG_INLL);
      // The whole slot, nodes included: what overlaps another thread's slot shows below, and under TSan at
      // once.
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

TEST(Threads, LookupsOfUntouchedBlocksEndUpWithOneEach) {
  constexpr uint32_t kIds = 20000;
  for (int round = 0; round < 5; ++round) {
    const array_t array(get_default_dyn_array(8, 0, MPOOL_TYPE_DRAM));
    pretend_issued(array.get(), kIds);
    std::vector<std::vector<void *>> seen(3, std::vector<void *>(kIds));
    on_threads(3, [&](int self) {
      for (uint32_t id = 0; id < kIds; ++id)
        seen[static_cast<size_t>(self)][id] = get_dyn_arr_record_position(array.get(), id);
    });
    EXPECT_EQ(seen[0], seen[1]);
    EXPECT_EQ(seen[0], seen[2]);
    EXPECT_EQ(get_dyn_total_allocated_records(array.get()), kIds);
  }
}

TEST(Threads, SlotsOfAListArrayAreHandedOutOnce) {
  const array_t array(tslb_da_init_ll(16, 8, MPOOL_TYPE_DRAM_TMP, nullptr, 0, TSLB_DA_DAFLAG_INLL));
  uint32_t used;
  for (int i = 0; i < 6000; ++i) tslb_da_get_newptr(array.get(), &used);
  for (uint32_t i = 0; i < 6000; ++i) tslb_da_free_idx(array.get(), i);  // half of what follows comes from the list
  std::vector<std::vector<uint32_t>> taken(4);
  on_threads(4, [&](int self) {
    for (int i = 0; i < 3000; ++i) {
      uint32_t idx;
      void *const slot = tslb_da_get_newptr(array.get(), &idx);
      write_at(slot, 8, idx);
      taken[static_cast<size_t>(self)].push_back(idx);
    }
  });
  std::set<uint32_t> all;
  for (const auto &part : taken) all.insert(part.begin(), part.end());
  EXPECT_EQ(all.size(), 12000u);
  EXPECT_EQ(list_roots(array.get()).n_free, 0u);
  EXPECT_EQ(tslb_da_get_size(array.get()), 12000u);
  for (const uint32_t idx : all) {
    void *const slot = tslb_da_get_ptr(array.get(), idx);
    ASSERT_EQ(read_at<uint32_t>(slot, 8), idx);
    ASSERT_EQ(forward_node(slot).status, TSLB_DA_SLOT_ACTIVE);
  }
}

// Every chunk is filled with its owner's mark and checked at the end; every counter that promises to be exact
// is.
TEST(Threads, ChunksAreDisjointAndCountedToTheByte) {
  constexpr int kThreads = 4, kChunks = 4000;
  for (const char slot_type : std::initializer_list<char>{0, MPOOL_FLAG_BV}) {
    const array_t pool(tslb_init_dynmem(16384, 2, MPOOL_FLAG_COMPAT, MPOOL_TYPE_DRAM_TMP + (slot_type == 0 ? 0 : -1),
                                        slot_type, "p", 1, TSLB_DA_DAFLAG_LL));
    struct chunk_t {
      maddr_t address;
      int len;
    };
    std::vector<std::vector<chunk_t>> taken(kThreads);
    std::atomic<uint64_t> reserved{0};
    const size_t global_before = g_mem_st.total_mused;
    on_threads(kThreads, [&](int self) {
      for (int i = 0; i < kChunks; ++i) {
        const int len = 8 + 8 * ((i + self) % 20);
        maddr_t address;
        char *const chunk = bytes_of(tslb_dynmem_get_mchunk(pool.get(), &address, len, srcaddr_t{}));
        memset(chunk + 16, self + 1, static_cast<size_t>(len));
        taken[static_cast<size_t>(self)].push_back({address, len});
        reserved += static_cast<uint64_t>(len) + 16;
      }
    });
    for (int self = 0; self < kThreads; ++self) {
      for (const auto &[address, len] : taken[static_cast<size_t>(self)]) {
        uint32_t size;
        char *const data = bytes_of(tslb_dynmem_get_maddr2ptr_ex(pool.get(), address, &size));
        ASSERT_EQ(size, static_cast<uint32_t>(len) - 1);
        ASSERT_EQ(std::string(data, static_cast<size_t>(len)),
                  std::string(static_cast<size_t>(len), static_cast<char>(self + 1)));
      }
    }
    uint64_t in_slots = 0;
    for (uint32_t idx = 0; idx < tslb_da_get_size(pool.get()); ++idx)
      in_slots += static_cast<MemSlot_t *>(tslb_da_get_ptr(pool.get(), idx))->bytes_used;
    const DynMemHdr_t *const hdr = static_cast<const DynMemHdr_t *>(get_user_hdr(pool.get()));
    EXPECT_EQ(in_slots, reserved);
    EXPECT_EQ(hdr->total_mused, reserved);
    EXPECT_EQ(g_mem_st.total_mused - global_before, reserved);
    EXPECT_GE(hdr->total_mwast, 16u * kThreads * kChunks);
    // A slot is given up with less than the longest chunk left: more slots than this were taken by two threads for one.
    EXPECT_LE(tslb_da_get_size(pool.get()), reserved / (16384 - 176) + 1);
  }
}
