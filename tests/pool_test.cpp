// Chunk pools: creation, addresses, accounting to the byte, and what happens when slots run out, for all
// three kinds.
#include "array_support.h"

static DynMemHdr_t &hdr_of(const array_t &pool) {
  return *static_cast<DynMemHdr_t *>(get_user_hdr(pool.get()));
}
static uint32_t cursor_slot(const array_t &pool) {
  return static_cast<uint32_t>(hdr_of(pool).cur_slot_addr);
}
static uint32_t cursor_off(const array_t &pool) {
  return static_cast<uint32_t>(hdr_of(pool).cur_slot_addr >> 32);
}
static void set_cursor(const array_t &pool, uint32_t slot, uint32_t off) {
  hdr_of(pool).cur_slot_addr = slot | (uint64_t{off} << 32);
}
static MemSlot_t &slot_at(const array_t &pool, uint32_t idx) {
  return *static_cast<MemSlot_t *>(tslb_da_get_ptr(pool.get(), idx));
}

static array_t big_buffer(int slot_sz, int n_slots, char compat = 0, uint8_t daflag = 0, short max_slots = 0) {
  return array_t(tslb_init_dynmem_ex1(slot_sz, n_slots, compat, MPOOL_TYPE_DRAM, 0, "bb", -4, daflag, 0, 0, max_slots));
}
static array_t bit_vector(int slot_sz, int n_slots, unsigned char mem_type = MPOOL_TYPE_DRAM, char compat = 0) {
  return array_t(tslb_init_dynmem(slot_sz, n_slots, compat, mem_type, MPOOL_FLAG_BV, "bv", -3, 0));
}
static maddr_t take(const array_t &pool, int len) {
  maddr_t address = {};
  EXPECT_NE(tslb_dynmem_get_mchunk(pool.get(), &address, len, srcaddr_t{}), nullptr);
  return address;
}
// Fills the current slot and takes new ones until `idx` is current.
static void advance_to(const array_t &pool, uint32_t idx) {
  while (cursor_slot(pool) != idx) take(pool, static_cast<int>(hdr_of(pool).mslot_sz));
}

TEST(PoolCreation, SizesAreRoundedAndCounted) {
  static const struct {
    const char *fault;
    int slot_sz;
    uint8_t daflag;
    uint32_t record_size, usable;
    int hdr_bytes;
    uint64_t total;
  } rows[] = {
      {"slot header left out", 1000, 0, 1008, 1000, 80, 4112},
      {"rounded down", 1001, 0, 1012, 1004, 80, 4128},
      {"rounded up although a multiple of 4", 1004, 0, 1012, 1004, 80, 4128},
      {"nodes counted as usable", 1000, TSLB_DA_DAFLAG_LL, 1008, 1000, 140, 4172},
      {"both nodes counted as usable", 1000, TSLB_DA_DAFLAG_INLL, 1008, 1000, 140, 4172},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    const size_t msz = g_mem_st.total_msz, overhead = g_mem_st.pool_hdr_overhead;
    const array_t pool = big_buffer(row.slot_sz, 4, 0, row.daflag);
    EXPECT_EQ(tslb_da_get_record_size(pool.get()), row.record_size);
    EXPECT_EQ(hdr_of(pool).mslot_sz, row.usable);
    EXPECT_EQ(tslb_dynmem_get_hdrsz(pool.get()), row.hdr_bytes);
    EXPECT_EQ(hdr_of(pool).total_msz, row.total);
    EXPECT_EQ(g_mem_st.total_msz - msz, row.record_size * 4);
    EXPECT_EQ(g_mem_st.pool_hdr_overhead - overhead, static_cast<size_t>(row.hdr_bytes));
    EXPECT_EQ(hdr_of(pool).cur_slot_addr, 0xFFFFFFFFu);
    EXPECT_EQ(hdr_of(pool).total_mavail, 0u);
    EXPECT_EQ(tslb_da_get_size(pool.get()), 0u) << "creation takes no slot";
  }
}

