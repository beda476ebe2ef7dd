// Tests of addressing: the place of an id in the direct area and the six levels, and the memory that a lookup creates.
#include "array_support.h"

struct place_t {
  unsigned level;
  uint32_t actual_id;
};
static place_t place_of(uint32_t beyond) {
  const unsigned level = tslb_stored_level_of(beyond);
  return {level, beyond - tslb_stored_first_of_level(level)};
}

TEST(Addressing, PlaceOfId) {
  static const struct {
    const char *fault;  // the bug that this row detects
    uint32_t n_direct, id;
    unsigned level;
    uint32_t actual_id, block_num;
  } rows[] = {
      {"level 2 numbers its blocks from 1 again, so two blocks share a file", 16, 272, 2, 0, 17},
      {"the maximum id is refused", 0, 286331135, 6, 0xFFFFFFF, 17895696},
      {"computed by hand: entries 14 and 10, slot 0", 1000, 5000, 2, 0xEA0, 251},
      {"computed by hand: entries 14, 2, 13, 5, slot 8", 1000, 1000000, 4, 0xE2D58, 62438},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    const place_t got = place_of(row.id - row.n_direct);
    EXPECT_EQ(got.level, row.level);
    EXPECT_EQ(got.actual_id, row.actual_id);
    EXPECT_EQ(tslb_stored_block_num(row.id - row.n_direct), row.block_num);
  }
  EXPECT_EQ(place_of(286331136).level, 7u);
  EXPECT_EQ(place_of(0xFFFFFFFF).level, 7u);
}

TEST(Addressing, LookupUsesThePublishedLevelSizes) {
  const uint32_t sizes[] = {single_redirection_elements_count, second_redirection_elements_count,
                            third_redirection_elements_count,  fourth_redirection_elements_count,
                            fifth_redirection_elements_count,  sixth_redirection_elements_count};
  uint32_t first = 0;
  for (unsigned level = 1; level <= 6; first += sizes[level++ - 1]) {
    const place_t begin = place_of(first), end = place_of(first + sizes[level - 1] - 1);
    EXPECT_EQ(begin.level, level);
    EXPECT_EQ(begin.actual_id, 0u);
    EXPECT_EQ(end.level, level);
    EXPECT_EQ(end.actual_id, sizes[level - 1] - 1);
  }
  EXPECT_EQ(first, 286331136u);
}

// Follows the tables without a lookup, one entry per digit of the path in base 16.
static void *slot_by_hand(DynArrHandle_t *array, unsigned level, uint32_t actual_id, uint32_t slot_bytes) {
  void *at = reinterpret_cast<void **>(array->ir_base)[level - 1];
  for (unsigned digit = level; digit >= 1; --digit) {
    if (at == nullptr) return nullptr;
    at = static_cast<void **>(at)[(actual_id >> (4 * digit)) & 15];
  }
  return at != nullptr ? bytes_of(at) + (actual_id & 15) * slot_bytes : nullptr;
}

TEST(Addressing, LookupCreatesOnlyItsOwnPath) {
  const uint32_t n = 1000;
  const uint32_t offsets[] = {0, 255, 256, 4351, 4352, 69887, 69888, 1118463, 1118464, 17895679, 17895680, 286331135};
  for (const uint8_t daflag : std::initializer_list<uint8_t>{0, 1, 2}) {
    const uint32_t slot_bytes = 7 + tslb_stored_node_bytes(daflag);
    for (const uint32_t beyond : offsets) {
      SCOPED_TRACE(beyond);
      const array_t array(get_default_dyn_array_ex(57, 7, n, MPOOL_TYPE_DRAM, 0, nullptr, daflag));
      pretend_issued(array.get(), n + beyond + 1);
      char *const record = bytes_of(get_dyn_arr_record_position_ex(array.get(), n + beyond, 0, nullptr, daflag));
      ASSERT_NE(record, nullptr);
      const place_t place = place_of(beyond);
      EXPECT_EQ(record, bytes_of(slot_by_hand(array.get(), place.level, place.actual_id, slot_bytes)) +
                            tslb_stored_shift(daflag));
      EXPECT_EQ(get_dyn_total_allocated_records(array.get()), n + 16);
      EXPECT_EQ(get_dyn_arr_record_position_ex(array.get(), n + beyond, 0, nullptr, daflag), record);
      EXPECT_EQ(get_dyn_total_allocated_records(array.get()), n + 16);
      // The slot is zeroed, up to the last byte of its nodes.
      const char *const slot = record - tslb_stored_shift(daflag);
      for (uint32_t i = 0; i < slot_bytes; ++i) EXPECT_EQ(slot[i], 0) << i;
      for (unsigned level = 1; level <= 6; ++level)
        EXPECT_EQ(reinterpret_cast<void **>(array->ir_base)[level - 1] != nullptr, level == place.level) << level;
    }
  }
}

