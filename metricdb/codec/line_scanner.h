// Finds the ends of lines of line protocol without parsing them. A quoted string of a field can contain line feeds, which
// end no line. Malformed lines end at the first line feed outside of what would be a string.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace metricdb {

class LineScanner {
 public:
  static constexpr size_t npos = std::string_view::npos;

  // Returns the size of the current line in `text`, its line feed included, and begins the next line. Without the line's
  // end it returns npos, and the text of the next call must continue this one.
  size_t end_of_line(std::string_view text);

 private:
  enum class State : uint8_t {
    begin,  // only blanks so far
    comment,
    head,    // measurement and tags
    fields,  // and the timestamp
    value,   // the previous byte is the equals sign before a value
    string,
  };

  size_t step_to_end(std::string_view text);
  void step(char byte);
  bool is_escape(char byte) const;

  State state_ = State::begin;
  bool after_backslash_ = false;  // the previous byte is a backslash that escapes this one, if that can be escaped
};

}  // namespace metricdb