TEST(PoolCreation, SlotArraysAreCountedToo) {
  const size_t msz = g_mem_st.total_msz, overhead = g_mem_st.pool_hdr_overhead;
  const array_t array(tslb_da_init_ll(100, 5, MPOOL_TYPE_DRAM, nullptr, 0, TSLB_DA_DAFLAG_INLL));
  EXPECT_EQ(g_mem_st.total_msz - msz, 500u);
  EXPECT_EQ(g_mem_st.pool_hdr_overhead - overhead, 84u);
}

TEST(PoolCreation, FlagsKeepWhatTheArgumentsCarry) {
  const array_t pool(tslb_init_dynmem_ex1(100, 1, 0x41, MPOOL_TYPE_DRAM_TMP, 0x12, "p", 1, 0, 5, 0, -7));
  EXPECT_EQ(hdr_of(pool).flag, 0x51) << "growth logging is is_persist's to say, not the arguments'";
  EXPECT_EQ(hdr_of(pool).max_slots, -7);
  EXPECT_EQ(static_cast<DynHdr_t *>(pool->arr_base)->rec_version, 5);
}

TEST(PoolCreation, FailureCountsNothing) {
  const size_t msz = g_mem_st.total_msz, overhead = g_mem_st.pool_hdr_overhead;
  for (const int slot_sz : {-5, -1, 2147483647}) {
    stderr_of(
        [&] { EXPECT_EQ(tslb_init_dynmem(slot_sz, 0, 0, MPOOL_TYPE_DRAM, 0, nullptr, 0, 0), nullptr) << slot_sz; });
  }
  EXPECT_EQ(g_mem_st.total_msz, msz);
  EXPECT_EQ(g_mem_st.pool_hdr_overhead, overhead);
}

TEST(BigBuffer, ChunksLieBackToBackUnderTheirAddresses) {
  const array_t pool = big_buffer(1000, 2);
  EXPECT_EQ(as_word(take(pool, 7)), 0u) << "the first chunk is address 0";
  EXPECT_EQ(as_word(take(pool, 93)), 7u << 8);
  EXPECT_EQ(as_word(take(pool, 800)), 100u << 8);
  EXPECT_EQ(as_word(take(pool, 100)), 900u << 8) << "fits the remainder exactly";
  EXPECT_EQ(cursor_off(pool), 1000u);
  EXPECT_EQ(as_word(take(pool, 901)), 1u);
  EXPECT_EQ(as_word(take(pool, 100)), 2u) << "99 bytes are left";
  EXPECT_EQ(as_word(take(pool, 50)), 2u | (100u << 8)) << "a tail is given up for good";
  EXPECT_EQ(as_word(take(pool, 1000)), 3u) << "a chunk can fill a slot";
  EXPECT_EQ(slot_at(pool, 0).bytes_used, 1000u);
  EXPECT_EQ(slot_at(pool, 1).bytes_used, 901u);
  EXPECT_EQ(slot_at(pool, 2).bytes_used, 150u);
  EXPECT_EQ(slot_at(pool, 3).bytes_used, 1000u);
}

TEST(BigBuffer, ZeroLengthReservesNothing) {
  const array_t pool = big_buffer(1000, 2);
  take(pool, 10);
  const maddr_t empty = take(pool, 0);
  EXPECT_EQ(as_word(empty), as_word(take(pool, 5)));
}

