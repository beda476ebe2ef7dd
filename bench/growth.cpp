// Cost of growing an array in files, and of syncing it.
//
// Measured, on a tmpfs:
//   growth of an MPOOL_TYPE_SHM array, per block of 16 ids. Compared with the floor (floor.h: stat, open, ftruncate,
//   mmap, close, and one swap, with names formatted in advance); with one mapping of one file for all blocks; and with
//   LMDB, which appends 16 records of as many bytes in one transaction for all;
//   tslb_syn_shm_dynarr, per block. Compared with msync of the same blocks.
//
// Old files already have their length, and LMDB has the pages of dropped records.
//
// Not measured: a disk. A tmpfs has nothing to flush, so msync is only a call, and the rest is visible. No candidate
// writes the blocks of a growing array, and LMDB only reserves its records.
//
// Run: bench_growth [--quick] [--benchmark_filter=REGEX]
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <tslb/tslb_dynarr.h>
#include <tslb/tslb_dynmem.h>
#include "floor.h"
#include "ratio.h"
#include "scratch.h"
#ifdef TSLB_BENCH_LMDB
#include "environment.h"
#endif

constexpr uint64_t MIB = uint64_t{1} << 20;
// The folder of small blocks and of LMDB's records.
static const std::string &dir() {
  return scratch_dir(640 * MIB);
}

// Replaces msync for the library and the floor: calls the kernel's and counts bytes.
static uint64_t synced_bytes;
extern "C" TSLB_API int msync(void *memory, size_t bytes, int flags) {
  synced_bytes += bytes;
  return static_cast<int>(syscall(SYS_msync, memory, bytes, flags));
}

using array_t = std::shared_ptr<DynArrHandle_t>;

static array_t make_array(int record_size) {
  const DynamicArray_t array = get_default_dyn_array_ex(0, record_size, 0, MPOOL_TYPE_SHM, 0, "array", 0);
  if (array == nullptr) abort();
  return {array, destroy_dyn_arr};
}

// ---- Growth

constexpr uint32_t GROWTH_BLOCKS = 256;

static size_t files_of(const std::string &path, size_t bytes) {
  size_t count = 0;
  for (const auto &entry : std::filesystem::directory_iterator(path)) count += entry.file_size() == bytes;
  return count;
}

static candidate_t growing_array(int record_size, bool old_files) {
  const auto array = std::make_shared<array_t>();
  const std::string path = dir() + "/array";
  return {"tslb",
          [array](unsigned) {
            uint64_t refused = 0;
            for (uint32_t i = 0; i < 16 * GROWTH_BLOCKS; ++i) {
              void *record;
              refused += get_dyn_arr_new_record_id_ex(array->get(), &record, 0) < 0;
            }
            return refused;
          },
          [array, path, record_size, old_files] {
            array->reset();
            if (!old_files) std::filesystem::remove_all(path);
            *array = make_array(record_size);
          },
          [path, record_size] { return files_of(path, static_cast<size_t>(record_size) * 16); }};
}

static candidate_t growing_floor(size_t block_bytes, bool old_files) {
  struct shared_t {
    std::string path = dir() + "/floor";
    std::vector<std::string> names;
    std::vector<uint64_t> entries = std::vector<uint64_t>(GROWTH_BLOCKS);
    size_t bytes;

    explicit shared_t(size_t block_bytes) : bytes(block_bytes) {
      for (uint32_t i = 0; i < GROWTH_BLOCKS; ++i) names.push_back(path + "/0." + std::to_string(i + 1) + ".darr");
    }
    ~shared_t() { release(); }
    void release() {
      for (uint64_t &entry : entries) {
        if (entry != 0) munmap(reinterpret_cast<void *>(entry), bytes);
        entry = 0;
      }
    }
  };
  const auto shared = std::make_shared<shared_t>(block_bytes);
  return {"floor",
          [shared](unsigned) {
            uint64_t refused = 0;
            for (uint32_t i = 0; i < GROWTH_BLOCKS; ++i)
              refused += floor_map_block(shared->path.c_str(), shared->names[i].c_str(), shared->bytes,
                                         &shared->entries[i]) == nullptr;
            return refused;
          },
          [shared, old_files] {
            shared->release();
            if (!old_files) std::filesystem::remove_all(shared->path);
            std::filesystem::create_directory(shared->path);
          },
          [shared] { return files_of(shared->path, shared->bytes); }};
}

