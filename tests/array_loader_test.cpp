// The loaders: what was stored comes back and goes on as the original would, and what contradicts itself is refused as a
// whole, with a line that says what and where.
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>

#include "array_loader.h"
#include "array_support.h"
#include "block_files.h"
#include "fault_alloc.h"
#include "list_audit.h"
#include "tslb_rd_api.h"
#include "tslb_settings.h"

namespace fs = std::filesystem;

static time_t now = 1700000000;  // nodes carry the time: both arrays of a comparison get the same

extern "C" __attribute__((visibility("default"))) time_t time(time_t *at) {
  if (at != nullptr) *at = now;
  return now;
}

// What the next reads do: a count is read at most that far, -1 fails with EINTR, -2 with EIO. Behind the script, and
// without one, reads are the system's.
static std::vector<int> read_script;
static size_t read_script_at;

extern "C" __attribute__((visibility("default"))) ssize_t read(int fd, void *to, size_t size) {
  if (read_script_at < read_script.size()) {
    const int step = read_script[read_script_at++];
    if (step < 0) {
      errno = step == -1 ? EINTR : EIO;
      return -1;
    }
    size = std::min(size, static_cast<size_t>(step));
  }
  return syscall(SYS_read, fd, to, size);
}

// ---- Streams -------------------------------------------------------------------------------------------------------

constexpr array_load_options_t ANY = {"ctx", 12, MPOOL_TYPE_DRAM, ARRAY_LOAD_ANY, 0};
constexpr array_load_options_t POOL = {"ctx", 12, MPOOL_TYPE_DRAM, ARRAY_LOAD_POOL, 0};

static std::string content_of(int fd) {
  std::string content(static_cast<size_t>(lseek(fd, 0, SEEK_END)), '\0');
  EXPECT_EQ(pread(fd, content.data(), content.size(), 0), static_cast<ssize_t>(content.size()));
  return content;
}

static std::string stream_of(DynArrHandle_t *array) {
  const int fd = memfd_create("stream", MFD_CLOEXEC);
  size_t total = 0;
  EXPECT_EQ(tslb_create_dump_for_dynarr(array, fd, 0, &total), 0);
  const std::string stream = content_of(fd);
  close(fd);
  return stream;
}

static std::string cut_stream_of(DynArrHandle_t *pool) {
  tslb_test_mode = 0;
  lib_config.tslb_enable_file_trimming_flag = 1;
  const std::string stream = stream_of(pool);
  tslb_test_mode = static_cast<char>(0xFF);
  lib_config.tslb_enable_file_trimming_flag = 0;
  return stream;
}

struct loaded_t {
  array_t array;
  std::string error;
};

static loaded_t load(const std::string &stream, const array_load_options_t &options = ANY) {
  const int fd = memfd_create("stream", MFD_CLOEXEC);
  EXPECT_EQ(pwrite(fd, stream.data(), stream.size(), 0), static_cast<ssize_t>(stream.size()));
  char error[256] = "untouched";
  loaded_t loaded = {array_t(array_load_stream(fd, &options, error, sizeof(error))), error};
  close(fd);
  EXPECT_EQ(loaded.array != nullptr, loaded.error.empty()) << "a line with each refusal, and only then";
  EXPECT_EQ(loaded.error.find('\n'), std::string::npos);
  return loaded;
}

static void expect_refused(const loaded_t &loaded, const std::string &error) {
  EXPECT_EQ(loaded.array, nullptr);
  EXPECT_EQ(loaded.error, error);
}

// ---- Arrays to store -----------------------------------------------------------------------------------------------

static void stamp(DynArrHandle_t *array, void *record, int seed) {
  for (uint32_t i = 0; i < get_dyn_arr_record_sz(array); ++i)
    bytes_of(record)[i] = static_cast<char>(seed * 31 + static_cast<int>(i));
}

// With lists: every third slot freed, every fourth of the others parked.
static array_t slot_array(int usrhdr_sz, int record_sz, int n_direct, uint8_t daflag, int n_used,
                          char mem_type = MPOOL_TYPE_DRAM, const char *ctx_name = "ctx") {
  array_t array(get_default_dyn_array_ex_ex(usrhdr_sz, record_sz, n_direct, mem_type, 12, ctx_name, daflag, 0xC3));
  memset(tslb_da_get_usrhdr(array.get()), 0xEE, static_cast<size_t>(usrhdr_sz));
  uint32_t idx;
  for (int i = 0; i < n_used; ++i, ++now) stamp(array.get(), tslb_da_get_newptr(array.get(), &idx), i);
  for (uint32_t i = 0; daflag != 0 && i < tslb_da_get_size(array.get()); ++i) {
    if (i % 3 == 1) tslb_da_free_idx(array.get(), i);
    if ((daflag & TSLB_DA_DAFLAG_INLL) != 0 && i % 3 != 1 && i % 4 == 0) tslb_da_inactivate_idx(array.get(), i, now++);
  }
  return array;
}

struct pool_kind_t {
  const char *fault;
  int mslot_sz, n_direct;
  char compat_flag, slot_type;
  uint8_t daflag;
};
constexpr pool_kind_t BIG_BUFFER = {"", 64, 2, MPOOL_FLAG_COMPAT, 0, TSLB_DA_DAFLAG_LL};

static void take_chunks(DynArrHandle_t *pool, int count, int first) {
  const bool compat = (static_cast<DynMemHdr_t *>(get_user_hdr(pool))->flag & MPOOL_FLAG_COMPAT) != 0;
  for (int i = first; i < first + count; ++i) {
    maddr_t address;
    const int bytes = 8 + 8 * (i % 3);
    const srcaddr_t source = {1, static_cast<uint32_t>(i), 3, {4, 5}};
    char *const chunk = bytes_of(tslb_dynmem_get_mchunk(pool, &address, bytes, source));
    memset(chunk + (compat ? 16 : 0), i, static_cast<size_t>(bytes));
    if (address.mslot_idx % 3 == 1) tslb_dynmem_del_mchunk(pool, address);
  }
}

