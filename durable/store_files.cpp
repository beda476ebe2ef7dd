#include "store_files.h"

#include <fmt/format.h>
#include <sys/random.h>
#include <tslb/tslb_stored.h>
#include <tslb/tslb_util.h>
#include <tslb/tslb_version.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <iterator>

#include "store_error.h"
#include "text_lines.h"

namespace tslb_durable {
namespace {

constexpr std::string_view STATE_MAGIC = "tslb-store";
constexpr std::string_view GENERATION_MAGIC = "tslb-generation";
constexpr uint32_t STATE_VERSION = 1;
constexpr uint32_t GENERATION_VERSION = 3;
constexpr uint32_t COMPRESSED_GENERATION_VERSION = 4;  // with compressed streams
constexpr size_t MAX_TEXT_BYTES = 64 << 20;

void expect_magic(Words &words, std::string_view magic, uint32_t version, uint32_t newest_version) {
  words.expect(magic);
  const auto found = words.number<uint32_t>();
  if (found < version || found > newest_version)
    words.fail(fmt::format("unknown format version {}, expected {}", found, version));
}

Identity read_identity(Words &words) {
  words.expect("identity");
  const std::string_view word = words.next();
  Identity identity;
  if (word.size() != 2 * identity.size()) words.fail("the identity is not 32 digits");
  for (size_t i = 0; i < identity.size(); ++i) {
    const char *const digits = word.data() + 2 * i;
    const auto [end, error] = std::from_chars(digits, digits + 2, identity[i], 16);
    if (error != std::errc() || end != digits + 2) words.fail("the identity is not 32 digits");
  }
  return identity;
}

StoredFile read_file_words(Words &words) {
  StoredFile file;
  words.expect("bytes");
  file.bytes = words.number<uint64_t>();
  words.expect("crc32c");
  file.crc32c = words.number<uint32_t>(16);
  return file;
}

std::string file_words(const StoredFile &file) {
  return fmt::format("bytes {} crc32c {:08x}", file.bytes, file.crc32c);
}

tslb_array_kind_t read_kind(Words &words) {
  const std::string_view word = words.next();
  for (size_t kind = 0; kind < std::size(KIND_NAMES); ++kind)
    if (word == KIND_NAMES[kind]) return static_cast<tslb_array_kind_t>(kind);
  words.fail(fmt::format("unknown kind \"{}\"", word));
}

template <class Number>
void read_named(Words &words, std::string_view name, Number &value) {
  words.expect(name);
  value = words.number<Number>();
}

StoredArrayEntry read_array(Words &words) {
  StoredArrayEntry entry;
  words.expect("array");
  entry.name = words.next();
  words.expect("kind");
  entry.kind = read_kind(words);
  int compat = 0;
  read_named(words, "compat", compat);
  entry.has_compat = compat != 0;
  read_named(words, "table", entry.tbl_id);
  read_named(words, "rec_version", entry.rec_version);
  read_named(words, "daflag", entry.daflag);
  read_named(words, "record_bytes", entry.record_bytes);
  read_named(words, "slots", entry.n_slots);
  read_named(words, "direct", entry.n_direct);
  entry.file = read_file_words(words);
  entry.is_compressed = words.take("zstd");
  words.expect("description");
  entry.description = words.rest_of_line();
  return entry;
}

}  // namespace

std::string generation_path(const std::string &folder, uint64_t number) {
  return fmt::format("{}/{}{}", folder, GENERATION_PREFIX, number);
}

std::string journal_path(const std::string &folder, uint64_t number) {
  return fmt::format("{}/{}{}", folder, JOURNAL_PREFIX, number);
}

std::string state_path(const std::string &folder) {
  return folder + "/store";
}

std::string lock_path(const std::string &folder) {
  return folder + "/lock";
}

std::string stream_name(const std::string &array) {
  return array + ".stream";
}

std::optional<uint64_t> number_of(std::string_view name, std::string_view prefix) {
  if (!name.starts_with(prefix)) return std::nullopt;
  name.remove_prefix(prefix.size());
  uint64_t number = 0;
  const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), number);
  const bool is_canonical = error == std::errc() && end == name.data() + name.size() && name == std::to_string(number);
  return is_canonical ? std::optional(number) : std::nullopt;
}

std::string text_of_identity(const Identity &identity) {
  std::string text;
  for (const uint8_t byte : identity) fmt::format_to(std::back_inserter(text), "{:02x}", byte);
  return text;
}

Identity new_identity() {
  Identity identity;
  while (getrandom(identity.data(), identity.size(), 0) != static_cast<ssize_t>(identity.size())) {
    if (errno != EINTR) fail_file("getrandom", "no random identity");
  }
  return identity;
}

