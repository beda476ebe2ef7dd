#include "extra/reference_reader.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <map>
#include <set>
#include <utility>

namespace metricdb {
namespace {

struct MalformedLine {};

constexpr size_t MAX_KEY_BYTES = 65'534;

bool is_control(char byte) {
  return (byte >= 0 && byte < ' ') || byte == 0x7f;
}

std::string escape(const std::string &text, std::string_view special) {
  std::string escaped;
  for (const char byte : text) {
    if (special.find(byte) != special.npos) escaped += '\\';
    escaped += byte;
  }
  return escaped;
}

// The bytes of one line, consumed from the front.
class Bytes {
 public:
  explicit Bytes(std::string_view line) : rest_(line) {}

  bool done() const { return rest_.empty(); }
  bool starts_with(char byte) const { return rest_.starts_with(byte); }

  bool skip_if(char byte) {
    if (!starts_with(byte)) return false;
    rest_.remove_prefix(1);
    return true;
  }

  char read() {
    if (done()) throw MalformedLine();
    const char byte = rest_.front();
    rest_.remove_prefix(1);
    return byte;
  }

  void skip_blanks() {
    while (skip_if(' ')) {
    }
  }

  // Reads a name up to one of `stops` or the end, and removes its escapes.
  std::string read_name(std::string_view stops) {
    std::string name;
    while (!done() && stops.find(rest_.front()) == stops.npos) {
      char byte = read();
      if (is_control(byte)) throw MalformedLine();
      if (byte == '\\' && !done() && stops.find(rest_.front()) != stops.npos) byte = read();
      name += byte;
    }
    if (name.empty()) throw MalformedLine();
    return name;
  }

  std::string read_word() {
    std::string word;
    while (!done() && !starts_with(',') && !starts_with(' ')) word += read();
    return word;
  }

  void skip_string() {
    for (char byte = read(); byte != '"'; byte = read())
      if (byte == '\\' && (starts_with('"') || starts_with('\\'))) read();
    if (!done() && !starts_with(',') && !starts_with(' ')) throw MalformedLine();
  }

