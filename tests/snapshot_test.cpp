// Tests of the snapshot stream, byte for byte, and of the walk that passes blocks to a callback.
#include <dlfcn.h>
#include <errno.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <functional>

#include "array_support.h"
#include "stored_image.h"

// Script of the next writes: a positive number is the maximum of bytes written, -1 fails with EINTR.
static std::vector<int> script;
static size_t script_at;
static int write_calls;
static std::function<void(int call)> before_write;

extern "C" __attribute__((visibility("default"))) ssize_t write(int fd, const void *bytes, size_t size) {
  static const auto real = reinterpret_cast<ssize_t (*)(int, const void *, size_t)>(dlsym(RTLD_NEXT, "write"));
  ++write_calls;
  if (before_write != nullptr) before_write(write_calls);
  if (script_at < script.size()) {
    const int step = script[script_at++];
    if (step < 0) {
      errno = EINTR;
      return -1;
    }
    if (static_cast<size_t>(step) < size) size = static_cast<size_t>(step);
  }
  return real(fd, bytes, size);
}

class Snapshot : public testing::Test {
 protected:
  void TearDown() override {
    lib_config.tslb_enable_file_trimming_flag = 0;
    tslb_test_mode = static_cast<char>(0xFF);
    before_write = nullptr;
    script.clear();
    script_at = 0;
  }
  // Returns the stream of an array. The members keep the result and total_write_sz.
  std::string dump(DynArrHandle_t *array) {
    const memory_file_t file;
    total_ = 1000;
    result_ = tslb_create_dump_for_dynarr(array, file.fd(), 77, &total_);
    total_ -= 1000;
    return content_of(file.fd());
  }
  size_t total_;
  int result_;
};

// Builds the flat image: headers, then each slot as a lookup finds it.
static std::string image_of(DynArrHandle_t *array) {
  int shift = 0;
  const uint32_t slot_bytes = tslb_da_get_slotsz(array, &shift);
  std::string image(bytes_of(array->arr_base), static_cast<size_t>(tslb_dynmem_get_hdrsz(array)));
  for (uint32_t idx = 0; idx < tslb_da_get_size(array); ++idx)
    image.append(bytes_of(tslb_da_get_ptr(array, idx)) - shift, slot_bytes);
  return image;
}

static array_t filled(int record_size, int n_direct, uint8_t daflag, int n_used) {
  array_t array(tslb_da_init_ll(record_size, n_direct, MPOOL_TYPE_DRAM, "ctx", 12, daflag));
  for (int i = 0; i < n_used; ++i) {
    uint32_t idx;
    memset(tslb_da_get_newptr(array.get(), &idx), i * 3 + 1, static_cast<size_t>(record_size));
  }
  return array;
}

TEST_F(Snapshot, IsTheFlatImageUpToTheLastSlot) {
  static const struct {
    const char *fault;
    int n_direct, n_used;
  } rows[] = {
      {"empty array writes its direct area", 4, 0},
      {"direct area written above n_used", 4, 3},
      {"last block written whole", 4, 5},
      {"full last block cut", 4, 20},
      {"level 1 left early", 4, 4 + 256},
      {"level 2 missed", 4, 4 + 256 + 5},
      {"level 3 missed", 0, 4352 + 17},
  };
  for (const uint8_t daflag : std::initializer_list<uint8_t>{0, 1, 2}) {
    for (const auto &row : rows) {
      SCOPED_TRACE(testing::Message() << row.fault << ", flags " << int{daflag});
      const array_t array = filled(13, row.n_direct, daflag, row.n_used);
      const std::string stream = dump(array.get());
      EXPECT_EQ(result_, 0);
      EXPECT_EQ(stream, image_of(array.get()));
      EXPECT_EQ(total_, stream.size());
    }
  }
}

TEST_F(Snapshot, IdsIssuedDuringTheWalkAreNotWritten) {
  const array_t array = filled(13, 4, 0, 4 + 32);
  const std::string image = image_of(array.get());
  // One and a half more blocks before the last write.
  before_write = [&](int call) {
    for (int i = 0; call == 3 && i < 24; ++i) get_dyn_arr_new_record_id(array.get());
  };
  write_calls = 0;
  EXPECT_EQ(dump(array.get()), image);
  EXPECT_EQ(result_, 0);
  EXPECT_EQ(write_calls, 3);
  EXPECT_EQ(tslb_da_get_size(array.get()), 60u);
}

TEST_F(Snapshot, TablesAreNotReadIfBlock0IsEverything) {
  const array_t array = filled(13, 4, 0, 4);
  array->ir_base = reinterpret_cast<PtrTbl_t *>(8);
  EXPECT_EQ(dump(array.get()).size(), 24u + 52);
  EXPECT_EQ(result_, 0);
  array->ir_base = nullptr;
  // An array without tables ends there, whatever its count.
  pretend_issued(array.get(), 9);
  EXPECT_EQ(dump(array.get()).size(), 24u + 52);
  EXPECT_EQ(result_, 0);
}

