// Brings texts in line protocol into a store.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "line_protocol.h"
#include "store.h"

namespace metricdb {

struct LoadStats {
  uint64_t lines = 0;   // all of them, comments and blank ones too
  uint64_t points = 0;  // those that the store forgot too
  uint64_t strings_skipped = 0;
  uint64_t malformed = 0;
};

class Loader {
 public:
  using Report = std::function<void(const std::string &message)>;

  // now_ns  the time of points that bring none.
  // report  receives one message for each malformed line, without a line end.
  Loader(Store &store, Precision precision, int64_t now_ns, Report report);

  // Loads one text. Of a malformed line nothing is stored. Throws StoreFull, with the place in its text; the
  // points ahead of that place are stored then.
  void load(std::string_view name, std::string_view text);

  const LoadStats &stats() const { return stats_; }

 private:
  bool keys_fit();
  void store_line();

  Store &store_;
  LineParser parser_;
  const int64_t now_ns_;
  const Report report_;
  LoadStats stats_;
  std::string key_;
};

}  // namespace metricdb
