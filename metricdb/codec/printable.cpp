#include "codec/printable.h"

namespace metricdb {
namespace {

bool is_in(char byte, unsigned first, unsigned last) {
  const auto value = static_cast<unsigned char>(byte);
  return value >= first && value <= last;
}

// Returns the length of the character at the front; 0 if it is a control character or invalid.
size_t shown_length(std::string_view text) {
  const char first = text[0];
  if (is_in(first, 0x20, 0x7e)) return 1;
  const size_t length = is_in(first, 0xc2, 0xdf) ? 2 : is_in(first, 0xe0, 0xef) ? 3 : is_in(first, 0xf0, 0xf4) ? 4 : 0;
  if (length == 0 || length > text.size()) return 0;
  for (const char byte : text.substr(1, length - 1))
    if (!is_in(byte, 0x80, 0xbf)) return 0;
  return is_in(first, 0xc2, 0xc2) && is_in(text[1], 0x80, 0x9f) ? 0 : length;
}

}  // namespace

std::string printable(std::string_view text, std::string_view kept) {
  std::string shown;
  shown.reserve(text.size());
  while (!text.empty()) {
    const size_t length = kept.find(text[0]) != kept.npos ? 1 : shown_length(text);
    if (length == 0)
      shown += '?';
    else
      shown += text.substr(0, length);
    text.remove_prefix(length == 0 ? 1 : length);
  }
  return shown;
}

}  // namespace metricdb
