// Compares what a store holds, point by point, with the texts that it was loaded from.
//
// The texts are read by the reader of reference_reader.h, and series are found by walking the catalogue, not
// through the store's own look-up: what is compared is the arrays' content and nothing else.
//
// With a retention, exactly the points that are no further than it behind the newest of all are expected. Which that is
// the check finds in the texts, so it takes them twice.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "codec/line_protocol.h"
#include "store/store.h"

namespace metricdb {

class Check {
 public:
  static constexpr size_t MOST_SHOWN = 10;

  // precision, now_ns  as they were at the load.
  // retain_ns          what the store was told to keep; 0 for everything.
  Check(const Store &store, Precision precision, int64_t now_ns, int64_t retain_ns = 0);

  // Takes the next text for its newest point. With a retention: all texts, ahead of the first comparison.
  void find_newest(std::string_view text);

  // Takes the next text, in the order of the load.
  void compare(std::string_view text);

  // Finds points that no text accounts for. Once, behind the last text.
  void finish();

  uint64_t n_matching() const { return n_matching_; }
  uint64_t n_differences() const { return n_differences_; }
  const std::vector<std::string> &first_differences() const { return shown_; }

 private:
  struct Series {
    PointCursor cursor;
    uint64_t n_stored;  // as the catalogue says
    uint64_t n_seen = 0;
  };

  bool is_retained(int64_t ts_ns) const;
  void differs(std::string text);

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
