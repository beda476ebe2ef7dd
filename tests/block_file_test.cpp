// Tests of arrays in mapped files: names, sizes, contents, old files, races for one block, and failing system calls.
// Also tests of sync, whose only result is its reports.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "list_audit.h"
#include "pool_support.h"
#include "stored_image.h"
#include "threads.h"

// Each test has its own base path. The library creates the directory `ctx_name` in it.
class BlockFiles : public testing::Test {
 protected:
  array_t make(int record_size, int n_direct, uint8_t daflag, const char *ctx_name = "metrics", int tbl_id = 12) {
    return array_t(get_default_dyn_array_ex(0, record_size, n_direct, MPOOL_TYPE_SHM, tbl_id, ctx_name, daflag));
  }
  fs::path file(int block) const { return dir_ / "metrics" / ("12." + std::to_string(block) + ".darr"); }
  void leave(int block, const std::string &bytes) const { std::ofstream(file(block)) << bytes; }
  const base_path_t base_;
  const fs::path &dir_ = base_.path;
};

TEST_F(BlockFiles, NamesOfTablesAndContexts) {
  const array_t negative = make(8, 1, 0, "metrics", -4);
  EXPECT_TRUE(fs::exists(dir_ / "metrics" / "-4.0.darr"));
  // Block 0 has the name that was given, data blocks the name that the handle keeps.
  const std::string long_name(40, 'n');
  const array_t split = make(8, 0, 0, long_name.c_str(), 5);
  get_dyn_arr_new_record_id(split.get());
  EXPECT_TRUE(fs::exists(dir_ / long_name / "5.0.darr"));
  EXPECT_TRUE(fs::exists(dir_ / std::string(32, 'n') / "5.1.darr"));
  const array_t nameless = make(8, 1, 0, nullptr, 6);
  EXPECT_TRUE(fs::exists(dir_ / "6.0.darr"));

  tslb_set_base_path("");
  const std::string absolute = (dir_ / "own").string();
  const array_t rootless = make(8, 1, 0, absolute.c_str(), 7);
  EXPECT_TRUE(fs::exists(dir_ / "own" / "7.0.darr"));

  tslb_set_base_path(dir_.c_str());
  const array_t temporary(get_default_dyn_array_ex(0, 8, 0, MPOOL_TYPE_SHM_TMP, 9, "never", 0));
  EXPECT_EQ(get_dyn_arr_new_record_id(temporary.get()), 0);
  EXPECT_FALSE(fs::exists(dir_ / "never"));
}

TEST_F(BlockFiles, OldFilesAreResizedAndOnlyFile0IsCleared) {
  fs::create_directory(dir_ / "metrics");
  leave(0, std::string(5000, 'x'));
  leave(1, std::string(5000, 'y'));
  leave(2, std::string(10, 'z'));
  const array_t array = make(8, 2, 0);
  EXPECT_EQ(get_dyn_arr_size(array.get()), 0u) << "the array of an earlier run is still there";
  EXPECT_EQ(fs::file_size(file(0)), 24u + 16);
  void *record;
  for (int i = 0; i < 3; ++i) get_dyn_arr_new_record_id_ex(array.get(), &record, 0);
  EXPECT_EQ(std::string(bytes_of(record), 8), "yyyyyyyy") << "the file of a data block was cleared";
  EXPECT_EQ(fs::file_size(file(1)), 128u);
  for (int i = 0; i < 16; ++i) get_dyn_arr_new_record_id_ex(array.get(), &record, 0);
  EXPECT_EQ(std::string(bytes_of(record), 16), std::string("zzzzzzzzzz") + std::string(6, '\0'));
}

