// The formats of a durable store: an image of a store in tests/golden that must stay readable, and journals that must
// have the bytes of that image.
#include <journal_writer.h>
#include <store_files.h>
#include <tslb/tslb_util.h>

#include "durable_support.h"

namespace {

using tslb_durable::Compression, tslb_durable::FrameKind, tslb_durable::JournalWriter;

// TSLB_GOLDEN_WRITE=1 writes the image anew.
class DurableGolden : public DurableTest {
 protected:
  static constexpr const char *IMAGE = TSLB_GOLDEN_DIR "/durable_store";

  static void fill(TestStore &store, int n_batches) {
    for (int number = 0; number < n_batches; ++number) {
      tslb_batch_t *const batch = store.begin();
      const uint32_t idx = store.add_slot(batch, static_cast<uint32_t>(number), 24);
      if (number == 1) tslb_da_inactivate_idx(store.array(SLOTS), idx, 77);
      const std::string payload = fmt::format("{} batches", number + 1);
      tslb_batch_set_payload(batch, payload.data(), payload.size(), nullptr);
      ASSERT_EQ(tslb_batch_commit(batch, &store.error), 0) << store.error.text;
    }
  }
};

TEST_F(DurableGolden, StoredStoreIsReadable) {
  tslb_set_timer_factor(1e18);
  TestStore expected;
  expected.options.journal_level = 10;
  ASSERT_TRUE(expected.open(folder_));
  fill(expected, 2);
  ASSERT_EQ(tslb_store_snapshot(expected.get(), &expected.error), 0) << expected.error.text;
  fill(expected, 2);
  const std::string content = expected.content();
  ASSERT_EQ(expected.close(), 0);
  tslb_set_timer_factor(1.0);
  if (getenv("TSLB_GOLDEN_WRITE") != nullptr) {
    fs::remove_all(IMAGE);
    fs::copy(folder_, IMAGE, fs::copy_options::recursive);
    fs::remove(std::string(IMAGE) + "/lock");
  }
  TestStore store;
  ASSERT_TRUE(store.open(IMAGE, TSLB_STORE_READ_ONLY)) << store.error.text;
  EXPECT_EQ(store.content(), content);
  EXPECT_EQ(store.payload(), "2 batches");
  EXPECT_EQ(store.info().generation, 2u);
  EXPECT_EQ(store.info().n_batches_found, 2u);
  EXPECT_EQ(store.info().was_sealed, 1);
}

TEST_F(DurableGolden, JournalHasTheSameBytes) {
  const tslb_durable::StoreState state = tslb_durable::read_state(IMAGE);
  const tslb_durable::JournalName name = {state.identity, 2};
  const std::string image = bytes_of(std::string(IMAGE) + "/journal.2");
  JournalWriter writer(root_ + "/journal", name);
  for (size_t at = sizeof(tslb_durable::JournalHead); at < image.size();) {
    tslb_durable::FrameHead head;
    std::memcpy(&head, image.data() + at, sizeof head);
    const uint32_t length = head.length;
    if (head.kind == FrameKind::sealed) {
      writer.seal();
    } else {
      ASSERT_EQ(head.kind, FrameKind::group);
      writer.append_group({head.kind, Compression::none, head.raw_bytes, head.n_batches},
                          std::string_view(image).substr(at + sizeof head, length - sizeof head));
      writer.sync();
      writer.mark();
    }
    at += length;
  }
  EXPECT_EQ(bytes_of(root_ + "/journal"), image);
  EXPECT_EQ(writer.place().crc32c, state.journals.back().crc32c);
}

}  // namespace
