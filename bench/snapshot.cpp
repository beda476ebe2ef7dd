// What does it cost to bring an array into files?
//
// Asked, all on a tmpfs:
//   tslb_create_dump_for_dynarr of 256 MiB in data blocks of 1.6 KiB, 16 KiB and 1 MiB (records of 100 bytes, 1 KiB and
//   64 KiB), and in one direct area, to an empty file and over an old one. Against one write of the same bytes, and against
//   writes of a block each, both from one buffer;
//   growth of an MPOOL_TYPE_SHM array, per block of 16 ids. Against the floor (floor.h: stat, open, ftruncate, mmap,
//   close, and one swap, under names that are formatted ahead);
//   tslb_syn_shm_dynarr, per block. Against msync of the same blocks.
//
// Not asked: a disk. A tmpfs has nothing to flush, so msync is its bare call here, and that is what lets the rest be
// seen. Nobody touches the blocks of a growing array.
//
// Run: bench_snapshot [--quick] [--benchmark_filter=REGEX]
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

#include "floor.h"
#include "ratio.h"
#include "scratch.h"
#include "tslb_dynarr.h"
#include "tslb_dynmem.h"

constexpr uint64_t MIB = uint64_t{1} << 20;
static uint64_t snapshot_bytes() {
  return (is_quick() ? 8 : 256) * MIB;
}
// Room for the file, and for what the small ones take.
static const std::string &dir() {
  return scratch_dir(snapshot_bytes() + 16 * MIB);
}

// msync as the library and the floor reach it: the kernel's, and a count of bytes.
static uint64_t synced_bytes;
extern "C" TSLB_API int msync(void *memory, size_t bytes, int flags) {
  synced_bytes += bytes;
  return static_cast<int>(syscall(SYS_msync, memory, bytes, flags));
}

using array_t = std::shared_ptr<DynArrHandle_t>;

static array_t make_array(int record_size, uint32_t n_direct, char mem_type, const char *ctx_name) {
  const DynamicArray_t array =
      get_default_dyn_array_ex(0, record_size, static_cast<int>(n_direct), mem_type, 0, ctx_name, 0);
  if (array == nullptr) abort();
  return {array, destroy_dyn_arr};
}

// ---- Snapshot

// The file that the rivals of all rows write, one after the other. It has no name any more.
static int snapshot_file() {
  static const int fd = [] {
    const std::string path = dir() + "/snapshot";
    const int opened = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (opened < 0 || unlink(path.c_str()) != 0) abort();
    return opened;
  }();
  return fd;
}

// The file's size, and words from all over it.
static uint64_t sum_of_file() {
  const int fd = snapshot_file();
  const uint64_t bytes = static_cast<uint64_t>(lseek(fd, 0, SEEK_END));
  uint64_t sum = bytes;
  for (uint64_t i = 0; i < 1024; ++i) {
    uint64_t word = 0;
    if (pread(fd, &word, sizeof(word), static_cast<off_t>(bytes / 1024 * i)) < 0) abort();
    sum = sum * 31 + word;
  }
  return sum;
}

static bool write_all(int fd, const char *bytes, size_t count) {
  while (count != 0) {
    const ssize_t written = write(fd, bytes, count);
    if (written < 0) return false;
    bytes += written;
    count -= static_cast<size_t>(written);
  }
  return true;
}

// An array of `snapshot_bytes` in which every word of every record is another.
static array_t make_full_array(uint32_t record_size, uint32_t n_direct) {
  const array_t array = make_array(static_cast<int>(record_size), n_direct, MPOOL_TYPE_DRAM_TMP, nullptr);
  const uint64_t n_records = snapshot_bytes() / record_size;
  std::vector<uint32_t> words(record_size / 4);
  uint32_t word = 0;
  for (uint64_t id = 0; id < n_records; ++id) {
    for (uint32_t &each : words) each = word += 0x9E3779B9u;
    void *record;
    if (get_dyn_arr_new_record_id_ex(array.get(), &record, 0) < 0) abort();
    memcpy(record, words.data(), record_size);
  }
  return array;
}

static std::vector<char> stream_of(const array_t &array) {
  const int fd = snapshot_file();
  size_t bytes = 0;
  if (ftruncate(fd, 0) != 0 || lseek(fd, 0, SEEK_SET) != 0) abort();
  if (tslb_create_dump_for_dynarr(array.get(), fd, 0, &bytes) != 0) abort();
  std::vector<char> stream(bytes);
  for (size_t done = 0; done < bytes;) {
    const ssize_t got = pread(fd, stream.data() + done, bytes - done, static_cast<off_t>(done));
    if (got <= 0) abort();
    done += static_cast<size_t>(got);
  }
  return stream;
}

