// The condition after WHERE: comparisons of tags and of time, with AND, OR and parentheses.
#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "query/influxql_token_reader.h"
#include "query/time_text.h"

namespace metricdb::influxql {
namespace {

constexpr size_t COMPARISONS_MAX = 1'000;  // each series is compared with all

// A condition, with comparisons of time that are not yet part of the range.
struct ParsedCondition {
  Condition condition;
  std::vector<ParsedCondition> parts;  // of all_of and any_of; `condition.parts` is empty
  bool is_time = false;
  std::string op;     // of a comparison of time
  int64_t ts_ns = 0;  // its value
  size_t offset = 0;
};

class ConditionParser {
 public:
  explicit ConditionParser(TokenReader &reader) : reader_(reader) {}

  ParsedCondition parse_any_of() {
    return parse_list("OR", Condition::Kind::any_of, [this] {
      return parse_list("AND", Condition::Kind::all_of, [this] { return parse_operand(); });
    });
  }

 private:
  // A list of operands, or the only one. Lists are flat, so that a long one is not a deep tree.
  template <class ParsePart>
  ParsedCondition parse_list(std::string_view keyword, Condition::Kind kind, ParsePart parse_part) {
    ParsedCondition first = parse_part();
    if (!reader_.is_keyword(keyword)) return first;
    ParsedCondition list;
    list.condition.kind = kind;
    list.offset = first.offset;
    list.parts.push_back(std::move(first));
    while (reader_.accept_keyword(keyword)) list.parts.push_back(parse_part());
    return list;
  }

  ParsedCondition parse_operand() {
    const TokenReader::Nesting nesting(reader_);
    if (reader_.accept_symbol("(")) {
      ParsedCondition inner = parse_any_of();
      reader_.expect_symbol(")");
      return inner;
    }
    if (++n_comparisons_ > COMPARISONS_MAX) reader_.refuse_at(reader_.current().offset, "more than 1000 comparisons");
    if (!reader_.is_name() || reader_.is_keyword("NOW")) return parse_reversed_time();
    const bool is_time = reader_.is_keyword("TIME") ||
                         (reader_.current().kind == TokenKind::quoted_name && reader_.current().text == "time");
    return is_time ? parse_time() : parse_tag();
  }

  ParsedCondition parse_time() {
    ParsedCondition comparison = time_comparison();
    reader_.advance();
    comparison.op = parse_time_operator();
    comparison.ts_ns = parse_time_value();
    return comparison;
  }

  // now() - 1h < time
  ParsedCondition parse_reversed_time() {
    const TokenKind kind = reader_.current().kind;
    if (kind != TokenKind::string && kind != TokenKind::integer && kind != TokenKind::duration &&
        !reader_.is_keyword("NOW") && !reader_.is_symbol("-"))
      reader_.refuse_found("tag name, time, (");
    ParsedCondition comparison = time_comparison();
    comparison.ts_ns = parse_time_value();
    comparison.op = parse_time_operator();
    if (comparison.op[0] == '<' || comparison.op[0] == '>') comparison.op[0] = comparison.op[0] == '<' ? '>' : '<';
    if (!reader_.accept_keyword("TIME")) reader_.refuse_found("time");
    return comparison;
  }

  ParsedCondition time_comparison() const {
    ParsedCondition comparison;
    comparison.is_time = true;
    comparison.offset = reader_.current().offset;
    return comparison;
  }

  std::string parse_time_operator() {
    for (const char *const op : {"=", "<", "<=", ">", ">="})
      if (reader_.accept_symbol(op)) return op;
    reader_.refuse_found("=, <, <=, >, >=");
  }

  int64_t parse_time_value() {
    size_t offset = reader_.current().offset;
    int64_t sum_ns = parse_time_term();
    while (reader_.is_symbol("+") || reader_.is_symbol("-")) {
      const bool is_minus = reader_.is_symbol("-");
      reader_.advance();
      offset = reader_.current().offset;
      const int64_t term_ns = parse_time_term();
      if (is_minus ? __builtin_sub_overflow(sum_ns, term_ns, &sum_ns)
                   : __builtin_add_overflow(sum_ns, term_ns, &sum_ns))
        reader_.refuse_at(offset, "a time that 64 bits of nanoseconds do not hold");
    }
    return sum_ns;
  }

  int64_t parse_time_term() {
    const bool is_negative = reader_.accept_symbol("-");
    const Token token = reader_.current();
    if (token.kind == TokenKind::string && !is_negative) {
      reader_.advance();
      return time_of_string(token);
    }
    if (token.kind == TokenKind::integer || token.kind == TokenKind::duration) {
      reader_.advance();
      return is_negative ? -token.integer : token.integer;
    }
    if (is_negative || !reader_.accept_keyword("NOW")) reader_.refuse_found("time, integer, duration, now()");
    reader_.expect_symbol("(");
    reader_.expect_symbol(")");
    return reader_.now_ns();
  }