TEST(Accounting, TotalsToTheByte) {
  for (const char compat : std::initializer_list<char>{0, MPOOL_FLAG_COMPAT}) {
    for (const uint8_t daflag : std::initializer_list<uint8_t>{0, 1}) {
      SCOPED_TRACE(testing::Message() << int{compat} << " " << int{daflag});
      const array_t pool = big_buffer(1000, 2, compat, daflag);
      const uint64_t hdr_bytes = static_cast<uint64_t>(tslb_dynmem_get_hdrsz(pool.get()));
      const uint64_t slot_bytes = tslb_da_get_slotsz(pool.get(), nullptr);
      const size_t global_before = g_mem_st.total_mused;
      uint64_t used = 0, wasted = 0, total = hdr_of(pool).total_msz;
      const auto step = [&](int len, bool grows, uint32_t slots) {
        take(pool, len);
        used += static_cast<uint64_t>(len) + (compat != 0 ? 16 : 0);
        wasted += 16 + (grows ? 8 : 0);
        if (grows) total = hdr_bytes + slot_bytes * slots;
        EXPECT_EQ(hdr_of(pool).total_mused, used);
        EXPECT_EQ(hdr_of(pool).total_mwast, wasted);
        EXPECT_EQ(hdr_of(pool).total_msz, total);
        EXPECT_EQ(hdr_of(pool).total_mavail, total - (hdr_bytes + used + wasted));
        EXPECT_EQ(g_mem_st.total_mavail, hdr_of(pool).total_mavail);
        EXPECT_EQ(hdr_of(pool).total_mdel, 0u);
      };
      step(600, false, 1);  // slot 0 lies within what creation counted
      step(300, false, 1);
      // The size at creation leaves the nodes out, so in a pool with lists slot 1 ends beyond it; without
      // them, on it.
      step(600, true, 2);
      step(984, true, 3);
      step(10, compat != 0, 4);  // fits behind 984, but not behind 984 and a header
      EXPECT_EQ(g_mem_st.total_mused - global_before, used);
    }
  }
}

TEST(Accounting, ReusedSlotBelowTheHighestIsNoGrowth) {
  const array_t pool = big_buffer(1000, 1, 0, TSLB_DA_DAFLAG_LL);
  advance_to(pool, 3);
  DynArrLLI_t &lli = list_roots(pool.get());
  lli.free_head = lli.free_tail = 1;
  lli.n_free = 1;
  forward_node(&slot_at(pool, 1)).status = TSLB_DA_SLOT_FREE;
  const uint64_t total = hdr_of(pool).total_msz, wasted = hdr_of(pool).total_mwast;
  EXPECT_EQ(as_word(take(pool, 500)), 1u);
  EXPECT_EQ(hdr_of(pool).total_msz, total);
  EXPECT_EQ(hdr_of(pool).total_mwast, wasted + 16);
  EXPECT_EQ(slot_at(pool, 1).bytes_used, 500u) << "the old count survived";
  EXPECT_EQ(slot_at(pool, 1).bytes_del, 0u);
}

TEST(Accounting, SizeOfAPoolIsCountedIn32Bits) {
  const array_t pool = bit_vector(16777216, 0);
  pretend_issued(pool.get(), 299);
  set_cursor(pool, 298, 16777216);
  take(pool, 8);
  EXPECT_EQ(hdr_of(pool).total_msz, (uint64_t{16777224} * 300 + 80) & 0xFFFFFFFF);
}

TEST(Accounting, PersistentPoolWithoutALogGrowsAllTheSame) {
  const array_t pool(tslb_init_dynmem_ex1(1000, 0, 0, MPOOL_TYPE_DRAM, 0, "bb", -4, 0, 0, 1, 0));
  take(pool, 10);
  EXPECT_EQ(hdr_of(pool).flag, MPOOL_FLAG_PERSIST);
  EXPECT_EQ(hdr_of(pool).total_msz, 80u + 1008);
}

TEST(Compat, HeaderStandsAheadOfTheData) {
  const array_t pool = big_buffer(70000, 1, MPOOL_FLAG_COMPAT);
  take(pool, 3);  // the next header stands at an odd address
  const srcaddr_t source = {11, 22, -33, {'x', 'y'}};
  maddr_t address;
  char *const chunk = bytes_of(tslb_dynmem_get_mchunk(pool.get(), &address, 100, source));
  EXPECT_EQ(as_word(address), 19u << 8);
  EXPECT_EQ(memcmp(chunk, &source, 12), 0);
  EXPECT_EQ(chunk[12], 0);
  EXPECT_EQ(read_at<uint16_t>(chunk, 14), 100);
  uint32_t size = 5;
  EXPECT_EQ(tslb_dynmem_get_maddr2ptr_ex(pool.get(), address, &size), chunk + 16);
  EXPECT_EQ(size, 99u);
  EXPECT_EQ(tslb_dynmem_get_maddr2ptr(pool.get(), address), chunk + 16);

  // Only the deleted bit of the flag is cleared; a length beyond 16 bits is stored cut.
  char *const next = chunk + 116;
  next[12] = 0x7F;
  EXPECT_EQ(tslb_dynmem_get_mchunk(pool.get(), &address, 65536 + 5, source), next);
  EXPECT_EQ(next[12], 0x7E);
  EXPECT_EQ(read_at<uint16_t>(next, 14), 5);
}

