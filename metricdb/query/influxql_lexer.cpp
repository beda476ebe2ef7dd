#include "query/influxql_lexer.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <iterator>

#include "codec/printable.h"

namespace metricdb::influxql {
namespace {

struct DurationUnit {
  std::string_view name;
  int64_t ns;
};

// "ms" before "m": the first match is taken.
constexpr DurationUnit DURATION_UNITS[] = {{"ns", 1},
                                           {"us", 1'000},
                                           {"u", 1'000},
                                           {"\xc2\xb5", 1'000},
                                           {"ms", 1'000'000},
                                           {"s", 1'000'000'000},
                                           {"m", 60'000'000'000},
                                           {"h", 3'600'000'000'000},
                                           {"d", 86'400'000'000'000},
                                           {"w", 604'800'000'000'000}};

constexpr std::string_view LONG_SYMBOLS[] = {"=~", "!~", "!=", "<>", "<=", ">=", "::"};

bool is_decimal(char byte) {
  return byte >= '0' && byte <= '9';
}

bool begins_name(char byte) {
  return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') || byte == '_';
}

bool is_blank(char byte) {
  return byte == ' ' || byte == '\t' || byte == '\n' || byte == '\r';
}

bool continues_character(char byte) {
  return (static_cast<unsigned char>(byte) & 0xc0) == 0x80;
}

}  // namespace

void refuse_statement(std::string_view text, size_t offset, std::string_view why) {
  const std::string_view before = text.substr(0, offset);
  const auto n_lines = std::count(before.begin(), before.end(), '\n');
  const size_t feed = before.rfind('\n');
  const std::string_view line = before.substr(feed == before.npos ? 0 : feed + 1);
  const auto n_characters =
      static_cast<ptrdiff_t>(line.size()) - std::count_if(line.begin(), line.end(), continues_character);
  throw BadStatement(
      fmt::format("error parsing query: {} at line {}, char {}", printable(why), n_lines + 1, n_characters + 1));
}

// Returns whether a comment was there.
bool Lexer::skip_comment() {
  if (peek() == '-' && peek(1) == '-') {
    pos_ = std::min(text_.find('\n', pos_), text_.size());
    return true;
  }
  if (peek() != '/' || peek(1) != '*') return false;
  const size_t end = text_.find("*/", pos_ + 2);
  if (end == text_.npos) refuse_statement(text_, pos_, "comment without an end");
  pos_ = end + 2;
  return true;
}

void Lexer::skip_blanks() {
  do {
    while (pos_ < text_.size() && is_blank(text_[pos_])) ++pos_;
  } while (skip_comment());
}

Token Lexer::next() {
  skip_blanks();
  Token token;
  token.offset = pos_;
  if (pos_ == text_.size()) return token;
  if (peek() == '"') return read_quoted('"', TokenKind::quoted_name);
  if (peek() == '\'') return read_quoted('\'', TokenKind::string);
  if (is_decimal(peek()) || (peek() == '.' && is_decimal(peek(1)))) return read_number();
  if (!begins_name(peek())) return read_symbol();
  token.kind = TokenKind::name;
  while (begins_name(peek()) || is_decimal(peek())) token.text += text_[pos_++];
  return token;
}

Token Lexer::read_quoted(char quote, TokenKind kind) {
  Token token;
  token.kind = kind;
  token.offset = pos_++;
  for (; pos_ < text_.size() && text_[pos_] != quote; ++pos_) {
    char byte = text_[pos_];
    if (byte == '\n') break;
    if (byte == '\\') {
      byte = peek(1);
      if (byte == 'n')
        byte = '\n';
      else if (byte != '\\' && byte != '"' && byte != '\'')
        refuse_statement(text_, pos_, "a backslash that is not followed by \\, n or a quote");
      ++pos_;
    }
    token.text += byte;
  }
  if (peek() != quote)
    refuse_statement(text_, token.offset, kind == TokenKind::string ? "string without an end" : "name without an end");
  ++pos_;
  return token;
}

Token Lexer::read_number() {
  Token token;
  token.offset = pos_;
  while (is_decimal(peek())) ++pos_;
  const bool is_whole = peek() != '.' || !is_decimal(peek(1));
  if (!is_whole) {
    ++pos_;
    while (is_decimal(peek())) ++pos_;
  }
  if (begins_name(peek()) || peek() == '\xc2') {
    if (!is_whole) refuse_statement(text_, token.offset, "a duration is a sequence of integers with units");
    return read_duration(token.offset);
  }
  token.text = text_.substr(token.offset, pos_ - token.offset);
  const char *const begin = token.text.data();
  const char *const end = begin + token.text.size();
  token.kind = is_whole ? TokenKind::integer : TokenKind::number;
  if (is_whole && std::from_chars(begin, end, token.integer).ec != std::errc())
    refuse_statement(text_, token.offset, "an integer that 64 bits do not hold");
  if (std::from_chars(begin, end, token.number).ec != std::errc())
    refuse_statement(text_, token.offset, "a number that is out of range");
  return token;
}

Token Lexer::read_duration(size_t begin) {
  Token token;
  token.kind = TokenKind::duration;
  token.offset = begin;
  for (pos_ = begin; is_decimal(peek());) {
    int64_t count = 0;
    const auto [end, error] = std::from_chars(text_.data() + pos_, text_.data() + text_.size(), count);
    pos_ = static_cast<size_t>(end - text_.data());
    const std::string_view rest = text_.substr(pos_);
    const auto *const unit = std::find_if(std::begin(DURATION_UNITS), std::end(DURATION_UNITS),
                                          [&](const DurationUnit &one) { return rest.starts_with(one.name); });
    if (unit == std::end(DURATION_UNITS))
      refuse_statement(text_, begin, "a duration without a unit of ns, u, ms, s, m, h, d, w");
    int64_t part_ns = 0;
    if (error != std::errc() || __builtin_mul_overflow(count, unit->ns, &part_ns) ||
        __builtin_add_overflow(token.integer, part_ns, &token.integer))
      refuse_statement(text_, begin, "a duration that 64 bits of nanoseconds do not hold");
    pos_ += unit->name.size();
  }
  if (begins_name(peek())) refuse_statement(text_, begin, "a duration without a unit of ns, u, ms, s, m, h, d, w");
  token.text = text_.substr(begin, pos_ - begin);
  return token;
}

Token Lexer::read_symbol() {
  Token token;
  token.kind = TokenKind::symbol;
  token.offset = pos_;
  const std::string_view rest = text_.substr(pos_);
  const auto *const symbol = std::find_if(std::begin(LONG_SYMBOLS), std::end(LONG_SYMBOLS),
                                          [&](std::string_view one) { return rest.starts_with(one); });
  size_t n_bytes = symbol == std::end(LONG_SYMBOLS) ? 1 : symbol->size();
  while (n_bytes < rest.size() && continues_character(rest[n_bytes])) ++n_bytes;
  token.text = rest.substr(0, n_bytes);
  pos_ += n_bytes;
  return token;
}

Token Lexer::read_pattern(size_t offset) {
  Token token;
  token.kind = TokenKind::pattern;
  token.offset = offset;
  for (pos_ = offset + 1; pos_ < text_.size() && text_[pos_] != '/' && text_[pos_] != '\n'; ++pos_) {
    // An escape belongs to the expression, also that of a slash.
    if (text_[pos_] == '\\' && pos_ + 1 < text_.size() && text_[pos_ + 1] != '\n') token.text += text_[pos_++];
    token.text += text_[pos_];
  }
  if (peek() != '/') refuse_statement(text_, offset, "regular expression without an end");
  ++pos_;
  return token;
}

}  // namespace metricdb::influxql
