// Tests of streams and files that the loaders refuse. Each refusal has a line with the place and the fault.
#include <tslb/block_files.h>
#include "fault_alloc.h"
#include "loader_support.h"

static array_load_options_t of_kind(uint8_t kind, char mem_type = MPOOL_TYPE_DRAM) {
  return {"ctx", 12, mem_type, kind, 0, ARRAY_LOAD_ANY_VERSION, ARRAY_LOAD_ANY_SIZE};
}
static array_load_options_t expecting(int16_t rec_version, uint32_t record_size) {
  return {"ctx", 12, MPOOL_TYPE_DRAM, ARRAY_LOAD_ANY, 0, rec_version, record_size};
}
static array_load_options_t blocks_up_to(uint64_t bytes) {
  return {"ctx", 12, MPOOL_TYPE_DRAM, ARRAY_LOAD_ANY, bytes, ARRAY_LOAD_ANY_VERSION, ARRAY_LOAD_ANY_SIZE};
}

TEST(ArrayLoader, OptionsOfTheCaller) {
  const std::string array = stream_of(slot_array(0, 12, 3, 0, 9).get());
  const std::string parked = stream_of(slot_array(0, 12, 3, TSLB_DA_DAFLAG_INLL, 9).get());
  const std::string pool = stream_of(chunk_pool(BIG_BUFFER, 5).get());
  const std::string same_size = stream_of(slot_array(56, 12, 4, 0, 3).get());
  const std::string other_size = stream_of(slot_array(20, 12, 4, 0, 3).get());
  const struct {
    const char *fault;
    const std::string &stream;
    array_load_options_t options;
    const char *error;
  } rows[] = {
      {"temporary process memory refused", array, of_kind(ARRAY_LOAD_ANY, MPOOL_TYPE_DRAM_TMP), ""},
      {"temporary files that are process memory refused", array, of_kind(ARRAY_LOAD_ANY, MPOOL_TYPE_SHM_TMP), ""},
      {"loading into block files accepted", array, of_kind(ARRAY_LOAD_ANY, MPOOL_TYPE_SHM),
       "option mem_type 1 is not in process memory"},
      {"memory that is not available accepted", array, of_kind(ARRAY_LOAD_ANY, MPOOL_TYPE_PMEM),
       "option mem_type 2 is not in process memory"},
      {"a kind that is unknown", array, of_kind(3), "option kind 3 is unknown"},
      {"the expected layout refused", array, expecting(0xC3, 12), ""},
      {"a version read with its sign", array, expecting(0xC3, ARRAY_LOAD_ANY_SIZE), ""},
      {"records of another version loaded", array, expecting(0, 12), "byte 1: rec_version 195, expected 0"},
      {"records of another size loaded", array, expecting(ARRAY_LOAD_ANY_VERSION, 13),
       "byte 20: record_size 12, expected 13"},
      {"nodes counted as the record's", parked, expecting(0xC3, 12), ""},
      {"a version that no array has", array, expecting(256, 12), "option rec_version 256 is out of range"},
      {"any negative version is any", array, expecting(-2, 12), "option rec_version -2 is out of range"},
      {"a pool is a pool only if it is said", pool, of_kind(ARRAY_LOAD_ANY), ""},
      {"a pool is not recognised", pool, of_kind(ARRAY_LOAD_POOL_BY_SIZE), ""},
      {"another header of that size passes for a pool's", same_size, of_kind(ARRAY_LOAD_POOL_BY_SIZE),
       "byte 12: mslot_sz 4008636142 does not match record_size 12"},
      {"a header that is not asked about is refused", same_size, of_kind(ARRAY_LOAD_ANY), ""},
      {"a header of another size is taken for a pool's", other_size, of_kind(ARRAY_LOAD_POOL_BY_SIZE), ""},
      {"an array passes for a pool", other_size, of_kind(ARRAY_LOAD_POOL), "byte 4: hdr_size 20, but a pool has 56"},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    const load_result_t loaded = load(row.stream, row.options);
    EXPECT_EQ(loaded.error, row.error);
    if (loaded.array != nullptr) {
      EXPECT_EQ(loaded.array->mem_type, row.options.mem_type);
    }
  }
}

