// The typed layer: what it refuses to compile, who owns what, null addresses, lengths, iterators while lists change,
// failures with their texts. The pairs of tests/typed_code show that it costs nothing.

// The layer brings no names of the catalogue and the utilities: these are the program's.
namespace {
enum class zero { mine };
struct subject_t {};
}  // namespace

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <ranges>
#include <thread>
#include <tslb/durable.hpp>
#include <vector>

#include "array_support.h"

namespace {

namespace fs = std::filesystem;
using testing::ElementsAre, testing::HasSubstr;
using tslb::change, tslb::code, tslb::headers, tslb::kind, tslb::lists, tslb::slot_status;

struct reading {
  uint32_t gatekeeper = 0;
  float celsius = 0;
  tslb::chunk_ref<kind::bit_vector> place;
};

// ---- What does not compile

struct late_gatekeeper {
  uint32_t value, gatekeeper;
};
struct wide_gatekeeper {
  uint64_t gatekeeper;
};
struct with_text {
  uint32_t gatekeeper;
  std::string text;
};
struct aligned_to_8 {
  uint32_t gatekeeper;
  uint64_t time;
};
struct TSLB_UNALIGNED odd_size {
  uint32_t gatekeeper;
  char rest;
};
#pragma pack(push, 4)
struct event {
  uint32_t gatekeeper = 0;
  uint64_t time = 0;
  uint32_t source = 0;
  uint64_t number = 0;  // where this is aligned to 8 bytes, time is not
  tslb::chunk_ref<kind::wide> text = {};
};
#pragma pack(pop)
struct larger {
  uint32_t gatekeeper, rest[4];
};
static_assert(tslb::slot_record<reading> && !tslb::slot_record<const reading> && !tslb::slot_record<uint32_t>);
static_assert(tslb::slot_record<event> && sizeof(event) == 32);
static_assert(!tslb::slot_record<late_gatekeeper> && !tslb::slot_record<wide_gatekeeper>);
static_assert(!tslb::slot_record<with_text> && !tslb::slot_record<aligned_to_8> && !tslb::slot_record<odd_size>);
static_assert(tslb::plain_record<aligned_to_8> && !tslb::plain_record<with_text> && !tslb::plain_record<int &>);

using slots_t = tslb::slot_array<reading>;
using inactive_t = tslb::slot_array<reading, lists::with_inactive>;
template <class Array>
concept inactivates = requires(Array array) {
  array.inactivate(0, 0);
};
static_assert(!inactivates<slots_t> && inactivates<inactive_t>);
static_assert(std::is_nothrow_move_constructible_v<slots_t> && !std::is_copy_constructible_v<slots_t>);
static_assert(std::ranges::forward_range<decltype(slots_t().active())>);

using bits_t = tslb::pool<kind::bit_vector>;
using bytes_t = tslb::pool<kind::big_buffer, headers::none>;
using wide_t = tslb::pool<kind::wide>;
template <class Pool, class Ref>
concept erases = requires(Pool pool, Ref ref) {
  pool.erase(ref);
};
template <class Pool, class Ref>
concept finds = requires(Pool pool, Ref ref) {
  pool.find(ref);
};
static_assert(erases<bits_t, bits_t::ref> && !erases<bytes_t, bytes_t::ref> && !erases<wide_t, wide_t::ref>);
static_assert(!finds<bits_t, bytes_t::ref> && !finds<bits_t, wide_t::ref> && !finds<bits_t, maddr_t>);
// Chunks of a store are taken and deleted through a batch.
using stored_bits_t = decltype(tslb::store().get(tslb::array_key<tslb::pool_view<kind::bit_vector>>()));
static_assert(finds<stored_bits_t, bits_t::ref> && !erases<stored_bits_t, bits_t::ref>);
static_assert(!std::is_convertible_v<stored_bits_t, tslb::pool_view<kind::bit_vector>>);
// A constant length is checked where it is written.
template <class Pool, uint32_t BYTES>
concept takes = requires {
  std::integral_constant<uint32_t, typename Pool::length(BYTES).bytes()>();
};
static_assert(takes<bits_t, 8> && !takes<bits_t, 12> && !takes<bits_t, 0> && !takes<bits_t, 65536>);
static_assert(takes<bytes_t, 12> && takes<bytes_t, 65536> && !takes<wide_t, 65536>);
// Changes of a store need the keys of its schema.
using key_t = tslb::array_key<tslb::slot_view<reading>>;
static_assert(requires(tslb::batch batch, key_t key) { batch.log(key, 0, &reading::celsius); });
template <class Key>
concept logs_other = requires(tslb::batch batch, Key key) {
  batch.log(key, 0, &aligned_to_8::time);
};
static_assert(!logs_other<key_t>);

// ---- Arrays

template <class Range>
std::vector<uint32_t> indices_of(Range range) {
  std::vector<uint32_t> indices;
  for (const auto [idx, record] : range) indices.push_back(idx);
  return indices;
}

TEST(Typed, MovedArraysAreReleasedOnce) {
  slots_t first = slots_t::create({.name = "first"}).value(), second = slots_t::create({.name = "second"}).value();
  const DynamicArray_t handle = first.native();
  second = std::move(first);
  EXPECT_FALSE(first);  // NOLINT: what a move leaves is specified
  EXPECT_EQ(second.native(), handle);
  slots_t third(std::move(second));
  slots_t &same = third;
  third = std::move(same);
  ASSERT_EQ(third.native(), handle);
  // An array of another type keeps its owner, which releases it.
  auto refused = inactive_t::adopt(handle);
  EXPECT_EQ(refused.error().what, code::mismatch);
  EXPECT_THROW(refused.value(), tslb::bad_result);
  EXPECT_FALSE(tslb::record_view<aligned_to_8>::of(handle));
  EXPECT_FALSE(bits_t::adopt(handle));
  EXPECT_EQ(slots_t::adopt(third.release()).value().native(), handle);
}

TEST(Typed, ScansGoOnWhileSlotsChange) {
  inactive_t slots = inactive_t::create({.n_direct = 3}).value();
  for (uint32_t i = 0; i < 40; ++i) ASSERT_EQ(slots.add({7, float(i), {}}).idx, i);
  EXPECT_EQ(slots[39].gatekeeper, TSLB_GATEKEEPER_WORD);  // which the record's copy did not change
  uint32_t n_visited = 0;
  for (const auto [idx, record] : slots.active()) {
    EXPECT_EQ(record->celsius, float(idx));
    ++n_visited;
    // The slot of the iterator.
    EXPECT_EQ(idx % 10 != 0 ? slots.free(idx) : slots.inactivate(idx, 100 - idx), change::done);
    if (idx == 20) slots.free(25);  // one that comes later
    if (idx > 30) slots.take();     // an earlier slot, and it is visited no more
  }
  EXPECT_EQ(n_visited, 39u);
  EXPECT_THAT(indices_of(slots.inactive()), ElementsAre(0, 10, 20, 30));
  EXPECT_EQ(slots.free(25), change::refused);
  EXPECT_EQ(slots.free(40), change::no_slot);
  EXPECT_EQ(slots.oldest_inactive().idx, 0u);
  EXPECT_EQ(slots.activate(10), change::done);
  EXPECT_EQ(slots.status(10), slot_status::active);
  const auto n_freed = uint32_t(std::ranges::distance(slots.freed()));
  const tslb::slot_stats stats = slots.stats();
  EXPECT_EQ(stats.used, 40u);
  EXPECT_EQ(stats.free, n_freed);
  EXPECT_EQ(stats.inactive, 3u);
  EXPECT_EQ(stats.active, std::ranges::distance(slots.active()));
  // Headers, then 3 slots in block 0 and three blocks of 16; each with both nodes.
  EXPECT_EQ(stats.bytes, 24u + 60 + (3 + 48) * (sizeof(reading) + 16));
}

TEST(Typed, RecordsAreAlignedInEveryBlock) {
  tslb::record_array<aligned_to_8> records = tslb::record_array<aligned_to_8>::create({.n_direct = 3}).value();
  for (uint32_t i = 0; i < 20; ++i) {
    const auto added = records.add();
    ASSERT_EQ(added.idx, i);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(added.record) % alignof(aligned_to_8), 0u);
    added->time = i;
  }
  EXPECT_EQ(records[19].time, 19u);
  EXPECT_EQ(records.find(20), nullptr);
  const tslb::slot_stats stats = records.stats();
  EXPECT_EQ(stats.active, 20);
  EXPECT_EQ(stats.bytes, 24u + (3 + 32) * sizeof(aligned_to_8));
}

