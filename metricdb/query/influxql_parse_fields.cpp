// The fields of a SELECT: names, functions of them, and arithmetic.
#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <utility>

#include "query/influxql_token_reader.h"

namespace metricdb::influxql {
namespace {

constexpr size_t OPERATIONS_MAX = 64;  // in a row; each is a level of the tree

constexpr std::pair<std::string_view, Function> FUNCTIONS[] = {
    {"count", Function::count},
    {"sum", Function::sum},
    {"mean", Function::mean},
    {"min", Function::min},
    {"max", Function::max},
    {"first", Function::first},
    {"last", Function::last},
    {"spread", Function::spread},
    {"stddev", Function::stddev},
    {"percentile", Function::percentile},
    {"derivative", Function::derivative},
    {"non_negative_derivative", Function::non_negative_derivative}};

Expression parse_sum(TokenReader &reader);

std::optional<Function> function_named(std::string name) {
  std::transform(name.begin(), name.end(), name.begin(),
                 [](char byte) { return byte >= 'A' && byte <= 'Z' ? static_cast<char>(byte - 'A' + 'a') : byte; });
  for (const auto &[known, function] : FUNCTIONS)
    if (known == name) return function;
  return std::nullopt;
}

Expression leaf_at(const TokenReader &reader, Expression::Kind kind) {
  Expression leaf;
  leaf.kind = kind;
  leaf.offset = reader.current().offset;
  return leaf;
}

Expression parse_pattern_leaf(TokenReader &reader) {
  Expression leaf = leaf_at(reader, Expression::Kind::pattern);
  leaf.pattern = reader.expect_pattern();
  return leaf;
}

Expression parse_wildcard(TokenReader &reader) {
  Expression leaf = leaf_at(reader, Expression::Kind::wildcard);
  reader.expect_symbol("*");
  leaf.reference_kind = parse_reference_kind(reader);
  return leaf;
}

Expression parse_call(TokenReader &reader, const Token &name);

// What an aggregate is computed of.
Expression parse_argument(TokenReader &reader, bool can_be_call) {
  if (reader.is_symbol("*")) return parse_wildcard(reader);
  if (reader.is_pattern()) return parse_pattern_leaf(reader);
  if (!reader.is_name()) reader.refuse_found(can_be_call ? "field name or function" : "field name");
  const Token name = reader.current();
  reader.advance();
  if (name.kind == TokenKind::name && reader.is_symbol("(")) {
    if (!can_be_call) reader.refuse_at(name.offset, "expected field argument");
    Expression call = parse_call(reader, name);
    if (is_derivative(call.function)) reader.refuse_at(name.offset, "a derivative of a derivative");
    return call;
  }
  Expression leaf;
  leaf.kind = Expression::Kind::reference;
  leaf.offset = name.offset;
  leaf.name = name.text;
  leaf.reference_kind = parse_reference_kind(reader);
  if (leaf.reference_kind == ReferenceKind::tag) reader.refuse_at(name.offset, "a function of a tag");
  return leaf;
}

// The current token is the parenthesis.
Expression parse_call(TokenReader &reader, const Token &name) {
  const std::optional<Function> function = function_named(name.text);
  if (!function) reader.refuse_at(name.offset, fmt::format("undefined function {}()", name.text));
  const TokenReader::Nesting nesting(reader);
  Expression call;
  call.kind = Expression::Kind::call;
  call.offset = name.offset;
  call.function = *function;
  reader.expect_symbol("(");
  call.args.push_back(parse_argument(reader, is_derivative(*function)));
  if (*function == Function::percentile) {
    reader.expect_symbol(",");
    const size_t at = reader.current().offset;
    call.percent = reader.expect_number();
    if (!(call.percent >= 0.0 && call.percent <= 100.0)) reader.refuse_at(at, "a percentile that is not 0 to 100");
  }
  if (is_derivative(*function) && reader.accept_symbol(",")) {
    const size_t at = reader.current().offset;
    call.unit_ns = reader.expect_duration();
    if (*call.unit_ns == 0) reader.refuse_at(at, "a duration of zero");
  }
  reader.expect_symbol(")");
  return call;
}

Expression parse_number(TokenReader &reader) {
  Expression leaf = leaf_at(reader, Expression::Kind::number);
  leaf.number = reader.expect_number();
  return leaf;
}

Expression operation_of(char op, Expression left, Expression right, size_t offset) {
  Expression operation;
  operation.kind = Expression::Kind::operation;
  operation.offset = offset;
  operation.op = op;
  operation.args.push_back(std::move(left));
  operation.args.push_back(std::move(right));
  return operation;
}

Expression parse_name_or_call(TokenReader &reader) {
  const Token name = reader.current();
  reader.advance();
  if (name.kind == TokenKind::name && reader.is_symbol("(")) return parse_call(reader, name);
  Expression leaf;
  leaf.kind = Expression::Kind::reference;
  leaf.offset = name.offset;
  leaf.name = name.text;
  leaf.reference_kind = parse_reference_kind(reader);
  return leaf;
}

Expression parse_factor(TokenReader &reader) {
  const TokenReader::Nesting nesting(reader);
  const size_t offset = reader.current().offset;
  if (reader.accept_symbol("(")) {
    Expression inner = parse_sum(reader);
    reader.expect_symbol(")");
    return inner;
  }
  if (reader.accept_symbol("-")) {
    Expression minus_one;
    minus_one.offset = offset;
    minus_one.number = -1.0;
    return operation_of('*', std::move(minus_one), parse_factor(reader), offset);
  }
  const TokenKind kind = reader.current().kind;
  if (kind == TokenKind::integer || kind == TokenKind::number) return parse_number(reader);
  if (reader.is_symbol("*")) return parse_wildcard(reader);
  if (reader.is_pattern()) return parse_pattern_leaf(reader);
  if (!reader.is_name()) reader.refuse_found("identifier, number, function, *, regex");
  return parse_name_or_call(reader);
}

// Parses operands between operators of one precedence.
template <class ParseOperand>
Expression parse_operations(TokenReader &reader, std::string_view operators, ParseOperand parse_operand) {
  Expression left = parse_operand(reader);
  for (size_t n = 1; reader.current().kind == TokenKind::symbol && reader.current().text.size() == 1 &&
                     operators.find(reader.current().text[0]) != operators.npos;
       ++n) {
    const Token op = reader.current();
    if (n > OPERATIONS_MAX) reader.refuse_at(op.offset, "more than 64 operations in a row");
    reader.advance();
    left = operation_of(op.text[0], std::move(left), parse_operand(reader), op.offset);
  }
  return left;
}

Expression parse_product(TokenReader &reader) {
  return parse_operations(reader, "*/%", parse_factor);
}

Expression parse_sum(TokenReader &reader) {
  return parse_operations(reader, "+-", parse_product);
}

}  // namespace

const char *name_of(Function function) {
  for (const auto &[name, known] : FUNCTIONS)
    if (known == function) return name.data();
  return "";
}

ReferenceKind parse_reference_kind(TokenReader &reader) {
  if (!reader.accept_symbol("::")) return ReferenceKind::any;
  if (reader.accept_keyword("TAG")) return ReferenceKind::tag;
  if (reader.accept_keyword("FIELD") || reader.accept_keyword("FLOAT")) return ReferenceKind::field;
  reader.refuse_found("tag, field, float");
}

std::vector<SelectedField> parse_fields(TokenReader &reader) {
  std::vector<SelectedField> fields;
  do {
    SelectedField field;
    field.expression = parse_sum(reader);
    if (reader.accept_keyword("AS")) field.alias = reader.expect_name();
    fields.push_back(std::move(field));
  } while (reader.accept_comma(fields.size()));
  return fields;
}

}  // namespace metricdb::influxql