  // '2026-01-02', '2026-01-02 03:04:05.6', '2026-01-02T03:04:05Z', '2026-01-02T03:04:05+01:00'
  int64_t time_of_string(const Token &token) const {
    constexpr size_t DATE_BYTES = 10;
    constexpr size_t ZONE_BYTES = 6;
    std::string text = token.text;
    // Other texts are times for `time_of`, but not in this language.
    if (text.size() < DATE_BYTES || text[4] != '-') reader_.refuse_at(token.offset, "invalid time");
    int64_t zone_ns = 0;
    if (text.size() > DATE_BYTES && text[DATE_BYTES] == ' ') {
      text[DATE_BYTES] = 'T';
      text += 'Z';
    } else if (text.size() > DATE_BYTES + ZONE_BYTES && text[text.size() - 3] == ':' && !text.ends_with('Z')) {
      const std::string zone = text.substr(text.size() - ZONE_BYTES);
      if (zone[0] == '+' || zone[0] == '-') {
        zone_ns = zone_of(zone, token);
        text.replace(text.size() - ZONE_BYTES, ZONE_BYTES, "Z");
      }
    }
    try {
      int64_t ts_ns = time_of(text, 0);
      if (__builtin_sub_overflow(ts_ns, zone_ns, &ts_ns))
        reader_.refuse_at(token.offset, "a time that 64 bits of nanoseconds do not hold");
      return ts_ns;
    } catch (const BadText &error) {
      reader_.refuse_at(token.offset, "invalid time");
    }
  }

  // +01:00
  int64_t zone_of(std::string_view text, const Token &token) const {
    constexpr int64_t MINUTE_NS = 60'000'000'000;
    int64_t digits[4];
    const size_t places[] = {1, 2, 4, 5};
    for (size_t i = 0; i < 4; ++i) {
      const char byte = text[places[i]];
      if (byte < '0' || byte > '9') reader_.refuse_at(token.offset, "invalid time");
      digits[i] = byte - '0';
    }
    const int64_t hours = digits[0] * 10 + digits[1];
    const int64_t minutes = digits[2] * 10 + digits[3];
    if (hours > 23 || minutes > 59) reader_.refuse_at(token.offset, "invalid time");
    return (text[0] == '-' ? -1 : 1) * (hours * 60 + minutes) * MINUTE_NS;
  }

  ParsedCondition parse_tag() {
    ParsedCondition comparison;
    comparison.offset = reader_.current().offset;
    Condition &condition = comparison.condition;
    condition.tag = reader_.expect_name();
    if (parse_reference_kind(reader_) == ReferenceKind::field) refuse_field(comparison.offset);
    if (reader_.accept_symbol("=~") || reader_.is_symbol("!~")) {
      condition.kind = reader_.accept_symbol("!~") ? Condition::Kind::no_match : Condition::Kind::match;
      condition.pattern = reader_.expect_pattern();
      return comparison;
    }
    if (reader_.accept_symbol("="))
      condition.kind = Condition::Kind::equal;
    else if (reader_.accept_symbol("!=") || reader_.accept_symbol("<>"))
      condition.kind = Condition::Kind::not_equal;
    else if (reader_.is_symbol("<") || reader_.is_symbol(">") || reader_.is_symbol("<=") || reader_.is_symbol(">="))
      refuse_field(comparison.offset);
    else
      reader_.refuse_found("=, !=, =~, !~");
    const TokenKind kind = reader_.current().kind;
    if (kind == TokenKind::integer || kind == TokenKind::number || reader_.is_symbol("-"))
      refuse_field(comparison.offset);
    if (kind != TokenKind::string) reader_.refuse_found("string");
    condition.value = reader_.current().text;
    reader_.advance();
    return comparison;
  }

  [[noreturn]] void refuse_field(size_t offset) const {
    reader_.refuse_at(offset, "conditions on fields are not supported, only on tags and time");
  }

  TokenReader &reader_;
  size_t n_comparisons_ = 0;
};

void narrow(TimeRange &range, const std::string &op, int64_t ts_ns) {
  int64_t from_ns = ts_ns;
  int64_t to_ns = ts_ns;
  if ((op == ">" && __builtin_add_overflow(ts_ns, 1, &from_ns)) ||
      (op == "<" && __builtin_sub_overflow(ts_ns, 1, &to_ns))) {
    range.is_empty = true;
    return;
  }
  if (op[0] != '<') range.from_ns = std::max(range.from_ns.value_or(from_ns), from_ns);
  if (op[0] != '>') range.to_ns = std::min(range.to_ns.value_or(to_ns), to_ns);
  if (range.from_ns && range.to_ns && *range.from_ns > *range.to_ns) range.is_empty = true;
}

// Converts the tree. Comparisons of time narrow the range and leave a condition that is always true.
Condition converted(const TokenReader &reader, ParsedCondition &parsed, TimeRange *range) {
  if (parsed.is_time) {
    if (range == nullptr) reader.refuse_at(parsed.offset, "a condition on time below OR");
    narrow(*range, parsed.op, parsed.ts_ns);
    return {};
  }
  if (parsed.condition.kind == Condition::Kind::any_of) range = nullptr;
  for (ParsedCondition &part : parsed.parts) parsed.condition.parts.push_back(converted(reader, part, range));
  return std::move(parsed.condition);
}

}  // namespace

void parse_condition(TokenReader &reader, Condition &condition, TimeRange &range) {
  ParsedCondition parsed = ConditionParser(reader).parse_any_of();
  condition = converted(reader, parsed, &range);
}

}  // namespace metricdb::influxql
