// Tests of the one-line texts about arrays and pools.
#include <functional>
#include <thread>

#include "array_support.h"

template <class... Values>
static std::string text(const char *format, Values... values) {
  char line[4096];
  snprintf(line, sizeof(line), format, values...);
  return line;
}

static std::string head_of(const DynArrHandle_t *array, const char *name, unsigned tbl_id, int mem_type,
                           unsigned daflag, int n_direct, const char *versions) {
  return text(
      "[MPOOL-HDR] DynArrHandle(%p): {arr_base = %p, ir_base = (nil), ctx_name = %s, tbl_id = %u, mem_type = %d, "
      "daflag = 0x%02x, n_direct = %d}, DynHdr(%p): {%s}, ",
      static_cast<const void *>(array), array->arr_base, name, tbl_id, mem_type, daflag, n_direct, array->arr_base,
      versions);
}

static std::string tail_of(DynArrHandle_t *array, const char *counts) {
  return text(
      "DynArr(%p): {%s}, DS_SIZE: {DynHdr_t = 8, DynMemHdr_t = 56, DynArrLLI_t = 60, DynArrHdr = 16, "
      "DynMemCompactAttr_t = 16}, GlobalMemStats: {total_msz = %lu, total_nused = %lu, total_mwaist = %lu, "
      "total_avaial = %lu, total_mdel = %lu}",
      static_cast<void *>(get_dyn_hdr(array)), counts, g_mem_st.total_msz, g_mem_st.total_mused, g_mem_st.total_mwaist,
      g_mem_st.total_mavail, g_mem_st.total_mdel);
}

TEST(PoolLine, FreshPoolWithLists) {
  const array_t pool(
      tslb_init_dynmem_ex1(1000, 4, 1, MPOOL_TYPE_DRAM, 0x10, "bit vectors", -3, TSLB_DA_DAFLAG_LL, 5, 1, 0));
  tsdb_mem_pressure_config_t policy = {1, {}, {200, 0, 40000, 7, 8}, {60, 0, 50, 9, 10}};
  list_roots(pool.get()).mem_pressure_conf = policy;
  EXPECT_EQ(std::string(tslb_print_poolhdr(pool.get())),
            head_of(pool.get(), "bit vectors", 4294967293u, 0, 1, 4,
                    "lib_version = 2, rec_version = 5, pad = 0, hdr_size = 56, lli_sz = 60") +
                text("DynMemHdr(%p): {flag = 0x13, cur_slot_addr = 4294967295 (mslot_idx = 4294967295, byte_off = 0), "
                     "mslot_sz = 1000, total_msz = 4172, total_mused = 0, total_mwast = 0, total_mavail = 0}, "
                     "DynArrLLI_t(%p): {free_head = 4294967295, free_tail = 4294967295, inact_head = 4294967295, "
                     "inact_tail = 4294967295, n_inact = 0, n_act = 0, n_free = 0, mvt_reuse_policy_use = 1, "
                     "critical.inactive_threshold_pct = -56, critical.inactive_threshold_cnt = -25536, "
                     "critical.min_days_since_inactive = 7, major.inactive_threshold_pct = 60, "
                     "major.inactive_threshold_cnt = 50, majot.min_days_since_inactive = 9}, ",
                     get_user_hdr(pool.get()), tslb_da_get_lli(pool.get())) +
                tail_of(pool.get(), "n_alloc = 4, n_used = 0, n_direct = 4, record_size = 1008"));
}

TEST(PoolLine, PoolInUseShowsItsTotals) {
  const array_t pool(tslb_init_dynmem(1000, 4, 0, MPOOL_TYPE_DRAM, static_cast<char>(0x80), "p", 1, 0));
  maddr_t address;
  tslb_dynmem_get_mchunk(pool.get(), &address, 300, srcaddr_t{});
  EXPECT_NE(std::string(tslb_print_poolhdr(pool.get()))
                .find("{flag = 0xffffff82, cur_slot_addr = 1288490188800 (mslot_idx = 0, byte_off = 300), mslot_sz = "
                      "1000, total_msz = 4112, total_mused = 300, total_mwast = 16, total_mavail = 3716}, "),
            std::string::npos)
      << tslb_print_poolhdr(pool.get());
}

