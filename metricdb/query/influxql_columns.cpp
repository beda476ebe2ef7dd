#include "query/influxql_columns.h"

#include <fmt/format.h>

#include <map>

#include <cmath>
#include <limits>
#include <utility>

namespace metricdb::influxql {
namespace {

constexpr size_t COLUMNS_MAX = 10'000;
constexpr size_t LEAVES_MAX = 10'000;

bool is_expanded(const Expression &expression) {
  return expression.kind == Expression::Kind::wildcard || expression.kind == Expression::Kind::pattern;
}

// The wildcard or pattern of "*", "mean(*)" or "derivative(mean(*))"; null if there is none.
const Expression *expanded_part_of(const Expression &expression) {
  if (is_expanded(expression)) return &expression;
  return expression.kind == Expression::Kind::call ? expanded_part_of(expression.args[0]) : nullptr;
}

Expression with_reference(const Expression &expression, const std::string &name, ReferenceKind kind) {
  if (expression.kind == Expression::Kind::call) {
    Expression call = expression;
    call.args[0] = with_reference(expression.args[0], name, kind);
    return call;
  }
  Expression reference;
  reference.kind = Expression::Kind::reference;
  reference.offset = expression.offset;
  reference.name = name;
  reference.reference_kind = kind;
  return reference;
}

// Names of references and functions, joined: mean(a) / b is mean_b.
void append_name(const Expression &expression, std::string &name) {
  if (expression.kind == Expression::Kind::operation) {
    for (const Expression &arg : expression.args) append_name(arg, name);
  } else if (expression.kind != Expression::Kind::number) {
    if (!name.empty()) name += '_';
    name += expression.kind == Expression::Kind::call ? name_of(expression.function) : expression.name;
  }
}

class ColumnBuilder {
 public:
  ColumnBuilder(const std::set<std::string> &fields, const std::set<std::string> &tags)
      : fields_(fields), tags_(tags) {}

  void add(const SelectedField &field) {
    const Expression *const expanded = expanded_part_of(field.expression);
    if (expanded == nullptr) {
      std::string name = field.alias;
      if (name.empty()) append_name(field.expression, name);
      add_column(field.expression, std::move(name));
      return;
    }
    const bool is_call = expanded != &field.expression;
    std::string prefix = field.alias;
    if (prefix.empty() && is_call) prefix = name_of(field.expression.function);
    for (const auto &[name, kind] : names_of(*expanded, is_call))
      add_column(with_reference(field.expression, name, kind),
                 prefix.empty() ? name : fmt::format("{}_{}", prefix, name));
  }

  Columns take() { return std::move(columns_); }

 private:
  // Fields and tags, by name. Functions have fields only.
  std::set<std::pair<std::string, ReferenceKind>> names_of(const Expression &expanded, bool is_call) const {
    std::set<std::pair<std::string, ReferenceKind>> names;
    const auto is_wanted = [&](const std::string &name) {
      return !expanded.pattern || expanded.pattern->matches(name);
    };
    if (expanded.reference_kind != ReferenceKind::tag)
      for (const std::string &field : fields_)
        if (is_wanted(field)) names.emplace(field, ReferenceKind::field);
    if (expanded.reference_kind != ReferenceKind::field && !is_call)
      for (const std::string &tag : tags_)
        if (is_wanted(tag)) names.emplace(tag, ReferenceKind::tag);
    return names;
  }

  void add_column(const Expression &expression, std::string name) {
    if (columns_.columns.size() == COLUMNS_MAX) throw ExecutionFailed(fmt::format("more than {} columns", COLUMNS_MAX));
    Column column;
    add_steps(expression, column.steps);
    column.name = name;
    for (int i = 1; !names_.insert(column.name).second; ++i) column.name = fmt::format("{}_{}", name, i);
    columns_.columns.push_back(std::move(column));
  }

  void add_steps(const Expression &expression, std::vector<Step> &steps) {
    Step step;
    if (expression.kind == Expression::Kind::operation) {
      add_steps(expression.args[0], steps);
      add_steps(expression.args[1], steps);
      step.kind = Step::Kind::operation;
      step.op = expression.op;
    } else if (expression.kind == Expression::Kind::number) {
      step.number = expression.number;
    } else {
      step.kind = Step::Kind::leaf;
      step.leaf = index_of(leaf_of(expression));
    }
    steps.push_back(step);
  }