TEST(Resolution, WithoutHeaderAndWithoutSlot) {
  const array_t pool = big_buffer(1000, 1);
  uint32_t size = 5;
  EXPECT_EQ(tslb_dynmem_get_maddr2ptr_ex(pool.get(), maddr_t{}, &size), nullptr) << "no slot was taken yet";
  EXPECT_EQ(size, 0u);
  maddr_t address;
  void *const chunk = tslb_dynmem_get_mchunk(pool.get(), &address, 10, srcaddr_t{});
  size = 5;
  EXPECT_EQ(tslb_dynmem_get_maddr2ptr_ex(pool.get(), address, &size), chunk);
  EXPECT_EQ(size, 0u);
  EXPECT_EQ(tslb_dynmem_get_maddr2ptr(pool.get(), maddr_t{1, 0}), nullptr);
}

TEST(BitVector, AddressesAreGroupsAndUnitsOfEight) {
  const array_t pool = bit_vector(64, 4);
  advance_to(pool, 516);
  take(pool, 64);  // 517
  set_cursor(pool, 517, 24);
  const maddr_t address = take(pool, 8);
  EXPECT_EQ(as_word(address), 5u | (2u << 8) | (3u << 11));
  EXPECT_EQ(bytes_of(tslb_dynmem_get_maddr2ptr(pool.get(), address)), slot_at(pool, 517).mslot + 24);
}

TEST(BitVector, ChunkLiesWhereItsAddressPoints) {
  const array_t pool = bit_vector(64, 4);
  take(pool, 12);  // not a multiple of 8: the next address cannot say 12
  maddr_t address;
  void *const chunk = tslb_dynmem_get_mchunk(pool.get(), &address, 8, srcaddr_t{});
  EXPECT_EQ(chunk, slot_at(pool, 0).mslot + 8);
  EXPECT_EQ(chunk, tslb_dynmem_get_maddr2ptr(pool.get(), address));
}

TEST(Chunks, RefusesWhatNoSlotCanHold) {
  const array_t plain = big_buffer(1000, 1), compat = big_buffer(1000, 1, MPOOL_FLAG_COMPAT);
  const struct {
    const char *fault;
    const array_t &pool;
    int len;
    const char *text;
  } rows[] = {
      {"one byte too long", plain, 1001, "len 1001(Hdr:16 + Data:1001)"},
      {"header not counted", compat, 985, "len 1001(Hdr:16 + Data:985)"},
      {"negative length", plain, -1, "len -1(Hdr:16 + Data:-1)"},
      {"header lifts a negative length", compat, -10, "len 6(Hdr:16 + Data:-10)"},
      {"sum wraps", compat, 2147483647, "len -2147483633(Hdr:16 + Data:2147483647)"},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    maddr_t address = {7, 7};
    const std::string before(bytes_of(row.pool->arr_base), 80);
    const std::string report =
        stderr_of([&] { EXPECT_EQ(tslb_dynmem_get_mchunk(row.pool.get(), &address, row.len, srcaddr_t{}), nullptr); });
    EXPECT_EQ(report.rfind("Error: (tslb_dynmem_get_mchunk:", 0), 0u) << report;
    EXPECT_NE(report.find(std::string("): Memory chunk ") + row.text +
                          " should not be greater than memory slot length 1000.\n"),
              std::string::npos)
        << report;
    EXPECT_EQ(as_word(address), 7u | (7u << 8));
    EXPECT_EQ(std::string(bytes_of(row.pool->arr_base), 80), before);
  }
  take(plain, 1000);
  take(compat, 984);
}

