// `metricdb query`: prints the points of one series, or a function of them per window of time.
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <iterator>
#include <stdexcept>

#include "cli/commands.h"
#include "cli/output.h"
#include "cli/write_options.h"
#include "extra/plot_svg.h"
#include "net/http_client.h"
#include "query/influxql.h"
#include "query/query.h"
#include "query/query_text.h"
#include "query/store_source.h"
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

[[noreturn]] void refuse_usage(const char *why) {
  throw std::runtime_error(why);
}

void check_usage(const QueryArguments &arguments) {
  check_server_or_db(arguments.server, arguments.db);
  if (arguments.key.empty() == arguments.statement.empty()) refuse_usage("use either a KEY or --influxql");
  if (!arguments.server.address.empty() && arguments.statement.empty()) refuse_usage("--server needs --influxql");
  const bool has_options = !arguments.from.empty() || !arguments.to.empty() || !arguments.every.empty();
  if (has_options && !arguments.statement.empty()) refuse_usage("--from, --to and --every are for a KEY");
  if (arguments.format == "svg" && !arguments.statement.empty()) refuse_usage("--format svg is for a KEY");
}

// In CSV the error follows a line with the name of the column.
std::string last_line(std::string_view text) {
  while (text.ends_with('\n')) text.remove_suffix(1);
  return std::string(text.substr(text.rfind('\n') + 1));
}

// Prints JSON, or CSV for each other format.
int answer_statement(const QueryArguments &arguments) {
  const bool is_json = arguments.format == "json";
  bool is_bad = false;
  std::string body;
  if (!arguments.server.address.empty()) {
    const FetchedAnswer answer =
        fetch(http_server_of(arguments.server), "/query?q=" + url_encoded(arguments.statement),
              is_json ? "application/json" : "application/csv");
    is_bad = answer.status != 200;
    body = answer.body;
  } else {
    OpenDatabase opened = open_to_read(arguments.db, arguments.salvage);
    opened.store().go_live();
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const InfluxqlRequest request = {.text = arguments.statement,
                                     .csv = !is_json,
                                     .now_ns = std::chrono::duration_cast<std::chrono::nanoseconds>(now).count()};
    const InfluxqlAnswer answer = answer_influxql(StoreSource(opened.store()), request, {"metricdb"});
    is_bad = answer.is_bad_request;
    body = answer.body;
  }
  if (is_bad) throw std::runtime_error(last_line(body));
  print(body);
  return EXIT_GOOD;
}

}  // namespace

int query(const QueryArguments &arguments) {
  check_usage(arguments);
  if (!arguments.statement.empty()) return answer_statement(arguments);
  const Query query = query_of(arguments);
  const OpenDatabase opened = open_to_read(arguments.db, arguments.salvage);
  const std::optional<uint32_t> series = opened.store().find(arguments.key);
  if (!series) throw DatabaseError(fmt::format("{}: holds no series \"{}\"", arguments.db, arguments.key));
  TimeRange range;
  range.from_ns = query.from_ns;
  // The limit of the query is the first time after the range.
  if (query.to_ns) range.to_ns = *query.to_ns == INT64_MIN ? INT64_MIN : *query.to_ns - 1;
  PointCursor cursor(opened.store(), *series, range);
  const auto points = answer(query, [&cursor](Point &point) { return cursor.next_real(point); });
  print(text_of(arguments.format, {arguments.key, query}, points));
  return EXIT_GOOD;
}

}  // namespace metricdb
