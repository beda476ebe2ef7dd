// The parser's view of the tokens: the current one, and what the grammar expects there.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "query/influxql_ast.h"
#include "query/influxql_lexer.h"

namespace metricdb::influxql {

class TokenReader {
 public:
  TokenReader(std::string_view text, int64_t now_ns) : text_(text), now_ns_(now_ns), lexer_(text) { advance(); }

  const Token &current() const { return token_; }
  int64_t now_ns() const { return now_ns_; }
  bool is_at_end() const { return token_.kind == TokenKind::end; }
  bool is_keyword(std::string_view keyword) const;  // in upper case
  bool is_symbol(std::string_view symbol) const { return token_.kind == TokenKind::symbol && token_.text == symbol; }
  bool is_name() const;  // a quoted name, or one that is not reserved
  bool is_pattern() const { return is_symbol("/"); }

  void advance() { token_ = lexer_.next(); }
  // Advances if the current token is this one.
  bool accept_keyword(std::string_view keyword);
  bool accept_symbol(std::string_view symbol);
  // Advances over the token, or throws BadStatement.
  void expect_keyword(std::string_view keyword);
  void expect_symbol(std::string_view symbol);
  std::string expect_name();
  int64_t expect_integer();
  int64_t expect_duration();
  double expect_number();  // may be negative
  Pattern expect_pattern();

  // Advances over a comma, which is followed by another entry of a list. Throws BadStatement if the list is too long.
  bool accept_comma(size_t n_entries);

  [[noreturn]] void refuse_found(std::string_view expected) const;
  [[noreturn]] void refuse_at(size_t offset, std::string_view why) const { refuse_statement(text_, offset, why); }

  // Parentheses nest. Each level is a call of the parser and of what visits its result.
  class Nesting {
   public:
    explicit Nesting(TokenReader &reader) : reader_(reader) {
      if (++reader_.depth_ > DEPTH_MAX) reader_.refuse_at(reader_.token_.offset, "more than 64 nested parts");
    }
    ~Nesting() { --reader_.depth_; }
    Nesting(const Nesting &) = delete;
    Nesting &operator=(const Nesting &) = delete;

   private:
    static constexpr int DEPTH_MAX = 64;
    TokenReader &reader_;
  };

 private:
  std::string found() const;

  std::string_view text_;
  int64_t now_ns_;
  Lexer lexer_;
  Token token_;
  int depth_ = 0;
  size_t n_patterns_ = 0;
};

// influxql_parse_fields.cpp: the list of fields of a SELECT.
std::vector<SelectedField> parse_fields(TokenReader &reader);

// influxql_parse_condition.cpp: the condition after WHERE. Conditions on time become the range.
void parse_condition(TokenReader &reader, Condition &condition, TimeRange &range);

// "::tag" or "::field" after a name, if it is there.
ReferenceKind parse_reference_kind(TokenReader &reader);

}  // namespace metricdb::influxql
