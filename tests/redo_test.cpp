// Tests of redo records: their bytes, positions and order. The program defines its own redo hooks.
#include "pool_support.h"
#include "redo_recorder.h"

constexpr uint64_t kNoTxn = ~uint64_t{0};

struct want_t {
  uint64_t data_off;
  const void *data_ptr;
  size_t data_sz;
};

static void expect_records(const DynArrHandle_t *array, const std::vector<redo_record_t> &got,
                           const std::vector<want_t> &want) {
  ASSERT_EQ(got.size(), want.size());
  for (size_t i = 0; i < want.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(got[i].data_off, want[i].data_off);
    EXPECT_EQ(got[i].data_ptr, want[i].data_ptr);
    EXPECT_EQ(got[i].bytes.size(), want[i].data_sz);
    EXPECT_EQ(got[i].aux_idx, 0xFFFFFFFFu);
    EXPECT_EQ(got[i].ctx_name, array->ctx_name);
    EXPECT_EQ(got[i].tbl_id, array->tbl_id);
  }
}

// Headers take 84 bytes, a slot 48. Slot 10 begins at 564, in a data block.
static array_t worked_example(const char *ctx_name = "metrics", char mem_type = MPOOL_TYPE_DRAM) {
  array_t array(tslb_da_init_ll(32, 3, mem_type, ctx_name, -9, TSLB_DA_DAFLAG_INLL));
  tslb_da_get_range(array.get(), 11);
  return array;
}

TEST(Redo, ShapesOfTheWorkedExample) {
  const array_t array = worked_example();
  char *const slot = bytes_of(tslb_da_get_ptr(array.get(), 10));
  redo_recorder_t log;
  static const struct {
    const char *fault;
    char hdr_only;
    int field_offset, field_size;
    uint64_t off;
    int ptr;  // from the payload
    size_t size;
  } rows[] = {
      {"whole slot begins at its payload", 0, -1, -1, 564, -8, 48},
      {"first node takes more than 8 bytes", 1, -1, -1, 564, -8, 8},
      {"field counted from the slot's start", 0, 4, 8, 576, 4, 8},
      {"field of no bytes is not a field", 0, 4, 0, 564, -8, 48},
      {"negative offset is not a field", 0, -4, 8, 564, -8, 48},
      {"first node logged instead of the field", 1, 0, 1, 572, 0, 1},
      {"field checked against the record", 0, 30, 10, 602, 30, 10},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    tslb_redo_log_da_internal(array.get(), 10, 77, 42, row.hdr_only, row.field_offset, row.field_size);
    const auto records = log.take();
    expect_records(array.get(), records, {{row.off, slot + row.ptr, row.size}});
    EXPECT_EQ(records[0].txn_id, 77u);
    EXPECT_EQ(records[0].rec_type, 42);
  }
  tslb_redo_log_da_hdr(array.get(), 0, 0, 0);
  EXPECT_EQ(log.take().at(0).rec_type, 0) << "a header's 0 was replaced";
}

TEST(Redo, PlainArraysHaveNoShift) {
  const array_t array(tslb_da_init_v5(10, 3, MPOOL_TYPE_DRAM, "", 1));
  for (int i = 0; i < 6; ++i) tslb_da_get_newidx(array.get());
  redo_recorder_t log;
  char *const slot = bytes_of(tslb_da_get_ptr(array.get(), 5));
  tslb_redo_log_da(array.get(), 5, 0, 5);
  tslb_redo_log_da_field(array.get(), 5, 0, 5, 4, 6);
  tslb_redo_log_da_ex(array.get(), 5, 0, 5, 1);
  expect_records(array.get(), log.take(), {{24 + 50, slot, 10}, {24 + 54, slot + 4, 6}, {24 + 50, slot, 8}});
}

// Slot 2 is the last slot of block 0, slot 18 the last slot of data block 1.
TEST(Redo, RecordsOfShortSlotsEndWithTheSlot) {
  for (const int record_size : {4, 7, 8}) {
    const array_t array(tslb_da_init_v5(record_size, 3, MPOOL_TYPE_DRAM, "", 1));
    for (int i = 0; i < 19; ++i) tslb_da_get_newidx(array.get());
    redo_recorder_t log;
    for (const uint32_t idx : {2, 18}) {
      tslb_redo_log_da_ex(array.get(), idx, 0, 5, 1);
      const size_t bytes = static_cast<size_t>(record_size);
      expect_records(array.get(), log.take(), {{24 + idx * bytes, tslb_da_get_ptr(array.get(), idx), bytes}});
    }
  }
}

