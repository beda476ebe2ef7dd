// Tests of slots after allocation: refusals with their exact texts, and damaged lists. list_model_test checks the lists
// after each change; golden_test, redo_applier_test and tests/explore check the redo records of the changes.
#include "list_audit.h"
#include "redo_recorder.h"

constexpr uint32_t kNil = TSLB_DA_NIL_IDX;
constexpr uint32_t kNotReady = TSLB_DA_SLOT_NOT_READY;
constexpr int kRecordSize = 21;  // odd: nodes at any address
constexpr uint32_t kSlots = 12;
constexpr char kSource[] = "tslb_dynarr_lists.cpp";

// 12 active slots. Each payload is filled with its own character.
static array_t marked_array(uint8_t daflag = TSLB_DA_DAFLAG_INLL, int n_direct = 3) {
  array_t array(tslb_da_init_ll(kRecordSize, n_direct, MPOOL_TYPE_DRAM, "metrics", -9, daflag));
  for (uint32_t i = 0; i < kSlots; ++i) {
    uint32_t idx;
    memset(tslb_da_get_newptr(array.get(), &idx), static_cast<int>('a' + i), kRecordSize);
  }
  return array;
}

static void put_on_lists(DynArrHandle_t *array, const indices_t &inactive, const indices_t &free = {}) {
  for (const uint32_t idx : inactive) ASSERT_EQ(tslb_da_inactivate_idx(array, idx, 1000 + idx), 0);
  for (const uint32_t idx : free) ASSERT_EQ(tslb_da_free_idx(array, idx), 0);
}

// Returns block 0, which is the whole array if the direct area has kSlots slots.
static std::string image_of(DynArrHandle_t *array) {
  const size_t bytes = static_cast<size_t>(tslb_dynmem_get_hdrsz(array)) + kSlots * tslb_da_get_slotsz(array, nullptr);
  return std::string(bytes_of(array->arr_base), bytes);
}

static std::string payload_of(DynArrHandle_t *array, uint32_t idx) {
  return std::string(bytes_of(tslb_da_get_ptr(array, idx)), kRecordSize);
}

enum step_t { FREE, INACTIVATE, ACTIVATE };

static int perform(step_t step, DynArrHandle_t *array, uint32_t idx) {
  if (step == FREE) return tslb_da_free_idx(array, idx);
  return step == INACTIVATE ? tslb_da_inactivate_idx(array, idx, 77) : tslb_da_activate_idx(array, idx);
}

TEST(ListChange, StoredNeighboursWithoutASlotAreSkipped) {
  for (const step_t step : {FREE, ACTIVATE}) {
    const array_t owner = marked_array();
    DynArrHandle_t *const array = owner.get();
    put_on_lists(array, {4, 9, 2});
    void *const slot = tslb_da_get_ptr(array, 9);
    forward_node(slot).next = 4711;
    backward_node(array, slot).prev = kSlots;
    redo_recorder_t log;
    EXPECT_EQ(perform(step, array, 9), 0);
    EXPECT_EQ(log.take().size(), step == FREE ? 2u : 1u) << "a slot that does not exist was logged";
    EXPECT_EQ(status_at(array, 9), step == FREE ? TSLB_DA_SLOT_FREE : TSLB_DA_SLOT_ACTIVE);
    EXPECT_EQ(list_roots(array).n_inact, 2u);
    EXPECT_EQ(array->spinlock, 0);
  }
  const array_t owner = marked_array();
  DynArrLLI_t &lli = list_roots(owner.get());
  lli.free_tail = lli.inact_tail = 4711;
  node_fw &node = forward_node(tslb_da_get_ptr(owner.get(), 5));
  node.next = 4711;
  EXPECT_EQ(tslb_da_free_idx(owner.get(), 5), 0);
  EXPECT_EQ(node.next, kNil) << "the new tail has a next slot";
  EXPECT_EQ(tslb_da_inactivate_idx(owner.get(), 6, 1), 0);
  EXPECT_EQ(lli.free_tail, 5u);
  EXPECT_EQ(lli.inact_tail, 6u);
}