TEST(ArrayLoader, EveryTruncationIsRefused) {
  const array_t pool = chunk_pool({"", 64, 2, 0, MPOOL_FLAG_BV, TSLB_DA_DAFLAG_INLL}, 8, BVP_TBLID);
  const struct {
    const char *fault;
    std::string stream;
    array_load_options_t options;
    size_t header_bytes, slot_bytes;
    size_t also_whole_at;  // the only shorter stream that is valid
  } rows[] = {
      {"of a plain array", stream_of(slot_array(0, 5, 2, 0, 19).get()), ANY, 24, 5, 0},
      {"of an array with both lists", stream_of(slot_array(5, 7, 2, TSLB_DA_DAFLAG_INLL, 19).get()), ANY, 89, 23, 0},
      {"of a pool", stream_of(pool.get()), POOL, 140, 88, cut_stream_of(pool.get()).size()},
      {"of a pool that was cut", cut_stream_of(pool.get()), POOL, 140, 88, 0},
      {"of a pool that is loaded as any array", stream_of(pool.get()), ANY, 140, 88, 0},
  };
  const auto ends = [](size_t at, size_t begin, const std::string &what, size_t bytes) {
    return "byte " + std::to_string(at) + ": ends " + std::to_string(at - begin) + " bytes into " + what + " of " +
           std::to_string(bytes);
  };
  for (const auto &row : rows) {
    const auto ends_in_slot = [&](size_t at) {
      const size_t idx = (at - row.header_bytes) / row.slot_bytes;
      return ends(at, row.header_bytes + idx * row.slot_bytes, "slot " + std::to_string(idx), row.slot_bytes) +
             " bytes";
    };
    for (size_t size = 0; size < row.stream.size(); ++size) {
      SCOPED_TRACE(testing::Message() << row.fault << ", to " << size << " bytes");
      const load_result_t loaded = load(row.stream.substr(0, size), row.options);
      if (size == row.also_whole_at && size != 0) {
        EXPECT_NE(loaded.array, nullptr) << loaded.error;
      } else if (size < row.header_bytes) {
        expect_refused(loaded,
                       size < 8 ? ends(size, 0, "DynHdr_t", 8) : ends(size, 8, "headers", row.header_bytes - 8));
      } else {
        expect_refused(loaded, ends_in_slot(size));
      }
    }
    SCOPED_TRACE(row.fault);
    EXPECT_EQ(load(row.stream, row.options).error, "");
    // One byte more than a cut slot is a whole slot with missing bytes.
    const size_t size = row.stream.size();
    const bool is_whole = (size - row.header_bytes) % row.slot_bytes == 0;
    expect_refused(
        load(row.stream + '\0', row.options),
        is_whole ? "byte " + std::to_string(size) + ": more bytes after the last slot" : ends_in_slot(size + 1));
  }
}

// The last slot ends the first read (16,384 bytes at a time), or is longer than one read.
TEST(ArrayLoader, BytesAfterTheLastSlotAreRefused) {
  for (const auto &[record_sz, n_used] : {std::pair{20000, 1}, std::pair{4, (16384 - 24) / 4}}) {
    const std::string stream = stream_of(slot_array(0, record_sz, n_used, 0, n_used).get());
    EXPECT_EQ(load(stream).error, "");
    expect_refused(load(stream + 'x'), "byte " + std::to_string(stream.size()) + ": more bytes after the last slot");
  }
}

// Slots 0 to 7 have 9 bytes between their nodes, after headers of 84 bytes. Slots 1, 4 and 7 are free, 0 and 3
// inactive, 2, 5 and 6 active.
class Contradictions : public testing::Test {
 protected:
  static constexpr uint32_t LLI = 8, HDR = 68, SLOTS = 84, SLOT = 25;
  static std::string sound() {
    const array_t array = slot_array(0, 9, 2, TSLB_DA_DAFLAG_INLL, 8);
    for (const uint32_t idx : {0u, 3u}) {
      if (status_at(array.get(), idx) == TSLB_DA_SLOT_ACTIVE) tslb_da_inactivate_idx(array.get(), idx, now);
    }
    return stream_of(array.get());
  }
  static constexpr uint32_t status(uint32_t idx) { return SLOTS + idx * SLOT; }
  static constexpr uint32_t next(uint32_t idx) { return status(idx) + 4; }
  static constexpr uint32_t prev(uint32_t idx) { return status(idx) + 17; }
};

struct patch_t {
  uint32_t at, value, bytes;
};
using patches_t = std::vector<patch_t>;

// Writes a word, or its first bytes.
static patches_t put(uint32_t at, uint32_t value, uint32_t bytes = 4) {
  return {{at, value, bytes}};
}
static patches_t operator+(patches_t first, const patches_t &then) {
  first.insert(first.end(), then.begin(), then.end());
  return first;
}

struct contradiction_t {
  const char *fault;
  patches_t patches;
  const char *error;  // after "byte "
};

