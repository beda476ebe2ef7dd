// Tests of the reuse of inactive slots: thresholds, age, and the values that the caller receives. The test defines the
// system's time. list_model_test compares slots, lists and results over long histories of reuse.
#include <limits.h>

#include <tslb/tslb_settings.h>
#include <tslb/tslb_util.h>
#include "list_audit.h"
#include "own_time.h"
#include "redo_recorder.h"

constexpr uint32_t kNil = TSLB_DA_NIL_IDX;
constexpr int kRecordSize = 21;
constexpr time_t kNow = 1000000000;
constexpr time_t kLate = 0xFFFFFFF0;  // does not fit 31 bits

using limits_t = tsdb_inactive_thshld_policy_t;  // percentage, 0, count, age, minimum of n_used

// Limits that no array of these tests reaches, and limits that always pass.
constexpr limits_t kNever = {101, 0, 65535, 0, 0}, kAlways = {0, 0, 0, 0, 0};

// Creates `n_used` slots and inactivates the first `n_inactive` of them at the current time, in descending order: the
// head has the highest index.
static array_t idle_array(uint32_t n_used, uint32_t n_inactive, const char *ctx_name = "metrics") {
  array_t array(tslb_da_init_ll(kRecordSize, 4, MPOOL_TYPE_DRAM, ctx_name, 7, TSLB_DA_DAFLAG_INLL));
  for (uint32_t i = 0; i < n_used; ++i) {
    uint32_t idx;
    memset(tslb_da_get_newptr(array.get(), &idx), static_cast<int>('a' + i % 20), kRecordSize);
  }
  for (uint32_t idx = n_inactive; idx-- > 0;) tslb_da_inactivate_idx(array.get(), idx, now);
  return array;
}

static void with_policy(const array_t &array, limits_t major, limits_t critical, uint8_t use = 1) {
  tsdb_mem_pressure_config_t policy = {use, {}, critical, major};
  tslb_da_register_reuse_policy(array.get(), &policy);
}

// Takes a slot with tslb_da_get_newptr_inll or with tslb_da_get_newptr. Returns its index.
static uint32_t take(const array_t &array, bool by_inll = false) {
  uint32_t idx, last_ts;
  uint8_t last_status;
  EXPECT_NE(by_inll ? tslb_da_get_newptr_inll(array.get(), &idx, &last_ts, &last_status)
                    : tslb_da_get_newptr(array.get(), &idx),
            nullptr);
  return idx;
}

class Reuse : public testing::Test {
 protected:
  void SetUp() override {
    lib_config.tslb_mvt_reuse_enabled = 1;
    now = kNow;
  }
  void TearDown() override {
    lib_config.tslb_mvt_reuse_enabled = 0;
    tslb_set_timer_factor(1.0);
  }
};

TEST_F(Reuse, Thresholds) {
  static const struct {
    const char *fault;
    uint32_t n_used, n_inactive;
    limits_t major, critical;
    uint8_t use;
    bool reuses;
  } rows[] = {
      {"percentage multiplied before the division, or rounded", 100, 29, {29, 0, 65535, 0, 0}, kNever, 1, false},
      {"29 of 100 is not 28", 100, 29, {28, 0, 65535, 0, 0}, kNever, 1, true},
      {"a set of zeroes does not pass", 100, 1, kAlways, kNever, 1, true},
      {"count at the limit does not pass", 400, 50, {101, 0, 50, 0, 0}, kNever, 1, true},
      {"count below the limit passes", 400, 50, {101, 0, 51, 0, 0}, kNever, 1, false},
      {"count kept in 8 bits", 400, 256, {101, 0, 256, 0, 0}, kNever, 1, true},
      {"n_used at major's minimum is not enough", 100, 5, {0, 0, 0, 0, 100}, kNever, 1, true},
      {"major considered below its minimum", 100, 5, {0, 0, 0, 0, 101}, kNever, 1, false},
      {"critical not tested if major is skipped", 100, 5, {0, 0, 0, 0, 101}, kAlways, 1, true},
      {"critical not tested if major fails", 100, 5, kNever, kAlways, 1, true},
      {"critical considered below its minimum", 100, 5, kNever, {0, 0, 0, 0, 101}, 1, false},
      {"critical's minimum applied to major", 100, 5, kAlways, {0, 0, 0, 0, 101}, 1, true},
      {"used although switched off", 100, 90, kAlways, kAlways, 0, false},
      {"switch read as a bit", 100, 90, kAlways, kAlways, 0x80, true},
      {"no inactive slot", 100, 0, kAlways, kAlways, 1, false},
      {"age limit of major used", 100, 5, {0, 0, 0, 86400, 0}, kAlways, 1, true},
      {"age limit of critical not used if major passes", 100, 5, kAlways, {0, 0, 0, 86400, 0}, 1, false},
      {"age limit compared without sign", 100, 5, kAlways, {0, 0, 0, 0xFFFFFFFF, 0}, 1, true},
  };
  for (const auto &row : rows) {
    for (const bool by_inll : {false, true}) {
      SCOPED_TRACE(testing::Message() << row.fault << (by_inll ? ", by tslb_da_get_newptr_inll" : ""));
      const array_t array = idle_array(row.n_used, row.n_inactive);
      with_policy(array, row.major, row.critical, row.use);
      const indices_t before = audit_lists(array.get()).inactive;
      redo_recorder_t log;
      EXPECT_EQ(take(array, by_inll), row.reuses ? before.at(0) : row.n_used);
      // The record of the next head; tslb_da_get_newptr also logs the header and both nodes.
      EXPECT_EQ(log.take().size(), (row.reuses && before.size() > 1 ? 1u : 0u) + (by_inll ? 0u : 3u));
      EXPECT_EQ(tslb_da_get_size(array.get()), row.n_used + (row.reuses ? 0 : 1));
      EXPECT_EQ(audit_lists(array.get()).inactive, indices_t(before.begin() + (row.reuses ? 1 : 0), before.end()));
    }
  }
}

