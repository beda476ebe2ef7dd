// The client of scripts/bench-ingest, which runs the databases: sends line protocol over HTTP and measures the time.
//
// Sends a file in bodies with a fixed number of lines, over one or more persistent connections, one request in flight
// on each. Ends when the last request is answered. A server on the same machine should have all of its time except that
// of the socket calls: bodies and their heads are prepared in advance, and a request is one writev of both and one recv
// of an answer, which mostly arrives in one piece.
//
// Prints one line: lines, bodies and bytes sent, seconds, the client's CPU seconds during the run, and the median and
// the maximum time of an answer in milliseconds. An answer other than 204 ends the program.
//
// Run: bench_ingest_client FILE --port N [--target /write?db=x] [--lines N] [--connections N]
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <vector>

using steady = std::chrono::steady_clock;

namespace {

constexpr size_t MOST_ANSWER_BYTES = size_t{16} << 10;

struct arguments_t {
  std::string file;
  uint16_t port = 0;
  std::string target = "/write";
  uint64_t lines = 1000;
  unsigned connections = 1;
};

struct request_t {
  std::string head;
  std::string_view body;
};

[[noreturn]] void fail(const char *what) {
  throw std::system_error(errno, std::generic_category(), what);
}

// The whole file, read into memory before the measurement.
class file_text_t {
 public:
  explicit file_text_t(const std::string &path) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat status;
    if (fd < 0 || fstat(fd, &status) != 0) fail(path.c_str());
    n_bytes_ = static_cast<size_t>(status.st_size);
    if (n_bytes_ == 0) throw std::runtime_error(path + ": is empty");
    bytes_ = mmap(nullptr, n_bytes_, PROT_READ, MAP_PRIVATE | MAP_POPULATE, fd, 0);
    if (bytes_ == MAP_FAILED) fail(path.c_str());
    close(fd);
  }
  ~file_text_t() { munmap(bytes_, n_bytes_); }
  file_text_t(const file_text_t &) = delete;
  file_text_t &operator=(const file_text_t &) = delete;

  std::string_view text() const { return {static_cast<const char *>(bytes_), n_bytes_}; }

 private:
  void *bytes_;
  size_t n_bytes_;
};

// Returns the position after the first `n_lines` lines, and counts them.
size_t end_of_lines(std::string_view text, uint64_t n_lines, uint64_t &lines_in_all) {
  size_t end = 0;
  for (uint64_t i = 0; i < n_lines && end < text.size(); ++i, ++lines_in_all)
    end = std::min(text.find('\n', end), text.size() - 1) + 1;
  return end;
}

std::vector<request_t> cut(std::string_view text, const arguments_t &arguments, uint64_t &lines_in_all) {
  std::vector<request_t> requests;
  while (!text.empty()) {
    const size_t end = end_of_lines(text, arguments.lines, lines_in_all);
    requests.push_back({"POST " + arguments.target +
                            " HTTP/1.1\r\nHost: localhost\r\nContent-Length: " + std::to_string(end) + "\r\n\r\n",
                        text.substr(0, end)});
    text.remove_prefix(end);
  }
  return requests;
}

class connection_t {
 public:
  explicit connection_t(uint16_t port) : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (fd_ < 0 || connect(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) fail("connect");
    // The last piece of a body must not wait for the acknowledgement of earlier pieces.
    const int one = 1;
    if (setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one) != 0) fail("TCP_NODELAY");
  }
  ~connection_t() { close(fd_); }
  connection_t(const connection_t &) = delete;
  connection_t &operator=(const connection_t &) = delete;

  // Sends and waits for the answer, which must be 204.
  void exchange(const request_t &request) const {
    send(request);
    char answer[MOST_ANSWER_BYTES];
    const std::string_view head = receive_head(answer);
    // A 204 has no body: the head is the whole answer.
    if (!head.starts_with("HTTP/1.1 204 ")) throw std::runtime_error("the answer was: " + std::string(head));
  }

 private:
  void send(const request_t &request) const {
    iovec rest[2] = {{const_cast<char *>(request.head.data()), request.head.size()},
                     {const_cast<char *>(request.body.data()), request.body.size()}};
    while (rest[1].iov_len != 0) {
      const ssize_t sent = writev(fd_, rest, 2);
      if (sent < 0 && errno == EINTR) continue;
      if (sent < 0) fail("writev");
      size_t left = static_cast<size_t>(sent);
      for (iovec &piece : rest) {
        const size_t taken = std::min(left, piece.iov_len);
        piece.iov_base = static_cast<char *>(piece.iov_base) + taken;
        piece.iov_len -= taken;
        left -= taken;
      }
    }
  }

  std::string_view receive_head(char (&answer)[MOST_ANSWER_BYTES]) const {
    size_t n_bytes = 0;
    while (std::string_view(answer, n_bytes).find("\r\n\r\n") == std::string_view::npos) {
      const ssize_t got = recv(fd_, answer + n_bytes, sizeof answer - n_bytes, 0);
      if (got < 0 && errno == EINTR) continue;
      if (got < 0) fail("recv");
      if (got == 0) throw std::runtime_error("the connection ended, or the answer's head is too long");
      n_bytes += static_cast<size_t>(got);
    }
    return {answer, n_bytes};
  }

  const int fd_;
};

