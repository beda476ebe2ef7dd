// Tests of the loaders: a loaded array equals the original and behaves like it, for every kind of read.
#include <errno.h>
#include <fcntl.h>
#include <sys/syscall.h>

#include <tslb/block_files.h>
#include <tslb/tslb_settings.h>
#include "list_audit.h"
#include "loader_support.h"

// Script of the next reads: a positive number is the maximum of bytes read, -1 fails with EINTR, -2 with EIO. After the
// script reads go to the system.
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

static const struct {
  const char *fault;
  int usrhdr_sz, record_sz, n_direct;
  uint8_t daflag;
  int n_used;
} slot_arrays[] = {
    {"an empty array is not read to its end", 0, 12, 4, TSLB_DA_DAFLAG_INLL, 0},
    {"slots of a plain array are shifted", 0, 12, 4, 0, 3},
    {"the direct area's last slot is taken from a block", 0, 12, 4, TSLB_DA_DAFLAG_LL, 4},
    {"the first slot after the direct area is lost", 0, 12, 4, TSLB_DA_DAFLAG_LL, 5},
    {"an array without a direct area is not loaded", 0, 12, 0, TSLB_DA_DAFLAG_INLL, 20},
    {"a user header shifts lists or counts", 13, 9, 3, TSLB_DA_DAFLAG_INLL, 40},
    {"one of two flags is lost", 13, 9, 3, TSLB_DA_DAFLAG_LL | TSLB_DA_DAFLAG_INLL, 40},
    {"an unknown flag is lost", 0, 9, 3, 0xF0 | TSLB_DA_DAFLAG_LL, 40},
    {"level 2 is not reached", 0, 5, 2, TSLB_DA_DAFLAG_INLL, 2 + 256 + 21},
    {"a slot longer than one read is cut", 0, 40000, 2, TSLB_DA_DAFLAG_INLL, 5},
    {"56 bytes of another user header are read as a pool's", 56, 12, 4, TSLB_DA_DAFLAG_INLL, 9},
};

static const pool_kind_t pool_kinds[] = {
    {"a pool without lists is not read as a pool", 64, 2, 0, 0, 0},
    {"compaction headers or a freed slot are lost", 64, 2, MPOOL_FLAG_COMPAT, 0, TSLB_DA_DAFLAG_LL},
    {"a bit-vector pool is loaded as another kind", 64, 2, 0, MPOOL_FLAG_BV, TSLB_DA_DAFLAG_LL},
    {"a back node that was cut off is not restored", 64, 2, MPOOL_FLAG_COMPAT, MPOOL_FLAG_BV, TSLB_DA_DAFLAG_INLL},
};

// Loads each pool whole and with its last slot cut. The last slot is in the direct area or in a data block. All bytes
// that the cut removes are zero in the original too, except for the time in its back node, which is cleared first.
TEST(ArrayLoader, PoolsAreRestored) {
  for (const pool_kind_t &kind : pool_kinds)
    for (const int n_chunks : {0, 1, 2, 3, 32})
      for (const bool is_cut : {false, true}) {
        if (is_cut && n_chunks == 0) continue;
        SCOPED_TRACE(testing::Message() << kind.fault << ", " << n_chunks << " chunks" << (is_cut ? ", cut" : ""));
        const array_t original = chunk_pool(kind, n_chunks);
        if (is_cut && (kind.daflag & TSLB_DA_DAFLAG_INLL) != 0) {
          void *const last = tslb_da_get_ptr(original.get(), tslb_da_get_size(original.get()) - 1);
          backward_node(original.get(), last).ts = 0;
        }
        const std::string whole = stream_of(original.get());
        const std::string stream = is_cut ? cut_stream_of(original.get()) : whole;
        ASSERT_EQ(stream.size() < whole.size(), is_cut);
        const load_result_t loaded = load(stream, POOL);
        ASSERT_NE(loaded.array, nullptr) << loaded.error;
        if (kind.daflag != 0) audit_lists(loaded.array.get());
        expect_same_from_now_on(original.get(), loaded.array.get(), go_on_with_chunks);
      }
}

