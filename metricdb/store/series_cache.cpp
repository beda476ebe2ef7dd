#include "store/series_cache.h"

namespace metricdb {
namespace {

// Overhead of a string in a hash table: node, bucket, string structure and allocator.
constexpr size_t ENTRY_BYTES = 96;

bool has_head(std::string_view line, std::string_view head) {
  return line.size() > head.size() && line[head.size()] == ' ' && line.starts_with(head);
}

}  // namespace

std::span<const SeriesCache::Field> SeriesCache::fields_of(std::string_view head) const {
  const auto known = fields_.find(head);
  return known == fields_.end() ? std::span<const Field>() : known->second.fields;
}

// No head ends with a backslash, so the blank after it is not escaped, and the head ends there in this line too.
SeriesCache::Entry *SeriesCache::entry_of(std::string_view line) {
  if (last_ != nullptr && last_->second.next != nullptr && has_head(line, last_->second.next->first))
    return last_->second.next;
  const auto known = fields_.find(line.substr(0, line.find(' ')));
  return known == fields_.end() ? nullptr : &*known;
}

// With many heads they are in no cache near the processor: what the next line needs is fetched, and the entry after it.
void SeriesCache::fetch_after(const Entry &next) const {
  __builtin_prefetch(next.first.data());
  __builtin_prefetch(next.second.fields.data());
  __builtin_prefetch(next.second.next);
}

LikelyLine SeriesCache::likely(std::string_view line) {
  Entry *const entry = entry_of(line);
  if (last_ != nullptr && entry != nullptr) last_->second.next = entry;
  last_ = entry;
  if (entry != nullptr && entry->second.next != nullptr) fetch_after(*entry->second.next);
  return entry == nullptr ? LikelyLine() : LikelyLine{entry->first, entry->second.fields};
}

std::string_view SeriesCache::name_of(std::string_view name) {
  auto known = names_.find(name);
  if (known == names_.end()) {
    known = names_.emplace(name).first;
    n_bytes_ += ENTRY_BYTES + name.size();
  }
  return *known;
}

void SeriesCache::keep(std::string_view head, std::span<const Field> fields) {
  if (n_bytes_ >= max_bytes_) clear();
  auto known = fields_.find(head);
  if (known == fields_.end()) {
    known = fields_.emplace(head, HeadFields()).first;
    n_bytes_ += ENTRY_BYTES + head.size();
  }
  std::vector<Field> &kept = known->second.fields;
  n_bytes_ -= kept.capacity() * sizeof(Field);
  kept.clear();
  kept.reserve(fields.size());
  for (const Field &field : fields) kept.push_back({name_of(field.name), field.series});
  n_bytes_ += kept.capacity() * sizeof(Field);
}

void SeriesCache::clear() {
  last_ = nullptr;
  fields_.clear();
  names_.clear();
  n_bytes_ = 0;
}

}  // namespace metricdb
