// Slot arrays: geometry and accessors, and the status and contents of what allocation gives. The order in which lists
// give slots back is list_model_test's.
#include <thread>

#include "array_support.h"

static array_t list_array(int record_size, int n_slots, uint8_t daflag) {
  return array_t(tslb_da_init_ll(record_size, n_slots, MPOOL_TYPE_DRAM, "ctx", 12, daflag));
}

TEST(Slots, CreatorsPassOnWhatTheyAreGiven) {
  const array_t plain(tslb_da_init_v5(100, 5, MPOOL_TYPE_SHM_TMP, "ctx", -4));
  EXPECT_EQ(plain->daflag, 0);
  EXPECT_EQ(plain->mem_type, MPOOL_TYPE_SHM_TMP);
  EXPECT_EQ(plain->tbl_id, 0xFFFFFFFCu);
  EXPECT_EQ(get_user_hdr(plain.get()), nullptr);
  EXPECT_EQ(static_cast<DynHdr_t *>(tslb_da_get_dynhdr(plain.get()))->rec_version, 0);
  EXPECT_EQ(tslb_dynmem_get_hdrsz(plain.get()), 24);
  const array_t versioned(tslb_da_init_ver(101, 5, MPOOL_TYPE_DRAM, "ctx", 4, TSLB_DA_DAFLAG_INLL, 7));
  EXPECT_EQ(static_cast<DynHdr_t *>(tslb_da_get_dynhdr(versioned.get()))->rec_version, 7);
  EXPECT_EQ(tslb_da_get_record_size(versioned.get()), 101u) << "a slot array's record size is not rounded";
  EXPECT_EQ(tslb_da_get_total_size(versioned.get()), 5u);
  EXPECT_EQ(tslb_da_get_size(versioned.get()), 0u);
  char *const base = bytes_of(versioned->arr_base);
  EXPECT_EQ(bytes_of(tslb_da_get_usrhdr(versioned.get())), base + 8);
  EXPECT_EQ(bytes_of(tslb_da_get_lli(versioned.get())), base + 8);
  EXPECT_EQ(bytes_of(tslb_da_get_dynarrhdr(versioned.get())), base + 68);
}

TEST(Slots, SlotSizeAndShift) {
  int shift = 77;
  EXPECT_EQ(tslb_da_get_slotsz(nullptr, &shift), 0xFFFFFFFFu);
  EXPECT_EQ(tslb_da_get_slotsz(list_array(10, 1, 0).get(), &shift), 10u);
  EXPECT_EQ(shift, 77) << "an array without nodes leaves it";
  EXPECT_EQ(tslb_da_get_slotsz(list_array(10, 1, 2).get(), nullptr), 26u);
  EXPECT_EQ(tslb_da_get_slotsz(list_array(10, 1, 1).get(), &shift), 18u);
  EXPECT_EQ(shift, 8);
}

TEST(Slots, NullHandles) {
  uint32_t idx = 5;
  EXPECT_EQ(tslb_da_get_total_size(nullptr), 0u);
  EXPECT_EQ(tslb_da_get_size(nullptr), 0u);
  EXPECT_EQ(tslb_da_get_record_size(nullptr), 0u);
  EXPECT_EQ(tslb_da_get_ptr(nullptr, 0), nullptr);
  EXPECT_EQ(tslb_da_get_hdr_str(nullptr), nullptr);
  EXPECT_EQ(tslb_da_get_newptr(nullptr, &idx), nullptr);
  destroy_dyn_arr(nullptr);
  EXPECT_EQ(idx, 5u);
}

TEST(Slots, SpinLockIsTakenReleasedAndReleasedTwice) {
  uint16_t lock = 0;
  tslb_da_spin_lock16(&lock);
  EXPECT_EQ(lock, 1);
  tslb_da_spin_unlock16(&lock);
  tslb_da_spin_unlock16(&lock);
  EXPECT_EQ(lock, 0);
  lock = 2;
  tslb_da_spin_unlock16(&lock);
  EXPECT_EQ(lock, 2) << "only a held lock is released";
}

// Nodes and their times are list_model_test's too; here is what a slot without a back node leaves alone behind itself.
TEST(Allocation, FreshSlotsAreMarkedAndClear) {
  for (const uint8_t daflag : std::initializer_list<uint8_t>{0, TSLB_DA_DAFLAG_LL}) {
    SCOPED_TRACE(int{daflag});
    const array_t array = list_array(13, 2, daflag);
    for (uint32_t want = 0; want < 20; ++want) {
      uint32_t idx;
      void *const slot = tslb_da_get_newptr(array.get(), &idx);
      ASSERT_NE(slot, nullptr);
      EXPECT_EQ(idx, want);
      EXPECT_EQ(slot, tslb_da_get_ptr(array.get(), idx));
      EXPECT_EQ(std::string(bytes_of(slot), 13), "\xFF\xFF\xFF\xFF" + std::string(9, '\0'));
      if (idx % 16 != 1) {  // the last slot of a block has no next one
        EXPECT_EQ(read_at<uint64_t>(slot, 13), 0u) << "written behind the payload";
      }
    }
    EXPECT_EQ(tslb_da_get_size(array.get()), 20u);
    EXPECT_EQ(array->spinlock, 0);
  }
}