// An old bytes_del could become equal to bytes_used later. The slot would then be freed with live chunks in it.
TEST_F(BlockFiles, PoolResetsTheCountersOfSlotsInAnOldFile) {
  fs::create_directory(dir_ / "metrics");
  for (const bool wide : {false, true}) {
    SCOPED_TRACE(wide ? "64-bit address" : "32-bit address");
    std::string old(16 * 1016, '\0');
    old[8 + 4] = 100;  // bytes_del of slot 0, after its node
    leave(1, old);
    const array_t pool(
        tslb_init_dynmem(1000, 0, MPOOL_FLAG_COMPAT, MPOOL_TYPE_SHM, 0, "metrics", 12, TSLB_DA_DAFLAG_LL));
    wide ? static_cast<void>(take64(pool, 100)) : static_cast<void>(take(pool, 100));
    expect_counted(pool, 0, 100, 0);
    take(pool, 1000);
    size_t sums[3];
    tslb_dynmem_update_free_list(pool.get(), &sums[0], &sums[1], &sums[2]);
    EXPECT_EQ(status_at(pool.get(), 0), TSLB_DA_SLOT_ACTIVE) << "a slot with a live chunk was freed";
  }
}

TEST_F(BlockFiles, ThreadsThatRaceForABlockGetTheSameOne) {
  for (int round = 0; round < 8; ++round) {
    const array_t array = make(8, 0, 0, "metrics", round);
    pretend_issued(array.get(), 64);
    std::vector<void *> seen[3];
    on_threads(3, [&](int self) {
      for (uint32_t id = 0; id < 64; id += 16) seen[self].push_back(get_dyn_arr_record_position(array.get(), id));
    });
    EXPECT_EQ(seen[0], seen[1]);
    EXPECT_EQ(seen[0], seen[2]);
    EXPECT_EQ(get_dyn_total_allocated_records(array.get()), 64u);
  }
}

TEST(BasePath, Lengths) {
  for (const size_t len : {size_t{0}, size_t{5}, size_t{1023}}) {
    tslb_set_base_path(std::string(len, 'p').c_str());
    EXPECT_EQ(std::string(g_base_path), std::string(len, 'p'));
  }
  tslb_set_base_path(std::string(1024, 'p').c_str());
  EXPECT_EQ(std::string(g_base_path), std::string(1023, 'p'));
  EXPECT_EXIT(tslb_set_base_path(std::string(1025, 'p').c_str()), testing::ExitedWithCode(1),
              "^Error \\(tslb_set_base_path:[0-9]+\\): Fail to store PMEM path. err\\([0-9]+\\) = .*\n$");
  tslb_set_base_path("");
}

TEST_F(BlockFiles, DirectoryThatCannotBeCreatedEndsTheProcess) {
  tslb_set_base_path((dir_ / "not" / "there").c_str());
  EXPECT_EXIT(make(8, 1, 0), testing::ExitedWithCode(1),
              "^Erro\\(get_shm_block:[0-9]+\\): failed to create pmem path .*/not/there/metrics. "
              "err\\(2\\)=No such file or directory\n$");
}

TEST_F(BlockFiles, RefusedBlockLeavesItsEntryNull) {
  const auto expect_refused = [](int64_t bytes, const std::string &ctx_name, const char *why, int want) {
    void *entry = nullptr;
    int err = 0;
    const std::string report = stderr_of([&] {
      EXPECT_EQ(get_shm_block(bytes, ctx_name.c_str(), 3, 7, &entry), 0);
      err = errno;
    });
    EXPECT_EQ(entry, nullptr);
    EXPECT_EQ(err, want);
    EXPECT_NE(report.find(why), std::string::npos) << report;
  };
  // A cut path could name another block. A file of no bytes cannot be mapped.
  expect_refused(100, std::string(4096, 'n'), "): path of block 7 of table 3 is too long.", ENAMETOOLONG);
  expect_refused(0, "metrics", "mmap file failed: Invalid argument\n", EINVAL);
}

