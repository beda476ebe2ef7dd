// Statements of InfluxQL, as the parser returns them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "query/influxql_pattern.h"

namespace metricdb::influxql {

enum class Function {
  count,
  sum,
  mean,
  min,
  max,
  first,
  last,
  spread,
  stddev,
  percentile,
  derivative,
  non_negative_derivative
};

inline bool is_derivative(Function function) {
  return function == Function::derivative || function == Function::non_negative_derivative;
}

// Functions that return one of the points.
inline bool is_selector(Function function) {
  return function == Function::min || function == Function::max || function == Function::first ||
         function == Function::last || function == Function::percentile;
}

const char *name_of(Function function);

// What a name refers to: "host"::tag, "load"::field.
enum class ReferenceKind { any, field, tag };

struct Expression {
  enum class Kind {
    number,
    reference,  // a field or tag
    wildcard,   // all fields and tags
    pattern,    // fields and tags with a matching name
    call,       // args[0]: a reference, wildcard or pattern; of a derivative also a call
    operation   // args[0] op args[1]
  };

  Kind kind = Kind::number;
  size_t offset = 0;  // in the text
  double number = 0.0;
  std::string name;  // of a reference
  ReferenceKind reference_kind = ReferenceKind::any;
  std::optional<Pattern> pattern;
  Function function = Function::count;
  double percent = 0.0;            // of percentile
  std::optional<int64_t> unit_ns;  // of a derivative
  char op = '+';                   // + - * / %
  std::vector<Expression> args;
};

struct SelectedField {
  Expression expression;
  std::string alias;  // empty: none
};

// A measurement, or all with a matching name.
struct Source {
  std::string database;  // empty: the default
  std::string measurement;
  std::optional<Pattern> pattern;  // set: instead of the name
};

// Conditions on tags. A tag that a series does not have is an empty text.
struct Condition {
  enum class Kind { all_of, any_of, equal, not_equal, match, no_match };

  Kind kind = Kind::all_of;
  std::vector<Condition> parts;  // of all_of and any_of
  std::string tag;
  std::string value;
  std::optional<Pattern> pattern;
};

// Both included. An absent limit is none.
struct TimeRange {
  std::optional<int64_t> from_ns;
  std::optional<int64_t> to_ns;
  bool is_empty = false;
};

struct Dimension {
  enum class Kind { tag, wildcard, pattern };

  Kind kind = Kind::tag;
  std::string tag;
  std::optional<Pattern> pattern;
};

enum class Fill { null, none, previous, linear, number };

// How many results are skipped, and the maximum after that; 0: no maximum.
struct Page {
  uint64_t limit = 0;
  uint64_t offset = 0;
};

struct SelectStatement {
  std::vector<SelectedField> fields;
  std::string time_name = "time";
  std::vector<Source> sources;
  Condition condition;
  TimeRange range;
  std::vector<Dimension> dimensions;
  int64_t every_ns = 0;   // 0: no windows
  int64_t offset_ns = 0;  // 0 to every_ns - 1
  Fill fill = Fill::null;
  double fill_number = 0.0;
  bool is_descending = false;
  Page rows;
  Page series;  // for each measurement
};

enum class Shown { databases, measurements, series, tag_keys, tag_values, field_keys, retention_policies };

// Wanted names: one of a list, or all matching ones, or all others.
struct NameFilter {
  std::vector<std::string> names;
  std::optional<Pattern> pattern;
  bool is_negated = false;

  bool admits(const std::string &name) const;
};

struct ShowStatement {
  Shown shown = Shown::databases;
  std::string database;         // empty: the default
  std::vector<Source> sources;  // empty: all measurements
  std::optional<NameFilter> key;
  Condition condition;
  Page rows;
  Page series;
};

// DELETE, DROP SERIES and DROP MEASUREMENT.
struct EraseStatement {
  std::vector<Source> sources;  // empty: all measurements
  Condition condition;
  TimeRange range;
};

// A duration of 0 keeps all points.
struct CreateDatabaseStatement {
  std::string name;
  std::optional<int64_t> duration_ns;
};

struct DropDatabaseStatement {
  std::string name;
};

// CREATE and ALTER RETENTION POLICY.
struct RetentionStatement {
  bool is_new = false;
  std::string policy;
  std::string database;
  std::optional<int64_t> duration_ns;
};

using Statement = std::variant<SelectStatement, ShowStatement, EraseStatement, CreateDatabaseStatement,
                               DropDatabaseStatement, RetentionStatement>;

}  // namespace metricdb::influxql