static array_t chunk_pool(const pool_kind_t &kind, int n_chunks, int tbl_id = BBP_TBLID) {
  array_t pool(tslb_init_dynmem_ex1(kind.mslot_sz, kind.n_direct, kind.compat_flag, MPOOL_TYPE_DRAM, kind.slot_type,
                                    "ctx", tbl_id, kind.daflag, 0, 0, 0));
  take_chunks(pool.get(), n_chunks, 0);
  size_t total, used, deleted;
  tslb_dynmem_update_free_list(pool.get(), &total, &used, &deleted);
  return pool;
}

// ---- What comes back -----------------------------------------------------------------------------------------------

// What a host does next, with every result and time in the text that comes back.
static std::string go_on_with_slots(DynArrHandle_t *array) {
  std::string seen;
  for (int i = 0; i < 60; ++i) {
    uint32_t idx = 0, last_ts = 0;
    uint8_t last_status = 0;
    now = 1800000000 + i;
    void *const record =
        i % 2 == 0 ? tslb_da_get_newptr(array, &idx) : tslb_da_get_newptr_inll(array, &idx, &last_ts, &last_status);
    stamp(array, record, i + 1000);
    seen += std::to_string(idx) + ' ' + std::to_string(last_ts) + ' ' + std::to_string(last_status) + '\n';
    if (array->daflag == 0) continue;
    const uint32_t other = static_cast<uint32_t>(i * 7) % tslb_da_get_size(array);
    if ((array->daflag & TSLB_DA_DAFLAG_INLL) != 0 && i % 3 == 0) {
      const uint32_t status = status_at(array, other);
      if (status == TSLB_DA_SLOT_ACTIVE) tslb_da_inactivate_idx(array, other, now);
      if (status == TSLB_DA_SLOT_INACTIVE) tslb_da_activate_idx(array, other);
    }
    if (i % 5 == 0) tslb_da_free_idx(array, other);
  }
  return seen;
}

// Both are the same array now, and stay so under the same operations.
static void expect_same_from_now_on(DynArrHandle_t *original, DynArrHandle_t *loaded,
                                    const std::function<std::string(DynArrHandle_t *)> &go_on) {
  const time_t then = now;
  ASSERT_EQ(stream_of(loaded), stream_of(original));
  const std::string seen = go_on(original);
  now = then;
  EXPECT_EQ(go_on(loaded), seen);
  EXPECT_EQ(stream_of(loaded), stream_of(original)) << "after the same operations";
}

static const struct {
  const char *fault;
  int usrhdr_sz, record_sz, n_direct;
  uint8_t daflag;
  int n_used;
} slot_arrays[] = {
    {"an empty array is not read to its end", 0, 12, 4, TSLB_DA_DAFLAG_INLL, 0},
    {"slots of a plain array are shifted", 0, 12, 4, 0, 3},
    {"the direct area's last slot is taken from a block", 0, 12, 4, TSLB_DA_DAFLAG_LL, 4},
    {"the first slot behind the direct area is lost", 0, 12, 4, TSLB_DA_DAFLAG_LL, 5},
    {"an array without a direct area has no place", 0, 12, 0, TSLB_DA_DAFLAG_INLL, 20},
    {"a user header shifts lists or counts", 13, 9, 3, TSLB_DA_DAFLAG_INLL, 40},
    {"one of two flags is lost", 13, 9, 3, TSLB_DA_DAFLAG_LL | TSLB_DA_DAFLAG_INLL, 40},
    {"a flag that means nothing here is lost", 0, 9, 3, 0xF0 | TSLB_DA_DAFLAG_LL, 40},
    {"level 2 is not reached", 0, 5, 2, TSLB_DA_DAFLAG_INLL, 2 + 256 + 21},
    {"a slot longer than what is read ahead is cut", 0, 40000, 2, TSLB_DA_DAFLAG_INLL, 5},
    {"56 bytes that are no pool's header are read as one", 56, 12, 4, TSLB_DA_DAFLAG_INLL, 9},
};

TEST(ArrayLoader, SlotArraysComeBackAndGoOn) {
  lib_config.tslb_mvt_reuse_enabled = 1;
  for (const auto &row : slot_arrays) {
    SCOPED_TRACE(row.fault);
    const array_t original = slot_array(row.usrhdr_sz, row.record_sz, row.n_direct, row.daflag, row.n_used);
    if ((row.daflag & TSLB_DA_DAFLAG_INLL) != 0) {
      tsdb_mem_pressure_config_t policy = {1, {}, {0, 0, 0, 3, 10}, {1, 0, 2, 0, 10}};
      tslb_da_register_reuse_policy(original.get(), &policy);
    }
    const loaded_t loaded = load(stream_of(original.get()));
    ASSERT_NE(loaded.array, nullptr) << loaded.error;
    EXPECT_EQ(loaded.array->daflag, row.daflag);
    EXPECT_STREQ(loaded.array->ctx_name, "ctx");
    EXPECT_EQ(loaded.array->tbl_id, 12u);
    expect_same_from_now_on(original.get(), loaded.array.get(), go_on_with_slots);
    if (row.daflag != 0) audit_lists(loaded.array.get());
  }
  lib_config.tslb_mvt_reuse_enabled = 0;
}

static const pool_kind_t pool_kinds[] = {
    {"a pool without lists is not read as one", 64, 2, 0, 0, 0},
    {"compaction headers or a freed slot are lost", 64, 2, MPOOL_FLAG_COMPAT, 0, TSLB_DA_DAFLAG_LL},
    {"a bit-vector pool comes back as another kind", 64, 2, 0, MPOOL_FLAG_BV, TSLB_DA_DAFLAG_LL},
    {"the cut of a back node is not mended", 64, 2, MPOOL_FLAG_COMPAT, MPOOL_FLAG_BV, TSLB_DA_DAFLAG_INLL},
};