TEST(TypedRace, ScansSeeEachSlotOnceWhileOthersAreTaken) {
  inactive_t slots = inactive_t::create({.n_direct = 1}).value();
  constexpr uint32_t N_KEPT = 50;
  for (uint32_t i = 0; i < N_KEPT; ++i) slots.take();
  std::thread changer([view = slots.view()] {
    for (int i = 0; i < 2000; ++i) {
      const auto taken = view.take();
      if (i % 3 != 0) view.free(taken.idx);
    }
  });
  for (int round = 0; round < 20; ++round) {
    const std::vector<uint32_t> seen = indices_of(slots.active());
    EXPECT_TRUE(std::ranges::is_sorted(seen) && seen.size() >= N_KEPT);
    EXPECT_EQ(seen[N_KEPT - 1], N_KEPT - 1);
    const tslb::slot_stats stats = slots.stats();
    EXPECT_GE(stats.active, int64_t{N_KEPT});
  }
  changer.join();
}

TEST(Typed, NullAddressIsNoChunkAndZeroIsOne) {
  bits_t bits = bits_t::create({.slot_bytes = 256}).value();
  bytes_t bytes = bytes_t::create({.slot_bytes = 256}).value();
  wide_t wide = wide_t::create({.slot_bytes = 256}).value();
  const auto first = bits.take(8, {1, 2, 3, {}});
  ASSERT_TRUE(first);
  EXPECT_EQ(first.ref, bits_t::ref(maddr_t{}));
  EXPECT_TRUE(first.ref);
  EXPECT_EQ(bits.data(first.ref).data(), first.data.data());
  EXPECT_EQ(bits.data(first.ref).size(), 8u);
  const bits_t::ref none = reading().place;
  EXPECT_FALSE(none);
  EXPECT_TRUE(bits.data(none).empty() && bytes.data(bytes_t::ref(), 8).empty() && wide.data(wide_t::ref()).empty());
  for (int i = 0; i < 20; ++i) ASSERT_TRUE(wide.take(200));
  const auto far = wide.take(100);
  EXPECT_EQ(far.ref.place().slot_idx, 20u);
  EXPECT_EQ(wide.data(far.ref).data(), far.data.data());
  // The last byte of the last slot would have the null address.
  EXPECT_EQ(bytes_t::create({.slot_bytes = 16777216}).error().what, code::invalid);
}

