// Life of a slot after allocation: list surgery at every position with the records that tell it, every status under
// every operation, refusals to the character, and lists that were lost.
#include "list_audit.h"
#include "redo_recorder.h"

constexpr uint32_t kNil = TSLB_DA_NIL_IDX;
constexpr uint32_t kNotReady = TSLB_DA_SLOT_NOT_READY;
constexpr int kRecordSize = 21;  // odd: nodes at any address
constexpr uint32_t kSlots = 12;
constexpr char kSource[] = "tslb_dynarr_lists.cpp";

// 12 active slots, each payload full of its own mark.
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

// Block 0, which holds all that an array with a direct area of kSlots has.
static std::string image_of(DynArrHandle_t *array) {
  const size_t bytes = static_cast<size_t>(tslb_dynmem_get_hdrsz(array)) + kSlots * tslb_da_get_slotsz(array, nullptr);
  return std::string(bytes_of(array->arr_base), bytes);
}

static std::string payload_of(DynArrHandle_t *array, uint32_t idx) {
  return std::string(bytes_of(tslb_da_get_ptr(array, idx)), kRecordSize);
}

static std::string shown(uint32_t idx) {
  return idx == kNil ? "nil" : std::to_string(idx);
}

// Records as text: what each covers, and what its bytes said when it was written: status, next, and in a whole slot
// prev.
static std::string told(DynArrHandle_t *array, const std::vector<redo_record_t> &records) {
  const uint32_t hdr_bytes = static_cast<uint32_t>(tslb_dynmem_get_hdrsz(array));
  const uint32_t slot_bytes = tslb_da_get_slotsz(array, nullptr);
  std::string text;
  for (const auto &record : records) {
    const void *const bytes = record.bytes.data();
    const uint32_t idx = static_cast<uint32_t>((record.data_off - hdr_bytes) / slot_bytes);
    text += record.locked ? "locked " : "";
    if (record.txn_id != ~uint64_t{0} || record.rec_type != 5 || record.ctx_name != "metrics" ||
        record.tbl_id != 0xFFFFFFF7u || record.aux_idx != 0xFFFFFFFFu)
      text += "misnamed ";
    if (record.data_off == 0 && record.bytes.size() == hdr_bytes && record.data_ptr == array->arr_base) {
      const DynArrLLI_t lli = read_at<DynArrLLI_t>(bytes, 8);
      text += "header: free " + shown(lli.free_head) + ".." + shown(lli.free_tail) + "/" + std::to_string(lli.n_free) +
              " inactive " + shown(lli.inact_head) + ".." + shown(lli.inact_tail) + "/" + std::to_string(lli.n_inact);
    } else if (record.data_off != hdr_bytes + uint64_t{idx} * slot_bytes ||
               record.data_ptr != bytes_of(tslb_da_get_ptr(array, idx)) - 8 ||
               (record.bytes.size() != 8 && record.bytes.size() != slot_bytes)) {
      text += "stray";
    } else {
      const bool whole = record.bytes.size() != 8;
      text += (whole ? "slot " : "node ") + shown(idx) + ": " + std::to_string(read_at<uint32_t>(bytes, 0)) + " >" +
              shown(read_at<uint32_t>(bytes, 4));
      if (whole) text += " <" + shown(read_at<uint32_t>(bytes, 8 + kRecordSize));
    }
    text += "; ";
  }
  return text;
}

// ---- Surgery ------------------------------------------------------------------------------------------------------

enum step_t { FREE, INACTIVATE, ACTIVATE };

static int perform(step_t step, DynArrHandle_t *array, uint32_t idx) {
  if (step == FREE) return tslb_da_free_idx(array, idx);
  return step == INACTIVATE ? tslb_da_inactivate_idx(array, idx, 77) : tslb_da_activate_idx(array, idx);
}