TEST(ArrayLoader, PoolsComeBackAndGoOn) {
  for (const pool_kind_t &kind : pool_kinds) {
    for (const int n_chunks : {0, 1, 3, 30}) {
      SCOPED_TRACE(testing::Message() << kind.fault << ", " << n_chunks << " chunks");
      const array_t original = chunk_pool(kind, n_chunks);
      const loaded_t loaded = load(stream_of(original.get()), POOL);
      ASSERT_NE(loaded.array, nullptr) << loaded.error;
      expect_same_from_now_on(original.get(), loaded.array.get(), [](DynArrHandle_t *pool) {
        take_chunks(pool, 20, 100);
        return std::string();
      });
    }
  }
}

// All that a cut leaves out is zero in the original too, once the time in its back node is taken away.
TEST(ArrayLoader, CutLastSlotComesBackWhole) {
  for (const pool_kind_t &kind : pool_kinds) {
    for (const int n_chunks : {1, 2, 32}) {  // in the direct area, in its last slot or not, and in a data block
      SCOPED_TRACE(testing::Message() << kind.fault << ", " << n_chunks << " chunks");
      const array_t original = chunk_pool(kind, n_chunks);
      void *const last = tslb_da_get_ptr(original.get(), tslb_da_get_size(original.get()) - 1);
      if ((kind.daflag & TSLB_DA_DAFLAG_INLL) != 0) backward_node(original.get(), last).ts = 0;
      const std::string cut = cut_stream_of(original.get());
      ASSERT_LT(cut.size(), stream_of(original.get()).size());
      const loaded_t loaded = load(cut, POOL);
      ASSERT_NE(loaded.array, nullptr) << loaded.error;
      if (kind.daflag != 0) audit_lists(loaded.array.get());
      expect_same_from_now_on(original.get(), loaded.array.get(), [](DynArrHandle_t *pool) {
        take_chunks(pool, 20, 100);
        return std::string();
      });
    }
  }
}

TEST(ArrayLoader, AddressesOfChunksHold) {
  const array_t original(tslb_init_dynmem(64, 2, MPOOL_FLAG_COMPAT, MPOOL_TYPE_DRAM, 0, "ctx", BBP_TBLID, 1));
  std::vector<maddr_t> addresses(40);
  for (size_t i = 0; i < addresses.size(); ++i)
    memset(bytes_of(tslb_dynmem_get_mchunk(original.get(), &addresses[i], 9, srcaddr_t{})) + 16, static_cast<int>(i),
           9);
  const loaded_t loaded = load(cut_stream_of(original.get()), POOL);
  ASSERT_NE(loaded.array, nullptr) << loaded.error;
  for (size_t i = 0; i < addresses.size(); ++i) {
    uint32_t size;
    const void *const chunk = tslb_dynmem_get_maddr2ptr_ex(loaded.array.get(), addresses[i], &size);
    EXPECT_EQ(std::string(static_cast<const char *>(chunk), size + 1), std::string(9, static_cast<char>(i)));
  }
}

TEST(ArrayLoader, MemoryTypeIsTheCallers) {
  const std::string stream = stream_of(slot_array(0, 12, 3, 0, 9).get());
  static const struct {
    const char *fault;
    char mem_type;
    bool loads;
  } rows[] = {
      {"temporary process memory refused", MPOOL_TYPE_DRAM_TMP, true},
      {"temporary files that are process memory refused", MPOOL_TYPE_SHM_TMP, true},
      {"an array over its own files begun", MPOOL_TYPE_SHM, false},
      {"memory that is not available asked for", MPOOL_TYPE_PMEM, false},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    array_load_options_t options = ANY;
    options.mem_type = row.mem_type;
    const loaded_t loaded = load(stream, options);
    if (row.loads) {
      ASSERT_NE(loaded.array, nullptr) << loaded.error;
      EXPECT_EQ(loaded.array->mem_type, row.mem_type);
    } else {
      expect_refused(loaded, "option mem_type " + std::to_string(row.mem_type) + " is not in process memory");
    }
  }
  array_load_options_t options = ANY;
  options.kind = 3;
  expect_refused(load(stream, options), "option kind 3 is not known");
}

TEST(ArrayLoader, WhoseUserHeaderIsAPools) {
  const std::string pool = stream_of(chunk_pool(BIG_BUFFER, 5).get());
  const std::string same_size = stream_of(slot_array(56, 12, 4, 0, 3).get());
  const std::string other_size = stream_of(slot_array(20, 12, 4, 0, 3).get());
  static const struct {
    const char *fault;
    const std::string &stream;
    uint8_t kind;
    const char *error;
  } rows[] = {
      {"a pool is a pool only if it is said", pool, ARRAY_LOAD_ANY, ""},
      {"a pool is not recognised", pool, ARRAY_LOAD_POOL_BY_SIZE, ""},
      {"another header of that size passes for a pool's", same_size, ARRAY_LOAD_POOL_BY_SIZE,
       "byte 12: mslot_sz 4008636142 does not go with record_size 12"},
      {"a header that is not asked about is refused", same_size, ARRAY_LOAD_ANY, ""},
      {"a header of another size is taken for a pool's", other_size, ARRAY_LOAD_POOL_BY_SIZE, ""},
      {"an array passes for a pool", other_size, ARRAY_LOAD_POOL, "byte 4: hdr_size 20, a pool has 56"},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    array_load_options_t options = ANY;
    options.kind = row.kind;
    EXPECT_EQ(load(row.stream, options).error, row.error);
  }
}

// ---- Refusals ------------------------------------------------------------------------------------------------------