TEST(Typed, LengthsAreRoundedOrRefused) {
  const auto rounded = [](auto length) { return length ? int64_t{length->bytes()} : -1; };
  EXPECT_EQ(rounded(bits_t::length::from(0)), -1);
  EXPECT_EQ(rounded(bits_t::length::from(9)), 16);
  EXPECT_EQ(rounded(bits_t::length::from(65528)), 65528);
  EXPECT_EQ(rounded(bits_t::length::from(65529)), -1);  // 65,536 would be a length of 0 in the header
  EXPECT_EQ(rounded(bytes_t::length::from(9)), 9);
  EXPECT_EQ(rounded(bytes_t::length::from(uint64_t{1} << 32 | 8)), -1);
}

TEST(Typed, DifferenceOfCountersCanBeNegative) {
  bits_t pool = bits_t::create({.slot_bytes = 256}).value();
  for (int i = 0; i < 100; ++i) {
    const auto taken = pool.take(240);
    pool.erase(taken.ref);
    EXPECT_LE(pool.sweep().deleted, 256u);  // slots are taken again
  }
  const tslb::pool_stats stats = pool.stats();
  EXPECT_LE(stats.slots, 17u);
  EXPECT_EQ(stats.reserved, 25600u);
  EXPECT_LT(stats.available, 0);
}

class TypedFiles : public testing::Test {
 protected:
  TypedFiles() {
    std::string pattern = (fs::temp_directory_path() / "tslb_typed_XXXXXX").string();
    root_ = mkdtemp(pattern.data());
  }
  ~TypedFiles() override { fs::remove_all(root_); }

  fs::path root_;
};