// Lists from head to tail. Records: neighbours under the lock, the one before first; the slot and then the header after
// its release. An activation leaves the inactive list as a free does.
static const struct {
  const char *fault;
  indices_t inactive, free;
  step_t step;
  uint32_t idx;
  indices_t inactive_after, free_after;
  const char *records;
} kSurgery[] = {
    // clang-format off
    {"first free slot is not both ends", {}, {}, FREE, 5, {}, {5},
     "node 5: 1 >nil; header: free 5..5/1 inactive nil..nil/0; "},
    {"freed slot joins elsewhere than at the tail, or the old tail is not told", {}, {7, 0}, FREE, 5, {}, {7, 0, 5},
     "locked node 0: 1 >5; node 5: 1 >nil; header: free 7..5/3 inactive nil..nil/0; "},
    {"only inactive slot leaves an end behind", {4}, {}, FREE, 4, {}, {4},
     "node 4: 1 >nil; header: free 4..4/1 inactive nil..nil/0; "},
    {"freed head stays head", {4, 9, 2}, {}, FREE, 4, {9, 2}, {4},
     "locked slot 9: 3 >2 <nil; node 4: 1 >nil; header: free 4..4/1 inactive 9..2/2; "},
    {"freed middle is not bridged both ways", {4, 9, 2}, {}, FREE, 9, {4, 2}, {9},
     "locked slot 4: 3 >2 <nil; locked slot 2: 3 >nil <4; node 9: 1 >nil; header: free 9..9/1 inactive 4..2/2; "},
    {"freed tail stays tail", {4, 9, 2}, {}, FREE, 2, {4, 9}, {2},
     "locked slot 9: 3 >nil <4; node 2: 1 >nil; header: free 2..2/1 inactive 4..9/2; "},
    {"free list joined ahead of leaving the inactive list", {4, 9, 2}, {7, 0}, FREE, 9, {4, 2}, {7, 0, 9},
     "locked slot 4: 3 >2 <nil; locked slot 2: 3 >nil <4; locked node 0: 1 >9; node 9: 1 >nil; "
     "header: free 7..9/3 inactive 4..2/2; "},
    {"activated middle is not bridged both ways", {4, 9, 2}, {7}, ACTIVATE, 9, {4, 2}, {7},
     "locked slot 4: 3 >2 <nil; locked slot 2: 3 >nil <4; slot 9: 2 >nil <nil; "},
    {"first inactive slot is not both ends", {}, {7}, INACTIVATE, 5, {5}, {7}, "slot 5: 3 >nil <nil; "},
    {"inactivated slot joins elsewhere than at the tail", {4, 9}, {}, INACTIVATE, 0, {4, 9, 0}, {},
     "locked slot 9: 3 >0 <4; slot 0: 3 >nil <9; "},
    // clang-format on
};

TEST(Surgery, EveryPositionWithItsRecords) {
  for (const auto &row : kSurgery) {
    for (const uint8_t daflag : std::initializer_list<uint8_t>{2, 3}) {
      SCOPED_TRACE(testing::Message() << row.fault << ", daflag " << int{daflag});
      const array_t owner = marked_array(daflag);
      DynArrHandle_t *const array = owner.get();
      put_on_lists(array, row.inactive, row.free);
      const uint32_t ts_before = backward_node(array, tslb_da_get_ptr(array, row.idx)).ts;
      redo_recorder_t log(&array->spinlock);
      EXPECT_EQ(perform(row.step, array, row.idx), 0);
      const auto records = log.take();
      EXPECT_EQ(told(array, records), row.records);
      if (row.step != FREE) {
        EXPECT_EQ(records.back().bytes,
                  std::string(bytes_of(tslb_da_get_ptr(array, row.idx)) - 8, 8 + kRecordSize + 8));
      }

      const lists_t lists = audit_lists(array);
      EXPECT_EQ(lists.inactive, row.inactive_after);
      EXPECT_EQ(lists.free, row.free_after);
      EXPECT_EQ(tslb_da_get_size(array), kSlots);
      EXPECT_EQ(list_roots(array).n_act, 0u);
      EXPECT_EQ(backward_node(array, tslb_da_get_ptr(array, row.idx)).ts, row.step == INACTIVATE ? 77u : ts_before);
      // The record is kept, but for the mark that a free leaves in its first word.
      std::string payload(kRecordSize, static_cast<char>('a' + row.idx));
      if (row.step == FREE) payload.replace(0, 4, "\xFF\xFF\xFF\xFF");
      EXPECT_EQ(payload_of(array, row.idx), payload);
    }
  }
}