TEST(ArrayLoader, EveryTruncationIsRefused) {
  const array_t pool = chunk_pool({"", 64, 2, 0, MPOOL_FLAG_BV, TSLB_DA_DAFLAG_INLL}, 8, BVP_TBLID);
  const struct {
    const char *fault;
    std::string stream;
    array_load_options_t options;
    size_t header_bytes, slot_bytes;
    size_t also_whole_at;  // the one shorter stream that is sound
  } rows[] = {
      {"of a plain array", stream_of(slot_array(0, 5, 2, 0, 19).get()), ANY, 24, 5, 0},
      {"of an array with both lists", stream_of(slot_array(5, 7, 2, TSLB_DA_DAFLAG_INLL, 19).get()), ANY, 89, 23, 0},
      {"of a pool", stream_of(pool.get()), POOL, 140, 88, cut_stream_of(pool.get()).size()},
      {"of a pool that was cut", cut_stream_of(pool.get()), POOL, 140, 88, 0},
      {"of a pool that is loaded as any array", stream_of(pool.get()), ANY, 140, 88, 0},
  };
  const auto ends = [](size_t at, size_t begin, const std::string &what, size_t bytes) {
    return "byte " + std::to_string(at) + ": ends " + std::to_string(at - begin) + " bytes into " + what + " of " +
           std::to_string(bytes);
  };
  for (const auto &row : rows) {
    const auto ends_in_slot = [&](size_t at) {
      const size_t idx = (at - row.header_bytes) / row.slot_bytes;
      return ends(at, row.header_bytes + idx * row.slot_bytes, "slot " + std::to_string(idx), row.slot_bytes) +
             " bytes";
    };
    for (size_t size = 0; size < row.stream.size(); ++size) {
      SCOPED_TRACE(testing::Message() << row.fault << ", to " << size << " bytes");
      const loaded_t loaded = load(row.stream.substr(0, size), row.options);
      if (size == row.also_whole_at && size != 0) {
        EXPECT_NE(loaded.array, nullptr) << loaded.error;
      } else if (size < row.header_bytes) {
        expect_refused(loaded,
                       size < 8 ? ends(size, 0, "DynHdr_t", 8) : ends(size, 8, "headers", row.header_bytes - 8));
      } else {
        expect_refused(loaded, ends_in_slot(size));
      }
    }
    SCOPED_TRACE(row.fault);
    EXPECT_EQ(load(row.stream, row.options).error, "");
    // One byte more than a cut slot has is a whole slot that lacks some.
    const size_t size = row.stream.size();
    const bool is_whole = (size - row.header_bytes) % row.slot_bytes == 0;
    expect_refused(
        load(row.stream + '\0', row.options),
        is_whole ? "byte " + std::to_string(size) + ": more bytes behind the last slot" : ends_in_slot(size + 1));
  }
}

// The last slot is the end of what is read ahead (16,384 bytes at a time), or too long to be read ahead at all.
TEST(ArrayLoader, BytesBehindWhatWasReadAheadAreRefused) {
  for (const auto &[record_sz, n_used] : {std::pair{20000, 1}, std::pair{4, (16384 - 24) / 4}}) {
    const std::string stream = stream_of(slot_array(0, record_sz, n_used, 0, n_used).get());
    EXPECT_EQ(load(stream).error, "");
    expect_refused(load(stream + 'x'), "byte " + std::to_string(stream.size()) + ": more bytes behind the last slot");
  }
}

// Slots 0 to 7 of 9 bytes between their nodes, behind headers of 84 bytes: free are 1, 4, 7, and parked 0 and 3 (slots
// 2, 5 and 6 are active).
class Contradictions : public testing::Test {
 protected:
  static constexpr uint32_t LLI = 8, HDR = 68, SLOTS = 84, SLOT = 25;
  static std::string sound() {
    const array_t array = slot_array(0, 9, 2, TSLB_DA_DAFLAG_INLL, 8);
    for (const uint32_t idx : {0u, 3u}) {
      if (status_at(array.get(), idx) == TSLB_DA_SLOT_ACTIVE) tslb_da_inactivate_idx(array.get(), idx, now);
    }
    return stream_of(array.get());
  }
  static constexpr uint32_t status(uint32_t idx) { return SLOTS + idx * SLOT; }
  static constexpr uint32_t next(uint32_t idx) { return status(idx) + 4; }
  static constexpr uint32_t prev(uint32_t idx) { return status(idx) + 17; }
};

struct patch_t {
  uint32_t at;
  uint32_t value;
  uint32_t bytes = 4;
};

struct contradiction_t {
  const char *fault;
  std::vector<patch_t> patches;
  const char *error;
};

static void expect_contradictions(const std::string &sound, const array_load_options_t &options,
                                  const std::vector<contradiction_t> &rows) {
  ASSERT_EQ(load(sound, options).error, "");
  for (const contradiction_t &row : rows) {
    SCOPED_TRACE(row.fault);
    std::string stream = sound;
    for (const patch_t &patch : row.patches) memcpy(stream.data() + patch.at, &patch.value, patch.bytes);
    expect_refused(load(stream, options), row.error);
  }
}

