// The columns of a SELECT: its fields, with wildcards expanded, as small programs over leaves.
#pragma once

#include <compare>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "query/influxql_ast.h"
#include "query/influxql_number.h"
#include "query/influxql_table.h"

namespace metricdb::influxql {

// What is computed from points before any arithmetic.
struct Leaf {
  std::string name;  // of the field or tag
  ReferenceKind reference_kind = ReferenceKind::any;
  std::optional<Function> aggregate;   // none: the points
  double percent = 0.0;                // of a percentile
  std::optional<Function> derivative;  // of the points, or of the aggregate
  std::optional<int64_t> unit_ns;      // of the derivative

  auto operator<=>(const Leaf &) const = default;
};

struct Step {
  enum class Kind { number, leaf, operation };

  Kind kind = Kind::number;
  double number = 0.0;
  size_t leaf = 0;
  char op = '+';
};

struct Column {
  std::string name;
  std::vector<Step> steps;  // in postfix order

  // Returns the leaf, if the column is nothing else.
  std::optional<size_t> only_leaf() const;
};

struct Columns {
  std::vector<Leaf> leaves;
  std::vector<Column> columns;
};

// `fields` and `tags` are the names to which wildcards expand. Two columns never have the same name.
Columns columns_of(const SelectStatement &select, const std::set<std::string> &fields,
                   const std::set<std::string> &tags);

// Computes columns of one row after another.
class Calculator {
 public:
  // The value of the column, of those of the leaves.
  Number value(const Column &column, std::span<const Number> leaves);

 private:
  std::vector<Number> stack_;
};

// The cell of a number. JSON has no number that is not finite, so such a value is missing.
Cell cell_of(const Number &value);

}  // namespace metricdb::influxql
