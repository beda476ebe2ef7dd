// Reads InfluxDB line protocol, one line at a time, without allocating on the common path.
//
//   measurement[,tag=value...] field=value[,field=value...] [timestamp]
//
// Terms
//   name    a measurement, tag key, tag value or field key. A backslash ahead of a comma, an equals sign or a
//           blank (in a measurement: a comma or a blank) makes that byte part of the name; any other
//           backslash stands for itself. Inside a name every such byte is escaped, so there is one way to
//           write a name, and names are kept and compared as they are written.
//   head    the measurement with its tags sorted by key: what the series of one line have in common.
//   series key   head, a blank and the field key, as in `cpu,core=0,host=a usage`. With `=1` behind it, it is
//   a
//           line again, which gives the same key.
//
// Narrower than the protocol: a line ends at the next line feed, inside a quoted string too; names hold no
// control characters; every number becomes a double, so integers beyond 2^53 are rounded.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace metricdb {

// Nanoseconds in one unit of the timestamps of a file.
enum class Precision : int64_t { ns = 1, us = 1'000, ms = 1'000'000, s = 1'000'000'000 };

struct ParsedField {
  std::string_view key;
  double value;  // of a boolean: 0 or 1
};

// A field that came with a head before, and the number that its reader gave it.
struct KnownField {
  std::string_view name;
  uint32_t series;
};

// What a line is likely to be, from the lines before: it begins with this head and a blank, and these fields follow. A
// line that goes on otherwise comes out all the same; one that goes on like this costs less.
struct LikelyLine {
  std::string_view head;  // as `line().head` had it once; empty: nothing is known
  std::span<const KnownField> fields;
};

// One line. The texts point into the line or the parser, and hold until its next line.
struct ParsedLine {
  std::string_view head;
  std::vector<ParsedField> fields;  // in the line's order; a key given twice stands here twice
  std::optional<int64_t> ts_ns;
  uint32_t strings_skipped = 0;  // fields with a quoted string, which are not stored
  size_t n_likely = 0;           // so many of `fields`, from the first on, are those of the likely line
};

class LineParser {
 public:
  enum class Outcome { nothing, line, malformed };  // nothing: blank or a comment

  explicit LineParser(Precision precision = Precision::ns) { set_precision(precision); }

  void set_precision(Precision precision) {
    ns_per_unit_ = static_cast<int64_t>(precision);
    ts_text_.clear();
  }

  // Reads one line, given without its line end. Afterwards `line()` holds if it was one, and `reason()` says
  // what is wrong with it if it was malformed.
  Outcome parse(std::string_view text, const LikelyLine &likely = {});

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
  bool parse_common_value(double &value);
  bool parse_string(std::string_view key);
  bool parse_value(std::string_view key, std::string_view text, double &value);
  bool parse_timestamp();
  std::string_view name_until(uint8_t stops);
  bool at(char byte) const { return pos_ != end_ && *pos_ == byte; }
  void skip_blanks();
  bool fail(std::string reason);

  int64_t ns_per_unit_;
  const char *pos_ = nullptr;  // the next byte of the line
  const char *end_ = nullptr;
  std::string_view measurement_;
  std::span<const KnownField> likely_;
  std::vector<Tag> tags_;
  std::string sorted_head_;
  std::string ts_text_;  // of the last timestamp: those of a batch are often alike
  int64_t ts_ns_ = 0;    // and its value
  ParsedLine line_;
  std::string reason_;
};

// Text with a backslash ahead of each comma, equals sign and blank: a tag key, tag value or field key.
std::string escaped_name(std::string_view text);

// Takes the next line off the front of `rest`, without its line feed and a carriage return ahead of it. False
// at the end of the text.
inline bool next_line(std::string_view &rest, std::string_view &line) {
  if (rest.empty()) return false;
  const size_t feed = rest.find('\n');
  line = rest.substr(0, feed);
  rest.remove_prefix(feed == rest.npos ? rest.size() : feed + 1);
  if (line.ends_with('\r')) line.remove_suffix(1);
  return true;
}

}  // namespace metricdb