TEST_F(Contradictions, OfHeadersAndLists) {
  constexpr uint32_t NIL = TSLB_DA_NIL_IDX;
  expect_contradictions(
      sound(), ANY,
      {
          {"version 1", {{0, 1, 1}}, "byte 0: lib_version 1, which is not 2"},
          {"version 3", {{0, 3, 1}}, "byte 0: lib_version 3, which is not 2"},
          {"roots of another size", {{6, 61, 2}}, "byte 6: lli_sz 61, which is neither 0 nor 60"},
          {"flags without a list", {{LLI + 28, 0, 1}}, "byte 36: lltype 0x00 has no list, lli_sz says there is one"},
          {"flags that mean nothing",
           {{LLI + 28, 0xFC, 1}},
           "byte 36: lltype 0xfc has no list, lli_sz says there is one"},
          {"more ids than six levels hold",
           {{HDR + 4, 2 + 286331137}},
           "byte 72: n_used 286331139 is beyond what an array with n_direct 2 can have"},
          {"negative n_direct",
           {{HDR + 8, 0x80000000}},
           "byte 76: n_direct 2147483648 is beyond what an array can have"},
          {"block 0 beyond 2 GiB",
           {{HDR + 8, 85899344}},
           "byte 76: n_direct 85899344 with slots of 25 bytes takes more than block 0 may"},
          {"negative record_size",
           {{HDR + 12, 0x80000000}, {HDR + 8, 0}},
           "byte 80: record_size 2147483648 is beyond what an array can have"},
          {"data block beyond 4 GiB",
           {{HDR + 12, 0x10000000 - 16}, {HDR + 8, 0}},
           "byte 80: record_size 268435440 is beyond what an array can have"},
          {"more ids than slots follow", {{HDR + 4, 9}}, "byte 284: ends 0 bytes into slot 8 of 25 bytes"},
          {"fewer ids than slots follow", {{HDR + 4, 7}}, "byte 259: more bytes behind the last slot"},

          {"free list begins outside", {{LLI, 8}}, "byte 8: the free list names slot 8 of 8"},
          {"free list leads outside", {{next(4), 9}}, "byte 188: the free list names slot 9 of 8"},
          {"free list runs in a ring", {{next(7), 1}}, "byte 32: the free list counts 3 slots and goes on behind them"},
          {"slot that is its own next",
           {{next(1), 1}},
           "byte 32: the free list counts 3 slots and goes on behind them"},
          {"active slot on the free list", {{status(4), 2}}, "byte 184: status 2 on the free list, slot 4"},
          {"parked slot on the free list", {{next(1), 3}}, "byte 159: status 3 on the free list, slot 3"},
          {"free list is longer than counted",
           {{LLI + 24, 2}},
           "byte 32: the free list counts 2 slots and goes on behind them"},
          {"free list is shorter than counted", {{LLI + 24, 4}}, "byte 32: the free list counts 4 slots and has 3"},
          {"count beyond all slots", {{LLI + 24, 9}}, "byte 32: the free list counts 9 slots of 8"},
          {"tail that is not the last", {{LLI + 4, 4}}, "byte 12: tail 4 of the free list, which ends with 7"},
          {"tail outside", {{LLI + 4, 8}}, "byte 12: tail 8 of the free list, which ends with 7"},
          {"head without tail", {{LLI + 4, NIL}}, "byte 12: tail 4294967295 of the free list, which ends with 7"},
          {"count and tail without head", {{LLI, NIL}}, "byte 32: the free list counts 3 slots and has 0"},
          {"tail without list",
           {{LLI, NIL}, {LLI + 24, 0}},
           "byte 12: tail 7 of the free list, which ends with 4294967295"},
          {"free slot on no list",
           {{LLI, NIL}, {LLI + 4, NIL}, {LLI + 24, 0}},
           "byte 32: 3 slots say that they are free, n_free counts 0"},

          {"inactive list begins outside", {{LLI + 8, 77}}, "byte 16: the inactive list names slot 77 of 8"},
          {"inactive list leads outside", {{next(3), 8}}, "byte 163: the inactive list names slot 8 of 8"},
          {"inactive list runs in a ring",
           {{next(3), 0}},
           "byte 24: the inactive list counts 2 slots and goes on behind them"},
          {"active slot on the inactive list", {{status(3), 2}}, "byte 159: status 2 on the inactive list, slot 3"},
          {"back link to another slot",
           {{prev(3), 2}},
           "byte 176: prev 2 of slot 3 on the inactive list, where 0 comes before it"},
          {"back link at the head",
           {{prev(0), 3}},
           "byte 101: prev 3 of slot 0 on the inactive list, where 4294967295 comes before it"},
          {"inactive list is longer than counted",
           {{LLI + 16, 1}},
           "byte 24: the inactive list counts 1 slots and goes on behind them"},
          {"inactive list is shorter than counted",
           {{LLI + 16, 3}},
           "byte 24: the inactive list counts 3 slots and has 2"},
          {"inactive tail that is not the last",
           {{LLI + 12, 0}},
           "byte 20: tail 0 of the inactive list, which ends with 3"},
          {"inactive slot on no list",
           {{status(2), 3}},
           "byte 24: 3 slots say that they are inactive, n_inact counts 2"},
      });
}

TEST_F(Contradictions, OfAnArrayWithoutAnInactiveList) {
  const std::string stream = stream_of(slot_array(0, 9, 2, TSLB_DA_DAFLAG_LL, 8).get());
  const char *const error = "byte 16: an inactive list where lltype 0x01 has none";
  expect_contradictions(
      stream, ANY,
      {
          {"inactive head", {{LLI + 8, 0}}, error},
          {"inactive tail", {{LLI + 12, 0}}, error},
          {"inactive count", {{LLI + 16, 1}}, error},
          {"inactive slot", {{SLOTS, 3}}, "byte 24: 1 slots say that they are inactive, n_inact counts 0"},
      });
}

TEST_F(Contradictions, OfPools) {
  const array_t array = chunk_pool(BIG_BUFFER, 5);
  const uint32_t n_used = tslb_da_get_size(array.get());
  ASSERT_EQ(n_used, 3u);
  expect_contradictions(
      stream_of(array.get()), POOL,
      {
          {"slots smaller than records", {{12, 60}}, "byte 12: mslot_sz 60 does not go with record_size 72"},
          {"slots larger than records", {{12, 68}}, "byte 12: mslot_sz 68 does not go with record_size 72"},
          {"a sum that wraps",
           {{12, 0xFFFFFFF8}, {124 + 12, 0}, {124 + 4, 0}},
           "byte 12: mslot_sz 4294967288 does not go with record_size 0"},
          {"slots that no creator makes", {{12, 65}, {124 + 12, 73}}, "byte 12: mslot_sz 65 is no multiple of 4"},
          {"current slot beyond the last", {{16, 3}}, "byte 16: cur_slot_addr names slot 3 of 3"},
          {"current slot far beyond", {{16, 0xFFFFFFFE}}, "byte 16: cur_slot_addr names slot 4294967294 of 3"},
          {"offset behind the slot", {{20, 65}}, "byte 20: cur_slot_addr stands at byte 65 of a slot of 64"},
          {"offset behind a slot that is none",
           {{16, 0xFFFFFFFF}, {20, 65}},
           "byte 20: cur_slot_addr stands at byte 65 of a slot of 64"},
      });
  std::string none = stream_of(array.get());
  write_at(none.data(), 16, uint64_t{0xFFFFFFFF});
  EXPECT_NE(load(none, POOL).array, nullptr) << "a cursor in no slot is not in a wrong one";
}

