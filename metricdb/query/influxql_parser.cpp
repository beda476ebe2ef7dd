#include "query/influxql_parser.h"

#include <fmt/format.h>

#include <utility>

#include "query/influxql_token_reader.h"

namespace metricdb::influxql {
namespace {

constexpr size_t STATEMENTS_MAX = 1'000;

// Measurements and databases

// cpu, /cpu.*/, db.autogen.cpu, db..cpu, autogen.cpu
Source parse_source(TokenReader &reader) {
  Source source;
  std::vector<std::string> qualifiers;
  const size_t offset = reader.current().offset;
  while (true) {
    if (reader.is_pattern()) {
      source.pattern = reader.expect_pattern();
      break;
    }
    if (reader.is_symbol("(")) reader.refuse_at(reader.current().offset, "subqueries are not supported");
    if (!reader.is_name() && !(qualifiers.size() == 1 && reader.is_symbol(".")))
      reader.refuse_found("identifier, regex");
    std::string name = reader.is_name() ? reader.expect_name() : std::string();
    if (qualifiers.size() == 2 || !reader.accept_symbol(".")) {
      source.measurement = std::move(name);
      break;
    }
    qualifiers.push_back(std::move(name));
  }
  if (qualifiers.size() == 2) source.database = qualifiers[0];
  const std::string &policy = qualifiers.empty() ? std::string() : qualifiers.back();
  if (!policy.empty() && policy != "autogen")
    reader.refuse_at(offset, fmt::format("retention policy not found: {}: the only one is autogen", policy));
  return source;
}

std::vector<Source> parse_sources(TokenReader &reader) {
  std::vector<Source> sources;
  do {
    sources.push_back(parse_source(reader));
  } while (reader.accept_comma(sources.size()));
  return sources;
}

uint64_t parse_count(TokenReader &reader) {
  return static_cast<uint64_t>(reader.expect_integer());
}

void parse_page(TokenReader &reader, Page &page, std::string_view limit, std::string_view offset) {
  if (reader.accept_keyword(limit)) page.limit = parse_count(reader);
  if (reader.accept_keyword(offset)) page.offset = parse_count(reader);
}

// SELECT

void parse_time_dimension(TokenReader &reader, SelectStatement &select) {
  const size_t offset = reader.current().offset;
  if (select.every_ns != 0) reader.refuse_at(offset, "multiple time dimensions not allowed");
  reader.expect_keyword("TIME");
  reader.expect_symbol("(");
  const size_t duration_offset = reader.current().offset;
  select.every_ns = reader.expect_duration();
  if (select.every_ns == 0) reader.refuse_at(duration_offset, "a duration of zero");
  if (reader.accept_symbol(",")) {
    const bool is_negative = reader.accept_symbol("-");
    const int64_t rest_ns = reader.expect_duration() % select.every_ns;
    select.offset_ns = is_negative && rest_ns != 0 ? select.every_ns - rest_ns : rest_ns;
  }
  reader.expect_symbol(")");
}

Dimension parse_tag_dimension(TokenReader &reader) {
  Dimension dimension;
  if (reader.accept_symbol("*")) {
    dimension.kind = Dimension::Kind::wildcard;
    return dimension;
  }
  if (reader.is_pattern()) {
    dimension.kind = Dimension::Kind::pattern;
    dimension.pattern = reader.expect_pattern();
    return dimension;
  }
  if (!reader.is_name()) reader.refuse_found("time, identifier, *, regex");
  const size_t offset = reader.current().offset;
  dimension.tag = reader.expect_name();
  if (reader.is_symbol("(")) reader.refuse_at(offset, "only time() calls allowed in dimensions");
  if (parse_reference_kind(reader) == ReferenceKind::field) reader.refuse_at(offset, "a dimension that is a field");
  return dimension;
}

void parse_dimensions(TokenReader &reader, SelectStatement &select) {
  do {
    if (reader.is_keyword("TIME"))
      parse_time_dimension(reader, select);
    else
      select.dimensions.push_back(parse_tag_dimension(reader));
  } while (reader.accept_comma(select.dimensions.size()));
}

void parse_fill(TokenReader &reader, SelectStatement &select) {
  reader.expect_symbol("(");
  if (reader.accept_keyword("NULL")) {
    select.fill = Fill::null;
  } else if (reader.accept_keyword("NONE")) {
    select.fill = Fill::none;
  } else if (reader.accept_keyword("PREVIOUS")) {
    select.fill = Fill::previous;
  } else if (reader.accept_keyword("LINEAR")) {
    select.fill = Fill::linear;
  } else {
    if (reader.current().kind == TokenKind::name) reader.refuse_found("null, none, previous, linear, number");
    select.fill = Fill::number;
    select.fill_number = reader.expect_number();
  }
  reader.expect_symbol(")");
}

void parse_order(TokenReader &reader, SelectStatement &select) {
  reader.expect_keyword("BY");
  if (!reader.accept_keyword("TIME")) {
    const bool is_direction = reader.is_keyword("ASC") || reader.is_keyword("DESC");
    if (!is_direction) reader.refuse_found("time, ASC, DESC");
  }
  select.is_descending = reader.accept_keyword("DESC");
  if (!select.is_descending) reader.accept_keyword("ASC");
  if (reader.is_symbol(",")) reader.refuse_at(reader.current().offset, "only ORDER BY time supported at this time");
}

// What is below the fields of a SELECT, by the offset of the first.
struct Leaves {
  std::optional<size_t> references;
  std::optional<size_t> derivatives;  // of fields
  std::optional<size_t> aggregates;
  std::optional<size_t> derivatives_of_aggregates;
};

void note(std::optional<size_t> &first, size_t offset) {
  if (!first) first = offset;
}

void collect_leaves(const TokenReader &reader, const Expression &expression, bool is_operand, Leaves &leaves) {
  using Kind = Expression::Kind;
  const bool is_call = expression.kind == Kind::call;
  const Kind inner = is_call ? expression.args[0].kind : expression.kind;
  if (is_operand && (inner == Kind::wildcard || inner == Kind::pattern))
    reader.refuse_at(expression.offset, "a wildcard or regular expression in arithmetic");
  if (expression.kind == Kind::operation) {
    for (const Expression &arg : expression.args) collect_leaves(reader, arg, true, leaves);
  } else if (is_call && is_derivative(expression.function)) {
    note(inner == Kind::call ? leaves.derivatives_of_aggregates : leaves.derivatives, expression.offset);
    if (inner == Kind::call) note(leaves.aggregates, expression.offset);
  } else if (is_call) {
    note(leaves.aggregates, expression.offset);
  } else if (expression.kind != Kind::number) {
    note(leaves.references, expression.offset);
  }
}

void check_fields(const TokenReader &reader, const SelectStatement &select, size_t fields_offset) {
  Leaves leaves;
  for (const SelectedField &field : select.fields) collect_leaves(reader, field.expression, false, leaves);
  if (!leaves.references && !leaves.derivatives && !leaves.aggregates)
    reader.refuse_at(fields_offset, "at least 1 non-time field must be queried");
  if (leaves.references && (leaves.derivatives || leaves.aggregates))
    reader.refuse_at(*leaves.references, "mixing aggregate and non-aggregate queries is not supported");
  if (leaves.derivatives && leaves.aggregates)
    reader.refuse_at(*leaves.derivatives, "mixing derivatives of fields and aggregates is not supported");
  if (select.every_ns != 0 && leaves.references)
    reader.refuse_at(*leaves.references, "GROUP BY requires at least one aggregate function");
  if (select.every_ns != 0 && leaves.derivatives)
    reader.refuse_at(*leaves.derivatives, "aggregate function required inside the call to the derivative");
  if (select.every_ns == 0 && leaves.derivatives_of_aggregates)
    reader.refuse_at(*leaves.derivatives_of_aggregates, "a derivative of an aggregate requires a GROUP BY interval");
}

// The column of times always exists. A field with this name gives it another name.
void take_time_field(SelectStatement &select) {
  for (auto field = select.fields.begin(); field != select.fields.end();) {
    const Expression &expression = field->expression;
    if (expression.kind != Expression::Kind::reference || expression.name != "time") {
      ++field;
      continue;
    }
    if (!field->alias.empty()) select.time_name = field->alias;
    field = select.fields.erase(field);
  }
}

SelectStatement parse_select(TokenReader &reader) {
  SelectStatement select;
  const size_t fields_offset = reader.current().offset;
  select.fields = parse_fields(reader);
  reader.expect_keyword("FROM");
  select.sources = parse_sources(reader);
  if (reader.accept_keyword("WHERE")) parse_condition(reader, select.condition, select.range);
  if (reader.accept_keyword("GROUP")) {
    reader.expect_keyword("BY");
    parse_dimensions(reader, select);
  }
  if (reader.accept_keyword("FILL")) parse_fill(reader, select);
  if (reader.accept_keyword("ORDER")) parse_order(reader, select);
  parse_page(reader, select.rows, "LIMIT", "OFFSET");
  parse_page(reader, select.series, "SLIMIT", "SOFFSET");
  take_time_field(select);
  check_fields(reader, select, fields_offset);
  return select;
}

// SHOW

// = name, != name, =~ /regex/, !~ /regex/, IN (name, name)
NameFilter parse_name_filter(TokenReader &reader) {
  NameFilter filter;
  if (reader.accept_keyword("IN")) {
    reader.expect_symbol("(");
    do {
      filter.names.push_back(reader.expect_name());
    } while (reader.accept_comma(filter.names.size()));
    reader.expect_symbol(")");
    return filter;
  }
  filter.is_negated = reader.is_symbol("!=") || reader.is_symbol("<>") || reader.is_symbol("!~");
  if (reader.accept_symbol("=~") || reader.accept_symbol("!~")) {
    filter.pattern = reader.expect_pattern();
    return filter;
  }
  if (!reader.accept_symbol("=") && !reader.accept_symbol("!=") && !reader.accept_symbol("<>"))
    reader.refuse_found("IN, =, !=, =~, !~");
  filter.names.push_back(reader.expect_name());
  return filter;
}

Shown parse_shown(TokenReader &reader) {
  if (reader.accept_keyword("DATABASES")) return Shown::databases;
  if (reader.accept_keyword("MEASUREMENTS")) return Shown::measurements;
  if (reader.accept_keyword("SERIES")) return Shown::series;
  if (reader.accept_keyword("FIELD")) {
    reader.expect_keyword("KEYS");
    return Shown::field_keys;
  }
  if (reader.accept_keyword("RETENTION")) {
    reader.expect_keyword("POLICIES");
    return Shown::retention_policies;
  }
  if (!reader.accept_keyword("TAG")) reader.refuse_found("DATABASES, FIELD, MEASUREMENTS, RETENTION, SERIES, TAG");
  if (reader.accept_keyword("KEYS")) return Shown::tag_keys;
  if (!reader.accept_keyword("VALUES")) reader.refuse_found("KEYS, VALUES");
  return Shown::tag_values;
}

// WITH MEASUREMENT = cpu, or WITH KEY = host
void parse_with(TokenReader &reader, ShowStatement &show) {
  if (show.shown == Shown::tag_values) {
    reader.expect_keyword("WITH");
    reader.expect_keyword("KEY");
    show.key = parse_name_filter(reader);
  } else if (show.shown == Shown::measurements && reader.accept_keyword("WITH")) {
    reader.expect_keyword("MEASUREMENT");
    show.key = parse_name_filter(reader);
  }
}

ShowStatement parse_show(TokenReader &reader) {
  ShowStatement show;
  show.shown = parse_shown(reader);
  if (show.shown == Shown::databases) return show;
  if (reader.accept_keyword("ON")) show.database = reader.expect_name();
  if (show.shown == Shown::retention_policies) return show;
  if (show.shown != Shown::measurements && reader.accept_keyword("FROM")) show.sources = parse_sources(reader);
  parse_with(reader, show);
  TimeRange ignored;
  if (reader.accept_keyword("WHERE")) parse_condition(reader, show.condition, ignored);
  parse_page(reader, show.rows, "LIMIT", "OFFSET");
  const bool has_series = show.shown != Shown::measurements && show.shown != Shown::series;
  if (has_series) parse_page(reader, show.series, "SLIMIT", "SOFFSET");
  return show;
}

// Changes

// FROM cpu WHERE host = 'a', or one of both
EraseStatement parse_erased(TokenReader &reader, bool can_have_time) {
  EraseStatement erase;
  const bool has_from = reader.accept_keyword("FROM");
  if (has_from) erase.sources = parse_sources(reader);
  const size_t offset = reader.current().offset;
  if (reader.accept_keyword("WHERE"))
    parse_condition(reader, erase.condition, erase.range);
  else if (!has_from)
    reader.refuse_found("FROM, WHERE");
  const TimeRange &range = erase.range;
  if (!can_have_time && (range.from_ns || range.to_ns || range.is_empty))
    reader.refuse_at(offset, "DROP SERIES doesn't support time in WHERE clause");
  return erase;
}

int64_t parse_retention(TokenReader &reader) {
  return reader.accept_keyword("INF") ? 0 : reader.expect_duration();
}

// DURATION 7d REPLICATION 1 SHARD DURATION 1d NAME autogen DEFAULT, in any order, at least one. Only DURATION has an
// effect.
void parse_retention_options(TokenReader &reader, std::optional<int64_t> &duration_ns) {
  for (int n_options = 0;; ++n_options) {
    if (reader.accept_keyword("DURATION")) {
      duration_ns = parse_retention(reader);
    } else if (reader.accept_keyword("REPLICATION")) {
      reader.expect_integer();
    } else if (reader.accept_keyword("SHARD")) {
      reader.expect_keyword("DURATION");
      parse_retention(reader);
    } else if (reader.accept_keyword("NAME")) {
      const size_t offset = reader.current().offset;
      if (reader.expect_name() != "autogen") reader.refuse_at(offset, "the only retention policy is autogen");
    } else if (!reader.accept_keyword("DEFAULT")) {
      if (n_options == 0) reader.refuse_found("DURATION, REPLICATION, SHARD, NAME, DEFAULT");
      return;
    }
  }
}

RetentionStatement parse_policy(TokenReader &reader, bool is_new) {
  reader.expect_keyword("POLICY");
  RetentionStatement statement;
  statement.is_new = is_new;
  statement.policy = reader.expect_name();
  reader.expect_keyword("ON");
  statement.database = reader.expect_name();
  const size_t offset = reader.current().offset;
  parse_retention_options(reader, statement.duration_ns);
  if (is_new && !statement.duration_ns) reader.refuse_at(offset, "a new retention policy needs a DURATION");
  return statement;
}

Statement parse_create(TokenReader &reader) {
  if (reader.accept_keyword("RETENTION")) return parse_policy(reader, true);
  if (!reader.accept_keyword("DATABASE")) reader.refuse_found("DATABASE, RETENTION");
  CreateDatabaseStatement create = {reader.expect_name(), {}};
  if (!reader.accept_keyword("WITH")) return create;
  parse_retention_options(reader, create.duration_ns);
  return create;
}

Statement parse_drop(TokenReader &reader) {
  if (reader.accept_keyword("DATABASE")) return DropDatabaseStatement{reader.expect_name()};
  if (reader.accept_keyword("SERIES")) return parse_erased(reader, false);
  if (!reader.accept_keyword("MEASUREMENT")) reader.refuse_found("DATABASE, MEASUREMENT, SERIES");
  Source source;
  source.measurement = reader.expect_name();
  return EraseStatement{{source}, {}, {}};
}

Statement parse_statement(TokenReader &reader) {
  if (reader.accept_keyword("SELECT")) return parse_select(reader);
  if (reader.accept_keyword("SHOW")) return parse_show(reader);
  if (reader.accept_keyword("DELETE")) return parse_erased(reader, true);
  if (reader.accept_keyword("DROP")) return parse_drop(reader);
  if (reader.accept_keyword("CREATE")) return parse_create(reader);
  if (!reader.accept_keyword("ALTER")) reader.refuse_found("SELECT, SHOW, DELETE, DROP, CREATE, ALTER");
  reader.expect_keyword("RETENTION");
  return parse_policy(reader, false);
}

}  // namespace

bool NameFilter::admits(const std::string &name) const {
  bool is_named = pattern && pattern->matches(name);
  for (const std::string &one : names) is_named = is_named || one == name;
  return is_named != is_negated;
}

std::vector<Statement> parse_statements(std::string_view text, int64_t now_ns) {
  std::vector<Statement> statements;
  TokenReader reader(text, now_ns);
  while (true) {
    while (reader.accept_symbol(";")) continue;
    if (reader.is_at_end()) return statements;
    if (statements.size() == STATEMENTS_MAX) reader.refuse_at(reader.current().offset, "more than 1000 statements");
    statements.push_back(parse_statement(reader));
    if (!reader.is_at_end() && !reader.is_symbol(";")) reader.refuse_found("; or EOF");
  }
}

}  // namespace metricdb::influxql
