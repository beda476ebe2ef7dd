// Loads line protocol into a store.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "codec/line_protocol.h"
#include "store/repeated_points.h"
#include "store/series_cache.h"
#include "store/store.h"

namespace metricdb {

// What a loader refuses. By default everything that the store can hold is loaded.
struct LoadLimits {
  int64_t newest_ns = INT64_MAX;  // lines with a later timestamp are refused
  size_t max_key_bytes = Store::MAX_KEY_BYTES;
  uint64_t max_new_series = UINT64_MAX;  // until the limits are set again; lines with further ones have no room
  bool reports_late = false;             // calls the report for late lines
  bool refuses_strings = false;          // lines with a string are malformed; otherwise the string is left out
  bool one_per_time = false;             // repeated_points.h; otherwise every point is appended
};

struct LoadStats {
  uint64_t lines = 0;   // of text: comments, empty lines and the lines in strings included
  uint64_t points = 0;  // late points included
  uint64_t strings_skipped = 0;
  uint64_t malformed = 0;    // lines of text
  uint64_t refused = 0;      // lines without room in the store, or with too many new series
  uint64_t late = 0;         // lines older than the retention
  uint64_t late_points = 0;  // of these lines
  uint64_t future = 0;       // lines after LoadLimits::newest_ns
};

// The store has no room for a line.
class LoadStopped : public StoreFull {
 public:
  LoadStopped(uint64_t line, const std::string &what) : StoreFull(what), line_(line) {}
  uint64_t line() const { return line_; }

 private:
  uint64_t line_;
};

class Loader {
 public:
  // When the store has no room for a line. The following lines can have room if their series exist.
  enum class OnFull { stop, skip_line };

  // Called for each skipped line with its number in the text, from 1 on, and the reason.
  using Report = std::function<void(uint64_t line, const std::string &reason)>;

  Loader(Store &store, OnFull on_full, Report report);

  void set_limits(const LoadLimits &limits);

  // Loads one text. The points of a line are stored together or not at all. Throws LoadStopped with OnFull::stop; the
  // previous lines are stored then.
  //
  // now_ns     the time of points without a timestamp.
  // max_bytes  loading ends after the line in which so many bytes are reached.
  // Result     number of bytes of the text that were loaded: whole lines.
  size_t load(std::string_view text, Precision precision, int64_t now_ns, size_t max_bytes = std::string_view::npos);

  const LoadStats &stats() const { return stats_; }

 private:
  static constexpr uint32_t NO_SERIES = UINT32_MAX;

  bool keys_fit();
  std::string invalid_reason(LineParser::Outcome outcome);
  bool is_future();
  bool is_repeated(uint32_t series, const Point &point) {
    return limits_.one_per_time && repeated_.absorb(series, point);
  }
  void store_line(uint64_t number, int64_t now_ns);
  void skip_late(uint64_t number);
  void set_key(const ParsedLine &line, const ParsedField &field);
  uint32_t new_series(const ParsedLine &line, const ParsedField &field);
  uint64_t n_created() const { return store_.n_series() + store_.n_forgotten_series(); }
  bool is_known(const ParsedLine &line, size_t i) const;
  void expect_type(const ParsedField &field, uint32_t series);
  void find_series(const ParsedLine &line);
  void store_fields(const ParsedLine &line, int64_t ts_ns);
  void drop_stale_series();

  Store &store_;
  const OnFull on_full_;
  LineParser parser_;
  const Report report_;
  LoadLimits limits_;
  uint64_t n_created_before_ = 0;  // series, when the limits were set
  LoadStats stats_;
  std::string key_;
  SeriesCache cache_;
  RepeatedPoints repeated_;
  uint64_t n_forgotten_ = 0;                  // forgotten series when the cache was last valid
  std::span<const SeriesCache::Field> last_;  // the fields of the last line with the current head
  std::vector<SeriesCache::Field> fields_;    // of the current line
};

}  // namespace metricdb