// A slot is cut where the cursor says, and nowhere else.
TEST(ArrayLoader, OnlyTheCursorsSlotMayBeCut) {
  const array_t pool = chunk_pool(BIG_BUFFER, 6);
  const std::string cut = cut_stream_of(pool.get());
  std::string elsewhere = cut, nowhere = cut;
  write_at(elsewhere.data(), 16, read_at<uint32_t>(cut.data(), 16) - 1);
  write_at(nowhere.data(), 16, uint32_t{0xFFFFFFFF});
  const std::string ends = "byte " + std::to_string(cut.size()) + ": ends ";
  EXPECT_EQ(load(cut, POOL).error, "");
  EXPECT_EQ(load(elsewhere, POOL).error.rfind(ends, 0), 0u);
  EXPECT_EQ(load(nowhere, POOL).error.rfind(ends, 0), 0u);
}

TEST(ArrayLoader, RingsHaveAnEnd) {
  const pool_kind_t bit_vector = {"", 8, 4, 0, MPOOL_FLAG_BV, 0};
  for (const int n_slots : {254, 255}) {
    const array_t pool(tslb_init_dynmem(8, 4, 0, MPOOL_TYPE_DRAM, bit_vector.slot_type, "ctx", 12, 0));
    maddr_t address;
    for (int i = 0; i < n_slots; ++i) tslb_dynmem_get_mchunk(pool.get(), &address, 8, srcaddr_t{});
    array_load_options_t as_ring = POOL;
    as_ring.mem_type = MPOOL_TYPE_DRAM_TMP;
    const std::string stream = stream_of(pool.get());
    EXPECT_EQ(load(stream, POOL).error, "");
    const loaded_t ring = load(stream, as_ring);
    EXPECT_EQ(ring.error, n_slots == 254 ? "" : "byte 68: n_used 255, and a ring has 254 slots");
    if (ring.array == nullptr) continue;
    stdout_of([&] { tslb_dynmem_get_mchunk(ring.array.get(), &address, 8, srcaddr_t{}); });
    EXPECT_EQ(as_word(address), 0u) << "it goes round";
  }
}

// ---- Memory --------------------------------------------------------------------------------------------------------

TEST(ArrayLoader, BlocksBeyondTheLimitAreRefused) {
  const std::string stream = stream_of(slot_array(0, 100, 10, 0, 12).get());  // block 0: 1024, a data block: 1600
  static const struct {
    const char *fault;
    uint64_t limit;
    const char *error;
  } rows[] = {
      {"block 0 larger than allowed", 1023, "byte 16: n_direct 10 with slots of 100 bytes takes more than block 0 may"},
      {"data block larger than allowed", 1599,
       "byte 20: record_size 100 makes a block of 16 slots larger than it may be"},
      {"the limit itself refused", 1600, ""},
      {"no limit taken for none at all", 0, ""},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    array_load_options_t options = ANY;
    options.max_block_bytes = row.limit;
    EXPECT_EQ(load(stream, options).error, row.error);
  }
  array_load_options_t options = ANY;
  options.max_block_bytes = 1100;
  EXPECT_EQ(load(stream_of(slot_array(0, 100, 10, 0, 10).get()), options).error, "") << "no data block, no limit on it";
}

TEST(ArrayLoader, ClaimsCostNoMemory) {
  std::string stream = stream_of(slot_array(0, 4, 0, 0, 40).get());
  write_at(stream.data(), 8 + 4, uint32_t{286331136});  // n_used: 1.1 GB of slots
  const unsigned long before = allocations_so_far();
  const loaded_t loaded = load(stream);
  expect_refused(loaded, "byte 184: ends 0 bytes into slot 40 of 4 bytes");
  EXPECT_LT(allocations_so_far() - before, 40u) << "blocks for 40 slots, not for all that are claimed";

  std::string no_bytes = stream_of(slot_array(0, 0, 4, 0, 0).get());
  EXPECT_EQ(load(no_bytes).error, "");
  write_at(no_bytes.data(), 8 + 4, uint32_t{200000000});
  expect_refused(load(no_bytes), "byte 20: record_size 0 with 200000000 slots in use");
}

TEST(ArrayLoader, EveryRefusedAllocationIsARefusedLoad) {
  const std::string stream = stream_of(slot_array(13, 9, 3, TSLB_DA_DAFLAG_INLL, 3 + 256 + 20).get());
  const int fd = memfd_create("stream", MFD_CLOEXEC);
  ASSERT_EQ(write(fd, stream.data(), stream.size()), static_cast<ssize_t>(stream.size()));
  int nth = 1;
  for (bool struck = true; struck; ++nth) {
    SCOPED_TRACE(nth);
    lseek(fd, 0, SEEK_SET);
    char error[256];
    array_t array;
    stderr_of([&] {
      const fault_t fault(nth);
      array.reset(array_load_stream(fd, &ANY, error, sizeof(error)));
      struck = fault.struck();
    });
    EXPECT_EQ(array == nullptr, struck) << error;
    EXPECT_EQ(std::string(error).find("no memory for ") != std::string::npos, struck) << error;
  }
  EXPECT_GT(nth, 20) << "headers, handle, block 0, tables and 18 blocks";
  close(fd);
}

// ---- Descriptors ---------------------------------------------------------------------------------------------------

class Descriptors : public testing::Test {
 protected:
  void TearDown() override {
    read_script.clear();
    read_script_at = 0;
  }
};

TEST_F(Descriptors, ShortAndInterruptedReadsGoOn) {
  const array_t original = slot_array(0, 9000, 3, TSLB_DA_DAFLAG_INLL, 30);
  read_script = {-1, 5, -1, -1, 1, 2, 75, 3, -1, 8999, 17, 1, 1, -1, 16384, 1, -1};
  const loaded_t loaded = load(stream_of(original.get()));
  ASSERT_NE(loaded.array, nullptr) << loaded.error;
  EXPECT_EQ(read_script_at, read_script.size());
  EXPECT_EQ(stream_of(loaded.array.get()), stream_of(original.get()));
}

