#include "store/store.h"

#include <fmt/format.h>
#include <tslb/tslb_settings.h>

#include <algorithm>
#include <new>

#include "store/store_internal.h"

namespace metricdb {
namespace {

constexpr int NO_DIRECT_SLOTS = 0;  // with direct slots the first memory slots of a pool would exist before use

Array make_pool(int slot_bytes, unsigned char kind_flag, int table) {
  Array pool(tslb_init_dynmem_ex(slot_bytes, NO_DIRECT_SLOTS, MPOOL_FLAG_COMPAT, MPOOL_TYPE_DRAM, kind_flag, CONTEXT,
                                 table, TSLB_DA_DAFLAG_LL, POOL_RECORD_VERSION));
  if (!pool) throw std::bad_alloc();
  return pool;
}

uint64_t block_bytes(DynArrHandle_t *array) {
  return static_cast<uint64_t>(tslb_dynmem_get_hdrsz(array)) +
         uint64_t{tslb_da_get_total_size(array)} * tslb_da_get_slotsz(array, nullptr);
}

// Both levels of memory pressure have the same limits. The age limit is 0, because the sweep decides by data time which
// series are idle.
tsdb_mem_pressure_config_t reuse_policy(uint8_t inactive_pct) {
  tsdb_inactive_thshld_policy_t limits = {};
  limits.inactive_threshold_pct = inactive_pct;
  limits.inactive_threshold_cnt = UINT16_MAX;
  tsdb_mem_pressure_config_t policy = {};
  policy.mvt_reuse_policy_use = 1;
  policy.critical = limits;
  policy.major = limits;
  return policy;
}

}  // namespace

Store::Store(const StoreConfig &config)
    : config_(config),
      catalogue_(tslb_da_init_ver(static_cast<int>(series_record_bytes(config.layout)), CATALOGUE_DIRECT_SLOTS,
                                  MPOOL_TYPE_DRAM, CONTEXT, CATALOGUE_TABLE, TSLB_DA_DAFLAG_INLL, config.layout)),
      keys_(make_pool(config.key_slot_bytes, 0, KEYS_TABLE), KEYS_NAME, MAX_KEY_SLOTS, KEYS),
      points_(make_pool(config.point_slot_bytes, MPOOL_FLAG_BV, POINTS_TABLE), POINTS_NAME, MAX_POINT_SLOTS, POINTS) {
  if (!catalogue_) throw std::bad_alloc();
  if (config.forgetting.reuse_inactive_pct != 0) register_reuse_policy();
}

// The policy is in the headers of the catalogue. It is changed only if it differs, because the arrays of a durable store
// may be changed only within a batch.
void Store::register_reuse_policy() {
  tsdb_mem_pressure_config_t policy = {};
  const uint8_t inactive_pct = config_.forgetting.reuse_inactive_pct;
  if (inactive_pct != 0) policy = reuse_policy(inactive_pct);
  if (std::memcmp(&lists_of(catalogue_.get())->mem_pressure_conf, &policy, sizeof policy) != 0)
    tslb_da_register_reuse_policy(catalogue_.get(), &policy);
  // This setting is for the whole process, and is never cleared here. It does not affect arrays without a policy.
  if (inactive_pct != 0) lib_config.tslb_mvt_reuse_enabled = 1;
}

void Store::set_forgetting(const Forgetting &forgetting) {
  config_.forgetting = forgetting;
  register_reuse_policy();
}

StoreState Store::state() const {
  return {n_series(), n_points_, data_time_ns_, n_since_sweep_, forgotten_};
}

SeriesRecord Store::slot(uint32_t series) const {
  return {static_cast<char *>(tslb_da_get_ptr(catalogue_.get(), series)), config_.layout};
}

SeriesRecord Store::record(uint32_t series) const {
  return slot(series);
}

// A slot whose memory could not be allocated keeps its index.
bool Store::holds_series(uint32_t slot_index) const {
  const SeriesRecord record = slot(slot_index);
  return record && (record.flags() & SERIES_READY) != 0;
}

bool Store::is_inactive(uint32_t series) const {
  return status_of(slot(series).at()) == TSLB_DA_SLOT_INACTIVE;
}

uint32_t Store::n_inactive() const {
  return lists_of(catalogue_.get())->n_inact;
}

std::string_view Store::key_of(const SeriesRecord &record) const {
  uint32_t length;  // without the terminating zero
  const void *const text = tslb_dynmem_get_maddr2ptr_ex(keys_.array(), record.key(), &length);
  return {static_cast<const char *>(text), length};
}

std::string_view Store::key(uint32_t series) const {
  return key_of(record(series));
}

std::optional<uint32_t> Store::find(std::string_view key) const {
  const auto known = series_by_key_.find(key);
  return known == series_by_key_.end() ? std::nullopt : std::optional(known->second);
}

uint32_t Store::series_of(std::string_view key, ValueType type) {
  const auto known = series_by_key_.find(key);
  return known != series_by_key_.end() ? known->second : add_series(key, type);
}

uint32_t Store::add_series(std::string_view key, ValueType type) {
  if (key.size() > MAX_KEY_BYTES) throw StoreFull("a series key is too long");
  // Until the series is complete: the library clears the record of a series that is replaced.
  const LiveChange change(live_.get(), LiveChange::SLOTS);
  // The slot is taken first: its index goes into the key's chunk, and a series replaced by this one releases its key.
  uint32_t index;
  const SeriesRecord record = take_slot(index);
  if (tails_.size() <= index) tails_.resize(index + 1);
  tails_[index] = {.record = record, .type = type};
  mark_changed(index, tails_[index]);
  maddr_t address;
  char *text;
  try {
    text = keys_.take(key.size() + 1, referrer_of(CATALOGUE_TABLE, index, KEY_REFERENCE), address);
  } catch (const StoreFull &) {
    tslb_da_free_idx(catalogue_.get(), index);
    throw;
  }
  std::memcpy(text, key.data(), key.size());
  text[key.size()] = '\0';
  keys_.log_data(address, key.size() + 1);
  record.set_key(address);
  record.set_written_at_ns(data_time_ns_);
  record.set_newest_ns(INT64_MIN);
  record.set_flags(static_cast<uint8_t>(SERIES_READY | (type == ValueType::integer ? SERIES_HAS_INTEGERS : 0)));
  series_by_key_.emplace(std::string_view(text, key.size()), index);
  if (live_) live_->index.add(index, ++live_->versions.of(index).stamp, key);
  return index;
}

void Store::go_live() {
  live_ = std::make_unique<LiveState>();
  live_->visible_from_ns = visible_from_ns();
  for (uint32_t series = 0; series < n_slots(); ++series)
    if (holds_series(series)) live_->index.add(series, ++live_->versions.of(series).stamp, key(series));
}

void Store::add(std::string_view key, const Point &point) {
  if (admit(point.ts_ns, 1)) append(series_of(key), point);
}

bool Store::admit(int64_t ts_ns, uint32_t n_points) {
  data_time_ns_ = std::max(data_time_ns_, ts_ns);
  if (config_.forgetting.is_by_sweeps() && (n_since_sweep_ += n_points) > std::max(config_.points_per_sweep, n_slots()))
    sweep();
  if (ts_ns >= visible_from_ns()) return true;
  forgotten_.late_points += n_points;
  return false;
}

uint64_t Store::n_visible() const {
  if (visible_from_ns() == INT64_MIN) return n_points_;
  uint64_t count = 0;
  for (uint32_t series = 0; series < n_slots(); ++series) {
    if (!holds_series(series)) continue;
    PointCursor cursor(*this, series);
    for (Point point; cursor.next(point);) ++count;
  }
  return count;
}

uint64_t Store::bytes_in_use() const {
  const uint64_t headers = static_cast<uint64_t>(tslb_dynmem_get_hdrsz(catalogue_.get())) +
                           static_cast<uint64_t>(tslb_dynmem_get_hdrsz(keys())) +
                           static_cast<uint64_t>(tslb_dynmem_get_hdrsz(points()));
  return headers + uint64_t{n_series()} * tslb_da_get_slotsz(catalogue_.get(), nullptr) + key_bytes().used +
         point_bytes().used;
}

uint64_t Store::bytes_reserved() const {
  return block_bytes(catalogue_.get()) + block_bytes(keys()) + block_bytes(points());
}

}  // namespace metricdb