TEST_F(BlockFiles, ArrayStaysUsableAfterARefusedGrowth) {
  signal(SIGXFSZ, SIG_IGN);
  const struct {
    const char *fault;
    int limit;
    rlim_t value;
    const char *report;
  } rows[] = {
    {"no descriptor left", RLIMIT_NOFILE, 0, "open: Too many open files\n"},
    {"no room for the file", RLIMIT_FSIZE, 64, ""},
#if !defined(TSLB_SANITIZES_ADDRESS) && !defined(TSLB_SANITIZES_THREAD)  // sanitizers reserve more than any limit
    {"no mapping left", RLIMIT_AS, 1 << 20, "mmap file failed: Cannot allocate memory\n"},
#endif
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    const array_t array = make(100, 1, TSLB_DA_DAFLAG_LL, "metrics", row.limit);  // each row has its own files
    uint32_t idx;
    ASSERT_NE(tslb_da_get_newptr(array.get(), &idx), nullptr);
    void *slot = &slot;
    const std::string report = stderr_of([&] {
      const limit_t limit(row.limit, row.value);
      slot = tslb_da_get_newptr(array.get(), &idx);
    });
    EXPECT_EQ(slot, nullptr);
    EXPECT_EQ(idx, TSLB_DA_NIL_IDX);
    EXPECT_EQ(report, row.report + std::string("Unexpected data_addr NULL, count: 16, block_num: 1\n"));
    EXPECT_EQ(get_dyn_total_allocated_records(array.get()), 1u);
    ASSERT_NE(tslb_da_get_newptr(array.get(), &idx), nullptr);
    EXPECT_EQ(idx, 2u);
    EXPECT_EQ(get_dyn_total_allocated_records(array.get()), 17u);
  }
}

TEST_F(BlockFiles, CreationReportsWhyBlock0IsRefused) {
  const auto expect_refused = [&](const char *fault, const std::string &why, int err) {
    DynamicArray_t array = nullptr;
    const std::string report =
        stderr_of([&] { array = get_default_dyn_array_ex(0, 8, 1, MPOOL_TYPE_SHM, 12, "metrics", 0); });
    EXPECT_EQ(array, nullptr) << fault;
    EXPECT_EQ(report.rfind("open: " + why + "\nError(get_default_dyn_array_ex_ex:", 0), 0u) << fault << report;
    const std::string end = dir_.string() + ", err(" + std::to_string(err) + ")=" + why + ".\n";
    EXPECT_NE(report.find("g_base_path = " + end), std::string::npos) << fault << report;
  };
  fs::create_directories(file(0));
  expect_refused("a folder opened as a file", "Is a directory", EISDIR);
  fs::remove_all(dir_ / "metrics");
  // stat reports that a dangling link does not exist, mkdir that it exists.
  fs::create_symlink(dir_ / "nowhere", dir_ / "metrics");
  expect_refused("a folder that another process created treated as a failure", "No such file or directory", ENOENT);
}

// Returns the report of a sync while some bytes of an array, from the start of a page, are not mapped.
static std::string report_without(DynArrHandle_t *array, const std::vector<std::pair<void *, size_t>> &parts) {
  for (const auto &[at, bytes] : parts) munmap(at, bytes);
  const std::string report = stderr_of([&] { tslb_syn_shm_dynarr(array); });
  for (const auto &[at, bytes] : parts)
    EXPECT_EQ(mmap(at, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0), at);
  return report;
}