// Each connection takes the next request that no connection has taken.
class load_t {
 public:
  load_t(const std::vector<request_t> &requests, const arguments_t &arguments)
      : requests_(requests), arguments_(arguments), waits_ms_(requests.size()) {}

  void run() {
    std::vector<std::thread> threads;
    for (unsigned i = 1; i < arguments_.connections; ++i) threads.emplace_back([this] { send_some(); });
    send_some();
    for (std::thread &thread : threads) thread.join();
    if (!failure_.empty()) throw std::runtime_error(failure_);
  }

  // Returns the times of all answers in ascending order.
  std::vector<double> waits_ms() const {
    std::vector<double> sorted = waits_ms_;
    std::sort(sorted.begin(), sorted.end());
    return sorted;
  }

 private:
  void send_some() {
    try {
      const connection_t connection(arguments_.port);
      for (size_t i = next_++; i < requests_.size(); i = next_++) {
        const steady::time_point begin = steady::now();
        connection.exchange(requests_[i]);
        waits_ms_[i] = std::chrono::duration<double, std::milli>(steady::now() - begin).count();
      }
    } catch (const std::exception &error) {
      // Leaves nothing to send for the other connections. The first failure is reported.
      next_ = requests_.size();
      if (!has_failed_.exchange(true)) failure_ = error.what();
    }
  }

  const std::vector<request_t> &requests_;
  const arguments_t &arguments_;
  std::atomic<size_t> next_ = 0;
  std::atomic<bool> has_failed_ = false;
  std::string failure_;
  std::vector<double> waits_ms_;
};

double cpu_seconds() {
  rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  const auto seconds = [](const timeval &time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

void run(const arguments_t &arguments) {
  const file_text_t file(arguments.file);
  uint64_t n_lines = 0;
  const std::vector<request_t> requests = cut(file.text(), arguments, n_lines);
  load_t load(requests, arguments);
  const double cpu_before = cpu_seconds();
  const steady::time_point begin = steady::now();
  load.run();
  const double seconds = std::chrono::duration<double>(steady::now() - begin).count();
  const double cpu = cpu_seconds() - cpu_before;
  const std::vector<double> waits_ms = load.waits_ms();
  printf("lines=%llu bodies=%zu bytes=%zu seconds=%.6f cpu_seconds=%.6f middle_ms=%.3f longest_ms=%.3f\n",
         static_cast<unsigned long long>(n_lines), requests.size(), file.text().size(), seconds, cpu,
         waits_ms[waits_ms.size() / 2], waits_ms.back());
}

}  // namespace

int main(int argc, char **argv) {
  arguments_t arguments;
  CLI::App app("sends a file of line protocol to a database and prints how long that took");
  app.add_option("FILE", arguments.file, "file of line protocol")->required()->type_name("");
  app.add_option("--port", arguments.port, "port on 127.0.0.1")->required();
  app.add_option("--target", arguments.target, "path and query to post to")->capture_default_str();
  app.add_option("--lines", arguments.lines, "lines of a request")
      ->check(CLI::Range(uint64_t{1}, uint64_t{10'000'000}))
      ->capture_default_str();
  app.add_option("--connections", arguments.connections, "number of connections")
      ->check(CLI::Range(1u, 64u))
      ->capture_default_str();
  CLI11_PARSE(app, argc, argv);
  try {
    run(arguments);
  } catch (const std::exception &error) {
    fprintf(stderr, "%s\n", error.what());
    return 1;
  }
  return 0;
}
