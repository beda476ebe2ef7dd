// Shared by tests of metricdb: a temporary folder, files, the program, and comparable stores.
#ifndef METRICDB_SUPPORT_H
#define METRICDB_SUPPORT_H

#include <fmt/format.h>
#include <signal.h>
#include <sys/wait.h>
#include <tslb/tslb_util.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <map>
#include <random>
#include <stdexcept>
#include <vector>

#include <gmock/gmock.h>
#include "extra/check.h"
#include "store/loader.h"
#include "store/store.h"
#include "system_support.h"

namespace metricdb {

inline std::string read_file(const fs::path &path) {
  std::ifstream file(path, std::ios::binary);
  EXPECT_TRUE(file.good()) << path;
  return {std::istreambuf_iterator<char>(file), {}};
}

// Overwrites without truncating first, because that would cause a write to the disk in some file systems.
inline void write_file(const fs::path &path, const std::string &bytes) {
  if (!fs::exists(path)) std::ofstream(path, std::ios::binary);
  std::fstream(path, std::ios::binary | std::ios::in | std::ios::out) << bytes;
  fs::resize_file(path, bytes.size());
}

// All files and folders: the content by name; empty for a folder. A lock file names the last process that had it.
inline std::map<std::string, std::string> tree_of(const fs::path &folder) {
  std::map<std::string, std::string> tree;
  for (const auto &entry : fs::recursive_directory_iterator(folder))
    tree[fs::relative(entry.path(), folder).string()] =
        entry.is_regular_file() && entry.path().filename() != "lock" ? read_file(entry.path()) : "";
  return tree;
}

inline std::vector<std::string> names_in(const fs::path &folder) {
  std::vector<std::string> names;
  for (const auto &entry : fs::directory_iterator(folder)) names.push_back(entry.path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

inline std::string repeated(std::string_view text, int times) {
  std::string all;
  for (int i = 0; i < times; ++i) all += text;
  return all;
}

// Returns the message of the exception of `work`, or nothing.
template <class Work>
std::string refusal_of(Work work) {
  try {
    work();
  } catch (const std::runtime_error &error) {
    return error.what();
  }
  return "";
}

// The result of a program.
struct Outcome {
  int exit_code;  // -1: killed
  std::string out, err;
};

class Folder : public testing::Test {
 protected:
  void SetUp() override {
    // In memory if possible, so that syncs are fast.
    std::string name = (access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp") + std::string("/metricdb_test_XXXXXX");
    ASSERT_NE(mkdtemp(name.data()), nullptr);
    root_ = name;
    // The clock stands still, because the catalogue's nodes contain its time and stores are compared byte by byte.
    tslb_set_tsdb_start_ts(1'700'000'000);
    tslb_set_timer_factor(1e18);
  }
  void TearDown() override {
    tslb_set_timer_factor(1.0);
    tslb_set_tsdb_start_ts(0);
    fs::remove_all(root_);
  }
  std::string path(const std::string &name) const { return (root_ / name).string(); }

  // Runs metricdb as a separate process in the test's folder. Returns its output, unless `streams` redirects it.
  Outcome run(const std::string &arguments, const std::string &environment = "", const char *streams = "") const {
    const std::string command = fmt::format("cd {} && {} {} {} >out.txt 2>err.txt {}", root_.string(), environment,
                                            METRICDB, arguments, streams);
    const int status = std::system(command.c_str());
    const int code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    const Outcome outcome = {code == 128 + SIGKILL ? -1 : code, read_file(root_ / "out.txt"),
                             read_file(root_ / "err.txt")};
    fs::remove(root_ / "out.txt");
    fs::remove(root_ / "err.txt");
    return outcome;
  }

  fs::path root_;
};

// All blocks of the catalogue, with headers, nodes and lists. Of the pools the same, without the bytes of memory slots that no
// chunk has: a generation does not keep them.
inline std::string image_of(const Store &store) {
  std::string image;
  const auto add = [](DynamicArray_t, void *block, int, size_t bytes, int, int, int, int, void *to) {
    static_cast<std::string *>(to)->append(static_cast<const char *>(block), bytes);
    return 0;
  };
  tslb_iterate_dyn_array_blocks(store.catalogue(), add, &image);
  for (dynmem_t *const pool : {store.keys(), store.points()}) {
    image.append(static_cast<const char *>(tslb_da_get_usrhdr(pool)), sizeof(DynMemHdr_t));
    image.append(static_cast<const char *>(tslb_da_get_lli(pool)), sizeof(DynArrLLI_t));
    for (uint32_t index = 0; index < tslb_da_get_size(pool); ++index) {
      const auto *const slot = static_cast<const MemSlot_t *>(tslb_da_get_ptr(pool, index));
      const node_fw *const node = reinterpret_cast<const node_fw *>(slot) - 1;
      image.append(reinterpret_cast<const char *>(node), sizeof *node + sizeof *slot);
      if (node->status == TSLB_DA_SLOT_ACTIVE) image.append(slot->mslot, slot->bytes_used);
    }
  }
  return image;
}

inline std::vector<Point> points_of(const Store &store, uint32_t series) {
  std::vector<Point> points;
  PointCursor cursor(store, series);
  for (Point point; cursor.next(point);) points.push_back(point);
  return points;
}

inline std::string shown(const std::vector<Point> &points) {
  std::string text;
  for (const Point &point : points) text += fmt::format("{}@{} ", point.value, point.ts_ns);
  return text;
}

// "value@time ..." of each series, by key, in order of arrival.
using Content = std::map<std::string, std::string>;

inline Content content_of(const Store &store) {
  Content content;
  for (uint32_t series = 0; series < store.n_slots(); ++series)
    if (store.holds_series(series)) content[std::string(store.key(series))] = shown(points_of(store, series));
  return content;
}

constexpr int64_t NOW_NS = 77;  // the time of points without a timestamp

// Loads as the program does, without the final sweep. All lines must be valid.
inline LoadStats load(Store &store, std::string_view text) {
  Loader loader(store, Loader::OnFull::stop, [](uint64_t, const std::string &reason) { ADD_FAILURE() << reason; });
  loader.load(text, Precision::ns, NOW_NS);
  return loader.stats();
}

inline Check checked(const Store &store, std::string_view text, int64_t retain_ns = 0) {
  Check check(store, Precision::ns, NOW_NS, retain_ns);
  check.find_newest(text);
  check.compare(text);
  check.finish();
  return check;
}

// Expects these numbers of points and differences, and this first difference.
inline void expect_checked(const Check &check, uint64_t n_matching, uint64_t n_differences,
                           const std::string &first_difference) {
  EXPECT_EQ(check.n_matching(), n_matching);
  EXPECT_EQ(check.n_differences(), n_differences);
  EXPECT_EQ(check.first_differences().empty() ? "" : check.first_differences()[0], first_difference);
}

inline std::string figures_of(const Store &store) {
  const StoreState state = store.state();
  const ForgetCounts &gone = state.forgotten;
  return fmt::format("{} {} {} {} | {} {} {} {} {} {} {} | {} {}", state.n_series, state.n_points, state.data_time_ns,
                     state.n_since_sweep, gone.late_points, gone.points, gone.chunks, gone.series_aged,
                     gone.series_reused, gone.key_slots, gone.point_slots, store.n_visible(), store.n_inactive());
}

// Batch `number` of an endless input. Some keys disappear and return, one stays, and some points are late.
inline std::string batch_text(int number) {
  std::mt19937 random(static_cast<uint32_t>(number) + 20261125u);
  std::string text;
  for (int i = 0; i < 60; ++i) {
    const int64_t ts_ns = 10'000 + number * 60 + i - (random() % 16 == 0 ? random() % 3000 : random() % 8);
    const int source = i % 4 == 0 ? 0 : 1 + number / 15 * 5 + static_cast<int>(random() % 9);
    text += fmt::format("m,n={} f={},g={} {}\n", source, random() % 100, random() * 0.25, ts_ns);
  }
  return text;
}

// Values that differ in most bits, so that encoding saves nothing.
inline double noise(uint64_t number) {
  return std::bit_cast<double>((number * 0x9E3779B97F4A7C15u & 0x800FFFFFFFFFFFFFu) | (number % 1024 + 512) << 52);
}

}  // namespace metricdb

using namespace metricdb;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

#endif
