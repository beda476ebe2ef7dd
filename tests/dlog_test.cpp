// Tests of the debug log: rollover, deleted files, many threads, cut lines, full disks and bad names.
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <regex>
#include <sstream>

#include <tslb/tslb_dlog_macros.h>
#include <tslb/tslb_util.h>
#include "array_support.h"
#include "fault_alloc.h"
#include "forced.h"
#include "own_time.h"
#include "system_support.h"
#include "threads.h"

constexpr char kHeader[] = "#DateTime|FileName|LineNo|FunName|PID|TID|THName|Msg\n";

// Counts closes of a descriptor that the log still names as its file. A child forked after such a close that starts the
// log would close another file with that number.
static int n_early_closes;

extern "C" __attribute__((visibility("default"))) int close(int fd) {
  static const auto real = reinterpret_cast<int (*)(int)>(dlsym(RTLD_NEXT, "close"));
  const TSLBDLog_t *const log = __atomic_load_n(&g_dl, __ATOMIC_ACQUIRE);
  n_early_closes += log != nullptr && log->fname_abs[0] != '\0' && log->fd == fd;
  return real(fd);
}

class DebugLog : public InFolder {
 protected:
  void TearDown() override { EXPECT_EQ(std::exchange(n_early_closes, 0), 0); }
  // Starts a log with files of its own. The first line creates them.
  void start(int level = 0, int mib = -1, const char *tail = "") const {
    tslb_dl_init_internal((base_.string() + tail).c_str(), level, mib);
  }
  fs::path file(int version, const char *tail = "") const {
    return base_.string() + tail + "." + std::to_string(getpid()) + "." + std::to_string(version);
  }
  std::string lines_of(int version, const char *tail = "") const {
    const std::string all = content_of(file(version, tail));
    EXPECT_EQ(all.substr(0, 53), kHeader);
    return all.size() > 53 ? all.substr(53) : "";
  }
  bool has_line(int version, const std::string &end) const {
    return lines_of(version).find("|" + end + "\n") != std::string::npos;
  }
  static void log(int level, const char *text) { tslb_dl_logging(level, "dir/source.cpp", "place", 7, "%s", text); }
  const fs::path base_ = dir_ / "log";
};

// Runs first in this program, before the log is started.
TEST(DebugLogBeforeItsStart, DoesNothing) {
  if (fault_t::works()) {
    const std::string report = stderr_of([] {
      const fault_t fault(1);
      tslb_dl_init_internal(nullptr, 0, 0);
    });
    EXPECT_EQ(report,
              "Error: failed to allocate memory for DLOG handle of size " + std::to_string(sizeof(*g_dl)) + ".\n");
  }
  ASSERT_EQ(g_dl, nullptr);
  tslb_dl_logging(-1, "f", "g", 1, "lost");
  tslb_dl_set_thname_internal("name");
  EXPECT_EQ(g_thname[0], '\0');
  EXPECT_EQ(g_tid, -1);
}

// Two threads start the log at once. One log exists afterwards, with the settings of the later start.
TEST_F(DebugLog, ConcurrentStartsGiveOneLogWithTheLaterSettings) {
  if (g_dl != nullptr) GTEST_SKIP() << "the log is already started in this process";
  static const TSLBDLog_t *other_log;
  before_swap.arm(&g_dl, [] {
    tslb_dl_init_internal("stdout", 7, 1);
    other_log = g_dl;
  });
  start(2);
  ASSERT_EQ(before_swap.word, nullptr);
  EXPECT_EQ(g_dl, other_log);
  EXPECT_EQ(g_dl->level, 2);
  log(2, "kept");
  EXPECT_TRUE(has_line(0, "kept"));
}

