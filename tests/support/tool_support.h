// Runs a tool in its own folder and captures its standard streams.
#ifndef TOOL_SUPPORT_H
#define TOOL_SUPPORT_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "stored_image.h"

using arguments_t = std::vector<std::string>;

// Splits a line into words, as a shell does, but without quotes.
inline arguments_t words_of(const std::string &line) {
  std::istringstream items(line);
  return {std::istream_iterator<std::string>(items), {}};
}

struct run_t {
  int exit_code;
  std::string out, err;
  long max_kilobytes;  // maximum memory of the tool
};

// The child's standard output if it is not captured, and the maximum size of the files that it writes.
struct limits_t {
  const char *out_path = nullptr;
  rlim_t file_bytes = RLIM_INFINITY;
};

class ToolTest : public testing::Test {
 protected:
  explicit ToolTest(const char *tool) : tool_(tool) {}

  std::string path(const std::string &name) const { return folder_.path / name; }
  void write(const std::string &name, const std::string &content) const {
    std::ofstream(path(name), std::ios::binary) << content;
  }
  std::string read(const std::string &name) const { return content_of(folder_.path / name); }
  std::vector<std::string> names() const {
    std::vector<std::string> names;
    for (const auto &entry : std::filesystem::directory_iterator(folder_.path))
      names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
  }

  run_t run(const arguments_t &arguments, const limits_t &limits = {}) const {
    return run_program(tool_, arguments, limits);
  }
  run_t run(const std::string &arguments, const limits_t &limits = {}) const {
    return run(words_of(arguments), limits);
  }

  run_t run_program(const char *program, const arguments_t &arguments, const limits_t &limits = {}) const {
    const memory_file_t out, err;
    std::vector<char *> words = {const_cast<char *>(program)};
    for (const std::string &argument : arguments) words.push_back(const_cast<char *>(argument.c_str()));
    words.push_back(nullptr);
    const pid_t child = fork();
    if (child == 0) {
      const rlimit limit = {limits.file_bytes, limits.file_bytes};
      signal(SIGXFSZ, SIG_IGN);
      dup2(limits.out_path != nullptr ? open(limits.out_path, O_WRONLY) : out.fd(), STDOUT_FILENO);
      dup2(err.fd(), STDERR_FILENO);
      if (chdir(folder_.path.c_str()) == 0 && setrlimit(RLIMIT_FSIZE, &limit) == 0) execv(program, words.data());
      _exit(99);
    }
    int status = 0;
    rusage usage = {};
    EXPECT_EQ(wait4(child, &status, 0, &usage), child);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, content_of(out.fd()), content_of(err.fd()), usage.ru_maxrss};
  }

  // Expects this exit code, one line of the tool and no other output.
  static void expect_says(const run_t &ran, int exit_code, const std::string &line) {
    EXPECT_EQ(ran.exit_code, exit_code);
    EXPECT_EQ(ran.out, "");
    EXPECT_EQ(ran.err, line + "\n");
  }

  const temp_folder_t folder_;

 private:
  const char *const tool_;
};

#endif
