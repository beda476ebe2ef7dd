// Regular expressions, in the syntax of RE2. Matching takes linear time, also for an expression of an adversary.
#pragma once

#include <memory>
#include <string>
#include <string_view>

namespace re2 {
class RE2;
}

namespace metricdb::influxql {

class Pattern {
 public:
  // Throws std::invalid_argument, with the reason.
  explicit Pattern(std::string_view text);

  // Returns whether it matches any part of `text`.
  bool matches(std::string_view text) const;

 private:
  std::shared_ptr<const re2::RE2> regex_;
};

}  // namespace metricdb::influxql