TEST_F(Snapshot, OneWriteReportsWhetherEverythingWasWritten) {
  const array_t array = filled(10, 8, 0, 8);
  const memory_file_t file;
  int dumped = 0;
  char *const base = bytes_of(array->arr_base);
  const auto step = [&](int slots, int fd) {
    return tslb_dump_data_into_dds_file("ctx", base, slots, get_dyn_hdr(array.get()), 0, 24, 10, fd, &dumped, 0);
  };
  EXPECT_EQ(step(3, file.fd()), 0);
  EXPECT_EQ(dumped, 3);
  stderr_of([&] { EXPECT_EQ(step(3, -1), -1); });
  EXPECT_EQ(dumped, 3) << "a failed write was counted";
  EXPECT_EQ(step(5, file.fd()), 1);
  EXPECT_EQ(dumped, 8);
}

TEST_F(Snapshot, InterruptedAndShortWritesContinue) {
  const array_t array = filled(13, 10, 2, 40);
  script = {-1, 5, -1, -1, 0, 1, 7, -1, 100, 3, 2, -1};
  std::string stream;
  EXPECT_EQ(stderr_of([&] { stream = dump(array.get()); }), "");
  EXPECT_EQ(script_at, script.size());
  EXPECT_EQ(result_, 0);
  EXPECT_EQ(stream, image_of(array.get()));
}

TEST_F(Snapshot, FailedWriteIsReportedAndReturnsMinusOne) {
  const array_t array = filled(100, 2, 0, 40);
  signal(SIGXFSZ, SIG_IGN);
  std::string stream;
  const std::string report = stderr_of([&] {
    const limit_t in_the_second_data_block(RLIMIT_FSIZE, 2000);
    stream = dump(array.get());
  });
  EXPECT_EQ(result_, -1);
  EXPECT_EQ(stream, image_of(array.get()).substr(0, 2000)) << "the bytes before the failure differ";
  EXPECT_EQ(total_, 224u + 1600 + 1600) << "the failed block was not counted in full";
  char want[512];
  snprintf(
      want, sizeof(want),
      "failed to write data in dds snapshot file. ctx_name ctx, mpool - %p, indirection level - 1,block addr - %p, "
      "size - 1600, amt_written - 176, amt_to_copy - 1424, ret - -1, error - File too large\n",
      static_cast<void *>(get_dyn_hdr(array.get())), array->ir_base->ir1[1]);
  EXPECT_EQ(report, want);

  EXPECT_NE(stderr_of([&] { EXPECT_EQ(tslb_create_dump_for_dynarr(array.get(), -1, 0, &total_), -1); }), "");
}

TEST_F(Snapshot, MissingBlockIsSkippedAndReported) {
  const array_t array(get_default_dyn_array(8, 0, MPOOL_TYPE_DRAM));
  pretend_issued(array.get(), 40);
  write_at(get_dyn_arr_record_position(array.get(), 39), 0, uint64_t{39});  // blocks 1 and 2 are missing
  const std::string stream = dump(array.get());
  EXPECT_EQ(result_, -1);
  EXPECT_EQ(stream.size(), 24u + 16 * 8);
}

TEST_F(Snapshot, ShortLastSlotAndItsConditions) {
  static const struct {
    const char *fault;
    int tbl_id, test_mode, trimming;
    uint32_t cursor_slot;
    bool cut;
  } rows[] = {
      {"big-buffer pool not cut", BBP_TBLID, 0, 1, 1, true},
      {"bit-vector pool not cut", BVP_TBLID, 2, 3, 1, true},
      {"any table cut", -5, 0, 1, 1, false},
      {"cut although the host never set the mode", BBP_TBLID, 0xFF, 1, 1, false},
      {"cut in the mode that forbids it", BBP_TBLID, 1, 1, 1, false},
      {"cut without trimming", BBP_TBLID, 0, 0, 1, false},
      {"trimming taken for any bit", BBP_TBLID, 0, 2, 1, false},
      {"cut although the current slot is not the last", BBP_TBLID, 0, 1, 0, false},
  };
  for (const uint8_t daflag : std::initializer_list<uint8_t>{0, 1, 2}) {
    for (const auto &row : rows) {
      SCOPED_TRACE(testing::Message() << row.fault << ", flags " << int{daflag});
      const array_t pool(tslb_init_dynmem(1000, 4, 0, MPOOL_TYPE_DRAM, 0, "bb", row.tbl_id, daflag));
      maddr_t address;
      tslb_dynmem_get_mchunk(pool.get(), &address, 1000, srcaddr_t{});
      memset(tslb_dynmem_get_mchunk(pool.get(), &address, 300, srcaddr_t{}), 'c', 300);
      DynMemHdr_t *const hdr = static_cast<DynMemHdr_t *>(get_user_hdr(pool.get()));
      hdr->cur_slot_addr = row.cursor_slot | (uint64_t{300} << 32);
      tslb_test_mode = static_cast<char>(row.test_mode);
      lib_config.tslb_enable_file_trimming_flag = static_cast<uint8_t>(row.trimming);
      const std::string whole = image_of(pool.get()), stream = dump(pool.get());
      EXPECT_EQ(result_, 0);
      EXPECT_EQ(total_, whole.size()) << "a cut slot was not counted in full";
      const size_t slot_bytes = tslb_da_get_slotsz(pool.get(), nullptr);
      const size_t cut_size = whole.size() - slot_bytes + (daflag != 0 ? 8 : 0) + 8 + 300;
      EXPECT_EQ(stream, row.cut ? whole.substr(0, cut_size) : whole);
    }
  }
}