static void expect_contradictions(const std::string &sound, const array_load_options_t &options,
                                  const std::vector<contradiction_t> &rows) {
  ASSERT_EQ(load(sound, options).error, "");
  for (const contradiction_t &row : rows) {
    SCOPED_TRACE(row.fault);
    std::string stream = sound;
    for (const patch_t &patch : row.patches) memcpy(stream.data() + patch.at, &patch.value, patch.bytes);
    expect_refused(load(stream, options), std::string("byte ") + row.error);
  }
}

TEST_F(Contradictions, OfHeadersAndLists) {
  constexpr uint32_t NIL = TSLB_DA_NIL_IDX;
  expect_contradictions(
      sound(), ANY,
      {
          {"version 1", put(0, 1, 1), "0: lib_version 1, expected 2"},
          {"roots of another size", put(6, 61, 2), "6: lli_sz 61, expected 0 or 60"},
          {"flags without a list", put(LLI + 28, 0, 1), "36: lltype 0x00 has no list flag, but lli_sz is not 0"},
          {"other flags", put(LLI + 28, 0xFC, 1), "36: lltype 0xfc has no list flag, but lli_sz is not 0"},
          {"n_used", put(HDR + 4, 2 + 286331137),
           "72: n_used 286331139 is more than an array with n_direct 2 can have"},
          {"negative n_direct", put(HDR + 8, 0x80000000), "76: n_direct 2147483648 is more than an array can have"},
          {"block 0 too long", put(HDR + 8, 85899344),
           "76: n_direct 85899344 with slots of 25 bytes exceeds the maximum size of block 0"},
          {"negative record_size", put(HDR + 12, 0x80000000) + put(HDR + 8, 0),
           "80: record_size 2147483648 is more than an array can have"},
          {"data block beyond 4 GiB", put(HDR + 12, 0x10000000 - 16) + put(HDR + 8, 0),
           "80: record_size 268435440 is more than an array can have"},

          {"free list begins outside", put(LLI, 8), "8: the free list names slot 8 of 8"},
          {"free list leads outside", put(next(4), 9), "188: the free list names slot 9 of 8"},
          {"free ring", put(next(7), 1), "263: the free list returns to slot 1"},
          {"active slot on the free list", put(status(4), 2), "184: status 2 on the free list, slot 4"},
          {"free list is shorter", put(LLI + 24, 4), "32: the free list counts 4 slots, but has 3"},
          {"count beyond all slots", put(LLI + 24, 9), "32: the free list counts 9 slots of 8"},
          {"tail that is not the last", put(LLI + 4, 4), "12: tail 4 of the free list, but its last slot is 7"},
          {"tail alone", put(LLI, NIL) + put(LLI + 24, 0),
           "12: tail 7 of the free list, but its last slot is 4294967295"},
          {"free on no list", put(LLI, NIL) + put(LLI + 4, NIL) + put(LLI + 24, 0),
           "109: slot 1 has the status free, but is not on that list"},

          {"inactive list begins out of the array", put(LLI + 8, 77), "16: the inactive list names slot 77 of 8"},
          {"active slot on the inactive list", put(status(3), 2), "159: status 2 on the inactive list, slot 3"},
          {"back link", put(prev(3), 2), "176: prev 2 of slot 3 on the inactive list, expected 0"},
          {"back link at the head", put(prev(0), 3), "101: prev 3 of slot 0 on the inactive list, expected 4294967295"},
          {"inactive list is shorter", put(LLI + 16, 3), "24: the inactive list counts 3 slots, but has 2"},
          {"inactive tail", put(LLI + 12, 0), "20: tail 0 of the inactive list, but its last slot is 3"},
          {"inactive on no list", put(status(2), 3), "134: slot 2 has the status inactive, but is not on that list"},

          {"status 4", put(status(2), 4), "134: status 4 of slot 2 does not exist"},
          {"status without its highest bit", put(status(6), 0x7FFFFFFF),
           "234: status 2147483647 of slot 6 does not exist"},
          {"active slot with a link", put(next(5), 0), "213: active slot 5 has a link to 0"},
          {"active slot with a back link", put(prev(5), 0), "226: active slot 5 has a back link to 0"},
      });
}

TEST_F(Contradictions, OfAnArrayWithoutAnInactiveList) {
  const char *const error = "16: roots of an inactive list, but lltype 0x01 has none";
  expect_contradictions(stream_of(slot_array(0, 9, 2, TSLB_DA_DAFLAG_LL, 8).get()), ANY,
                        {{"inactive head", put(LLI + 8, 0), error},
                         {"inactive tail", put(LLI + 12, 0), error},
                         {"inactive count", put(LLI + 16, 1), error},
                         {"inactive slot", put(SLOTS, 3), "84: status 3 of slot 0, but there is no inactive list"}});
}

