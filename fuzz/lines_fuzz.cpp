// Reads any bytes as lines of line protocol, with the parser and with the reader that shares no code with it, and as lines
// of Graphite's protocol, whose conversion the parser must accept.
#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "codec/graphite.h"
#include "codec/line_protocol.h"
#include "extra/reference_reader.h"

using namespace metricdb;

namespace {

constexpr int64_t NOW_NS = 77;

void need(bool holds, const char *what) {
  if (holds) return;
  std::fprintf(stderr, "does not hold: %s\n", what);
  std::abort();
}

std::string text_of(std::string_view key, double value, int64_t ts_ns) {
  return fmt::format("{}={}@{}\n", key, value, ts_ns);
}

std::string parsed_points(LineParser &parser, std::string_view text, const LikelyLine &likely) {
  std::string points;
  const LineParser::Outcome outcome = parser.parse(text, likely);
  if (outcome == LineParser::Outcome::malformed) need(!parser.reason().empty(), "a malformed line has a reason");
  if (outcome != LineParser::Outcome::line) return points;
  const ParsedLine &line = parser.line();
  for (const ParsedField &field : line.fields)
    points += text_of(fmt::format("{} {}", line.head, field.key), field.value, line.ts_ns.value_or(NOW_NS));
  return points;
}

void compare_readers(std::string_view text, Precision precision) {
  std::string likely_head;
  for (std::string_view line; next_line(text, line);) {
    std::string expected;
    for (const ReferencePoint &point : reference_points(line, static_cast<int64_t>(precision), NOW_NS))
      expected += text_of(point.key, point.value, point.ts_ns);
    LineParser parser(precision);
    need(parsed_points(parser, line, {}) == expected, "both readers find the same points");
    if (expected.empty()) continue;
    // A line that begins with the head of an earlier one.
    line.remove_prefix(line.find_first_not_of(' '));
    const std::string head = likely_head.empty() ? std::string(parser.line().head) : likely_head;
    if (line.starts_with(head + ' ')) {
      const KnownField fields[] = {{"f", 1}, {"usage", 2}};
      need(parsed_points(parser, line, {head, fields}) == expected, "what is expected of a line changes nothing");
    }
    likely_head = head;
  }
}

void convert_graphite(std::string_view text) {
  GraphiteConverter converter;
  converter.convert(text);
  need((converter.malformed() == 0) == converter.first_reason().empty(), "a reason if a line is malformed");
  uint64_t n_lines = 0;
  std::string_view rest = converter.text();
  LineParser parser;
  for (std::string_view line; next_line(rest, line); ++n_lines) {
    const LineParser::Outcome outcome = parser.parse(line);
    // What only the parser looks at.
    if (outcome == LineParser::Outcome::nothing && line[0] == '#') continue;
    if (outcome == LineParser::Outcome::malformed && parser.reason().ends_with("is given twice")) continue;
    need(outcome == LineParser::Outcome::line, "a converted line is valid");
    need(parser.line().fields.size() == 1 && parser.line().fields[0].key == "value", "it has one field");
  }
  const auto n_given = static_cast<uint64_t>(std::count(text.begin(), text.end(), '\n')) + 1;
  need(n_lines + converter.malformed() <= n_given, "no line is converted twice");
}

}  // namespace

// The first byte is the precision.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static constexpr Precision PRECISIONS[] = {Precision::ns, Precision::us, Precision::ms, Precision::s};
  if (size == 0) return 0;
  const std::string_view text(reinterpret_cast<const char *>(data) + 1, size - 1);
  compare_readers(text, PRECISIONS[data[0] % 4]);
  convert_graphite(text);
  return 0;
}
