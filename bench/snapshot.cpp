// Cost of writing a whole array to a file.
//
// Measured, on a tmpfs: tslb_create_dump_for_dynarr of 256 MiB in data blocks of 1.6 KiB, 16 KiB and 1 MiB (records of
// 100 bytes, 1 KiB and 64 KiB), and in one direct area, to an empty file and over an old one; per MiB. Compared with
// one write of the same bytes, with one write per block, both from one buffer, and with mdb_env_copyfd of an LMDB
// environment with the same records, whose pages are more bytes.
//
// Not measured: a disk.
//
// Run: bench_snapshot [--quick] [--benchmark_filter=REGEX]
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <string>
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
static uint64_t snapshot_bytes() {
  return (is_quick() ? 8 : 256) * MIB;
}
// Space for two files of that size, and for an environment of twice as much.
static const std::string &dir() {
  return scratch_dir(5 * snapshot_bytes());
}

using array_t = std::shared_ptr<DynArrHandle_t>;

// The file that the candidates of all rows write, one after the other. It is already unlinked.
static int snapshot_file() {
  static const int fd = [] {
    const std::string path = dir() + "/snapshot";
    const int opened = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (opened < 0 || unlink(path.c_str()) != 0) abort();
    return opened;
  }();
  return fd;
}

// Sums the file's size and sampled words.
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

// Creates an array of `snapshot_bytes` in which all words of the records differ.
static array_t make_full_array(uint32_t record_size, uint32_t n_direct) {
  const array_t array(
      get_default_dyn_array(static_cast<int>(record_size), static_cast<int>(n_direct), MPOOL_TYPE_DRAM_TMP),
      destroy_dyn_arr);
  if (array == nullptr) abort();
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

// `write_stream` returns whether it wrote everything.
template <class WriteStream>
static candidate_t snapshot_candidate(const char *name, bool over_old, WriteStream write_stream) {
  return {name, [write_stream](unsigned) { return uint64_t{!write_stream(snapshot_file())}; },
          [over_old] {
            const int fd = snapshot_file();
            if ((!over_old && ftruncate(fd, 0) != 0) || lseek(fd, 0, SEEK_SET) != 0) abort();
          },
          sum_of_file};
}

#ifdef TSLB_BENCH_LMDB
// The environment's copy goes to its own file. It is complete if it is at least as long as the records.
static candidate_t environment_copy(const array_t &array, uint32_t record_size, bool over_old, uint64_t expected) {
  const std::string path = dir() + "/environment";
  const auto env = std::make_shared<environment_t>(path, 2 * snapshot_bytes());
  const std::shared_ptr<int> file(new int(open((path + ".copy").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)),
                                  [](const int *fd) {
                                    close(*fd);
                                    delete fd;
                                  });
  if (*file < 0 || unlink(path.c_str()) != 0 || unlink((path + ".copy").c_str()) != 0) abort();
  MDB_txn *const txn = env->begin(0);
  for (uint32_t id = 0; id < get_dyn_arr_size(array.get()); ++id)
    env->append(txn, id, get_dyn_arr_record_position(array.get(), id), record_size);
  lmdb_check(mdb_txn_commit(txn));
  return {
      "LMDB copy", [env, file](unsigned) { return uint64_t{mdb_env_copyfd(env->get(), *file) != MDB_SUCCESS}; },
      [file, over_old] {
        if ((!over_old && ftruncate(*file, 0) != 0) || lseek(*file, 0, SEEK_SET) != 0) abort();
      },
      [file, expected] { return lseek(*file, 0, SEEK_END) >= static_cast<off_t>(snapshot_bytes()) ? expected : 0; }};
}
#endif

static std::vector<candidate_t> make_snapshots(uint32_t record_size, bool direct, bool over_old) {
  const uint32_t n_direct = direct ? static_cast<uint32_t>(snapshot_bytes() / record_size) : 0;
  const array_t array = make_full_array(record_size, n_direct);
  const auto stream = std::make_shared<std::vector<char>>(stream_of(array));
  [[maybe_unused]] const uint64_t expected = sum_of_file();
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
  std::vector<candidate_t> candidates = {snapshot_candidate("tslb", over_old, dump),
                                         snapshot_candidate("one write", over_old, one_write),
                                         snapshot_candidate("a write per block", over_old, block_writes)};
#ifdef TSLB_BENCH_LMDB
  candidates.push_back(environment_copy(array, record_size, over_old, expected));
#endif
  return candidates;
}

static void add_cases() {
  if (dir().empty()) return;
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

int main(int argc, char **argv) {
  return run_cases(argc, argv, "| snapshot, per MiB, time relative to", add_cases);
}