// Writes every byte of every slot, nodes included, and reads them back at the end.
TEST(Addressing, SlotsNeverOverlapNorMove) {
  for (const uint8_t daflag : std::initializer_list<uint8_t>{0, 1, 2, 3}) {
    SCOPED_TRACE(int{daflag});
    const uint32_t slot_bytes = 13 + tslb_stored_node_bytes(daflag);
    const array_t array(get_default_dyn_array_ex(3, 13, 16, MPOOL_TYPE_DRAM, 0, nullptr, daflag));
    std::vector<char *> slots;
    for (int32_t want = 0; want < 5000; ++want) {  // into level 3
      void *record;
      ASSERT_EQ(get_dyn_arr_new_record_id_ex(array.get(), &record, daflag), want);
      slots.push_back(bytes_of(record) - tslb_stored_shift(daflag));
      memset(slots.back(), want * 7 + 1, slot_bytes);
    }
    EXPECT_EQ(get_dyn_arr_size(array.get()), 5000u);
    EXPECT_EQ(get_dyn_total_allocated_records(array.get()), 16u + 16 * 312);
    for (uint32_t id = 0; id < 5000; ++id) {
      char *const record = bytes_of(get_dyn_arr_record_position_ex(array.get(), id, 0, nullptr, daflag));
      ASSERT_EQ(record - tslb_stored_shift(daflag), slots[id]) << id;
      const std::string want(slot_bytes, static_cast<char>(id * 7 + 1));
      ASSERT_EQ(std::string(slots[id], slot_bytes), want) << id;
    }
  }
}

TEST(Lookup, IssuedIdsAreFoundAndARefusalAllocatesNothing) {
  const array_t array(get_default_dyn_array(8, 4, MPOOL_TYPE_DRAM));
  EXPECT_EQ(stderr_of([&] {
              EXPECT_EQ(get_dyn_arr_record_position(array.get(), 0), nullptr);
              EXPECT_EQ(get_dyn_arr_record_position(array.get(), 0xFFFFFFFF), nullptr);
            }),
            "");
  pretend_issued(array.get(), 100);
  EXPECT_NE(get_dyn_arr_record_position(array.get(), 3), nullptr);
  EXPECT_EQ(get_dyn_arr_record_position(array.get(), 100), nullptr);
  EXPECT_EQ(array->ir_base, nullptr) << "tables were allocated although the direct area is enough";
  // Every id below the count was issued, not only the last.
  EXPECT_NE(get_dyn_arr_record_position(array.get(), 99), nullptr);
  EXPECT_NE(get_dyn_arr_record_position(array.get(), 40), nullptr);
  EXPECT_EQ(get_dyn_total_allocated_records(array.get()), 36u);
}

TEST(Lookup, IdAboveTheSixthLevelIsReportedAndNull) {
  const array_t array(get_default_dyn_array(8, 5, MPOOL_TYPE_DRAM));
  pretend_issued(array.get(), 286331141);
  void *record = &record;
  EXPECT_EQ(stderr_of([&] { record = get_dyn_arr_record_position(array.get(), 286331140); }), "");
  EXPECT_NE(record, nullptr);
  int32_t id = 0;
  EXPECT_EQ(stderr_of([&] { id = get_dyn_arr_new_record_id_ex(array.get(), &record, 0); }),
            "ID 286331141 is not correct, n_direct:5\n");
  EXPECT_EQ(id, -1);
  EXPECT_EQ(record, nullptr);
  EXPECT_EQ(get_dyn_arr_size(array.get()), 286331142u);
  // The maximum number: after it the count is 0 again, so it does not count as issued.
  pretend_issued(array.get(), 0xFFFFFFFF);
  EXPECT_EQ(stderr_of([&] { id = get_dyn_arr_new_record_id_ex(array.get(), &record, 0); }), "");
  EXPECT_EQ(id, -1);
  EXPECT_EQ(record, nullptr);
}

// An array in persistent memory cannot be created, but a host's own handle can have that type.
TEST(Lookup, BlockInPersistentMemoryIsReportedAndNull) {
  const array_t array(get_default_dyn_array(8, 0, MPOOL_TYPE_DRAM));
  pretend_issued(array.get(), 17);
  array->mem_type = MPOOL_TYPE_PMEM;
  void *record = &record;
  EXPECT_EQ(stderr_of([&] { record = get_dyn_arr_record_position(array.get(), 16); }),
            "Unexpected data_addr NULL, count: 16, block_num: 2\n");
  EXPECT_EQ(record, nullptr);
  EXPECT_EQ(get_dyn_total_allocated_records(array.get()), 16u)
      << "the slots are counted by the result of get_pmem_block";
  array->mem_type = MPOOL_TYPE_DRAM;
  EXPECT_NE(get_dyn_arr_record_position(array.get(), 16), nullptr);
}

TEST(NewId, FullArrayRefusesAndKeepsTheCount) {
  const array_t array(get_default_dyn_array(8, 5, MPOOL_TYPE_DRAM));
  get_dyn_hdr(array.get())->n_alloc = 0xFFFFFFFF;
  void *record = &record;
  int32_t id = 0;
  EXPECT_EQ(stderr_of([&] { id = get_dyn_arr_new_record_id_ex(array.get(), &record, 0); }),
            "Can not allocate more space as array is full. Total allocated space = 65535\n");
  EXPECT_EQ(id, -1);
  EXPECT_EQ(record, nullptr);
  EXPECT_EQ(get_dyn_arr_size(array.get()), 1u);
  stderr_of([&] { EXPECT_EQ(tslb_da_get_newidx(array.get()), 0xFFFFFFFFu); });
}

TEST(Lookup, MappedFilesCannotChangeTheDirectAreaOfALookup) {
  // Other processes can write the header of a mapped file, but not the handle.
  const array_t array(get_default_dyn_array(8, 20, MPOOL_TYPE_DRAM));
  pretend_issued(array.get(), 20);
  get_dyn_hdr(array.get())->n_direct = 4;
  char *const base = bytes_of(array->arr_base);
  array->mem_type = MPOOL_TYPE_SHM;
  EXPECT_EQ(get_dyn_arr_record_position(array.get(), 10), base + 24 + 80);
  array->mem_type = MPOOL_TYPE_DRAM;
  EXPECT_NE(get_dyn_arr_record_position(array.get(), 10), base + 24 + 80);
}
