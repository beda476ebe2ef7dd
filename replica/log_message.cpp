#include "log_message.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cstring>

#include "checksum.h"
#include "store_error.h"

using tslb_durable::crc32c;
using tslb_durable::StoreError;

namespace tslb_replica {
namespace {

constexpr uint64_t MAX_GROUP_BYTES = 1u << 30;

[[noreturn]] void refuse_message(const std::string &place, const std::string &why) {
  throw StoreError(TSLB_DURABLE_DAMAGED, place + ": " + why);
}

uint32_t sum_of_message(MessageHead head, std::string_view chunk) {
  head.crc32c = 0;
  return crc32c(chunk.data(), chunk.size(), crc32c(&head, sizeof head));
}

}  // namespace

uint64_t now_ns() {
  return static_cast<uint64_t>(std::chrono::nanoseconds(std::chrono::system_clock::now().time_since_epoch()).count());
}

MessageHead make_message_head(const MessageSource &source, MessageKind kind, const tslb_log_position_t &position,
                              uint64_t epoch_before) {
  MessageHead head = {};
  std::memcpy(head.magic, MESSAGE_MAGIC.data(), sizeof head.magic);
  head.version = MESSAGE_VERSION;
  std::memcpy(head.identity, source.identity.data(), sizeof head.identity);
  head.layout = source.layout;
  head.kind = kind;
  head.epoch = position.epoch;
  head.epoch_before = epoch_before;
  head.number = position.number;
  head.n_chunks = 1;
  head.made_ns = now_ns();
  return head;
}

std::string seal_message(MessageHead head, std::string_view chunk) {
  head.crc32c = sum_of_message(head, chunk);
  std::string bytes(reinterpret_cast<const char *>(&head), sizeof head);
  return bytes.append(chunk);
}

std::vector<std::string> messages_of(MessageHead head, std::string_view body, size_t chunk_bytes) {
  head.body_bytes = body.size();
  head.n_chunks = static_cast<uint32_t>(std::max<size_t>(1, (body.size() + chunk_bytes - 1) / chunk_bytes));
  std::vector<std::string> messages;
  for (head.chunk = 0; head.chunk < head.n_chunks; ++head.chunk)
    messages.push_back(seal_message(head, body.substr(head.chunk * chunk_bytes, chunk_bytes)));
  return messages;
}

Message read_message(std::string_view bytes, const std::string &place) {
  if (bytes.size() < sizeof(MessageHead)) refuse_message(place, "shorter than the head of a message");
  Message message;
  std::memcpy(&message.head, bytes.data(), sizeof message.head);
  message.chunk = bytes.substr(sizeof message.head);
  const MessageHead &head = message.head;
  if (std::string_view(head.magic, sizeof head.magic) != MESSAGE_MAGIC) refuse_message(place, "no message of a log");
  const uint32_t version = head.version;
  if (version != MESSAGE_VERSION)
    refuse_message(place, fmt::format("of version {}, but this library reads version {}", version, MESSAGE_VERSION));
  if (head.crc32c != sum_of_message(head, message.chunk)) refuse_message(place, "the checksum is wrong");
  if (head.chunk >= head.n_chunks || head.body_bytes < message.chunk.size())
    refuse_message(place, "the message contradicts itself");
  return message;
}

std::optional<tslb_group_t> LogReader::take(std::string_view bytes, const std::string &place) {
  const Message message = read_message(bytes, place);
  const MessageHead &head = message.head;
  if (std::memcmp(head.identity, source_.identity.data(), sizeof head.identity) != 0)
    refuse_message(place, "of another store");
  const uint64_t number = head.number, epoch = head.epoch, before = head.epoch_before;
  const uint32_t layout = head.layout, chunk = head.chunk;
  if (layout != source_.layout) refuse_message(place, "of a leader whose arrays are declared otherwise");
  if (number > position_.number + 1)
    throw LogGap(fmt::format("{}: group {}, but group {} is the next one", place, number, position_.number + 1));
  made_ns_ = head.made_ns;
  const bool is_begin = head.kind == MessageKind::epoch;
  if ((!is_begin && head.kind != MessageKind::group) || number != position_.number + 1 || before != position_.epoch ||
      (is_begin ? epoch <= before : epoch != before))
    refuse_message(place, fmt::format("group {} of epoch {} after epoch {} cannot follow group {} of epoch {}", number,
                                      epoch, before, position_.number, position_.epoch));
  if (is_begin) {
    next_chunk_ = 0;
    position_ = message.position();
    return tslb_group_t{nullptr, 0, 0, position_};
  }
  if (chunk != next_chunk_ && chunk != 0 && next_chunk_ == 0)
    throw LogGap(fmt::format("{}: chunk {} of a group is the first one", place, chunk));
  if (chunk != next_chunk_)
    refuse_message(place, fmt::format("chunk {}, but chunk {} is the next one", chunk, next_chunk_));
  if (chunk == 0) body_.clear();
  if (head.body_bytes > MAX_GROUP_BYTES || body_.size() + message.chunk.size() > head.body_bytes)
    refuse_message(place, "a body that is too long");
  body_ += message.chunk;
  ++next_chunk_;
  if (!message.is_last_chunk()) return std::nullopt;
  if (body_.size() != head.body_bytes) refuse_message(place, "a body of another length");
  next_chunk_ = 0;
  position_ = message.position();
  return tslb_group_t{body_.data(), body_.size(), head.n_batches, position_};
}

}  // namespace tslb_replica
