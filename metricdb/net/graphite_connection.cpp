#include "net/graphite_connection.h"

#include <fmt/format.h>

namespace metricdb {
namespace {

constexpr size_t MAX_LINE_BYTES = size_t{64} << 10;

}  // namespace

GraphiteConnection::~GraphiteConnection() {
  if (n_malformed_ + n_refused_ > 1)
    log(fmt::format("closed: {} lines skipped, {} pieces refused", n_malformed_, n_refused_));
}

void GraphiteConnection::consume() {
  if (!is_within_limits()) return;
  const std::string_view text = input().text();
  const size_t end = text.rfind('\n') + 1;
  if (end != 0) {
    ingest_lines(text.substr(0, end));
    input().drop_front(end);
    begin_next_request();
  }
  if (input().size() >= MAX_LINE_BYTES) close_with_error("a line is longer than 64 KiB");
}

void GraphiteConnection::ingest_lines(std::string_view lines) {
  converter_.convert(lines);
  hub().malformed.add(converter_.malformed());
  count_malformed(converter_.malformed(), converter_.first_reason());
  const std::string &text = converter_.text();
  if (text.empty()) return;
  try {
    const IngestResult result = hub().take(hub().options.graphite_database, text, Precision::ns);
    count_malformed(result.n_skipped(), result.first_reason);
    if (result.points != 0) queue({OPEN_TICKET, text.size(), {}, hub().options.graphite_database});
  } catch (const IngestRefused &refusal) {
    count_refused(refusal.what());
  }
}

// Only the first malformed line is logged, because such peers usually send many.
void GraphiteConnection::count_malformed(uint64_t n, const std::string &reason) {
  if (n != 0 && n_malformed_ == 0)
    log(reason + "; such lines are skipped without further messages", LogTopic::skipped_lines);
  n_malformed_ += n;
}

void GraphiteConnection::count_refused(const std::string &reason) {
  if (n_refused_++ == 0) log("lines are lost: " + reason, LogTopic::refusals);
}

void GraphiteConnection::refuse(PendingAnswer &, const std::string &reason) {
  count_refused(reason);
}

// An incomplete line may contain half a number.
void GraphiteConnection::on_input_end() {
  if (input().empty()) return;
  hub().malformed.add(1);
  count_malformed(1, "the last line is incomplete");
  input().drop_front(input().size());
}

}  // namespace metricdb