  // Equal leaves are one, because each has its own points.
  size_t index_of(Leaf leaf) {
    const auto [known, is_new] = leaves_.try_emplace(leaf, columns_.leaves.size());
    if (!is_new) return known->second;
    if (columns_.leaves.size() == LEAVES_MAX)
      throw ExecutionFailed(fmt::format("more than {} different fields and functions of them", LEAVES_MAX));
    columns_.leaves.push_back(std::move(leaf));
    return columns_.leaves.size() - 1;
  }

  static Leaf leaf_of(const Expression &expression) {
    Leaf leaf;
    const Expression *part = &expression;
    if (part->kind == Expression::Kind::call && is_derivative(part->function)) {
      leaf.derivative = part->function;
      leaf.unit_ns = part->unit_ns;
      part = part->args.data();
    }
    if (part->kind == Expression::Kind::call) {
      leaf.aggregate = part->function;
      leaf.percent = part->percent;
      part = part->args.data();
    }
    leaf.name = part->name;
    leaf.reference_kind = part->reference_kind;
    return leaf;
  }

  const std::set<std::string> &fields_;
  const std::set<std::string> &tags_;
  Columns columns_;
  std::set<std::string> names_;
  std::map<Leaf, size_t> leaves_;  // their indices
};

// Integers stay integers if the result is one.
std::optional<Number> integer_result_of(char op, int64_t left, int64_t right) {
  int64_t result = 0;
  const bool is_wrong = op == '+'   ? __builtin_add_overflow(left, right, &result)
                        : op == '-' ? __builtin_sub_overflow(left, right, &result)
                        : op == '*' ? __builtin_mul_overflow(left, right, &result)
                                    : true;
  return is_wrong ? std::nullopt : std::optional(Number(result));
}

double real_result_of(char op, double left, double right) {
  switch (op) {
    case '+':
      return left + right;
    case '-':
      return left - right;
    case '*':
      return left * right;
    // As InfluxDB has it. A missing operand stays one.
    case '/':
      return right == 0.0 && !std::isnan(left) ? 0.0 : left / right;
    default:
      return std::fmod(left, right);
  }
}

// A whole number is an integer, so that n + 1 stays one.
Number literal(double number) {
  constexpr double MAX_EXACT = 9007199254740992.0;  // 2^53
  return std::fabs(number) < MAX_EXACT && std::trunc(number) == number ? Number(static_cast<int64_t>(number))
                                                                       : Number(number);
}

Number result_of(char op, const Number &left, const Number &right) {
  if (left.is_integer() && right.is_integer())
    if (const std::optional<Number> result = integer_result_of(op, left.integer(), right.integer())) return *result;
  return Number(real_result_of(op, left.real(), right.real()));
}

}  // namespace

std::optional<size_t> Column::only_leaf() const {
  return steps.size() == 1 && steps[0].kind == Step::Kind::leaf ? std::optional(steps[0].leaf) : std::nullopt;
}

Columns columns_of(const SelectStatement &select, const std::set<std::string> &fields,
                   const std::set<std::string> &tags) {
  ColumnBuilder builder(fields, tags);
  for (const SelectedField &field : select.fields) builder.add(field);
  return builder.take();
}

Number Calculator::value(const Column &column, std::span<const Number> leaves) {
  stack_.clear();
  for (const Step &step : column.steps) {
    if (step.kind != Step::Kind::operation) {
      stack_.push_back(step.kind == Step::Kind::number ? literal(step.number) : leaves[step.leaf]);
      continue;
    }
    const Number right = stack_.back();
    stack_.pop_back();
    stack_.back() = result_of(step.op, stack_.back(), right);
  }
  return stack_.back();
}

Cell cell_of(const Number &value) {
  Cell cell;
  if (value.is_integer()) {
    cell.kind = Cell::Kind::integer;
    cell.integer = value.integer();
  } else if (std::isfinite(value.real())) {
    cell.kind = Cell::Kind::number;
    cell.number = value.real();
  }
  return cell;
}

}  // namespace metricdb::influxql
