#include "query/influxql_pattern.h"

#include <re2/re2.h>

#include <stdexcept>

#include "codec/printable.h"
#include "query/influxql_lexer.h"

namespace metricdb::influxql {
namespace {

constexpr int64_t PATTERN_MEMORY_BYTES = 1 << 20;  // of one compiled expression and its cache

re2::StringPiece piece_of(std::string_view text) {
  return {text.data(), text.size()};
}

}  // namespace

Pattern::Pattern(std::string_view text) {
  RE2::Options options;
  options.set_log_errors(false);
  options.set_max_mem(PATTERN_MEMORY_BYTES);
  regex_ = std::make_shared<const RE2>(piece_of(text), options);
  if (!regex_->ok()) throw std::invalid_argument(printable(regex_->error()));
}

bool Pattern::matches(std::string_view text) const {
  return RE2::PartialMatch(piece_of(text), *regex_);
}

}  // namespace metricdb::influxql
