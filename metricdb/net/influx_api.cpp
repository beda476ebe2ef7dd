#include "net/influx_api.h"

#include <fmt/format.h>

#include <charconv>
#include <nlohmann/json.hpp>
#include <optional>
#include <utility>

#include "codec/printable.h"

namespace metricdb {
namespace {

using Json = nlohmann::ordered_json;

// Reasons quote the request, which need not be UTF-8.
std::string json_text(const Json &json) {
  return json.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

HttpAnswer json_answer(const Json &json) {
  HttpAnswer answer;
  answer.status = HTTP_STATUS_OK;
  answer.json = json_text(json);
  return answer;
}

std::string url_decoded(std::string_view text) {
  std::string decoded;
  for (size_t i = 0; i < text.size(); ++i) {
    unsigned byte = 0;
    const bool is_coded = text[i] == '%' && i + 2 < text.size() &&
                          std::from_chars(&text[i + 1], &text[i + 1] + 2, byte, 16).ptr == &text[i + 1] + 2;
    decoded += is_coded ? static_cast<char>(byte) : text[i] == '+' ? ' ' : text[i];
    i += is_coded ? 2 : 0;
  }
  return decoded;
}

// Returns the value of `name` in `a=1&b=2`.
std::optional<std::string> argument(std::string_view arguments, std::string_view name) {
  while (!arguments.empty()) {
    const size_t end = std::min(arguments.find('&'), arguments.size());
    const std::string_view pair = arguments.substr(0, end);
    const size_t equals = std::min(pair.find('='), pair.size());
    if (pair.substr(0, equals) == name) return url_decoded(pair.substr(std::min(equals + 1, pair.size())));
    arguments.remove_prefix(std::min(end + 1, arguments.size()));
  }
  return std::nullopt;
}

struct Target {
  std::string_view path;
  std::string_view arguments;
};

std::optional<Target> target_of(const HttpRequest &request) {
  http_parser_url url;
  http_parser_url_init(&url);
  const std::string_view text = request.target;
  if (http_parser_parse_url(text.data(), text.size(), 0, &url) != 0) return std::nullopt;
  const auto part = [&](http_parser_url_fields field) {
    const auto &place = url.field_data[field];
    return (url.field_set & 1U << field) != 0 ? text.substr(place.off, place.len) : std::string_view();
  };
  return Target{part(UF_PATH), part(UF_QUERY)};
}

std::optional<Precision> precision_of(std::string_view unit) {
  constexpr int64_t S = static_cast<int64_t>(Precision::s);
  static constexpr std::pair<std::string_view, Precision> UNITS[] = {
      {"", Precision::ns},      {"n", Precision::ns},      {"ns", Precision::ns}, {"u", Precision::us},
      {"us", Precision::us},    {"µ", Precision::us},      {"ms", Precision::ms}, {"s", Precision::s},
      {"m", Precision{60 * S}}, {"h", Precision{3600 * S}}};
  for (const auto &[name, precision] : UNITS)
    if (name == unit) return precision;
  return std::nullopt;
}

std::optional<Credentials> credentials_of(const HttpRequest &request, std::string_view arguments) {
  const std::string name = argument(arguments, "u").value_or(""), password = argument(arguments, "p").value_or("");
  return name.empty() || password.empty() ? basic_credentials(request.authorization) : Credentials{name, password};
}

bool is_reading(const HttpRequest &request) {
  return request.method == HTTP_GET || request.method == HTTP_HEAD;
}

HttpAnswer not_allowed(const char *methods) {
  HttpAnswer answer = error_answer(HTTP_STATUS_METHOD_NOT_ALLOWED, fmt::format("allowed methods: {}", methods));
  answer.allow = methods;
  return answer;
}

RoutedRequest route_write(const HttpRequest &request, std::string_view arguments) {
  if (request.method != HTTP_POST) return not_allowed("POST");
  const std::string unit = argument(arguments, "precision").value_or("");
  const std::optional<Precision> precision = precision_of(unit);
  if (!precision)
    return error_answer(HTTP_STATUS_BAD_REQUEST,
                        fmt::format("precision \"{}\" is not one of n, ns, u, us, ms, s, m and h", unit));
  const std::string &encoding = request.content_encoding;
  const bool is_gzip = encoding == "gzip" || encoding == "x-gzip";
  if (!is_gzip && !encoding.empty() && encoding != "identity")
    return error_answer(HTTP_STATUS_UNSUPPORTED_MEDIA_TYPE,
                        fmt::format("content encoding \"{}\" is not supported; gzip and identity are", encoding));
  return WriteRequest{*precision, is_gzip, argument(arguments, "db").value_or("")};
}

}  // namespace

const char *role_name(ReplicaFigures::Role role) {
  if (role == ReplicaFigures::Role::ended) return "ended";
  return role == ReplicaFigures::Role::leader ? "leader" : "follower";
}

HttpAnswer error_answer(http_status status, std::string reason) {
  HttpAnswer answer;
  answer.status = status;
  answer.json = json_text({{"error", reason}});
  answer.error = std::move(reason);
  return answer;
}

HttpAnswer unknown_database(const std::string &name) {
  return name.empty() ? error_answer(HTTP_STATUS_BAD_REQUEST, "database is required")
                      : error_answer(HTTP_STATUS_NOT_FOUND, fmt::format("database not found: \"{}\"", name));
}

HttpAnswer answer_to(const IngestResult &result) {
  if (result.n_skipped() == 0) return {};
  // The client should send the request again if lines had no room, although some points are stored.
  const bool has_room = result.no_room == 0;
  return error_answer(has_room ? HTTP_STATUS_BAD_REQUEST : HTTP_STATUS_SERVICE_UNAVAILABLE,
                      fmt::format("partial write: {} dropped={}", has_room ? result.first_reason : result.room_reason,
                                  result.n_skipped()));
}

std::optional<HttpAnswer> InfluxApi::denial(const HttpRequest &request, std::string_view arguments, Right right) {
  if (!access_.has_users()) return std::nullopt;
  const std::optional<Credentials> credentials = credentials_of(request, arguments);
  const Access::Outcome outcome = access_.check(credentials, right);
  if (outcome == Access::Outcome::allowed) return std::nullopt;
  const std::string who =
      credentials ? fmt::format("user \"{}\"", printable(credentials->name)) : "a request without a user";
  HttpAnswer answer;
  switch (outcome) {
    case Access::Outcome::allowed:
    case Access::Outcome::unknown:
      ++denied_.unknown;
      answer = error_answer(HTTP_STATUS_UNAUTHORIZED,
                            credentials ? "authorization failed" : "unable to parse authentication credentials");
      answer.log = who + " was denied: " + (credentials ? "wrong name or password" : "this server has users");
      break;
    case Access::Outcome::forbidden:
      ++denied_.forbidden;
      answer = error_answer(HTTP_STATUS_FORBIDDEN,
                            fmt::format("{} is not authorized to {}", who, right == Right::read ? "read" : "write"));
      answer.log = answer.error;
      break;
    case Access::Outcome::busy:
      ++denied_.busy;
      answer = error_answer(HTTP_STATUS_SERVICE_UNAVAILABLE, "too many passwords are being checked, try again");
      answer.log = who + " was denied: " + answer.error;
  }
  return answer;
}

// Why a user that is known lacks a right; empty if it does not.
std::string InfluxApi::refusal(const HttpRequest &request, std::string_view arguments, Right right) const {
  if (!access_.has_users()) return "";
  const std::optional<Credentials> credentials = credentials_of(request, arguments);
  if (access_.check(credentials, right) == Access::Outcome::allowed) return "";
  return fmt::format("user \"{}\" is not authorized to {}", printable(credentials->name),
                     right == Right::read ? "read" : "write");
}

std::optional<HttpAnswer> InfluxApi::denial_of_head(const HttpRequest &request) {
  const std::optional<Target> target = target_of(request);
  const bool is_write = target && target->path == "/write";
  if (is_write || (target && target->path == "/query"))
    return denial(request, target->arguments, is_write ? Right::write : Right::any);
  const RoutedRequest routed = route(request);
  const auto *const answer = std::get_if<HttpAnswer>(&routed);
  return answer != nullptr ? std::optional(*answer) : std::nullopt;
}

std::optional<HttpAnswer> InfluxApi::answer_to_head(const HttpRequest &request) {
  const std::optional<Target> target = target_of(request);
  if (!target || target->path != "/write") return std::nullopt;
  const auto routed = route_write(request, target->arguments);
  const auto *answer = std::get_if<HttpAnswer>(&routed);
  return answer != nullptr ? std::optional(*answer) : std::nullopt;
}

RoutedRequest InfluxApi::route(const HttpRequest &request) {
  const std::optional<Target> target = target_of(request);
  if (!target) return error_answer(HTTP_STATUS_BAD_REQUEST, "the target of the request is not a URL");
  if (target->path == "/write") {
    if (auto answer = denial(request, target->arguments, Right::write)) return *std::move(answer);
    return route_write(request, target->arguments);
  }
  if (target->path == "/query")
    return is_reading(request) || request.method == HTTP_POST ? query(request, target->arguments)
                                                              : RoutedRequest(not_allowed("GET, POST"));
  RoutedRequest routed = route_without_body(request, target->path, target->arguments);
  const auto *const answer = std::get_if<HttpAnswer>(&routed);
  const bool is_refused = answer != nullptr && !answer->error.empty();
  if (request.has_body && !is_refused)
    return error_answer(HTTP_STATUS_BAD_REQUEST, "only /write and /query have a body");
  return routed;
}

RoutedRequest InfluxApi::route_without_body(const HttpRequest &request, std::string_view path,
                                            std::string_view arguments) {
  const bool reads = is_reading(request);
  if (path == "/backup") {
    if (auto answer = denial(request, arguments, Right::write)) return *std::move(answer);
    return request.method == HTTP_POST ? RoutedRequest(BackupRequest{argument(arguments, "name").value_or(""),
                                                                     argument(arguments, "db").value_or("")})
                                       : RoutedRequest(not_allowed("POST"));
  }
  if (path == "/promote") {
    if (auto answer = denial(request, arguments, Right::write)) return *std::move(answer);
    return request.method == HTTP_POST ? RoutedRequest(PromoteRequest()) : RoutedRequest(not_allowed("POST"));
  }
  if (path == "/ping") return reads ? HttpAnswer() : not_allowed("GET, HEAD");
  if (path == "/health") return reads ? health() : not_allowed("GET, HEAD");
  if (path == "/metrics") {
    if (auto answer = denial(request, arguments, Right::read)) return *std::move(answer);
    return reads ? metrics() : not_allowed("GET, HEAD");
  }
  return error_answer(HTTP_STATUS_NOT_FOUND,
                      "the paths are /write, /query, /ping, /health, /metrics, /backup and /promote");
}

HttpAnswer InfluxApi::health() const {
  const std::string why = view_.why_unhealthy(), warning = view_.warning();
  const std::optional<ReplicaFigures> replica = view_.replica();
  const bool follows = replica && replica->role == ReplicaFigures::Role::follower;
  std::string message = why;
  if (why.empty()) message = follows ? "ready for queries, follows " + replica->name : "ready for writes";
  if (why.empty() && !warning.empty()) message += "; " + warning;
  const char *const status = !why.empty() ? "fail" : warning.empty() ? "pass" : "warn";
  Json json = {{"name", "metricdb"}, {"message", message}, {"status", status}};
  if (replica)
    json["replica"] = {{"role", role_name(replica->role)},
                       {"epoch", replica->epoch},
                       {"number", replica->number},
                       {"lag_messages", replica->lag},
                       {"lag_seconds", replica->lag_s}};
  HttpAnswer answer = json_answer(json);
  if (!why.empty()) answer.status = HTTP_STATUS_SERVICE_UNAVAILABLE;
  return answer;
}

HttpAnswer InfluxApi::metrics() const {
  HttpAnswer answer;
  answer.status = HTTP_STATUS_OK;
  answer.json = view_.metrics();
  answer.content_type = "text/plain; version=0.0.4; charset=utf-8";
  return answer;
}

RoutedRequest InfluxApi::query(const HttpRequest &request, std::string_view arguments) {
  const bool is_form = request.content_type.starts_with("application/x-www-form-urlencoded");
  const auto value_of = [&](std::string_view name) {
    const std::optional<std::string> value = argument(arguments, name);
    return value || !is_form ? value : argument(request.body, name);
  };
  const std::optional<std::string> text = value_of("q");
  if (auto answer = denial(request, arguments, Right::any)) return *std::move(answer);
  if (!text) return error_answer(HTTP_STATUS_BAD_REQUEST, "missing required parameter \"q\"");
  QueryRequest query;
  query.text = *text;
  query.epoch = value_of("epoch").value_or("");
  query.is_pretty = value_of("pretty") == "true";
  query.is_chunked = value_of("chunked") == "true";
  const std::string rows = value_of("chunk_size").value_or("");
  std::from_chars(rows.data(), rows.data() + rows.size(), query.chunk_rows);
  query.is_csv = request.accept.starts_with("application/csv") || request.accept.starts_with("text/csv");
  query.is_partial = value_of("parts") == "true";
  int64_t now_ns;
  const std::string now = value_of("now").value_or("");
  if (std::from_chars(now.data(), now.data() + now.size(), now_ns).ec == std::errc()) query.now_ns = now_ns;
  query.database = value_of("db").value_or("");
  query.refusal_of_reads = refusal(request, arguments, Right::read);
  query.refusal_of_creations = refusal(request, arguments, Right::write);
  query.refusal_of_changes = request.method == HTTP_POST ? query.refusal_of_creations
                                                         : "a statement that changes the database needs a POST request";
  return query;
}

}  // namespace metricdb
