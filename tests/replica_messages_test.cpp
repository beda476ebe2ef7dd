// Messages of a log: what a follower refuses.
#include <gmock/gmock.h>

#include "log_message.h"

using testing::HasSubstr;
using namespace tslb_replica;

namespace {

const MessageSource SOURCE = {{1, 2, 3}, 77};

MessageHead head_of(uint64_t number, uint64_t epoch = 3, uint64_t before = 3, MessageKind kind = MessageKind::group) {
  return make_message_head(SOURCE, kind, {epoch, number}, before);
}

std::string group(
    uint64_t number, void (*change)(MessageHead &) = [](MessageHead &) {}) {
  MessageHead head = head_of(number);
  change(head);
  head.body_bytes = 4;
  return seal_message(head, "body");
}

}  // namespace

TEST(ReplicaMessages, OnlyTheNextMessageIsTaken) {
  std::string damaged = group(6);
  damaged.back() ^= 1;
  const struct {
    const char *why;
    std::string bytes;
  } rows[] = {
      {"shorter than the head", "tsd"},
      {"no message of a log", std::string(200, 'x')},
      {"the checksum is wrong", damaged},
      {"the checksum is wrong", group(6).substr(0, 99)},
      {"of version 2, but this library reads version 1", group(6, [](auto &head) { head.version = 2; })},
      {"of another store", group(6, [](auto &head) { head.identity[0] = 9; })},
      {"whose arrays are declared otherwise", group(6, [](auto &head) { head.layout = 78; })},
      {"group 7, but group 6 is the next one", group(7)},
      {"group 5 of epoch 3 after epoch 3 cannot follow group 5", group(5)},
      {"group 6 of epoch 4", group(6, [](auto &head) { head.epoch = 4; })},
      {"after epoch 2 cannot follow", group(6, [](auto &head) { head.epoch_before = 2; })},
      {"cannot follow", group(6, [](auto &head) { head.kind = MessageKind::snapshot; })},
      {"cannot follow", seal_message(head_of(6, 3, 3, MessageKind::epoch), "")},
      {"chunk 1 of a group is the first one", group(6, [](auto &head) { head.chunk = 1, head.n_chunks = 2; })},
      {"contradicts itself", group(6, [](auto &head) { head.chunk = 1; })},
  };
  LogReader reader(SOURCE, {3, 5});
  for (const auto &row : rows) {
    SCOPED_TRACE(row.why);
    try {
      reader.take(row.bytes, "log: sequence 12");
      ADD_FAILURE() << "was taken";
    } catch (const tslb_durable::StoreError &error) {
      EXPECT_THAT(error.what(), HasSubstr(row.why));
      EXPECT_THAT(error.what(), HasSubstr("log: sequence 12"));
      EXPECT_EQ(error.code(), TSLB_DURABLE_DAMAGED);
    }
    EXPECT_EQ(reader.position().number, 5u);
  }
  const auto taken = reader.take(group(6), "");
  ASSERT_TRUE(taken);
  EXPECT_EQ(std::string_view(static_cast<const char *>(taken->body), taken->bytes), "body");
}

TEST(ReplicaMessages, ChunksMakeOneGroup) {
  const std::string body = "a body in chunks";
  const std::vector<std::string> chunks = messages_of(head_of(6), body, 5);
  ASSERT_EQ(chunks.size(), 4u);
  LogReader reader(SOURCE, {3, 5});
  for (size_t i = 0; i < 3; ++i) EXPECT_FALSE(reader.take(chunks[i], ""));
  EXPECT_THROW(reader.take(chunks[2], ""), tslb_durable::StoreError);
  const auto taken = reader.take(chunks[3], "");
  ASSERT_TRUE(taken);
  EXPECT_EQ(std::string_view(static_cast<const char *>(taken->body), taken->bytes), body);
  // A leader that ended within a group: the next epoch takes its number.
  EXPECT_FALSE(reader.take(messages_of(head_of(7), body, 5)[0], ""));
  const auto begin = reader.take(seal_message(head_of(7, 4, 3, MessageKind::epoch), ""), "");
  ASSERT_TRUE(begin);
  EXPECT_EQ(begin->position.epoch, 4u);
  ASSERT_TRUE(reader.take(seal_message(head_of(8, 4, 4), ""), ""));
}
