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

struct Malformed {};

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

// The bytes of one line, taken from the front.
class Bytes {
 public:
  explicit Bytes(std::string_view line) : rest_(line) {}

  bool done() const { return rest_.empty(); }
  bool starts_with(char byte) const { return rest_.starts_with(byte); }

  bool take_if(char byte) {
    if (!starts_with(byte)) return false;
    rest_.remove_prefix(1);
    return true;
  }

  char take() {
    if (done()) throw Malformed();
    const char byte = rest_.front();
    rest_.remove_prefix(1);
    return byte;
  }

  void take_blanks() {
    while (take_if(' ')) {
    }
  }

  // A name in clear, up to one of `stops` or the end.
  std::string take_name(std::string_view stops) {
    std::string name;
    while (!done() && stops.find(rest_.front()) == stops.npos) {
      char byte = take();
      if (is_control(byte)) throw Malformed();
      if (byte == '\\' && !done() && stops.find(rest_.front()) != stops.npos) byte = take();
      name += byte;
    }
    if (name.empty()) throw Malformed();
    return name;
  }

  std::string take_word() {
    std::string word;
    while (!done() && !starts_with(',') && !starts_with(' ')) word += take();
    return word;
  }

  void take_string() {
    for (char byte = take(); byte != '"'; byte = take())
      if (byte == '\\' && (starts_with('"') || starts_with('\\'))) take();
    if (!done() && !starts_with(',') && !starts_with(' ')) throw Malformed();
  }

 private:
  std::string_view rest_;
};

std::string take_head(Bytes &bytes) {
  std::string head = escape(bytes.take_name(", "), ", ");
  std::map<std::string, std::string> tags;
  while (bytes.take_if(',')) {
    const std::string key = escape(bytes.take_name(",= "), ",= ");
    if (!bytes.take_if('=')) throw Malformed();
    const std::string value = escape(bytes.take_name(",= "), ",= ");
    if (bytes.starts_with('=') || !tags.emplace(key, value).second) throw Malformed();
  }
  for (const auto &[key, value] : tags) head += "," + key + "=" + value;
  return head;
}

size_t count_digits(const std::string &text, size_t &pos) {
  const size_t begin = pos;
  while (pos < text.size() && text[pos] >= '0' && text[pos] <= '9') ++pos;
  return pos - begin;
}

// -12.5e-3: strtod takes more than that.
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
  if (!is_integer(text, true)) throw Malformed();
  errno = 0;
  const long long value = std::strtoll(text.c_str(), nullptr, 10);
  if (errno != 0) throw Malformed();
  return value;
}

double unsigned_of(const std::string &text) {
  if (!is_integer(text, false)) throw Malformed();
  errno = 0;
  const unsigned long long value = std::strtoull(text.c_str(), nullptr, 10);
  if (errno != 0) throw Malformed();
  return static_cast<double>(value);
}

double value_of(const std::string &word) {
  static const std::set<std::string> yes = {"t", "T", "true", "True", "TRUE"};
  static const std::set<std::string> no = {"f", "F", "false", "False", "FALSE"};
  if (yes.contains(word)) return 1.0;
  if (no.contains(word)) return 0.0;
  if (word.ends_with('i')) return static_cast<double>(integer_of(word.substr(0, word.size() - 1)));
  if (word.ends_with('u')) return unsigned_of(word.substr(0, word.size() - 1));
  if (!is_decimal(word)) throw Malformed();
  errno = 0;
  const double value = std::strtod(word.c_str(), nullptr);
  // A value too small for full precision is marked as well, and is good; what became 0 or infinite is not.
  if (errno != 0 && (value == 0.0 || std::isinf(value))) throw Malformed();
  return value;
}

std::vector<ReferencePoint> read_points(Bytes &bytes, int64_t ns_per_unit, int64_t now_ns) {
  std::vector<ReferencePoint> points;
  const std::string head = take_head(bytes);
  if (!bytes.done() && !bytes.starts_with(' ')) throw Malformed();
  bytes.take_blanks();
  do {
    std::string key = head + " " + escape(bytes.take_name(",= "), ",= ");
    if (!bytes.take_if('=')) throw Malformed();
    if (bytes.take_if('"')) {
      bytes.take_string();
      continue;
    }
    const double value = value_of(bytes.take_word());
    if (key.size() > MAX_KEY_BYTES) throw Malformed();
    points.push_back({std::move(key), now_ns, value});
  } while (bytes.take_if(','));
  bytes.take_blanks();
  if (bytes.done()) return points;

  const int64_t units = integer_of(bytes.take_name(" "));
  bytes.take_blanks();
  if (!bytes.done() || units > INT64_MAX / ns_per_unit || units < INT64_MIN / ns_per_unit) throw Malformed();
  for (ReferencePoint &point : points) point.ts_ns = units * ns_per_unit;
  return points;
}

}  // namespace

std::vector<ReferencePoint> reference_points(std::string_view line, int64_t ns_per_unit, int64_t now_ns) {
  Bytes bytes(line);
  bytes.take_blanks();
  if (bytes.done() || bytes.starts_with('#')) return {};
  try {
    return read_points(bytes, ns_per_unit, now_ns);
  } catch (const Malformed &) {
    return {};
  }
}

}  // namespace metricdb
