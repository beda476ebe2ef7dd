// Deletion of chunks and the way of emptied slots back to the free list, chunks under 64-bit addresses, and both
// resolvers. This program defines the atomics itself, and stands before free, so that other operations can be put between
// a reservation and its counter, ahead of the lock, or into the search through notes.
#include <dlfcn.h>

#include <functional>
#include <regex>
#include <thread>
#include <utility>

#include "fault_alloc.h"
#include "list_audit.h"
#include "redo_recorder.h"

// Work that comes between: once, when `word` is about to be added to or to be locked.
struct between_t {
  const void *word = nullptr;
  std::function<void()> work;

  template <class Work>
  void arm(const void *at, Work then) {
    word = at;
    work = then;
  }
  void meet(const void *at) {
    if (word == nullptr || at != word) return;
    word = nullptr;
    std::exchange(work, {})();
  }
};
static between_t before_addition, before_lock;

extern "C" int32_t cas16(uint16_t *word, uint16_t expected, uint16_t desired) {
  if (desired != 0) before_lock.meet(word);
  return __atomic_compare_exchange_n(word, &expected, desired, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
}
extern "C" int32_t cas64(uint64_t *word, uint64_t expected, uint64_t desired) {
  return __atomic_compare_exchange_n(word, &expected, desired, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
}
static const uint32_t *counted_ahead;  // the next addition to this word is made by hand, at another time

extern "C" uint32_t get_and_inc32(uint32_t *word, uint32_t amount) {
  before_addition.meet(word);
  if (counted_ahead == word) {
    counted_ahead = nullptr;
    amount = 0;
  }
  return __atomic_fetch_add(word, amount, __ATOMIC_SEQ_CST);
}
extern "C" uint64_t get_and_inc64(uint64_t *word, uint64_t amount) {
  return __atomic_fetch_add(word, amount, __ATOMIC_SEQ_CST);
}

static bool release_is_met;
static std::function<void()> before_release;  // of memory, by whoever is next

#ifndef __SANITIZE_ADDRESS__  // which needs its own free before symbols can be looked up
extern "C" __attribute__((visibility("default"))) void free(void *block) {
  static const auto real = reinterpret_cast<void (*)(void *)>(dlsym(RTLD_NEXT, "free"));
  if (release_is_met) {
    release_is_met = false;
    before_release();
  }
  real(block);
}
#endif

constexpr int kSlotBytes = 1000;

struct kind_t {
  char compat = MPOOL_FLAG_COMPAT;
  uint8_t daflag = TSLB_DA_DAFLAG_LL;
  char slot_type = 0;
  short max_slots = 0;
  unsigned char mem_type = MPOOL_TYPE_DRAM;
};

static array_t pool_of(kind_t kind = {}, int n_slots = 4, int slot_bytes = kSlotBytes) {
  return array_t(tslb_init_dynmem_ex1(slot_bytes, n_slots, kind.compat, kind.mem_type, kind.slot_type, "pool", -4,
                                      kind.daflag, 0, 1, kind.max_slots));
}
static DynMemHdr_t &hdr_of(const array_t &pool) {
  return *static_cast<DynMemHdr_t *>(get_user_hdr(pool.get()));
}
static uint32_t cursor_slot(const array_t &pool) {
  return static_cast<uint32_t>(hdr_of(pool).cur_slot_addr);
}
static MemSlot_t &slot_at(const array_t &pool, uint32_t idx) {
  return *static_cast<MemSlot_t *>(tslb_da_get_ptr(pool.get(), idx));
}

// A chunk of `len` bytes, its header included where there is one.
static maddr_t take(const array_t &pool, int len = 250) {
  const int hdr_bytes = (hdr_of(pool).flag & MPOOL_FLAG_COMPAT) != 0 ? 16 : 0;
  maddr_t address = {};
  char *const chunk = bytes_of(tslb_dynmem_get_mchunk(pool.get(), &address, len - hdr_bytes, srcaddr_t{}));
  if (chunk == nullptr)
    ADD_FAILURE() << "no chunk of " << len;
  else
    memset(chunk + hdr_bytes, 'x', static_cast<size_t>(len - hdr_bytes));
  return address;
}
static std::vector<maddr_t> take_several(const array_t &pool, int count, int len = 250) {
  std::vector<maddr_t> addresses;
  for (int i = 0; i < count; ++i) addresses.push_back(take(pool, len));
  return addresses;
}
static void del(const array_t &pool, maddr_t address) {
  tslb_dynmem_del_mchunk(pool.get(), address);
}

struct sums_t {
  size_t total, used, deleted;
};
static sums_t sweep(const array_t &pool) {
  sums_t sums = {1, 1, 1};
  tslb_dynmem_update_free_list(pool.get(), &sums.total, &sums.used, &sums.deleted);
  return sums;
}
static void expect_sums(const array_t &pool, size_t used, size_t deleted) {
  const size_t total = hdr_of(pool).total_msz;
  const sums_t sums = sweep(pool);
  EXPECT_EQ(sums.total, total);
  EXPECT_EQ(sums.used, used);
  EXPECT_EQ(sums.deleted, deleted);
}
static indices_t free_slots(const array_t &pool) {
  return audit_lists(pool.get()).free;
}

// ---- Deletion ---------------------------------------------------------------------------------------------------------

TEST(Deletion, LastOfAFilledSlotGivesItBack) {
  for (const char slot_type : std::initializer_list<char>{0, MPOOL_FLAG_BV}) {
    const array_t pool = pool_of({.slot_type = slot_type});
    const auto filled = take_several(pool, 3, 320);
    take(pool, 320);
    const DynMemHdr_t before = hdr_of(pool);
    const GlobalMemStats_t global_before = g_mem_st;
    for (const int i : {1, 0}) {
      del(pool, filled[static_cast<size_t>(i)]);
      EXPECT_TRUE(free_slots(pool).empty());
    }
    EXPECT_EQ(slot_at(pool, 0).bytes_used, 960u);
    EXPECT_EQ(slot_at(pool, 0).bytes_del, 640u);
    redo_recorder_t log(&pool->spinlock);
    del(pool, filled[2]);
    EXPECT_EQ(free_slots(pool), indices_t{0});
    const auto records = log.take();
    ASSERT_EQ(records.size(), 2u) << "the slot's node and the header";
    EXPECT_EQ(records[0].data_off, 140u);
    EXPECT_EQ(records[0].bytes.size(), 8u);
    EXPECT_EQ(records[1].data_off, 0u);
    EXPECT_EQ(records[1].bytes.size(), 140u);
    EXPECT_FALSE(records[0].locked || records[1].locked);
    EXPECT_EQ(memcmp(&g_mem_st, &global_before, sizeof(g_mem_st)), 0) << "deletion does not touch the totals";
    EXPECT_EQ(memcmp(&hdr_of(pool), &before, sizeof(before)), 0);
  }
}

TEST(Deletion, CurrentSlotWaitsForTheSweepBehindTheCursor) {
  const array_t pool = pool_of();
  for (const maddr_t address : take_several(pool, 3)) del(pool, address);
  EXPECT_EQ(slot_at(pool, 0).bytes_del, 750u);
  expect_sums(pool, 750, 750);
  EXPECT_TRUE(free_slots(pool).empty()) << "the current slot was given back";
  take(pool, 500);
  EXPECT_TRUE(free_slots(pool).empty()) << "nobody looked at slot 0 since";
  expect_sums(pool, 500, 0);
  EXPECT_EQ(free_slots(pool), indices_t{0});
}

TEST(Deletion, SecondDeletionCountsNothingAndTheChunkResolves) {
  const array_t pool = pool_of();
  const maddr_t address = take(pool, 116);
  char *const data = bytes_of(tslb_dynmem_get_maddr2ptr(pool.get(), address));
  data[-4] = 0x7E;  // bits of the host's own
  del(pool, address);
  EXPECT_EQ(data[-4], 0x7F);
  del(pool, address);
  EXPECT_EQ(slot_at(pool, 0).bytes_del, 116u);
  uint32_t size = 0;
  EXPECT_EQ(tslb_dynmem_get_maddr2ptr_ex(pool.get(), address, &size), data);
  EXPECT_EQ(size, 99u);
  EXPECT_EQ(std::string(data, 100), std::string(100, 'x'));
}

TEST(Deletion, WhatCannotBeDeletedStays) {
  const array_t bare = pool_of({.compat = 0});
  const auto chunks = take_several(bare, 5);
  const std::string image(bytes_of(bare->arr_base), 140 + 4 * 1016);
  for (const maddr_t address : chunks) del(bare, address);
  EXPECT_EQ(std::string(bytes_of(bare->arr_base), image.size()), image) << "a chunk without a header was deleted";
  expect_sums(bare, 0, 0);

  const array_t pool = pool_of();
  del(pool, maddr_t{});  // no slot was taken yet
  const auto filled = take_several(pool, 4);
  take(pool);
  del(pool, maddr_t{2, 0});
  EXPECT_TRUE(free_slots(pool).empty());
  expect_sums(pool, 1250, 0);

  // A slot that is stored as free, with chunks in it, is not freed by their deletion.
  forward_node(&slot_at(pool, 0)).status = TSLB_DA_SLOT_FREE;
  redo_recorder_t log;
  for (const maddr_t address : filled) del(pool, address);
  EXPECT_EQ(list_roots(pool.get()).n_free, 0u);
  EXPECT_TRUE(log.take().empty()) << "a release was logged that was none";
}

TEST(Deletion, PoolWithoutListsSaysSoAndKeepsItsSlots) {
  const array_t pool = pool_of({.daflag = 0});
  const auto filled = take_several(pool, 4);
  take(pool);
  std::string output = stdout_of([&] {
    for (size_t i = 0; i < 3; ++i) del(pool, filled[i]);
  });
  EXPECT_EQ(output, "");
  output = stdout_of([&] { del(pool, filled[3]); });
  EXPECT_TRUE(std::regex_match(output, std::regex("tslb_dynarr_lists\\.cpp:[0-9]+:tslb_da_free_idx: Warning: provided "
                                                  "dynamic array has not advance features but using APIs for the "
                                                  "same\\.\n")))
      << output;
  EXPECT_EQ(slot_at(pool, 0).bytes_used, 1000u);
  EXPECT_EQ(slot_at(pool, 0).bytes_del, 1000u);
  EXPECT_EQ(stdout_of([&] { expect_sums(pool, 0, 0); }), "");
}

TEST(Deletion, ChunkOfNoBytesKeepsItsSlot) {
  const array_t pool = pool_of();
  const auto filled = take_several(pool, 3, 320);
  const maddr_t empty = take(pool, 16);
  take(pool);
  for (const maddr_t address : filled) del(pool, address);
  del(pool, empty);
  EXPECT_EQ(bytes_of(tslb_dynmem_get_maddr2ptr(pool.get(), empty))[-4], MCHUNK_FLAG_DELETED);
  EXPECT_EQ(slot_at(pool, 0).bytes_used, 976u);
  EXPECT_EQ(slot_at(pool, 0).bytes_del, 960u);
  expect_sums(pool, 976 + 250, 960);
  EXPECT_TRUE(free_slots(pool).empty());
}

TEST(Deletion, SlotComesBackAsANewOne) {
  const array_t pool = pool_of({.daflag = TSLB_DA_DAFLAG_INLL});
  auto filled = take_several(pool, 8);  // slots 0 and 1
  take(pool, 900);
  for (const size_t i : {4u, 5u, 6u, 7u, 0u, 1u, 2u, 3u}) del(pool, filled[i]);
  EXPECT_EQ(free_slots(pool), (indices_t{1, 0}));
  for (const uint32_t want : {1u, 0u, 3u}) {
    const maddr_t address = take(pool, 600);
    EXPECT_EQ(as_word(address), want);
    EXPECT_EQ(slot_at(pool, want).bytes_used, 600u);
    EXPECT_EQ(slot_at(pool, want).bytes_del, 0u);
    const char *const slot = slot_at(pool, want).mslot;
    EXPECT_EQ(std::string(slot + 600, 400), std::string(400, '\0')) << "not cleared";
    EXPECT_EQ(slot[12], 0) << "the old chunk's mark survived";
    EXPECT_EQ(status_at(pool.get(), want), TSLB_DA_SLOT_ACTIVE);
  }
}

// ---- Sweep ------------------------------------------------------------------------------------------------------------

TEST(Sweep, SumsAreThoseOfTheActiveSlotsThatStay) {
  const array_t pool = pool_of({.daflag = 3}, 2);  // the others lie in redirected blocks
  for (const uint8_t kept : {0, 1, 2, 3}) {
    // Slot 0 keeps nothing, slot 1 one chunk and so on; only slot 0 is given back.
    const auto filled = take_several(pool, 4);
    for (size_t i = kept; i < 4; ++i) del(pool, filled[i]);
  }
  take(pool, 100);
  pretend_issued(pool.get(), 6);  // an id without an allocation
  EXPECT_TRUE(free_slots(pool).empty()) << "slot 0 was current when its last chunk went";
  expect_sums(pool, 3000 + 100, 750 + 500 + 250);
  EXPECT_EQ(free_slots(pool), indices_t{0});
  expect_sums(pool, 3000 + 100, 750 + 500 + 250);
  EXPECT_EQ(free_slots(pool), indices_t{0});
  EXPECT_EQ(slot_at(pool, 5).bytes_used, 0u) << "a slot that nobody took was freed";
  ASSERT_EQ(tslb_da_inactivate_idx(pool.get(), 2, 1), 0);
  expect_sums(pool, 2000 + 100, 750 + 250);
  uint32_t idx;
  tslb_da_get_newptr(pool.get(), &idx);
  ASSERT_EQ(idx, 0u);
  expect_sums(pool, 2000 + 100, 750 + 250);  // a slot whose counters are not set up yet has none
}

TEST(Sweep, TakesSlotsInOrderAndThoseThatNeverHeldAChunk) {
  const array_t pool = pool_of({}, 20);
  for (int i = 0; i < 6; ++i) del(pool, take(pool, 700));
  EXPECT_TRUE(free_slots(pool).empty());
  uint32_t idx;
  tslb_da_get_newptr(pool.get(), &idx);  // a slot that a host took by itself
  slot_at(pool, idx).bytes_used = 0;
  EXPECT_EQ(cursor_slot(pool), 5u);
  expect_sums(pool, 700, 700);
  EXPECT_EQ(free_slots(pool), (indices_t{0, 1, 2, 3, 4, 6}));
}

TEST(Sweep, NeedsTheFreeListFlag) {
  for (const uint8_t daflag : std::initializer_list<uint8_t>{TSLB_DA_DAFLAG_INLL, 3}) {
    const array_t pool = pool_of({.daflag = daflag});
    del(pool, take(pool, 900));
    take(pool, 900);
    const bool swept = (daflag & TSLB_DA_DAFLAG_LL) != 0;
    expect_sums(pool, swept ? 900 : 0, 0);
    EXPECT_EQ(free_slots(pool), swept ? indices_t{0} : indices_t{}) << int{daflag};
  }
}

TEST(Sweep, CompactionIsHarmlessOnEveryPool) {
  for (const uint8_t daflag : std::initializer_list<uint8_t>{0, 1, 2}) {
    for (const char compat : std::initializer_list<char>{0, MPOOL_FLAG_COMPAT}) {
      const array_t pool = pool_of({.compat = compat, .daflag = daflag});
      tslb_dynmem_memcompat(pool.get());
      del(pool, take(pool));
      const std::string image(bytes_of(pool->arr_base), 4000);
      tslb_dynmem_memcompat(pool.get());
      EXPECT_EQ(std::string(bytes_of(pool->arr_base), image.size()), image);
    }
  }
}

// ---- Between a reservation and its counter ----------------------------------------------------------------------------

TEST(Window, SlotOfALateChunkIsKeptAndGivenBackWithIt) {
  for (const uint8_t daflag : std::initializer_list<uint8_t>{TSLB_DA_DAFLAG_LL, 3}) {
    for (const uint32_t late_len : {250u, 20u}) {  // up to the slot's end, and short of it
      const array_t pool = pool_of({.daflag = daflag});
      const auto early = take_several(pool, 3);
      before_addition.arm(&slot_at(pool, 0).bytes_used, [&] {
        take(pool, 900);  // moves the cursor on
        for (const maddr_t address : early) del(pool, address);
        EXPECT_EQ(slot_at(pool, 0).bytes_used, slot_at(pool, 0).bytes_del);
        expect_sums(pool, 750 + 900, 750);
        EXPECT_TRUE(free_slots(pool).empty());
        take(pool, 900);  // neither does a later slot take the note away
        sweep(pool);
        EXPECT_TRUE(free_slots(pool).empty());
      });
      const maddr_t late = take(pool, static_cast<int>(late_len));
      ASSERT_EQ(before_addition.word, nullptr) << "nothing came between";
      EXPECT_EQ(slot_at(pool, 0).bytes_used, 750 + late_len);
      const std::string data(bytes_of(tslb_dynmem_get_maddr2ptr(pool.get(), late)), late_len - 16);
      EXPECT_EQ(data, std::string(late_len - 16, 'x'));
      sweep(pool);
      EXPECT_TRUE(free_slots(pool).empty()) << "a slot was given away with a live chunk in it";
      del(pool, late);
      EXPECT_EQ(free_slots(pool), indices_t{0}) << "the late chunk's deletion gives the slot back";
    }
  }
}

TEST(Window, TwoLateChunksAreBothWaitedFor) {
  const array_t pool = pool_of();
  const maddr_t early = take(pool);
  maddr_t inner = {};
  before_addition.arm(&slot_at(pool, 0).bytes_used, [&] {
    before_addition.arm(&slot_at(pool, 0).bytes_used, [&] {
      take(pool, 900);
      del(pool, early);
    });
    inner = take(pool, 100);
    // Counted and deleted again: equal once more, with the outer one on its way still.
    del(pool, inner);
    EXPECT_EQ(slot_at(pool, 0).bytes_used, slot_at(pool, 0).bytes_del);
    sweep(pool);
    EXPECT_TRUE(free_slots(pool).empty());
  });
  const maddr_t outer = take(pool, 200);
  EXPECT_EQ(slot_at(pool, 0).bytes_used, 550u);
  EXPECT_TRUE(free_slots(pool).empty());
  del(pool, outer);
  EXPECT_EQ(free_slots(pool), indices_t{0});
}

TEST(Window, SlotsLeftUnsettledAtOnceAreToldApart) {
  // A late chunk in slot 0, and another in slot 1 while that one is late.
  const array_t pool = pool_of();
  const maddr_t early = take(pool, 700);
  maddr_t second_early = {}, second_late = {};
  before_addition.arm(&slot_at(pool, 0).bytes_used, [&] {
    second_early = take(pool, 700);
    before_addition.arm(&slot_at(pool, 1).bytes_used, [&] {
      take(pool, 900);
      del(pool, early);
      del(pool, second_early);
      sweep(pool);
      EXPECT_TRUE(free_slots(pool).empty());
    });
    second_late = take(pool, 300);
    del(pool, second_late);
    EXPECT_EQ(free_slots(pool), indices_t{1}) << "settled, though slot 0 is not";
  });
  const maddr_t late = take(pool, 300);
  EXPECT_EQ(free_slots(pool), indices_t{1});
  del(pool, late);
  EXPECT_EQ(free_slots(pool), (indices_t{1, 0}));
  EXPECT_EQ(as_word(take(pool, 900)), 1u);
}

// The pool's end is the note's as well, which a sanitizer sees. Nobody asked about the slot since.
TEST(Window, NoteThatNobodyAskedAboutGoesWithThePool) {
  const array_t pool = pool_of();
  take(pool);
  before_addition.arm(&slot_at(pool, 0).bytes_used, [&] { take(pool, 900); });
  const unsigned long before = allocations_so_far();
  take(pool, 200);
  if (fault_t::works()) {
    EXPECT_EQ(allocations_so_far(), before + 1) << "no note was made";
  }
}

// The cursor is stored: one that somebody else wrote can name a slot that does not exist.
TEST(Window, CursorAtASlotThatNeverWasIsLeftBehind) {
  const array_t pool = pool_of();
  hdr_of(pool).cur_slot_addr = 50 | (uint64_t{900} << 32);
  EXPECT_EQ(as_word(take(pool, 900)), 0u);
  EXPECT_EQ(slot_at(pool, 0).bytes_used, 900u);
}

// A slot is looked at for deletions after it was found settled, not before: here the late chunk is counted while notes
// are searched, and an older look would say that everything counted is deleted.
TEST(Window, CounterThatCatchesUpDuringTheSearchIsSeen) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "free is the sanitizer's";
#endif
  const array_t pool = pool_of();
  const maddr_t early = take(pool, 700);
  uint32_t *const counter = &slot_at(pool, 0).bytes_used;
  before_addition.arm(counter, [&] {
    take(pool, 700);  // slot 0 is noted
    before_addition.arm(&slot_at(pool, 1).bytes_used, [&] { take(pool, 900); });
    take(pool, 200);  // slot 1 is noted ahead of it, and has settled now
    before_release = [&] {
      *counter += 200;
      counted_ahead = counter;
    };
    release_is_met = true;
    del(pool, early);
  });
  const maddr_t late = take(pool, 200);
  ASSERT_FALSE(release_is_met) << "no note was dropped";
  EXPECT_EQ(status_at(pool.get(), 0), TSLB_DA_SLOT_ACTIVE) << "a slot was given away with a live chunk in it";
  EXPECT_EQ(slot_at(pool, 0).bytes_used, 900u);
  EXPECT_EQ(slot_at(pool, 0).bytes_del, 700u);
  del(pool, late);
  EXPECT_EQ(free_slots(pool), indices_t{0});
}

// Until the cursor has moved, rivals reserve in the old slot, also while a new one is being taken.
TEST(Window, ReservationDuringTheChangeOfSlotIsWaitedForToo) {
  const array_t pool = pool_of();
  const maddr_t early = take(pool, 700);
  uint32_t *const counter = &slot_at(pool, 0).bytes_used;
  maddr_t late = {};
  before_addition.arm(&get_dyn_hdr(pool.get())->n_used, [&] {
    counted_ahead = counter;  // held back until later
    late = take(pool, 100);
  });
  take(pool, 900);
  ASSERT_EQ(as_word(late), 700u << 8);
  del(pool, early);
  EXPECT_TRUE(free_slots(pool).empty());
  *counter += 100;
  sweep(pool);
  EXPECT_TRUE(free_slots(pool).empty());
  del(pool, late);
  EXPECT_EQ(free_slots(pool), indices_t{0});
}

// The maker of a slot has the bytes at its start, and counts them after others may have reserved behind.
TEST(Window, FirstChunkOfASlotCanBeTheLateOne) {
  const array_t pool = pool_of();
  take(pool, 900);
  pretend_issued(pool.get(), 2);
  uint32_t *const counter_of_1 = &slot_at(pool, 1).bytes_used;  // where the next slot will have it
  pretend_issued(pool.get(), 1);
  before_addition.arm(counter_of_1, [&] {
    const maddr_t rest = take(pool, 500);
    take(pool, 900);
    del(pool, rest);
    sweep(pool);
    EXPECT_TRUE(free_slots(pool).empty());
  });
  const maddr_t first = take(pool, 400);
  ASSERT_EQ(before_addition.word, nullptr);
  EXPECT_EQ(first.mslot_idx, 1u);
  EXPECT_EQ(slot_at(pool, 1).bytes_used, 900u);
  del(pool, first);
  EXPECT_EQ(free_slots(pool), indices_t{1});
}

TEST(Window, LateChunkUnderALongAddress) {
  const array_t pool = pool_of();
  const maddr_t early = take(pool, 700);
  before_addition.arm(&slot_at(pool, 0).bytes_used, [&] {
    maddr64_t address;
    tslb_dynmem_get_mchunk64(pool.get(), &address, 900, srcaddr64_t{});
    EXPECT_EQ(address.mslot_idx, 1u);
    del(pool, early);
    sweep(pool);
    EXPECT_TRUE(free_slots(pool).empty());
  });
  maddr64_t late;
  ASSERT_NE(tslb_dynmem_get_mchunk64(pool.get(), &late, 84, srcaddr64_t{}), nullptr);
  EXPECT_TRUE(free_slots(pool).empty());
  del(pool, maddr_t{late.mslot_idx, late.mchunk_idx & 0xFFFFFF});
  EXPECT_EQ(free_slots(pool), indices_t{0});
}

// Without memory for a note, whoever moves the cursor waits for the counter instead. Tried again where the mover came to
// its note only after the counter.
TEST(Window, RefusedMemoryForTheNoteIsWaitedOut) {
  if (!fault_t::works()) GTEST_SKIP() << "no allocation can be refused here";
  bool struck = false;
  for (int attempt = 0; attempt < 200 && !struck; ++attempt) {
    const array_t pool = pool_of();
    const maddr_t early = take(pool, 700);
    std::thread mover, deleter;
    const auto let_others_run = [] { std::this_thread::sleep_for(std::chrono::milliseconds(5)); };
    before_addition.arm(&slot_at(pool, 0).bytes_used, [&] {
      mover = std::thread([&] {
        const fault_t fault(1);
        take(pool, 900);
        struck = fault.struck();
      });
      while (static_cast<uint32_t>(__atomic_load_n(&hdr_of(pool).cur_slot_addr, __ATOMIC_SEQ_CST)) == 0)
        std::this_thread::yield();
      let_others_run();
      deleter = std::thread([&] { del(pool, early); });
      let_others_run();
    });
    const maddr_t late = take(pool, 200);
    mover.join();
    deleter.join();
    EXPECT_TRUE(free_slots(pool).empty()) << "a slot was given away with a chunk on its way";
    EXPECT_EQ(slot_at(pool, 0).bytes_used, 900u);
    del(pool, late);
    EXPECT_EQ(free_slots(pool), indices_t{0});
  }
  EXPECT_TRUE(struck) << "memory was never asked for";
}

// While a deletion waits for the lock, a rival gives its slot back and somebody takes it again.
TEST(Window, DeletionDecidesUnderTheLock) {
  for (const bool emptied_again : {false, true}) {
    const array_t pool = pool_of({}, 2);
    const auto filled = take_several(pool, 4);
    take(pool, 900);
    for (size_t i = 0; i < 3; ++i) del(pool, filled[i]);
    before_lock.arm(&pool->spinlock, [&] {
      sweep(pool);
      const maddr_t rivals = take(pool, 900);
      EXPECT_EQ(as_word(rivals), 0u);
      if (emptied_again) del(pool, rivals);  // and the slot is current
    });
    del(pool, filled[3]);
    ASSERT_EQ(before_lock.word, nullptr);
    EXPECT_EQ(status_at(pool.get(), 0), TSLB_DA_SLOT_ACTIVE) << "a slot that is in use again was given back";
    EXPECT_EQ(slot_at(pool, 0).bytes_used, 900u);
    EXPECT_TRUE(free_slots(pool).empty());
  }
}

TEST(Window, LoserOfTheNewSlotUsesTheRivals) {
  for (const bool wide : {false, true}) {
    const array_t pool = pool_of();
    take(pool, 900);
    before_lock.arm(&pool->spinlock, [&] { EXPECT_EQ(as_word(take(pool, 300)), 1u); });
    maddr_t address = {};
    maddr64_t address64 = {};
    if (wide)
      tslb_dynmem_get_mchunk64(pool.get(), &address64, 384, srcaddr64_t{});
    else
      address = take(pool, 400);
    ASSERT_EQ(before_lock.word, nullptr);
    EXPECT_EQ(wide ? address64.mslot_idx : address.mslot_idx, 1u);
    EXPECT_EQ(wide ? address64.mchunk_idx : address.mchunk_idx, 300u);
    EXPECT_EQ(tslb_da_get_size(pool.get()), 2u) << "more than one slot for a full one";
    EXPECT_EQ(slot_at(pool, 1).bytes_used, 700u);
  }
}

// Nobody else may touch the lists, and the ids of a list array are drawn with them.
TEST(Window, SlotsAreTakenUnderTheLock) {
  for (const bool wide : {false, true}) {
    const array_t pool = pool_of();
    uint32_t held = 9;
    before_addition.arm(&get_dyn_hdr(pool.get())->n_used, [&] { held = pool->spinlock; });
    maddr64_t address64;
    if (wide)
      tslb_dynmem_get_mchunk64(pool.get(), &address64, 384, srcaddr64_t{});
    else
      take(pool, 400);
    EXPECT_EQ(held, 1u);
    EXPECT_EQ(pool->spinlock, 0);
  }
}

// ---- 64-bit addresses -------------------------------------------------------------------------------------------------

static maddr64_t take64(const array_t &pool, int mchunk_len) {
  maddr64_t address = {77, 77};
  EXPECT_NE(tslb_dynmem_get_mchunk64(pool.get(), &address, mchunk_len, srcaddr64_t{}), nullptr);
  return address;
}

TEST(Chunks64, AddressesAreWholeAndOfAnyOffset) {
  for (const char slot_type : std::initializer_list<char>{0, MPOOL_FLAG_BV}) {
    const array_t pool = pool_of({.slot_type = slot_type}, 2, 70000);
    uint32_t offset = 0;
    for (const int len : {7, 1, 500, 33, 65536 + 5}) {
      const srcaddr64_t source = {11, 22, 0x12345678};
      if (offset != 0) slot_at(pool, 0).mslot[offset + 12] = 0x7F;
      maddr64_t address;
      char *const chunk = bytes_of(tslb_dynmem_get_mchunk64(pool.get(), &address, len, source));
      EXPECT_EQ(address.mslot_idx, 0u);
      EXPECT_EQ(address.mchunk_idx, offset);
      EXPECT_EQ(chunk, slot_at(pool, 0).mslot + offset);
      EXPECT_EQ(memcmp(chunk, &source, 12), 0) << "all 12 bytes of the source";
      EXPECT_EQ(chunk[12], offset != 0 ? 0x7E : 0) << "the deleted bit alone is cleared";
      uint32_t size = 0;
      EXPECT_EQ(tslb_dynmem_get_maddr2ptr64_ex(pool.get(), address, &size), chunk + 16);
      EXPECT_EQ(size, len % 65536u) << "16 bits of the length itself, where the short form gives one less";
      EXPECT_EQ(tslb_dynmem_get_maddr2ptr64(pool.get(), address), chunk + 16);
      offset += static_cast<uint32_t>(len) + 16;
    }
    EXPECT_EQ(slot_at(pool, 0).bytes_used, offset);
    EXPECT_EQ(hdr_of(pool).total_mused, offset);
    EXPECT_EQ(hdr_of(pool).total_mwast, 5u * 16 + 8);
  }
}

TEST(Chunks64, NoLimitOnSlotsOfAnyKindAndNothingSaid) {
  static const struct {
    const char *fault;
    kind_t kind;
  } rows[] = {
      {"stops at slot 255", {.compat = 0}},
      {"limited by max_slots", {.compat = 0, .max_slots = 2}},
      {"warns at slot 255", {.compat = 0, .slot_type = MPOOL_FLAG_BV}},
      {"runs in a ring", {.compat = 0, .slot_type = MPOOL_FLAG_BV, .mem_type = MPOOL_TYPE_DRAM_TMP}},
      {"stops at slot 255 with lists", {.compat = 0, .daflag = TSLB_DA_DAFLAG_INLL}},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    const array_t pool = pool_of(row.kind, 3, 16);
    std::string warnings;
    const std::string output = stdout_of([&] {
      warnings = stderr_of([&] {
        for (uint32_t want = 0; want < 2100; ++want) {
          const maddr64_t address = take64(pool, 13);
          ASSERT_EQ(address.mslot_idx, want);
          ASSERT_EQ(tslb_dynmem_get_maddr2ptr64(pool.get(), address), slot_at(pool, want).mslot);
        }
      });
    });
    EXPECT_EQ(output + warnings, "");
  }
}

TEST(Chunks64, SizeLeavesNodesOutAndFollowsTheSlotDown) {
  redo_recorder_t log;
  const array_t pool = pool_of({}, 2);
  log.take();
  const uint64_t record_size = 1008, hdr_bytes = 140;
  uint64_t wasted = 0;
  const auto expect_growth = [&](uint32_t slots) {
    wasted += 16 + 8;
    EXPECT_EQ(hdr_of(pool).total_msz, record_size * slots + hdr_bytes);
    EXPECT_EQ(hdr_of(pool).total_mwast, wasted);
    const auto records = log.take();
    ASSERT_FALSE(records.empty());
    EXPECT_EQ(records.back().rec_type, 13);
    EXPECT_EQ(records.back().data_off, record_size * slots + hdr_bytes);
    EXPECT_EQ(records.back().data_ptr, nullptr);
  };
  std::vector<maddr64_t> chunks;
  for (const uint32_t slots : {1u, 2u, 3u, 4u}) {  // slot 0 lowers what creation counted for two
    chunks.push_back(take64(pool, 900));
    expect_growth(slots);
  }
  del(pool, maddr_t{1, 0});
  log.take();
  EXPECT_EQ(take64(pool, 900).mslot_idx, 1u);
  expect_growth(2);
  EXPECT_EQ(slot_at(pool, 1).bytes_used, 916u);
  EXPECT_EQ(slot_at(pool, 1).bytes_del, 0u);
  EXPECT_EQ(hdr_of(pool).total_mavail,
            hdr_of(pool).total_msz - (hdr_bytes + hdr_of(pool).total_mused + hdr_of(pool).total_mwast));
  take64(pool, 10);  // within the slot: no growth
  EXPECT_EQ(hdr_of(pool).total_mwast, wasted + 16);
  EXPECT_TRUE(log.take().empty());

  // The short form on the same pool counts the nodes, and does not go down.
  take(pool, 900);
  EXPECT_EQ(hdr_of(pool).total_msz, (record_size + 8) * 5 + hdr_bytes);
  EXPECT_EQ(log.take().back().data_off, (record_size + 8) * 5 + hdr_bytes);

  const array_t quiet(tslb_init_dynmem_ex1(kSlotBytes, 2, 0, MPOOL_TYPE_DRAM, 0, "pool", -4, 0, 0, 0, 0));
  take64(quiet, 900);
  EXPECT_TRUE(log.take().empty()) << "a pool that does not persist grows in silence";
}

TEST(Chunks64, RefusalNamesTheFunction) {
  const array_t pool = pool_of();
  const std::string before(bytes_of(pool->arr_base), 140);
  maddr64_t address = {7, 8};
  for (const int len : {985, -1}) {
    const std::string report =
        stderr_of([&] { EXPECT_EQ(tslb_dynmem_get_mchunk64(pool.get(), &address, len, srcaddr64_t{}), nullptr); });
    const std::regex text("Error: \\(tslb_dynmem_get_mchunk64:[0-9]+\\): Memory chunk len " + std::to_string(len + 16) +
                          "\\(Hdr:16 \\+ Data:" + std::to_string(len) +
                          "\\) should not be greater than memory slot length 1000\\.\n");
    EXPECT_TRUE(std::regex_match(report, text)) << report;
  }
  EXPECT_EQ(address.mslot_idx, 7u);
  EXPECT_EQ(address.mchunk_idx, 8u);
  EXPECT_EQ(std::string(bytes_of(pool->arr_base), 140), before);
  take64(pool, 984);
}

TEST(Chunks64, StopsWhereTheArrayHasNoSlot) {
  const array_t pool = pool_of();
  take64(pool, 900);
  get_dyn_hdr(pool.get())->n_alloc = 0xFFFFFFFF;
  EXPECT_DEATH(take64(pool, 900), "Assertion `cur_mslot' failed");
  EXPECT_DEATH(take(pool, 900), "Assertion `\\*mslot_ref' failed");
  take64(pool, 10);
}

TEST(Chunks64, ResolvesWholeFieldsAndRefusesNegativeOffsets) {
  const array_t compat = pool_of({.slot_type = MPOOL_FLAG_BV}),
                bare = pool_of({.compat = 0, .slot_type = MPOOL_FLAG_BV});
  uint32_t size = 5;
  EXPECT_EQ(tslb_dynmem_get_maddr2ptr64_ex(compat.get(), maddr64_t{0, 0}, &size), nullptr) << "no slot was taken yet";
  EXPECT_EQ(size, 0u);
  take64(compat, 100);
  take64(bare, 100);
  static const struct {
    const char *fault;
    bool with_headers;
    uint32_t slot, offset;
    bool resolves;
  } rows[] = {
      {"slot that was never taken", true, 1, 0, false},
      {"slot index read as 8 bits", true, 256, 0, false},
      {"offset in units of 8", false, 0, 13, true},
      {"largest offset", false, 0, 0x7FFFFFFF, true},
      {"first negative offset", false, 0, 0x80000000, false},
      {"first offset that a header makes negative", true, 0, 0x7FFFFFF0, false},
      {"negative offset behind a header", true, 0, 0x80000000, false},
      {"sum of offset and header wraps", true, 0, 0xFFFFFFF0, false},
      {"last offset", false, 0, 0xFFFFFFFF, false},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    const array_t &pool = row.with_headers ? compat : bare;
    size = 5;
    void *const data = tslb_dynmem_get_maddr2ptr64_ex(pool.get(), maddr64_t{row.slot, row.offset}, &size);
    EXPECT_EQ(data, row.resolves ? slot_at(pool, 0).mslot + row.offset : nullptr);
    EXPECT_EQ(size, 0u);
    EXPECT_EQ(tslb_dynmem_get_maddr2ptr64(pool.get(), maddr64_t{row.slot, row.offset}), data);
    EXPECT_EQ(tslb_dynmem_get_maddr2ptr64_ex(pool.get(), maddr64_t{row.slot, row.offset}, nullptr), data);
  }
}

// ---- Rings ---------------------------------------------------------------------------------------------------------

// A ring enters its slots by their numbers. One of them on the free list would be free and current at once, and a 64-bit
// chunk would take it from there and clear it under its live chunks.
TEST(Ring, KeepsTheSlotsThatItComesRoundTo) {
  const array_t pool(
      tslb_init_dynmem(256, 0, MPOOL_FLAG_COMPAT, MPOOL_TYPE_DRAM_TMP, MPOOL_FLAG_BV, "ring", 1, TSLB_DA_DAFLAG_LL));
  std::vector<maddr_t> chunks;
  for (int i = 0; i < 10; ++i) chunks.push_back(take(pool, 240));
  del(pool, chunks[4]);
  EXPECT_EQ(free_slots(pool), (indices_t{4})) << "on its first round a ring gives slots back like any pool";
  stdout_of([&] {
    while (tslb_da_get_size(pool.get()) < 254) take(pool, 240);
    while (cursor_slot(pool) != 20) take(pool, 240);
  });
  EXPECT_EQ(free_slots(pool), indices_t{});
  del(pool, chunks[9]);
  slot_at(pool, 30).bytes_del = slot_at(pool, 30).bytes_used;
  sweep(pool);
  EXPECT_EQ(free_slots(pool), indices_t{});
}
