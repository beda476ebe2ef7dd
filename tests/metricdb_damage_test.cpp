// A database whose arrays contradict themselves, although all checksums agree, is refused.
#include <cstring>

#include "database_support.h"
#include "extent.h"
#include "query/report.h"

using Damage = SmallDatabase;

// The parts of a store that the rows damage.
struct Parts {
  explicit Parts(Store &of) : store(of) {}

  SealedChunk *sealed(const maddr_t &address) const { return reinterpret_cast<SealedChunk *>(points_at(address)); }
  char *points_at(const maddr_t &address) const {
    return static_cast<char *>(tslb_dynmem_get_maddr2ptr(store.points(), address));
  }
  SeriesRecord record_of(std::string_view key) const { return store.record(store.series_of(key)); }
  SeriesRecord free_record() const {
    uint32_t slot = 0;
    while (store.holds_series(slot)) ++slot;
    return store.record(slot);
  }

  Store &store;
  const SeriesRecord a = record_of("a f"), b = record_of("b f"), c = record_of("c f"), free = free_record();
  SealedChunk *const first = sealed(b.first_sealed()), *const last = sealed(b.last_sealed());
  char *const key_of_a = const_cast<char *>(store.key(store.series_of("a f")).data());
  MemSlot_t *const key_slot = static_cast<MemSlot_t *>(tslb_da_get_ptr(store.keys(), 0));
  MemSlot_t *const current_slot = static_cast<MemSlot_t *>(
      tslb_da_get_ptr(store.points(), tslb_stored_cursor_slot(header_of(store.points())->cur_slot_addr)));
};

static maddr_t moved(maddr_t address, unsigned units) {
  tslb_chunk_place_t place = tslb_stored_decode_bitvector(bits_of(address));
  place.byte_off += units * TSLB_BV_UNIT_BYTES;
  const uint32_t bits = tslb_stored_encode_bitvector(place);
  std::memcpy(&address, &bits, sizeof bits);
  return address;
}

constexpr maddr_t OUTSIDE = {200, 8};

TEST_F(Damage, InconsistentStores) {
  static const struct {
    const char *fault;
    void (*damage)(Parts);
    const char *message;
    const char *file = "catalogue";
  } rows[] = {
      {"after the end of its slot", [](Parts p) { p.b.set_first_sealed(moved(p.b.first_sealed(), 0x1FFFF0)); },
       "where no chunk in use begins"},
      {"inside a chunk", [](Parts p) { p.b.set_open(moved(p.b.open(), 1)); }, "where no chunk in use begins"},
      {"a key outside of its pool", [](Parts p) { p.a.set_key(OUTSIDE); }, "its key names slot 200"},
      {"one key for two series", [](Parts p) { p.a.set_key(p.b.key()); },
       "the header of that chunk names another reference"},
      {"a key without its end", [](Parts p) { p.key_of_a[3] = 'x'; }, "its key does not end with a zero"},
      {"two series with one name", [](Parts p) { p.key_of_a[0] = 'b'; }, "another series has the same key \"b f\""},
      {"a ring of chunks", [](Parts p) { p.last->next = p.b.first_sealed(); },
       "sealed chunk 2 is the last one, but names a next chunk"},
      {"a ring as counted", [](Parts p) { p.first->next = p.b.first_sealed(); },
       "another reference names the same chunk"},
      {"a longer chain", [](Parts p) { p.b.set_n_sealed(2); }, "its last sealed chunk is not the end of its chain"},
      {"a lost chunk", [](Parts p) { p.c.set_flags(SERIES_READY), p.c.set_n_open(0), p.c.set_n_points(0); },
       "nothing refers to the chunk at byte ", "points"},
      {"points without a chunk", [](Parts p) { p.b.set_flags(SERIES_READY); }, "it has points but no open chunk"},
      {"an unknown flag", [](Parts p) { p.a.set_flags(0x0B); }, "flags 0x0b"},
      {"real numbers taken for integers", [](Parts p) { p.b.set_flags(0x07); }, "sealed chunk 0 cannot be read"},
      {"a count of points", [](Parts p) { p.a.set_n_points(1); }, "but its record counts 1"},
      {"more points than fit", [](Parts p) { p.c.set_n_open(9); }, "counts 9 points, but holds at most 8"},
      {"a sealed chunk without points", [](Parts p) { p.first->form_and_count = SealedChunk::BLOCK; },
       "sealed chunk 0 holds 0 points"},
      {"a sealed chunk that is too full", [](Parts p) { p.first->form_and_count = 3501; },
       "sealed chunk 0 holds 3501 points"},
      {"a size that exceeds the chunk", [](Parts p) { p.first->bytes += 800; }, "which is not the size of its points"},
      {"invalid sealed points", [](Parts p) { std::memset(p.first + 1, 0xFF, 40); }, "sealed chunk 0 cannot be read"},
      {"points of other times", [](Parts p) { p.first->oldest_ns = 90; },
       "sealed chunk 0 holds times from 100 to 107, but its header has others"},
      {"a length that exceeds the slot",
       [](Parts p) { (reinterpret_cast<compat_t *>(p.last) - 1)->mchunk_len = 60000; }, "exceeds the bytes in use",
       "points"},
      {"a deleted chunk", [](Parts p) { tslb_dynmem_del_mchunk(p.store.points(), p.b.first_sealed()); },
       "where no chunk in use begins"},
      {"a count of deleted bytes", [](Parts p) { p.key_slot->bytes_del += 8; }, "but the slot counts ", "keys"},
      {"used bytes exceed the slot", [](Parts p) { p.current_slot->bytes_used = 5000; },
       "bytes_used 5000 of slot 1, but the slot has 2400", "points"},
      {"a cursor inside", [](Parts p) { p.current_slot->bytes_used += 8; }, "is more than the cursor's ", "points"},
      {"a cursor beyond", [](Parts p) { p.current_slot->bytes_used -= 8; }, "but the slot counts 8", "points"},
      {"a free slot that claims a series", [](Parts p) { p.free.set_flags(SERIES_READY); }, "flags 0x01 at status 1"},
      {"a free slot without its mark", [](Parts p) { p.free.set_key({}); }, "gatekeeper 0x0 in a free slot"},
      {"a slot in use without a series", [](Parts p) { p.a.set_flags(0); }, "flags 0x00 at status "},
      {"a point after the newest",
       [](Parts p) {
         const int64_t later = 1000;
         std::memcpy(p.points_at(p.c.open()), &later, sizeof later);
       },
       "a point at 1000, but its newest is at 180"},
      {"written in the future", [](Parts p) { p.a.set_written_at_ns(1000); }, "its times are after data time"},
      {"the newest in the future", [](Parts p) { p.a.set_newest_ns(1000); }, "its times are after data time"},
      {"an unused word", [](Parts p) { p.a.at()[offsetof(ty_sub_t_v1, prev_id)] = 1; }, "unused bytes are not zero"},
      {"a pool of another kind", [](Parts p) { header_of(p.store.keys())->flag |= MPOOL_FLAG_BV; },
       "a kind flag of 16 is stored, but 0 is declared", "keys"},
      {"a limited pool", [](Parts p) { header_of(p.store.keys())->max_slots = 3; }, "the pool is limited to 3 slots",
       "keys"},
      {"records of another version",
       [](Parts p) { static_cast<DynHdr_t *>(tslb_da_get_dynhdr(p.store.catalogue()))->rec_version = 0; },
       "byte 1: rec_version 0, expected 1"},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    ASSERT_NO_FATAL_FAILURE(keep_filled([&row](Store &store) { row.damage(Parts(store)); }));
    const std::string what = refusal();
    EXPECT_THAT(what, StartsWith(db()));
    EXPECT_THAT(what, HasSubstr(row.file));
    EXPECT_THAT(what, HasSubstr(row.message));
  }
}

