// What tests of files, processes and sockets share: a folder, a limit of the process, and what is open.
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

// Each test of the suite has an empty folder of its own.
class InFolder : public testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "tslb_test_XXXXXX").string();
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    dir_ = pattern;
  }
  void TearDown() override { fs::remove_all(dir_); }
  fs::path dir_;
};

inline std::string content(const fs::path &file) {
  std::ifstream in(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
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

// Lowers a limit of the process while it lives.
struct limit_t {
  limit_t(int what, rlim_t value) : what_(what) {
    getrlimit(what_, &before_);
    const rlimit now = {value, before_.rlim_max};
    setrlimit(what_, &now);
  }
  ~limit_t() { setrlimit(what_, &before_); }
  limit_t(const limit_t &) = delete;

 private:
  int what_;
  rlimit before_;
};

#endif
