// Arrays in mapped files: names, sizes, contents, old files, races for one block, and what happens when the system says
// no. With the sync walk, whose reports are the only sign of a failed flush.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "array_support.h"
#include "threads.h"

namespace fs = std::filesystem;

// A base path of its own for each test; the directory of `ctx_name` in it is the library's to make.
class BlockFiles : public testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "tslb_files_XXXXXX").string();
    base_ = mkdtemp(pattern.data());
    tslb_set_base_path(base_.c_str());
  }
  void TearDown() override {
    tslb_set_base_path("");
    fs::remove_all(base_);
  }
  array_t make(int record_size, int n_direct, uint8_t daflag, const char *ctx_name = "metrics", int tbl_id = 12) {
    return array_t(get_default_dyn_array_ex(0, record_size, n_direct, MPOOL_TYPE_SHM, tbl_id, ctx_name, daflag));
  }
  static std::string content(const fs::path &file) {
    std::ifstream in(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
  }
  fs::path base_;
};

static std::string base_for_maps;

// Lowers a limit of the process while it lives.
struct limit_t {
  limit_t(int what, rlim_t value) : what_(what) {
    getrlimit(what_, &before_);
    const rlimit now = {value, before_.rlim_max};
    setrlimit(what_, &now);
  }
  ~limit_t() { setrlimit(what_, &before_); }
  int what_;
  rlimit before_;
};

TEST_F(BlockFiles, OneFilePerBlockAndNothingElse) {
  const array_t array = make(100, 4, TSLB_DA_DAFLAG_INLL);
  for (int i = 0; i < 4 + 256 + 1; ++i) {
    void *record;
    ASSERT_EQ(get_dyn_arr_new_record_id_ex(array.get(), &record, TSLB_DA_DAFLAG_INLL), i);
    memset(bytes_of(record) - 8, i, 116);
  }
  EXPECT_EQ(content(base_ / "metrics" / "12.0.darr"), std::string(bytes_of(array->arr_base), 84 + 4 * 116));
  size_t files = 0;
  for (const auto &entry : fs::directory_iterator(base_ / "metrics")) {
    ++files;
    if (entry.path().filename() != "12.0.darr") {
      EXPECT_EQ(entry.file_size(), 16u * 116) << entry.path();
    }
  }
  EXPECT_EQ(files, 18u);
  // Block 17 is the first of level 2: block numbers run on over levels.
  const std::string first2 = content(base_ / "metrics" / "12.17.darr");
  EXPECT_EQ(first2.substr(0, 116), std::string(116, static_cast<char>(260)));
  EXPECT_EQ(first2.substr(116), std::string(15 * 116, '\0'));
  EXPECT_EQ(content(base_ / "metrics" / "12.16.darr").substr(15 * 116), std::string(116, static_cast<char>(259)));
  struct stat dir;
  ASSERT_EQ(stat((base_ / "metrics").c_str(), &dir), 0);
  EXPECT_EQ(dir.st_mode & 0777 & ~0022, 0744u & ~0022);
}

TEST_F(BlockFiles, NamesOfTablesAndContexts) {
  const array_t negative = make(8, 1, 0, "metrics", -4);
  EXPECT_TRUE(fs::exists(base_ / "metrics" / "-4.0.darr"));
  // Block 0 goes by the name as it was given, data blocks by what the handle keeps of it.
  const std::string long_name(40, 'n');
  const array_t split = make(8, 1, 0, long_name.c_str(), 5);
  get_dyn_arr_new_record_id(split.get());
  get_dyn_arr_new_record_id(split.get());
  EXPECT_TRUE(fs::exists(base_ / long_name / "5.0.darr"));
  EXPECT_TRUE(fs::exists(base_ / std::string(32, 'n') / "5.1.darr"));
  const array_t nameless = make(8, 1, 0, nullptr, 6);
  EXPECT_TRUE(fs::exists(base_ / "6.0.darr"));

  tslb_set_base_path("");
  const std::string absolute = (base_ / "own").string();
  const array_t rootless = make(8, 1, 0, absolute.c_str(), 7);
  EXPECT_TRUE(fs::exists(base_ / "own" / "7.0.darr"));

  tslb_set_base_path(base_.c_str());
  const array_t temporary(get_default_dyn_array_ex(0, 8, 1, MPOOL_TYPE_SHM_TMP, 9, "never", 0));
  ASSERT_TRUE(temporary);
  get_dyn_arr_new_record_id(temporary.get());
  get_dyn_arr_new_record_id(temporary.get());
  EXPECT_FALSE(fs::exists(base_ / "never"));
}

