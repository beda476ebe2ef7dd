// Tests of slot arrays: null handles, and the status and contents of allocated slots. list_model_test checks the order
// in which lists return slots.
#include "array_support.h"

static array_t list_array(int record_size, int n_slots, uint8_t daflag) {
  return array_t(tslb_da_init_ll(record_size, n_slots, MPOOL_TYPE_DRAM, "ctx", 12, daflag));
}

TEST(Slots, NullHandles) {
  uint32_t idx = 5;
  EXPECT_EQ(tslb_da_get_total_size(nullptr), 0u);
  EXPECT_EQ(tslb_da_get_size(nullptr), 0u);
  EXPECT_EQ(tslb_da_get_record_size(nullptr), 0u);
  EXPECT_EQ(tslb_da_get_slotsz(nullptr, nullptr), 0xFFFFFFFFu);
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
  EXPECT_EQ(lock, 2) << "a lock that was not held was released";
}

// list_model_test also checks nodes and their times. This test checks that a slot without a back node changes no byte
// after itself.
TEST(Allocation, NewSlotsAreClearExceptForTheGatekeeperWord) {
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
        EXPECT_EQ(read_at<uint64_t>(slot, 13), 0u) << "written after the payload";
      }
    }
    EXPECT_EQ(tslb_da_get_size(array.get()), 20u);
    EXPECT_EQ(array->spinlock, 0);
  }
}

TEST(Allocation, TakingTheOnlyMemberEmptiesTheListWhateverItsLink) {
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

TEST(Allocation, InconsistentRootsAreSkippedWithoutAMessage) {
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

TEST(NewIdx, IssuesAnIdAndWritesNothing) {
  const array_t array = list_array(8, 4, 0);
  EXPECT_EQ(tslb_da_get_newidx(array.get()), 0u);
  EXPECT_EQ(tslb_da_get_ptr(array.get(), 1), nullptr) << "an index that was not issued";
  EXPECT_EQ(tslb_da_get_newidx(array.get()), 1u);
  EXPECT_EQ(read_at<uint64_t>(tslb_da_get_ptr(array.get(), 1), 0), 0u);
}