TEST_F(BlockFiles, SyncCoversEveryBlockInUseAndReportsWhatFails) {
  const array_t array = make(100, 2, TSLB_DA_DAFLAG_LL);
  tslb_da_get_range(array.get(), 2 + 16 + 1);
  EXPECT_EQ(stderr_of([&] { tslb_syn_shm_dynarr(array.get()); }), "");
  std::string both;
  for (int block = 0; block < 2; ++block) {
    char want[512];
    snprintf(want, sizeof(want),
             "msync failed for ctx - metrics, mpool - %p, indirection level - 1, block addr - %p, size - 1728, "
             "record_size - 108, error - Cannot allocate memory",
             static_cast<void *>(array.get()), array->ir_base->ir1[block]);
    EXPECT_EQ(report_without(array.get(), {{array->ir_base->ir1[block], 16 * 108}}), want);
    both += want;
  }
  EXPECT_EQ(report_without(array.get(), {{array->ir_base->ir1[0], 16 * 108}, {array->ir_base->ir1[1], 16 * 108}}), both)
      << "a failed block ended the walk";

  // With one id fewer, the second block is not in use.
  get_dyn_hdr(array.get())->n_used = 18;
  EXPECT_EQ(report_without(array.get(), {{array->ir_base->ir1[1], 16 * 108}}), "");
  // With n_used in the direct area, no table is read.
  get_dyn_hdr(array.get())->n_used = 2;
  PtrTbl_t *const tables = array->ir_base;
  array->ir_base = reinterpret_cast<PtrTbl_t *>(8);
  EXPECT_EQ(stderr_of([&] { tslb_syn_shm_dynarr(array.get()); }), "");
  array->ir_base = tables;
}

// A direct area of exactly one page. With the headers it reaches into a second page. The report counts only the area.
TEST_F(BlockFiles, SyncOfBlock0IncludesItsHeadersAndContinuesAfterAFailure) {
  const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  const array_t array = make(64, static_cast<int>(page / 64), 0);
  for (size_t i = 0; i < page / 64 + 256 + 1; ++i) get_dyn_arr_new_record_id(array.get());
  const std::string report =
      report_without(array.get(), {{bytes_of(array->arr_base) + page, page}, {array->ir_base->ir2[0][0], 16 * 64}});
  EXPECT_EQ(count_of(report, "indirection level - 0, "), 1u) << report;
  EXPECT_NE(report.find("size - " + std::to_string(page) + ", record_size - 64, error - Cannot allocate memory"),
            std::string::npos)
      << report;
  EXPECT_EQ(count_of(report, "indirection level - 2, "), 1u) << report;
  EXPECT_EQ(count_of(report, "msync failed"), 2u) << report;
}

TEST_F(BlockFiles, NoDescriptorOrMappingLeaks) {
  const auto mapped = [&] { return count_of(content_of("/proc/self/maps"), dir_.string()); };
  const size_t descriptors = open_descriptors();
  {
    const array_t array = make(8, 1, 0);
    for (int i = 0; i < 100; ++i) get_dyn_arr_new_record_id(array.get());
    EXPECT_EQ(open_descriptors(), descriptors) << "a mapping keeps its descriptor open";
    EXPECT_EQ(mapped(), 1u + 7);
    void *entry = this;
    EXPECT_EQ(get_shm_block(128, "metrics", 12, 1, &entry), 0) << "the entry was filled already";
    EXPECT_EQ(get_pmem_block(128, "metrics", 12, 1, &entry), 1);
    EXPECT_EQ(entry, this);
    EXPECT_EQ(mapped(), 1u + 7) << "the thread that lost the swap kept its mapping";
    signal(SIGXFSZ, SIG_IGN);
    const limit_t limit(RLIMIT_FSIZE, 64);
    entry = nullptr;
    get_shm_block(128, "metrics", 99, 1, &entry);
  }
  EXPECT_EQ(open_descriptors(), descriptors);
  EXPECT_EQ(mapped(), 0u) << "blocks are still mapped after destroy_dyn_arr";
}

TEST_F(BlockFiles, FilesAndFoldersHaveSharedModes) {
  const mode_t mask = umask(0);
  const array_t array = make(8, 1, 0);
  umask(mask);
  EXPECT_EQ(fs::status(dir_ / "metrics").permissions(), fs::perms(0744));
  EXPECT_EQ(fs::status(dir_ / "metrics" / "12.0.darr").permissions(), fs::perms(0666));
}