TEST_F(Reuse, FreeSlotsComeFirstAndInconsistentRootsAreSkipped) {
  for (const uint32_t head : {4u, kNil, 4711u}) {
    const array_t array = idle_array(6, 5);
    with_policy(array, kAlways, kAlways);
    tslb_da_free_idx(array.get(), 5);
    list_roots(array.get()).inact_head = head;
    for (const uint32_t want : {5u, head == 4 ? 4u : 6u, head == 4 ? 3u : 7u})
      EXPECT_EQ(stderr_of([&] { EXPECT_EQ(take(array), want); }), "");
    EXPECT_EQ(list_roots(array.get()).n_inact, head == 4 ? 3u : 5u);
  }
}

TEST_F(Reuse, AgeInSeconds) {
  static const struct {
    const char *fault;
    time_t age;
    int limit;
    int old_enough;
  } rows[] = {
      {"no age at all does not reach 0", 0, 0, 1},
      {"a time in the future passes", -1, 0, 0},
      {"negative ages are not compared", -1, -1, 1},
      {"the limit itself does not pass", 86400, 86400, 1},
      {"days instead of seconds", 86400, 86401, 0},
      {"the last exact difference", 16777216, 16777216, 1},
      {"double instead of single precision", 16777217, 16777217, 0},
      {"more than the lowest bit lost", 16777217, 16777216, 1},
      {"cut instead of rounded to single precision", 16777219, 16777220, 1},
      {"largest age wraps", INT64_C(1) << 40, INT_MAX, 1},
      {"first age above 32 bits wraps", INT64_C(1) << 31, INT_MAX, 1},
      {"most negative age wraps", -(INT64_C(1) << 40), INT_MIN + 1, 0},
      {"most negative age is below every limit", -(INT64_C(1) << 40), INT_MIN, 1},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    EXPECT_EQ(tslb_validate_days_since_node_inact(kNow - row.age, row.limit), row.old_enough);
  }
}

TEST_F(Reuse, AgeOnTheScaledClockThroughTheList) {
  static const struct {
    const char *fault;
    double factor;
    time_t inactivated, now;
    uint32_t limit;
    bool reuses;
  } rows[] = {
      {"unscaled clock", 2.0, kNow / 2, kNow + 198, 100, false},
      {"scaled clock", 2.0, kNow / 2, kNow + 200, 100, true},
      {"time of the slot widened with its sign", 1.0, kLate, kLate + 100, 101, false},
      {"time of the slot cut", 1.0, kLate, kLate + 100, 100, true},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    tslb_set_timer_factor(row.factor);
    const array_t array = idle_array(6, 0);
    tslb_da_inactivate_idx(array.get(), 3, row.inactivated);
    // An older slot after the head is not examined.
    tslb_da_inactivate_idx(array.get(), 1, 1);
    with_policy(array, kAlways, {0, 0, 0, row.limit, 0});
    now = row.now;
    EXPECT_EQ(take(array), row.reuses ? 3u : 6u);
    EXPECT_EQ(audit_lists(array.get()).inactive, row.reuses ? (indices_t{1}) : (indices_t{3, 1}));
  }
}