// Other values than the three statuses are unknown to the library: no list contains the slot, and it is added to none.
TEST(States, FreeOfASlotWithAnUnknownStatus) {
  for (const uint32_t status : {0u, 7u, kNotReady}) {
    SCOPED_TRACE(status);
    const array_t owner = marked_array(TSLB_DA_DAFLAG_INLL, kSlots);
    DynArrHandle_t *const array = owner.get();
    put_on_lists(array, {4, 9}, {7, 0});
    forward_node(tslb_da_get_ptr(array, 5)).status = status;
    std::string image = image_of(array);
    redo_recorder_t log;
    EXPECT_EQ(stdout_of([&] { EXPECT_EQ(stderr_of([&] { EXPECT_EQ(tslb_da_free_idx(array, 5), 0); }), ""); }), "");
    EXPECT_EQ(log.take().size(), 2u) << "its node and the header";
    // Only the gatekeeper word in the payload changes.
    memset(image.data() + (bytes_of(tslb_da_get_ptr(array, 5)) - bytes_of(array->arr_base)), 0xFF, 4);
    EXPECT_EQ(image_of(array), image) << "more than the gatekeeper word changed";
  }
}

// A refusal writes no record, changes nothing and takes no lock. The lock is held here, so a call that takes it would
// never return.
TEST(States, Refusals) {
  constexpr uint32_t kActive = TSLB_DA_SLOT_ACTIVE;
  constexpr uint8_t kPlain = 0, kFreeList = TSLB_DA_DAFLAG_LL, kBoth = TSLB_DA_DAFLAG_INLL;
  static const char kNoFree[] =
      "tslb_da_free_idx: Warning: provided dynamic array has not advance features but using APIs for the same.\n";
  static const char kNoInactivate[] =
      "tslb_da_inactivate_idx: Warning: can not inactive idx 5 because given dynamic array % has not initialized by "
      "flag TSLB_DA_DAFLAG_INLL\n";
  static const char kNoActivate[] =
      "tslb_da_activate_idx: Warning: idx 5 cannot be activate because dynamic array % is not initialized by "
      "TSLB_DA_DAFLAG_INLL\n";
  static const char kNotActive[] =
      "tslb_da_inactivate_idx: Warning: cannot inactivate idx 5 as its status is not active, slot status is %\n";
  static const char kNotInactive[] =
      "tslb_da_activate_idx: Warning: cannot activate idx 5 as not exist into inactive list, slot status is %\n";
  static const struct {
    const char *fault;
    uint8_t daflag;
    step_t step;
    uint32_t idx;
    uint32_t status;  // of slot 5
    int result;
    const char *text;  // after the line number; % is the status, or the handle if the array has no such list
  } rows[] = {
      {"plain array has a free list", kPlain, FREE, 5, kActive, 1, kNoFree},
      {"index tested before the array", kPlain, FREE, kSlots, kActive, 1, kNoFree},
      {"plain array inactivates", kPlain, INACTIVATE, 5, kActive, 1, kNoInactivate},
      {"plain array activates", kPlain, ACTIVATE, 5, kActive, 1, kNoActivate},
      {"free list taken for an inactive list", kFreeList, INACTIVATE, 5, kActive, 1, kNoInactivate},
      {"free list taken for an inactive list", kFreeList, ACTIVATE, 5, kActive, 1, kNoActivate},
      {"free of no slot", kFreeList, FREE, kSlots, kActive, -1, ""},
      {"no slot inactivated", kBoth, INACTIVATE, kSlots, kActive, -1, ""},
      {"no slot activated", kBoth, ACTIVATE, kNil, kActive, -1, ""},
      {"unset slot inactivated", kBoth, INACTIVATE, 5, TSLB_DA_SLOT_UNSET, 1, kNotActive},
      {"unset slot activated", kBoth, ACTIVATE, 5, TSLB_DA_SLOT_UNSET, 1, kNotInactive},
      {"free slot inactivated", kBoth, INACTIVATE, 5, TSLB_DA_SLOT_FREE, 1, kNotActive},
      {"active slot activated", kBoth, ACTIVATE, 5, kActive, 1, kNotInactive},
      {"status read as bits", kBoth, INACTIVATE, 5, 6, 1, kNotActive},
      {"status read as bits", kBoth, ACTIVATE, 5, 7, 1, kNotInactive},
      {"slot not ready inactivated", kBoth, INACTIVATE, 5, kNotReady, 1, kNotActive},
      {"slot not ready activated", kBoth, ACTIVATE, 5, kNotReady, 1, kNotInactive},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    const array_t owner = marked_array(row.daflag, kSlots);
    DynArrHandle_t *const array = owner.get();
    if (row.daflag == kBoth) put_on_lists(array, {4, 9}, {7, 0});
    if (row.daflag != kPlain) forward_node(tslb_da_get_ptr(array, 5)).status = row.status;
    const std::string image = image_of(array);
    redo_recorder_t log;
    std::string output, warnings;
    array->spinlock = 1;
    const auto work = [&] { EXPECT_EQ(perform(row.step, array, row.idx), row.result); };
    warnings = stderr_of([&] { output = stdout_of(work); });
    EXPECT_EQ(array->spinlock, 1);
    EXPECT_EQ(image_of(array), image);
    EXPECT_TRUE(log.take().empty());

    const bool of_the_slot = row.daflag == kBoth;
    EXPECT_EQ(of_the_slot ? output : warnings, "");
    std::string text = row.text;
    if (const size_t at = text.find('%'); at != std::string::npos)
      text.replace(at, 1, of_the_slot ? std::to_string(row.status) : testing::PrintToString(owner.get()));
    if (text.empty())
      EXPECT_EQ(output + warnings, "");
    else
      expect_report(output + warnings, kSource, text);
  }
}