class Descriptors : public testing::Test {
 protected:
  ~Descriptors() override { script({}); }
  static void script(std::vector<int> steps) {
    read_script = std::move(steps);
    read_script_at = 0;
  }
};

// Through a pipe, which has no size and no seek.
TEST_F(Descriptors, ShortAndInterruptedReadsContinue) {
  const array_t original = slot_array(13, 9000, 3, TSLB_DA_DAFLAG_INLL, 6);
  const std::string stream = stream_of(original.get());
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  ASSERT_EQ(write(ends[1], stream.data(), stream.size()), static_cast<ssize_t>(stream.size()));
  close(ends[1]);
  script({-1, 5, -1, -1, 1, 2, 75, 3, -1, 8999, 17, 1, 1, -1, 16384, 1, -1});
  const load_result_t loaded =
      loaded_by([&](char *error, size_t size) { return array_load_stream(ends[0], &ANY, error, size); });
  close(ends[0]);
  ASSERT_NE(loaded.array, nullptr) << loaded.error;
  EXPECT_EQ(read_script_at, read_script.size());
  EXPECT_EQ(stream_of(loaded.array.get()), stream);
}

TEST_F(Descriptors, FailedReadIsReported) {
  const std::string stream = stream_of(slot_array(0, 20000, 3, 0, 4).get());
  script({-2});
  expect_refused(load(stream), "byte 0: the stream cannot be read: Input/output error");
  script({65536, 3640, -1, -2});  // after the bytes of the read buffer, in the last slot
  expect_refused(load(stream), "byte 65536: the stream cannot be read: Input/output error");

  char error[256];
  EXPECT_EQ(array_load_stream(-1, &ANY, error, sizeof(error)), nullptr);
  EXPECT_STREQ(error, "byte 0: the stream cannot be read: Bad file descriptor");
  EXPECT_EQ(array_load_stream(-1, &ANY, nullptr, 0), nullptr);
  EXPECT_EQ(array_load_stream(-1, &ANY, error, 8), nullptr);
  EXPECT_STREQ(error, "byte 0:") << "cut to fit";
}

TEST_F(Descriptors, StreamBeginsAtTheDescriptorsPosition) {
  const memory_file_t file("other bytes" + stream_of(slot_array(0, 9, 3, 0, 30).get()));
  lseek(file.fd(), 11, SEEK_SET);
  const load_result_t loaded =
      loaded_by([&](char *error, size_t size) { return array_load_stream(file.fd(), &ANY, error, size); });
  EXPECT_NE(loaded.array, nullptr) << loaded.error;
  EXPECT_EQ(fcntl(file.fd(), F_GETFD), FD_CLOEXEC) << "not closed";
}

static int next_descriptor() {
  const int fd = dup(STDIN_FILENO);
  close(fd);
  return fd;
}

class BlockFiles : public Descriptors {
 protected:
  load_result_t load_files(const array_load_options_t &options = ANY) {
    const int descriptor = next_descriptor();
    load_result_t loaded = loaded_by(
        [&](char *error, size_t size) { return array_load_block_files(base_.path.c_str(), &options, error, size); });
    EXPECT_EQ(next_descriptor(), descriptor) << "a file was left open";
    return loaded;
  }
  std::string file(int block) const { return folder() / ("12." + std::to_string(block) + ".darr"); }
  fs::path folder() const { return base_.path / "ctx"; }
  const base_path_t base_;
};

