// Tests of chunk deletion and of the return of empty slots to the free list. Other operations run between a reservation
// and its counter, or before the lock. tests/explore searches all interleavings of small cases.
#include <tslb/array_settle.h>
#include "forced.h"
#include "list_audit.h"
#include "pool_support.h"
#include "redo_recorder.h"

static void expect_sums(const array_t &pool, size_t used, size_t deleted) {
  size_t sums[] = {1, 1, 1};
  tslb_dynmem_update_free_list(pool.get(), &sums[0], &sums[1], &sums[2]);
  EXPECT_EQ(sums[0], hdr_of(pool).total_msz);
  EXPECT_EQ(sums[1], used);
  EXPECT_EQ(sums[2], deleted);
}
static void sweep(const array_t &pool) {
  size_t ignored[3];
  tslb_dynmem_update_free_list(pool.get(), &ignored[0], &ignored[1], &ignored[2]);
}
static indices_t free_slots(const array_t &pool) {
  return audit_lists(pool.get()).free;
}

TEST(Deletion, LastChunkOfAFilledSlotReleasesIt) {
  for (const char slot_type : std::initializer_list<char>{0, MPOOL_FLAG_BV}) {
    const array_t pool = pool_of({.slot_type = slot_type});
    const auto filled = take_several(pool, 3, 320);
    take(pool, 320);
    const DynMemHdr_t before = hdr_of(pool);
    const GlobalMemStats_t global_before = g_mem_st;
    del(pool, {filled[1], filled[0]});
    EXPECT_TRUE(free_slots(pool).empty());
    expect_counted(pool, 0, 960, 640);
    redo_recorder_t log(&pool->spinlock);
    del(pool, filled[2]);
    EXPECT_EQ(free_slots(pool), indices_t{0});
    std::string logged;  // the slot's node and the header
    for (const auto &record : log.take())
      logged += (record.locked ? "locked " : "") + std::to_string(record.data_off) + "+" +
                std::to_string(record.bytes.size()) + " ";
    EXPECT_EQ(logged, "140+8 0+140 ");
    EXPECT_EQ(memcmp(&g_mem_st, &global_before, sizeof(g_mem_st)), 0) << "a deletion changed the totals";
    EXPECT_EQ(memcmp(&hdr_of(pool), &before, sizeof(before)), 0);
  }
}

TEST(Deletion, SecondDeletionCountsNothingAndTheAddressStillResolves) {
  const array_t pool = pool_of();
  const maddr_t address = take(pool, 116);
  char *const data = bytes_of(tslb_dynmem_get_maddr2ptr(pool.get(), address));
  data[-4] = 0x7E;  // the host's own bits
  // Once the deletion is counted, another deletion can free the slot. A flag that is set later would change a new
  // chunk.
  before_addition.arm(&slot_at(pool, 0).bytes_del,
                      [&] { EXPECT_EQ(data[-4], 0x7F) << "counted before the flag was set"; });
  del(pool, address);
  ASSERT_EQ(before_addition.word, nullptr);
  EXPECT_EQ(data[-4], 0x7F);
  del(pool, address);
  EXPECT_EQ(slot_at(pool, 0).bytes_del, 116u);
  uint32_t size = 0;
  EXPECT_EQ(tslb_dynmem_get_maddr2ptr_ex(pool.get(), address, &size), data);
  EXPECT_EQ(size, 99u);
  EXPECT_EQ(std::string(data, 100), std::string(100, 'x'));
}

