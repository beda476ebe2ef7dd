// Where the fields of a line went last time, by the line's head. The lines of one source come with the same fields in
// the same order, and then one look-up by the head replaces one by each series key.
//
// Series numbers hold until the store forgets a series: who keeps them here clears the cache then.
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

  // About that many bytes are taken at most. What does not fit any more makes all the rest go: those of the heads that
  // still come will be back with their next lines.
  static constexpr size_t MOST_BYTES = size_t{64} << 20;

  explicit SeriesCache(size_t most_bytes = MOST_BYTES) : most_bytes_(most_bytes) {}

  // The fields of the last line that was kept with this head, in its order; none if there is none. They hold until the
  // next `keep` or `clear`.
  std::span<const Field> fields_of(std::string_view head) const;

  // What a line begins with and was kept. Sources come in the same order again and again: the head that followed the
  // last one here is tried before any look-up. Holds as long as what `fields_of` returns.
  LikelyLine likely(std::string_view line);

  // Keeps the fields of a line in place of those before. The names are copied.
  void keep(std::string_view head, std::span<const Field> fields);

  void clear();

  size_t n_heads() const { return fields_.size(); }

 private:
  struct Hash {
    using is_transparent = void;
    size_t operator()(std::string_view text) const { return std::hash<std::string_view>()(text); }
  };

  struct Kept {
    std::vector<Field> fields;
    std::pair<const std::string, Kept> *next = nullptr;  // the one asked for after this one
  };
  using Entry = std::pair<const std::string, Kept>;

  std::string_view name_of(std::string_view name);
  Entry *entry_of(std::string_view line);

  const size_t most_bytes_;
  size_t n_bytes_ = 0;
  std::unordered_set<std::string, Hash, std::equal_to<>> names_;  // sources of one kind share theirs
  std::unordered_map<std::string, Kept, Hash, std::equal_to<>> fields_;
  Entry *asked_ = nullptr;  // the last one that was asked for
};

}  // namespace metricdb