static candidate_t one_mapping(size_t block_bytes, bool old_files) {
  const std::string file = dir() + "/mapping";
  const size_t bytes = GROWTH_BLOCKS * block_bytes;
  const std::shared_ptr<void *> mapped(new void *(nullptr), [bytes](void **last) {
    if (*last != nullptr) munmap(*last, bytes);
    delete last;
  });
  return {"one mapping",
          [file, mapped, bytes](unsigned) {
            const int fd = open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
            if (fd < 0 || ftruncate(fd, static_cast<off_t>(bytes)) != 0) return uint64_t{1};
            *mapped = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
            close(fd);
            return uint64_t{*mapped == MAP_FAILED};
          },
          [file, mapped, bytes, old_files] {
            if (*mapped != nullptr) munmap(*mapped, bytes);
            *mapped = nullptr;
            if (!old_files) std::filesystem::remove(file);
          },
          [file, bytes] { return std::filesystem::file_size(file) == bytes ? GROWTH_BLOCKS : 0; }};
}

#ifdef TSLB_BENCH_LMDB
static candidate_t appending_environment(size_t record_size, bool old_files) {
  const auto env = std::make_shared<std::unique_ptr<environment_t>>();
  const std::string file = dir() + "/environment";
  return {"LMDB put",
          [env, record_size](unsigned) {
            MDB_txn *const txn = (*env)->begin(0);
            for (uint32_t id = 0; id < 16 * GROWTH_BLOCKS; ++id) (*env)->reserve(txn, id, record_size);
            lmdb_check(mdb_txn_commit(txn));
            return uint64_t{0};
          },
          [env, file, old_files] {
            if (*env != nullptr && old_files) return (*env)->clear();
            env->reset();
            std::filesystem::remove(file);
            *env = std::make_unique<environment_t>(file, 2048 * MIB);
          },
          [env] { return (*env)->count() / 16; }};
}
#endif

static std::vector<candidate_t> make_growth(int record_size, bool old_files) {
  const size_t block_bytes = static_cast<size_t>(record_size) * 16;
  std::vector<candidate_t> candidates = {growing_array(record_size, old_files), growing_floor(block_bytes, old_files),
                                         one_mapping(block_bytes, old_files)};
#ifdef TSLB_BENCH_LMDB
  candidates.push_back(appending_environment(static_cast<size_t>(record_size), old_files));
#endif
  return candidates;
}

static void add_growth() {
  for (const bool old_files : {false, true})
    for (const auto &[name, record_size] : {std::pair{"1.6 KiB", 100}, {"1 MiB", 65536}})
      add_case(
          std::string("blocks of ") + name + (old_files ? ", old files" : ", new files"), 1,
          [record_size = record_size, old_files] { return make_growth(record_size, old_files); }, GROWTH_BLOCKS);
}

// ---- Sync

constexpr uint32_t SYNCED_BLOCKS = 1024;
constexpr uint32_t SYNCS = 4;

static int collect_block(DynamicArray_t, void *block, int, size_t, int hdr_size, int, int, int, void *blocks) {
  if (hdr_size == 0) static_cast<std::vector<void *> *>(blocks)->push_back(block);
  return 0;
}

// Calls `sync` on existing blocks. The checksum is the number of bytes of data blocks passed to msync.
template <class Sync>
static candidate_t sync_candidate(const char *name, size_t block0_bytes, Sync sync) {
  return {name,
          [block0_bytes, sync](unsigned) {
            synced_bytes = 0;
            for (uint32_t i = 0; i < SYNCS; ++i) sync();
            return synced_bytes - SYNCS * block0_bytes;
          },
          {}};
}

static std::vector<candidate_t> make_syncs(int record_size) {
  const array_t array = make_array(record_size);
  for (uint32_t id = 0; id < 16 * SYNCED_BLOCKS; ++id) {
    void *record;
    if (get_dyn_arr_new_record_id_ex(array.get(), &record, 0) < 0) abort();
    memset(record, 1, static_cast<size_t>(std::min(record_size, 100)));
  }
  std::vector<void *> blocks;
  tslb_iterate_dyn_array_blocks(array.get(), collect_block, &blocks);
  if (blocks.size() != SYNCED_BLOCKS) abort();
  const size_t hdr_bytes = static_cast<size_t>(tslb_dynmem_get_hdrsz(array.get()));
  const size_t block_bytes = static_cast<size_t>(record_size) * 16;
  return {sync_candidate("tslb", hdr_bytes, [array] { tslb_syn_shm_dynarr(array.get()); }),
          sync_candidate("floor", 0, [array, blocks, block_bytes] {
            if (floor_sync(blocks.data(), SYNCED_BLOCKS, block_bytes) != 0) abort();
          })};
}

static void add_syncs() {
  begin_table("| block synced, time relative to");
  for (const auto &[name, record_size] : {std::pair{"1.6 KiB", 100}, {"64 KiB", 4096}})
    add_case(
        std::string("blocks of ") + name, 1, [record_size = record_size] { return make_syncs(record_size); },
        uint64_t{SYNCS} * SYNCED_BLOCKS);
}

static void add_cases() {
  if (dir().empty()) return;
  tslb_set_base_path(dir().c_str());
  add_growth();
  add_syncs();
}

int main(int argc, char **argv) {
  return run_cases(argc, argv, "| block file mapped, time relative to", add_cases);
}