TEST_F(Snapshot, ShortSlotInADataBlockAndNoneInAnEmptyPool) {
  const trim_settings_t trimming;
  const array_t empty(tslb_init_dynmem(1000, 4, 0, MPOOL_TYPE_DRAM, 0, "bb", BBP_TBLID, 0));
  EXPECT_EQ(dump(empty.get()).size(), 80u);
  const array_t pool(tslb_init_dynmem(1000, 1, 0, MPOOL_TYPE_DRAM, 0, "bb", BBP_TBLID, 0));
  maddr_t address;
  for (int i = 0; i < 20; ++i) tslb_dynmem_get_mchunk(pool.get(), &address, 700, srcaddr_t{});
  EXPECT_EQ(dump(pool.get()), image_of(pool.get()).substr(0, 80 + 19 * 1008 + 708));
  // A slot array with a pool's table id has no cursor, whatever its headers contain.
  const array_t slots(tslb_da_init_v5(100, 4, MPOOL_TYPE_DRAM, "x", BBP_TBLID));
  for (int i = 0; i < 5; ++i) tslb_da_get_newidx(slots.get());
  EXPECT_EQ(dump(slots.get()).size(), 24u + 500);
}

struct visit_t {
  void *block;
  int n_block_elem;
  size_t bytes;
  int hdr_size, level, record_size, reserved;
  bool operator==(const visit_t &) const = default;
};
struct visits_t {
  std::vector<visit_t> seen;
  size_t stop_after;
};

static int on_block(DynamicArray_t, void *block, int n_block_elem, size_t bytes, int hdr_size, int level,
                    int record_size, int reserved, void *user_data) {
  visits_t &visits = *static_cast<visits_t *>(user_data);
  visits.seen.push_back({block, n_block_elem, bytes, hdr_size, level, record_size, reserved});
  return visits.seen.size() == visits.stop_after ? -7 : 0;
}

static std::vector<visit_t> visits_of(const array_t &array, size_t stop_after = 0) {
  visits_t visits = {{}, stop_after};
  tslb_iterate_dyn_array_blocks(array.get(), on_block, &visits);
  return visits.seen;
}

TEST(Iteration, BlocksInOrderWithTheirSlots) {
  const array_t array = filled(100, 4, TSLB_DA_DAFLAG_INLL, 4 + 256 + 5);
  const auto seen = visits_of(array);
  ASSERT_EQ(seen.size(), 1u + 16 + 1);
  for (size_t i = 0; i < seen.size(); ++i) {
    SCOPED_TRACE(i);
    const visit_t want = i == 0    ? visit_t{array->arr_base, 4, 84 + 4 * 116, 84, 0, 100, 0}
                         : i == 17 ? visit_t{array->ir_base->ir2[0][0], 5, 5 * 116, 0, 2, 100, 0}
                                   : visit_t{array->ir_base->ir1[i - 1], 16, 16 * 116, 0, 1, 100, 0};
    EXPECT_EQ(seen[i], want);
  }
  for (const size_t stop_after : {size_t{1}, size_t{2}, size_t{17}})
    EXPECT_EQ(visits_of(array, stop_after).size(), stop_after) << "the callback's result did not end the walk";

  // One block of each level.
  const array_t deep(get_default_dyn_array(8, 4, MPOOL_TYPE_DRAM));
  pretend_issued(deep.get(), 4 + 286331136);
  std::vector<std::pair<int, void *>> want = {{0, deep->arr_base}}, got;
  for (const uint32_t first : {0, 256, 4352, 69888, 1118464, 17895680})
    want.push_back({static_cast<int>(want.size()), get_dyn_arr_record_position(deep.get(), 4 + first)});
  for (const visit_t &visit : visits_of(deep)) got.push_back({visit.level, visit.block});
  EXPECT_EQ(got, want) << "a level was not visited";

  const array_t empty = filled(100, 4, 0, 0);
  EXPECT_EQ(visits_of(empty), (std::vector<visit_t>{{empty->arr_base, 0, 24, 24, 0, 100, 0}}));
}
