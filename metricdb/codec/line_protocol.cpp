#include "codec/line_protocol.h"

#include <emmintrin.h>
#include <fast_float/fast_float.h>
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstring>

#include "codec/line_scanner.h"
#include "codec/printable.h"

namespace metricdb {
namespace {

// Classes of bytes in a name.
constexpr uint8_t STOPS_MEASUREMENT = 1;  // comma, blank
constexpr uint8_t STOPS_NAME = 2;         // the same and the equals sign
constexpr uint8_t CONTROL = 4;

constexpr std::array<uint8_t, 256> make_byte_classes() {
  std::array<uint8_t, 256> classes{};
  for (size_t byte = 0; byte < 0x20; ++byte) classes[byte] = CONTROL;
  classes[0x7f] = CONTROL;
  classes[','] = classes[' '] = STOPS_MEASUREMENT | STOPS_NAME;
  classes['='] = STOPS_NAME;
  return classes;
}
constexpr std::array<uint8_t, 256> BYTE_CLASSES = make_byte_classes();

uint8_t class_of(char byte) {
  return BYTE_CLASSES[static_cast<unsigned char>(byte)];
}

// Returns the first byte that may be special in a name, or the end. Most bytes of a line are in names, so 16 are
// compared at a time.
const char *next_special(const char *at, const char *end) {
  for (; end - at >= 16; at += 16) {
    const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i *>(at));
    const auto are = [&](char byte) { return _mm_cmpeq_epi8(bytes, _mm_set1_epi8(byte)); };
    const __m128i up_to_blank = _mm_cmpeq_epi8(_mm_min_epu8(bytes, _mm_set1_epi8(' ')), bytes);
    const __m128i special =
        _mm_or_si128(_mm_or_si128(up_to_blank, are(',')), _mm_or_si128(_mm_or_si128(are('='), are('\\')), are(0x7f)));
    const int found = _mm_movemask_epi8(special);
    if (found != 0) return at + std::countr_zero(static_cast<unsigned>(found));
  }
  while (at != end && class_of(*at) == 0 && *at != '\\') ++at;
  return at;
}

// A part of the input for a message: short, and without control characters.
std::string quoted(std::string_view text) {
  constexpr size_t MAX_BYTES = 40;
  return '"' + printable(text.substr(0, MAX_BYTES)) + (text.size() > MAX_BYTES ? "...\"" : "\"");
}

std::optional<double> boolean_of(std::string_view text) {
  for (const char *word : {"t", "T", "true", "True", "TRUE"})
    if (text == word) return 1.0;
  for (const char *word : {"f", "F", "false", "False", "FALSE"})
    if (text == word) return 0.0;
  return std::nullopt;
}

// Converts the whole text to a number.
template <class Number>
std::errc number_of(std::string_view text, Number &number) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc()) return error;
  return end == text.data() + text.size() ? std::errc() : std::errc::invalid_argument;
}

void set_integer(ParsedField &field, int64_t integer) {
  field.integer = integer;
  field.value = static_cast<double>(integer);
}

// Converts an integer of up to 18 digits with its `i`. Returns its end, or null. So few digits cannot overflow.
const char *read_short_integer(const char *begin, const char *end, ParsedField &field) {
  constexpr ptrdiff_t MAX_DIGITS = 18;
  const bool is_negative = begin != end && *begin == '-';
  const char *const digits = begin + (is_negative ? 1 : 0);
  const char *at = digits;
  int64_t number = 0;
  for (; at != end && static_cast<unsigned char>(*at - '0') < 10; ++at) {
    if (at - digits == MAX_DIGITS) return nullptr;
    number = number * 10 + (*at - '0');
  }
  if (at == digits || at == end || *at != 'i') return nullptr;
  set_integer(field, is_negative ? -number : number);
  return at + 1;
}

// Converts a number that is not zero. Returns its end, or null. Zero is excluded, because only std::from_chars
// distinguishes it from a number that is too small.
const char *read_number(const char *begin, const char *end, double &value) {
  const auto [at, error] = fast_float::from_chars(begin, end, value);
  return error == std::errc() && std::isfinite(value) && value != 0.0 ? at : nullptr;
}

}  // namespace

std::string escaped_name(std::string_view text) {
  std::string name;
  for (const char byte : text) {
    if ((class_of(byte) & STOPS_NAME) != 0) name += '\\';
    name += byte;
  }
  return name;
}

bool LineParser::fail(std::string reason) {
  reason_ = std::move(reason);
  return false;
}

void LineParser::skip_blanks() {
  while (at(' ')) ++pos_;
}

