// `metricdb query`: prints the points of one series, or a function of them per window of time.
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <iterator>
#include <set>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include "cli/commands.h"
#include "cli/open_databases.h"
#include "cli/output.h"
#include "cli/write_options.h"
#include "extra/plot_svg.h"
#include "net/http_client.h"
#include "query/influxql.h"
#include "query/parallel.h"
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
  if (!arguments.server.addresses.empty() && arguments.statement.empty()) refuse_usage("--server needs --influxql");
  const std::vector<std::string> &servers = arguments.server.addresses;
  if (std::set(servers.begin(), servers.end()).size() != servers.size()) refuse_usage("a --server is named twice");
  const bool has_options = !arguments.from.empty() || !arguments.to.empty() || !arguments.every.empty();
  if (has_options && !arguments.statement.empty()) refuse_usage("--from, --to and --every are for a KEY");
  if (arguments.format == "svg" && !arguments.statement.empty()) refuse_usage("--format svg is for a KEY");
}

// In CSV the error follows a line with the name of the column.
std::string last_line(std::string_view text) {
  while (text.ends_with('\n')) text.remove_suffix(1);
  return std::string(text.substr(text.rfind('\n') + 1));
}

InfluxqlAnswer answer_from_files(const QueryArguments &arguments, const InfluxqlRequest &request) {
  OpenDatabase opened = open_to_read(arguments.db, arguments.salvage);
  opened.store().go_live();
  return answer_influxql(StoreSource(opened.store()), request, {"metricdb"},
                         opened.store().config().forgetting.retain_ns);
}

// No other process may have the database open.
InfluxqlAnswer answer_with_changes(const QueryArguments &arguments, const InfluxqlRequest &request) {
  if (!stored_parameters(arguments.db)) throw DatabaseError(arguments.db + ": holds no database");
  WriterOptions options;
  options.salvage = arguments.salvage;
  options.is_live = true;
  const auto writer = std::make_shared<DatabaseWriter>(arguments.db, options);
  report_warnings(writer->warnings());
  DatabaseNames names;
  OnlyDatabase database(writer, names, true, {});
  InfluxqlAnswer answer = answer_influxql(database, request);
  writer->close();
  return answer;
}

std::string target_of(const QueryArguments &arguments) {
  return fmt::format("/query?db={}&q={}", url_encoded(arguments.database), url_encoded(arguments.statement));
}

InfluxqlAnswer answer_from_server(const QueryArguments &arguments, const InfluxqlRequest &request) {
  const FetchedAnswer fetched = fetch(http_servers_of(arguments.server)[0], target_of(arguments),
                                      request.csv ? "application/csv" : "application/json");
  InfluxqlAnswer answer;
  answer.is_bad_request = fetched.status != 200;
  answer.body = fetched.body;
  answer.first_error = fetched.error;
  return answer;
}

// One that cannot answer, or not without an error of HTTP, fails the query: an answer without its series would be wrong.
InfluxqlAnswer answer_from_servers(const QueryArguments &arguments, const InfluxqlRequest &request) {
  const std::vector<HttpServer> servers = http_servers_of(arguments.server);
  const std::string target = fmt::format("{}&parts=true&now={}", target_of(arguments), request.now_ns);
  std::vector<std::string> bodies(servers.size());
  parallel_for(servers.size(), static_cast<unsigned>(servers.size()), [&](size_t i) {
    FetchedAnswer answer = fetch(servers[i], target, "application/csv");
    if (answer.status != 200) throw HttpClientError(fmt::format("{}: {}", servers[i].address, last_line(answer.body)));
    bodies[i] = std::move(answer.body);
  });
  return answer_of_servers(bodies, request);
}

// Prints JSON, or CSV for each other format.
int answer_statement(const QueryArguments &arguments) {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  const InfluxqlRequest request = {.text = arguments.statement,
                                   .csv = arguments.format != "json",
                                   .now_ns = std::chrono::duration_cast<std::chrono::nanoseconds>(now).count(),
                                   .n_threads = std::thread::hardware_concurrency()};
  const InfluxqlAnswer answer = arguments.server.addresses.size() > 1    ? answer_from_servers(arguments, request)
                                : arguments.server.addresses.size() == 1 ? answer_from_server(arguments, request)
                                : changes_databases(request)             ? answer_with_changes(arguments, request)
                                                                         : answer_from_files(arguments, request);
  if (answer.is_bad_request) throw std::runtime_error(last_line(answer.body));
  print(answer.body);
  if (!answer.first_error.empty()) throw std::runtime_error(answer.first_error);
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