TEST_F(Contradictions, OfPools) {
  const array_t array = chunk_pool(BIG_BUFFER, 5);
  const uint32_t n_used = tslb_da_get_size(array.get());
  ASSERT_EQ(n_used, 3u);
  expect_contradictions(
      stream_of(array.get()), POOL,
      {
          {"slots smaller than records", put(12, 60), "12: mslot_sz 60 does not match record_size 72"},
          {"a sum that wraps", put(12, 0xFFFFFFF8) + put(124 + 12, 0) + put(124 + 4, 0),
           "12: mslot_sz 4294967288 does not match record_size 0"},
          {"slots that no creator makes", put(12, 65) + put(124 + 12, 73), "12: mslot_sz 65 is not a multiple of 4"},
          {"current slot beyond the last", put(16, 3), "16: cur_slot_addr names slot 3 of 3"},
          {"offset after the slot", put(20, 65), "20: cur_slot_addr is at byte 65 of a slot of 64"},
          {"offset after a slot that does not exist", put(16, 0xFFFFFFFF) + put(20, 65),
           "20: cur_slot_addr is at byte 65 of a slot of 64"},
      });
  // Slot 1 was taken, filled and freed. Slot 0 has two chunks of 24 and 32 bytes. Slot 2 is current.
  const std::string stream = stream_of(array.get());
  ASSERT_EQ(read_at<uint32_t>(stream.data(), 140 + 80), uint32_t{TSLB_DA_SLOT_FREE});
  const uint32_t used = read_at<uint32_t>(stream.data(), 140 + 2 * 80 + 8);
  const std::string went_back = "308: bytes_used " + std::to_string(used) +
                                " of the current slot, 2, is more than the cursor's " + std::to_string(used - 8);
  expect_contradictions(
      stream, POOL,
      {
          {"current slot that is free", put(16, 1), "220: status 1 of the current slot, 1"},
          {"more deleted than used", put(152, 57), "152: bytes_del 57 of slot 0, but bytes_used is 56"},
          {"more used than a slot has", put(148, 65), "148: bytes_used 65 of slot 0, but the slot has 64"},
          {"cursor that went back", put(20, used - 8), went_back.c_str()},
      });
  // States that a killed process or a host's own bits can leave.
  const struct {
    const char *fault;
    std::function<void(char *)> change;
  } remarks[] = {
      {"bits of a host's own slot_type", [](char *bytes) { bytes[8] |= 0x2C; }},
      {"chunk that was reserved and not counted", [used](char *bytes) { write_at(bytes, 308, used - 8); }},
      {"chunk that is not in the total yet", [](char *bytes) { write_at(bytes, 24, uint64_t{0}); }},
      {"slot that never became current", [](char *bytes) { write_at(bytes, 148, 0xFFFFFFFFu); }},
      {"total that another process counted", [](char *bytes) { write_at(bytes, 48, uint64_t{1}); }},
  };
  for (const auto &row : remarks) {
    std::string changed = stream;
    row.change(changed.data());
    EXPECT_EQ(load(changed, POOL).error, "") << row.fault;
  }
  std::string none = stream_of(array.get());
  write_at(none.data(), 16, uint64_t{0xFFFFFFFF});
  EXPECT_NE(load(none, POOL).array, nullptr) << "a cursor without a slot is refused";
}

// A slot may be cut only at the cursor.
TEST(ArrayLoader, OnlyTheCurrentSlotMayBeCut) {
  const array_t pool = chunk_pool(BIG_BUFFER, 6);
  const std::string cut = cut_stream_of(pool.get());
  std::string elsewhere = cut, nowhere = cut;
  write_at(elsewhere.data(), 16, read_at<uint32_t>(cut.data(), 16) - 1);
  write_at(nowhere.data(), 16, uint32_t{0xFFFFFFFF});
  const std::string ends = "byte " + std::to_string(cut.size()) + ": ends ";
  EXPECT_EQ(load(cut, POOL).error, "");
  EXPECT_EQ(load(elsewhere, POOL).error.rfind(ends, 0), 0u);
  EXPECT_EQ(load(nowhere, POOL).error.rfind(ends, 0), 0u);
}

