#include "net/metrics.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <numeric>

#include "net/connection.h"
#include "net/influx_api.h"
#include "net/nats_source.h"

namespace metricdb {
namespace {

// Returns the resident memory of the process; 0 if it is not known.
uint64_t resident_bytes() {
  std::FILE *const file = std::fopen("/proc/self/statm", "re");
  if (file == nullptr) return 0;
  unsigned long long all = 0, resident = 0;
  const int n_read = std::fscanf(file, "%llu %llu", &all, &resident);
  std::fclose(file);
  return n_read == 2 ? resident * static_cast<uint64_t>(sysconf(_SC_PAGESIZE)) : 0;
}

class MetricsText {
 public:
  void begin(const char *name, const char *type, const char *help) {
    text_ += fmt::format("# HELP {} {}\n# TYPE {} {}\n", name, help, name, type);
  }
  template <class Number>
  void add(const char *name, const char *type, const char *help, Number value) {
    begin(name, type, help);
    text_ += fmt::format("{} {}\n", name, value);
  }
  void add_reason(const char *name, const char *reason, uint64_t value) { add_labelled(name, "reason", reason, value); }
  void add_labelled(const char *name, const char *label, const char *text, uint64_t value) {
    text_ += fmt::format("{}{{{}=\"{}\"}} {}\n", name, label, text, value);
  }
  std::string &text() { return text_; }