TEST(States, Readiness) {
  const array_t owner = marked_array(TSLB_DA_DAFLAG_LL, kSlots);
  DynArrHandle_t *const array = owner.get();
  redo_recorder_t log;
  void *const slot = tslb_da_get_ptr(array, 5);
  for (const uint32_t status : {0u, 1u, 2u, 3u, 0xFFFFFFFEu, kNotReady}) {
    forward_node(slot).status = status == kNotReady ? TSLB_DA_SLOT_ACTIVE : status;
    const std::string image = image_of(array);
    forward_node(slot).status = status;
    EXPECT_EQ(tslb_da_is_ready(nullptr, slot), status == kNotReady ? 0 : 1) << "the handle was used";
    tslb_da_make_ready(array, slot);
    EXPECT_EQ(image_of(array), image);
    EXPECT_EQ(array->spinlock, 0);
  }
  EXPECT_TRUE(log.take().empty());

  // In a plain array the 8 bytes before a record belong to the record before it.
  const array_t plain = marked_array(0, kSlots);
  memset(tslb_da_get_ptr(plain.get(), 4), 0xFF, kRecordSize);
  tslb_da_make_ready(plain.get(), tslb_da_get_ptr(plain.get(), 5));
  EXPECT_EQ(payload_of(plain.get(), 4), std::string(kRecordSize, '\xFF'));
}

// The redo records are written before the gatekeeper word is set. At that moment a used slot has a cleared payload.
TEST(States, FreedSlotOfAnySizeIsClearedWhenTaken) {
  for (int size = 1; size <= 9; ++size) {
    SCOPED_TRACE(size);
    const array_t array(tslb_da_init_ll(size, 4, MPOOL_TYPE_DRAM, "metrics", -9, TSLB_DA_DAFLAG_LL));
    ASSERT_EQ(tslb_da_get_range(array.get(), 1), 0u);
    char *const slot = bytes_of(tslb_da_get_ptr(array.get(), 0));
    const size_t bytes = static_cast<size_t>(size), marked = bytes < 4 ? bytes : 4;
    memset(slot, 'x', bytes);
    ASSERT_EQ(tslb_da_free_idx(array.get(), 0), 0);
    redo_recorder_t log;
    log.watch_word(slot);
    ASSERT_EQ(tslb_da_get_range(array.get(), 1), 0u);
    const uint32_t word = log.take().at(0).word;
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(&word), marked), std::string(marked, '\0'));
    EXPECT_EQ(std::string(slot, bytes), std::string(marked, '\xFF') + std::string(bytes - marked, '\0'));
  }
}