TEST_F(BlockFiles, OldFilesAreCutEmptiedOrTakenOver) {
  fs::create_directory(base_ / "metrics");
  std::ofstream(base_ / "metrics" / "12.0.darr") << std::string(5000, 'x');
  std::ofstream(base_ / "metrics" / "12.1.darr") << std::string(5000, 'y');
  std::ofstream(base_ / "metrics" / "12.2.darr") << std::string(10, 'z');
  const array_t array = make(8, 2, 0);
  EXPECT_EQ(get_dyn_arr_size(array.get()), 0u) << "an array left by an earlier run came back";
  EXPECT_EQ(fs::file_size(base_ / "metrics" / "12.0.darr"), 24u + 16);
  void *record;
  for (int i = 0; i < 3; ++i) get_dyn_arr_new_record_id_ex(array.get(), &record, 0);
  EXPECT_EQ(std::string(bytes_of(record), 8), "yyyyyyyy") << "a data block's file is not cleared";
  EXPECT_EQ(fs::file_size(base_ / "metrics" / "12.1.darr"), 128u);
  for (int i = 0; i < 16; ++i) get_dyn_arr_new_record_id_ex(array.get(), &record, 0);
  EXPECT_EQ(std::string(bytes_of(record), 16), std::string("zzzzzzzzzz") + std::string(6, '\0'));

  const array_t again = make(8, 2, 0);
  EXPECT_EQ(get_dyn_arr_size(again.get()), 0u);
}

TEST_F(BlockFiles, FilesOutliveTheArray) {
  {
    const array_t array = make(8, 1, 0);
    for (int i = 0; i < 20; ++i)
      write_at(get_dyn_arr_record_position(array.get(), static_cast<uint32_t>(get_dyn_arr_new_record_id(array.get()))),
               0, uint64_t(i));
  }
  EXPECT_EQ(read_at<uint32_t>(content(base_ / "metrics" / "12.0.darr").data(), 8 + 4), 20u);
  EXPECT_EQ(read_at<uint64_t>(content(base_ / "metrics" / "12.2.darr").data(), 16), 19u);
}