TEST(BigBuffer, MaxSlotsLimitsWhatMemoryExistsFor) {
  const array_t pool = big_buffer(1000, 4, 0, 0, 8);
  for (int i = 0; i < 5; ++i) take(pool, 900);  // slot 4 publishes a block of 16
  EXPECT_EQ(tslb_da_get_total_size(pool.get()), 20u);
  maddr_t address = {9, 9};
  EXPECT_EQ(stderr_of([&] { EXPECT_EQ(tslb_dynmem_get_mchunk(pool.get(), &address, 900, srcaddr_t{}), nullptr); }), "");
  EXPECT_EQ(as_word(address), 9u | (9u << 8));
  EXPECT_EQ(as_word(take(pool, 100)), 4u | (900u << 8)) << "the current slot still serves";
  EXPECT_EQ(tslb_dynmem_get_mchunk(big_buffer(1000, 8, 0, 0, 8).get(), &address, 1, srcaddr_t{}), nullptr);
  EXPECT_NE(tslb_dynmem_get_mchunk(big_buffer(1000, 8, 0, 0, -1).get(), &address, 1, srcaddr_t{}), nullptr);
}

TEST(BigBuffer, StopsWhenSlot255IsFull) {
  const array_t pool = big_buffer(16, 0);
  advance_to(pool, 255);
  maddr_t address;
  EXPECT_DEATH(tslb_dynmem_get_mchunk(pool.get(), &address, 1, srcaddr_t{}),
               "^tslb_dynmem_chunk.cpp:tslb_dynmem_get_mchunk:[0-9]+: Warning: Bigbuffer pool exhausted. "
               "\\[MPOOL-HDR\\] DynArrHandle.*");
}

TEST(BigBuffer, StopsAt255WhateverItsLimit) {
  const array_t pool = big_buffer(16, 0, 0, 0, 20);
  pretend_issued(pool.get(), 256);
  set_cursor(pool, 255, 16);
  maddr_t address;
  EXPECT_DEATH(tslb_dynmem_get_mchunk(pool.get(), &address, 1, srcaddr_t{}), "Bigbuffer pool exhausted");
}

TEST(BigBuffer, FreshSlotThatNoAddressCanNameIsExhaustion) {
  const array_t pool = big_buffer(16, 0, 0, TSLB_DA_DAFLAG_LL);
  advance_to(pool, 255);
  set_cursor(pool, 3, 16);  // as if slot 3 had been freed and taken again
  maddr_t address;
  EXPECT_DEATH(tslb_dynmem_get_mchunk(pool.get(), &address, 1, srcaddr_t{}), "Bigbuffer pool exhausted");

  const array_t vectors(tslb_init_dynmem(8, 0, 0, MPOOL_TYPE_DRAM, MPOOL_FLAG_BV, "bv", -3, TSLB_DA_DAFLAG_LL));
  pretend_issued(vectors.get(), 2040);
  set_cursor(vectors, 3, 8);
  EXPECT_NE(tslb_dynmem_get_mchunk(vectors.get(), &address, 8, srcaddr_t{}), nullptr) << "slot 2040 is in use";
  set_cursor(vectors, 3, 8);
  EXPECT_DEATH(tslb_dynmem_get_mchunk(vectors.get(), &address, 8, srcaddr_t{}), "BitVector pool exhausted");
}

TEST(BitVector, WarnsEvery255SlotsAndStopsAt2040) {
  const array_t pool = bit_vector(8, 0);
  stderr_of([&] { advance_to(pool, 2039); });
  const array_t counted = bit_vector(8, 0);
  std::string report = stderr_of([&] { advance_to(counted, 600); });
  size_t warnings = 0;
  for (size_t at = 0; (at = report.find("overusage", at)) != std::string::npos; ++at) ++warnings;
  EXPECT_EQ(warnings, 2u) << "at 255 and 510 alone";
  EXPECT_EQ(report.rfind("tslb_dynmem_chunk.cpp:tslb_dynmem_get_mchunk:", 0), 0u);
  EXPECT_NE(report.find(": BitVector overusage Warning: Bitvect pool [[MPOOL-HDR] "), std::string::npos);
  EXPECT_NE(report.find("], it has already used 255 slot index.\n"), std::string::npos);
  EXPECT_NE(report.find("], it has already used 510 slot index.\n"), std::string::npos);

  EXPECT_EQ(stderr_of([&] { take(pool, 8); }), "") << "slot 2039 is not the last";
  EXPECT_EQ(cursor_slot(pool), 2040u);
  maddr_t address;
  EXPECT_DEATH(tslb_dynmem_get_mchunk(pool.get(), &address, 8, srcaddr_t{}),
               "^tslb_dynmem_chunk.cpp:tslb_dynmem_get_mchunk:[0-9]+: Error: BitVector pool exhausted. "
               "\\[MPOOL-HDR\\]");
}