LineParser::Outcome LineParser::parse(std::string_view text, const LikelyLine &likely, std::string_view following) {
  following_ = following;
  n_following_ = 0;
  const Outcome outcome = parse_parts(text, likely);
  if (outcome != Outcome::malformed || following.empty()) return outcome;
  // The fault can precede a string with line feeds, whose bytes must not be taken for lines.
  const std::string_view all(text.data(), static_cast<size_t>(following.data() + following.size() - text.data()));
  const size_t end = std::min(LineScanner().end_of_line(all), all.size());
  n_following_ = end - std::min(end, static_cast<size_t>(following.data() - text.data()));
  return outcome;
}

LineParser::Outcome LineParser::parse_parts(std::string_view text, const LikelyLine &likely) {
  pos_ = text.data();
  end_ = pos_ + text.size();
  skip_blanks();
  if (pos_ == end_ || at('#')) return Outcome::nothing;
  line_.fields.clear();
  line_.ts_ns.reset();
  line_.strings_skipped = 0;
  line_.n_likely = 0;
  likely_ = likely.fields;
  if (!likely.head.empty()) {
    line_.head = {pos_, likely.head.size()};
    pos_ += likely.head.size();
    return parse_fields() && parse_timestamp() ? Outcome::line : Outcome::malformed;
  }
  return parse_head() && parse_fields() && parse_timestamp() ? Outcome::line : Outcome::malformed;
}

// Returns the name from here to the first byte that ends it, which is not consumed.
std::string_view LineParser::name_until(uint8_t stops) {
  const char *const begin = pos_;
  const char *at = begin;
  for (;;) {
    at = next_special(at, end_);
    if (at == end_ || (class_of(*at) & (stops | CONTROL)) != 0) break;
    const bool escapes = *at == '\\' && at + 1 != end_ && (class_of(at[1]) & stops) != 0;
    at += escapes ? 2 : 1;
  }
  pos_ = at;
  return {begin, static_cast<size_t>(at - begin)};
}

bool LineParser::parse_head() {
  const char *const begin = pos_;
  tags_.clear();
  measurement_ = name_until(STOPS_MEASUREMENT);
  if (measurement_.empty()) return fail(at(',') ? "no measurement" : "control character in the measurement");
  bool sorted = true;
  while (at(',')) {
    ++pos_;
    if (!parse_tag()) return false;
    const size_t n = tags_.size();
    sorted = sorted && (n < 2 || tags_[n - 2].key < tags_[n - 1].key);
  }
  if (pos_ != end_ && !at(' '))
    return fail(fmt::format("control character after {}", quoted({begin, static_cast<size_t>(pos_ - begin)})));
  line_.head = {begin, static_cast<size_t>(pos_ - begin)};
  return sorted || join_sorted_head();
}

bool LineParser::parse_tag() {
  const char *const begin = pos_;
  const std::string_view key = name_until(STOPS_NAME);
  if (key.empty()) return fail("a tag has no name");
  if (!at('=')) return fail(fmt::format("tag {} has no value", quoted(key)));
  ++pos_;
  const std::string_view value = name_until(STOPS_NAME);
  if (value.empty()) return fail(fmt::format("tag {} has no value", quoted(key)));
  if (at('=')) return fail(fmt::format("tag {} has a second equals sign", quoted(key)));
  tags_.push_back({key, {begin, static_cast<size_t>(pos_ - begin)}});
  return true;
}

// Called if the tags are not sorted or a tag is repeated.
bool LineParser::join_sorted_head() {
  std::sort(tags_.begin(), tags_.end(), [](const Tag &a, const Tag &b) { return a.key < b.key; });
  const auto twice =
      std::adjacent_find(tags_.begin(), tags_.end(), [](const Tag &a, const Tag &b) { return a.key == b.key; });
  if (twice != tags_.end()) return fail(fmt::format("tag {} is given twice", quoted(twice->key)));
  sorted_head_ = measurement_;
  for (const Tag &tag : tags_) sorted_head_.append(1, ',').append(tag.text);
  line_.head = sorted_head_;
  return true;
}

bool LineParser::parse_fields() {
  skip_blanks();
  if (pos_ == end_) return fail("no fields");
  if (!parse_field()) return false;
  while (at(',')) {
    ++pos_;
    if (!parse_field()) return false;
  }
  return true;
}

// A known field name ends at the same equals sign in this line, because no name ends with a backslash.
bool LineParser::parse_likely_name(std::string_view &key) {
  const size_t index = line_.fields.size();
  if (index != line_.n_likely || index >= likely_.size()) return false;
  const std::string_view name = likely_[index].name;
  if (static_cast<size_t>(end_ - pos_) <= name.size() || pos_[name.size()] != '=') return false;
  if (std::memcmp(pos_, name.data(), name.size()) != 0) return false;
  key = {pos_, name.size()};
  pos_ += name.size();
  return true;
}