// golden_test checks the records themselves.
TEST(Redo, AllocationLogsAfterItsLock) {
  for (const uint8_t daflag : std::initializer_list<uint8_t>{TSLB_DA_DAFLAG_LL, TSLB_DA_DAFLAG_INLL}) {
    const array_t array(tslb_da_init_ll(32, 3, MPOOL_TYPE_DRAM, "metrics", -9, daflag));
    redo_recorder_t log(&array->spinlock);
    for (const bool callers_lock : {false, true}) {
      if (callers_lock) tslb_da_spin_lock16(&array->spinlock);
      uint32_t idx;
      tslb_da_get_newptr_ex(array.get(), &idx, callers_lock ? 0 : 1);
      if (callers_lock) tslb_da_spin_unlock16(&array->spinlock);
      const auto records = log.take();
      EXPECT_EQ(records.size(), daflag == TSLB_DA_DAFLAG_LL ? 2u : 3u);
      for (const auto &record : records) EXPECT_EQ(record.locked, callers_lock);
    }
  }
}

// One letter for each record: L if it is written under the lock.
TEST(Redo, ChangesLogNeighboursUnderTheLockAndThemselvesAfterIt) {
  const array_t array = worked_example();
  redo_recorder_t log(&array->spinlock);
  const auto records_of = [&](int result) {
    EXPECT_EQ(result, 0);
    std::string letters;
    for (const auto &record : log.take()) letters += record.locked ? 'L' : '-';
    return letters;
  };
  EXPECT_EQ(records_of(tslb_da_inactivate_idx(array.get(), 3, 1)), "-");
  EXPECT_EQ(records_of(tslb_da_inactivate_idx(array.get(), 4, 1)), "L-");
  EXPECT_EQ(records_of(tslb_da_inactivate_idx(array.get(), 5, 1)), "L-");
  EXPECT_EQ(records_of(tslb_da_activate_idx(array.get(), 4)), "LL-");
  EXPECT_EQ(records_of(tslb_da_free_idx(array.get(), 3)), "L--") << "its node and the header";
  EXPECT_EQ(records_of(tslb_da_free_idx(array.get(), 5)), "L--");
}

TEST(Redo, ArraysThatAreNotLogged) {
  redo_recorder_t log;
  const auto count_of_own = [&log](const array_t &array, uint32_t idx) {
    log.take();
    tslb_redo_log_da(array.get(), idx, 0, 5);
    tslb_redo_log_da_hdr(array.get(), idx, 0, 5);
    return log.take().size();
  };
  for (const char mem_type : std::initializer_list<char>{3, 4, 5})
    EXPECT_EQ(count_of_own(worked_example("metrics", mem_type), 0), 0u) << int{mem_type};
  const array_t nameless = worked_example("");
  EXPECT_TRUE(log.take().empty()) << "creation or allocation was logged without a name";
  EXPECT_EQ(count_of_own(nameless, 0), 2u) << "the host's own logging needed a name";
  EXPECT_EQ(count_of_own(nameless, 11), 1u) << "a record for a slot that does not exist";

  uint32_t idx;
  const array_t plain(tslb_da_init_v5(32, 3, MPOOL_TYPE_DRAM, "metrics", 1)), named = worked_example();
  log.take();
  tslb_da_get_newptr(plain.get(), &idx);
  tslb_da_get_newidx(plain.get());
  EXPECT_TRUE(log.take().empty()) << "nodes of a plain array were logged";
  g_redo_handle = nullptr;
  tslb_da_get_newptr(named.get(), &idx);
  EXPECT_TRUE(log.take().empty()) << "logged although logging is off";
  EXPECT_EQ(count_of_own(named, 0), 0u) << "the host's records were written although logging is off";
}

TEST(Redo, PositionsAboveFourGiB) {
  const array_t array(get_default_dyn_array_ex(0, 1u << 20, 0, MPOOL_TYPE_DRAM, 1, "big", 0));
  pretend_issued(array.get(), 5000);
  redo_recorder_t log;
  tslb_redo_log_da_field(array.get(), 4999, 0, 5, 0, 8);
  EXPECT_EQ(log.take().at(0).data_off, 24 + (uint64_t{4999} << 20));
}

