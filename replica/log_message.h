// Messages of the log and of snapshots.
//
// A message is a head and a chunk of a body. A group is the body that its leader journalled; a longer body than one
// message takes several, in order, without other messages between them. The begin of an epoch has 16 random bytes as
// its body, so that two are never the same. A snapshot is an archive (snapshot_archive.h) in chunks.
//
// clang-format off
//   offset
//    0      magic
//    8      version
//   12      CRC-32C of the message, computed with 0 in this field
//   16      identity of the store
//   32      layout of the arrays (tslb_store_layout)
//   36      kind
//   37      zero
//   40      epoch
//   48      epoch of the group before; of a group the same
//   56      number of the group; snapshot: a number that it contains
//   64      number of the chunk, from 0
//   68      chunks of the body
//   72      bytes of the body
//   80      batches in the group
//   84      zero
//   88      time at which it was made: nanoseconds since 1970
//   96      chunk
// clang-format on
#pragma once

#include <tslb/durable.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "store_error.h"

namespace tslb_replica {

enum class MessageKind : uint8_t { group = 1, epoch = 2, snapshot = 3 };

struct __attribute__((packed)) MessageHead {
  char magic[8];
  uint32_t version;
  uint32_t crc32c;
  uint8_t identity[16];
  uint32_t layout;
  MessageKind kind;
  uint8_t zero[3];
  uint64_t epoch;
  uint64_t epoch_before;
  uint64_t number;
  uint32_t chunk;
  uint32_t n_chunks;
  uint64_t body_bytes;
  uint32_t n_batches;
  uint32_t zero2;
  uint64_t made_ns;
};

static_assert(sizeof(MessageHead) == 96 && offsetof(MessageHead, identity) == 16 && offsetof(MessageHead, kind) == 36 &&
              offsetof(MessageHead, epoch) == 40 && offsetof(MessageHead, chunk) == 64 &&
              offsetof(MessageHead, made_ns) == 88);
static_assert(std::has_unique_object_representations_v<MessageHead>);

inline constexpr std::string_view MESSAGE_MAGIC = {"tsd\xB5log\n", 8};
inline constexpr uint32_t MESSAGE_VERSION = 1;

// What the messages of one store have in common.
struct MessageSource {
  std::array<uint8_t, 16> identity;
  uint32_t layout;
};

uint64_t now_ns();

// Returns a head without chunk and checksum.
MessageHead make_message_head(const MessageSource &source, MessageKind kind, const tslb_log_position_t &position,
                              uint64_t epoch_before);

// Returns a whole message.
std::string seal_message(MessageHead head, std::string_view chunk);

// Cuts a body into messages of at most `chunk_bytes` of it.
std::vector<std::string> messages_of(MessageHead head, std::string_view body, size_t chunk_bytes);

// A message that was read. Throws StoreError with TSLB_DURABLE_DAMAGED; `place` names it in the text.
struct Message {
  MessageHead head;
  std::string_view chunk;
  tslb_log_position_t position() const { return {head.epoch, head.number}; }
  bool is_last_chunk() const { return head.chunk + 1 == head.n_chunks; }
};
Message read_message(std::string_view bytes, const std::string &place);

// Messages before one that was read are missing.
class LogGap : public tslb_durable::StoreError {
 public:
  explicit LogGap(const std::string &what) : StoreError(TSLB_DURABLE_DAMAGED, what) {}
};

// Puts the messages of a log together, and checks that each is the next one. The position is that of the last whole
// group.
class LogReader {
 public:
  LogReader(const MessageSource &source, const tslb_log_position_t &position) : source_(source), position_(position) {}

  // Returns the group that a message completes. Its body is valid until the next call. Throws StoreError, also LogGap.
  // A group whose leader ended before its last chunk is followed by the next epoch, and dropped.
  std::optional<tslb_group_t> take(std::string_view bytes, const std::string &place);
  const tslb_log_position_t &position() const { return position_; }
  uint64_t made_ns() const { return made_ns_; }  // of the last message

 private:
  MessageSource source_;
  tslb_log_position_t position_;
  uint32_t next_chunk_ = 0;
  uint64_t made_ns_ = 0;
  std::string body_;
};

}  // namespace tslb_replica