bool LineParser::parse_field() {
  std::string_view key;
  const bool is_likely = parse_likely_name(key);
  if (!is_likely) key = name_until(STOPS_NAME);
  if (key.empty()) return fail("a field has no name");
  if (!at('=')) return fail(fmt::format("field {} has no value", quoted(key)));
  ++pos_;
  if (at('"')) return parse_string(key);
  // In place: a copy would wait for the stores of its parts.
  ParsedField &field = line_.fields.emplace_back();
  field.key = key;
  if (parse_common_value(field)) {
    line_.n_likely += is_likely ? 1 : 0;
    return true;
  }
  const char *const begin = pos_;
  while (pos_ != end_ && *pos_ != ',' && *pos_ != ' ') ++pos_;
  if (parse_value({begin, static_cast<size_t>(pos_ - begin)}, field)) return true;
  line_.fields.pop_back();
  return false;
}

// Converts most values. Leaves unusual and invalid values to parse_value.
bool LineParser::parse_common_value(ParsedField &field) {
  const char *end = read_short_integer(pos_, end_, field);
  if (end == nullptr) end = read_number(pos_, end_, field.value);
  if (end == nullptr || (end != end_ && *end != ',' && *end != ' ')) return false;
  pos_ = end;
  return true;
}

bool LineParser::parse_string(std::string_view key) {
  ++pos_;
  const char *const limit = following_.empty() ? end_ : following_.data() + following_.size();
  while (pos_ != limit && *pos_ != '"') {
    const bool escapes = *pos_ == '\\' && pos_ + 1 != limit && (pos_[1] == '"' || pos_[1] == '\\');
    pos_ += escapes ? 2 : 1;
  }
  if (pos_ == limit) return fail(fmt::format("the string of field {} has no closing quote", quoted(key)));
  ++pos_;
  if (pos_ > end_) extend_line();
  if (pos_ != end_ && !at(',') && !at(' ')) return fail(fmt::format("text after the string of field {}", quoted(key)));
  if (line_.strings_skipped++ == 0) line_.first_string = key;
  return true;
}

// Moves the end of the line to the next line feed after a string.
void LineParser::extend_line() {
  const size_t begin = static_cast<size_t>(pos_ - following_.data());
  const size_t feed = std::min(following_.find('\n', begin), following_.size());
  n_following_ = std::min(feed + 1, following_.size());
  end_ = following_.data() + feed;
  if (end_ != pos_ && end_[-1] == '\r') --end_;
}

bool LineParser::parse_value(std::string_view text, ParsedField &field) {
  const std::string_view key = field.key;
  field.integer.reset();
  if (text.empty()) return fail(fmt::format("field {} has no value", quoted(key)));
  const std::string_view digits = text.substr(0, text.size() - 1);
  std::errc error;
  if (text.back() == 'i' || (text.back() == 'u' && !digits.starts_with('-'))) {
    int64_t integer = 0;
    error = number_of(digits, integer);
    set_integer(field, integer);
  } else {
    error = number_of(text, field.value);
    // The conversion accepts infinity and NaN, but line protocol does not.
    if (error == std::errc() && !std::isfinite(field.value)) error = std::errc::invalid_argument;
  }
  if (error == std::errc()) return true;
  if (error == std::errc::result_out_of_range)
    return fail(fmt::format("field {}: {} is out of range", quoted(key), quoted(text)));
  const std::optional<double> boolean = boolean_of(text);
  if (!boolean) return fail(fmt::format("field {}: {} is not a number, boolean or string", quoted(key), quoted(text)));
  field = {key, *boolean, {}};
  return true;
}

bool LineParser::parse_timestamp() {
  skip_blanks();
  if (pos_ == end_) return true;
  const char *const begin = pos_;
  while (pos_ != end_ && *pos_ != ' ') ++pos_;
  const std::string_view text(begin, static_cast<size_t>(pos_ - begin));
  skip_blanks();
  if (text == ts_text_ && pos_ == end_) {
    line_.ts_ns = ts_ns_;
    return true;
  }
  int64_t units = 0;
  int64_t ts_ns = 0;
  const std::errc error = number_of(text, units);
  if (error == std::errc::invalid_argument) return fail(fmt::format("timestamp {} is not an integer", quoted(text)));
  if (error != std::errc() || __builtin_mul_overflow(units, ns_per_unit_, &ts_ns))
    return fail(fmt::format("timestamp {} is out of range", quoted(text)));
  if (pos_ != end_) return fail("text after the timestamp");
  line_.ts_ns = ts_ns_ = ts_ns;
  ts_text_ = text;
  return true;
}

}  // namespace metricdb
