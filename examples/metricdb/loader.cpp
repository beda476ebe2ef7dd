#include "loader.h"

#include <fmt/format.h>

#include <utility>

namespace metricdb {

Loader::Loader(Store &store, Precision precision, int64_t now_ns, Report report)
    : store_(store), parser_(precision), now_ns_(now_ns), report_(std::move(report)) {}

// Ahead of the first point of a line: none of them is stored if one cannot be.
bool Loader::keys_fit() {
  for (const ParsedField &field : parser_.line().fields)
    if (parser_.line().head.size() + 1 + field.key.size() > Store::LONGEST_KEY) return false;
  return true;
}

void Loader::store_line() {
  const ParsedLine &line = parser_.line();
  const int64_t ts_ns = line.ts_ns.value_or(now_ns_);
  key_.assign(line.head).append(1, ' ');
  const size_t prefix = key_.size();
  for (const ParsedField &field : line.fields) {
    key_.resize(prefix);
    key_.append(field.key);
    store_.add(key_, {ts_ns, field.value});
    ++stats_.points;
  }
  stats_.strings_skipped += line.strings_skipped;
}

void Loader::load(std::string_view name, std::string_view text) {
  std::string_view line;
  for (uint64_t number = 1; next_line(text, line); ++number) {
    ++stats_.lines;
    const LineParser::Outcome outcome = parser_.parse(line);
    if (outcome == LineParser::Outcome::nothing) continue;
    const bool fits = outcome == LineParser::Outcome::line && keys_fit();
    if (!fits) {
      ++stats_.malformed;
      const std::string reason = outcome == LineParser::Outcome::line
                                     ? fmt::format("a series key is longer than {} bytes", Store::LONGEST_KEY)
                                     : parser_.reason();
      report_(fmt::format("{}:{}: {}; line skipped", name, number, reason));
      continue;
    }
    try {
      store_line();
    } catch (const StoreFull &full) {
      throw StoreFull(fmt::format("{}:{}: {}; loading stopped", name, number, full.what()));
    }
  }
}

}  // namespace metricdb
