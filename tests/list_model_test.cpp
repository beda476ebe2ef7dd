// Tests with long random histories of slot arrays, compared with a model of two queues and a table of statuses. The
// test defines the system's time, so that the model knows all ages. redo_applier_test checks the redo log of such
// histories.
#include <algorithm>
#include <deque>
#include <random>

#include <tslb/tslb_settings.h>
#include "list_audit.h"
#include "own_time.h"

constexpr uint32_t kNil = TSLB_DA_NIL_IDX;
constexpr uint32_t kRecordSize = 18;

// The model of the array.
struct model_t {
  std::deque<uint32_t> free, inactive;
  std::vector<uint32_t> status, ts;
  bool reuse = false;
  static constexpr uint8_t kMinPct = 12, kMinCount = 60, kMinAge = 40;

  bool looks_at_head() const {
    if (!reuse || inactive.empty()) return false;
    const double pct = 100.0 * (static_cast<double>(inactive.size()) / static_cast<double>(status.size()));
    return static_cast<uint32_t>(pct) >= kMinPct || inactive.size() >= kMinCount;
  }
  bool head_is_old_enough() const { return now - time_t{ts[inactive.front()]} >= kMinAge; }

  struct expected_slot_t {
    uint32_t idx, status, ts;  // the last two: the values that tslb_da_get_newptr_inll reports
  };
  expected_slot_t take(bool may_reuse) {
    const uint32_t today = static_cast<uint32_t>(now);
    expected_slot_t taken = {static_cast<uint32_t>(status.size()), TSLB_DA_SLOT_UNSET, today};
    if (!free.empty()) {
      taken = {free.front(), TSLB_DA_SLOT_FREE, today};
      free.pop_front();
    } else if (may_reuse && looks_at_head() && head_is_old_enough()) {
      taken = {inactive.front(), TSLB_DA_SLOT_INACTIVE, ts[inactive.front()]};
      inactive.pop_front();
    } else {
      if (may_reuse && looks_at_head()) taken.ts = ts[inactive.front()];  // reported also for a head that is too young
      status.push_back(0);
      ts.push_back(0);
    }
    status[taken.idx] = TSLB_DA_SLOT_ACTIVE;
    ts[taken.idx] = today;
    return taken;
  }
  // Changes the status of a slot as the library would. Returns the library's result.
  int move(uint32_t idx, uint32_t to) {
    if (idx == status.size()) return -1;
    const uint32_t from = status[idx];
    const bool may = to == TSLB_DA_SLOT_FREE       ? from != TSLB_DA_SLOT_FREE
                     : to == TSLB_DA_SLOT_INACTIVE ? from == TSLB_DA_SLOT_ACTIVE
                                                   : from == TSLB_DA_SLOT_INACTIVE;
    if (!may) return 1;
    if (from == TSLB_DA_SLOT_INACTIVE) inactive.erase(std::find(inactive.begin(), inactive.end(), idx));
    if (to == TSLB_DA_SLOT_FREE) free.push_back(idx);
    if (to == TSLB_DA_SLOT_INACTIVE) {
      inactive.push_back(idx);
      ts[idx] = static_cast<uint32_t>(now);
    }
    status[idx] = to;
    return 0;
  }
};

class history_t {
 public:
  history_t(uint8_t daflag, int n_direct, bool reuse, uint32_t seed)
      : array_(tslb_da_init_ll(kRecordSize, n_direct, MPOOL_TYPE_DRAM, "metrics", 3, daflag)),
        has_inactive_((daflag & TSLB_DA_DAFLAG_INLL) != 0),
        random_(seed) {
    tsdb_mem_pressure_config_t policy = {
        1, {}, {model_t::kMinPct, 0, model_t::kMinCount, model_t::kMinAge, 0}, {0, 0, 0, 0, kNil}};
    if (reuse) tslb_da_register_reuse_policy(array_.get(), &policy);
    model_.reuse = reuse;
  }
  void step(int at) {
    now += below(3);
    // Phases alternate: the array fills, empties and inactivates, so that both lists grow long and become empty.
    static const int weights[3][5] = {{60, 8, 10, 4, 2}, {15, 45, 15, 10, 2}, {25, 12, 30, 12, 2}};
    std::discrete_distribution<int> pick(std::begin(weights[at / 300 % 3]), std::end(weights[at / 300 % 3]));
    switch (pick(random_)) {
      case 0:
        return below(2) != 0 ? take() : take_telling();
      case 1:
        return free_one();
      case 2:
        return has_inactive_ ? inactivate() : free_one();
      case 3:
        return has_inactive_ ? activate() : take();
      default:
        return take_range();
    }
  }

  void audit() {
    const lists_t lists = audit_lists(array_.get());
    EXPECT_EQ(lists.free, indices_t(model_.free.begin(), model_.free.end()));
    EXPECT_EQ(lists.inactive, indices_t(model_.inactive.begin(), model_.inactive.end()));
    ASSERT_EQ(tslb_da_get_size(array_.get()), model_.status.size());
    for (uint32_t idx = 0; idx < model_.status.size(); ++idx) {
      SCOPED_TRACE(idx);
      void *const slot = tslb_da_get_ptr(array_.get(), idx);
      ASSERT_EQ(forward_node(slot).status, model_.status[idx]);
      if (has_inactive_) {
        ASSERT_EQ(backward_node(array_.get(), slot).ts, model_.ts[idx]);
      }
    }
  }