TEST_F(BlockFiles, RacersForABlockEndUpWithOne) {
  for (int round = 0; round < 20; ++round) {
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

TEST_F(BlockFiles, LoserOfTheSwapLeavesTheEntry) {
  void *entry = this;
  EXPECT_EQ(get_shm_block(100, "metrics", 1, 1, &entry), 0);
  EXPECT_EQ(entry, this);
  entry = nullptr;
  EXPECT_EQ(get_shm_block(100, "metrics", 1, 1, &entry), 1);
  ASSERT_NE(entry, nullptr);
  munmap(entry, 100);
  entry = this;
  EXPECT_EQ(get_pmem_block(100, "metrics", 1, 1, &entry), 1);
  EXPECT_EQ(entry, this);
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

TEST_F(BlockFiles, DirectoryThatCannotBeMadeEndsTheProcess) {
  tslb_set_base_path((base_ / "not" / "there").c_str());
  EXPECT_EXIT(make(8, 1, 0), testing::ExitedWithCode(1),
              "^Erro\\(get_shm_block:[0-9]+\\): failed to create pmem path .*/not/there/metrics. "
              "err\\(2\\)=No such file or directory\n$");
}

TEST_F(BlockFiles, PathThatDoesNotFitIsRefused) {
  const std::string name(4096, 'n');
  void *entry = nullptr;
  int err = 0;
  const std::string report = stderr_of([&] {
    EXPECT_EQ(get_shm_block(100, name.c_str(), 3, 7, &entry), 0);
    err = errno;
  });
  EXPECT_EQ(entry, nullptr);
  EXPECT_EQ(err, ENAMETOOLONG);
  EXPECT_NE(report.find("): path of block 7 of table 3 is too long."), std::string::npos) << report;
}

TEST_F(BlockFiles, RefusalsAtGrowthLeaveTheArrayUsable) {
  signal(SIGXFSZ, SIG_IGN);
  const struct {
    const char *fault;
    int limit;
    rlim_t value;
    const char *report;
  } rows[] = {
    {"no descriptor left", RLIMIT_NOFILE, 0,
     "open: Too many open files\nUnexpected data_addr NULL, count: 16, block_num: 1\n"},
    {"no room for the file", RLIMIT_FSIZE, 64, "Unexpected data_addr NULL, count: 16, block_num: 1\n"},
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // which have reserved far more than any limit
    {"no mapping left", RLIMIT_AS, 1 << 20,
     "mmap file failed: Cannot allocate memory\nUnexpected data_addr NULL, count: 16, block_num: 1\n"},
#endif
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    const array_t array = make(100, 1, TSLB_DA_DAFLAG_LL, "metrics", row.limit);  // files of its own
    uint32_t idx;
    ASSERT_NE(tslb_da_get_newptr(array.get(), &idx), nullptr);
    void *slot = &slot;
    const std::string report = stderr_of([&] {
      const limit_t limit(row.limit, row.value);
      slot = tslb_da_get_newptr(array.get(), &idx);
    });
    EXPECT_EQ(slot, nullptr);
    EXPECT_EQ(idx, TSLB_DA_NIL_IDX);
    EXPECT_EQ(report, row.report);
    EXPECT_EQ(get_dyn_total_allocated_records(array.get()), 1u);
    ASSERT_NE(tslb_da_get_newptr(array.get(), &idx), nullptr);
    EXPECT_EQ(idx, 2u);
    EXPECT_EQ(get_dyn_total_allocated_records(array.get()), 17u);
  }
}

TEST_F(BlockFiles, BlockThatCannotBeMappedIsRefused) {
  // A file of no bytes has no mapping.
  void *entry = nullptr;
  EXPECT_EQ(stderr_of([&] { EXPECT_EQ(get_shm_block(0, "metrics", 1, 1, &entry), 0); }),
            "mmap file failed: Invalid argument\n");
  EXPECT_EQ(entry, nullptr);
}

TEST_F(BlockFiles, CreationTellsWhyBlock0CannotBeHad) {
  fs::create_directories(base_ / "metrics" / "12.0.darr");  // a directory stands where the file should
  DynamicArray_t array = nullptr;
  const std::string report =
      stderr_of([&] { array = get_default_dyn_array_ex(0, 8, 1, MPOOL_TYPE_SHM, 12, "metrics", 0); });
  EXPECT_EQ(array, nullptr);
  EXPECT_EQ(report.rfind("open: Is a directory\nError(get_default_dyn_array_ex_ex:", 0), 0u) << report;
  EXPECT_NE(report.find("g_base_path = " + base_.string() + ", err(21)=Is a directory.\n"), std::string::npos)
      << report;
}

// ---- Sync ----------------------------------------------------------------------------------------------------------

// Which blocks a sync visits: each is unmapped in turn, and the report of its failed flush names it.
static std::string report_without(DynArrHandle_t *array, void *block, size_t bytes, int prot_fd) {
  munmap(block, bytes);
  const std::string report = stderr_of([&] { tslb_syn_shm_dynarr(array); });
  EXPECT_EQ(mmap(block, bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, prot_fd, 0), block);
  return report;
}

static size_t count_of(const std::string &text, const std::string &what) {
  size_t n = 0;
  for (size_t at = 0; (at = text.find(what, at)) != std::string::npos; ++at) ++n;
  return n;
}

TEST_F(BlockFiles, SyncCoversEveryBlockInUseAndReportsWhatFails) {
  const array_t array = make(100, 2, TSLB_DA_DAFLAG_LL);
  for (int i = 0; i < 2 + 16 + 1; ++i) {
    void *record;
    get_dyn_arr_new_record_id_ex(array.get(), &record, TSLB_DA_DAFLAG_LL);
  }
  EXPECT_EQ(stderr_of([&] { tslb_syn_shm_dynarr(array.get()); }), "");
  for (int block = 0; block < 2; ++block) {
    void *const at = array->ir_base->ir1[block];
    const std::string file = base_ / "metrics" / ("12." + std::to_string(block + 1) + ".darr");
    const int fd = open(file.c_str(), O_RDWR);
    char want[512];
    snprintf(want, sizeof(want),
             "msync failed for ctx - metrics, mpool - %p, indirection level - 1, block addr - %p, size - 1728, "
             "record_size - 108, error - Cannot allocate memory",
             static_cast<void *>(array.get()), at);
    EXPECT_EQ(report_without(array.get(), at, 16 * 108, fd), want);
    close(fd);
  }
  // A block that fails stops nothing, be it block 0 or another.
  void *const both[] = {array->ir_base->ir1[0], array->ir_base->ir1[1]};
  for (void *const block : both) munmap(block, 16 * 108);
  const std::string report = stderr_of([&] { tslb_syn_shm_dynarr(array.get()); });
  EXPECT_EQ(count_of(report, "msync failed for ctx - metrics"), 2u) << report;
  for (int block = 0; block < 2; ++block) {
    const std::string file = base_ / "metrics" / ("12." + std::to_string(block + 1) + ".darr");
    const int fd = open(file.c_str(), O_RDWR);
    ASSERT_EQ(mmap(both[block], 16 * 108, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, fd, 0), both[block]);
    close(fd);
  }

  // One id fewer, and the second block is in nobody's use.
  get_dyn_hdr(array.get())->n_used = 18;
  void *const second = array->ir_base->ir1[1];
  munmap(second, 16 * 108);
  EXPECT_EQ(stderr_of([&] { tslb_syn_shm_dynarr(array.get()); }), "");
  // And two fewer levels of trust: with n_used within the direct area no table is touched at all.
  get_dyn_hdr(array.get())->n_used = 2;
  PtrTbl_t *const tables = array->ir_base;
  array->ir_base = reinterpret_cast<PtrTbl_t *>(8);
  EXPECT_EQ(stderr_of([&] { tslb_syn_shm_dynarr(array.get()); }), "");
  array->ir_base = tables;
}

TEST_F(BlockFiles, SyncStepsOverAHole) {
  const array_t array = make(8, 0, 0);
  pretend_issued(array.get(), 40);
  get_dyn_arr_record_position(array.get(), 39);  // blocks 1 and 2 are missing
  EXPECT_EQ(stderr_of([&] { tslb_syn_shm_dynarr(array.get()); }), "");
}

TEST_F(BlockFiles, SyncOfBlock0CountsTheDirectAreaInItsReport) {
  const array_t array = make(100, 100, 0);
  const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  char *const second_page = bytes_of(array->arr_base) + page;
  munmap(second_page, page);
  const std::string report = stderr_of([&] { tslb_syn_shm_dynarr(array.get()); });
  EXPECT_NE(report.find("indirection level - 0, "), std::string::npos) << report;
  EXPECT_NE(report.find("size - 10000, record_size - 100, error - Cannot allocate memory"), std::string::npos)
      << report;
}

TEST_F(BlockFiles, SyncPassesFromLevelToLevelAndPastAFailedBlock0) {
  const array_t array = make(100, 100, 0);
  for (int i = 0; i < 100 + 256 + 1; ++i) get_dyn_arr_new_record_id(array.get());
  const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  munmap(bytes_of(array->arr_base) + page, page);
  munmap(array->ir_base->ir2[0][0], 16 * 100);
  const std::string report = stderr_of([&] { tslb_syn_shm_dynarr(array.get()); });
  EXPECT_EQ(count_of(report, "indirection level - 0, "), 1u);
  EXPECT_EQ(count_of(report, "indirection level - 2, "), 1u);
  EXPECT_EQ(count_of(report, "msync failed"), 2u);
}

TEST_F(BlockFiles, DirectoryThatARivalMadeIsNoFailure) {
  // A link to nowhere: stat says that it is missing, mkdir that it is there.
  fs::create_symlink(base_ / "nowhere", base_ / "metrics");
  DynamicArray_t array = nullptr;
  const std::string report =
      stderr_of([&] { array = get_default_dyn_array_ex(0, 8, 1, MPOOL_TYPE_SHM, 12, "metrics", 0); });
  EXPECT_EQ(array, nullptr);
  EXPECT_EQ(report.rfind("open: No such file or directory\n", 0), 0u) << report;
}

TEST_F(BlockFiles, DirectoryThatFailsOnALateBlockEndsTheProcess) {
  const array_t array = make(8, 1, 0);
  get_dyn_arr_new_record_id(array.get());
  fs::rename(base_, base_.string() + "_moved");
  EXPECT_EXIT(get_dyn_arr_new_record_id(array.get()), testing::ExitedWithCode(1), "^Erro\\(get_shm_block:");
  fs::rename(base_.string() + "_moved", base_);
}

TEST_F(BlockFiles, NoDescriptorAndNoMappingStaysBehind) {
  const auto entries_of = [](const char *what) {
    size_t n = 0;
    if (strcmp(what, "fd") == 0) {
      for ([[maybe_unused]] const auto &entry : fs::directory_iterator("/proc/self/fd")) ++n;
    } else {
      n = count_of(content("/proc/self/maps"), base_for_maps);
    }
    return n;
  };
  base_for_maps = base_.string();
  const size_t descriptors = entries_of("fd");
  {
    const array_t array = make(8, 1, 0);
    for (int i = 0; i < 100; ++i) get_dyn_arr_new_record_id(array.get());
    EXPECT_EQ(entries_of("fd"), descriptors) << "a mapping lives on without its descriptor";
    EXPECT_EQ(entries_of("maps"), 1u + 7);
    void *entry = this;
    get_shm_block(128, "metrics", 12, 1, &entry);  // a rival was first
    EXPECT_EQ(entries_of("maps"), 1u + 7) << "the loser of the swap keeps its mapping";
    signal(SIGXFSZ, SIG_IGN);
    const limit_t limit(RLIMIT_FSIZE, 64);
    entry = nullptr;
    get_shm_block(128, "metrics", 99, 1, &entry);
  }
  EXPECT_EQ(entries_of("fd"), descriptors);
  EXPECT_EQ(entries_of("maps"), 0u) << "teardown left blocks mapped";
}

TEST_F(BlockFiles, ModesAreThoseOfSharedFiles) {
  const mode_t mask = umask(0);
  const array_t array = make(8, 1, 0);
  umask(mask);
  EXPECT_EQ(fs::status(base_ / "metrics").permissions(), fs::perms(0744));
  EXPECT_EQ(fs::status(base_ / "metrics" / "12.0.darr").permissions(), fs::perms(0666));
}
