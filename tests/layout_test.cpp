// Tests of creation: its limits, and refused arguments. golden_test checks offsets and initial contents.
#include <errno.h>

#include "array_support.h"

// golden_test compares every byte of block 0, up to its last slot.
TEST(Layout, WhatAnArrayDoesNotHave) {
  const array_t plain(get_default_dyn_array_ex(0, 100, 3, MPOOL_TYPE_DRAM, 7, "ctx", 0));
  EXPECT_EQ(get_user_hdr(plain.get()), nullptr);
  EXPECT_EQ(dyn_array_record(plain.get(), 0), nullptr) << "a record that was not issued";
  int shift = -1;
  EXPECT_EQ(tslb_da_get_slotsz(plain.get(), &shift), 100u);
  EXPECT_EQ(shift, -1) << "shift was changed for an array without nodes";
  EXPECT_EQ(tslb_da_get_dynhdr(plain.get()), plain->arr_base);
  EXPECT_EQ(tslb_da_get_dynarrhdr(plain.get()), get_dyn_hdr(plain.get()));
}

TEST(Layout, HandleCutsNameAndTableId) {
  const std::string long_name(40, 'n');
  const array_t array(
      get_default_dyn_array_ex(0, 8, 1, MPOOL_TYPE_DRAM, 0x1234567890, long_name.c_str(), TSLB_DA_DAFLAG_LL));
  EXPECT_STREQ(array->ctx_name, std::string(32, 'n').c_str());
  EXPECT_EQ(array->tbl_id, 0x34567890u);
  const array_t nameless(get_default_dyn_array(8, 1, MPOOL_TYPE_DRAM));
  EXPECT_STREQ(nameless->ctx_name, "");
  EXPECT_EQ(static_cast<DynHdr_t *>(nameless->arr_base)->rec_version, 0) << "a version without an argument for it";
}

TEST(Creation, RefusesImpossibleSizes) {
  static const struct {
    const char *fault;
    int usrhdr_sz, record_sz, n_direct;
    char mem_type;
    uint8_t daflag;
    int err;
    const char *size;
  } rows[] = {
      {"negative user header", -1, 8, 1, MPOOL_TYPE_DRAM, 0, EINVAL, "31"},
      {"negative record", 0, -8, 1, MPOOL_TYPE_DRAM, 0, EINVAL, "16"},
      {"negative direct area", 0, 8, -1, MPOOL_TYPE_DRAM, 0, EINVAL, "16"},
      {"two negatives multiply to a size that fits", 0, -8, -4, MPOOL_TYPE_DRAM, 0, EINVAL, "56"},
      {"header size wraps in its 16 bits", 65536, 8, 1, MPOOL_TYPE_DRAM, 0, EOVERFLOW, "65568"},
      {"block 0 wraps in 32 bits to a small one", 0, 65536, 65536, MPOOL_TYPE_DRAM, 0, EOVERFLOW, "4294967320"},
      {"block 0 one byte too long", 0, 1, 2147483624, MPOOL_TYPE_DRAM, 0, EOVERFLOW, "2147483648"},
      {"data block wraps in 32 bits", 0, 268435456, 0, MPOOL_TYPE_DRAM, 0, EOVERFLOW, "24"},
      {"nodes not counted in the size of the data block", 0, 268435455 - 15, 0, MPOOL_TYPE_DRAM, TSLB_DA_DAFLAG_INLL,
       EOVERFLOW, "84"},
      {"persistent memory served from the heap", 0, 8, 1, MPOOL_TYPE_PMEM, 0, ENOTSUP, "32"},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    DynamicArray_t array = nullptr;
    int err = 0;
    const std::string report = stderr_of([&] {
      array = get_default_dyn_array_ex_ex(row.usrhdr_sz, row.record_sz, row.n_direct, row.mem_type, -3, "metrics",
                                          row.daflag, 0);
      err = errno;
    });
    EXPECT_EQ(array, nullptr);
    EXPECT_EQ(err, row.err);
    const std::string line = "Error(get_default_dyn_array_ex_ex:";
    EXPECT_EQ(report.substr(0, line.size()), line);
    EXPECT_NE(report.find(std::string(") failed to allocate memory for Dynamic Array of size ") + row.size +
                          " for ContextName metrics and TableId -3, g_base_path = , err(" + std::to_string(row.err) +
                          ")=" + strerror(row.err) + ".\n"),
              std::string::npos)
        << report;
  }
}

TEST(Creation, AcceptsTheLargestSizes) {
  // calloc of the largest block writes no page before a byte after the headers is written.
  const array_t block(get_default_dyn_array(1, 2147483623, MPOOL_TYPE_DRAM));
  ASSERT_TRUE(block);
  EXPECT_EQ(get_dyn_total_allocated_records(block.get()), 2147483623u);
  EXPECT_TRUE(array_t(get_default_dyn_array(268435455, 0, MPOOL_TYPE_DRAM)));
  const array_t header(get_default_dyn_array_ex(65535, 8, 1, MPOOL_TYPE_DRAM, 0, nullptr, TSLB_DA_DAFLAG_LL));
  EXPECT_EQ(tslb_dynmem_get_hdrsz(header.get()), 8 + 65535 + 60 + 16) << "header size kept in 15 bits";
}
