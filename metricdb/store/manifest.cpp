#include "store/manifest.h"

#include <fmt/format.h>

#include <charconv>
#include <iterator>
#include <limits>

#include "journal/checksum.h"

namespace metricdb {
namespace {

constexpr std::string_view MAGIC = "metricdb ";
constexpr std::string_view CHECKSUM = "crc32c ";
constexpr size_t CHECKSUM_LINE_BYTES = CHECKSUM.size() + 8 + 1;
constexpr int MAX_SLOT_BYTES = 1 << 24;  // the limit of addresses

// Calls `field` for each line of configuration and figures, in order, with the limits for the reader.
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

// The words of a text, and the line of the last one.
class Words {
 public:
  explicit Words(std::string_view text) : rest_(text) {}

  std::string_view next() {
    const size_t end = rest_.find_first_of(" \n");
    if (end == rest_.npos) throw ManifestError("unexpected end");
    const std::string_view word = rest_.substr(0, end);
    line_ = next_line_;
    next_line_ += rest_[end] == '\n' ? 1 : 0;
    rest_.remove_prefix(end + 1);
    return word;
  }

  void expect(std::string_view word) {
    const std::string_view found = next();
    if (found != word) fail(fmt::format("\"{}\", expected \"{}\"", found, word));
  }

  template <class Number>
  Number number(const char *what, Number min, Number max, int base = 10) {
    const std::string_view word = next();
    Number value{};
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), value, base);
    if (error != std::errc() || end != word.data() + word.size() || value < min || value > max)
      fail(fmt::format("{} \"{}\"", what, word));
    return value;
  }

  template <class Number>
  Number number(const char *what) {
    return number(what, std::numeric_limits<Number>::min(), std::numeric_limits<Number>::max());
  }

  [[noreturn]] void fail(const std::string &what) const {
    throw ManifestError(fmt::format("line {}: {}", line_, what));
  }

  bool at_end() const { return rest_.empty(); }

 private:
  std::string_view rest_;
  uint64_t line_ = 1;
  uint64_t next_line_ = 1;
};

void write_figures(const StoreConfig &config, const StoreState &state, std::string &text) {
  for_each_figure(config, state, [&text](const char *name, auto value, auto, auto) {
    fmt::format_to(std::back_inserter(text), "{} {}\n", name,
                   +value);  // promoted, because uint8_t would be printed as a character
  });
}

void read_figures(Words &words, StoreConfig &config, StoreState &state) {
  for_each_figure(config, state, [&words](const char *name, auto &value, auto min, auto max) {
    words.expect(name);
    value = words.number(name, min, max);
  });
}

StoredArray read_array(Words &words, const char *name) {
  StoredArray array;
  words.expect("array");
  words.expect(name);
  words.expect("table");
  array.table = words.number<int32_t>("table");
  words.expect("slots");
  array.n_slots = words.number<uint32_t>("slots");
  words.expect("direct");
  array.n_direct = words.number<uint32_t>("direct");
  words.expect("slot_bytes");
  array.slot_bytes = words.number<uint32_t>("slot_bytes");
  words.expect("files");
  // The number of files is not limited here. expect_files compares it with the array.
  for (uint32_t left = words.number<uint32_t>("files"); left > 0; --left) {
    StoredFile file;
    words.expect("file");
    file.name = words.next();
    words.expect("bytes");
    file.bytes = words.number<uint64_t>("bytes");
    words.expect("crc32c");
    file.crc32c = words.number<uint32_t>("crc32c", 0, std::numeric_limits<uint32_t>::max(), 16);
    array.files.push_back(file);
  }
  return array;
}

void expect_version(std::string_view text) {
  if (!text.starts_with(MAGIC)) throw ManifestError("not a manifest of metricdb");
  const std::string_view rest = text.substr(MAGIC.size());
  const std::string_view version = rest.substr(0, rest.find('\n'));
  if (version != std::to_string(MANIFEST_VERSION))
    throw ManifestError(fmt::format("unknown format version \"{}\", expected {}", version, MANIFEST_VERSION));
}

// Returns the text that the checksum covers.
std::string_view expect_checksum(std::string_view text) {
  if (text.size() < CHECKSUM_LINE_BYTES) throw ManifestError("unexpected end");
  const std::string_view body = text.substr(0, text.size() - CHECKSUM_LINE_BYTES);
  const std::string_view last_line = text.substr(body.size());
  if (last_line != fmt::format("{}{:08x}\n", CHECKSUM, crc32c(body.data(), body.size())))
    throw ManifestError("wrong checksum, or unexpected end");
  return body;
}

}  // namespace

std::string figures_text(const StoreConfig &config, const StoreState &state) {
  std::string text;
  write_figures(config, state, text);
  return text;
}

void read_figures(std::string_view text, StoreConfig &config, StoreState &state) {
  Words words(text);
  read_figures(words, config, state);
  if (!words.at_end()) throw ManifestError("unexpected text after the last figure");
}

std::string manifest_text(const Manifest &manifest) {
  std::string text =
      fmt::format("{}{}\nstore {}\n", MAGIC, MANIFEST_VERSION, STORE_NAMES[static_cast<int>(manifest.kind)]);
  write_figures(manifest.config, manifest.state, text);
  const auto out = std::back_inserter(text);
  for (size_t i = 0; i < manifest.arrays.size(); ++i) {
    const StoredArray &array = manifest.arrays[i];
    fmt::format_to(out, "array {} table {} slots {} direct {} slot_bytes {} files {}\n", ARRAY_NAMES[i], array.table,
                   array.n_slots, array.n_direct, array.slot_bytes, array.files.size());
    for (const StoredFile &file : array.files)
      fmt::format_to(out, "file {} bytes {} crc32c {:08x}\n", file.name, file.bytes, file.crc32c);
  }
  fmt::format_to(out, "{}{:08x}\n", CHECKSUM, crc32c(text.data(), text.size()));
  return text;
}

Manifest read_manifest(std::string_view text) {
  expect_version(text);
  Words words(expect_checksum(text));
  Manifest manifest;
  words.next();
  words.next();
  words.expect("store");
  const std::string_view store = words.next();
  if (store != STORE_NAMES[0] && store != STORE_NAMES[1])
    words.fail(fmt::format("store \"{}\", expected {} or {}", store, STORE_NAMES[0], STORE_NAMES[1]));
  manifest.kind = store == STORE_NAMES[0] ? StoreKind::snapshot : StoreKind::shm;
  read_figures(words, manifest.config, manifest.state);
  for (size_t i = 0; i < manifest.arrays.size(); ++i) manifest.arrays[i] = read_array(words, ARRAY_NAMES[i]);
  if (!words.at_end()) throw ManifestError("unexpected text after the last array");
  if (manifest_text(manifest) != text) throw ManifestError("not the text that this program writes");
  return manifest;
}

}  // namespace metricdb
