// Tests of chunk pools: creation, 32-bit and 64-bit addresses, exact accounting, and pools that run out of slots, for
// all three kinds.
#include <gmock/gmock.h>

#include "pool_support.h"

// Without compaction headers and without lists.
constexpr kind_t kBigBuffer = {.compat = 0, .daflag = 0},
                 kBitVector = {.compat = 0, .daflag = 0, .slot_type = MPOOL_FLAG_BV};
constexpr kind_t kRing = {.compat = 0, .daflag = 0, .slot_type = MPOOL_FLAG_BV, .mem_type = MPOOL_TYPE_DRAM_TMP};

// Fills the current slot and takes new slots until `idx` is current.
static void advance_to(const array_t &pool, uint32_t idx) {
  while (cursor_slot(pool) != idx) take(pool, static_cast<int>(hdr_of(pool).mslot_sz));
}

// golden_test checks the contents of the headers.
TEST(PoolCreation, TotalsIncludeRecordsAndHeaders) {
  const size_t msz = g_mem_st.total_msz, overhead = g_mem_st.pool_hdr_overhead;
  const array_t pool = pool_of({.daflag = TSLB_DA_DAFLAG_INLL}, 4, 1001);
  EXPECT_EQ(hdr_of(pool).total_msz, 4 * 1012 + 140u) << "nodes were counted as usable";
  EXPECT_EQ(g_mem_st.total_msz - msz, 4 * 1012u);
  EXPECT_EQ(g_mem_st.pool_hdr_overhead - overhead, 140u);
  const array_t slots(tslb_da_init_ll(100, 5, MPOOL_TYPE_DRAM, nullptr, 0, TSLB_DA_DAFLAG_INLL));
  EXPECT_EQ(g_mem_st.total_msz - msz, 4 * 1012u + 500) << "slot arrays were not counted";
  EXPECT_EQ(g_mem_st.pool_hdr_overhead - overhead, 140u + 84);
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

TEST(BigBuffer, ChunksLieBackToBackAtTheirAddresses) {
  const array_t pool = pool_of(kBigBuffer, 2);
  EXPECT_EQ(as_word(take(pool, 7)), 0u) << "the first chunk does not have address 0";
  EXPECT_EQ(as_word(take(pool, 0)), 7u << 8);
  EXPECT_EQ(as_word(take(pool, 93)), 7u << 8) << "a chunk of no bytes reserved some";
  EXPECT_EQ(as_word(take(pool, 800)), 100u << 8);
  EXPECT_EQ(as_word(take(pool, 100)), 900u << 8) << "a chunk that fits exactly was moved to the next slot";
  EXPECT_EQ(cursor_off(pool), 1000u);
  EXPECT_EQ(as_word(take(pool, 901)), 1u);
  EXPECT_EQ(as_word(take(pool, 100)), 2u) << "a chunk of 100 bytes was put into 99";
  EXPECT_EQ(as_word(take(pool, 50)), 2u | (100u << 8)) << "the unused tail of an earlier slot was used";
  EXPECT_EQ(as_word(take(pool, 1000)), 3u) << "a chunk that fills a slot was not put at its start";
  uint32_t idx = 0;
  for (const uint32_t used : {1000, 901, 150, 1000}) expect_counted(pool, idx++, used, 0);
  uint32_t size = 5;
  EXPECT_EQ(tslb_dynmem_get_maddr2ptr_ex(pool.get(), maddr_t{3, 0}, &size), slot_at(pool, 3).mslot);
  EXPECT_EQ(size, 0u) << "a length without a header";
}

TEST(Accounting, TotalsAreExact) {
  for (const char compat : std::initializer_list<char>{0, MPOOL_FLAG_COMPAT}) {
    for (const uint8_t daflag : std::initializer_list<uint8_t>{0, 1}) {
      SCOPED_TRACE(testing::Message() << int{compat} << " " << int{daflag});
      const array_t pool = pool_of({.compat = compat, .daflag = daflag}, 2);
      const uint64_t hdr_bytes = static_cast<uint64_t>(tslb_dynmem_get_hdrsz(pool.get()));
      const uint64_t slot_bytes = tslb_da_get_slotsz(pool.get(), nullptr);
      const size_t global_before = g_mem_st.total_mused;
      uint64_t used = 0, wasted = 0, total = hdr_of(pool).total_msz;
      const auto step = [&](int len, bool grows, uint32_t slots) {
        take(pool, len + chunk_header_of(pool));
        used += static_cast<uint64_t>(len + chunk_header_of(pool));
        wasted += 16 + (grows ? 8 : 0);
        if (grows) total = hdr_bytes + slot_bytes * slots;
        EXPECT_EQ(hdr_of(pool).total_mused, used);
        EXPECT_EQ(hdr_of(pool).total_mwast, wasted);
        EXPECT_EQ(hdr_of(pool).total_msz, total);
        EXPECT_EQ(hdr_of(pool).total_mavail, total - (hdr_bytes + used + wasted));
        EXPECT_EQ(g_mem_st.total_mavail, hdr_of(pool).total_mavail);
      };
      step(600, false, 1);  // slot 0 is within the size that creation counted
      step(300, false, 1);
      // The size at creation does not include the nodes. In a pool with lists slot 1 therefore ends after it; without
      // lists it ends exactly there.
      step(600, true, 2);
      step(984, true, 3);
      step(10, compat != 0, 4);  // fits after 984, but not after 984 and a header
      EXPECT_EQ(g_mem_st.total_mused - global_before, used);
    }
  }
}

TEST(Accounting, ReusedSlotBelowTheHighestIsNoGrowth) {
  const array_t pool = pool_of({.compat = 0}, 1);
  advance_to(pool, 3);
  tslb_da_free_idx(pool.get(), 1);
  const uint64_t total = hdr_of(pool).total_msz, wasted = hdr_of(pool).total_mwast;
  EXPECT_EQ(as_word(take(pool, 500)), 1u);
  EXPECT_EQ(hdr_of(pool).total_msz, total);
  EXPECT_EQ(hdr_of(pool).total_mwast, wasted + 16);
  expect_counted(pool, 1, 500, 0);
}

TEST(Compat, HeaderIsBeforeTheData) {
  const array_t pool = pool_of({.daflag = 0}, 1, 70000);
  uint32_t size = 5;
  EXPECT_EQ(tslb_dynmem_get_maddr2ptr_ex(pool.get(), maddr_t{}, &size), nullptr)
      << "resolved although no slot was taken";
  EXPECT_EQ(tslb_dynmem_get_maddr2ptr(pool.get(), maddr_t{}), nullptr);
  EXPECT_EQ(size, 0u);
  take(pool, 16 + 3);  // the next header starts at an odd address
  char *const next = slot_at(pool, 0).mslot + 19;
  next[12] = 0x7F;
  const srcaddr_t source = {11, 22, -33, {'x', 'y'}};
  maddr_t address;
  EXPECT_EQ(tslb_dynmem_get_mchunk(pool.get(), &address, 65536 + 5, source), next);
  EXPECT_EQ(as_word(address), 19u << 8);
  EXPECT_EQ(memcmp(next, &source, 12), 0);
  EXPECT_EQ(next[12], 0x7E) << "another bit than the deleted bit changed";
  EXPECT_EQ(read_at<uint16_t>(next, 14), 5) << "not the low 16 bits of the length";
  EXPECT_EQ(tslb_dynmem_get_maddr2ptr_ex(pool.get(), address, &size), next + 16);
  EXPECT_EQ(size, 4u);
  EXPECT_EQ(tslb_dynmem_get_maddr2ptr(pool.get(), address), next + 16);
}

// A slot with all bits of its group set, and the maximum offset that such an address can name.
TEST(BitVector, AddressHasGroupAndUnitsOfEight) {
  constexpr int kLargest = 16777216;
  const array_t pool = pool_of(kBitVector, 0, kLargest);
  pretend_issued(pool.get(), 0x766);
  set_cursor(pool, 0x765, kLargest - 8);
  const maddr_t address = take(pool, 8);
  EXPECT_EQ(as_word(address), 0x65u | (7u << 8) | (0x1FFFFFu << 11));
  EXPECT_EQ(tslb_dynmem_get_maddr2ptr(pool.get(), address), slot_at(pool, 0x765).mslot + kLargest - 8);
  take(pool, 8);
  EXPECT_EQ(hdr_of(pool).total_msz, (uint64_t{16777224} * 0x767 + 80) & 0xFFFFFFFF);
}

TEST(BitVector, ChunkLiesAtItsAddress) {
  const array_t pool = pool_of(kBitVector, 4, 64);
  take(pool, 12);  // not a multiple of 8: an address cannot contain the offset 12
  maddr_t address;
  void *const chunk = tslb_dynmem_get_mchunk(pool.get(), &address, 8, srcaddr_t{});
  EXPECT_EQ(chunk, slot_at(pool, 0).mslot + 8);
  EXPECT_EQ(chunk, tslb_dynmem_get_maddr2ptr(pool.get(), address));
}

// ---- Refusals and ends ---------------------------------------------------------------------------------------------

TEST(Chunks, RefusesImpossibleLengths) {
  const array_t plain = pool_of(kBigBuffer, 1), compat = pool_of({.daflag = 0}, 1);
  const struct {
    const char *fault;
    const array_t &pool;
    int len;
    const char *sum;
  } rows[] = {
      {"one byte too long", plain, 1001, "1001"},
      {"header not counted", compat, 985, "1001"},
      {"negative length", plain, -1, "-1"},
      {"negative length becomes positive with the header", compat, -10, "6"},
      {"sum wraps", compat, 2147483647, "-2147483633"},
  };
  for (const auto &row : rows) {
    for (const bool wide : {false, true}) {
      SCOPED_TRACE(testing::Message() << row.fault << (wide ? ", 64 bits" : ""));
      maddr_t address = {7, 7};
      maddr64_t address64 = {7, 7};
      DynArrHandle_t *const pool = row.pool.get();
      const std::string before(bytes_of(pool->arr_base), 80);
      const std::string report = stderr_of([&] {
        EXPECT_EQ(wide ? tslb_dynmem_get_mchunk64(pool, &address64, row.len, srcaddr64_t{})
                       : tslb_dynmem_get_mchunk(pool, &address, row.len, srcaddr_t{}),
                  nullptr);
      });
      EXPECT_THAT(report, testing::MatchesRegex("Error: \\(tslb_dynmem_get_mchunk" + std::string(wide ? "64" : "") +
                                                ":[0-9]+\\): Memory chunk len " + row.sum +
                                                "\\(Hdr:16 \\+ Data:" + std::to_string(row.len) +
                                                "\\) should not be greater than memory slot length 1000\\.\n"));
      EXPECT_EQ(as_word(address), 7u | (7u << 8));
      EXPECT_EQ(address64.mslot_idx, 7u);
      EXPECT_EQ(address64.mchunk_idx, 7u);
      EXPECT_EQ(std::string(bytes_of(pool->arr_base), 80), before);
    }
  }
  take(plain, 1000);
  take64(compat, 1000);
}

TEST(BigBuffer, MaxSlotsLimitsTheSlotsWithMemory) {
  const array_t pool = pool_of({.compat = 0, .daflag = 0, .max_slots = 8});
  for (int i = 0; i < 5; ++i) take(pool, 900);  // slot 4 creates a block of 16
  EXPECT_EQ(tslb_da_get_total_size(pool.get()), 20u);
  maddr_t address = {9, 9};
  EXPECT_EQ(stderr_of([&] { EXPECT_EQ(tslb_dynmem_get_mchunk(pool.get(), &address, 900, srcaddr_t{}), nullptr); }), "");
  EXPECT_EQ(as_word(address), 9u | (9u << 8));
  EXPECT_EQ(as_word(take(pool, 100)), 4u | (900u << 8)) << "a chunk that the current slot can hold was refused";
  for (const short max_slots : {short{8}, short{-1}}) {
    const array_t eight = pool_of({.compat = 0, .daflag = 0, .max_slots = max_slots}, 8);
    EXPECT_EQ(tslb_dynmem_get_mchunk(eight.get(), &address, 1, srcaddr_t{}) == nullptr, max_slots == 8) << max_slots;
  }
}

TEST(Exhaustion, StopsAfterTheLastSlotThatAnAddressCanName) {
  static const struct {
    const char *fault;
    kind_t kind;
    uint32_t n_used, current, offset;
  } rows[] = {
      {"continues after slot 255", kBigBuffer, 256, 255, 16},
      {"its limit tested first", {.compat = 0, .daflag = 0, .max_slots = 20}, 256, 255, 16},
      {"new slot 256 while a reused slot was current", {.compat = 0}, 256, 3, 16},
      {"room in slot 256, which 64-bit chunks reached", {.compat = 0}, 257, 256, 0},
      {"continues after slot 2040", kBitVector, 2041, 2040, 16},
      {"new slot 2041 while a reused slot was current", {.compat = 0, .slot_type = MPOOL_FLAG_BV}, 2041, 3, 16},
      {"room in slot 2041, which 64-bit chunks reached", {.compat = 0, .slot_type = MPOOL_FLAG_BV}, 2042, 2041, 0},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    const array_t pool = pool_of(row.kind, 0, 16);
    pretend_issued(pool.get(), row.n_used);
    get_dyn_hdr(pool.get())->n_alloc = row.n_used;
    set_cursor(pool, row.current, row.offset);
    EXPECT_DEATH(take(pool, 8), std::string("^tslb_dynmem_chunk.cpp:tslb_dynmem_get_mchunk:[0-9]+: ") +
                                    (row.kind.slot_type == 0 ? "Warning: Bigbuffer" : "Error: BitVector") +
                                    " pool exhausted. \\[MPOOL-HDR\\] DynArrHandle.*");
    const uint32_t wide = take64(pool, 8).mslot_idx;
    EXPECT_EQ(wide, row.offset == 0 ? row.current : row.n_used) << "a 64-bit address did not name the slot";
  }
  for (const char slot_type : std::initializer_list<char>{0, MPOOL_FLAG_BV}) {
    const uint32_t last = slot_type == 0 ? 255 : 2040;
    const array_t pool = pool_of({.compat = 0, .slot_type = slot_type}, 0, 16);
    pretend_issued(pool.get(), last);
    set_cursor(pool, last - 1, 16);
    take(pool, 8);
    EXPECT_EQ(cursor_slot(pool), last) << "the last slot was not used";
  }
  // A slot with a lower index is taken if the free list has one.
  const array_t pool = pool_of({.compat = 0}, 0, 16);
  while (tslb_da_get_size(pool.get()) < 301) take64(pool, 16);
  tslb_da_free_idx(pool.get(), 7);
  EXPECT_EQ(as_word(take(pool, 8)), 7u);
}

TEST(Exhaustion, BitVectorsWarnEvery255Slots) {
  const array_t pool = pool_of(kBitVector, 0, 8);
  const std::string report = stderr_of([&] { advance_to(pool, 600); });
  static const char kText[] =
      "tslb_dynmem_chunk\\.cpp:tslb_dynmem_get_mchunk:[0-9]+: BitVector overusage Warning: Bitvect pool "
      "\\[\\[MPOOL-HDR\\] [^\n]*\\], it has already used ";
  EXPECT_THAT(report,
              testing::MatchesRegex(std::string(kText) + "255 slot index\\.\n" + kText + "510 slot index\\.\n"));
}

TEST(Ring, WrapsToSlot0AndKeepsItsCounts) {
  const array_t pool = pool_of(kRing, 4, 64);
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
  EXPECT_EQ(slot_at(pool, 0).bytes_used, 104u) << "the count of a ring's slot was reset";
  EXPECT_EQ(tslb_da_get_size(pool.get()), 254u);
  EXPECT_EQ(hdr_of(pool).total_msz, total);

  // Second round: every slot is used in turn, from its start, and no new slot is taken.
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

TEST(Ring, ReturnsFromSlotsAboveIt) {
  const array_t pool = pool_of(kRing, 0, 16);
  while (tslb_da_get_size(pool.get()) < 301) take64(pool, 16);
  maddr_t address = {1, 1};
  stdout_of([&] { address = take(pool, 8); });
  EXPECT_EQ(as_word(address), 0u);
}

// ---- 64-bit addresses ----------------------------------------------------------------------------------------------

TEST(Chunks64, AddressesHaveWholeFieldsAndAnyOffset) {
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
      EXPECT_EQ(memcmp(chunk, &source, 12), 0) << "the source address was not copied whole";
      EXPECT_EQ(chunk[12], offset != 0 ? 0x7E : 0) << "another bit than the deleted bit changed";
      uint32_t size = 0;
      EXPECT_EQ(tslb_dynmem_get_maddr2ptr64_ex(pool.get(), address, &size), chunk + 16);
      EXPECT_EQ(size, len % 65536u) << "not the low 16 bits of the length";
      EXPECT_EQ(tslb_dynmem_get_maddr2ptr64(pool.get(), address), chunk + 16);
      offset += static_cast<uint32_t>(len) + 16;
    }
    EXPECT_EQ(slot_at(pool, 0).bytes_used, offset);
    EXPECT_EQ(hdr_of(pool).total_mused, offset);
    EXPECT_EQ(hdr_of(pool).total_mwast, 5u * 16 + 8);
  }
}