TEST_F(TypedFiles, LoadedArrayIsTheSavedOneOrAFailureSaysWhere) {
  slots_t slots = slots_t::create({.name = "readings", .tbl_id = 1}).value();
  for (float celsius : {1.0f, 2.0f, 3.0f}) slots.add({0, celsius, {}});
  slots.free(1);
  FILE *const stream = fopen((root_ / "stream").c_str(), "w+");
  const int fd = fileno(stream);
  const size_t bytes = slots.save(fd).value();
  EXPECT_EQ(bytes, fs::file_size(root_ / "stream"));
  lseek(fd, 0, SEEK_SET);
  const slots_t again = slots_t::load(fd).value();
  EXPECT_THAT(indices_of(again.active()), ElementsAre(0, 2));
  EXPECT_EQ(again[2].celsius, 3.0f);
  lseek(fd, 0, SEEK_SET);
  EXPECT_EQ(inactive_t::load(fd).error().what, code::mismatch);
  lseek(fd, 0, SEEK_SET);
  EXPECT_THAT(tslb::slot_array<larger>::load(fd).error().text, HasSubstr("record_size"));
  // The status of slot 1.
  ASSERT_EQ(pwrite(fd, "\x09", 1, 84 + 20), 1);
  lseek(fd, 0, SEEK_SET);
  const tslb::failure damage = slots_t::load(fd).error();
  EXPECT_EQ(damage.what, code::damaged);
  EXPECT_EQ(damage.byte, 84u + 20);
  EXPECT_THAT(damage.text, HasSubstr("status 9"));
  fclose(stream);
  const tslb::failure missing = slots_t::load_files(root_.c_str(), {.name = "none", .tbl_id = 3}).error();
  EXPECT_EQ(missing.what, code::io);
  EXPECT_EQ(missing.errnum, ENOENT);
  EXPECT_EQ(slots_t::load_files(nullptr, {.name = "no_such_context", .tbl_id = 3}).error().errnum, ENOENT);
  fs::create_directory(root_ / "none");
  std::ofstream(root_ / "none" / "3.0.darr") << "short";
  const tslb::failure cut = slots_t::load_files(root_.c_str(), {.name = "none", .tbl_id = 3}).error();
  EXPECT_EQ(cut.file, root_ / "none" / "3.0.darr");
  EXPECT_EQ(cut.byte, 5u) << cut.text;
  const int full = open("/dev/full", O_WRONLY);
  stderr_of([&] { EXPECT_EQ(slots.save(full).error().errnum, ENOSPC); });
  close(full);
}

TEST(Typed, CreationFailsWithErrno) {
  tslb::failure why;
  stderr_of([&] { why = slots_t::create({.n_direct = INT_MAX, .name = "large"}).error(); });
  EXPECT_EQ(why.errnum, EOVERFLOW);
  EXPECT_THAT(why.text, HasSubstr("slot array \"large\" was not created: "));
}

TEST(Typed, SinkReceivesWholeLinesUntilItIsRemoved) {
  std::vector<std::string> lines;
  const auto sink = [](void *arg, std::string_view line) noexcept {
    static_cast<std::vector<std::string> *>(arg)->emplace_back(line);
  };
  FILE *const before = stderr;
  ASSERT_TRUE(tslb::set_message_sink(sink, nullptr));
  ASSERT_TRUE(tslb::set_message_sink(sink, &lines));
  const bytes_t pool = bytes_t::create({.slot_bytes = 64}).value();
  EXPECT_FALSE(pool.take(100));
  inactive_t slots = inactive_t::create({}).value();
  EXPECT_EQ(slots.activate(slots.take().idx), change::refused);
  ASSERT_TRUE(tslb::set_message_sink(nullptr));
  EXPECT_EQ(stderr, before);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_THAT(lines[0], HasSubstr("100"));
  EXPECT_THAT(lines[1], HasSubstr("cannot activate idx 0"));
}

// ---- Stores

class TypedStore : public TypedFiles {
 protected:
  tslb::result<tslb::store> open(uint32_t flags = TSLB_STORE_CREATE | TSLB_STORE_SHADOW) {
    tslb_store_options_t options = {};
    options.flags = flags;
    return tslb::store::open((root_ / "store").string(), schema_, options);
  }
  static uint32_t add(tslb::store &store, tslb::batch &batch, key_t slots, float celsius) {
    return store.add(batch, slots, {0, celsius, {}}).idx;
  }

  tslb::schema schema_;
  const key_t readings_ = schema_.slots<reading>("readings", {.tbl_id = 1});
  const tslb::array_key<tslb::pool_view<kind::bit_vector>> places_ =
      schema_.pool<kind::bit_vector>("places", {.tbl_id = 2});
};