// `write_stream` says whether it wrote all.
template <class WriteStream>
static rival_t snapshot_rival(const char *name, bool over_old, WriteStream write_stream) {
  return {name, [write_stream](unsigned) { return uint64_t{!write_stream(snapshot_file())}; },
          [over_old] {
            const int fd = snapshot_file();
            if ((!over_old && ftruncate(fd, 0) != 0) || lseek(fd, 0, SEEK_SET) != 0) abort();
          },
          sum_of_file};
}

static std::vector<rival_t> make_snapshots(uint32_t record_size, bool direct, bool over_old) {
  const uint32_t n_direct = direct ? static_cast<uint32_t>(snapshot_bytes() / record_size) : 0;
  const array_t array = make_full_array(record_size, n_direct);
  const auto stream = std::make_shared<std::vector<char>>(stream_of(array));
  const size_t block0_bytes = static_cast<size_t>(tslb_dynmem_get_hdrsz(array.get())) + size_t{n_direct} * record_size;
  const auto dump = [array](int fd) {
    size_t bytes = 0;
    return tslb_create_dump_for_dynarr(array.get(), fd, 0, &bytes) == 0;
  };
  const auto one_write = [stream](int fd) { return write_all(fd, stream->data(), stream->size()); };
  const auto block_writes = [stream, block0_bytes, block_bytes = size_t{16} * record_size](int fd) {
    if (!write_all(fd, stream->data(), block0_bytes)) return false;
    for (size_t done = block0_bytes; done < stream->size(); done += block_bytes)
      if (!write_all(fd, stream->data() + done, std::min(block_bytes, stream->size() - done))) return false;
    return true;
  };
  return {snapshot_rival("tslb", over_old, dump), snapshot_rival("one write", over_old, one_write),
          snapshot_rival("a write per block", over_old, block_writes)};
}

static void add_snapshots() {
  static const struct {
    const char *name;
    uint32_t record_size;
    bool direct;
  } rows[] = {{"blocks of 1.6 KiB", 100, false},
              {"blocks of 16 KiB", 1024, false},
              {"blocks of 1 MiB", 65536, false},
              {"direct area", 1024, true}};
  for (const bool over_old : {false, true})
    for (const auto &row : rows)
      add_case(
          std::string(row.name) + (over_old ? ", old file" : ", empty file"), 1,
          [&row, over_old] { return make_snapshots(row.record_size, row.direct, over_old); }, snapshot_bytes() / MIB);
}

// ---- Growth

constexpr uint32_t GROWTH_BLOCKS = 256;
constexpr char CTX[] = "array";

static size_t files_of(const std::string &path, size_t bytes) {
  size_t count = 0;
  for (const auto &entry : std::filesystem::directory_iterator(path)) count += entry.file_size() == bytes;
  return count;
}

static rival_t growing_array(int record_size, bool old_files) {
  const auto array = std::make_shared<array_t>();
  const std::string path = dir() + "/" + CTX;
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
            *array = make_array(record_size, 0, MPOOL_TYPE_SHM, CTX);
          },
          [path, record_size] { return files_of(path, static_cast<size_t>(record_size) * 16); }};
}

static rival_t growing_floor(size_t block_bytes, bool old_files) {
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

static void add_growth() {
  begin_table("| block file mapped, time relative to");
  for (const bool old_files : {false, true})
    for (const auto &[name, record_size] : {std::pair{"1.6 KiB", 100}, {"1 MiB", 65536}})
      add_case(
          std::string("blocks of ") + name + (old_files ? ", old files" : ", new files"), 1,
          [record_size = record_size, old_files] {
            return std::vector<rival_t>{growing_array(record_size, old_files),
                                        growing_floor(static_cast<size_t>(record_size) * 16, old_files)};
          },
          GROWTH_BLOCKS);
}

// ---- Sync

constexpr uint32_t SYNCED_BLOCKS = 1024;
constexpr uint32_t SYNCS = 4;

static int collect_block(DynamicArray_t, void *block, int, size_t, int hdr_size, int, int, int, void *blocks) {
  if (hdr_size == 0) static_cast<std::vector<void *> *>(blocks)->push_back(block);
  return 0;
}

// `sync` on blocks that are all there; the checksum is the bytes that msync was given for data blocks.
template <class Sync>
static rival_t sync_rival(const char *name, size_t block0_bytes, Sync sync) {
  return {name,
          [block0_bytes, sync](unsigned) {
            synced_bytes = 0;
            for (uint32_t i = 0; i < SYNCS; ++i) sync();
            return synced_bytes - SYNCS * block0_bytes;
          },
          {}};
}

static std::vector<rival_t> make_syncs(int record_size) {
  const array_t array = make_array(record_size, 0, MPOOL_TYPE_SHM, CTX);
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
  return {sync_rival("tslb", hdr_bytes, [array] { tslb_syn_shm_dynarr(array.get()); }),
          sync_rival("floor", 0, [array, blocks, block_bytes] {
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
  add_snapshots();
  add_growth();
  add_syncs();
}

int main(int argc, char **argv) {
  return run_cases(argc, argv, "| snapshot, per MiB, time relative to", add_cases);
}