TEST_F(BlockFiles, SlotArraysAreRestored) {
  lib_config.tslb_mvt_reuse_enabled = 1;
  for (const auto &row : slot_arrays) {
    for (const char mem_type : std::initializer_list<char>{MPOOL_TYPE_DRAM, MPOOL_TYPE_SHM}) {
      SCOPED_TRACE(testing::Message() << row.fault << ", memory " << int{mem_type});
      fs::remove_all(folder());
      const array_t original = slot_array(row.usrhdr_sz, row.record_sz, row.n_direct, row.daflag, row.n_used, mem_type);
      if ((row.daflag & TSLB_DA_DAFLAG_INLL) != 0) {
        tsdb_mem_pressure_config_t policy = {1, {}, {0, 0, 0, 3, 10}, {1, 0, 2, 0, 10}};
        tslb_da_register_reuse_policy(original.get(), &policy);
      }
      const load_result_t loaded = mem_type == MPOOL_TYPE_SHM ? load_files() : load(stream_of(original.get()));
      ASSERT_NE(loaded.array, nullptr) << loaded.error;
      EXPECT_EQ(loaded.array->daflag, row.daflag);
      EXPECT_STREQ(loaded.array->ctx_name, "ctx");
      EXPECT_EQ(loaded.array->tbl_id, 12u);
      expect_same_from_now_on(original.get(), loaded.array.get(), go_on_with_slots);
      if (row.daflag != 0) audit_lists(loaded.array.get());
    }
  }
  lib_config.tslb_mvt_reuse_enabled = 0;
}

TEST_F(BlockFiles, PoolsAreRestored) {
  const array_t original(tslb_init_dynmem(64, 2, MPOOL_FLAG_COMPAT, MPOOL_TYPE_SHM, 0, "ctx", 12, TSLB_DA_DAFLAG_INLL));
  take_chunks(original.get(), 30, 0);
  const load_result_t loaded = load_files(POOL);
  ASSERT_NE(loaded.array, nullptr) << loaded.error;
  expect_same_from_now_on(original.get(), loaded.array.get(), go_on_with_chunks);
}

// The library names file 0 by the whole context name, and data blocks by the 32 characters that the handle keeps.
TEST_F(BlockFiles, LongNamesAndNegativeIds) {
  const std::string name = "a name of more than thirty-two characters";
  const array_t original(get_default_dyn_array_ex(0, 8, 1, MPOOL_TYPE_SHM, -3, name.c_str(), 0));
  for (int i = 0; i < 9; ++i)
    write_at(tslb_da_get_ptr(original.get(), tslb_da_get_newidx(original.get())), 0, i + 0x123456789LL);
  const load_result_t loaded =
      load_files({name.c_str(), -3, MPOOL_TYPE_DRAM, ARRAY_LOAD_ANY, 0, ARRAY_LOAD_ANY_VERSION, ARRAY_LOAD_ANY_SIZE});
  ASSERT_NE(loaded.array, nullptr) << loaded.error;
  EXPECT_EQ(stream_of(loaded.array.get()), stream_of(original.get()));
  const std::string file0 = base_.path / name / "-3.0.darr";
  expect_refused(load_files({name.c_str(), -3, MPOOL_TYPE_DRAM, ARRAY_LOAD_ANY, 0, 0, 12}),
                 file0 + ": byte 20: record_size 8, expected 12");
}

TEST_F(BlockFiles, PathWithoutABase) {
  const array_t original = slot_array(0, 12, 4, 0, 9, MPOOL_TYPE_SHM);
  const auto load_from = [](const char *base, const array_load_options_t &options) {
    return loaded_by([&](char *error, size_t size) { return array_load_block_files(base, &options, error, size); });
  };
  const array_load_options_t other = {
      "ctx", 13, MPOOL_TYPE_DRAM, ARRAY_LOAD_ANY, 0, ARRAY_LOAD_ANY_VERSION, ARRAY_LOAD_ANY_SIZE};
  const fs::path before = fs::current_path();
  fs::current_path(base_.path);
  for (const char *none : {static_cast<const char *>(nullptr), ""}) EXPECT_EQ(load_from(none, ANY).error, "");
  expect_refused(load_from("", other), "ctx/13.0.darr: No such file or directory");
  fs::current_path(before);
  EXPECT_EQ(load_from(std::string(4090, 'x').c_str(), other).array, nullptr);
}