// Also if there is no slot, in a plain array, whose lock is not used, and for a caller that does not request the
// payload.
TEST_F(Reuse, ValuesReturnedPerSourceOfTheSlot) {
  static const struct {
    const char *fault;
    uint8_t daflag;
    uint32_t idx;
    uint8_t status;
    bool wants_payload;
  } rows[] = {
      {"a plain array has no history", 0, 6, TSLB_DA_SLOT_UNSET, true},
      {"a full array returns a slot", TSLB_DA_DAFLAG_INLL, kNil, TSLB_DA_SLOT_UNSET, true},
      {"a payload that was not requested is written", TSLB_DA_DAFLAG_INLL, 3, TSLB_DA_SLOT_FREE, false},
      {"more than a payload is written", TSLB_DA_DAFLAG_INLL, 3, TSLB_DA_SLOT_FREE, true},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    const array_t array(tslb_da_init_ll(kRecordSize, 4, MPOOL_TYPE_DRAM, "metrics", 7, row.daflag));
    for (int i = 0; i < 6; ++i) take(array);
    if (row.status == TSLB_DA_SLOT_FREE) tslb_da_free_idx(array.get(), 3);
    if (row.idx == kNil) get_dyn_hdr(array.get())->n_alloc = 0xFFFFFFFF;
    array->spinlock = row.daflag == 0 ? 1 : 0;
    uint32_t idx = 99, last_ts = 99;
    uint8_t last_status = 99;
    std::string last_value(kRecordSize + 1, '#');
    void *slot = &slot;
    const std::string report = stderr_of([&] {
      slot = tslb_da_get_newptr_inll_ex(array.get(), &idx, &last_ts, &last_status,
                                        row.wants_payload ? last_value.data() : nullptr);
    });
    EXPECT_EQ(report.empty(), row.idx != kNil) << report;
    EXPECT_EQ(idx, row.idx);
    EXPECT_EQ(slot, row.idx == kNil ? nullptr : tslb_da_get_ptr(array.get(), row.idx));
    EXPECT_EQ(last_status, row.status);
    EXPECT_EQ(last_ts, static_cast<uint32_t>(kNow));
    const bool gets_payload = row.status == TSLB_DA_SLOT_FREE && row.wants_payload;
    EXPECT_EQ(
        last_value,
        (gets_payload ? "\xFF\xFF\xFF\xFF" + std::string(kRecordSize - 4, '\0') : std::string(kRecordSize, '#')) + '#');
    EXPECT_EQ(array->spinlock, row.daflag == 0 ? 1 : 0);
    if (row.daflag == 0) {
      EXPECT_EQ(std::string(bytes_of(slot), kRecordSize), "\xFF\xFF\xFF\xFF" + std::string(kRecordSize - 4, '\0'));
    }
  }
}

TEST_F(Reuse, RegistrationStoresAllBytesAndLogsTheHeader) {
  tsdb_mem_pressure_config_t policy;
  for (size_t i = 0; i < sizeof(policy); ++i) bytes_of(&policy)[i] = static_cast<char>(i + 1);  // reserved bytes too
  const array_t array = idle_array(2, 0), nameless = idle_array(2, 0, "");
  const array_t temporary(tslb_da_init_ll(kRecordSize, 4, MPOOL_TYPE_DRAM_TMP, "metrics", 7, TSLB_DA_DAFLAG_INLL));
  redo_recorder_t log;
  for (DynArrHandle_t *const each : {array.get(), nameless.get(), temporary.get()}) {
    tslb_da_register_reuse_policy(each, &policy);
    EXPECT_EQ(memcmp(&list_roots(each).mem_pressure_conf, &policy, 28), 0);
  }
  const auto records = log.take();
  ASSERT_EQ(records.size(), 1u) << "not only the named array in process memory was logged";
  EXPECT_EQ(records[0].bytes, std::string(bytes_of(array->arr_base), 84))
      << "the logged header does not contain the policy";

  const std::string before(bytes_of(array->arr_base), 84);
  EXPECT_EQ(stderr_of([&] { tslb_da_register_reuse_policy(array.get(), nullptr); }), "");
  EXPECT_EQ(std::string(bytes_of(array->arr_base), 84), before);
  EXPECT_TRUE(log.take().empty());
}

TEST_F(Reuse, RegistrationNeedsAnInactiveList) {
  tsdb_mem_pressure_config_t policy = {1, {}, {}, {}};
  for (const uint8_t daflag : std::initializer_list<uint8_t>{0, TSLB_DA_DAFLAG_LL}) {
    const array_t array(tslb_da_init_ll(kRecordSize, 4, MPOOL_TYPE_DRAM, "metrics", 7, daflag));
    const std::string before(bytes_of(array->arr_base), 84);
    redo_recorder_t log;
    const std::string report = stderr_of([&] { tslb_da_register_reuse_policy(array.get(), &policy); });
    expect_report(report, "tslb_dynarr_alloc.cpp",
                  std::string("tslb_da_register_reuse_policy: Warrning: Trying to set reuse policy with dynamic array "
                              "which do not have inactive linked list. DAInfo: ") +
                      tslb_print_poolhdr(array.get()));
    EXPECT_EQ(std::string(bytes_of(array->arr_base), 84), before);
    EXPECT_TRUE(log.take().empty());
  }
}