TEST(Allocation, OnlyMemberEmptiesBothEndsWhateverItsLinkSays) {
  const array_t array = list_array(8, 4, TSLB_DA_DAFLAG_LL);
  uint32_t idx;
  for (int i = 0; i < 3; ++i) tslb_da_get_newptr(array.get(), &idx);
  tslb_da_free_idx(array.get(), 1);
  forward_node(tslb_da_get_ptr(array.get(), 1)).next = 2;
  tslb_da_get_newptr(array.get(), &idx);
  EXPECT_EQ(idx, 1u);
  EXPECT_EQ(list_roots(array.get()).free_head, TSLB_DA_NIL_IDX);
  EXPECT_EQ(list_roots(array.get()).free_tail, TSLB_DA_NIL_IDX);
}

TEST(Allocation, ContradictoryRootsArePassedOverInSilence) {
  static const struct {
    const char *fault;
    uint32_t n_free, free_head;
  } rows[] = {
      {"count without a head", 3, TSLB_DA_NIL_IDX}, {"head without a count", 0, 0}, {"head without a slot", 1, 4711}};
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    const array_t array = list_array(8, 4, TSLB_DA_DAFLAG_INLL);
    uint32_t idx;
    tslb_da_get_newptr(array.get(), &idx);
    DynArrLLI_t &lli = list_roots(array.get());
    lli.n_free = row.n_free;
    lli.free_head = row.free_head;
    EXPECT_EQ(stderr_of([&] { EXPECT_NE(tslb_da_get_newptr(array.get(), &idx), nullptr); }), "");
    EXPECT_EQ(idx, 1u);
    EXPECT_EQ(lli.n_free, row.n_free);
    EXPECT_EQ(lli.free_head, row.free_head);
  }
}

TEST(Allocation, LockIsTheCallersOrTheCalls) {
  const array_t array = list_array(8, 4, TSLB_DA_DAFLAG_LL);
  uint32_t idx;
  tslb_da_spin_lock16(&array->spinlock);
  EXPECT_NE(tslb_da_get_newptr_ex(array.get(), &idx, 0), nullptr);
  EXPECT_EQ(array->spinlock, 1) << "a lock that the caller holds was released";
  tslb_da_spin_unlock16(&array->spinlock);
  const array_t plain = list_array(8, 4, 0);
  plain->spinlock = 1;  // would spin for ever if a plain array took it
  EXPECT_NE(tslb_da_get_newptr_ex(plain.get(), &idx, 1), nullptr);
  EXPECT_EQ(plain->spinlock, 1);
}

TEST(NewIdx, IssuesAnIdAndWritesNothing) {
  const array_t array = list_array(8, 4, 0);
  EXPECT_EQ(tslb_da_get_newidx(array.get()), 0u);
  EXPECT_EQ(tslb_da_get_ptr(array.get(), 1), nullptr) << "an index that nobody was given";
  EXPECT_EQ(tslb_da_get_newidx(array.get()), 1u);
  EXPECT_EQ(read_at<uint64_t>(tslb_da_get_ptr(array.get(), 1), 0), 0u);
}

TEST(Description, ShowsListsOfInactiveListArraysOnly) {
  const auto text_of = [](const array_t &array) { return std::string(tslb_da_get_hdr_str(array.get())); };
  char handle[64];
  const array_t both = list_array(100, 5, TSLB_DA_DAFLAG_INLL);
  snprintf(handle, sizeof(handle), "dyn_arr ptr[%p], ", static_cast<void *>(both.get()));
  EXPECT_EQ(text_of(both), std::string(handle) +
                               "da_flag[2], n_alloc[5], n_used[0], n_direct[5], record_size[100], n_inact[0], "
                               "n_free[0], n_act[0], inact_head[-1], inact_tail[-1], free_head[-1], free_tail[-1]");
  const array_t free_only = list_array(100, 5, TSLB_DA_DAFLAG_LL);
  uint32_t idx;
  tslb_da_get_newptr(free_only.get(), &idx);
  snprintf(handle, sizeof(handle), "dyn_arr ptr[%p], ", static_cast<void *>(free_only.get()));
  EXPECT_EQ(text_of(free_only),
            std::string(handle) + "da_flag[1], n_alloc[5], n_used[1], n_direct[5], record_size[100]");
}

TEST(Description, BufferIsTheThreadsOwn) {
  const array_t first = list_array(100, 5, 0), second = list_array(200, 5, 0);
  const std::string line = tslb_da_get_hdr_str(first.get());
  const char *const here = tslb_da_get_hdr_str(first.get());
  std::thread([&] { EXPECT_NE(std::string(tslb_da_get_hdr_str(second.get())), line); }).join();
  EXPECT_EQ(here, line);
}
