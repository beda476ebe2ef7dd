// A NATS server for tests: on a free port of this machine, with its streams in a temporary folder.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <utility>

class NatsServer {
 public:
  static constexpr const char *PROGRAM = "/usr/sbin/nats-server";
  static bool is_installed() { return access(PROGRAM, X_OK) == 0; }

  // config  of the server, beside streams and port.
  explicit NatsServer(std::string folder, const std::string &config = {})
      : folder_(std::move(folder)), config_(folder_ + ".conf"), port_(free_port()) {
    std::ofstream(config_) << config << "\n";
    start();
  }
  ~NatsServer() { kill_now(); }
  NatsServer(const NatsServer &) = delete;
  NatsServer &operator=(const NatsServer &) = delete;

  std::string url() const { return "nats://127.0.0.1:" + std::to_string(port_); }

  // Returns before it accepts connections.
  void start() {
    const std::string port = std::to_string(port_);
    process_ = fork();
    if (process_ != 0) return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);  // also if a test is killed
    const int null = open("/dev/null", O_WRONLY);
    dup2(null, 1);
    dup2(null, 2);
    execl(PROGRAM, PROGRAM, "-js", "-a", "127.0.0.1", "-p", port.c_str(), "-sd", folder_.c_str(), "-c", config_.c_str(),
          nullptr);
    _exit(127);
  }
  void kill_now() {
    if (process_ <= 0) return;
    kill(process_, SIGKILL);
    waitpid(std::exchange(process_, -1), nullptr, 0);
  }

 private:
  static int free_port() {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    bind(fd, reinterpret_cast<sockaddr *>(&address), size);
    getsockname(fd, reinterpret_cast<sockaddr *>(&address), &size);
    close(fd);
    return ntohs(address.sin_port);
  }

  const std::string folder_, config_;
  const int port_;
  pid_t process_ = -1;
};
