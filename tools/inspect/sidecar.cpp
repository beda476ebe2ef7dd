#include "sidecar.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <iterator>

#include "store_error.h"
#include "text_lines.h"

namespace inspect {
namespace {

using tslb_durable::Words;

constexpr std::string_view MAGIC = "tslb-sidecar ";
constexpr std::string_view VERSION = "1";
constexpr const char *FORMS[] = {"stream", "cut_stream", "blocks"};
constexpr const char *ADDRESSES[] = {"none", "big_buffer", "bit_vector", "wide"};
constexpr std::string_view TIME_PATTERN = "0000-00-00T00:00:00Z";  // each 0 is any digit
constexpr size_t SHA256_DIGITS = 64;

std::string clock_text(const clock_settings_t &clock) {
  return fmt::format("factor {} origin {} offset {}", clock.factor, clock.origin, clock.offset);
}

std::string layout_text(const layout_t &layout) {
  std::string text =
      fmt::format("layout {} bytes {} fields {}\n", layout.name, layout.record_bytes, layout.fields.size());
  for (const layout_field_t &field : layout.fields)
    text += fmt::format("field {} {} {}\n", field.name, field.offset, type_text(field.type));
  return text;
}

}  // namespace

const char *form_text(form_t form) {
  return FORMS[static_cast<size_t>(form)];
}

std::string sidecar_text(const sidecar_t &sidecar) {
  const sealed_headers_t &headers = sidecar.headers;
  std::string text =
      fmt::format("{}{}\nform {}\nbyte_order little\nclock {}\nversions library {} records {}\n", MAGIC, VERSION,
                  form_text(sidecar.form), clock_text(sidecar.clock), headers.lib_version, headers.rec_version);
  if (sidecar.table) text += fmt::format("table {}\n", *sidecar.table);
  if (sidecar.context) text += fmt::format("context {}\n", *sidecar.context);
  text +=
      fmt::format("address {}\ngeometry header_bytes {} daflag {} record_bytes {} slot_bytes {} direct {} slots {}\n",
                  ADDRESSES[static_cast<size_t>(sidecar.address)], headers.header_bytes, headers.daflag,
                  headers.record_bytes, headers.slot_bytes, headers.n_direct, headers.n_used);
  if (sidecar.layout) text += layout_text(*sidecar.layout);
  text += fmt::format("files {}\n", sidecar.files.size());
  for (const sealed_file_t &file : sidecar.files)
    fmt::format_to(std::back_inserter(text), "file {} bytes {} crc32c {:08x} sha256 {}\n", file.block_num, file.bytes,
                   file.crc32c, file.sha256);
  text += fmt::format("writer {}\ntime {}\n", sidecar.writer, sidecar.time);
  tslb_durable::append_checksum(text);
  return text;
}

// ---- Reading -------------------------------------------------------------------------------------------------------

namespace {

template <class Number>
void read_named(Words &words, std::string_view name, Number &value) {
  words.expect(name);
  value = words.number<Number>();
}

template <size_t COUNT>
size_t read_choice(Words &words, const char *const (&choices)[COUNT]) {
  const std::string_view word = words.next();
  for (size_t i = 0; i < COUNT; ++i)
    if (word == choices[i]) return i;
  words.fail(fmt::format("unknown word \"{}\"", word));
}

clock_settings_t read_clock(Words &words) {
  clock_settings_t clock;
  words.expect("factor");
  const std::string_view word = words.next();
  const auto [end, fault] = std::from_chars(word.data(), word.data() + word.size(), clock.factor);
  if (fault != std::errc() || end != word.data() + word.size() || !std::isfinite(clock.factor) || clock.factor <= 0)
    words.fail(fmt::format("clock factor \"{}\"", word));
  read_named(words, "origin", clock.origin);
  read_named(words, "offset", clock.offset);
  return clock;
}

layout_field_t read_field(Words &words) {
  layout_field_t field;
  words.expect("field");
  field.name = words.next();
  field.offset = words.number<uint32_t>();
  const std::string_view word = words.next();
  const auto type = parse_type(word);
  if (!type) words.fail(fmt::format("unknown type \"{}\"", word));
  field.type = *type;
  return field;
}

layout_t read_layout(Words &words) {
  layout_t layout;
  layout.name = words.next();
  read_named(words, "bytes", layout.record_bytes);
  uint64_t n_fields = 0;
  read_named(words, "fields", n_fields);
  // A wrong number ends the text early, before the fields take much memory.
  for (uint64_t i = 0; i < n_fields; ++i) layout.fields.push_back(read_field(words));
  const std::string fault = fault_of(layout);
  if (!fault.empty()) words.fail(fault);
  return layout;
}

void read_headers(Words &words, sealed_headers_t &headers) {
  words.expect("geometry");
  read_named(words, "header_bytes", headers.header_bytes);
  read_named(words, "daflag", headers.daflag);
  read_named(words, "record_bytes", headers.record_bytes);
  read_named(words, "slot_bytes", headers.slot_bytes);
  read_named(words, "direct", headers.n_direct);
  read_named(words, "slots", headers.n_used);
}

bool is_digest(std::string_view word) {
  return word.size() == SHA256_DIGITS && word.find_first_not_of("0123456789abcdef") == word.npos;
}

sealed_file_t read_file(Words &words) {
  sealed_file_t file;
  read_named(words, "file", file.block_num);
  read_named(words, "bytes", file.bytes);
  words.expect("crc32c");
  file.crc32c = words.number<uint32_t>(16);
  words.expect("sha256");
  file.sha256 = words.next();
  if (!is_digest(file.sha256)) words.fail("the SHA-256 is not 64 digits");
  return file;
}

void read_files(Words &words, sidecar_t &sidecar) {
  uint64_t n_files = 0;
  read_named(words, "files", n_files);
  if (n_files == 0 || (n_files > 1 && sidecar.form != form_t::BLOCKS)) words.fail("wrong number of files");
  for (uint64_t i = 0; i < n_files; ++i) {
    sidecar.files.push_back(read_file(words));
    if (sidecar.files.back().block_num != i) words.fail(fmt::format("file {} is missing", i));
  }
}

bool is_time(std::string_view text) {
  return std::equal(text.begin(), text.end(), TIME_PATTERN.begin(), TIME_PATTERN.end(),
                    [](char c, char wanted) { return wanted == '0' ? c >= '0' && c <= '9' : c == wanted; });
}

// Before the checksum is compared, because another version can have its checksum elsewhere.
void check_version(std::string_view text, const std::string &path) {
  if (!text.starts_with(MAGIC)) throw tslb_durable::damaged(path, "is not a sidecar");
  const std::string_view version = text.substr(MAGIC.size(), text.find('\n') - MAGIC.size());
  const bool is_number =
      !version.empty() && version.size() < 10 && version.find_first_not_of("0123456789") == version.npos;
  if (!is_number) throw tslb_durable::damaged(path, "is not a sidecar");
  if (version != VERSION)
    throw tslb_durable::damaged(path, fmt::format("has version {}; this program reads {}", version, VERSION));
}

}  // namespace

sidecar_t parse_sidecar(std::string_view text, const std::string &path) {
  check_version(text, path);
  Words words(text, path);
  sidecar_t sidecar;
  words.next();
  words.next();
  words.expect("form");
  sidecar.form = static_cast<form_t>(read_choice(words, FORMS));
  words.expect("byte_order");
  words.expect("little");
  words.expect("clock");
  sidecar.clock = read_clock(words);
  words.expect("versions");
  read_named(words, "library", sidecar.headers.lib_version);
  read_named(words, "records", sidecar.headers.rec_version);
  if (words.take("table")) sidecar.table = words.number<int32_t>();
  if (words.take("context")) sidecar.context = words.rest_of_line();
  words.expect("address");
  sidecar.address = static_cast<address_t>(read_choice(words, ADDRESSES));
  read_headers(words, sidecar.headers);
  if (words.take("layout")) sidecar.layout = read_layout(words);
  if (sidecar.layout && sidecar.layout->record_bytes != sidecar.headers.record_bytes)
    words.fail("the layout has another length than the records");
  read_files(words, sidecar);
  words.expect("writer");
  sidecar.writer = words.rest_of_line();
  words.expect("time");
  sidecar.time = words.rest_of_line();
  if (!is_time(sidecar.time)) words.fail("the time is not one");
  // Other blanks, numbers with leading zeros, and lines after the last one.
  if (!words.at_end() || sidecar_text(sidecar) != text)
    throw tslb_durable::damaged(path, "is not the text that is written for its content");
  return sidecar;
}

}  // namespace inspect
