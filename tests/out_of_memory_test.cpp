// Tests in which the n-th allocation fails, for every n: the result is null with a message, nothing leaks, and the
// array stays usable.
#include <errno.h>

#include "array_support.h"
#include "fault_alloc.h"
#include "system_support.h"

// Returns the text that `work` writes while its n-th allocation fails, and checks whether it reached that allocation.
template <class Work>
static std::string report_of(int nth, Work work, bool expect_struck = true) {
  return stderr_of([&] {
    const fault_t fault(nth);
    work();
    EXPECT_EQ(fault.struck(), expect_struck) << "allocation " << nth;
  });
}

TEST(OutOfMemory, Creation) {
  static const char *const reports[] = {
      "unable to allocate memory for DynArrHandle_t of size 64. err(12)=(Cannot allocate memory).\n",
      "failed to allocate memory for Dynamic Array of size 424 for ContextName (null) and TableId 0, "
      "g_base_path = , err(12)=Cannot allocate memory.\n"};
  array_t array;
  int err = 0;
  const auto create = [&] {
    array.reset(get_default_dyn_array(100, 4, MPOOL_TYPE_DRAM));
    err = errno;
  };
  for (const int nth : {1, 2}) {
    const std::string report = report_of(nth, create);
    EXPECT_FALSE(array);
    EXPECT_EQ(err, ENOMEM);
    EXPECT_EQ(count_of(report, reports[nth - 1]), 1u) << report;
  }
  report_of(3, create, false);
  EXPECT_TRUE(array) << "creation allocates more than its handle and block 0";
}

// A lookup of an id of the sixth level: root table, six levels of tables, data block.
TEST(OutOfMemory, LookupAtEachStepOfItsPath) {
  for (int nth = 1; nth <= 8; ++nth) {
    SCOPED_TRACE(nth);
    const array_t array(get_default_dyn_array(100, 4, MPOOL_TYPE_DRAM));
    pretend_issued(array.get(), 286331000);
    void *record = nullptr;
    const auto look_up = [&] { record = get_dyn_arr_record_position(array.get(), 286330000); };
    const std::string report = report_of(nth, look_up);
    EXPECT_EQ(record, nullptr);
    EXPECT_EQ(count_of(report, nth < 8 ? "failed to allocate memory for PtrTabl_t of Dynamic Array of size 128. "
                                         "err(12)=Cannot allocate memory.\n"
                                       : "Error(DALib): Failed to allocted memory of size 1600\n"),
              1u)
        << report;
    EXPECT_EQ(get_dyn_total_allocated_records(array.get()), 4u);
    look_up();
    ASSERT_NE(record, nullptr);
    memset(record, 1, 100);
    EXPECT_EQ(get_dyn_total_allocated_records(array.get()), 20u);
  }
}

TEST(OutOfMemory, FailedSlotAllocationDoesNotChangeTheLists) {
  const array_t array(tslb_da_init_ll(16, 1, MPOOL_TYPE_DRAM, "ctx", 0, TSLB_DA_DAFLAG_INLL));
  uint32_t idx;
  ASSERT_NE(tslb_da_get_newptr(array.get(), &idx), nullptr);
  void *slot = &slot;
  EXPECT_NE(report_of(1, [&] { slot = tslb_da_get_newptr(array.get(), &idx); }), "");
  EXPECT_EQ(slot, nullptr);
  EXPECT_EQ(idx, TSLB_DA_NIL_IDX);
  ASSERT_EQ(array->spinlock, 0);
  uint32_t first = 0;
  EXPECT_NE(report_of(1, [&] { first = tslb_da_get_range(array.get(), 3); }), "");
  EXPECT_EQ(first, TSLB_DA_NIL_IDX);
  ASSERT_EQ(array->spinlock, 0);
  EXPECT_EQ(list_roots(array.get()).n_free, 0u);
  EXPECT_NE(tslb_da_get_newptr(array.get(), &idx), nullptr);
  EXPECT_EQ(idx, 3u);
}

TEST(OutOfMemory, FailedRangeKeepsTheSlotsItTook) {
  const array_t array(tslb_da_init_ll(16, 1, MPOOL_TYPE_DRAM, nullptr, 0, TSLB_DA_DAFLAG_LL));
  uint32_t first = 0;
  report_of(4, [&] { first = tslb_da_get_range(array.get(), 20); });  // root table, table, block 1; then block 2
  EXPECT_EQ(first, TSLB_DA_NIL_IDX);
  ASSERT_EQ(array->spinlock, 0);
  for (uint32_t idx = 0; idx < 17; ++idx)
    EXPECT_EQ(forward_node(tslb_da_get_ptr(array.get(), idx)).status, TSLB_DA_SLOT_ACTIVE) << idx;
  EXPECT_EQ(tslb_da_get_size(array.get()), 18u);
}

TEST(OutOfMemory, SweepSkipsSlotsThatCannotBeLookedUp) {
  const array_t pool(tslb_init_dynmem(1000, 1, MPOOL_FLAG_COMPAT, MPOOL_TYPE_DRAM, 0, "p", 0, TSLB_DA_DAFLAG_LL));
  maddr_t address;
  tslb_dynmem_get_mchunk(pool.get(), &address, 100, srcaddr_t{});
  pretend_issued(pool.get(), 3);
  size_t total = 0, used = 0, deleted = 0;
  const std::string report = report_of(1, [&] { tslb_dynmem_update_free_list(pool.get(), &total, &used, &deleted); });
  EXPECT_GT(count_of(report, "PtrTabl_t"), 0u) << report;
  EXPECT_EQ(used, 116u);
}

TEST(OutOfMemory, ChunkInTheCurrentSlotAllocatesNothing) {
  const array_t pool(tslb_init_dynmem(100000, 1, MPOOL_FLAG_COMPAT, MPOOL_TYPE_DRAM, 0, "p", 0, 0));
  maddr_t address;
  tslb_dynmem_get_mchunk(pool.get(), &address, 100, srcaddr_t{});
  const unsigned long before = allocations_so_far();
  for (int i = 0; i < 500; ++i) tslb_dynmem_get_mchunk(pool.get(), &address, 100, srcaddr_t{});
  EXPECT_EQ(allocations_so_far(), before);
  destroy_dyn_arr(get_default_dyn_array(8, 1, MPOOL_TYPE_DRAM));
  EXPECT_EQ(allocations_so_far(), before + 2) << "the counter does not count allocations of the library";
}