TEST(Chunks64, NoLimitAndNoWarningInPoolsOfAnyKind) {
  static const struct {
    const char *fault;
    kind_t kind;
  } rows[] = {
      {"stops at slot 255", {.compat = 0}},
      {"limited by max_slots", {.compat = 0, .max_slots = 2}},
      {"warns at slot 255", {.compat = 0, .slot_type = MPOOL_FLAG_BV}},
      {"runs in a ring", {.compat = 0, .slot_type = MPOOL_FLAG_BV, .mem_type = MPOOL_TYPE_DRAM_TMP}},
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

TEST(Chunks64, StopsIfTheArrayHasNoSlot) {
  const array_t pool = pool_of();
  take64(pool, 900);
  get_dyn_hdr(pool.get())->n_alloc = 0xFFFFFFFF;
  EXPECT_DEATH(take64(pool, 900), "Assertion `cur_mslot' failed");
  EXPECT_DEATH(take(pool, 900), "Assertion `\\*mslot_ref' failed");
  take64(pool, 26);
}

TEST(Chunks64, ResolvesWholeFieldsAndRefusesNegativeOffsets) {
  const array_t compat = pool_of({.slot_type = MPOOL_FLAG_BV}),
                bare = pool_of({.compat = 0, .slot_type = MPOOL_FLAG_BV});
  uint32_t size = 5;
  EXPECT_EQ(tslb_dynmem_get_maddr2ptr64_ex(compat.get(), maddr64_t{0, 0}, &size), nullptr)
      << "resolved although no slot was taken";
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
      {"negative offset with a header", true, 0, 0x80000000, false},
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
