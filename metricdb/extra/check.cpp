#include "extra/check.h"

#include <fmt/format.h>

#include <algorithm>
#include <bit>
#include <utility>

#include "extra/reference_reader.h"

namespace metricdb {
namespace {

std::string shown(const Point &point, ValueType type) {
  return type == ValueType::integer ? fmt::format("{}i at {}", integer_of(point), point.ts_ns)
                                    : fmt::format("{} at {}", point.value, point.ts_ns);
}

Point point_of(const ReferencePoint &expected, ValueType type) {
  return type == ValueType::integer ? integer_point(expected.ts_ns, expected.integer.value_or(0))
                                    : Point{expected.ts_ns, expected.value};
}

// Compares bits, because 0 and -0 differ.
bool same(const Point &a, const Point &b) {
  return a.ts_ns == b.ts_ns && std::bit_cast<uint64_t>(a.value) == std::bit_cast<uint64_t>(b.value);
}

}  // namespace

Check::Check(const Store &store, Precision precision, int64_t now_ns, int64_t retain_ns)
    : ns_per_unit_(static_cast<int64_t>(precision)), now_ns_(now_ns), retain_ns_(retain_ns) {
  for (uint32_t index = 0; index < store.n_slots(); ++index) {
    if (!store.holds_series(index)) continue;
    const bool fresh = series_.emplace(store.key(index), Series{{store, index}, store.record(index).n_points()}).second;
    if (!fresh) add_difference(fmt::format("series \"{}\" is in the catalogue twice", store.key(index)));
  }
}

void Check::add_difference(std::string text) {
  ++n_differences_;
  if (shown_.size() < MAX_SHOWN) shown_.push_back(std::move(text));
}

void Check::find_newest(std::string_view text) {
  std::string_view line;
  while (next_reference_line(text, line))
    for (const ReferencePoint &point : reference_points(line, ns_per_unit_, now_ns_))
      newest_ns_ = std::max(newest_ns_, point.ts_ns);
}

// Unsigned: the difference of two times can exceed the signed range.
bool Check::is_retained(int64_t ts_ns) const {
  return retain_ns_ == 0 ||
         static_cast<uint64_t>(newest_ns_) - static_cast<uint64_t>(ts_ns) <= static_cast<uint64_t>(retain_ns_);
}

// Whether a series of integers gets a real number, so that the line is refused.
bool Check::has_wrong_type(const std::vector<ReferencePoint> &points) const {
  return std::any_of(points.begin(), points.end(), [this](const ReferencePoint &point) {
    const auto entry = series_.find(point.key);
    return entry != series_.end() && entry->second.cursor.type() == ValueType::integer && !point.integer;
  });
}

void Check::compare(std::string_view text) {
  std::string_view line;
  while (next_reference_line(text, line)) {
    const std::vector<ReferencePoint> points = reference_points(line, ns_per_unit_, now_ns_);
    if (has_wrong_type(points)) continue;
    for (const ReferencePoint &expected : points) {
      if (!is_retained(expected.ts_ns)) continue;
      const auto entry = series_.find(expected.key);
      if (entry == series_.end()) {
        add_difference(fmt::format("series \"{}\": expected {}, found no such series", expected.key,
                                   shown(point_of(expected, ValueType::real), ValueType::real)));
        continue;
      }
      Series &series = entry->second;
      const ValueType type = series.cursor.type();
      const Point wanted = point_of(expected, type);
      Point found;
      const uint64_t index = series.n_seen;
      const bool is_found = series.cursor.next(found);
      series.n_seen += is_found ? 1 : 0;
      if (is_found && same(found, wanted))
        ++n_matching_;
      else
        add_difference(fmt::format("series \"{}\", point {}: expected {}, found {}", expected.key, index,
                                   shown(wanted, type), is_found ? shown(found, type) : "none"));
    }
  }
}

void Check::finish() {
  for (auto &[key, series] : series_) {
    for (Point found; series.cursor.next(found); ++series.n_seen)
      add_difference(fmt::format("series \"{}\", point {}: expected none, found {}", key, series.n_seen,
                                 shown(found, series.cursor.type())));
    if (series.n_seen == 0) add_difference(fmt::format("series \"{}\": expected none, found one without points", key));
    if (series.cursor.n_passed() != series.n_stored)
      add_difference(fmt::format("series \"{}\": the catalogue counts {} points, the chunks hold {}", key,
                                 series.n_stored, series.cursor.n_passed()));
  }
}

}  // namespace metricdb