TEST(ArrayLoader, RingHasAMaximumOfSlots) {
  for (const int n_slots : {254, 255}) {
    const array_t pool(tslb_init_dynmem(8, 4, 0, MPOOL_TYPE_DRAM, MPOOL_FLAG_BV, "ctx", 12, 0));
    maddr_t address;
    for (int i = 0; i < n_slots; ++i) tslb_dynmem_get_mchunk(pool.get(), &address, 8, srcaddr_t{});
    const std::string stream = stream_of(pool.get());
    EXPECT_EQ(load(stream, POOL).error, "");
    const load_result_t ring = load(stream, of_kind(ARRAY_LOAD_POOL, MPOOL_TYPE_DRAM_TMP));
    EXPECT_EQ(ring.error, n_slots == 254 ? "" : "byte 68: n_used 255, but a ring has 254 slots");
    if (ring.array == nullptr) continue;
    stdout_of([&] { tslb_dynmem_get_mchunk(ring.array.get(), &address, 8, srcaddr_t{}); });
    EXPECT_EQ(as_word(address), 0u) << "the ring does not wrap";
  }
}

TEST(ArrayLoader, BlocksAboveTheLimitAreRefused) {
  const std::string stream = stream_of(slot_array(0, 100, 10, 0, 12).get());  // block 0: 1024, a data block: 1600
  EXPECT_EQ(load(stream, blocks_up_to(1023)).error,
            "byte 16: n_direct 10 with slots of 100 bytes exceeds the maximum size of block 0");
  EXPECT_EQ(load(stream, blocks_up_to(1599)).error,
            "byte 20: record_size 100 makes a block of 16 slots larger than the maximum");
  EXPECT_EQ(load(stream, blocks_up_to(1600)).error, "");
  EXPECT_EQ(load(stream, blocks_up_to(0)).error, "") << "no limit";
  const std::string direct = stream_of(slot_array(0, 100, 10, 0, 10).get());
  EXPECT_EQ(load(direct, blocks_up_to(1100)).error, "") << "no data block, no limit on it";
}

TEST(ArrayLoader, ClaimedSlotsAllocateNoMemory) {
  std::string stream = stream_of(slot_array(0, 4, 0, 0, 40).get());
  write_at(stream.data(), 8 + 4, uint32_t{286331136});  // n_used: 1.1 GB of slots
  const unsigned long before = allocations_so_far();
  const load_result_t loaded = load(stream);
  expect_refused(loaded, "byte 184: ends 0 bytes into slot 40 of 4 bytes");
  EXPECT_LT(allocations_so_far() - before, 40u) << "blocks were allocated for all claimed slots, not for 40";

  std::string no_bytes = stream_of(slot_array(0, 0, 4, 0, 0).get());
  EXPECT_EQ(load(no_bytes).error, "");
  write_at(no_bytes.data(), 8 + 4, uint32_t{200000000});
  expect_refused(load(no_bytes), "byte 20: record_size 0 with 200000000 slots in use");
}

TEST(ArrayLoader, EveryRefusedAllocationIsARefusedLoad) {
  const std::string stream = stream_of(slot_array(13, 9, 3, TSLB_DA_DAFLAG_INLL, 3 + 256 + 20).get());
  const memory_file_t file(stream);
  int nth = 1;
  for (bool struck = true; struck; ++nth) {
    SCOPED_TRACE(nth);
    lseek(file.fd(), 0, SEEK_SET);
    char error[256];
    array_t array;
    stderr_of([&] {
      const fault_t fault(nth);
      array.reset(array_load_stream(file.fd(), &ANY, error, sizeof(error)));
      struck = fault.struck();
    });
    EXPECT_EQ(array == nullptr, struck) << error;
    EXPECT_EQ(std::string(error).find("no memory for ") != std::string::npos, struck) << error;
  }
  EXPECT_GT(nth, 20) << "headers, handle, block 0, tables and 18 blocks";
}

// The data blocks of such an array have no bytes, so no position lies in one.
TEST(ArrayLoader, RefusedMemoryForBlockFilesOfNoBytes) {
  const base_path_t base;
  slot_array(0, 0, 4, 0, 0, MPOOL_TYPE_SHM);
  for (const int nth : {1, 2, 3}) {
    char error[512];
    array_t array;
    stderr_of([&] {
      const fault_t fault(nth);
      array.reset(array_load_block_files(base.path.c_str(), &ANY, error, sizeof(error)));
      EXPECT_TRUE(fault.struck());
    });
    EXPECT_EQ(array, nullptr);
    const std::string place =
        base.path.string() + "/ctx/12.0.darr: byte " + (nth == 1 ? "8" : "24") + ": no memory for ";
    EXPECT_EQ(std::string(error).find(place), 0u) << error;
  }
}
