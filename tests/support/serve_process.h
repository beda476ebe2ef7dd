// `metricdb serve` as a process.
#pragma once

#include <fcntl.h>
#include <sys/wait.h>

#include <csignal>

#include "server_support.h"

// A server on a free port, killed with its owner.
class ServeProcess {
 public:
  // environment  commands of the shell before the program: assignments and `export`.
  // passed       descriptors that the process gets as 3, 4 and so on.
  explicit ServeProcess(const fs::path &folder, const std::string &arguments, const std::string &environment = ":",
                        const std::vector<int> &passed = {})
      : output_(folder / "serve.out") {
    const std::string command = fmt::format("cd {} && {} && exec {} serve {} >{} 2>&1", folder.string(), environment,
                                            METRICDB, arguments, output_.string());
    fs::remove(output_);  // of an earlier process
    pid_ = fork();
    if (pid_ == 0) {
      std::vector<int> moved;  // so that no one is in the place of another
      for (const int fd : passed) moved.push_back(fcntl(fd, F_DUPFD_CLOEXEC, 100));
      for (size_t i = 0; i < passed.size(); ++i) dup2(moved[i], 3 + static_cast<int>(i));
      execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
      _exit(127);
    }
  }
  ~ServeProcess() {
    if (pid_ > 0) end(SIGKILL);
  }
  ServeProcess(const ServeProcess &) = delete;
  ServeProcess &operator=(const ServeProcess &) = delete;

  std::string output() const { return fs::exists(output_) ? read_file(output_) : ""; }
  // Waits until it serves. Returns its port, or 0.
  int port() const {
    const std::string before = " influx 127.0.0.1:";
    if (!wait_until([&] { return output().find(before) != std::string::npos && output().ends_with("\n"); })) return 0;
    return std::atoi(output().c_str() + output().find(before) + before.size());
  }
  void signal(int number) const { kill(pid_, number); }
  // Returns the exit status; -1 if it was killed.
  int end(int number) {
    kill(pid_, number);
    return wait();
  }
  // The same, of a process that ends by itself.
  int wait() {
    int status = 0;
    waitpid(std::exchange(pid_, -1), &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  pid_t pid() const { return pid_; }

 private:
  const fs::path output_;
  pid_t pid_;
};
