// `metricdb export`: writes the points of a database as line protocol, which `load` and `ingest` read.
#include <fmt/format.h>
#include <fnmatch.h>

#include <iterator>

#include "cli/commands.h"
#include "cli/output.h"
#include "cli/write_options.h"
#include "store/database.h"

namespace metricdb {
namespace {

constexpr size_t BYTES_AT_ONCE = 1 << 20;

// A key is a head, a blank and a field name. Other blanks in it are escaped, so it is valid in line protocol.
void append_series(const Store &store, uint32_t series, std::string &text) {
  const std::string_view key = store.key(series);
  PointCursor cursor(store, series);
  for (Point point; cursor.next(point);) {
    if (cursor.type() == ValueType::integer)
      fmt::format_to(std::back_inserter(text), "{}={}i {}\n", key, integer_of(point), point.ts_ns);
    else
      fmt::format_to(std::back_inserter(text), "{}={} {}\n", key, point.value, point.ts_ns);
    if (text.size() < BYTES_AT_ONCE) continue;
    print(text);
    text.clear();
  }
}

}  // namespace

int export_points(const SeriesArguments &arguments) {
  const OpenDatabase opened = open_to_read(arguments.db, arguments.salvage);
  const Store &store = opened.store();
  std::string text;
  for (uint32_t series = 0; series < store.n_slots(); ++series)
    if (store.holds_series(series) && fnmatch(arguments.pattern.c_str(), store.key(series).data(), 0) == 0)
      append_series(store, series, text);
  print(text);
  return EXIT_GOOD;
}

}  // namespace metricdb