TEST(Surgery, StoredNeighboursWithoutASlotAreSteppedOver) {
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
  EXPECT_EQ(node.next, kNil) << "the new tail leads on";
  EXPECT_EQ(tslb_da_inactivate_idx(owner.get(), 6, 1), 0);
  EXPECT_EQ(lli.free_tail, 5u);
  EXPECT_EQ(lli.inact_tail, 6u);
}

// ---- States -------------------------------------------------------------------------------------------------------

enum said_t { SILENT, NOT_ACTIVE, NOT_INACTIVE };

static void expect_said(said_t said, uint32_t idx, uint32_t status, const std::string &report) {
  if (said == SILENT) {
    EXPECT_EQ(report, "");
    return;
  }
  const bool parks = said == NOT_ACTIVE;
  expect_report(report, kSource,
                (parks ? "tslb_da_inactivate_idx: Warning: cannot inactivate idx "
                       : "tslb_da_activate_idx: Warning: cannot activate idx ") +
                    std::to_string(idx) +
                    (parks ? " as its status is not active, slot status is "
                           : " as not exist into inactive list, slot status is ") +
                    std::to_string(status) + "\n");
}

// A slot that is free, active or inactive is list_model_test's. Any other number is no status of the library's: no list
// knows the slot, and none gets it.
TEST(States, NumbersThatAreNoStatus) {
  static const struct {
    const char *fault;
    uint32_t status;
    step_t step;
    said_t said;
  } rows[] = {
      {"unset slot put on the free list", 0, FREE, SILENT},
      {"unset slot inactivated", 0, INACTIVATE, NOT_ACTIVE},
      {"unset slot activated", 0, ACTIVATE, NOT_INACTIVE},
      {"status read as bits", 7, FREE, SILENT},
      {"status read as bits", 6, INACTIVATE, NOT_ACTIVE},
      {"status read as bits", 7, ACTIVATE, NOT_INACTIVE},
      {"slot not ready put on the free list", kNotReady, FREE, SILENT},
      {"slot not ready parked", kNotReady, INACTIVATE, NOT_ACTIVE},
      {"slot not ready activated", kNotReady, ACTIVATE, NOT_INACTIVE},
      {"free slot parked", TSLB_DA_SLOT_FREE, INACTIVATE, NOT_ACTIVE},
      {"active slot activated", TSLB_DA_SLOT_ACTIVE, ACTIVATE, NOT_INACTIVE},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(testing::Message() << row.fault << ": status " << row.status << ", operation " << row.step);
    const array_t owner = marked_array(TSLB_DA_DAFLAG_INLL, kSlots);
    DynArrHandle_t *const array = owner.get();
    put_on_lists(array, {4, 9}, {7, 0});
    forward_node(tslb_da_get_ptr(array, 5)).status = row.status;
    std::string image = image_of(array);
    redo_recorder_t log(&array->spinlock);
    int result = -2;
    std::string warnings;
    // Other than a free, a refusal takes no lock: with this one held it would never come back.
    if (row.said != SILENT) array->spinlock = 1;
    EXPECT_EQ(stdout_of([&] { warnings = stderr_of([&] { result = perform(row.step, array, 5); }); }), "");
    if (row.said != SILENT) array->spinlock = 0;
    EXPECT_EQ(result, row.step == FREE ? 0 : 1);
    expect_said(row.said, 5, row.status, warnings);
    const std::string status = std::to_string(row.status);
    EXPECT_EQ(told(array, log.take()),
              row.step == FREE ? "node 5: " + status + " >nil; header: free 7..0/2 inactive 4..9/2; " : "");
    // What a free leaves is its mark in the payload.
    if (row.step == FREE)
      memset(image.data() + (bytes_of(tslb_da_get_ptr(array, 5)) - bytes_of(array->arr_base)), 0xFF, 4);
    EXPECT_EQ(image_of(array), image) << "more was changed";
  }
}