TEST_F(Descriptors, FailedReadIsTold) {
  const std::string stream = stream_of(slot_array(0, 20000, 3, 0, 4).get());
  read_script = {-2};
  expect_refused(load(stream), "byte 0: the stream cannot be read on: Input/output error");
  read_script = {16384, 3640, -1, -2};  // behind what is read ahead, in the first slot
  read_script_at = 0;
  expect_refused(load(stream), "byte 16384: the stream cannot be read on: Input/output error");

  char error[256];
  EXPECT_EQ(array_load_stream(-1, &ANY, error, sizeof(error)), nullptr);
  EXPECT_STREQ(error, "byte 0: the stream cannot be read on: Bad file descriptor");
  EXPECT_EQ(array_load_stream(-1, &ANY, nullptr, 0), nullptr);
  EXPECT_EQ(array_load_stream(-1, &ANY, error, 8), nullptr);
  EXPECT_STREQ(error, "byte 0:") << "cut to fit";
}

TEST_F(Descriptors, PipeThatIsFilledInSmallPieces) {
  for (const size_t cut : {size_t{0}, size_t{1}}) {
    const array_t original = slot_array(13, 90, 3, TSLB_DA_DAFLAG_INLL, 300);
    std::string stream = stream_of(original.get());
    stream.resize(stream.size() - cut);
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    std::thread writer([&] {
      size_t piece = 1;
      for (size_t at = 0; at < stream.size(); at += piece, piece = piece * 7 % 113) {
        piece = std::min(piece, stream.size() - at);
        EXPECT_EQ(write(ends[1], stream.data() + at, piece), static_cast<ssize_t>(piece));
        if (piece % 10 == 0) std::this_thread::yield();
      }
      close(ends[1]);
    });
    char error[256];
    const array_t array(array_load_stream(ends[0], &ANY, error, sizeof(error)));
    writer.join();
    close(ends[0]);
    if (cut != 0) {
      EXPECT_EQ(array, nullptr);
      continue;
    }
    ASSERT_NE(array, nullptr) << error;
    EXPECT_EQ(stream_of(array.get()), stream_of(original.get()));
  }
}

TEST_F(Descriptors, StreamBeginsWhereTheDescriptorStands) {
  const array_t original = slot_array(0, 9, 3, 0, 30);
  const std::string stream = stream_of(original.get());
  const int fd = memfd_create("stream", MFD_CLOEXEC);
  ASSERT_EQ(write(fd, "ahead of it", 11), 11);
  ASSERT_EQ(write(fd, stream.data(), stream.size()), static_cast<ssize_t>(stream.size()));
  lseek(fd, 11, SEEK_SET);
  char error[256];
  EXPECT_NE(array_t(array_load_stream(fd, &ANY, error, sizeof(error))), nullptr) << error;
  EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC) << "not closed";
  close(fd);
}

// ---- Block files ---------------------------------------------------------------------------------------------------

static int next_descriptor() {
  const int fd = dup(STDIN_FILENO);
  close(fd);
  return fd;
}

class BlockFiles : public testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = fs::temp_directory_path() / "tslb_loader_XXXXXX";
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    base_ = pattern;
    tslb_set_base_path(base_.c_str());
  }
  void TearDown() override {
    read_script.clear();
    read_script_at = 0;
    tslb_set_base_path("");
    fs::remove_all(base_);
  }
  loaded_t load_files(const array_load_options_t &options = ANY) {
    char error[512] = "untouched";
    const int descriptor = next_descriptor();
    loaded_t loaded = {array_t(array_load_block_files(base_.c_str(), &options, error, sizeof(error))), error};
    EXPECT_EQ(next_descriptor(), descriptor) << "a file was left open";
    EXPECT_EQ(loaded.array != nullptr, loaded.error.empty());
    return loaded;
  }
  std::string file(int block) const { return base_ / "ctx" / ("12." + std::to_string(block) + ".darr"); }
  void patch(int block, long at, uint32_t value) const {
    std::fstream out(file(block), std::ios::in | std::ios::out | std::ios::binary);
    out.seekp(at).write(reinterpret_cast<const char *>(&value), sizeof(value));
    ASSERT_TRUE(out.good());
  }
  fs::path base_;
};

TEST_F(BlockFiles, ArraysComeBackAndGoOn) {
  for (const auto &row : slot_arrays) {
    SCOPED_TRACE(row.fault);
    fs::remove_all(base_ / "ctx");
    const array_t original =
        slot_array(row.usrhdr_sz, row.record_sz, row.n_direct, row.daflag, row.n_used, MPOOL_TYPE_SHM);
    const loaded_t loaded = load_files();
    ASSERT_NE(loaded.array, nullptr) << loaded.error;
    expect_same_from_now_on(original.get(), loaded.array.get(), go_on_with_slots);
  }
}

TEST_F(BlockFiles, PoolsComeBackAndGoOn) {
  const array_t original(tslb_init_dynmem(64, 2, MPOOL_FLAG_COMPAT, MPOOL_TYPE_SHM, 0, "ctx", 12, TSLB_DA_DAFLAG_INLL));
  take_chunks(original.get(), 30, 0);
  const loaded_t loaded = load_files(POOL);
  ASSERT_NE(loaded.array, nullptr) << loaded.error;
  expect_same_from_now_on(original.get(), loaded.array.get(), [](DynArrHandle_t *pool) {
    take_chunks(pool, 20, 100);
    return std::string();
  });
}