TEST_F(DebugLog, FirstLineCreatesTheFileWithItsHeader) {
  const mode_t mask = umask(0);
  start(3);
  EXPECT_EQ(g_dl->fmax_sz, 10485760);
  EXPECT_FALSE(fs::exists(file(0)));
  errno = EACCES;
  const std::string format = "%d apples, %m";  // formatted by the C library
  tslb_dl_logging(3, "some/dir/source.cpp", "place", 42, format.c_str(), 5);
  EXPECT_EQ(errno, EACCES);
  umask(mask);
  const std::regex line("\\d\\d/\\d\\d/\\d+ \\d\\d:\\d\\d:\\d\\d\\|source.cpp\\|42\\|place\\|" +
                        std::to_string(getpid()) + "\\|" + std::to_string(g_tid) +
                        "\\|-\\|5 apples, Permission denied\n");
  EXPECT_TRUE(std::regex_match(lines_of(0), line)) << lines_of(0);
  EXPECT_EQ(fs::status(file(0)).permissions(), fs::perms(0644));
  EXPECT_NE(fcntl(g_dl->fd, F_GETFD) & FD_CLOEXEC, 0) << "children of the host inherit the file";
}

TEST_F(DebugLog, LevelIsTestedFirst) {
  start(2);
  int evaluated = 0;
  std::thread([&] {
    log(3, "no");
    TSLB_DLOG(3, "%d", ++evaluated);
    EXPECT_EQ(g_tid, -1) << "a line above the level gave the thread a number";
    EXPECT_FALSE(fs::exists(file(0)));
    log(2, "yes");
    log(-5, "yes");
    TSLB_DLOG(2, "%d", ++evaluated);
    EXPECT_GE(g_tid, 0);
  }).join();
  EXPECT_EQ(evaluated, 1);
  EXPECT_EQ(count_of(lines_of(0), "\n"), 3u);
  EXPECT_NE(lines_of(0).find("|dlog_test.cpp|"), std::string::npos);
}

TEST_F(DebugLog, SizesForRollover) {
  for (const auto &[argument, bytes] : {std::pair(-1, 10485760),
                                        {-2147483647, 10485760},
                                        {0, 0},
                                        {1, 1048576},
                                        {2047, 2146435072},
                                        {2048, 2146435072},
                                        {2147483647, 2146435072}}) {
    start(0, argument);
    EXPECT_EQ(g_dl->fmax_sz, bytes) << argument;
  }
}

TEST_F(DebugLog, RollsOverAtExactlyItsSize) {
  start(0, 1);
  log(0, "first");
  fs::resize_file(file(0), 1048575);
  log(0, "still in 0");
  EXPECT_FALSE(fs::exists(file(1)));
  EXPECT_NE(content_of(file(0)).find("still in 0\n"), std::string::npos);
  fs::resize_file(file(0), 1048576);
  log(0, "in 1");
  EXPECT_TRUE(has_line(1, "in 1"));

  start(0, 0, "each");
  for (int i = 0; i < 3; ++i) log(0, "one line each");
  for (int i = 0; i < 3; ++i) EXPECT_EQ(count_of(lines_of(i, "each"), "\n"), 1u);
}

// Only one descriptor is open at a time.
TEST_F(DebugLog, DeletionOfTheCurrentFileRestartsTheVersions) {
  start(0, 0);
  log(0, "x");
  const int fd = g_dl->fd;
  for (int i = 0; i < 2; ++i) log(0, "x");
  EXPECT_EQ(g_dl->fd, fd) << "the old files stay open";
  fs::remove(file(2));
  fs::remove(file(0));
  log(0, "again");
  EXPECT_TRUE(has_line(0, "again"));
  EXPECT_FALSE(fs::exists(file(3)));
  EXPECT_EQ(g_dl->fd, fd);
}

TEST_F(DebugLog, ExistingFileGetsAnotherHeaderAndIsAppendedTo) {
  for (const char *line : {"first start", "second start"}) {
    start();
    log(0, line);
  }
  EXPECT_NE(content_of(file(0)).find("|first start\n" + std::string(kHeader)), std::string::npos) << lines_of(0);
  EXPECT_TRUE(has_line(0, "second start"));
}

TEST_F(DebugLog, ChildUsesTheProcessIdOfItsParent) {
  start();
  log(0, "parent");
  const pid_t parent = getpid();
  const pid_t child = fork();
  if (child == 0) {
    log(0, "child");
    _exit(0);
  }
  waitpid(child, nullptr, 0);
  EXPECT_TRUE(has_line(0, "place|" + std::to_string(parent) + "|" + std::to_string(g_tid) + "|-|child")) << lines_of(0);
}

