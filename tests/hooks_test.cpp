// Tests of the stand-in for the host's symbols, and of the exported settings at load.
#include <tslb/tsdb_multi_thread_trace_log.h>
#include <tslb/tsdb_recovery_version_compatibility.h>
#include <tslb/tslb_rd_api.h>
#include <tslb/tslb_settings.h>
#include "array_support.h"
#include "fault_alloc.h"

TEST(StandIn, SwapsReportSuccessAndAdditionsReturnTheOldValue) {
  uint64_t word = 5;
  EXPECT_NE(cas64(&word, 5, 1ull << 40), 0);
  EXPECT_EQ(cas64(&word, 5, 9), 0);
  EXPECT_EQ(get_and_inc64(&word, ~uint64_t{0}), 1ull << 40);
  EXPECT_EQ(word, (1ull << 40) - 1);
  uint16_t lock = 0;
  EXPECT_EQ(cas16(&lock, 1, 0), 0);
  EXPECT_NE(cas16(&lock, 0, 0xFFFF), 0);
  EXPECT_EQ(lock, 0xFFFF);
  uint32_t words[] = {1, 0};
  EXPECT_EQ(get_and_inc32(words, 0xFFFFFFFF), 1u);
  EXPECT_EQ(words[0], 0u);
  EXPECT_EQ(words[1], 0u) << "the carry changed the next word";
}

TEST(StandIn, LogsAreOff) {
  EXPECT_EQ(g_redo_handle, nullptr);
  EXPECT_EQ(trace_log_key, nullptr);
  EXPECT_EQ(TSTL_NUM_MODULES, 52);
  EXPECT_EQ(tstl_module_recovery, 45);
  for (int module = 0; module < 52; ++module) {
    EXPECT_NE(g_tstl_module_names[module], nullptr);
    for (const uint8_t level : g_tstl_module_debug_arr[module]) EXPECT_EQ(level, 0);
  }
}

// convert_test checks the copied content through the driver.
TEST(StandIn, RecoveryCopyRefusesAnotherGeometry) {
  const array_t from(tslb_init_dynmem(64, 2, 0, MPOOL_TYPE_DRAM, 0, "p", 1, TSLB_DA_DAFLAG_LL));
  const array_t to(tslb_init_dynmem(68, 5, 0, MPOOL_TYPE_DRAM, 0, "p", 1, TSLB_DA_DAFLAG_LL));
  maddr_t address;
  tslb_dynmem_get_mchunk(from.get(), &address, 20, srcaddr_t{});
  TSDBVerCBArgs_t args = {1, from.get(), to.get()};
  EXPECT_NE(stderr_of([&] { tsdb_recov_version_copy_rc(&args); }), "");
  EXPECT_EQ(tslb_da_get_size(to.get()), 0u) << "an array of another geometry was written";
}

// A refused allocation leaves an id without memory in the copy. If the copy is repeated, this id is not the next one.
TEST(StandIn, RepeatedRecoveryCopyLosesNoRecord) {
  const array_t from(tslb_da_init_v5(8, 1, MPOOL_TYPE_DRAM, nullptr, 0));
  for (uint64_t i = 0; i < 40; ++i)
    write_at(tslb_da_get_ptr(from.get(), tslb_da_get_newidx(from.get())), 0, i + 0x123456789);
  const auto same = [&from](DynArrHandle_t *to) {
    if (tslb_da_get_size(to) != 40) return false;
    for (uint32_t i = 0; i < 40; ++i)
      if (memcmp(tslb_da_get_ptr(to, i), tslb_da_get_ptr(from.get(), i), 8) != 0) return false;
    return true;
  };
  for (int first = 1; first <= 5; ++first) {  // root table, table, and three blocks
    for (int second = 1; second <= 6 - first; ++second) {
      SCOPED_TRACE(testing::Message() << "allocation " << first << ", then " << second);
      const array_t to(tslb_da_init_v5(8, 1, MPOOL_TYPE_DRAM, nullptr, 0));
      TSDBVerCBArgs_t args = {1, from.get(), to.get()};
      for (const int nth : {first, second}) {
        const std::string said = stderr_of([&] {
          const fault_t fault(nth);
          tsdb_recov_version_copy_rc(&args);
          EXPECT_TRUE(fault.struck());
        });
        EXPECT_NE(said.find("cannot be copied"), std::string::npos) << said;
      }
      EXPECT_EQ(stderr_of([&] { tsdb_recov_version_copy_rc(&args); }), "");
      EXPECT_TRUE(same(to.get()));
    }
  }
}

TEST(Settings, ValuesAtLoad) {
  const tslb_configuration_t zero = {};
  EXPECT_EQ(memcmp(&lib_config, &zero, sizeof(zero)), 0);
  EXPECT_EQ(static_cast<unsigned char>(tslb_test_mode), 0xFF);
  EXPECT_EQ(tslb_testidx, 0);
  EXPECT_EQ(tslb_tsdb_mode, 0xFF);
  EXPECT_EQ(tslb_qxwdir[0], '\0');
  EXPECT_EQ(sizeof(tslb_qxwdir), 1025u);
  EXPECT_EQ(tstl_dont_merge_indr_slots, 1);
}