TEST_F(TypedStore, EndedBatchesAreThereAfterOpening) {
  const std::string name = "the hill";
  {
    tslb::store store = open().value();
    tslb::batch batch = store.begin().value();
    const uint32_t idx = add(store, batch, readings_, 1);
    reading &hill = store.get(readings_)[idx];
    hill.place = batch.put(places_, std::as_bytes(std::span(name)), tslb::referrer(1, idx, 8)).value().ref;
    batch.log(readings_, idx, &reading::place);
    for (const size_t bytes : {0, 65528, 70000}) {
      const tslb::failure why = batch.put(places_, std::vector<std::byte>(bytes)).error();
      EXPECT_EQ(why.what, code::invalid);
      EXPECT_THAT(why.text, HasSubstr("a chunk has 1 to 65520 bytes in this pool, not " + std::to_string(bytes)));
    }
    const tslb::ticket first = batch.end();
    EXPECT_FALSE(batch);
    EXPECT_TRUE(store.wait(first));
    EXPECT_EQ(store.check(first), tslb::ticket_status::durable);
    EXPECT_EQ(store.check(tslb::ticket{77}), tslb::ticket_status::refused);
    batch = store.begin().value();
    hill.celsius = 2;
    batch.log(readings_, idx, &reading::celsius);  // the shadow compares what was named
    tslb::batch moved = std::move(batch);
    ASSERT_TRUE(moved.commit());
    EXPECT_TRUE(store.close());
  }
  tslb::store store = open(TSLB_STORE_READ_ONLY).value();
  const auto readings = store.get(readings_);
  ASSERT_THAT(indices_of(readings.active()), ElementsAre(0));
  EXPECT_EQ(readings[0].celsius, 2);
  const auto place = store.get(places_).data(readings[0].place);
  EXPECT_EQ(std::string(reinterpret_cast<const char *>(place.data()), name.size()), name);
  EXPECT_EQ(store.begin().error().what, code::invalid);
}

TEST_F(TypedStore, BatchWithoutEndIsRefusedAndCostsNothingDurable) {
  tslb::store store = open().value();
  tslb::batch kept = store.begin().value();
  add(store, kept, readings_, 1);
  ASSERT_TRUE(kept.commit());
  const auto fail_halfway = [&] {
    tslb::batch batch = store.begin().value();
    add(store, batch, readings_, 2);
    throw std::runtime_error("halfway");
  };
  EXPECT_THROW(fail_halfway(), std::runtime_error);
  // Its group is written, or refused, at a time of the store's own.
  const tslb::failure why = store.wait(tslb::ticket{2}).error();
  EXPECT_THAT(why.text, HasSubstr("a batch was given up: it was destroyed before its end"));
  EXPECT_EQ(store.begin().error().what, code::refused);
  ASSERT_TRUE(store.restore());
  EXPECT_EQ(store.get(readings_).size(), 1u);
  tslb::batch again = store.begin().value();
  EXPECT_EQ(add(store, again, readings_, 3), 1u);
  EXPECT_TRUE(again.commit());
}

// The shadow compares what was named.
TEST_F(TypedStore, MembersOf8BytesAndPlainRecordsAreNamed) {
  const auto events = schema_.slots<event>("events", {.tbl_id = 3});
  const auto texts = schema_.pool<kind::wide>("texts", {.tbl_id = 4});
  const auto times = schema_.records<aligned_to_8>("times", {.tbl_id = 5});
  {
    tslb::store store = open().value();
    for (uint32_t i = 0; i < 3; ++i) {
      tslb::batch batch = store.begin().value();
      const auto added = store.add(batch, events, {.time = 1});
      ASSERT_EQ(store.add(batch, times, {i, 10 + i}).idx, i);
      const auto from = tslb::referrer(3, added.idx, offsetof(event, text));
      added->text = batch.put(texts, std::as_bytes(std::span("text")), from).value().ref;
      ASSERT_TRUE(batch.commit());
      batch = store.begin().value();
      added->time = (uint64_t{1} << 40) + i;
      added->number = i;
      batch.log(events, added.idx, &event::time);
      batch.log(events, added.idx, &event::number);
      ASSERT_TRUE(batch.commit());
    }
  }
  const tslb::store store = open(TSLB_STORE_READ_ONLY).value();
  for (const auto [idx, record] : store.get(events).active()) {
    const uint64_t time = record->time;
    EXPECT_EQ(time, (uint64_t{1} << 40) + idx);
    EXPECT_EQ(store.get(times)[idx].time, 10 + idx);
    EXPECT_EQ(store.get(texts).data(record->text).size(), 5u);
  }
  EXPECT_EQ(store.get(events).size(), 3u);
}

