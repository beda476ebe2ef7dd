#include "net/nats_source.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <utility>

#include "codec/printable.h"

namespace metricdb {
namespace {

// In one round, so that messages do not delay connections.
constexpr size_t MAX_ROUND_BYTES = size_t{4} << 20;

}  // namespace

void NatsSource::on_event() {
  std::vector<NatsMessage> arrived = client_.receive();
  std::move(arrived.begin(), arrived.end(), std::back_inserter(waiting_));
}

void NatsSource::process() {
  for (size_t bytes = 0; bytes < MAX_ROUND_BYTES && is_ready();) {
    NatsMessage message = std::move(waiting_.front());
    waiting_.pop_front();
    bytes += message.bytes;
    take(std::move(message));
  }
}

void NatsSource::take(NatsMessage message) {
  const std::string database = message.database.empty() ? options_.database : message.database;
  const std::string lines = std::exchange(message.lines, {});
  hub_.bytes.add(lines.size());
  if (!hub_.ingest->has(database)) {
    log(LogTopic::refusals, fmt::format("a message is returned: there is no database \"{}\"", printable(database)));
    return answer(message, false);
  }
  try {
    const IngestResult result = hub_.take(database, lines, Precision::ns);
    if (result.n_skipped() != 0)
      log(LogTopic::skipped_lines,
          fmt::format("{} lines were skipped; the first: {}", result.n_skipped(), result.first_reason));
    if (result.points == 0) return answer(message, result.no_room == 0);
    taken_.push_back({std::move(message), database, OPEN_TICKET, result.no_room == 0});
  } catch (const IngestRefused &refusal) {
    log(LogTopic::refusals, fmt::format("a message is returned: {}", refusal.what()));
    answer(message, false);
  }
}

void NatsSource::committed(uint64_t ticket) {
  for (auto taken = taken_.rbegin(); taken != taken_.rend() && taken->ticket == OPEN_TICKET; ++taken)
    taken->ticket = ticket;
}

void NatsSource::settled(uint64_t ticket, const Refusals &refusals) {
  for (; !taken_.empty() && taken_.front().ticket <= ticket; taken_.pop_front()) {
    const Taken &taken = taken_.front();
    const bool is_lost = std::any_of(refusals.begin(), refusals.end(), [&taken](const Refusal &refusal) {
      return refusal.ticket == taken.ticket && (refusal.database.empty() || refusal.database == taken.database);
    });
    answer(taken.message, taken.has_room && !is_lost);
  }
}

void NatsSource::answer(const NatsMessage &message, bool is_stored) {
  ++(is_stored ? n_acknowledged_ : n_returned_);
  client_.answer(message, is_stored);
}

std::string NatsSource::why_disconnected() const {
  const NatsState state = client_.state();
  return !has_started_ || state.is_connected || state.why.empty() ? ""
                                                                  : fmt::format("no messages of NATS: {}", state.why);
}

void NatsSource::log(LogTopic topic, const std::string &what) {
  hub_.log.add(topic, hub_.now, fmt::format("nats {}: {}", options_.subject, what));
}

}  // namespace metricdb