// No thread of the child can release the lock. The alarm ends a child that waits for it.
TEST_F(DebugLog, ChildThatStartsTheLogDoesNotWaitForItsParentsLock) {
  start();
  log(0, "parent");
  std::atomic<bool> is_held{false}, may_release{false};
  std::thread holder([&] {
    pthread_mutex_lock(&g_dl->dl_thlock);
    is_held = true;
    while (!may_release) std::this_thread::yield();
    pthread_mutex_unlock(&g_dl->dl_thlock);
  });
  while (!is_held) std::this_thread::yield();
  const pid_t child = fork();
  if (child == 0) {
    alarm(60);
    start();
    log(0, "child");
    log(0, "again");
    _exit(0);
  }
  int status = -1;
  waitpid(child, &status, 0);
  may_release = true;
  holder.join();
  EXPECT_EQ(status, 0);
  const std::string lines = content_of(base_.string() + "." + std::to_string(child) + ".0");
  EXPECT_NE(lines.find("|" + std::to_string(child) + "|"), std::string::npos) << lines;
  EXPECT_EQ(count_of(lines, "\n"), 3u);
  log(0, "parent");
  EXPECT_EQ(count_of(lines_of(0), "\n"), 2u);
}

TEST_F(DebugLog, NumbersOfLines) {
  start();
  std::string want;
  for (const int number : {0, 9, 10, INT_MAX, -7, -10, INT_MIN}) {
    tslb_dl_logging(0, "f", "g", number, "x");
    want += "|f|" + std::to_string(number) + "|g|";
  }
  EXPECT_EQ(std::regex_replace(lines_of(0), std::regex("[^|]+(\\|f\\|[^|]+\\|g\\|).*\n"), "$1"), want);
}

// All lines are of one second: no part of a time stamp is reused from the previous line.
TEST_F(DebugLog, StampsFollowTheClockAndTheTimeZone) {
  start();
  static const struct {
    const char *zone;
    int offset;
  } rows[] = {
      {"UTC0", 0},
      {"UTC0", 3600},
      {"UTC0", 0},
      {"UTC-1", 0},  // the same name with another offset
      {"AST-5", 0},
      {"AST-5ADT,0/0,J365/25", 0},    // always summer time
      {"AST-5ADT,J1/0,J1/0", 0},      // the same names and offsets, never summer time
      {"BST-5ADT-7,0/0,J365/25", 0},  // another summer time
  };
  for (const auto &row : rows) {
    setenv("TZ", row.zone, 1);
    tzset();
    tslb_set_timestamp_offset(row.offset);
    log(0, "line");
    char date_time[65];
    tslb_get_cur_date_time(date_time, 0);
    const std::string lines = lines_of(0);
    EXPECT_EQ(lines.substr(lines.rfind('\n', lines.size() - 2) + 1).rfind(std::string(date_time) + "|", 0), 0u)
        << row.zone << ", " << row.offset << "\n"
        << lines;
  }
  tslb_set_timestamp_offset(0);
  unsetenv("TZ");
  tzset();
}

TEST_F(DebugLog, LinesAreCutToFit) {
  start();
  log(0, "");
  const size_t prefix = lines_of(0).size() - 1, fits = 4095 - prefix;
  const auto line_of = [this](const std::string &function, const std::string &message) {
    const size_t before = fs::file_size(file(0));
    tslb_dl_logging(0, "dir/source.cpp", function.c_str(), 7, "%s", message.c_str());
    return content_of(file(0)).substr(before);
  };
  // The longest line that fits, a line that loses its newline, and a line whose end would be written after the buffer.
  for (const size_t over : {0, 1, 1000})
    EXPECT_EQ(line_of("place", std::string(fits + over, 'm')).substr(prefix), std::string(fits, 'm') + "\n") << over;
  const std::string prefix_alone = line_of(std::string(6000, 'p'), "message");
  EXPECT_EQ(prefix_alone.size(), 4096u);
  EXPECT_EQ(prefix_alone.find('\n'), 4095u);
  EXPECT_EQ(prefix_alone.find('\0'), std::string::npos);
}

