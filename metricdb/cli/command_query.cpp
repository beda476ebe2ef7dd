// `metricdb query`: prints the points of one series, or a function of them per window of time.
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <iterator>

#include "cli/commands.h"
#include "cli/output.h"
#include "cli/write_options.h"
#include "extra/plot_svg.h"
#include "query/query.h"
#include "query/query_text.h"
#include "query/time_text.h"
#include "store/database.h"

namespace metricdb {
namespace {

Query query_of(const QueryArguments &arguments) {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  const int64_t now_ns = std::chrono::duration_cast<std::chrono::nanoseconds>(now).count();
  Query query;
  if (!arguments.from.empty()) query.from_ns = time_of(arguments.from, now_ns);
  if (!arguments.to.empty()) query.to_ns = time_of(arguments.to, now_ns);
  if (!arguments.every.empty()) query.every_ns = duration_of(arguments.every);
  const auto *const name = std::find(std::begin(FN_NAMES), std::end(FN_NAMES), arguments.fn);
  query.fn = static_cast<Fn>(name - std::begin(FN_NAMES));
  return query;
}

std::string text_of(const std::string &format, const SeriesQuery &query, const std::vector<Point> &points) {
  if (format == "csv") return answer_csv(query, points);
  if (format == "json") return answer_json(query, points);
  return format == "svg" ? answer_svg(query, points) : answer_table(query, points);
}

}  // namespace

int query(const QueryArguments &arguments) {
  const Query query = query_of(arguments);
  const OpenDatabase opened = open_to_read(arguments.db, arguments.salvage);
  const std::optional<uint32_t> series = opened.store().find(arguments.key);
  if (!series) throw DatabaseError(fmt::format("{}: holds no series \"{}\"", arguments.db, arguments.key));
  TimeRange range;
  range.from_ns = query.from_ns;
  // The limit of the query is the first time after the range.
  if (query.to_ns) range.to_ns = *query.to_ns == INT64_MIN ? INT64_MIN : *query.to_ns - 1;
  PointCursor cursor(opened.store(), *series, range);
  const auto points = answer(query, [&cursor](Point &point) { return cursor.next(point); });
  print(text_of(arguments.format, {arguments.key, query}, points));
  return EXIT_GOOD;
}

}  // namespace metricdb