TEST(States, InactiveHeadIsReadWithoutAChange) {
  const array_t owner = marked_array();
  DynArrHandle_t *const array = owner.get();
  uint32_t idx = 6;
  const std::string report = stdout_of([&] { EXPECT_EQ(tslb_da_get_inactive_head_ptr(nullptr, &idx), nullptr); });
  expect_report(report, kSource,
                "tslb_da_get_inactive_head_ptr: failed to get inactive head pointer because handle of dynamic array is "
                "NULL.\n");
  EXPECT_EQ(idx, 6u);
  EXPECT_EQ(tslb_da_get_inactive_head_ptr(array, &idx), nullptr);
  EXPECT_EQ(idx, kNil);
  put_on_lists(array, {9, 4});
  EXPECT_EQ(tslb_da_get_inactive_head_ptr(array, &idx), tslb_da_get_ptr(array, 9));
  EXPECT_EQ(idx, 9u);
  EXPECT_EQ(audit_lists(array).inactive, (indices_t{9, 4})) << "the read changed the list";
}

TEST(Repair, CountWithoutAHeadEmptiesTheList) {
  static const struct {
    const char *fault;
    uint32_t count, head, head_after;
    bool lost;
  } rows[] = {
      {"lost list not emptied", 3, kNil, 5, true},
      {"tail without a count repaired", 0, kNil, 5, false},
      {"head without a count replaced", 0, 3, 3, false},
  };
  for (const auto &row : rows) {
    for (const bool frees : {true, false}) {
      SCOPED_TRACE(testing::Message() << row.fault << ", free list " << frees);
      const array_t owner = marked_array();
      DynArrHandle_t *const array = owner.get();
      DynArrLLI_t &lli = list_roots(array);
      (frees ? lli.n_free : lli.n_inact) = row.count;
      (frees ? lli.free_head : lli.inact_head) = row.head;
      (frees ? lli.free_tail : lli.inact_tail) = 7;
      forward_node(tslb_da_get_ptr(array, 7)).next = 1;
      redo_recorder_t log;
      const std::string report = stderr_of([&] { EXPECT_EQ(perform(frees ? FREE : INACTIVATE, array, 5), 0); });
      const char *const text =
          frees ? "tslb_da_free_idx: Warning: Trying to get slot from NULL free_head, resetting n_free,n_free - 3, "
                  "ctx_name - metrics, tbl_id - -9"
                : "tslb_da_inactivate_idx: Warning: Trying to get slot from NULL inact_head, resetting n_inact, "
                  "n_inact - 3, ctx_name - metrics, tbl_id - -9";
      if (row.lost)
        expect_report(report, kSource, text);
      else
        EXPECT_EQ(report, "");
      EXPECT_EQ(frees ? lli.n_free : lli.n_inact, 1u);
      EXPECT_EQ(frees ? lli.free_head : lli.inact_head, row.head_after);
      EXPECT_EQ(frees ? lli.free_tail : lli.inact_tail, 5u);
      EXPECT_EQ(forward_node(tslb_da_get_ptr(array, 7)).next, row.lost ? 1u : 5u)
          << "a slot of the lost list was changed";
      EXPECT_EQ(backward_node(array, tslb_da_get_ptr(array, 5)).prev, frees || row.lost ? kNil : 7u);
      EXPECT_EQ(log.take().size(), (row.lost ? 0u : 1u) + (frees ? 2u : 1u));
    }
  }
}

TEST(Repair, OnlyAppendingRepairs) {
  const array_t array = marked_array();
  put_on_lists(array.get(), {4, 9, 2});
  list_roots(array.get()).inact_head = kNil;
  EXPECT_EQ(stderr_of([&] { EXPECT_EQ(tslb_da_activate_idx(array.get(), 9), 0); }), "");
  EXPECT_EQ(list_roots(array.get()).n_inact, 2u);
}