// Block 0: 84 bytes of headers and 3 slots of 25. Data blocks: 400 bytes each, two of them, the second with 2 slots.
TEST_F(BlockFiles, FilesThatContradictTheHeader) {
  const auto resize = [this](int block, uintmax_t bytes) { return [=, this] { fs::resize_file(file(block), bytes); }; };
  const auto remove = [this](int block) { return [=, this] { fs::remove(file(block)); }; };
  const auto set = [this](int block, long at, uint32_t value) {
    return [=, this] { patch_file(file(block), at, value); };
  };
  static constexpr char not_regular[] = "not a regular file";
  const struct {
    const char *fault;
    std::function<void()> damage;
    int block;
    const char *error;
  } rows[] = {
      {"no file 0", remove(0), 0, "No such file or directory"},
      {"first data block missing", remove(1), 1, "No such file or directory"},
      {"file 0 ends in its headers", resize(0, 80), 0, "byte 80: ends 72 bytes into headers of 76"},
      {"file 0 short", resize(0, 158), 0, "158 bytes long, but its block has 159"},
      {"file 0 long", resize(0, 160), 0, "160 bytes long, but its block has 159"},
      {"data block short", resize(1, 399), 1, "399 bytes long, but its block has 400"},
      {"last data block cut after its last slot", resize(2, 50), 2, "50 bytes long, but its block has 400"},
      {"a folder in a file's place", [this] { fs::remove(file(2)), fs::create_directory(file(2)); }, 2, not_regular},
      {"a pipe in a file's place", [this] { fs::remove(file(0)), mkfifo(file(0).c_str(), 0600); }, 0, not_regular},
      {"more slots than files", set(0, 68 + 4, 36), 3, "No such file or directory"},
      {"another geometry", set(0, 68 + 8, 2), 0, "159 bytes long, but its block has 134"},
      {"wrong status in block 0", set(0, 84 + 25, 2), 0, "byte 109: status 2 on the free list, slot 1"},
      {"wrong status in a data block", set(1, 25, 2), 1, "byte 25: status 2 on the free list, slot 4"},
      {"link to no slot in the last block", set(2, 4, 500), 2, "byte 4: the free list names slot 500 of 21"},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    fs::remove_all(folder());
    slot_array(0, 9, 3, TSLB_DA_DAFLAG_INLL, 21, MPOOL_TYPE_SHM);
    ASSERT_EQ(load_files().error, "");
    row.damage();
    expect_refused(load_files(), file(row.block) + ": " + row.error);
  }
}

TEST_F(BlockFiles, FileThatShrinksWhileItIsReadIsRefused) {
  const array_t pool(tslb_init_dynmem(64, 1, 0, MPOOL_TYPE_SHM, 0, "ctx", 12, 0));
  take_chunks(pool.get(), 1, 0);  // 8 bytes
  script({8, 72, 8 + 8, 0});
  expect_refused(load_files(POOL), file(0) + ": byte 96: ends 16 bytes into slot 0 of 72 bytes");
  script({8, 72, 8 + 8, -2});
  expect_refused(load_files(POOL), file(0) + ": byte 80: the file cannot be read: Input/output error");
}

TEST_F(BlockFiles, UnusedSlotsAreEmptyAndOtherFilesAreIgnored) {
  const array_t original = slot_array(0, 9, 3, 0, 5, MPOOL_TYPE_SHM);
  patch_file(file(1), 5 * 9, 0x55555555);
  std::ofstream(file(2)) << "an old file";
  const load_result_t loaded = load_files();
  ASSERT_NE(loaded.array, nullptr) << loaded.error;
  uint32_t idx;
  for (int i = 0; i < 4; ++i) tslb_da_get_newptr(loaded.array.get(), &idx);
  EXPECT_EQ(idx, 8u);
  EXPECT_EQ(read_at<uint32_t>(tslb_da_get_ptr(loaded.array.get(), 8), 4), 0u);
  EXPECT_EQ(fs::file_size(file(2)), 11u);
}

