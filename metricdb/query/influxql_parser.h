// Parses InfluxQL by recursive descent.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "query/influxql_ast.h"
#include "query/influxql_lexer.h"

namespace metricdb::influxql {

// Parses statements separated by semicolons. `now_ns` is the value of now(). Throws BadStatement.
//
// The result can be executed: a SELECT has either fields, or derivatives of fields, or aggregates, and each of its
// expressions has the arguments that `Expression` describes. Nesting, and the number of statements, have maxima.
std::vector<Statement> parse_statements(std::string_view text, int64_t now_ns);

}  // namespace metricdb::influxql
