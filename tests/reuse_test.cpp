// Reuse of inactive slots: when a policy takes one back, how old it has to be, and what the caller is told. The
// system's time is ours here. That slots, lists and results agree over long histories of reuse is list_model_test's.
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

using limits_t = tsdb_inactive_thshld_policy_t;  // percentage, 0, count, age, least n_used

// What no array of these tests reaches; a set of nothing passes always.
constexpr limits_t kNever = {101, 0, 65535, 0, 0}, kAlways = {0, 0, 0, 0, 0};

// `n_used` slots, the first `n_inactive` of which were inactivated at the clock's time, highest index first: the head
// is the last of them.
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

// A slot's index, in the form that tells about it or in the other.
static uint32_t take(const array_t &array, bool tells = false) {
  uint32_t idx, last_ts;
  uint8_t last_status;
  EXPECT_NE(tells ? tslb_da_get_newptr_inll(array.get(), &idx, &last_ts, &last_status)
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
      {"percentage multiplied ahead of the division, or rounded", 100, 29, {29, 0, 65535, 0, 0}, kNever, 1, false},
      {"29 of 100 is not 28", 100, 29, {28, 0, 65535, 0, 0}, kNever, 1, true},
      {"a set of nothing does not pass", 100, 1, kAlways, kNever, 1, true},
      {"count at the limit does not pass", 400, 50, {101, 0, 50, 0, 0}, kNever, 1, true},
      {"count below the limit passes", 400, 50, {101, 0, 51, 0, 0}, kNever, 1, false},
      {"count kept in 8 bits", 400, 256, {101, 0, 256, 0, 0}, kNever, 1, true},
      {"n_used at major's minimum is not enough", 100, 5, {0, 0, 0, 0, 100}, kNever, 1, true},
      {"major considered below its minimum", 100, 5, {0, 0, 0, 0, 101}, kNever, 1, false},
      {"critical not tried where major is skipped", 100, 5, {0, 0, 0, 0, 101}, kAlways, 1, true},
      {"critical not tried where major fails", 100, 5, kNever, kAlways, 1, true},
      {"critical considered below its minimum", 100, 5, kNever, {0, 0, 0, 0, 101}, 1, false},
      {"critical's minimum held against major", 100, 5, kAlways, {0, 0, 0, 0, 101}, 1, true},
      {"used although switched off", 100, 90, kAlways, kAlways, 0, false},
      {"switch read as a bit", 100, 90, kAlways, kAlways, 0x80, true},
      {"no inactive slot", 100, 0, kAlways, kAlways, 1, false},
      {"age limit of major asked for", 100, 5, {0, 0, 0, 86400, 0}, kAlways, 1, true},
      {"age limit of critical left out where major passes", 100, 5, kAlways, {0, 0, 0, 86400, 0}, 1, false},
      {"age limit compared without sign", 100, 5, kAlways, {0, 0, 0, 0xFFFFFFFF, 0}, 1, true},
  };
  for (const auto &row : rows) {
    for (const bool tells : {false, true}) {
      SCOPED_TRACE(testing::Message() << row.fault << (tells ? ", telling" : ""));
      const array_t array = idle_array(row.n_used, row.n_inactive);
      with_policy(array, row.major, row.critical, row.use);
      const indices_t before = audit_lists(array.get()).inactive;
      redo_recorder_t log;
      EXPECT_EQ(take(array, tells), row.reuses ? before.at(0) : row.n_used);
      // The head that comes next; in the form that does not tell also the header and both nodes.
      EXPECT_EQ(log.take().size(), (row.reuses && before.size() > 1 ? 1u : 0u) + (tells ? 0u : 3u));
      EXPECT_EQ(tslb_da_get_size(array.get()), row.n_used + (row.reuses ? 0 : 1));
      EXPECT_EQ(audit_lists(array.get()).inactive, indices_t(before.begin() + (row.reuses ? 1 : 0), before.end()));
    }
  }
}

TEST_F(Reuse, FreeSlotsFirstAndRootsThatContradictArePassedOver) {
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
      {"a time ahead of the clock passes", -1, 0, 0},
      {"negative ages are not compared", -1, -1, 1},
      {"the limit itself does not pass", 86400, 86400, 1},
      {"days instead of seconds", 86400, 86401, 0},
      {"the last exact difference", 16777216, 16777216, 1},
      {"double instead of single precision", 16777217, 16777217, 0},
      {"more than the lowest bit lost", 16777217, 16777216, 1},
      {"cut instead of rounded to single precision", 16777219, 16777220, 1},
      {"largest age wraps", INT64_C(1) << 40, INT_MAX, 1},
      {"just beyond 32 bits wraps", INT64_C(1) << 31, INT_MAX, 1},
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
    // An older one behind the head is not looked at.
    tslb_da_inactivate_idx(array.get(), 1, 1);
    with_policy(array, kAlways, {0, 0, 0, row.limit, 0});
    now = row.now;
    EXPECT_EQ(take(array), row.reuses ? 3u : 6u);
    EXPECT_EQ(audit_lists(array.get()).inactive, row.reuses ? (indices_t{1}) : (indices_t{3, 1}));
  }
}

// Where there is no slot, and in a plain array, whose lock is not touched; and a caller who does not want the payload.
TEST_F(Reuse, WhatTheCallerIsToldBySource) {
  static const struct {
    const char *fault;
    uint8_t daflag;
    uint32_t idx;
    uint8_t status;
    bool wants_payload;
  } rows[] = {
      {"a plain array has no history", 0, 6, TSLB_DA_SLOT_UNSET, true},
      {"a full array gives a slot", TSLB_DA_DAFLAG_INLL, kNil, TSLB_DA_SLOT_UNSET, true},
      {"a payload that nobody wants is written", TSLB_DA_DAFLAG_INLL, 3, TSLB_DA_SLOT_FREE, false},
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
    const bool tells = row.status == TSLB_DA_SLOT_FREE && row.wants_payload;
    EXPECT_EQ(last_value,
              (tells ? "\xFF\xFF\xFF\xFF" + std::string(kRecordSize - 4, '\0') : std::string(kRecordSize, '#')) + '#');
    EXPECT_EQ(array->spinlock, row.daflag == 0 ? 1 : 0);
    if (row.daflag == 0) {
      EXPECT_EQ(std::string(bytes_of(slot), kRecordSize), "\xFF\xFF\xFF\xFF" + std::string(kRecordSize - 4, '\0'));
    }
  }
}

TEST_F(Reuse, RegistrationStoresAllBytesAndLogsTheHeader) {
  tsdb_mem_pressure_config_t policy;
  for (size_t i = 0; i < sizeof(policy); ++i) bytes_of(&policy)[i] = static_cast<char>(i + 1);  // reserved ones too
  const array_t array = idle_array(2, 0), nameless = idle_array(2, 0, "");
  const array_t temporary(tslb_da_init_ll(kRecordSize, 4, MPOOL_TYPE_DRAM_TMP, "metrics", 7, TSLB_DA_DAFLAG_INLL));
  redo_recorder_t log;
  for (DynArrHandle_t *const each : {array.get(), nameless.get(), temporary.get()}) {
    tslb_da_register_reuse_policy(each, &policy);
    EXPECT_EQ(memcmp(&list_roots(each).mem_pressure_conf, &policy, 28), 0);
  }
  const auto records = log.take();
  ASSERT_EQ(records.size(), 1u) << "the named array in process memory alone is logged";
  EXPECT_EQ(records[0].bytes, std::string(bytes_of(array->arr_base), 84)) << "with the policy in it";

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
