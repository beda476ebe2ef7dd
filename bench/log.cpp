// Cost of a line of the debug log.
//
// Measured: tslb_dl_logging to a file on a tmpfs, a short message with one number, with 1 and 2 threads. Compared with
// the floor (floor.h: the same bytes, formatted in advance; the clock and its conversion to local time with signals
// blocked, stat of the file, one write, all under one mutex, since lines are in the order of their stamps), with spdlog
// with the same fields, its own file and a flush after every line, and with the plain write of the same bytes, without
// time and lock (the limit). spdlog does not check its file, blocks no signal and converts the time once per second.
// Without spdlog its column is omitted.
//
// Not measured: the rollover to a new file; lines above the level, which are one comparison; a disk.
//
// Run: bench_log [--quick] [--benchmark_filter=REGEX]
#include <tslb/tslb_dlog.h>

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include <tslb/tslb_dlog_macros.h>
#include "floor.h"
#include "ratio.h"
#include "scratch.h"
#ifdef TSLB_BENCH_SPDLOG
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#endif

constexpr uint32_t LINES_PER_THREAD = 2048;
constexpr unsigned MAX_THREADS = 2;
constexpr uint64_t ROOM_BYTES = uint64_t{16} << 20;
constexpr int LEVEL = 1;
constexpr int FILE_MIB = 2047;  // no rollover

static std::string path_of(const char *name) {
  return scratch_dir(ROOM_BYTES) + "/" + name;
}
// Returns the name that the debug log derives from its base path.
static std::string dlog_file() {
  return path_of("dlog") + "." + std::to_string(getpid()) + ".0";
}

static std::vector<std::string> lines_in(const std::string &path) {
  std::vector<std::string> lines;
  std::ifstream file(path);
  for (std::string line; std::getline(file, line);) lines.push_back(line);
  return lines;
}

// Adds up the numbers at the end of the messages in a file. A broken or missing line changes the sum.
static uint64_t sum_of_messages(const std::string &path) {
  uint64_t sum = 0;
  for (const std::string &line : lines_in(path)) {
    const size_t at = line.rfind(' ');
    if (at != std::string::npos && line[0] != '#') sum += strtoull(line.c_str() + at, nullptr, 10);
  }
  return sum;
}

static uint32_t number_of(unsigned thread, uint32_t i) {
  return 100000 + thread * LINES_PER_THREAD + i;
}

static void start_dlog() {
  unlink(dlog_file().c_str());
  TSLB_DLOG_INIT(path_of("dlog").c_str(), LEVEL, FILE_MIB);
}

static uint64_t log_lines(unsigned thread) {
  for (uint32_t i = 0; i < LINES_PER_THREAD; ++i)
    TSLB_DLOG(LEVEL, "retention pass %s of table, record %u", "begins", number_of(thread, i));
  return 0;
}

static candidate_t ours() {
  return {"tslb", log_lines, start_dlog, [] { return sum_of_messages(dlog_file()); }};
}

// Returns the library's own lines, thread by thread.
static std::vector<std::string> lines_of_library(unsigned threads) {
  start_dlog();
  for (unsigned thread = 0; thread < threads; ++thread) log_lines(thread);
  std::vector<std::string> lines = lines_in(dlog_file());
  if (lines.size() != 1 + size_t{threads} * LINES_PER_THREAD) abort();
  lines.erase(lines.begin());  // the file's header
  for (std::string &line : lines) line += '\n';
  return lines;
}

// A file to which the library's lines are written again.
struct copy_t {
  std::string path;
  floor_log_t log;
  std::vector<std::string> lines;

  copy_t(const char *name, unsigned threads)
      : path(path_of(name)),
        log{PTHREAD_MUTEX_INITIALIZER, path.c_str(), open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644)},
        lines(lines_of_library(threads)) {
    if (log.fd < 0) abort();
  }
  ~copy_t() { close(log.fd); }
};

// write_line(log, line, length) writes a line and returns the result of write.
template <class WriteLine>
static candidate_t copying(const char *name, const char *file, unsigned threads, WriteLine write_line) {
  const auto copy = std::make_shared<copy_t>(file, threads);
  return {name,
          [copy, write_line](unsigned thread) {
            uint64_t refused = 0;
            const std::string *const lines = &copy->lines[size_t{thread} * LINES_PER_THREAD];
            for (uint32_t i = 0; i < LINES_PER_THREAD; ++i)
              refused +=
                  write_line(&copy->log, lines[i].data(), lines[i].size()) != static_cast<ssize_t>(lines[i].size());
            return refused;
          },
          [copy] {
            if (ftruncate(copy->log.fd, 0) != 0) abort();
          },
          [copy] { return sum_of_messages(copy->path); }};
}

#ifdef TSLB_BENCH_SPDLOG
static candidate_t peer() {
  const auto logger = std::make_shared<std::shared_ptr<spdlog::logger>>();
  return {"spdlog",
          [logger](unsigned thread) {
            for (uint32_t i = 0; i < LINES_PER_THREAD; ++i)
              SPDLOG_LOGGER_INFO(*logger, "retention pass {} of table, record {}", "begins", number_of(thread, i));
            return uint64_t{0};
          },
          [logger] {
            const auto sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(path_of("spdlog"), true);
            *logger = std::make_shared<spdlog::logger>("-", sink);
            (*logger)->set_pattern("%m/%d/%y %H:%M:%S|%s|%#|%!|%P|%t|%n|%v");
            (*logger)->flush_on(spdlog::level::trace);
          },
          [] { return sum_of_messages(path_of("spdlog")); }};
}
#endif

static std::vector<candidate_t> make_candidates(unsigned threads) {
  std::vector<candidate_t> candidates = {
      ours(), copying("floor", "floor", threads, floor_write_line),
      copying("write", "write", threads,
              [](floor_log_t *log, const char *line, size_t len) { return write(log->fd, line, len); })};
#ifdef TSLB_BENCH_SPDLOG
  candidates.push_back(peer());
#endif
  return candidates;
}

static void add_cases() {
  if (scratch_dir(ROOM_BYTES).empty()) return;
  for (const unsigned threads : {1u, MAX_THREADS})
    add_case(
        threads == 1 ? "1 thread" : "2 threads", threads, [threads] { return make_candidates(threads); },
        uint64_t{threads} * LINES_PER_THREAD);
}

int main(int argc, char **argv) {
  return run_cases(argc, argv, "| log line, time relative to", add_cases);
}
