// Reads InfluxDB line protocol, one line at a time, without allocating on the common path.
//
//   measurement[,tag=value...] field=value[,field=value...] [timestamp]
//
// Terms
//   name    a measurement, tag key, tag value or field key. A backslash before a comma, an equals sign or a blank (in a
//           measurement: a comma or a blank) makes that byte part of the name. Any other backslash is an ordinary byte.
//           Every such byte inside a name must be escaped, so each name has exactly one text. Names are stored and
//           compared as they are written.
//   head    the measurement with its tags sorted by key; common to the series of one line.
//   series key   head, a blank and the field key, as in `cpu,core=0,host=a usage`. With `=1` appended it is a line
//           again, which has the same key.
//
// A quoted string can contain line feeds, so a line ends at the first line feed outside of its strings. A string without
// a closing quote contains the rest of the text.
//
// Restrictions: names contain no control characters. Unsigned integers above 2^63 - 1 are out of
// range.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace metricdb {

// Nanoseconds per unit of the timestamps.
enum class Precision : int64_t { ns = 1, us = 1'000, ms = 1'000'000, s = 1'000'000'000 };

struct ParsedField {
  std::string_view key;
  double value = 0.0;                   // 0 or 1 for a boolean
  std::optional<int64_t> integer = {};  // the value, if it has the suffix of an integer
};

// A field of an earlier line with the same head, and its series.
struct KnownField {
  std::string_view name;
  uint32_t series;
};

// The expected content of a line, from earlier lines: it begins with this head and a blank, and has these fields. The
// head must be true; the fields make parsing faster if they are, and it is correct in any case.
struct LikelyLine {
  std::string_view head;  // `line().head` of an earlier line; empty: nothing is expected
  std::span<const KnownField> fields;
};

// One line. The texts point into the line or the parser, and are valid until the next call of `parse`.
struct ParsedLine {
  std::string_view head;
  std::vector<ParsedField> fields;  // in the line's order, repeated keys included
  std::optional<int64_t> ts_ns;
  uint32_t strings_skipped = 0;   // fields with a quoted string, which are not stored
  std::string_view first_string;  // the name of the first of them
  size_t n_likely = 0;            // number of leading fields that are those of the likely line
};

class LineParser {
 public:
  enum class Outcome { nothing, line, malformed };  // nothing: empty or a comment

  explicit LineParser(Precision precision = Precision::ns) { set_precision(precision); }

  void set_precision(Precision precision) {
    ns_per_unit_ = static_cast<int64_t>(precision);
    ts_text_.clear();
  }

  // Parses one line, given without its line end. Sets `line()`, or `reason()` if the line is malformed.
  //
  // following  the text after that line end, in the same memory. If a string is open at the line end, the line continues
  //            there.
  Outcome parse(std::string_view text, const LikelyLine &likely = {}, std::string_view following = {});

  // Number of bytes of `following` that belong to the last line, its line feed included.
  size_t n_following() const { return n_following_; }

  const ParsedLine &line() const { return line_; }
  const std::string &reason() const { return reason_; }

 private:
  struct Tag {
    std::string_view key;
    std::string_view text;  // `key=value`
  };

  bool parse_head();
  bool parse_tag();
  bool join_sorted_head();
  bool parse_fields();
  bool parse_field();
  bool parse_likely_name(std::string_view &key);
  bool parse_common_value(ParsedField &field);
  bool parse_string(std::string_view key);
  void extend_line();
  Outcome parse_parts(std::string_view text, const LikelyLine &likely);
  bool parse_value(std::string_view text, ParsedField &field);
  bool parse_timestamp();
  std::string_view name_until(uint8_t stops);
  bool at(char byte) const { return pos_ != end_ && *pos_ == byte; }
  void skip_blanks();
  bool fail(std::string reason);

  int64_t ns_per_unit_;
  const char *pos_ = nullptr;  // the next byte of the line
  const char *end_ = nullptr;
  std::string_view following_;
  size_t n_following_ = 0;
  std::string_view measurement_;
  std::span<const KnownField> likely_;
  std::vector<Tag> tags_;
  std::string sorted_head_;
  std::string ts_text_;  // the last timestamp; many lines repeat it
  int64_t ts_ns_ = 0;    // its value
  ParsedLine line_;
  std::string reason_;
};

// Returns the text with a backslash before each comma, equals sign and blank: a tag key, tag value or field key.
std::string escaped_name(std::string_view text);

// Removes the next line from the front of `rest`, and sets `line` without its line feed and a carriage return before
// it. Returns false at the end of the text.
inline bool next_line(std::string_view &rest, std::string_view &line) {
  if (rest.empty()) return false;
  const size_t feed = rest.find('\n');
  line = rest.substr(0, feed);
  rest.remove_prefix(feed == rest.npos ? rest.size() : feed + 1);
  if (line.ends_with('\r')) line.remove_suffix(1);
  return true;
}

}  // namespace metricdb
