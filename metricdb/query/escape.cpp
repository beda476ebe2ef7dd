#include "query/escape.h"

#include <fmt/format.h>

#include <algorithm>

namespace metricdb {
namespace {

constexpr std::string_view REPLACEMENT = "\xef\xbf\xbd";

bool is_continuation(char byte) {
  return (static_cast<unsigned char>(byte) & 0xc0) == 0x80;
}

// Returns the length of a sequence with this first byte, or 0 if no sequence begins with it.
size_t length_of(unsigned char first) {
  if (first < 0x80) return 1;
  if (first < 0xc2 || first > 0xf4) return 0;
  return first < 0xe0 ? 2 : first < 0xf0 ? 3 : 4;
}

// Returns whether the second byte belongs to an overlong sequence, a surrogate, or a value after the last character.
bool is_excluded(unsigned char first, unsigned char second) {
  return (first == 0xe0 && second < 0xa0) || (first == 0xed && second > 0x9f) || (first == 0xf0 && second < 0x90) ||
         (first == 0xf4 && second > 0x8f);
}

// Returns the length of the character at the front, or 0 if it is invalid.
size_t character_length(std::string_view text) {
  const auto first = static_cast<unsigned char>(text[0]);
  const size_t length = length_of(first);
  if (length == 0 || length > text.size()) return 0;
  const std::string_view others = text.substr(1, length - 1);
  if (!std::all_of(others.begin(), others.end(), is_continuation)) return 0;
  return length > 2 && is_excluded(first, static_cast<unsigned char>(text[1])) ? 0 : length;
}

// Copies valid characters, and replaces each invalid byte. `escape` converts single-byte characters.
template <class Escape>
std::string escape_characters(std::string_view text, Escape escape) {
  std::string escaped;
  while (!text.empty()) {
    const size_t length = character_length(text);
    if (length == 0)
      escaped += REPLACEMENT;
    else if (length == 1)
      escaped += escape(text[0]);
    else
      escaped += text.substr(0, length);
    text.remove_prefix(std::max<size_t>(length, 1));
  }
  return escaped;
}

bool is_control(char byte) {
  return static_cast<unsigned char>(byte) < 0x20;
}

}  // namespace

std::string json_string(std::string_view text) {
  const auto escape = [](char byte) {
    if (byte == '"' || byte == '\\') return std::string{'\\', byte};
    return is_control(byte) ? fmt::format("\\u{:04x}", static_cast<unsigned>(byte)) : std::string(1, byte);
  };
  return fmt::format("\"{}\"", escape_characters(text, escape));
}

std::string xml_text(std::string_view text) {
  return escape_characters(text, [](char byte) -> std::string {
    if (byte == '&') return "&amp;";
    if (byte == '<') return "&lt;";
    if (byte == '>') return "&gt;";
    if (byte == '"') return "&quot;";
    // XML excludes most control characters, even as character references.
    return is_control(byte) ? std::string(REPLACEMENT) : std::string(1, byte);
  });
}

std::string csv_field(std::string_view text) {
  if (text.find_first_of(",\"\r\n") == text.npos) return std::string(text);
  std::string field = "\"";
  for (const char byte : text) field.append(byte == '"' ? 2 : 1, byte);
  return field + "\"";
}

}  // namespace metricdb