 private:
  std::string_view rest_;
};

std::string read_head(Bytes &bytes) {
  std::string head = escape(bytes.read_name(", "), ", ");
  std::map<std::string, std::string> tags;
  while (bytes.skip_if(',')) {
    const std::string key = escape(bytes.read_name(",= "), ",= ");
    if (!bytes.skip_if('=')) throw MalformedLine();
    const std::string value = escape(bytes.read_name(",= "), ",= ");
    if (bytes.starts_with('=') || !tags.emplace(key, value).second) throw MalformedLine();
  }
  for (const auto &[key, value] : tags) head += "," + key + "=" + value;
  return head;
}

size_t count_digits(const std::string &text, size_t &pos) {
  const size_t begin = pos;
  while (pos < text.size() && text[pos] >= '0' && text[pos] <= '9') ++pos;
  return pos - begin;
}

// A number like -12.5e-3. strtod accepts other forms too.
bool is_decimal(const std::string &text) {
  size_t pos = text.starts_with('-') ? 1 : 0;
  size_t digits = count_digits(text, pos);
  if (pos < text.size() && text[pos] == '.') digits += count_digits(text, ++pos);
  if (digits == 0) return false;
  if (pos == text.size()) return true;
  if (text[pos] != 'e' && text[pos] != 'E') return false;
  ++pos;
  if (pos < text.size() && (text[pos] == '-' || text[pos] == '+')) ++pos;
  return count_digits(text, pos) > 0 && pos == text.size();
}

bool is_integer(const std::string &text, bool with_sign) {
  size_t pos = with_sign && text.starts_with('-') ? 1 : 0;
  return count_digits(text, pos) > 0 && pos == text.size();
}

int64_t integer_of(const std::string &text) {
  if (!is_integer(text, true)) throw MalformedLine();
  errno = 0;
  const long long value = std::strtoll(text.c_str(), nullptr, 10);
  if (errno != 0) throw MalformedLine();
  return value;
}

// With the suffix of an integer.
std::optional<int64_t> suffixed_integer_of(const std::string &word) {
  if (!word.ends_with('i') && !word.ends_with('u')) return std::nullopt;
  if (word.ends_with('u') && word.starts_with('-')) throw MalformedLine();
  return integer_of(word.substr(0, word.size() - 1));
}

double value_of(const std::string &word) {
  static const std::set<std::string> yes = {"t", "T", "true", "True", "TRUE"};
  static const std::set<std::string> no = {"f", "F", "false", "False", "FALSE"};
  if (yes.contains(word)) return 1.0;
  if (no.contains(word)) return 0.0;
  if (!is_decimal(word)) throw MalformedLine();
  errno = 0;
  const double value = std::strtod(word.c_str(), nullptr);
  // A denormal number sets errno too, and is valid. A number that became 0 or infinite is not.
  if (errno != 0 && (value == 0.0 || std::isinf(value))) throw MalformedLine();
  return value;
}

std::vector<ReferencePoint> read_points(Bytes &bytes, int64_t ns_per_unit, int64_t now_ns) {
  std::vector<ReferencePoint> points;
  const std::string head = read_head(bytes);
  if (!bytes.done() && !bytes.starts_with(' ')) throw MalformedLine();
  bytes.skip_blanks();
  do {
    std::string key = head + " " + escape(bytes.read_name(",= "), ",= ");
    if (!bytes.skip_if('=')) throw MalformedLine();
    if (bytes.skip_if('"')) {
      bytes.skip_string();
      continue;
    }
    const std::string word = bytes.read_word();
    const std::optional<int64_t> integer = suffixed_integer_of(word);
    const double value = integer ? static_cast<double>(*integer) : value_of(word);
    if (key.size() > MAX_KEY_BYTES) throw MalformedLine();
    points.push_back({std::move(key), now_ns, value, integer});
  } while (bytes.skip_if(','));
  bytes.skip_blanks();
  if (bytes.done()) return points;

  const int64_t units = integer_of(bytes.read_name(" "));
  bytes.skip_blanks();
  if (!bytes.done() || units > INT64_MAX / ns_per_unit || units < INT64_MIN / ns_per_unit) throw MalformedLine();
  for (ReferencePoint &point : points) point.ts_ns = units * ns_per_unit;
  return points;
}

// Returns the index of a string's closing quote, or the end of the text.
size_t string_end(std::string_view text, size_t at) {
  while (at < text.size() && text[at] != '"')
    at += text[at] == '\\' && at + 1 < text.size() && (text[at + 1] == '"' || text[at + 1] == '\\') ? 2 : 1;
  return at;
}

// Returns the index of the line feed that ends the first line, or the end of the text.
size_t line_end(std::string_view text) {
  constexpr std::string_view ESCAPED = ", =";
  const size_t begin = std::min(text.find_first_not_of(' '), text.size());
  const size_t feed = std::min(text.find('\n'), text.size());
  if (text.substr(begin).starts_with('#')) return feed;
  bool is_in_fields = false;
  size_t at = begin;
  while (at < text.size() && text[at] != '\n') {
    const bool escapes = text[at] == '\\' && at + 1 < text.size() && ESCAPED.find(text[at + 1]) != ESCAPED.npos;
    const bool begins_string = is_in_fields && text.substr(at).starts_with("=\"");
    is_in_fields = is_in_fields || text[at] == ' ';
    at = begins_string ? std::min(string_end(text, at + 2) + 1, text.size()) : at + (escapes ? 2 : 1);
  }
  return at;
}

}  // namespace

bool next_reference_line(std::string_view &text, std::string_view &line) {
  if (text.empty()) return false;
  const size_t end = line_end(text);
  line = text.substr(0, end);
  text.remove_prefix(std::min(end + 1, text.size()));
  if (line.ends_with('\r')) line.remove_suffix(1);
  return true;
}

std::vector<ReferencePoint> reference_points(std::string_view line, int64_t ns_per_unit, int64_t now_ns) {
  Bytes bytes(line);
  bytes.skip_blanks();
  if (bytes.done() || bytes.starts_with('#')) return {};
  try {
    return read_points(bytes, ns_per_unit, now_ns);
  } catch (const MalformedLine &) {
    return {};
  }
}

}  // namespace metricdb
