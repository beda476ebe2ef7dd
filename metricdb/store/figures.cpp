#include "store/figures.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <iterator>
#include <limits>

namespace metricdb {
namespace {

constexpr std::string_view MAGIC = "metricdb 6\n";  // the version of the database
// The following lines are the same. Programs of version 5 cannot read chunks with a summary, or with room for more points
// (sealed_chunk.h); those of version 4 cannot read coded numbers (coded_numbers.h), and need an open chunk
// beside sealed ones; those of version 3 can read runs (point_codec.h) only.
constexpr std::string_view OLDER_MAGICS[] = {"metricdb 5\n", "metricdb 4\n", "metricdb 3\n"};
constexpr int MAX_SLOT_BYTES = 1 << 24;  // the limit of addresses

// Calls `field` for each line, in order, with the limits for the reader.
template <class Config, class State, class Field>
void for_each_figure(Config &config, State &state, Field field) {
  constexpr int64_t MAX_TIME = std::numeric_limits<int64_t>::max();
  constexpr uint64_t MAX = std::numeric_limits<uint64_t>::max();
  auto &forgotten = state.forgotten;
  field("layout", config.layout, OLDEST_LAYOUT, NEWEST_LAYOUT);
  field("key_slot_bytes", config.key_slot_bytes, 1, MAX_SLOT_BYTES);
  field("point_slot_bytes", config.point_slot_bytes, 1, MAX_SLOT_BYTES);
  field("retain_ns", config.forgetting.retain_ns, int64_t{0}, MAX_TIME);
  field("idle_ns", config.forgetting.idle_ns, int64_t{0}, MAX_TIME);
  field("reuse_inactive_pct", config.forgetting.reuse_inactive_pct, uint8_t{0}, uint8_t{100});
  field("points_per_sweep", config.points_per_sweep, uint32_t{0}, std::numeric_limits<uint32_t>::max());
  field("series", state.n_series, uint64_t{0}, MAX);
  field("points", state.n_points, uint64_t{0}, MAX);
  field("data_time_ns", state.data_time_ns, std::numeric_limits<int64_t>::min(), MAX_TIME);
  field("points_since_sweep", state.n_since_sweep, uint64_t{0}, MAX);
  field("late_points", forgotten.late_points, uint64_t{0}, MAX);
  field("forgotten_points", forgotten.points, uint64_t{0}, MAX);
  field("forgotten_chunks", forgotten.chunks, uint64_t{0}, MAX);
  field("series_aged", forgotten.series_aged, uint64_t{0}, MAX);
  field("series_reused", forgotten.series_reused, uint64_t{0}, MAX);
  field("key_slots_freed", forgotten.key_slots, uint64_t{0}, MAX);
  field("point_slots_freed", forgotten.point_slots, uint64_t{0}, MAX);
}

template <class Number>
Number number_in(std::string_view line, std::string_view name, Number min, Number max) {
  Number value{};
  if (!line.starts_with(name) || line.size() <= name.size() || line[name.size()] != ' ')
    throw FiguresError(fmt::format("\"{}\", expected \"{}\"", line, name));
  const std::string_view word = line.substr(name.size() + 1);
  const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), value);
  if (error != std::errc() || end != word.data() + word.size() || value < min || value > max)
    throw FiguresError(fmt::format("{} \"{}\"", name, word));
  return value;
}

}  // namespace

std::string figures_text(const StoreConfig &config, const StoreState &state) {
  std::string text(MAGIC);
  for_each_figure(config, state, [&text](const char *name, auto value, auto, auto) {
    // Promoted, because uint8_t would be printed as a character.
    fmt::format_to(std::back_inserter(text), "{} {}\n", name, +value);
  });
  return text;
}

void read_figures(std::string_view text, StoreConfig &config, StoreState &state) {
  const auto is_start = [text](std::string_view magic) { return text.starts_with(magic); };
  if (!is_start(MAGIC) && std::none_of(std::begin(OLDER_MAGICS), std::end(OLDER_MAGICS), is_start))
    throw FiguresError(fmt::format("unknown format \"{}\"", text.substr(0, text.find('\n'))));
  std::string_view rest = text.substr(MAGIC.size());
  for_each_figure(config, state, [&rest](const char *name, auto &value, auto min, auto max) {
    const size_t end = rest.find('\n');
    if (end == rest.npos) throw FiguresError("unexpected end");
    value = number_in(rest.substr(0, end), name, min, max);
    rest.remove_prefix(end + 1);
  });
  if (!rest.empty()) throw FiguresError("unexpected text after the last figure");
  if (figures_text(config, state).substr(MAGIC.size()) != text.substr(MAGIC.size()))
    throw FiguresError("not the text that this program writes");
}

}  // namespace metricdb
