// Compares the points of a store with the texts from which it was loaded.
//
// The texts are parsed by reference_reader.h, and series are found by a walk of the catalogue, not with the look-up of
// the store. So the content of the arrays is compared, and nothing else.
//
// With a retention, the expected points are those that are at most retain_ns older than the newest point. The check
// finds the newest point in the texts, so it reads them twice.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "codec/line_protocol.h"
#include "extra/reference_reader.h"
#include "store/store.h"

namespace metricdb {

class Check {
 public:
  static constexpr size_t MAX_SHOWN = 10;

  // precision, now_ns  as for the load.
  // retain_ns          the retention of the store; 0: none.
  Check(const Store &store, Precision precision, int64_t now_ns, int64_t retain_ns = 0);

  // Finds the newest point of the next text. With a retention this is called for all texts, before `compare`.
  void find_newest(std::string_view text);

  // Compares the next text, in the order of the load.
  void compare(std::string_view text);

  // Finds points that are in no text. Called once, after the last text.
  void finish();

  uint64_t n_matching() const { return n_matching_; }
  uint64_t n_differences() const { return n_differences_; }
  const std::vector<std::string> &first_differences() const { return shown_; }

 private:
  struct Series {
    PointCursor cursor;
    uint64_t n_stored;  // from the catalogue
    uint64_t n_seen = 0;
  };

  bool is_retained(int64_t ts_ns) const;
  bool has_wrong_type(const std::vector<ReferencePoint> &points) const;
  void add_difference(std::string text);

  const int64_t ns_per_unit_;
  const int64_t now_ns_;
  const int64_t retain_ns_;
  int64_t newest_ns_ = INT64_MIN;
  std::map<std::string, Series, std::less<>> series_;
  uint64_t n_matching_ = 0;
  uint64_t n_differences_ = 0;
  std::vector<std::string> shown_;
};

}  // namespace metricdb