TEST(States, RefusalsOfTheArrayItself) {
  struct row_t {
    const char *fault;
    uint8_t daflag;
    step_t step;
    uint32_t idx;
    int result;
    const char *text;  // on stdout, behind the line number; %p is the handle
  };
  static const char kPlain[] =
      "tslb_da_free_idx: Warning: provided dynamic array has not advance features but using APIs for the same.\n";
  static const char kNoPark[] =
      "tslb_da_inactivate_idx: Warning: can not inactive idx 5 because given dynamic array %p has not initialized by "
      "flag TSLB_DA_DAFLAG_INLL\n";
  static const char kNoWake[] =
      "tslb_da_activate_idx: Warning: idx 5 cannot be activate because dynamic array %p is not initialized by "
      "TSLB_DA_DAFLAG_INLL\n";
  static const row_t rows[] = {
      {"plain array has a free list", 0, FREE, 5, 1, kPlain},
      {"index looked at ahead of the array", 0, FREE, kSlots, 1, kPlain},
      {"plain array parks", 0, INACTIVATE, 5, 1, kNoPark},
      {"plain array activates", 0, ACTIVATE, 5, 1, kNoWake},
      {"free list taken for an inactive list", TSLB_DA_DAFLAG_LL, INACTIVATE, 5, 1, kNoPark},
      {"free list taken for an inactive list", TSLB_DA_DAFLAG_LL, ACTIVATE, 5, 1, kNoWake},
      {"free of no slot", TSLB_DA_DAFLAG_LL, FREE, kSlots, -1, nullptr},
      {"free of no slot", TSLB_DA_DAFLAG_INLL, FREE, kNil, -1, nullptr},
      {"no slot parked", TSLB_DA_DAFLAG_INLL, INACTIVATE, kSlots, -1, nullptr},
      {"no slot activated", TSLB_DA_DAFLAG_INLL, ACTIVATE, kNil, -1, nullptr},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    const array_t owner = marked_array(row.daflag, kSlots);
    DynArrHandle_t *const array = owner.get();
    const std::string image = image_of(array);
    redo_recorder_t log;
    std::string output;
    array->spinlock = 1;  // none of these takes the lock
    EXPECT_EQ(stderr_of([&] { output = stdout_of([&] { EXPECT_EQ(perform(row.step, array, row.idx), row.result); }); }),
              "");
    EXPECT_EQ(array->spinlock, 1);
    EXPECT_EQ(image_of(array), image);
    EXPECT_TRUE(log.take().empty());
    if (row.text == nullptr) {
      EXPECT_EQ(output, "");
      continue;
    }
    char text[256];
    // An argument that a format does not use is ignored.
    snprintf(text, sizeof(text), std::string(row.text).c_str(), static_cast<void *>(array));
    expect_report(output, kSource, text);
  }
}

TEST(States, Readiness) {
  const array_t owner = marked_array(TSLB_DA_DAFLAG_LL, kSlots);
  DynArrHandle_t *const array = owner.get();
  redo_recorder_t log;
  void *const slot = tslb_da_get_ptr(array, 5);
  for (const uint32_t status : {0u, 1u, 2u, 3u, 0xFFFFFFFEu, kNotReady}) {
    forward_node(slot) = {status, 8};
    const DynArrLLI_t before = list_roots(array);
    EXPECT_EQ(tslb_da_is_ready(nullptr, slot), status == kNotReady ? 0 : 1) << "the handle is not used";
    tslb_da_make_ready(array, slot);
    EXPECT_EQ(forward_node(slot).status, status == kNotReady ? TSLB_DA_SLOT_ACTIVE : status);
    EXPECT_EQ(forward_node(slot).next, 8u);
    EXPECT_EQ(tslb_da_is_ready(array, slot), 1);
    EXPECT_EQ(memcmp(&before, &list_roots(array), sizeof(before)), 0);
    EXPECT_EQ(array->spinlock, 0);
  }
  EXPECT_TRUE(log.take().empty());

  // In a plain array the 8 bytes ahead of a record belong to the record before it.
  const array_t plain = marked_array(0, kSlots);
  memset(tslb_da_get_ptr(plain.get(), 4), 0xFF, kRecordSize);
  tslb_da_make_ready(plain.get(), tslb_da_get_ptr(plain.get(), 5));
  EXPECT_EQ(payload_of(plain.get(), 4), std::string(kRecordSize, '\xFF'));
}

