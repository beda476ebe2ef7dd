// Splits InfluxQL into tokens.
#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

namespace metricdb::influxql {

// A text is not valid InfluxQL, or uses a part of it that is not supported. The message has the position.
class BadStatement : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Throws BadStatement: "error parsing query: WHY at line 1, char 8". Characters are those of UTF-8, counted from 1.
[[noreturn]] void refuse_statement(std::string_view text, size_t offset, std::string_view why);

enum class TokenKind {
  end,
  name,         // cpu, select: a keyword is a name
  quoted_name,  // "cpu load"
  string,       // 'host a'
  integer,      // 15
  number,       // 1.5
  duration,     // 1h30m
  pattern,      // /cpu.*/, only from read_pattern
  symbol        // all others, one or two bytes
};

struct Token {
  TokenKind kind = TokenKind::end;
  std::string text;     // without quotes and escapes
  size_t offset = 0;    // of its first byte
  int64_t integer = 0;  // value of an integer; nanoseconds of a duration
  double number = 0.0;  // value of an integer or number
};

class Lexer {
 public:
  explicit Lexer(std::string_view text) : text_(text) {}

  // Returns the next token. Blanks and comments are skipped. Throws BadStatement.
  Token next();

  // Reads the regular expression whose first slash is at `offset`, and continues after it. Only the grammar
  // distinguishes it from a division.
  Token read_pattern(size_t offset);

 private:
  bool skip_comment();
  void skip_blanks();
  Token read_quoted(char quote, TokenKind kind);
  Token read_number();
  Token read_duration(size_t begin);
  Token read_symbol();
  char peek(size_t distance = 0) const { return pos_ + distance < text_.size() ? text_[pos_ + distance] : '\0'; }

  std::string_view text_;
  size_t pos_ = 0;
};

}  // namespace metricdb::influxql