 private:
  std::string text_;
};

void append_server(MetricsText &metrics, const Hub &hub, size_t n_waiting_batches) {
  metrics.add("metricdb_points_total", "counter", "Points that were stored.", hub.points.value());
  metrics.add("metricdb_requests_total", "counter", "Requests over HTTP.", hub.requests.value());
  metrics.add("metricdb_received_bytes_total", "counter", "Bytes received from clients.", hub.bytes.value());
  const char *const skipped = "metricdb_skipped_lines_total";
  metrics.begin(skipped, "counter", "Lines whose points were not stored.");
  metrics.add_reason(skipped, "malformed", hub.malformed.value());
  metrics.add_reason(skipped, "late", hub.late.value());
  metrics.add_reason(skipped, "future", hub.future.value());
  metrics.add_reason(skipped, "no_room", hub.no_room.value());
  const char *const refused = "metricdb_refused_requests_total";
  metrics.begin(refused, "counter", "Requests of which no point was stored, and pieces of Graphite streams.");
  metrics.add_reason(refused, "no_room", hub.refused.value() - hub.lost.value() - hub.read_only.value());
  metrics.add_reason(refused, "read_only", hub.read_only.value());
  metrics.add_reason(refused, "batch_lost", hub.lost.value());
  metrics.add("metricdb_slow_requests_total", "counter", "Requests that were answered slowly.", hub.slow.value());
  metrics.add("metricdb_connections", "gauge", "Open connections.", hub.accepted.value() - hub.closed.value());
  metrics.add("metricdb_accepted_connections_total", "counter", "Accepted connections.", hub.accepted.value());
  const char *const closed = "metricdb_refused_connections_total";
  metrics.begin(closed, "counter", "Connections that the server closed.");
  metrics.add_reason(closed, "too_many", hub.turned_away.value());
  metrics.add_reason(closed, "stalled", hub.stalled.value());
  metrics.add_reason(closed, "tls", hub.tls_failed.value());
  metrics.add("metricdb_buffered_bytes", "gauge", "Memory for incomplete requests.", hub.blocks.lent_bytes());
  metrics.add("metricdb_waiting_bytes", "gauge", "Bytes of lines that are not durable yet.", hub.unanswered_bytes);
  metrics.add("metricdb_waiting_batches", "gauge", "Batches that are not durable yet.", n_waiting_batches);
  metrics.begin("metricdb_batch_seconds", "histogram", "Time from the end of a batch until it is durable.");
  hub.batch_times.append_to(metrics.text(), "metricdb_batch_seconds");
}

void append_denied(MetricsText &metrics, const DeniedRequests &denied) {
  const char *const name = "metricdb_denied_requests_total";
  metrics.begin(name, "counter", "Requests that their user, or the lack of one, does not allow.");
  metrics.add_reason(name, "unknown_user", denied.unknown);
  metrics.add_reason(name, "no_right", denied.forbidden);
  metrics.add_reason(name, "too_many_passwords", denied.busy);
}

void append_queries(MetricsText &metrics, const Hub &hub) {
  const char *const queries = "metricdb_queries_total";
  metrics.begin(queries, "counter", "Queries by their result.");
  metrics.add_labelled(queries, "result", "answered", hub.queries_answered.value());
  metrics.add_labelled(queries, "result", "failed", hub.queries_failed.value());
  metrics.add_labelled(queries, "result", "refused", hub.queries_refused.value());
  metrics.add_labelled(queries, "result", "interrupted", hub.queries_interrupted.value());
  const QueryWorkers::Load load = hub.queries.load();
  metrics.add("metricdb_waiting_queries", "gauge", "Queries that have not begun.", load.n_waiting);
  metrics.add("metricdb_running_queries", "gauge", "Queries that have begun.", load.n_running);
  metrics.begin("metricdb_query_seconds", "histogram", "Time from the arrival of a query until its answer is known.");
  hub.query_times.append_to(metrics.text(), "metricdb_query_seconds");
}

void append_nats(MetricsText &metrics, const NatsSource &nats) {
  const NatsState state = nats.state();
  metrics.add("metricdb_nats_connected", "gauge", "1 while messages of NATS can arrive.", state.is_connected ? 1 : 0);
  metrics.add("metricdb_nats_connects_total", "counter", "Connections to NATS.", state.n_connects);
  const char *const messages = "metricdb_nats_messages_total";
  metrics.begin(messages, "counter", "Messages of NATS by their answer.");
  metrics.add_labelled(messages, "result", "acknowledged", nats.n_acknowledged());
  metrics.add_labelled(messages, "result", "returned", nats.n_returned());
  metrics.add("metricdb_nats_redelivered_messages_total", "counter", "Messages of NATS that came again.",
              state.n_redelivered);
  metrics.add("metricdb_nats_unacknowledged_messages", "gauge", "Messages that were taken and are not answered.",
              state.n_unacknowledged);
  metrics.add("metricdb_nats_unacknowledged_bytes", "gauge", "Bytes of these messages.", state.unacknowledged_bytes);
  metrics.add("metricdb_nats_stream_messages", "gauge", "Messages that waited in the stream when the last one came.",
              state.n_in_stream);
}

void append_replica(MetricsText &metrics, const ReplicaFigures &replica) {
  metrics.begin("metricdb_replica_role", "gauge", "1 for the part of this server among the replicas.");
  for (const auto role : {ReplicaFigures::Role::follower, ReplicaFigures::Role::leader, ReplicaFigures::Role::ended})
    metrics.add_labelled("metricdb_replica_role", "role", role_name(role), role == replica.role ? 1 : 0);
  metrics.add("metricdb_replica_lag_messages", "gauge",
              "Messages that a follower has not applied, or that the log has not confirmed to a leader.", replica.lag);
  metrics.add("metricdb_replica_lag_seconds", "gauge", "Age of what a follower has, if messages are missing.",
              replica.lag_s);
  metrics.add("metricdb_replica_epoch", "gauge", "Epoch of the last group of batches.", replica.epoch);
  metrics.add("metricdb_replica_number", "gauge", "Number of the last group of batches.", replica.number);
  metrics.add("metricdb_replica_bootstraps_total", "counter", "Snapshots that a follower has taken over.",
              replica.n_bootstraps);
  metrics.add("metricdb_replica_set_aside", "gauge", "Groups that were set aside when the database was opened.",
              replica.n_set_aside);
  metrics.add("metricdb_replica_log_bytes", "gauge", "Bytes of the log, as a leader has seen them last.",
              replica.log_bytes);
  metrics.add("metricdb_replica_snapshots_total", "counter", "Snapshots that were published for followers.",
              replica.n_snapshots);
  metrics.add("metricdb_replica_snapshot_failed", "gauge", "1 if the last of them failed.",
              replica.snapshot_failure.empty() ? 0 : 1);
}

using FiguresOfAll = std::vector<std::pair<std::string, IngestFigures>>;

// One line for each database. The names need no escapes.
template <class Value>
void add_for_each(MetricsText &metrics, const FiguresOfAll &all, const char *name, const char *type, const char *help,
                  Value value) {
  metrics.begin(name, type, help);
  for (const auto &[database, figures] : all)
    metrics.text() += fmt::format("{}{} {}\n", name,
                                  database.empty() ? "" : fmt::format("{{database=\"{}\"}}", database), value(figures));
}

void append_stores(MetricsText &metrics, const FiguresOfAll &all) {
  static constexpr struct {
    const char *name, *type, *help;
    uint64_t IngestFigures::*value;
  } FIGURES[] = {
      {"metricdb_series", "gauge", "Series.", &IngestFigures::series},
      {"metricdb_inactive_series", "gauge", "Series that were not written for a time.",
       &IngestFigures::inactive_series},
      {"metricdb_stored_points", "gauge", "Points in memory.", &IngestFigures::points},
      {"metricdb_key_bytes", "gauge", "Memory for series keys.", &IngestFigures::key_bytes},
      {"metricdb_max_key_bytes", "gauge", "Capacity for series keys.", &IngestFigures::max_key_bytes},
      {"metricdb_point_bytes", "gauge", "Memory for points.", &IngestFigures::point_bytes},
      {"metricdb_max_point_bytes", "gauge", "Capacity for points.", &IngestFigures::max_point_bytes},
      {"metricdb_array_bytes", "gauge", "Memory reserved by the arrays.", &IngestFigures::memory_bytes},
      {"metricdb_journal_bytes", "gauge", "Journal since the last snapshot.", &IngestFigures::journal_bytes},
      {"metricdb_generation", "gauge", "Number of the current generation.", &IngestFigures::generation},
      {"metricdb_snapshots_total", "counter", "Snapshots that were written.", &IngestFigures::snapshots},
  };
  for (const auto &row : FIGURES)
    add_for_each(metrics, all, row.name, row.type, row.help,
                 [&row](const IngestFigures &figures) { return figures.*row.value; });
  add_for_each(metrics, all, "metricdb_snapshot_failed", "gauge", "1 if the last snapshot failed.",
               [](const IngestFigures &figures) { return figures.snapshot_failure.empty() ? 0 : 1; });
  add_for_each(metrics, all, "metricdb_snapshot_pause_seconds", "gauge",
               "Time in which the last snapshot stopped writes.",
               [](const IngestFigures &figures) { return static_cast<double>(figures.snapshot_pause_ns) / 1e9; });
}

}  // namespace

void DurationHistogram::add(std::chrono::steady_clock::duration duration) {
  const double seconds = std::chrono::duration<double>(duration).count();
  sum_s_ += seconds;
  ++counts_[static_cast<size_t>(std::lower_bound(LIMITS_S.begin(), LIMITS_S.end(), seconds) - LIMITS_S.begin())];
}

void DurationHistogram::append_to(std::string &text, const char *name) const {
  uint64_t n_up_to = 0;
  for (size_t i = 0; i < LIMITS_S.size(); ++i)
    text += fmt::format("{}_bucket{{le=\"{}\"}} {}\n", name, LIMITS_S[i], n_up_to += counts_[i]);
  n_up_to += counts_.back();
  text +=
      fmt::format("{}_bucket{{le=\"+Inf\"}} {}\n{}_sum {}\n{}_count {}\n", name, n_up_to, name, sum_s_, name, n_up_to);
}

std::string metrics_text(const Hub &hub, const DeniedRequests &denied, size_t n_waiting_batches,
                         const NatsSource *nats) {
  MetricsText metrics;
  append_server(metrics, hub, n_waiting_batches);
  append_denied(metrics, denied);
  append_queries(metrics, hub);
  if (nats != nullptr) append_nats(metrics, *nats);
  append_stores(metrics, hub.figures_of_all());
  if (hub.ingest != nullptr)
    if (const auto replica = hub.ingest->replica()) append_replica(metrics, *replica);
  metrics.add("process_resident_memory_bytes", "gauge", "Resident memory of the process.", resident_bytes());
  return std::move(metrics.text());
}

}  // namespace metricdb
