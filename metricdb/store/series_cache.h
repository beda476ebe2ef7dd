// Maps the head of a line to the fields of the last line with this head and their series. A source usually sends the
// same fields in the same order, so one look-up by the head replaces one look-up per series key.
//
// Series numbers are valid until the store forgets a series. The owner clears the cache then.
//
// Threads: one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "codec/line_protocol.h"

namespace metricdb {

class SeriesCache {
 public:
  using Field = KnownField;

  // Approximate maximum size. When it is reached the cache is cleared, and refilled by the following lines.
  static constexpr size_t MAX_BYTES = size_t{64} << 20;

  explicit SeriesCache(size_t max_bytes = MAX_BYTES) : max_bytes_(max_bytes) {}

  // Returns the fields of the last line that was kept with this head, in their order; none if the head is unknown.
  // Valid until the next `keep` or `clear`.
  std::span<const Field> fields_of(std::string_view head) const;

  // Returns the head with which the line begins, and its fields; nothing if the head is unknown. Sources often send the
  // same sequence of heads, so the head that followed the previous one last time is compared before any look-up. Valid
  // until the next `keep` or `clear`.
  LikelyLine likely(std::string_view line);

  // Replaces the fields of a head. The names are copied.
  void keep(std::string_view head, std::span<const Field> fields);

  void clear();

  size_t n_heads() const { return fields_.size(); }

 private:
  struct Hash {
    using is_transparent = void;
    size_t operator()(std::string_view text) const { return std::hash<std::string_view>()(text); }
  };

  struct HeadFields {
    std::vector<Field> fields;
    std::pair<const std::string, HeadFields> *next = nullptr;  // the entry requested after this one last time
  };
  using Entry = std::pair<const std::string, HeadFields>;

  std::string_view name_of(std::string_view name);
  Entry *entry_of(std::string_view line);
  void fetch_after(const Entry &next) const;

  const size_t max_bytes_;
  size_t n_bytes_ = 0;
  std::unordered_set<std::string, Hash, std::equal_to<>> names_;  // shared by the heads
  std::unordered_map<std::string, HeadFields, Hash, std::equal_to<>> fields_;
  Entry *last_ = nullptr;  // the entry requested last
};

}  // namespace metricdb