StoreState read_state(const std::string &folder) {
  const std::string path = state_path(folder);
  if (access(path.c_str(), F_OK) != 0 && (errno == ENOENT || errno == ENOTDIR))
    throw StoreError(TSLB_DURABLE_NO_STORE,
                     folder + (access(folder.c_str(), F_OK) == 0 ? ": is not a store" : ": does not exist"), folder);
  const std::string text = text_of(File::open(path), MAX_TEXT_BYTES);
  Words words(text, path);
  StoreState state;
  expect_magic(words, STATE_MAGIC, STATE_VERSION, STATE_VERSION);
  state.identity = read_identity(words);
  read_named(words, "generation", state.generation);
  while (!words.at_end()) {
    JournalState journal;
    read_named(words, "journal", journal.number);
    journal.is_sealed = words.take("sealed");
    if (journal.is_sealed) {
      const StoredFile file = read_file_words(words);
      journal.bytes = file.bytes;
      journal.crc32c = file.crc32c;
    } else {
      words.expect("open");
    }
    if (!state.journals.empty() && journal.number <= state.journals.back().number)
      words.fail("the journals are not in order");
    state.journals.push_back(journal);
  }
  if (state.generation != 0 && (state.journals.empty() || state.journals.front().number != state.generation))
    words.fail("the journal of the generation is missing");
  return state;
}

void write_state(const std::string &folder, const StoreState &state) {
  std::string text = fmt::format("{} {}\nidentity {}\ngeneration {}\n", STATE_MAGIC, STATE_VERSION,
                                 text_of_identity(state.identity), state.generation);
  for (const JournalState &journal : state.journals)
    text += journal.is_sealed
                ? fmt::format("journal {} sealed {}\n", journal.number, file_words({journal.bytes, journal.crc32c}))
                : fmt::format("journal {} open\n", journal.number);
  append_checksum(text);
  replace_file(state_path(folder), text);
}

std::string current_environment() {
  return fmt::format("library {} lib_version {} byte_order little\nclock factor {} origin {} offset {} at {}\n",
                     TSLB_VERSION_STRING, TSLB_LIB_VERSION, tslb_get_timer_factor(), tslb_get_tsdb_start_ts(),
                     tslb_get_timestamp_offset(), tslb_get_time(nullptr));
}

std::string manifest_text(const Manifest &manifest) {
  const bool is_compressed = std::any_of(manifest.arrays.begin(), manifest.arrays.end(),
                                         [](const StoredArrayEntry &entry) { return entry.is_compressed; });
  std::string text = fmt::format("{} {}\nidentity {}\ngeneration {}\n{}", GENERATION_MAGIC,
                                 is_compressed ? COMPRESSED_GENERATION_VERSION : GENERATION_VERSION,
                                 text_of_identity(manifest.identity), manifest.generation, manifest.environment);
  text += manifest.payload ? fmt::format("payload 1 {}\n", file_words(*manifest.payload)) : "payload 0\n";
  if (manifest.position.number != 0)
    text += fmt::format("position {} {}\n", manifest.position.epoch, manifest.position.number);
  text += fmt::format("arrays {}\n", manifest.arrays.size());
  for (const StoredArrayEntry &entry : manifest.arrays)
    text += fmt::format(
        "array {} kind {} compat {:d} table {} rec_version {} daflag {} record_bytes {} slots {} direct {} "
        "{}{}\ndescription {}\n",
        entry.name, KIND_NAMES[entry.kind], entry.has_compat, entry.tbl_id, entry.rec_version, entry.daflag,
        entry.record_bytes, entry.n_slots, entry.n_direct, file_words(entry.file), entry.is_compressed ? " zstd" : "",
        entry.description);
  append_checksum(text);
  return text;
}

Manifest read_manifest(const std::string &folder) {
  const std::string path = folder + "/" + MANIFEST;
  const std::string text = text_of(File::open(path), MAX_TEXT_BYTES);
  Words words(text, path);
  Manifest manifest;
  expect_magic(words, GENERATION_MAGIC, GENERATION_VERSION, COMPRESSED_GENERATION_VERSION);
  manifest.identity = read_identity(words);
  read_named(words, "generation", manifest.generation);
  words.expect("library");
  manifest.environment = "library " + std::string(words.next());
  words.expect("lib_version");
  const auto lib_version = words.number<uint32_t>();
  if (lib_version != TSLB_LIB_VERSION) words.fail(fmt::format("unknown lib_version {}", lib_version));
  words.expect("byte_order");
  words.expect("little");
  manifest.environment += fmt::format(" lib_version {} byte_order little\n", lib_version);
  words.expect("clock");
  manifest.environment += "clock " + std::string(words.rest_of_line()) + "\n";
  words.expect("payload");
  if (words.take("1"))
    manifest.payload = read_file_words(words);
  else
    words.expect("0");
  if (words.take("position")) {
    manifest.position.epoch = words.number<uint64_t>();
    manifest.position.number = words.number<uint64_t>();
  }
  words.expect("arrays");
  for (uint32_t left = words.number<uint32_t>(); left > 0; --left) manifest.arrays.push_back(read_array(words));
  if (!words.at_end()) words.fail("unexpected text after the last array");
  if (manifest_text(manifest) != text) throw damaged(path, "not the text that this library writes");
  return manifest;
}

}  // namespace tslb_durable