// What a kill within list operations can leave: statuses are single words, links, roots and counters are not. Without the
// option the files are refused.
TEST_F(BlockFiles, ListsAreRebuiltFromStatuses) {
  array_load_options_t rebuilding = ANY;
  rebuilding.kind |= ARRAY_LOAD_REBUILDS_LISTS;
  for (const uint8_t daflag : {uint8_t{TSLB_DA_DAFLAG_LL}, uint8_t{TSLB_DA_DAFLAG_INLL}}) {
    SCOPED_TRACE(int{daflag});
    fs::remove_all(folder());
    const array_t original(tslb_da_init_ver(8, 3, MPOOL_TYPE_SHM, "ctx", 12, daflag, 0));
    for (uint32_t idx = 0, taken; idx < 40; ++idx) tslb_da_get_newptr(original.get(), &taken);
    for (const uint32_t idx : {7u, 30u, 2u}) tslb_da_free_idx(original.get(), idx);
    if (daflag == TSLB_DA_DAFLAG_INLL) {
      tslb_da_inactivate_idx(original.get(), 9, 300);
      tslb_da_inactivate_idx(original.get(), 4, 200);
      tslb_da_inactivate_idx(original.get(), 20, 200);
    }
    // A slot that was freed up to its status, and links that lead nowhere.
    const auto node = [&](uint32_t idx) {
      return reinterpret_cast<node_fw *>(static_cast<char *>(tslb_da_get_ptr(original.get(), idx)) - sizeof(node_fw));
    };
    node(11)->status = TSLB_DA_SLOT_FREE;
    node(30)->next = 30;
    auto *const roots = static_cast<DynArrLLI_t *>(tslb_da_get_lli(original.get()));
    roots->free_tail = 4000;
    roots->n_free = 9;
    tslb_syn_shm_dynarr(original.get());
    EXPECT_EQ(load_files().array, nullptr);
    const load_result_t loaded = load_files(rebuilding);
    ASSERT_NE(loaded.array, nullptr) << loaded.error;
    const lists_t lists = audit_lists(loaded.array.get());
    EXPECT_EQ(lists.free.size(), static_cast<DynArrLLI_t *>(tslb_da_get_lli(loaded.array.get()))->n_free);
    for (const uint32_t idx : lists.free) EXPECT_EQ(node(idx)->status, TSLB_DA_SLOT_FREE);
    EXPECT_NE(std::find(lists.free.begin(), lists.free.end(), 11u), lists.free.end());
    EXPECT_TRUE(std::is_sorted(lists.free.begin(), lists.free.end()));
    if (daflag == TSLB_DA_DAFLAG_INLL) {
      EXPECT_EQ(lists.inactive, (indices_t{4, 20, 9}));
    }
    uint32_t taken;
    ASSERT_NE(tslb_da_get_newptr(loaded.array.get(), &taken), nullptr);
    EXPECT_EQ(taken, lists.free.front());
  }
}

TEST_F(BlockFiles, PresenceIsReported) {
  const char *const base = base_.path.c_str();
  EXPECT_EQ(block_files_exist(base, "ctx", 12), 0);
  const array_t original = slot_array(0, 8, 3, TSLB_DA_DAFLAG_LL, 40, MPOOL_TYPE_SHM);
  EXPECT_EQ(block_files_exist(base, "ctx", 12), 1);
  EXPECT_EQ(block_files_exist(base, "ctx", 1), 0) << "12.0.darr is not a file of table 1";
  fs::rename(file(1), folder() / "13.1.darr.old");
  fs::rename(file(0), folder() / "13.0.darr");
  fs::remove(file(2));
  fs::remove(file(3));
  EXPECT_EQ(block_files_exist(base, "ctx", 12), 0);
  EXPECT_EQ(block_files_exist(base, "ctx", 13), 1);
}
