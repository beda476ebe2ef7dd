#include "store/loader.h"

#include <fmt/format.h>

#include <algorithm>
#include <stdexcept>
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

// The line has a real number for a series of integers.
class WrongType : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

ValueType type_of(const ParsedField &field) {
  return field.integer ? ValueType::integer : ValueType::real;
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

void Loader::set_key(const ParsedLine &line, const ParsedField &field) {
  key_.assign(line.head).append(1, ' ').append(field.key);
}

// The line can have the same field again, whose series exists then.
uint32_t Loader::new_series(const ParsedLine &line, const ParsedField &field) {
  set_key(line, field);
  if (n_created() - n_created_before_ >= limits_.max_new_series && !store_.find(key_))
    throw StoreFull(fmt::format("no room for more than {} new series at a time", limits_.max_new_series));
  return store_.series_of(key_, type_of(field));
}

// A series of real numbers takes integers too, because agents send 0 as an integer, and earlier versions stored integers
// as real numbers.
void Loader::expect_type(const ParsedField &field, uint32_t series) {
  if (field.integer || store_.type(series) != ValueType::integer) return;
  const std::string_view head = parser_.line().head;
  throw WrongType(
      fmt::format("field type conflict: input field \"{}\" on measurement \"{}\" is type float, already exists "
                  "as type integer",
                  printable(field.key), printable(head.substr(0, head.find(',')))));
}

bool Loader::is_known(const ParsedLine &line, size_t i) const {
  return i < last_.size() && (i < line.n_likely || last_[i].name == line.fields[i].key);
}

// Sets fields_ to the series that exist, and NO_SERIES. Throws before anything changes if one has another type.
void Loader::find_series(const ParsedLine &line) {
  fields_.clear();
  for (size_t i = 0; i < line.fields.size(); ++i) {
    const ParsedField &field = line.fields[i];
    uint32_t series = NO_SERIES;
    if (is_known(line, i)) {
      series = last_[i].series;
    } else {
      set_key(line, field);
      series = store_.find(key_).value_or(NO_SERIES);
    }
    if (series != NO_SERIES) expect_type(field, series);
    fields_.push_back({field.key, series});
  }
}

void Loader::store_fields(const ParsedLine &line, int64_t ts_ns) {
  drop_stale_series();
  find_series(line);
  bool is_like_last = last_.size() == line.fields.size();
  // Activates them, so that a new series replaces none of them.
  for (size_t i = 0; i < fields_.size(); ++i) {
    is_like_last = is_like_last && is_known(line, i);
    if (fields_[i].series != NO_SERIES) store_.make_room(fields_[i].series);
  }
  for (size_t i = 0; i < fields_.size(); ++i) {
    if (fields_[i].series != NO_SERIES) continue;
    fields_[i].series = new_series(line, line.fields[i]);
    expect_type(line.fields[i], fields_[i].series);  // the line can have an integer and a real number of one new series
    store_.make_room(fields_[i].series);
  }
  drop_stale_series();
  for (size_t i = 0; i < line.fields.size(); ++i) {
    const ParsedField &field = line.fields[i];
    const uint32_t series = fields_[i].series;
    const Point point =
        store_.type(series) == ValueType::integer ? integer_point(ts_ns, *field.integer) : Point{ts_ns, field.value};
    if (!is_repeated(series, point)) store_.append(series, point);
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
    } catch (const WrongType &wrong) {
      stats_.malformed += n_own;
      report_(number, wrong.what());
    }
  }
  return n_bytes - text.size();
}

}  // namespace metricdb