TEST(Redo, CreationLogsTheFilledHeader) {
  static const struct {
    const char *fault;
    const char *ctx_name;
    uint8_t is_persist;
    size_t n_records;
    bool persists;
  } rows[] = {
      {"persistent pool not logged", "pool", 1, 1, true},
      {"any value of is_persist switches growth records on", "pool", 2, 1, false},
      {"logged against is_persist, or growth logged by a bit of compat_flag", "pool", 0, 0, false},
      {"logged without a name", "", 1, 0, true},
      {"logged without a name", nullptr, 1, 0, true},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    redo_recorder_t log;
    const array_t pool(tslb_init_dynmem_ex1(1000, 4, MPOOL_FLAG_COMPAT | MPOOL_FLAG_PERSIST, MPOOL_TYPE_DRAM,
                                            MPOOL_FLAG_BV, row.ctx_name, -3, TSLB_DA_DAFLAG_LL, 6, row.is_persist, 9));
    const auto records = log.take();
    EXPECT_EQ(static_cast<DynMemHdr_t *>(get_user_hdr(pool.get()))->flag, row.persists ? 0x13 : 0x11);
    ASSERT_EQ(records.size(), row.n_records);
    if (row.n_records == 0) continue;
    expect_records(pool.get(), records, {{0, pool->arr_base, 140}});
    EXPECT_EQ(records[0].txn_id, kNoTxn);
    EXPECT_EQ(records[0].rec_type, 5);
    EXPECT_EQ(records[0].bytes, std::string(bytes_of(pool->arr_base), 140))
        << "logged before creation filled the headers";
  }
  redo_recorder_t log;
  const array_t temporary(tslb_init_dynmem(1000, 4, 0, MPOOL_TYPE_DRAM_TMP, 0, "pool", 1, 0));
  EXPECT_TRUE(log.take().empty());
  const array_t slots(tslb_da_init_v5(100, 4, MPOOL_TYPE_DRAM, "slots", 1));
  expect_records(slots.get(), log.take(), {{0, slots->arr_base, 24}});
  // is_persist decides, not the memory type. The record has the name as the handle keeps it, like all later records.
  const array_t wished(
      tslb_init_dynmem_ex1(100, 1, 0, MPOOL_TYPE_SHM_TMP, 0, std::string(40, 'n').c_str(), 1, 0, 0, 1, 0));
  expect_records(wished.get(), log.take(), {{0, wished->arr_base, 80}});
}

// Expects that the last record is the growth of the pool to `size`, with the lock released.
static void expect_growth(const array_t &pool, const std::vector<redo_record_t> &records, uint64_t size) {
  ASSERT_FALSE(records.empty());
  expect_records(pool.get(), {records.back()}, {{size, nullptr, 0}});
  EXPECT_EQ(records.back().rec_type, 13);
  EXPECT_EQ(records.back().txn_id, kNoTxn);
  EXPECT_FALSE(records.back().locked);
}

TEST(Redo, GrowthOfAPersistentPool) {
  redo_recorder_t log;
  const array_t pool = pool_of({.compat = 0, .daflag = 0}, 1);
  log.watch(&pool->spinlock);
  log.take();
  for (uint64_t slots = 1; slots <= 3; ++slots) {  // the first slot fills the direct area exactly and is logged too
    take(pool, 1000);
    const auto records = log.take();
    EXPECT_EQ(records.size(), 1u);
    expect_growth(pool, records, 80 + 1008 * slots);
  }
  const array_t quiet = pool_of({.daflag = 0, .is_persist = 0}, 2);
  take(quiet);
  take64(quiet, 900);
  EXPECT_TRUE(log.take().empty()) << "growth of a pool without MPOOL_FLAG_PERSIST was logged";
}

// With 64-bit addresses a pool's size does not include the nodes, and can become smaller with a new slot.
TEST(Redo, GrowthWith64BitAddresses) {
  redo_recorder_t log;
  const array_t pool = pool_of({}, 2);
  log.watch(&pool->spinlock);
  log.take();
  const uint64_t record_size = 1008, hdr_bytes = 140;
  const auto take_slot = [&](uint64_t slots) {
    const uint64_t wasted = hdr_of(pool).total_mwast;
    const uint32_t slot_idx = take64(pool, 916).mslot_idx;
    EXPECT_EQ(slot_idx, slots - 1);
    EXPECT_EQ(hdr_of(pool).total_msz, record_size * slots + hdr_bytes);
    EXPECT_EQ(hdr_of(pool).total_mwast, wasted + 16 + 8);
    expect_counted(pool, slot_idx, 916, 0);
    expect_growth(pool, log.take(), record_size * slots + hdr_bytes);
  };
  for (const uint64_t slots : {1, 2, 3, 4})
    take_slot(slots);  // slot 0 lowers the size that creation counted for two slots
  del(pool, maddr_t{1, 0});
  log.take();
  take_slot(2);
  EXPECT_EQ(hdr_of(pool).total_mavail,
            hdr_of(pool).total_msz - (hdr_bytes + hdr_of(pool).total_mused + hdr_of(pool).total_mwast));
  const uint64_t wasted = hdr_of(pool).total_mwast;
  take64(pool, 26);  // within the slot: no growth
  EXPECT_EQ(hdr_of(pool).total_mwast, wasted + 16);
  EXPECT_TRUE(log.take().empty());
  // The 32-bit form on the same pool includes the nodes, and does not make the size smaller.
  take(pool, 916);
  EXPECT_EQ(hdr_of(pool).total_msz, (record_size + 8) * 5 + hdr_bytes);
}
