// The stand-in for the host's symbols, and the exported settings as they are at load.
#include "array_support.h"
#include "tsdb_multi_thread_trace_log.h"
#include "tsdb_recovery_version_compatibility.h"
#include "tslb_rd_api.h"
#include "tslb_settings.h"

TEST(StandIn, SwapsSayWhetherTheySwapped) {
  alignas(8) uint64_t word = 5;
  EXPECT_NE(cas64(&word, 5, 1ull << 40), 0);
  EXPECT_EQ(cas64(&word, 5, 9), 0);
  EXPECT_EQ(word, 1ull << 40);
  uint16_t lock = 0;
  EXPECT_EQ(cas16(&lock, 1, 0), 0);
  EXPECT_NE(cas16(&lock, 0, 0xFFFF), 0);
  EXPECT_EQ(lock, 0xFFFF);
}

TEST(StandIn, AdditionsGiveTheOldValueAndWrapWhereverTheWordLies) {
  alignas(8) char bytes[24] = {};
  for (const int at : {0, 1, 4, 7}) {
    uint32_t *const word = reinterpret_cast<uint32_t *>(bytes + at);
    memset(bytes, 0, sizeof(bytes));
    EXPECT_EQ(get_and_inc32(word, 1), 0u);
    EXPECT_EQ(get_and_inc32(word, 0xFFFFFFFE), 1u);
    EXPECT_EQ(get_and_inc32(word, 1), 0xFFFFFFFFu);
    EXPECT_EQ(read_at<uint32_t>(bytes, static_cast<size_t>(at)), 0u);
    EXPECT_EQ(bytes[at + 4], 0) << "the carry left the word";
  }
  uint64_t total = ~uint64_t{0};
  EXPECT_EQ(get_and_inc64(&total, 3), ~uint64_t{0});
  EXPECT_EQ(total, 2u);
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

TEST(HostsNumbers, AreTheOnesThatHostsWereBuiltWith) {
  static const struct {
    int value, want;
  } rows[] = {
      {tstl_module_ingestion_subject_registration, 0},
      {tstl_module_bj_common, 6},
      {tstl_module_bj_stale_bitmask_update_time, 16},
      {tstl_module_bj_percentile, 21},
      {tstl_module_query_utils, 22},
      {tstl_module_query_tag_list_calls, 37},
      {tstl_module_common_mvt_utils, 38},
      {tstl_module_rsb, 41},
      {tstl_module_readmap, 44},
      {tstl_module_snapshot, 50},
      {tstl_module_tarn_tsdb, 51},
      {__FIXED_TBLIDS_FISRT__, -17},
      {PDP2_TBLID, -16},
      {PDP6_TBLID, -12},
      {DP0_TBLID, -11},
      {DP6_TBLID, -5},
      {BBP_TBLID, -4},
      {BVP_TBLID, -3},
      {TOT_TBLID, -2},
      {TOC_TBLID, -1},
      {__FIXED_TBLIDS_LAST__, 0},
  };
  for (const auto &row : rows) EXPECT_EQ(row.value, row.want);
}

TEST(StandIn, RecoveryCopyBringsSlotsListsAndUserHeader) {
  const array_t from(tslb_init_dynmem(64, 2, MPOOL_FLAG_COMPAT, MPOOL_TYPE_DRAM, 0, "p", 1, TSLB_DA_DAFLAG_LL));
  std::vector<maddr_t> addresses(60);
  for (size_t i = 0; i < addresses.size(); ++i)
    memset(bytes_of(tslb_dynmem_get_mchunk(from.get(), &addresses[i], 20, srcaddr_t{})) + 16, static_cast<int>(i), 20);
  list_roots(from.get()).n_act = 17;
  const array_t to(tslb_init_dynmem(64, 5, MPOOL_FLAG_COMPAT, MPOOL_TYPE_DRAM, 0, "p", 1, TSLB_DA_DAFLAG_LL));
  TSDBVerCBArgs_t args = {1, from.get(), to.get()};
  tsdb_recov_version_copy_rc(&args);
  EXPECT_EQ(tslb_da_get_size(to.get()), tslb_da_get_size(from.get()));
  EXPECT_EQ(memcmp(get_user_hdr(to.get()), get_user_hdr(from.get()), 56), 0);
  EXPECT_EQ(list_roots(to.get()).n_act, 17u);
  for (size_t i = 0; i < addresses.size(); ++i)
    EXPECT_EQ(std::string(bytes_of(tslb_dynmem_get_maddr2ptr(to.get(), addresses[i])), 20),
              std::string(20, static_cast<char>(i)));
  maddr_t address;
  tslb_dynmem_get_mchunk(to.get(), &address, 20, srcaddr_t{});
  EXPECT_GE(as_word(address), as_word(addresses.back()));

  const array_t other(tslb_init_dynmem(68, 5, 0, MPOOL_TYPE_DRAM, 0, "p", 1, TSLB_DA_DAFLAG_LL));
  args.h_mpool_cur = other.get();
  EXPECT_NE(stderr_of([&] { tsdb_recov_version_copy_rc(&args); }), "");
  EXPECT_EQ(tslb_da_get_size(other.get()), 0u) << "an array of another geometry was written";
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