TEST(Deletion, DeletionsThatAreRefusedChangeNothing) {
  const array_t bare = pool_of({.compat = 0});
  const auto chunks = take_several(bare, 5);
  const std::string image(bytes_of(bare->arr_base), 140 + 4 * 1016);
  del(bare, chunks);
  tslb_dynmem_memcompat(bare.get());
  EXPECT_EQ(std::string(bytes_of(bare->arr_base), image.size()), image) << "a chunk without a header was deleted";
  expect_sums(bare, 0, 0);

  const array_t pool = pool_of();
  for (const array_t &fresh : {pool_of(), pool_of({.slot_type = MPOOL_FLAG_BV})}) del(fresh, maddr_t{});
  const auto filled = take_several(pool, 4);
  take(pool);
  del(pool, maddr_t{2, 0});
  EXPECT_TRUE(free_slots(pool).empty());
  expect_sums(pool, 1250, 0);

  // A slot that is stored as free is not freed again by the deletion of its chunks.
  forward_node(&slot_at(pool, 0)).status = TSLB_DA_SLOT_FREE;
  redo_recorder_t log;
  del(pool, filled);
  EXPECT_EQ(list_roots(pool.get()).n_free, 0u);
  EXPECT_TRUE(log.take().empty()) << "a release that did not happen was logged";
}

TEST(Deletion, PoolWithoutListsReportsItAndKeepsItsSlots) {
  const array_t pool = pool_of({.daflag = 0});
  const auto filled = take_several(pool, 3);
  const maddr_t last = take(pool);
  take(pool);
  EXPECT_EQ(stdout_of([&] { del(pool, filled); }), "");
  EXPECT_EQ(stdout_of([&] { del(pool, last); }).rfind("tslb_dynarr_lists.cpp:", 0), 0u);
  expect_counted(pool, 0, 1000, 1000);
  EXPECT_EQ(stdout_of([&] { expect_sums(pool, 0, 0); }), "");
}

TEST(Deletion, ChunkOfNoBytesKeepsItsSlot) {
  const array_t pool = pool_of();
  const auto filled = take_several(pool, 3, 320);
  const maddr_t empty = take(pool, 16);
  take(pool);
  del(pool, filled);
  del(pool, empty);
  EXPECT_EQ(bytes_of(tslb_dynmem_get_maddr2ptr(pool.get(), empty))[-4], MCHUNK_FLAG_DELETED);
  expect_sums(pool, 976 + 250, 960);
  EXPECT_TRUE(free_slots(pool).empty());
}

TEST(Sweep, SumsCoverTheActiveSlotsThatStay) {
  const array_t pool = pool_of({.daflag = 3}, 2);  // the others lie in redirected blocks
  for (const uint8_t kept : {0, 1, 2, 3}) {
    // Slot 0 keeps no chunk, slot 1 keeps one chunk and so on. Only slot 0 is freed.
    const auto filled = take_several(pool, 4);
    for (size_t i = kept; i < 4; ++i) del(pool, filled[i]);
  }
  take(pool, 100);
  pretend_issued(pool.get(), 6);  // an id without an allocation
  EXPECT_TRUE(free_slots(pool).empty()) << "slot 0 was freed while it was current";
  expect_sums(pool, 3000 + 100, 750 + 500 + 250);
  EXPECT_EQ(free_slots(pool), indices_t{0});
  expect_sums(pool, 3000 + 100, 750 + 500 + 250);
  EXPECT_EQ(free_slots(pool), indices_t{0});
  EXPECT_EQ(slot_at(pool, 5).bytes_used, 0u) << "a slot that was never taken was freed";
  ASSERT_EQ(tslb_da_inactivate_idx(pool.get(), 2, 1), 0);
  expect_sums(pool, 2000 + 100, 750 + 250);
  uint32_t idx;
  tslb_da_get_newptr(pool.get(), &idx);
  ASSERT_EQ(idx, 0u);
  expect_sums(pool, 2000 + 100, 750 + 250);  // a slot whose counters are not set up yet does not count
  slot_at(pool, 0).bytes_used = 0;
  expect_sums(pool, 2000 + 100, 750 + 250);
  EXPECT_EQ(free_slots(pool), indices_t{0}) << "a slot that never held a chunk was not freed";
}

// While the sweep waits for the lock to free slot 0, the cursor leaves slot 1, which is empty too.
TEST(Sweep, SlotThatTheCursorLeavesDuringTheSweepIsFreed) {
  const array_t pool = pool_of();
  del(pool, take(pool, 900));
  del(pool, take(pool, 900));
  ASSERT_EQ(cursor_slot(pool), 1u);
  before_lock.arm(&pool->spinlock, [&] { take(pool, 900); });
  sweep(pool);
  ASSERT_EQ(cursor_slot(pool), 2u);
  EXPECT_EQ(free_slots(pool), (indices_t{0, 1})) << "compared with an old value of the cursor";
}

