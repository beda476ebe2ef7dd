// A store whose arrays another process changes: a replica applies that process's batches to them.
#include <fmt/format.h>

#include <algorithm>

#include "store/store.h"

namespace metricdb {

void Store::follow(const StoreConfig &config, const StoreState &state, bool compares_all) {
  if (!followed_) {
    followed_ = std::make_unique<Followed>();
    live_ = std::make_unique<LiveState>();
    series_by_key_.clear();
    tails_.clear();
  }
  // Without a forgotten series each known slot still has its series.
  const uint64_t n_forgotten = n_forgotten_series();
  forgotten_ = state.forgotten;
  compares_all |= n_forgotten != n_forgotten_series() || state.n_series < followed_->n_series;
  if (compares_all || state.n_series != followed_->n_series) {
    std::vector<std::string> &keys = followed_->keys;
    keys.resize(std::max<size_t>(keys.size(), n_slots()));
    for (uint32_t series = 0; series < keys.size(); ++series) {
      if (!compares_all && !keys[series].empty()) continue;
      const std::string_view now = series < n_slots() && holds_series(series) ? key(series) : std::string_view();
      if (keys[series] == now) continue;
      if (!keys[series].empty()) live_->index.remove(series);
      if (!now.empty()) live_->index.add(series, ++live_->versions.of(series).stamp, now);
      keys[series] = now;
    }
  }
  followed_->n_series = static_cast<uint32_t>(state.n_series);
  config_.forgetting = config.forgetting;
  config_.points_per_sweep = config.points_per_sweep;
  n_points_ = state.n_points;
  data_time_ns_ = state.data_time_ns;
  n_since_sweep_ = state.n_since_sweep;
  live_->retain_ns = config_.forgetting.retain_ns;
  live_->visible_from_ns = visible_from_ns();
}

void Store::lead() {
  const uint32_t n_expected = n_series();
  series_by_key_.reserve(n_expected);
  tails_.resize(n_slots());
  for (uint32_t series = 0; series < n_slots(); ++series) {
    if (!holds_series(series)) continue;
    series_by_key_.emplace(key(series), series);
    tails_[series] = tail_of(record(series));
  }
  if (series_by_key_.size() != n_expected)
    throw StoreDamaged(
        StoreDamaged::Where::state, StoreDamaged::NO_SLOT,
        fmt::format("the figures say {} series, but the catalogue has {}", n_expected, series_by_key_.size()));
  followed_.reset();
  register_reuse_policy();
}

}  // namespace metricdb
