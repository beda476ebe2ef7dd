// Helpers for tests of files, processes and sockets: a folder, limits of the process, and its open descriptors.
#ifndef TSLB_TESTS_SYSTEM_SUPPORT_H
#define TSLB_TESTS_SYSTEM_SUPPORT_H

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/resource.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace fs = std::filesystem;

// A folder that the destructor removes.
struct temp_folder_t {
  temp_folder_t() {
    std::string name = fs::temp_directory_path() / "tslb_test_XXXXXX";
    EXPECT_NE(mkdtemp(name.data()), nullptr) << name;
    path = name;
  }
  ~temp_folder_t() { fs::remove_all(path); }
  temp_folder_t(const temp_folder_t &) = delete;
  fs::path path;
};

// Each test of the suite has its own empty folder.
class InFolder : public testing::Test {
 protected:
  const temp_folder_t folder_;
  const fs::path &dir_ = folder_.path;
};

inline std::string content_of(const fs::path &path) {
  std::ifstream file(path, std::ios::binary);
  EXPECT_TRUE(file.good()) << path << " does not exist";
  return {std::istreambuf_iterator<char>(file), {}};
}

// Writes a word of an existing file.
inline void patch_file(const fs::path &path, long at, uint32_t value) {
  std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
  file.seekp(at).write(reinterpret_cast<const char *>(&value), sizeof(value));
  EXPECT_TRUE(file.good()) << path;
}

inline size_t count_of(const std::string &text, const std::string &what) {
  size_t n = 0;
  for (size_t at = 0; (at = text.find(what, at)) != std::string::npos; ++at) ++n;
  return n;
}

inline size_t open_descriptors() {
  size_t n = 0;
  for ([[maybe_unused]] const auto &entry : fs::directory_iterator("/proc/self/fd")) ++n;
  return n;
}

// Lowers a limit of the process for its lifetime.
struct limit_t {
  limit_t(int what, rlim_t value) : what_(what) {
    getrlimit(what_, &before_);
    const rlimit lowered = {value, before_.rlim_max};
    setrlimit(what_, &lowered);
  }
  ~limit_t() { setrlimit(what_, &before_); }
  limit_t(const limit_t &) = delete;

 private:
  int what_;
  rlimit before_;
};

#endif