// Takes a chunk of slot `idx` and runs `between` between its reservation and its counter.
template <class Between>
static maddr_t take_late(const array_t &pool, uint32_t idx, int len, Between between) {
  before_addition.arm(&slot_at(pool, idx).bytes_used, between);
  const maddr_t late = take(pool, len);
  EXPECT_EQ(before_addition.word, nullptr) << "`between` did not run";
  return late;
}

TEST(Window, SlotOfALateChunkIsReleasedWithThatChunk) {
  static const struct {
    const char *fault;
    uint8_t daflag;
    uint32_t late_len;
    bool wide;  // a 64-bit chunk moves the cursor
  } rows[] = {
      {"chunk up to the slot's end", TSLB_DA_DAFLAG_LL, 250, false},
      {"chunk short of the end", TSLB_DA_DAFLAG_LL, 20, false},
      {"pool with an inactive list alone", TSLB_DA_DAFLAG_INLL, 250, false},  // which a sweep skips
      {"cursor moved by a long address", TSLB_DA_DAFLAG_LL, 250, true},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    const array_t pool = pool_of({.daflag = row.daflag});
    const bool swept = (row.daflag & TSLB_DA_DAFLAG_LL) != 0;
    const auto early = take_several(pool, 3);
    const maddr_t late = take_late(pool, 0, static_cast<int>(row.late_len), [&] {
      if (row.wide)
        take64(pool, 900);
      else
        take(pool, 900);  // moves the cursor to another slot
      del(pool, early);
      expect_counted(pool, 0, 750, 750);
      expect_sums(pool, swept ? 750 + 900 : 0, swept ? 750 : 0);
      EXPECT_TRUE(free_slots(pool).empty());
      take(pool, 900);  // a later slot does not remove the note either
      sweep(pool);
      EXPECT_TRUE(free_slots(pool).empty());
    });
    expect_counted(pool, 0, 750 + row.late_len, 750);
    sweep(pool);
    EXPECT_TRUE(free_slots(pool).empty()) << "a slot with a live chunk was freed";
    del(pool, late);
    EXPECT_EQ(free_slots(pool), indices_t{0}) << "the deletion of the late chunk did not free the slot";
  }
}

TEST(Window, TwoUnsettledSlotsAreDistinguished) {
  // A late chunk in slot 0, and meanwhile another late chunk in slot 1.
  const array_t pool = pool_of();
  const maddr_t early = take(pool, 700);
  const maddr_t late = take_late(pool, 0, 300, [&] {
    const maddr_t second_early = take(pool, 700);
    const maddr_t second_late = take_late(pool, 1, 300, [&] {
      take(pool, 900);
      del(pool, early);
      del(pool, second_early);
      sweep(pool);
      EXPECT_TRUE(free_slots(pool).empty());
    });
    del(pool, second_late);
    EXPECT_EQ(free_slots(pool), indices_t{1}) << "slot 1 is settled, although slot 0 is not";
  });
  EXPECT_EQ(free_slots(pool), indices_t{1});
  del(pool, late);
  EXPECT_EQ(free_slots(pool), (indices_t{1, 0}));
  EXPECT_EQ(as_word(take(pool, 900)), 1u);
}

// A host frees the slot of a late chunk itself. The note must not keep the slot's next use from being freed.
TEST(Window, NoteIsDroppedWhenItsSlotIsTakenAgain) {
  const array_t pool = pool_of();
  take(pool, 600);
  uint32_t *const counter = &slot_at(pool, 0).bytes_used;
  take_late(pool, 0, 300, [&] {
    take(pool, 900);
    ASSERT_EQ(tslb_da_free_idx(pool.get(), 0), 0);
    const maddr_t in_new_use = take(pool, 400);
    EXPECT_EQ(as_word(in_new_use), 0u);
    take(pool, 900);
    del(pool, in_new_use);
    EXPECT_EQ(free_slots(pool), indices_t{0}) << "a note of the slot's earlier use keeps it";
  });
  EXPECT_EQ(*counter - 300, TSLB_DA_NIL_IDX) << "the late addition changed the gatekeeper word of the freed slot";
}