TEST_F(TypedStore, WriterRestoresAfterExceptionsAndRefusals) {
  const auto times = schema_.records<aligned_to_8>("times", {.tbl_id = 5});
  constexpr uint32_t N_THREADS = 4, N_BATCHES = 60;
  const std::string folder = (root_ / "store").string();
  tslb::store store = tslb::store::open(folder, schema_, {.creates = true, .has_shadow = true}).value();
  std::atomic<uint32_t> n_restored = 0, n_thrown = 0;
  std::mutex mutex;
  uint64_t n_ended = 0;  // the payload
  const auto count_again = [&] {
    ++n_restored;
    n_ended = 0;
    if (!store.payload().empty()) std::memcpy(&n_ended, store.payload().data(), sizeof(n_ended));
  };
  tslb::writer writer(store, count_again, INT_MAX);
  std::vector<std::thread> threads;
  for (uint32_t t = 0; t < N_THREADS; ++t)
    threads.emplace_back([&, t] {
      for (uint32_t i = 0; i < N_BATCHES; ++i) {
        const bool throws = t == 0 && i % 10 == 0;
        try {
          const auto done = writer.commit([&](tslb::batch &batch) {
            store.add(batch, times, {t, i});
            if (throws) throw std::runtime_error("halfway");
            store.add(batch, times, {t, i});
            const std::lock_guard lock(mutex);
            ++n_ended;
            batch.set_payload(std::as_bytes(std::span(&n_ended, 1))).value();
            return batch.end();
          });
          EXPECT_TRUE(done && !throws);
        } catch (const std::runtime_error &) {
          ++n_thrown;
        }
      }
    });
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(n_thrown, N_BATCHES / 10);
  EXPECT_GT(n_restored, 0u);

  int n_calls = 0;
  tslb::writer impatient(store, {}, 3);
  const auto refused = impatient.commit([&](tslb::batch &batch) {
    ++n_calls;
    store.add(batch, times, {9, 9});
    batch.log(times, 1000000);
  });
  EXPECT_EQ(refused.error().what, code::refused);
  EXPECT_EQ(n_calls, 3);
  EXPECT_TRUE(impatient.commit([&](tslb::batch &batch) { add(store, batch, readings_, 1); }));

  int n_renewed = 0;
  tslb::writer forgetful(store, [&] {
    if (++n_renewed == 1) throw std::runtime_error("not yet");
  });
  const auto fail = [](tslb::batch &) { throw std::logic_error("fill"); };
  EXPECT_THROW(static_cast<void>(forgetful.commit(fail)), std::runtime_error);
  forgetful.read([&] { EXPECT_EQ(n_renewed, 2) << "reads what is derived from the arrays before the restoration"; });
  forgetful.read([&] { EXPECT_EQ(n_renewed, 2); });
  ASSERT_TRUE(store.close());

  store = tslb::store::open(folder, schema_, {.reads_only = true}).value();
  std::map<std::pair<uint32_t, uint64_t>, int> found;
  for (uint32_t i = 0; i < store.get(times).size(); ++i)
    ++found[{store.get(times)[i].gatekeeper, store.get(times)[i].time}];
  EXPECT_EQ(found.size(), N_THREADS * N_BATCHES - N_BATCHES / 10);
  count_again();
  EXPECT_EQ(n_ended, found.size());
  for (const auto &[key, n] : found) EXPECT_EQ(n, 2) << key.first << " " << key.second;
}

TEST_F(TypedStore, FailuresHaveCodeFileAndText) {
  EXPECT_EQ(open(0).error().what, code::no_store);
  ASSERT_TRUE(open());
  tslb::schema other;
  const auto key = other.slots<reading, lists::with_inactive>("readings", {.tbl_id = 1});
  EXPECT_EQ(other.declaration(key).daflag, TSLB_DA_DAFLAG_INLL);
  other.pool<kind::bit_vector>("places", {.tbl_id = 2});
  const tslb::failure mismatch = tslb::store::open((root_ / "store").string(), other).error();
  EXPECT_EQ(mismatch.what, code::mismatch);
  EXPECT_THAT(mismatch.text, HasSubstr("readings"));
  std::ofstream(root_ / "store" / "generation.1" / "manifest", std::ios::app) << "more";
  const tslb::failure damage = open().error();
  EXPECT_EQ(damage.what, code::damaged);
  EXPECT_THAT(damage.file, HasSubstr("manifest"));
  EXPECT_THAT(damage.text, HasSubstr("manifest"));
}

}  // namespace
