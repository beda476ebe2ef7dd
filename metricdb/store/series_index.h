// An inverted index over the keys of the series: which series have a measurement, a field, or a tag with a value.
//
// Texts are kept once, and a series is a few numbers, so a million series need about a hundred bytes each. Entries of
// removed series stay in the lists until half of them are out of date; then the index is built again, without the texts that
// no series has.
//
// Threads: one adds and removes, any number visit.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "store/fair_shared_mutex.h"
#include "store/series_name.h"

namespace metricdb {

class SeriesIndex {
 public:
  // stamp  distinguishes series that have the same number one after the other.
  using Visit = std::function<void(uint32_t series, uint32_t stamp, const SeriesName &name)>;

  void add(uint32_t series, uint32_t stamp, std::string_view key);
  void remove(uint32_t series);

  // Visits the series that fulfil all conditions, in the order of their numbers, each once: those of one moment, except that
  // series are left out which are removed meanwhile. `visit` must not call the index.
  void for_each(const SeriesFilter &filter, const Visit &visit) const;

  size_t n_texts() const;  // in memory

 private:
  using Symbol = uint32_t;
  using Text = std::unique_ptr<std::string>;  // does not move, because symbols_ refers to it
  using List = std::vector<uint32_t>;
  struct Entry {
    uint32_t stamp = 0;
    Symbol measurement = NONE;  // NONE: no series
    Symbol field = NONE;
    uint32_t first_tag = 0;
    uint32_t n_tags = 0;
  };
  struct Tag {
    Symbol name, value;
    bool operator==(const Tag &) const = default;
  };
  struct Wanted {
    Symbol measurement = NONE, field = NONE;
    std::vector<Tag> tags;
    std::vector<const List *> lists;  // of the series that fulfil one condition
    uint64_t n_built = 0;             // when the symbols were looked up
  };
  static constexpr Symbol NONE = UINT32_MAX;
  // In place of a tag's name in the key of a list.
  static constexpr Symbol MEASUREMENTS = UINT32_MAX - 1, FIELDS = UINT32_MAX - 2;

  Symbol symbol_of(std::string_view text);
  Symbol add_text(Text text);
  Symbol known(std::string_view text) const;
  void insert(uint32_t series, const Entry &entry);
  void rebuild();
  List candidates(const SeriesFilter &filter, Wanted &wanted) const;
  bool want(const SeriesFilter &filter, Wanted &wanted) const;
  bool fulfils(const Entry &entry, const Wanted &wanted) const;
  void set_name(const Entry &entry, SeriesName &name) const;
  static uint64_t list_key(Symbol name, Symbol value) { return uint64_t{name} << 32 | value; }

  mutable FairSharedMutex mutex_;
  std::unordered_map<std::string_view, Symbol> symbols_;  // the texts are those of texts_
  std::vector<Text> texts_;
  std::vector<Entry> entries_;  // by series
  std::vector<Tag> tags_;
  std::unordered_map<uint64_t, List> lists_;
  size_t n_live_ = 0;
  size_t n_removed_ = 0;  // since the index was built
  uint64_t n_built_ = 0;  // how often it was built again
};

}  // namespace metricdb
