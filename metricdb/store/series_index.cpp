#include "store/series_index.h"

#include <algorithm>
#include <memory>
#include <mutex>
#include <numeric>
#include <utility>

namespace metricdb {
namespace {

constexpr size_t MIN_REMOVED = 4096;  // before the index is built again

// Removes the text before the first byte of `stops` that no backslash escapes, and returns it without escapes of
// `escaped`. The stop stays.
std::string take_name(std::string_view &rest, std::string_view stops, std::string_view escaped) {
  std::string name;
  size_t at = 0;
  for (; at < rest.size() && stops.find(rest[at]) == stops.npos; ++at) {
    if (rest[at] == '\\' && at + 1 < rest.size() && escaped.find(rest[at + 1]) != escaped.npos) ++at;
    name += rest[at];
  }
  rest.remove_prefix(at);
  return name;
}

}  // namespace

SeriesName series_name_of(std::string_view key) {
  SeriesName name;
  name.measurement = take_name(key, ", ", ", ");
  while (key.starts_with(',')) {
    key.remove_prefix(1);
    std::string tag = take_name(key, "=", ",= ");
    key.remove_prefix(std::min<size_t>(1, key.size()));
    name.tags.emplace_back(std::move(tag), take_name(key, ", ", ",= "));
  }
  key.remove_prefix(std::min<size_t>(1, key.size()));
  name.field = take_name(key, "", ",= ");
  // In the key the order is that of the escaped names.
  std::sort(name.tags.begin(), name.tags.end());
  return name;
}

SeriesIndex::Symbol SeriesIndex::known(std::string_view text) const {
  const auto found = symbols_.find(text);
  return found == symbols_.end() ? NONE : found->second;
}

SeriesIndex::Symbol SeriesIndex::symbol_of(std::string_view text) {
  if (const Symbol symbol = known(text); symbol != NONE) return symbol;
  return add_text(std::make_unique<std::string>(text));
}

SeriesIndex::Symbol SeriesIndex::add_text(Text text) {
  texts_.push_back(std::move(text));
  const auto symbol = static_cast<Symbol>(texts_.size() - 1);
  symbols_.emplace(*texts_.back(), symbol);
  return symbol;
}

void SeriesIndex::add(uint32_t series, uint32_t stamp, std::string_view key) {
  const SeriesName name = series_name_of(key);
  const std::unique_lock lock(mutex_);
  Entry entry = {stamp, symbol_of(name.measurement), symbol_of(name.field), static_cast<uint32_t>(tags_.size()),
                 static_cast<uint32_t>(name.tags.size())};
  for (const auto &[tag, value] : name.tags) tags_.push_back({symbol_of(tag), symbol_of(value)});
  if (entries_.size() <= series) entries_.resize(series + 1);
  entries_[series] = entry;
  insert(series, entry);
  ++n_live_;
}

void SeriesIndex::insert(uint32_t series, const Entry &entry) {
  lists_[list_key(MEASUREMENTS, entry.measurement)].push_back(series);
  lists_[list_key(FIELDS, entry.field)].push_back(series);
  for (uint32_t i = 0; i < entry.n_tags; ++i) {
    const Tag &tag = tags_[entry.first_tag + i];
    lists_[list_key(tag.name, tag.value)].push_back(series);
  }
}

void SeriesIndex::remove(uint32_t series) {
  const std::unique_lock lock(mutex_);
  if (series >= entries_.size() || entries_[series].measurement == NONE) return;
  entries_[series] = {};
  --n_live_;
  if (++n_removed_ > MIN_REMOVED && n_removed_ > n_live_) rebuild();
}

// Texts that no series has are released, so symbols change.
void SeriesIndex::rebuild() {
  const std::vector<Tag> old_tags = std::exchange(tags_, {});
  std::vector<Text> old_texts = std::exchange(texts_, {});
  std::vector<Symbol> renamed(old_texts.size(), NONE);
  symbols_.clear();
  lists_.clear();
  const auto rename = [&](Symbol &symbol) {
    if (renamed[symbol] == NONE) renamed[symbol] = add_text(std::move(old_texts[symbol]));
    symbol = renamed[symbol];
  };
  for (uint32_t series = 0; series < entries_.size(); ++series) {
    Entry &entry = entries_[series];
    if (entry.measurement == NONE) continue;
    rename(entry.measurement);
    rename(entry.field);
    const auto first = old_tags.begin() + std::exchange(entry.first_tag, static_cast<uint32_t>(tags_.size()));
    for (auto tag = first; tag != first + entry.n_tags; ++tag) {
      tags_.push_back(*tag);
      rename(tags_.back().name);
      rename(tags_.back().value);
    }
    insert(series, entry);
  }
  n_removed_ = 0;
  ++n_built_;
}

size_t SeriesIndex::n_texts() const {
  const std::shared_lock lock(mutex_);
  return texts_.size();
}

// Returns false if no series fulfils the filter.
bool SeriesIndex::want(const SeriesFilter &filter, Wanted &wanted) const {
  const auto add_list = [&](Symbol name, Symbol value) {
    const auto found = lists_.find(list_key(name, value));
    if (found == lists_.end()) return false;
    wanted.lists.push_back(&found->second);
    return true;
  };
  if (filter.measurement) {
    wanted.measurement = known(*filter.measurement);
    if (wanted.measurement == NONE || !add_list(MEASUREMENTS, wanted.measurement)) return false;
  }
  if (filter.field) {
    wanted.field = known(*filter.field);
    if (wanted.field == NONE || !add_list(FIELDS, wanted.field)) return false;
  }
  for (const auto &[name, value] : filter.tags) {
    const Tag tag = {known(name), known(value)};
    if (tag.name == NONE || tag.value == NONE || !add_list(tag.name, tag.value)) return false;
    wanted.tags.push_back(tag);
  }
  return true;
}

bool SeriesIndex::fulfils(const Entry &entry, const Wanted &wanted) const {
  if (entry.measurement == NONE) return false;
  if (wanted.measurement != NONE && entry.measurement != wanted.measurement) return false;
  if (wanted.field != NONE && entry.field != wanted.field) return false;
  const auto first = tags_.begin() + entry.first_tag, last = first + entry.n_tags;
  return std::all_of(wanted.tags.begin(), wanted.tags.end(),
                     [&](const Tag &tag) { return std::find(first, last, tag) != last; });
}

void SeriesIndex::set_name(const Entry &entry, SeriesName &name) const {
  name.measurement = *texts_[entry.measurement];
  name.field = *texts_[entry.field];
  name.tags.resize(entry.n_tags);
  for (uint32_t i = 0; i < entry.n_tags; ++i) {
    const Tag &tag = tags_[entry.first_tag + i];
    name.tags[i].first = *texts_[tag.name];
    name.tags[i].second = *texts_[tag.value];
  }
}

// Returns the numbers of the series that can fulfil the filter, in order.
SeriesIndex::List SeriesIndex::candidates(const SeriesFilter &filter, Wanted &wanted) const {
  const std::shared_lock lock(mutex_);
  wanted.n_built = n_built_;
  if (!want(filter, wanted)) return {};
  if (wanted.lists.empty()) {
    List all(entries_.size());
    std::iota(all.begin(), all.end(), 0);
    return all;
  }
  List found = **std::min_element(wanted.lists.begin(), wanted.lists.end(),
                                  [](const List *a, const List *b) { return a->size() < b->size(); });
  wanted.lists.clear();
  // A number that was removed and added again can be there twice.
  std::sort(found.begin(), found.end());
  found.erase(std::unique(found.begin(), found.end()), found.end());
  return found;
}

// The lock is released now and then, because a visit evaluates conditions, and the store's thread waits for it to add a
// series.
void SeriesIndex::for_each(const SeriesFilter &filter, const Visit &visit) const {
  constexpr size_t BATCH = 256;
  Wanted wanted;
  const List series = candidates(filter, wanted);
  SeriesName name;
  for (size_t at = 0; at < series.size();) {
    const std::shared_lock lock(mutex_);
    if (wanted.n_built != n_built_) {
      wanted = {};
      wanted.n_built = n_built_;
      if (!want(filter, wanted)) return;  // all were removed
    }
    for (const size_t end = std::min(at + BATCH, series.size()); at < end; ++at) {
      const Entry &entry = entries_[series[at]];
      if (!fulfils(entry, wanted)) continue;
      set_name(entry, name);
      visit(series[at], entry.stamp, name);
    }
  }
}

}  // namespace metricdb
