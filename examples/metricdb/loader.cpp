#include "loader.h"

#include <fmt/format.h>

#include <utility>

namespace metricdb {

Loader::Loader(Store &store, Report report) : store_(store), report_(std::move(report)) {}

// Ahead of the first point of a line: none of them is stored if one cannot be.
bool Loader::keys_fit() {
  for (const ParsedField &field : parser_.line().fields)
    if (parser_.line().head.size() + 1 + field.key.size() > Store::LONGEST_KEY) return false;
  return true;
}

void Loader::store_line(int64_t now_ns) {
  const ParsedLine &line = parser_.line();
  const int64_t ts_ns = line.ts_ns.value_or(now_ns);
  key_.assign(line.head).append(1, ' ');
  const size_t prefix = key_.size();
  const auto n_points = static_cast<uint32_t>(line.fields.size());
  const bool is_stored = store_.admit(ts_ns, n_points);
  for (const ParsedField &field : line.fields) {
    if (!is_stored) break;
    key_.resize(prefix);
    key_.append(field.key);
    store_.append(store_.series_of(key_), {ts_ns, field.value});
  }
  stats_.points += n_points;
  stats_.strings_skipped += line.strings_skipped;
}

void Loader::load(std::string_view text, Precision precision, int64_t now_ns) {
  parser_.set_precision(precision);
  std::string_view line;
  for (uint64_t number = 1; next_line(text, line); ++number) {
    ++stats_.lines;
    const LineParser::Outcome outcome = parser_.parse(line);
    if (outcome == LineParser::Outcome::nothing) continue;
    const bool fits = outcome == LineParser::Outcome::line && keys_fit();
    if (!fits) {
      ++stats_.malformed;
      report_(number, outcome == LineParser::Outcome::line
                          ? fmt::format("a series key is longer than {} bytes", Store::LONGEST_KEY)
                          : parser_.reason());
      continue;
    }
    try {
      store_line(now_ns);
    } catch (const StoreFull &full) {
      throw LoadStopped(number, full.what());
    }
  }
}

}  // namespace metricdb