TEST(PoolLine, ArraysWithoutPoolHeader) {
  const array_t plain(tslb_da_init_v5(10, 2, 77, "plain", 9));
  EXPECT_EQ(std::string(tslb_print_poolhdr(plain.get())),
            head_of(plain.get(), "plain", 9, 77, 0, 2,
                    "lib_version = 2, rec_version = 0, pad = 0, hdr_size = 0, lli_sz = 0") +
                "DynMemHdr((nil)): {--}, DynArrLLI_t((nil)): {--}, " +
                tail_of(plain.get(), "n_alloc = 2, n_used = 0, n_direct = 2, record_size = 10"));
  const array_t lists(tslb_da_init_ll(10, 2, -1, "", 9, TSLB_DA_DAFLAG_INLL));
  const std::string line = tslb_print_poolhdr(lists.get());
  EXPECT_NE(line.find("ctx_name = , tbl_id = 9, mem_type = -1, daflag = 0x02"), std::string::npos) << line;
  EXPECT_NE(line.find("DynMemHdr((nil)): {--}, DynArrLLI_t(0x"), std::string::npos) << line;
  // A user header shorter than a pool's is not read as one.
  const array_t shorter(get_default_dyn_array_ex(4, 4, 0, MPOOL_TYPE_DRAM, 0, nullptr, 0));
  EXPECT_NE(std::string(tslb_print_poolhdr(shorter.get())).find("DynMemHdr((nil)): {--}, "), std::string::npos);
}

TEST(PoolLine, LongestLineIsNotCut) {
  const array_t pool(tslb_init_dynmem(1000, 4, -1, MPOOL_TYPE_DRAM, -1, std::string(50, 'w').c_str(), -1, 3));
  memset(get_user_hdr(pool.get()), 0xFE, 56 + 60 + 16);
  const DynArrHandle_t saved = *pool;
  pool->ir_base = reinterpret_cast<PtrTbl_t *>(pool.get());
  pool->n_direct = 0x80000000;
  pool->mem_type = -128;
  *static_cast<DynHdr_t *>(pool->arr_base) = {255, 255, 65535, 56, 60};
  const GlobalMemStats_t before = g_mem_st;
  memset(&g_mem_st, 0xFE, sizeof(g_mem_st));
  const std::string line = tslb_print_poolhdr(pool.get());
  g_mem_st = before;
  *pool = saved;
  EXPECT_LT(line.size(), 2048u);
  EXPECT_NE(line.find("total_mdel = 18374403900871474942}"), std::string::npos) << line;
  EXPECT_EQ(g_mpool_hdr_str[2048], 0);
}

TEST(Description, ShowsListsOfInactiveListArraysOnly) {
  const array_t both(tslb_da_init_ll(100, 5, MPOOL_TYPE_DRAM, "ctx", 12, TSLB_DA_DAFLAG_INLL));
  EXPECT_EQ(std::string(tslb_da_get_hdr_str(both.get())),
            text("dyn_arr ptr[%p], da_flag[2], n_alloc[5], n_used[0], n_direct[5], record_size[100], n_inact[0], "
                 "n_free[0], n_act[0], inact_head[-1], inact_tail[-1], free_head[-1], free_tail[-1]",
                 static_cast<void *>(both.get())));
  const array_t free_only(tslb_da_init_ll(100, 5, MPOOL_TYPE_DRAM, "ctx", 12, TSLB_DA_DAFLAG_LL));
  tslb_da_get_range(free_only.get(), 1);
  EXPECT_EQ(std::string(tslb_da_get_hdr_str(free_only.get())),
            text("dyn_arr ptr[%p], da_flag[1], n_alloc[5], n_used[1], n_direct[5], record_size[100]",
                 static_cast<void *>(free_only.get())));
}

TEST(Lines, EachThreadHasItsOwnBuffers) {
  const array_t first(tslb_da_init_v5(10, 2, MPOOL_TYPE_DRAM, "first", 1));
  const array_t second(tslb_da_init_v5(20, 2, MPOOL_TYPE_DRAM, "second", 1));
  const std::function<char *(DynArrHandle_t *)> lines[] = {tslb_print_poolhdr, tslb_da_get_hdr_str};
  for (const auto &line_of : lines) {
    const char *const line = line_of(first.get());
    const std::string before = line;
    std::thread([&] { EXPECT_NE(line_of(second.get()), before); }).join();
    EXPECT_EQ(line, before) << "another thread changed this thread's text";
    EXPECT_EQ(line_of(second.get()), line);
  }
  EXPECT_EQ(tslb_print_poolhdr(first.get()), g_mpool_hdr_str);
}

TEST(ListLine, RootsOfAnArrayWithNodes) {
  const array_t array(tslb_da_init_ll(10, 2, MPOOL_TYPE_DRAM, "", 9, TSLB_DA_DAFLAG_LL));
  list_roots(array.get()).n_act = 5;
  char out[2048];
  EXPECT_EQ(tslb_dynarr_lli_string(array.get(), out), out);
  EXPECT_EQ(std::string(out),
            text("DynArrLLI_t(%p): {free_head = 4294967295, free_tail = 4294967295, inact_head = 4294967295, "
                 "inact_tail = 4294967295, n_inact = 0, n_act = 5, n_free = 0}",
                 tslb_da_get_lli(array.get())));
  const array_t plain(tslb_da_init_v5(10, 2, MPOOL_TYPE_DRAM, "", 9));
  EXPECT_STREQ(tslb_dynarr_lli_string(plain.get(), out), "");
}
