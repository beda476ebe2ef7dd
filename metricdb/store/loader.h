// Brings texts in line protocol into a store.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "codec/line_protocol.h"
#include "store/series_cache.h"
#include "store/store.h"

namespace metricdb {

struct LoadStats {
  uint64_t lines = 0;   // all of them, comments and blank ones too
  uint64_t points = 0;  // those that the store forgot too
  uint64_t strings_skipped = 0;
  uint64_t malformed = 0;
  uint64_t refused = 0;  // lines that the store had no room for
};

// The store had no room for a line.
class LoadStopped : public StoreFull {
 public:
  LoadStopped(uint64_t line, const std::string &what) : StoreFull(what), line_(line) {}
  uint64_t line() const { return line_; }

 private:
  uint64_t line_;
};

class Loader {
 public:
  enum class WhenFull {
    stop,
    go_on
  };  // go_on: with the next line, since known series can have room where others do not

  // Receives each malformed line's number in its text, from 1 on, and what is wrong with it; and those without room, if
  // the loader goes on.
  using Report = std::function<void(uint64_t line, const std::string &reason)>;

  Loader(Store &store, WhenFull when_full, Report report);

  // Loads one text. Of a malformed line no point is stored, nor of one without room. Throws LoadStopped, unless it goes
  // on: the points ahead of the place are stored then.
  //
  // now_ns  the time of points that bring none.
  void load(std::string_view text, Precision precision, int64_t now_ns);

  const LoadStats &stats() const { return stats_; }

 private:
  bool keys_fit();
  void store_line(int64_t now_ns);
  void store_fields(const ParsedLine &line, int64_t ts_ns);
  void drop_stale_series();

  Store &store_;
  const WhenFull when_full_;
  LineParser parser_;
  const Report report_;
  LoadStats stats_;
  std::string key_;
  SeriesCache cache_;
  uint64_t n_forgotten_ = 0;                  // series, when the cache was last known to hold
  std::span<const SeriesCache::Field> last_;  // of the last line with the head at hand
  std::vector<SeriesCache::Field> fields_;    // of the line at hand
};

}  // namespace metricdb