// The cursor is stored. A cursor that another program wrote can name a slot that does not exist.
TEST(Window, CursorAtAMissingSlotMovesToANewSlot) {
  const array_t pool = pool_of();
  hdr_of(pool).cur_slot_addr = 50 | (uint64_t{900} << 32);
  EXPECT_EQ(as_word(take(pool, 900)), 0u);
  EXPECT_EQ(slot_at(pool, 0).bytes_used, 900u);
}

// A process ended between a reservation and its counter: the cursor of the stored pool is above bytes_used. No chunk
// has these bytes. Without array_settle their slot would never be freed.
TEST(ArraySettle, SlotOfARestoredPoolIsReleased) {
  static const struct {
    const char *fault;
    uint32_t used, reserved, settled_used, settled_del;
  } rows[] = {
      {"reserved bytes that were never counted", 750, 900, 900, 150},
      {"nothing is missing", 750, 750, 750, 0},
      {"more than reserved, as in a ring", 750, 600, 750, 0},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    const array_t pool = pool_of();
    const auto filled = take_several(pool, 3);
    set_cursor(pool, 0, row.reserved);
    redo_recorder_t log;
    EXPECT_EQ(array_settle(pool.get()), 0);
    EXPECT_EQ(array_settle(pool.get()), 0);
    EXPECT_TRUE(log.take().empty());
    expect_counted(pool, 0, row.settled_used, row.settled_del);
    take(pool, 900);
    del(pool, filled);
    EXPECT_EQ(free_slots(pool), indices_t{0});
  }
  const array_t fresh = pool_of();
  EXPECT_EQ(array_settle(fresh.get()), 0);
  set_cursor(fresh, 50, 900);
  EXPECT_EQ(array_settle(fresh.get()), -1) << "a cursor at a slot that does not exist";
  // User headers of other arrays: of another size, and of the same size with other contents.
  for (const int header_bytes : {60, 56}) {
    const array_t other(
        get_default_dyn_array_ex(header_bytes, 1008, 4, MPOOL_TYPE_DRAM, 0, nullptr, TSLB_DA_DAFLAG_LL));
    void *record;
    get_dyn_arr_new_record_id_ex(other.get(), &record, TSLB_DA_DAFLAG_LL);
    const DynMemHdr_t hdr = {.flag = 0,
                             .pad_byte = 0,
                             .pad_bytes = 0,
                             .mslot_sz = header_bytes == 60 ? 1000u : 999u,
                             .cur_slot_addr = uint64_t{900} << 32,
                             .total_msz = 0,
                             .total_mused = 0,
                             .total_mwast = 0,
                             .total_mdel = 0,
                             .total_mavail = 0};
    memcpy(get_user_hdr(other.get()), &hdr, sizeof(hdr));
    EXPECT_EQ(array_settle(other.get()), 0);
    EXPECT_EQ(read_at<uint64_t>(record, 0), 0u) << "a record was treated as a slot of a pool";
  }
}

// A ring uses its slots in the order of their indices. A slot on the free list would be free and current at once, and a
// 64-bit chunk would take it and clear it under its live chunks.
TEST(Ring, FullRingReleasesNoSlot) {
  const array_t pool(
      tslb_init_dynmem(256, 0, MPOOL_FLAG_COMPAT, MPOOL_TYPE_DRAM_TMP, MPOOL_FLAG_BV, "ring", 1, TSLB_DA_DAFLAG_LL));
  std::vector<maddr_t> chunks;
  for (int i = 0; i < 10; ++i) chunks.push_back(take(pool, 240));
  del(pool, chunks[4]);
  EXPECT_EQ(free_slots(pool), (indices_t{4})) << "on its first round a ring does not free slots";
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
