#include "query/influxql_token_reader.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <stdexcept>

namespace metricdb::influxql {
namespace {

constexpr size_t SHOWN_BYTES_MAX = 60;
constexpr size_t ENTRIES_MAX = 1'000;  // of a list
constexpr size_t PATTERNS_MAX = 100;   // of all statements; each has memory for its automaton

// Names must be quoted if they are one of these: the grammar has them where a name can end.
constexpr std::string_view RESERVED[] = {"AND",   "AS",     "ASC",  "BY",     "CREATE",  "DESC",  "FROM",
                                         "GROUP", "IN",     "INTO", "LIMIT",  "OFFSET",  "ON",    "OR",
                                         "ORDER", "SELECT", "SHOW", "SLIMIT", "SOFFSET", "WHERE", "WITH"};

std::string upper_case(std::string_view text) {
  std::string upper(text);
  for (char &byte : upper)
    if (byte >= 'a' && byte <= 'z') byte = static_cast<char>(byte - 'a' + 'A');
  return upper;
}

bool is_reserved(std::string_view name) {
  return std::find(std::begin(RESERVED), std::end(RESERVED), upper_case(name)) != std::end(RESERVED);
}

}  // namespace

bool TokenReader::is_keyword(std::string_view keyword) const {
  return token_.kind == TokenKind::name && token_.text.size() == keyword.size() && upper_case(token_.text) == keyword;
}

bool TokenReader::is_name() const {
  return token_.kind == TokenKind::quoted_name || (token_.kind == TokenKind::name && !is_reserved(token_.text));
}

bool TokenReader::accept_keyword(std::string_view keyword) {
  if (!is_keyword(keyword)) return false;
  advance();
  return true;
}

bool TokenReader::accept_symbol(std::string_view symbol) {
  if (!is_symbol(symbol)) return false;
  advance();
  return true;
}

void TokenReader::expect_keyword(std::string_view keyword) {
  if (!accept_keyword(keyword)) refuse_found(keyword);
}

void TokenReader::expect_symbol(std::string_view symbol) {
  if (!accept_symbol(symbol)) refuse_found(symbol);
}

std::string TokenReader::expect_name() {
  if (!is_name()) refuse_found("identifier");
  std::string name = token_.text;
  advance();
  return name;
}

int64_t TokenReader::expect_integer() {
  if (token_.kind != TokenKind::integer) refuse_found("integer");
  const int64_t integer = token_.integer;
  advance();
  return integer;
}

int64_t TokenReader::expect_duration() {
  if (token_.kind != TokenKind::duration) refuse_found("duration");
  const int64_t ns = token_.integer;
  advance();
  return ns;
}

double TokenReader::expect_number() {
  const bool is_negative = accept_symbol("-");
  if (token_.kind != TokenKind::integer && token_.kind != TokenKind::number) refuse_found("number");
  const double number = token_.number;
  advance();
  return is_negative ? -number : number;
}

bool TokenReader::accept_comma(size_t n_entries) {
  if (is_symbol(",") && n_entries >= ENTRIES_MAX) refuse_at(token_.offset, "more than 1000 entries of a list");
  return accept_symbol(",");
}

Pattern TokenReader::expect_pattern() {
  if (!is_pattern()) refuse_found("regex");
  if (++n_patterns_ > PATTERNS_MAX) refuse_at(token_.offset, "more than 100 regular expressions");
  const Token pattern = lexer_.read_pattern(token_.offset);
  advance();
  try {
    return Pattern(pattern.text);
  } catch (const std::invalid_argument &error) {
    refuse_at(pattern.offset, fmt::format("regular expression: {}", error.what()));
  }
}

std::string TokenReader::found() const {
  if (is_at_end()) return "EOF";
  if (token_.kind == TokenKind::name && is_reserved(token_.text)) return upper_case(token_.text);
  return token_.text.substr(0, SHOWN_BYTES_MAX);
}

void TokenReader::refuse_found(std::string_view expected) const {
  refuse_at(token_.offset, fmt::format("found {}, expected {}", found(), expected));
}

}  // namespace metricdb::influxql