TEST(Ring, WrapsToSlot0AndKeepsItsCounts) {
  const array_t pool = bit_vector(64, 4, MPOOL_TYPE_DRAM_TMP);
  std::string said = stdout_of([&] { advance_to(pool, 253); });
  EXPECT_EQ(said, "");
  EXPECT_EQ(tslb_da_get_size(pool.get()), 254u);
  const uint64_t total = hdr_of(pool).total_msz;
  maddr_t address = {1, 1};
  said = stdout_of([&] { address = take(pool, 40); });
  EXPECT_EQ(said, "Bitvect tmp pool, switching into slot it 0\n");
  EXPECT_EQ(as_word(address), 0u);
  EXPECT_EQ(cursor_slot(pool), 0u);
  EXPECT_EQ(cursor_off(pool), 40u);
  EXPECT_EQ(slot_at(pool, 0).bytes_used, 104u) << "a ring's slots keep their old count";
  EXPECT_EQ(tslb_da_get_size(pool.get()), 254u);
  EXPECT_EQ(hdr_of(pool).total_msz, total);

  // Round again: every slot is met in turn, from its start, without new ones.
  for (uint32_t want = 1; want < 254; ++want) {
    take(pool, 64);
    ASSERT_EQ(cursor_slot(pool), want);
    ASSERT_EQ(cursor_off(pool), 64u);
  }
  EXPECT_EQ(tslb_da_get_size(pool.get()), 254u);
  EXPECT_GT(hdr_of(pool).total_mused, hdr_of(pool).total_msz);
  EXPECT_EQ(hdr_of(pool).total_mavail,
            hdr_of(pool).total_msz - (80 + hdr_of(pool).total_mused + hdr_of(pool).total_mwast));
}

// ---- 32 and 64 bits on one pool ------------------------------------------------------------------------------------

static void take64_until(const array_t &pool, uint32_t idx) {
  while (cursor_slot(pool) != idx) {
    maddr64_t address;
    ASSERT_NE(tslb_dynmem_get_mchunk64(pool.get(), &address, static_cast<int>(hdr_of(pool).mslot_sz), srcaddr64_t{}),
              nullptr);
  }
}

TEST(BothWidths, SlotThatA32BitAddressCannotNameHasNoRoomForIt) {
  for (const char slot_type : std::initializer_list<char>{0, MPOOL_FLAG_BV}) {
    const uint32_t beyond = slot_type == 0 ? 256 : 2041;
    const array_t pool(tslb_init_dynmem(16, 0, 0, MPOOL_TYPE_DRAM, slot_type, "p", 1, TSLB_DA_DAFLAG_LL));
    take64_until(pool, beyond);
    set_cursor(pool, beyond, 0);  // all of it is free
    maddr_t address;
    EXPECT_DEATH(tslb_dynmem_get_mchunk(pool.get(), &address, 8, srcaddr_t{}), "pool exhausted") << int{slot_type};
    maddr64_t wide;
    EXPECT_NE(tslb_dynmem_get_mchunk64(pool.get(), &wide, 8, srcaddr64_t{}), nullptr);
    EXPECT_EQ(wide.mslot_idx, beyond);
  }
  // A slot that it can name is taken instead where the free list has one.
  const array_t pool(tslb_init_dynmem(16, 0, 0, MPOOL_TYPE_DRAM, 0, "p", 1, TSLB_DA_DAFLAG_LL));
  take64_until(pool, 300);
  tslb_da_free_idx(pool.get(), 7);
  EXPECT_EQ(as_word(take(pool, 8)), 7u);
}

TEST(BothWidths, RingReturnsFromSlotsBeyondIt) {
  const array_t pool = bit_vector(16, 0, MPOOL_TYPE_DRAM_TMP);
  take64_until(pool, 300);
  maddr_t address = {1, 1};
  stdout_of([&] { address = take(pool, 8); });
  EXPECT_EQ(as_word(address), 0u);
}
