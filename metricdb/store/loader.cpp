#include "store/loader.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "codec/printable.h"

namespace metricdb {
namespace {

// Removes bytes from the front, which are whole lines. Returns their number.
uint64_t remove_lines(std::string_view &text, size_t n_bytes) {
  if (n_bytes == 0) return 0;
  const std::string_view removed = text.substr(0, n_bytes);
  text.remove_prefix(n_bytes);
  return static_cast<uint64_t>(std::count(removed.begin(), removed.end(), '\n')) + (removed.ends_with('\n') ? 0 : 1);
}

}  // namespace

Loader::Loader(Store &store, OnFull on_full, Report report)
    : store_(store), on_full_(on_full), report_(std::move(report)), repeated_(store) {}

void Loader::set_limits(const LoadLimits &limits) {
  limits_ = limits;
  n_created_before_ = n_created();
}

// Checked before any point of a line is stored.
bool Loader::keys_fit() {
  for (const ParsedField &field : parser_.line().fields)
    if (parser_.line().head.size() + 1 + field.key.size() > limits_.max_key_bytes) return false;
  return true;
}

// Returns why the line is skipped in any case; empty if it is valid.
std::string Loader::invalid_reason(LineParser::Outcome outcome) {
  if (outcome == LineParser::Outcome::malformed) return parser_.reason();
  if (outcome == LineParser::Outcome::line && limits_.refuses_strings && parser_.line().strings_skipped != 0)
    return fmt::format("field \"{}\" is a string, and strings are not stored", printable(parser_.line().first_string));
  return keys_fit() ? "" : fmt::format("a series key is longer than {} bytes", limits_.max_key_bytes);
}

bool Loader::is_future() {
  return parser_.line().ts_ns.value_or(INT64_MIN) > limits_.newest_ns;
}

void Loader::skip_late(uint64_t number) {
  ++stats_.late;
  stats_.late_points += parser_.line().fields.size();
  if (limits_.reports_late) report_(number, "the timestamp is older than the retention");
}

void Loader::store_line(uint64_t number, int64_t now_ns) {
  const ParsedLine &line = parser_.line();
  const int64_t ts_ns = line.ts_ns.value_or(now_ns);
  if (store_.admit(ts_ns, static_cast<uint32_t>(line.fields.size())))
    store_fields(line, ts_ns);
  else if (!line.fields.empty())
    skip_late(number);
  stats_.points += line.fields.size();
  stats_.strings_skipped += line.strings_skipped;
}

void Loader::drop_stale_series() {
  if (n_forgotten_ == store_.n_forgotten_series()) return;
  n_forgotten_ = store_.n_forgotten_series();
  cache_.clear();
  last_ = {};
}

uint32_t Loader::series_of(const ParsedLine &line, const ParsedField &field) {
  key_.assign(line.head).append(1, ' ').append(field.key);
  if (n_created() - n_created_before_ >= limits_.max_new_series && !store_.find(key_))
    throw StoreFull(fmt::format("no room for more than {} new series at a time", limits_.max_new_series));
  return store_.series_of(key_);
}

void Loader::store_fields(const ParsedLine &line, int64_t ts_ns) {
  drop_stale_series();
  bool is_like_last = last_.size() == line.fields.size();
  fields_.clear();
  for (size_t i = 0; i < line.fields.size(); ++i) {
    const ParsedField &field = line.fields[i];
    const bool is_known = i < last_.size() && (i < line.n_likely || last_[i].name == field.key);
    uint32_t series;
    if (is_known) {
      series = last_[i].series;
    } else {
      series = series_of(line, field);
      is_like_last = false;
      // The new series can have replaced another one. Not a series of this line: `make_room` has activated those.
      drop_stale_series();
    }
    store_.make_room(series);
    fields_.push_back({field.key, series});
  }
  for (size_t i = 0; i < line.fields.size(); ++i) {
    const Point point = {ts_ns, line.fields[i].value};
    if (!is_repeated(fields_[i].series, point)) store_.append(fields_[i].series, point);
  }
  if (!is_like_last) cache_.keep(line.head, fields_);
}

size_t Loader::load(std::string_view text, Precision precision, int64_t now_ns, size_t max_bytes) {
  parser_.set_precision(precision);
  const size_t n_bytes = text.size();
  std::string_view line;
  uint64_t n_lines = 0;  // of the text, before the current line
  for (uint64_t n_own = 0; n_bytes - text.size() < max_bytes && next_line(text, line); n_lines += n_own) {
    const LikelyLine likely = cache_.likely(line);
    const LineParser::Outcome outcome = parser_.parse(line, likely, text);
    const uint64_t number = n_lines + 1;
    n_own = 1 + remove_lines(text, parser_.n_following());
    stats_.lines += n_own;
    if (outcome == LineParser::Outcome::nothing) continue;
    if (const std::string reason = invalid_reason(outcome); !reason.empty()) {
      stats_.malformed += n_own;
      report_(number, reason);
      continue;
    }
    if (is_future()) {
      ++stats_.future;
      report_(number, "the timestamp is too far after the server's clock");
      continue;
    }
    last_ = likely.head.empty() ? cache_.fields_of(parser_.line().head) : likely.fields;
    try {
      store_line(number, now_ns);
    } catch (const StoreFull &full) {
      if (on_full_ == OnFull::stop) throw LoadStopped(number, full.what());
      ++stats_.refused;
      report_(number, full.what());
    }
  }
  return n_bytes - text.size();
}

}  // namespace metricdb
