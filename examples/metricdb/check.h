// Compares what a store holds, point by point, with the texts that it was loaded from.
//
// The texts are read by the reader of reference_reader.h, and series are found by walking the catalogue, not
// through the store's own look-up: what is compared is the arrays' content and nothing else.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "line_protocol.h"
#include "store.h"

namespace metricdb {

class Check {
 public:
  static constexpr size_t MOST_SHOWN = 10;

  // precision, now_ns  as they were at the load.
  Check(const Store &store, Precision precision, int64_t now_ns);

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
    uint64_t n_seen;
  };

  void differs(std::string text);

  const int64_t ns_per_unit_;
  const int64_t now_ns_;
  std::map<std::string, Series, std::less<>> series_;
  uint64_t n_matching_ = 0;
  uint64_t n_differences_ = 0;
  std::vector<std::string> shown_;
};

}  // namespace metricdb