TEST_F(DebugLog, FormatThatFailsLeavesItsLineEmpty) {
  start();
  log(0, "");
  const std::string format = "%lc";
  tslb_dl_logging(0, "dir/source.cpp", "place", 7, format.c_str(),
                  0xD800);  // half of a surrogate pair: not a character
  log(0, "next");
  const std::string lines = lines_of(0);
  const size_t len = lines.find('\n') + 1;
  EXPECT_EQ(lines.substr(17, len - 17), lines.substr(len + 17, len - 17)) << "after the time stamps";
  EXPECT_EQ(count_of(lines, "\n"), 3u);
}

TEST_F(DebugLog, NamesAndNumbersOfThreads) {
  start();
  int first = -1, second = -1;
  std::thread([&] {
    tslb_dl_set_thname_internal(std::string(40, 'n').c_str());
    first = g_tid;
    log(0, "named");
    log(0, "named");
  }).join();
  std::thread([&] {
    log(0, "nameless");
    second = g_tid;
    TSLB_DLOG_THREAD_NAME(nullptr);
    log(0, "dash");
    tslb_dl_set_thname_internal("");
    log(0, "dash");
    EXPECT_EQ(g_tid, second) << "a thread changed its number";
  }).join();
  EXPECT_EQ(second, first + 1);
  const std::string one = std::to_string(first), two = std::to_string(second), name(31, 'n');
  const std::string want = one + "|" + name + "|named\n" + one + "|" + name + "|named\n" + two + "||nameless\n" + two +
                           "|-|dash\n" + two + "|-|dash\n";
  const std::regex prefix_pattern(".*\\|place\\|" + std::to_string(getpid()) + "\\|");
  EXPECT_EQ(std::regex_replace(lines_of(0), prefix_pattern, ""), want);
}

TEST_F(DebugLog, NullAndLongTextsDoNotCrash) {
  start();
  tslb_dl_logging(0, nullptr, nullptr, 1, "text");
  tslb_dl_logging(0, "", "", 1, "text");
  static const char *const ends[][2] = {{"/of_a_long_path.cpp", "|of_a_long_path.cpp|1|"},
                                        {"/of_a_folder//", "|of_a_folder|1|"}};
  for (const auto &[end, name] : ends) {
    tslb_dl_logging(0, (std::string(2000, 'd') + end).c_str(), "f", 1, "text");
    EXPECT_NE(lines_of(0).find(name), std::string::npos) << end;
  }
  EXPECT_EQ(count_of(lines_of(0), "\n"), 4u);
  tslb_dl_init_internal(nullptr, -1000, -1);
  EXPECT_STREQ(g_dl->fname_abs, "/tmp/tslb_dlog");
}

TEST_F(DebugLog, StandardOutputHasNoFileAndStaysOpen) {
  const std::string said = stdout_of([] {
    tslb_dl_init_internal("stdout", 0, 0);
    log(0, "one");
    log(0, "two");
    tslb_dl_init_internal("", 0, 0);  // an empty path also means standard output
    log(0, "three");
  });
  EXPECT_EQ(count_of(said, "\n"), 3u);
  EXPECT_NE(said.find("|one\n"), std::string::npos);
  start();
  EXPECT_GE(fcntl(1, F_GETFD), 0) << "standard output was closed";

  // It is not closed either if it has the number of the log's file.
  const int hosts = dup(1);
  close(1);
  log(0, "into number 1");
  const int number = g_dl->fd;
  dup2(hosts, 1);
  close(hosts);
  start(0, -1, "2");
  EXPECT_EQ(number, 1);
  EXPECT_GE(fcntl(1, F_GETFD), 0) << "standard output was closed";
}