  uint32_t n_refused_aloud() const { return n_refused_aloud_; }
  uint32_t n_reused() const { return n_reused_; }
  uint32_t n_from_free() const { return n_from_free_; }

 private:
  uint32_t below(uint32_t bound) { return static_cast<uint32_t>(random_() % bound); }
  uint32_t any_index() {
    return below(static_cast<uint32_t>(model_.status.size()) + 1);
  }  // sometimes one above the maximum

  void expect_taken(const model_t::expected_slot_t &want, uint32_t idx, void *slot) {
    ASSERT_EQ(idx, want.idx);
    ASSERT_EQ(slot, tslb_da_get_ptr(array_.get(), idx));
    ASSERT_EQ(std::string(bytes_of(slot), kRecordSize), "\xFF\xFF\xFF\xFF" + std::string(kRecordSize - 4, '\0'));
    n_from_free_ += want.status == TSLB_DA_SLOT_FREE ? 1 : 0;
    n_reused_ += want.status == TSLB_DA_SLOT_INACTIVE ? 1 : 0;
    for (uint32_t i = 0; i < kRecordSize; ++i) bytes_of(slot)[i] = static_cast<char>(random_());
  }

  void take() {
    const model_t::expected_slot_t want = model_.take(true);
    uint32_t idx;
    void *const slot = tslb_da_get_newptr(array_.get(), &idx);
    expect_taken(want, idx, slot);
  }

  void take_telling() {
    lib_config.tslb_mvt_reuse_enabled = static_cast<char>(below(4));
    const model_t::expected_slot_t want = model_.take(lib_config.tslb_mvt_reuse_enabled != 0);
    const std::string payload(bytes_of(tslb_da_get_ptr(array_.get(), want.idx)),
                              want.status == TSLB_DA_SLOT_UNSET ? 0 : kRecordSize);
    uint32_t idx, last_ts;
    uint8_t last_status;
    char last_value[kRecordSize];
    void *const slot = tslb_da_get_newptr_inll_ex(array_.get(), &idx, &last_ts, &last_status, last_value);
    ASSERT_EQ(last_status, want.status);
    ASSERT_EQ(last_ts, want.ts);
    ASSERT_EQ(std::string(last_value, payload.size()), payload);
    expect_taken(want, idx, slot);
  }

  void take_range() {
    const uint32_t count = below(9);
    indices_t taken;
    for (uint32_t i = 0; i < count; ++i) {
      const model_t::expected_slot_t want = model_.take(true);
      n_reused_ += want.status == TSLB_DA_SLOT_INACTIVE ? 1 : 0;
      taken.push_back(want.idx);
    }
    ASSERT_EQ(tslb_da_get_range(array_.get(), count), count == 0 ? kNil : taken[0]);
  }

  void free_one() {
    const uint32_t idx = any_index();
    ASSERT_EQ(tslb_da_free_idx(array_.get(), idx), model_.move(idx, TSLB_DA_SLOT_FREE));
  }

  void inactivate() {
    const uint32_t idx = any_index();
    // The upper 32 bits of a time are dropped.
    const int result = tslb_da_inactivate_idx(array_.get(), idx, now + (time_t{below(2)} << 32));
    ASSERT_EQ(result, model_.move(idx, TSLB_DA_SLOT_INACTIVE));
    n_refused_aloud_ += result == 1 ? 1 : 0;
  }

  void activate() {
    const uint32_t idx = below(3) == 0 || model_.inactive.empty()
                             ? any_index()
                             : model_.inactive[below(static_cast<uint32_t>(model_.inactive.size()))];
    const int result = tslb_da_activate_idx(array_.get(), idx);
    ASSERT_EQ(result, model_.move(idx, TSLB_DA_SLOT_ACTIVE));
    n_refused_aloud_ += result == 1 ? 1 : 0;
  }

  array_t array_;
  bool has_inactive_;
  std::mt19937 random_;
  model_t model_;
  uint32_t n_refused_aloud_ = 0, n_reused_ = 0, n_from_free_ = 0;
};

TEST(Histories, ListsAndResultsAgreeWithTheModel) {
  constexpr int kSteps = 3000;
  for (const uint8_t daflag : std::initializer_list<uint8_t>{1, 2, 3}) {
    for (const int n_direct : {0, 4, 300}) {
      for (const bool reuse : {false, true}) {
        if (reuse && (daflag & TSLB_DA_DAFLAG_INLL) == 0) continue;
        const uint32_t seed = 1000u * daflag + static_cast<uint32_t>(n_direct) + (reuse ? 7u : 0u);
        SCOPED_TRACE(testing::Message() << "daflag " << int{daflag} << ", n_direct " << n_direct << ", reuse " << reuse
                                        << ", seed " << seed);
        now = 1000000;
        history_t history(daflag, n_direct, reuse, seed);
        const std::string warnings = stderr_of([&] {
          for (int at = 0; at < kSteps && !testing::Test::HasFailure(); ++at) {
            SCOPED_TRACE(testing::Message() << "step " << at);
            history.step(at);
            if (at % 401 == 0 || at == kSteps - 1) history.audit();
          }
        });
        ASSERT_FALSE(testing::Test::HasFailure());
        EXPECT_EQ(std::count(warnings.begin(), warnings.end(), '\n'), history.n_refused_aloud());
        // A history without these events would agree with any library.
        EXPECT_GT(history.n_from_free(), 500u);
        EXPECT_EQ(history.n_reused() > 40, reuse);
      }
    }
  }
  lib_config.tslb_mvt_reuse_enabled = 0;
}