// The library names file 0 from the whole name, and data blocks from the 32 characters that the handle keeps.
TEST_F(BlockFiles, LongNamesAndNegativeIds) {
  const std::string name = "a name of more than thirty-two characters";
  const array_t original(get_default_dyn_array_ex(0, 8, 1, MPOOL_TYPE_SHM, -3, name.c_str(), 0));
  for (int i = 0; i < 9; ++i)
    write_at(
        get_dyn_arr_record_position(original.get(), static_cast<uint32_t>(get_dyn_arr_new_record_id(original.get()))),
        0, i + 0x123456789LL);
  array_load_options_t options = ANY;
  options.ctx_name = name.c_str();
  options.tbl_id = -3;
  const loaded_t loaded = load_files(options);
  ASSERT_NE(loaded.array, nullptr) << loaded.error;
  EXPECT_EQ(stream_of(loaded.array.get()), stream_of(original.get()));
}

TEST_F(BlockFiles, PathWithoutABase) {
  const array_t original = slot_array(0, 12, 4, 0, 9, MPOOL_TYPE_SHM);
  const fs::path before = fs::current_path();
  fs::current_path(base_);
  char error[256];
  EXPECT_NE(array_t(array_load_block_files(nullptr, &ANY, error, sizeof(error))), nullptr) << error;
  EXPECT_NE(array_t(array_load_block_files("", &ANY, error, sizeof(error))), nullptr) << error;
  array_load_options_t options = ANY;
  options.tbl_id = 13;
  EXPECT_EQ(array_load_block_files("", &options, error, sizeof(error)), nullptr);
  EXPECT_STREQ(error, "ctx/13.0.darr: No such file or directory");
  fs::current_path(before);
  options.ctx_name = "";
  const std::string long_base(4090, 'x');
  EXPECT_EQ(array_load_block_files(long_base.c_str(), &options, error, sizeof(error)), nullptr);
}

// Block 0: 84 bytes of headers and 3 slots of 25. Data blocks: 400 bytes each, two of them, the second with 2 slots.
TEST_F(BlockFiles, FilesThatAreNotAsTheHeaderSays) {
  const auto resize = [this](int block, long bytes) {
    return [=, this] { fs::resize_file(file(block), static_cast<uintmax_t>(bytes)); };
  };
  const auto remove = [this](int block) { return [=, this] { fs::remove(file(block)); }; };
  const auto set = [this](int block, long at, uint32_t value) { return [=, this] { patch(block, at, value); }; };
  const struct {
    const char *fault;
    std::function<void()> damage;
    int block;
    const char *error;
  } rows[] = {
      {"no file 0", remove(0), 0, "No such file or directory"},
      {"first data block missing", remove(1), 1, "No such file or directory"},
      {"last data block missing", remove(2), 2, "No such file or directory"},
      {"file 0 empty", resize(0, 0), 0, "byte 0: ends 0 bytes into DynHdr_t of 8"},
      {"file 0 ends in its headers", resize(0, 80), 0, "byte 80: ends 72 bytes into headers of 76"},
      {"file 0 short", resize(0, 158), 0, "158 bytes long, its block takes 159"},
      {"file 0 long", resize(0, 160), 0, "160 bytes long, its block takes 159"},
      {"data block short", resize(1, 399), 1, "399 bytes long, its block takes 400"},
      {"data block long", resize(1, 401), 1, "401 bytes long, its block takes 400"},
      {"last data block cut behind its last slot", resize(2, 50), 2, "50 bytes long, its block takes 400"},
      {"a folder in a file's place",
       [this] {
         fs::remove(file(2));
         fs::create_directory(file(2));
       },
       2, "not a regular file"},
      {"a pipe in a file's place",
       [this] {
         fs::remove(file(0));
         mkfifo(file(0).c_str(), 0600);
       },
       0, "not a regular file"},
      {"wrong version", set(0, 0, 0x00000001), 0, "byte 0: lib_version 1, which is not 2"},
      {"more slots than files", set(0, 68 + 4, 36), 3, "No such file or directory"},
      {"another geometry", set(0, 68 + 8, 2), 0, "159 bytes long, its block takes 134"},
      {"root that names no slot", set(0, 8, 21), 0, "byte 8: the free list names slot 21 of 21"},
      {"wrong status in block 0", set(0, 84 + 25, 2), 0, "byte 109: status 2 on the free list, slot 1"},
      {"wrong status in a data block", set(1, 25, 2), 1, "byte 25: status 2 on the free list, slot 4"},
      {"link to no slot in the last block", set(2, 4, 500), 2, "byte 4: the free list names slot 500 of 21"},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    fs::remove_all(base_ / "ctx");
    slot_array(0, 9, 3, TSLB_DA_DAFLAG_INLL, 21, MPOOL_TYPE_SHM);
    ASSERT_EQ(load_files().error, "");
    row.damage();
    expect_refused(load_files(), file(row.block) + ": " + row.error);
  }
}

TEST_F(BlockFiles, FileThatShrinksMeanwhileIsNoCutPool) {
  const array_t pool(tslb_init_dynmem(64, 1, 0, MPOOL_TYPE_SHM, 0, "ctx", 12, 0));
  take_chunks(pool.get(), 1, 0);  // 8 bytes
  read_script = {8, 72, 8 + 8, 0};
  expect_refused(load_files(POOL), file(0) + ": byte 96: ends 16 bytes into slot 0 of 72 bytes");
  read_script = {8, 72, 8 + 8, -2};
  read_script_at = 0;
  expect_refused(load_files(POOL), file(0) + ": byte 80: the file cannot be read on: Input/output error");
}

TEST_F(BlockFiles, UnusedSlotsComeBackEmptyAndOtherFilesAreLeft) {
  const array_t original = slot_array(0, 9, 3, 0, 5, MPOOL_TYPE_SHM);
  patch(1, 5 * 9, 0x55555555);
  std::ofstream(file(2)) << "an old file";
  const loaded_t loaded = load_files();
  ASSERT_NE(loaded.array, nullptr) << loaded.error;
  uint32_t idx;
  for (int i = 0; i < 4; ++i) tslb_da_get_newptr(loaded.array.get(), &idx);
  EXPECT_EQ(idx, 8u);
  EXPECT_EQ(read_at<uint32_t>(tslb_da_get_ptr(loaded.array.get(), 8), 4), 0u);
  EXPECT_EQ(fs::file_size(file(2)), 11u);
}
