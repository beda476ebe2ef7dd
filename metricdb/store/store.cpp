#include "store/store.h"

#include <fmt/format.h>
#include <tslb/tslb_settings.h>

#include <algorithm>
#include <new>

#include "store/store_internal.h"

namespace metricdb {
namespace {

constexpr int CATALOGUE_DIRECT_SLOTS = 64;
// In block files: beyond the direct area each 16 series have a file of their own. All of it is written at creation.
constexpr int CATALOGUE_DIRECT_SLOTS_SHM = 1 << 14;
constexpr int NO_DIRECT_SLOTS = 0;  // block 0 of a pool would hold its first memory slot before it is needed

uint64_t block_bytes(DynArrHandle_t *array) {
  return static_cast<uint64_t>(tslb_dynmem_get_hdrsz(array)) +
         uint64_t{tslb_da_get_total_size(array)} * tslb_da_get_slotsz(array, nullptr);
}

PoolBytes bytes_of_pool(dynmem_t *pool) {
  PoolBytes bytes;
  for (uint32_t index = 0; index < tslb_da_get_size(pool); ++index) {
    const auto *const slot = static_cast<const MemSlot_t *>(tslb_da_get_ptr(pool, index));
    if (slot == nullptr || status_of(slot) != TSLB_DA_SLOT_ACTIVE) continue;
    bytes.used += slot->bytes_used;
    bytes.deleted += slot->bytes_del;
  }
  return bytes;
}

// Both sets alike, so that either decides. A count that only 65,535 inactive slots reach, and no age: who is idle was
// decided in data time.
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
      catalogue_(
          tslb_da_init_ver(static_cast<int>(series_record_bytes(config.layout)),
                           config.mem_type == MPOOL_TYPE_SHM ? CATALOGUE_DIRECT_SLOTS_SHM : CATALOGUE_DIRECT_SLOTS,
                           config.mem_type, CONTEXT, CATALOGUE_TABLE, TSLB_DA_DAFLAG_INLL, config.layout)),
      keys_(tslb_init_dynmem_ex(config.key_slot_bytes, NO_DIRECT_SLOTS, MPOOL_FLAG_COMPAT,
                                static_cast<unsigned char>(config.mem_type), 0, CONTEXT, KEYS_TABLE, TSLB_DA_DAFLAG_LL,
                                POOL_RECORD_VERSION)),
      points_(tslb_init_dynmem_ex(config.point_slot_bytes, NO_DIRECT_SLOTS, MPOOL_FLAG_COMPAT,
                                  static_cast<unsigned char>(config.mem_type), MPOOL_FLAG_BV, CONTEXT, POINTS_TABLE,
                                  TSLB_DA_DAFLAG_LL, POOL_RECORD_VERSION)) {
  if (!catalogue_ || !keys_ || !points_) throw std::bad_alloc();
  if (config.reuse_inactive_pct != 0) register_reuse_policy();
}

void Store::register_reuse_policy() {
  tsdb_mem_pressure_config_t policy = {};
  if (config_.reuse_inactive_pct != 0) policy = reuse_policy(config_.reuse_inactive_pct);
  tslb_da_register_reuse_policy(catalogue_.get(), &policy);
  // A setting of the whole process, and never cleared here: arrays without a policy are not concerned.
  if (config_.reuse_inactive_pct != 0) lib_config.tslb_mvt_reuse_enabled = 1;
}

void Store::forget_by(int64_t retain_ns, int64_t idle_ns, uint8_t reuse_inactive_pct) {
  config_.retain_ns = retain_ns;
  config_.idle_ns = idle_ns;
  config_.reuse_inactive_pct = reuse_inactive_pct;
  register_reuse_policy();
}

StoreState Store::state() const {
  return {n_series(), n_points_, data_time_ns_, n_since_sweep_, forgotten_};
}

PoolBytes Store::key_bytes() const {
  return bytes_of_pool(keys_.get());
}

PoolBytes Store::point_bytes() const {
  return bytes_of_pool(points_.get());
}

SeriesRecord Store::slot(uint32_t series) const {
  return {static_cast<char *>(tslb_da_get_ptr(catalogue_.get(), series)), config_.layout};
}

SeriesRecord Store::record(uint32_t series) const {
  return slot(series);
}

// A slot that memory was refused for keeps its index.
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
  uint32_t length;  // without the zero: the pool tells one less than the chunk holds
  const void *const text = tslb_dynmem_get_maddr2ptr_ex(keys_.get(), record.key(), &length);
  return {static_cast<const char *>(text), length};
}

std::string_view Store::key(uint32_t series) const {
  return key_of(record(series));
}

std::optional<uint32_t> Store::find(std::string_view key) const {
  const auto known = series_by_key_.find(key);
  return known == series_by_key_.end() ? std::nullopt : std::optional(known->second);
}

uint32_t Store::series_of(std::string_view key) {
  const auto known = series_by_key_.find(key);
  return known != series_by_key_.end() ? known->second : add_series(key);
}

uint32_t Store::add_series(std::string_view key) {
  if (key.size() > LONGEST_KEY) throw StoreFull("a series key is too long");
  // The slot first: its index goes into the key's chunk, and a series that gives way for it makes room for the key.
  uint32_t index;
  const SeriesRecord record = take_slot(index);
  if (tails_.size() <= index) tails_.resize(index + 1);
  tails_[index] = {.record = record};
  change(index, tails_[index]);
  maddr_t address;
  char *text;
  try {
    text = take_chunk(keys_.get(), key.size() + 1, referrer_of(CATALOGUE_TABLE, index, KEY_REFERENCE), address);
  } catch (const StoreFull &) {
    tslb_da_free_idx(catalogue_.get(), index);
    throw;
  }
  std::memcpy(text, key.data(), key.size());
  text[key.size()] = '\0';
  log_chunk(keys_.get(), address, text - sizeof(compat_t), sizeof(compat_t) + key.size() + 1);
  record.set_key(address);
  record.set_written_at_ns(data_time_ns_);
  record.set_newest_ns(INT64_MIN);
  record.set_flags(SERIES_READY);
  series_by_key_.emplace(std::string_view(text, key.size()), index);
  return index;
}

void Store::add(std::string_view key, const Point &point) {
  if (admit(point.ts_ns, 1)) append(series_of(key), point);
}

bool Store::admit(int64_t ts_ns, uint32_t n_points) {
  data_time_ns_ = std::max(data_time_ns_, ts_ns);
  const bool forgets = config_.retain_ns != 0 || config_.idle_ns != 0;
  if (forgets && (n_since_sweep_ += n_points) > std::max(config_.points_per_sweep, n_slots())) sweep();
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
                           static_cast<uint64_t>(tslb_dynmem_get_hdrsz(keys_.get())) +
                           static_cast<uint64_t>(tslb_dynmem_get_hdrsz(points_.get()));
  return headers + uint64_t{n_series()} * tslb_da_get_slotsz(catalogue_.get(), nullptr) + key_bytes().used +
         point_bytes().used;
}

uint64_t Store::bytes_reserved() const {
  return block_bytes(catalogue_.get()) + block_bytes(keys_.get()) + block_bytes(points_.get());
}

}  // namespace metricdb