// Between its take and its gatekeeper word, which its records precede, a used slot shows a cleared payload.
TEST(States, FreedSlotOfAnySizeComesBackCleared) {
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

TEST(States, LookAtTheInactiveHead) {
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
  EXPECT_EQ(audit_lists(array).inactive, (indices_t{9, 4})) << "a look removed something";
}

// ---- Lists that were lost -----------------------------------------------------------------------------------------

TEST(Repair, CountWithoutAHeadStartsTheListAnew) {
  static const struct {
    const char *fault;
    step_t step;
    uint32_t count, head;
    bool reported;
    uint32_t head_after, prev_after;  // the second: back link of the slot that joins
  } rows[] = {
      {"lost free list not started anew", FREE, 3, kNil, true, 5, kNil},
      {"tail without a count repaired", FREE, 0, kNil, false, 5, kNil},
      {"head without a count replaced", FREE, 0, 3, false, 3, kNil},
      {"lost inactive list not started anew", INACTIVATE, 3, kNil, true, 5, kNil},
      {"tail without a count repaired", INACTIVATE, 0, kNil, false, 5, 7},
      {"head without a count replaced", INACTIVATE, 0, 3, false, 3, 7},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(testing::Message() << row.fault << ", operation " << row.step);
    const array_t owner = marked_array();
    DynArrHandle_t *const array = owner.get();
    DynArrLLI_t &lli = list_roots(array);
    const bool frees = row.step == FREE;
    (frees ? lli.n_free : lli.n_inact) = row.count;
    (frees ? lli.free_head : lli.inact_head) = row.head;
    (frees ? lli.free_tail : lli.inact_tail) = 7;
    forward_node(tslb_da_get_ptr(array, 7)).next = 1;
    // The other list is whole and stays so.
    put_on_lists(array, frees ? indices_t{4, 9} : indices_t{}, frees ? indices_t{} : indices_t{4, 9});
    redo_recorder_t log(&array->spinlock);
    const std::string report = stderr_of([&] { EXPECT_EQ(perform(row.step, array, 5), 0); });
    if (row.reported)
      expect_report(
          report, kSource,
          frees ? "tslb_da_free_idx: Warning: Trying to get slot from NULL free_head, resetting n_free,n_free - "
                  "3, ctx_name - metrics, tbl_id - -9"
                : "tslb_da_inactivate_idx: Warning: Trying to get slot from NULL inact_head, resetting n_inact, "
                  "n_inact - 3, ctx_name - metrics, tbl_id - -9");
    else
      EXPECT_EQ(report, "");
    EXPECT_EQ(frees ? lli.n_free : lli.n_inact, 1u);
    EXPECT_EQ(frees ? lli.free_head : lli.inact_head, row.head_after);
    EXPECT_EQ(frees ? lli.free_tail : lli.inact_tail, 5u);
    EXPECT_EQ(forward_node(tslb_da_get_ptr(array, 7)).next, row.reported ? 1u : 5u) << "the lost list's slots";
    EXPECT_EQ(status_at(array, 7), TSLB_DA_SLOT_ACTIVE);
    EXPECT_EQ(backward_node(array, tslb_da_get_ptr(array, 5)).prev, row.prev_after);
    EXPECT_EQ(frees ? lli.n_inact : lli.n_free, 2u);
    const size_t n_records = (row.reported ? 0u : 1u) + (frees ? 2u : 1u);
    EXPECT_EQ(log.take().size(), n_records);
  }
}

TEST(Repair, OnlyWhatAppendsRepairs) {
  const array_t owner = marked_array();
  DynArrHandle_t *const array = owner.get();
  put_on_lists(array, {4, 9, 2});
  list_roots(array).inact_head = kNil;
  list_roots(array).n_free = 3;
  uint32_t idx;
  EXPECT_EQ(stderr_of([&] {
              EXPECT_EQ(tslb_da_activate_idx(array, 9), 0);
              EXPECT_NE(tslb_da_get_newptr(array, &idx), nullptr);
            }),
            "");
  EXPECT_EQ(list_roots(array).n_inact, 2u);
  EXPECT_EQ(list_roots(array).n_free, 3u);
}
