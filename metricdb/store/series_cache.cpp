#include "store/series_cache.h"

namespace metricdb {
namespace {

// What a text in a table takes beside its bytes: node, bucket, the text's own structure and the allocator's share.
constexpr size_t BYTES_OF_ENTRY = 96;

bool begins_with_head(std::string_view line, std::string_view head) {
  return line.size() > head.size() && line[head.size()] == ' ' && line.starts_with(head);
}

}  // namespace

std::span<const SeriesCache::Field> SeriesCache::fields_of(std::string_view head) const {
  const auto known = fields_.find(head);
  return known == fields_.end() ? std::span<const Field>() : known->second.fields;
}

// No head ends in a backslash, so none goes on behind the blank: what was kept is the whole head of this line too.
SeriesCache::Entry *SeriesCache::entry_of(std::string_view line) {
  if (asked_ != nullptr && asked_->second.next != nullptr && begins_with_head(line, asked_->second.next->first))
    return asked_->second.next;
  const auto known = fields_.find(line.substr(0, line.find(' ')));
  return known == fields_.end() ? nullptr : &*known;
}

LikelyLine SeriesCache::likely(std::string_view line) {
  Entry *const entry = entry_of(line);
  if (asked_ != nullptr && entry != nullptr) asked_->second.next = entry;
  asked_ = entry;
  return entry == nullptr ? LikelyLine() : LikelyLine{entry->first, entry->second.fields};
}

std::string_view SeriesCache::name_of(std::string_view name) {
  auto known = names_.find(name);
  if (known == names_.end()) {
    known = names_.emplace(name).first;
    n_bytes_ += BYTES_OF_ENTRY + name.size();
  }
  return *known;
}

void SeriesCache::keep(std::string_view head, std::span<const Field> fields) {
  if (n_bytes_ >= most_bytes_) clear();
  auto known = fields_.find(head);
  if (known == fields_.end()) {
    known = fields_.emplace(head, Kept()).first;
    n_bytes_ += BYTES_OF_ENTRY + head.size();
  }
  std::vector<Field> &kept = known->second.fields;
  n_bytes_ -= kept.capacity() * sizeof(Field);
  kept.clear();
  kept.reserve(fields.size());
  for (const Field &field : fields) kept.push_back({name_of(field.name), field.series});
  n_bytes_ += kept.capacity() * sizeof(Field);
}

void SeriesCache::clear() {
  asked_ = nullptr;
  fields_.clear();
  names_.clear();
  n_bytes_ = 0;
}

}  // namespace metricdb