TEST_F(DebugLog, SecondStartClosesTheFileAndKeepsCounting) {
  start();
  log(0, "x");
  const int fd = g_dl->fd;
  const unsigned int n_threads = g_dl->n_threads;
  TSLBDLog_t *const before = g_dl;
  start(5, 3, "2");
  EXPECT_EQ(g_dl, before);
  EXPECT_EQ(fcntl(fd, F_GETFD), -1) << "the first file's descriptor leaked";
  EXPECT_EQ(g_dl->n_threads, n_threads);
  EXPECT_EQ(g_dl->level, 5);
  EXPECT_EQ(g_tid, -1);
  // Given its own path: only the level changes.
  tslb_dl_init_internal(g_dl->fname_abs, 4, -1);
  EXPECT_EQ(g_dl->fname_abs, base_.string() + "2");
  EXPECT_EQ(g_dl->level, 4);
}

TEST_F(DebugLog, FailuresAreReportedAndTheNextLineTriesAgain) {
  const auto expect_report = [](const std::string &report, const std::string &tail) {
    static const std::regex head("^tslb_dlog.cpp\\|\\d+\\|tslb_dl_fwrite\\|Error: failed to ");
    EXPECT_TRUE(std::regex_search(report, head) && report.find(tail) != std::string::npos) << report;
  };
  const std::string missing = (dir_ / "no" / "log").string();
  tslb_dl_init_internal(missing.c_str(), 0, -1);
  expect_report(stderr_of([] { log(0, "lost"); }), "open file " + missing + ". err(2)=No such file or directory\n");
  fs::create_directory(dir_ / "no");
  EXPECT_EQ(stderr_of([] { log(0, "kept"); }), "");
  EXPECT_TRUE(fs::exists(missing + "." + std::to_string(getpid()) + ".0")) << "the versions do not begin again at 0";

  const std::string too_long = dir_.string() + "/" + std::string(1023 - dir_.string().size() - 1 - 5, 'l');
  tslb_dl_init_internal(too_long.c_str(), 0, -1);
  expect_report(stderr_of([] { log(0, "lost"); }), "open file " + too_long + ". err(36)=File name too long\n");

  // Standard output has no name.
  const int hosts = dup(1), full = open("/dev/full", O_WRONLY);
  tslb_dl_init_internal("stdout", 0, -1);
  dup2(full, 1);
  const std::string report = stderr_of([] { log(0, "lost"); });
  dup2(hosts, 1);
  for (const int fd : {hosts, full}) close(fd);
  expect_report(report, "write into file = , fd = 1. err(28)=No space left on device\n");

  // A full disk.
  fs::create_symlink("/dev/full", file(0));
  start();
  const std::string name = file(0).string() + ", fd = ";
  expect_report(stderr_of([] { log(0, "lost with the header"); }), "write file header into file = " + name);
  expect_report(stderr_of([] { log(0, "lost; a header gets no second attempt"); }), "write into file = " + name);
  fs::remove(file(0));
  EXPECT_EQ(stderr_of([] { log(0, "kept"); }), "");
  EXPECT_TRUE(has_line(0, "kept"));
}

TEST_F(DebugLog, LinesOfManyThreadsAreWholeAndUnique) {
  constexpr int kThreads = 4, kLines = 1500;
  start(0, 0);  // a new file for each line
  g_dl->fmax_sz = 20000;
  on_threads(kThreads, [](int self) {
    for (int i = 0; i < kLines; ++i)
      TSLB_DLOG(0, "[%d:%d] %s", self, i, std::string(static_cast<size_t>(i % 90), 'x').c_str());
  });
  std::map<std::pair<int, int>, int> seen;
  int last[kThreads] = {-1, -1, -1, -1};
  for (int version = 0; fs::exists(file(version)); ++version) {
    EXPECT_LT(fs::file_size(file(version)), 20000u + 4096);
    std::istringstream lines(lines_of(version));
    for (std::string line; std::getline(lines, line);) {
      int self, i;
      const size_t at = line.find('[');
      ASSERT_EQ(sscanf(line.c_str() + at, "[%d:%d] ", &self, &i), 2) << line;
      ASSERT_EQ(line.substr(line.find("] ") + 2), std::string(static_cast<size_t>(i % 90), 'x')) << line;
      ++seen[{self, i}];
      EXPECT_EQ(i, last[self] + 1) << "a thread's lines changed their order";
      last[self] = i;
    }
  }
  EXPECT_EQ(seen.size(), size_t{kThreads * kLines});
}