// Values can be anything, but no access may leave the arrays. A database that can be opened is used: read, written and
// swept.
TEST_F(Damage, RandomBytesAreRefusedOrUsable) {
  constexpr uint32_t SEED = 20250608;
  constexpr int ROUNDS = 500 / EVERY;
  ASSERT_NO_FATAL_FAILURE(keep_filled());
  fs::copy(db(), path("whole"), fs::copy_options::recursive);
  std::mt19937 random(SEED);
  int n_refused = 0;
  testing::internal::CaptureStderr();
  for (int round = 0; round < ROUNDS; ++round) {
    SCOPED_TRACE(fmt::format("seed {}, round {}", SEED, round));
    fs::remove_all(db());
    fs::copy(path("whole"), db(), fs::copy_options::recursive);
    {
      OpenDatabase database = open_to_change(db());
      DynArrHandle_t *const arrays[] = {database.store().catalogue(), database.store().keys(),
                                        database.store().points()};
      DynArrHandle_t *const array = arrays[random() % 3];
      for (uint32_t n = 1 + random() % 3; n > 0; --n) {
        static const unsigned char bytes[] = {0x00, 0x01, 0x02, 0x04, 0x10, 0x40, 0x7F, 0x80, 0xFF};
        // Not the sizes in the headers, with which the image is written.
        const uint32_t slot_bytes = tslb_da_get_slotsz(array, nullptr);
        const uint32_t at = static_cast<uint32_t>(random()) % slot_bytes;
        const uint32_t idx = static_cast<uint32_t>(random()) % tslb_da_get_size(array);
        char *const lists = static_cast<char *>(tslb_da_get_lli(array));
        char *const slot = static_cast<char *>(tslb_da_get_ptr(array, idx)) - TSLB_NODE_BYTES;
        char &byte = random() % 4 == 0 ? lists[random() % 28] : slot[at];
        byte = static_cast<char>(random() % 2 == 0 ? bytes[random() % std::size(bytes)]
                                                   : static_cast<unsigned char>(byte) ^ (1u << random() % 8));
      }
      database.write();
    }
    try {
      OpenDatabase opened = open_to_change(db());
      Store &store = opened.store();
      EXPECT_EQ(store.n_series(), 3u);
      EXPECT_FALSE(series_table(store, "*").empty());
      for (int i = 0; i < 40; ++i) store.add(fmt::format("new,n={} f", i % 5), {181 + i, 1.0});
      store.add("b f", {500, 1.0});
      store.sweep();
      EXPECT_EQ(store.n_series(), 1u);
    } catch (const std::runtime_error &error) {
      EXPECT_THAT(error.what(), StartsWith(db()));
      ++n_refused;
    }
  }
  testing::internal::GetCapturedStderr();
  EXPECT_GT(n_refused, ROUNDS / 4);
  EXPECT_LT(n_refused, ROUNDS) << "nothing was opened, so use after damage was not tested";
}
