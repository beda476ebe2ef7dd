// Tests of processes and commands: real children of every kind, pid files, and the SIGCHLD handler before and after.
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <tslb/tslb_settings.h>
#include <tslb/tslb_util.h>
#include "array_support.h"
#include "fault_alloc.h"
#include "system_support.h"

// A path whose open is redirected to another file, or fails.
static const char *redirected, *redirected_to;

static bool is_redirected(const char *path) {
  return redirected != nullptr && std::string(path).find(redirected) != std::string::npos;
}

extern "C" __attribute__((visibility("default"))) FILE *fopen(const char *path, const char *mode) {
  static const auto real = reinterpret_cast<decltype(&fopen)>(dlsym(RTLD_NEXT, "fopen"));
  if (!is_redirected(path)) return real(path, mode);
  return redirected_to != nullptr ? real(redirected_to, mode) : nullptr;
}

extern "C" __attribute__((visibility("default"))) int stat(const char *path, struct stat *found) noexcept {
  static const auto real = reinterpret_cast<int (*)(const char *, struct stat *)>(dlsym(RTLD_NEXT, "stat"));
  if (!is_redirected(path)) return real(path, found);
  errno = ENOENT;
  return -1;
}

// A child with the given name, which waits to be killed.
class child_t {
 public:
  explicit child_t(const char *name) {
    int ready[2];
    if (pipe(ready) != 0) abort();
    pid_ = fork();
    if (pid_ == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      prctl(PR_SET_NAME, name);
      if (write(ready[1], "r", 1) != 1) _exit(9);
      for (;;) pause();
    }
    char byte;
    if (read(ready[0], &byte, 1) != 1) abort();
    close(ready[0]);
    close(ready[1]);
  }
  ~child_t() { end(); }
  void die() {  // becomes a zombie
    kill(pid_, SIGKILL);
    waitid(P_PID, static_cast<id_t>(pid_), nullptr, WEXITED | WNOWAIT);
  }
  void end() {
    if (pid_ <= 0) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = 0;
  }
  pid_t pid() const { return pid_; }

 private:
  pid_t pid_;
};

TEST(Alive, ByNumberAndName) {
  child_t child("exactly_fifteen");
  EXPECT_EQ(tslb_check_is_process_zombie(child.pid()), 1);
  EXPECT_EQ(tslb_check_pid_alive(child.pid(), nullptr), 1);
  EXPECT_EQ(tslb_check_pid_alive(child.pid(), "exactly_fifteen"), 1);
  EXPECT_EQ(tslb_check_pid_alive(child.pid(), "exactly_fifteen_and_more"), 0);
  EXPECT_EQ(tslb_check_pid_alive(child.pid(), "exactly_fiftee"), 0);
  EXPECT_EQ(tslb_check_pid_alive(child.pid(), "other"), 0);
  const pid_t pid = child.pid();
  child.die();
  EXPECT_EQ(tslb_check_is_process_zombie(pid), 0);
  EXPECT_EQ(kill(pid, 0), 0) << "kill does not report the zombie as alive";
  EXPECT_EQ(tslb_check_pid_alive(pid, nullptr), 0);
  child.end();
  EXPECT_EQ(tslb_check_is_process_zombie(pid), 2);
  EXPECT_EQ(tslb_check_pid_alive(pid, nullptr), 0);
  EXPECT_EQ(tslb_check_pid_alive(0, nullptr), 0);
  EXPECT_EQ(tslb_check_pid_alive(-1, nullptr), 0);
}

TEST(Alive, NameOfAnotherUsersProcessIsNotCompared) {
  const uid_t own = getuid(), other = own == 0 ? 65533 : own;
  ASSERT_EQ(setresuid(other, other, own), 0);
  const bool is_anothers = kill(1, 0) != 0 && errno == EPERM;
  const int alive = tslb_check_pid_alive(1, "wrong name");
  redirected = "/proc/";  // as if /proc hid processes of other users, or the process had ended
  const int hidden = tslb_check_pid_alive(1, "wrong name");
  redirected = nullptr;
  ASSERT_EQ(setresuid(own, own, own), 0);
  prctl(PR_SET_DUMPABLE, 1);  // a change of the user clears it, and a sanitizer needs it
  if (!is_anothers) GTEST_SKIP() << "process 1 belongs to this user";
  EXPECT_EQ(alive, 1);
  EXPECT_EQ(hidden, 0);
}

// A process can end between two reads of its files.
TEST(Alive, FilesThatDisappear) {
  static const struct {
    const char *fault, *file, *shows, *name;
    int zombie, alive;
  } rows[] = {
      {"a name that cannot be read does not match", "/comm", nullptr, "theirs", 1, 1},
      {"an empty name matches", "/comm", "/dev/null", "theirs", 1, 0},
      {"a process without a state is a zombie", "/status", "/dev/null", "busy", 2, 1},
  };
  const child_t child("busy");
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    redirected = row.file;
    redirected_to = row.shows;
    EXPECT_EQ(tslb_check_is_process_zombie(child.pid()), row.zombie);
    EXPECT_EQ(tslb_check_pid_alive(child.pid(), row.name), row.alive);
    redirected = nullptr;
  }
}

class PidFile : public InFolder {
 protected:
  void SetUp() override { memset(error_, 'e', sizeof(error_)); }
  void TearDown() override { unsetenv("QX_WDIR"); }
  void write(const std::string &text) { std::ofstream(dir_ / ".Part.pid") << text; }
  int get(const char *bin_name) {
    said_ = stdout_of([&] { result_ = tslb_get_pid(dir_.c_str(), "Part", bin_name, error_); });
    return result_;
  }
  char error_[512];
  std::string said_;
  int result_;
};

TEST_F(PidFile, FilesThatNameNoProcess) {
  EXPECT_EQ(get("x"), -1);
  EXPECT_EQ(std::string(error_), "Not able to open " + (dir_ / ".Part.pid").string() + " file, so returning.\n");
  static const struct {
    const char *fault, *text, *said;
  } rows[] = {
      {"empty file", "", "Error in reading pid"},
      {"no number", "abc", "invalid pid [abc] found"},
      {"no number on the first line", "abc\n17\n", "invalid pid [abc] found"},
      {"zero", "0\n", "invalid pid [0] found"},
      {"more read than seven characters", "abcdefghij", "invalid pid [abcdefg] found"},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    write(row.text);
    EXPECT_EQ(get("x"), -2);
    EXPECT_EQ(said_, std::string("Component: Part, ") + row.said + ", so returning.");
  }
}

TEST_F(PidFile, NamesAreCompared) {
  static const struct {
    const char *fault, *process, *bin_name;
    bool matches;
  } rows[] = {
      {"same name", "velomark", "velomark", true},
      {"another name", "velomark", "other", false},
      {"a longer name than ps shows", "fifteen_letters", "fifteen_letters_and_more", true},
      {"the name before the dot", "velomark.new", "velomark", true},
      {"a part of the name before the dot", "velo.x", "velomark", true},
      {"another name before the dot", "vexo.x", "velomark", false},
      {"nothing before the dot", ".x", "velomark", true},
      {"dot on the wrong side", "velomark", "velomark.new", false},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    const child_t child(row.process);
    write(std::to_string(child.pid()) + "\n");
    EXPECT_EQ(get(row.bin_name), row.matches ? child.pid() : -4);
    EXPECT_EQ(said_, row.matches ? "" : "Binary name not matched.\n");
    EXPECT_EQ(std::string(error_).rfind("Method called. Command = ps -p ", 0), 0u) << error_;
  }
}

TEST_F(PidFile, OwnNameAndProcessesThatEnded) {
  char own[16] = {};
  prctl(PR_GET_NAME, own);
  write(std::to_string(child_t(own).pid()));
  EXPECT_EQ(get(nullptr), -5);
  EXPECT_EQ(said_, "");
  EXPECT_EQ(get("x"), -5);
  const child_t child(own);
  write(std::to_string(child.pid()));
  EXPECT_EQ(get(nullptr), child.pid());
}

// A ps that shows the name of one process only.
TEST_F(PidFile, WithoutAnOwnNameNoProcessMatches) {
  std::ofstream(dir_ / "ps") << "#!/bin/sh\n[ $2 != 17 ] || echo name\n";
  fs::permissions(dir_ / "ps", fs::perms(0755));
  const std::string path = getenv("PATH");
  setenv("PATH", (dir_.string() + ":" + path).c_str(), 1);
  write("17");
  EXPECT_EQ(get("name"), 17);
  EXPECT_EQ(get(nullptr), -5);
  setenv("PATH", path.c_str(), 1);
}

TEST_F(PidFile, PathsThatDoNotFitAreRefusedNotCut) {
  // Cut at 1,023 characters, this path names a pid file of a live process.
  std::string deep = dir_.string();
  while (deep.size() < 900) deep += "/.";
  const std::string component(600, 'c');
  const std::string cut = (deep + "/." + component + ".pid").substr(0, 1023);
  std::ofstream(cut) << getpid();
  ASSERT_TRUE(fs::exists(cut));
  EXPECT_EQ(tslb_get_pid(deep.c_str(), component.c_str(), "x", error_), -1);
  EXPECT_EQ(std::string(error_).rfind("Not able to open ", 0), 0u);
  EXPECT_LT(strlen(error_), 511u);
}

TEST_F(PidFile, MainComponentOfARun) {
  EXPECT_EQ(check_tarnhub_pid_alive(), -1) << "no QX_WDIR";
  setenv("QX_WDIR", dir_.c_str(), 1);
  fs::create_directories(dir_ / "logs" / "TR17" / ".pidfiles");
  const child_t child("velomark.17");
  std::ofstream(dir_ / "logs" / "TR17" / ".pidfiles" / ".TarnHub.pid") << child.pid();
  EXPECT_EQ(check_tarnhub_pid_alive_ex(17), child.pid());
  EXPECT_EQ(check_tarnhub_pid_alive_tr(17), child.pid());
  EXPECT_EQ(check_tarnhub_pid_alive_ex(18), -1);
  tslb_testidx = 17;
  EXPECT_EQ(check_tarnhub_pid_alive(), child.pid());
  tslb_testidx = 0;
  // One character too long: cut, this path names a directory with a pid file of a live process.
  std::string padded = dir_.string();
  const std::string tail = "/logs/TR17/.pidfiles";
  while (padded.size() + tail.size() < 255) padded += "/.";
  padded.resize(256 - tail.size(), '/');
  const std::string cut = (padded + tail).substr(0, 255);
  fs::create_directories(cut);
  std::ofstream(cut + "/.TarnHub.pid") << child.pid();
  setenv("QX_WDIR", padded.c_str(), 1);
  EXPECT_EQ(check_tarnhub_pid_alive_ex(17), -1);
}

static volatile sig_atomic_t hosts_signals;
static void hosts_handler(int) {
  hosts_signals = hosts_signals + 1;
}

static volatile sig_atomic_t hosts_code;  // of the last signal
static void hosts_handler_with_info(int, siginfo_t *info, void *) {
  hosts_handler(SIGCHLD);
  hosts_code = info->si_code;
}

// Every function runs with a handler of the host installed. The handler is not called meanwhile and is restored with
// its flags and mask. No descriptor and no child remains.
class Commands : public testing::Test {
 protected:
  void SetUp() override {
    struct sigaction hosts = {};
    hosts.sa_sigaction = hosts_handler_with_info;
    hosts.sa_flags = SA_SIGINFO | SA_NODEFER | SA_NOCLDSTOP;
    sigaddset(&hosts.sa_mask, SIGUSR2);
    sigaction(SIGCHLD, &hosts, nullptr);
    sigaction(SIGCHLD, nullptr, &hosts_);
    hosts_signals = 0;
    descriptors_ = open_descriptors();
  }
  void TearDown() override {
    EXPECT_EQ(hosts_signals, 0) << "the host's handler was called for the library's children";
    struct sigaction after;
    sigaction(SIGCHLD, nullptr, &after);
    EXPECT_EQ(after.sa_sigaction, hosts_.sa_sigaction) << "the host's SIGCHLD handler was not restored";
    EXPECT_EQ(after.sa_flags, hosts_.sa_flags);
    for (int signal = 1; signal < NSIG; ++signal)
      EXPECT_EQ(sigismember(&after.sa_mask, signal), sigismember(&hosts_.sa_mask, signal)) << signal;
    raise(SIGCHLD);
    EXPECT_EQ(hosts_code, SI_TKILL) << "the host's handler was called without its arguments";
    signal(SIGCHLD, SIG_DFL);
    EXPECT_EQ(open_descriptors(), descriptors_);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child was not waited for";
  }
  struct sigaction hosts_;
  size_t descriptors_;
};

TEST(CommandsWithIgnoredSigchld, AreWaitedForToo) {
  signal(SIGCHLD, SIG_IGN);
  char err_msg[256], out[16], error[512];
  EXPECT_EQ(tslb_system("exit 3", err_msg), 3);
  EXPECT_EQ(tslb_run_cmd_and_get_last_line("echo x", 16, out, error), 0);
  EXPECT_STREQ(error, "Method called. Command = echo x") << "pclose found no child";
  EXPECT_EQ(signal(SIGCHLD, SIG_DFL), SIG_IGN);
}

TEST_F(Commands, ExitStatus) {
  static const struct {
    const char *command;
    int result;
    const char *text;
  } rows[] = {
      {"true", 0, "untouched"},
      {"exit 3", 3, "Error in running command with exit status = 3. Err["},
      {"exit 255", 255, "Error in running command with exit status = 255. Err["},
      {"kill -9 $$", 9, "untouched"},
      {"no_such_command_here 2>/dev/null", 127, "Error in running command with exit status = 127. Err["},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.command);
    char err_msg[256] = "untouched";
    EXPECT_EQ(tslb_system(row.command, err_msg), row.result);
    EXPECT_EQ(std::string(err_msg).rfind(row.text, 0), 0u) << err_msg;
    if (row.text[0] == 'u') continue;
    const std::string tail = err_msg + strlen(row.text);
    const int err = atoi(tail.c_str());
    EXPECT_EQ(tail, std::to_string(err) + "]: " + strerror(err) + ". Command = " + row.command);
  }
  char bounded[257];
  bounded[256] = 'g';
  EXPECT_EQ(tslb_system(("exit 3 # " + std::string(1000, 'x')).c_str(), bounded), 3);
  EXPECT_EQ(strlen(bounded), 255u);
  EXPECT_EQ(bounded[256], 'g');
}

// Another thread of the host reaps every child before the library waits for it.
static bool children_are_taken;
static int n_pipes, n_inherited;  // of commands; those that a child of another thread would have got

extern "C" __attribute__((visibility("default"))) int pclose(FILE *from) {
  static const auto real = reinterpret_cast<int (*)(FILE *)>(dlsym(RTLD_NEXT, "pclose"));
  ++n_pipes;
  n_inherited += (fcntl(fileno(from), F_GETFD) & FD_CLOEXEC) == 0;
  if (children_are_taken) waitpid(-1, nullptr, 0);
  return real(from);
}
extern "C" __attribute__((visibility("default"))) int system(const char *command) {
  static const auto real = reinterpret_cast<int (*)(const char *)>(dlsym(RTLD_NEXT, "system"));
  const int status = real(command);
  if (!children_are_taken) return status;
  errno = ECHILD;
  return -1;
}

TEST_F(Commands, PipesAreNotInheritedByOtherChildren) {
  char out[16], error[512];
  n_pipes = n_inherited = 0;
  EXPECT_EQ(tslb_run_cmd_and_get_last_line("echo x", 16, out, error), 0);
  EXPECT_EQ(tslb_exe_command_and_get_op("echo x", error, out, 16), out);
  EXPECT_EQ(n_pipes, 2);
  EXPECT_EQ(n_inherited, 0);
}

// fgets fails from this call on; 0 for none.
static int fails_before_piece;

extern "C" __attribute__((visibility("default"))) char *fgets(char *text, int room, FILE *from) {
  static const auto real = reinterpret_cast<char *(*)(char *, int, FILE *)>(dlsym(RTLD_NEXT, "fgets"));
  if (fails_before_piece > 0 && --fails_before_piece == 0) {
    const int folder = open("/", O_RDONLY | O_CLOEXEC);  // read() of it fails
    dup3(folder, fileno(from), O_CLOEXEC);
    close(folder);
  }
  return real(text, room, from);
}

TEST_F(Commands, FailedReadKeepsTheLastCompletePiece) {
  static const struct {
    const char *fault, *command;
    bool whole;
    int fails_before, room;
    const char *output;
  } rows[] = {
      {"start of a line that was not read completely", "printf 'one\\ntw'", false, 2, 100, "one"},
      {"start of a piece", "printf abcdefg", false, 2, 6, "abcde"},
      {"a piece longer than the buffer on the stack", "printf 'one\\ntw'", false, 2, 5000, "one"},
      {"text from before the call treated as a piece", "printf 'one\\n'", false, 1, 100, "before"},
      {"whole output", "printf 'one\\ntw'", true, 2, 100, "one\n"},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    std::string output(5000, '\0');
    output.replace(0, 6, "before");
    char said[512];
    fails_before_piece = row.fails_before;
    if (row.whole)
      tslb_exe_command_and_get_op(row.command, said, output.data(), row.room);
    else
      EXPECT_EQ(tslb_run_cmd_and_get_last_line(row.command, row.room, output.data(), said), 0);
    EXPECT_EQ(fails_before_piece, 0) << "the read did not fail";
    EXPECT_STREQ(output.c_str(), row.output);
  }
}

TEST_F(Commands, ChildReapedByAnotherThreadIsNoFailure) {
  char out[16], error[513], err_msg[256];
  error[512] = 'g';
  const std::string command = "echo x # " + std::string(600, 'l');
  children_are_taken = true;
  EXPECT_EQ(tslb_run_cmd_and_get_last_line(command.c_str(), 16, out, error), 0);
  EXPECT_EQ(tslb_system("true", err_msg), -1) << "a result for an unknown exit status";
  children_are_taken = false;
  EXPECT_STREQ(out, "x");
  EXPECT_EQ(std::string(error).rfind("Error: Error in pclose() after executing following cmd: 'echo x #", 0), 0u);
  EXPECT_EQ(strlen(error), 510u) << "not cut to its buffer";
  EXPECT_EQ(error[512], 'g');
  EXPECT_STREQ(err_msg, "Error in running command. Err[10]: No child processes. Command = true");
}

// The last line of a command's output, or all of it.
TEST_F(Commands, OutputIsCutToItsBuffer) {
  static const struct {
    const char *fault, *command;
    bool whole;
    int room;
    const char *output;
  } rows[] = {
      {"first line kept", "printf 'one\\ntwo\\nthree\\n'", false, 100, "three"},
      {"last line needs a newline", "printf 'one\\ntwo'", false, 100, "two"},
      {"output depends on the exit status", "echo line; exit 1", false, 100, "line"},
      {"emptied without output", "true", false, 100, "before"},
      {"whole line kept", "echo abcdefgh", false, 6, "fgh"},
      {"piece that is a newline", "echo abcde", false, 6, ""},
      {"no room for a character", "echo abc", false, 1, ""},
      {"no room and nothing written", "true", false, 1, "before"},
      {"newlines dropped", "printf 'one\\ntwo\\n'", true, 100, "one\ntwo\n"},
      {"terminator not counted", "printf abcdefgh", true, 6, "abcde"},
      {"several pieces exceed the buffer", "printf 'ab\\ncd\\nef\\n'", true, 6, "ab\ncd"},
      {"no room for a character", "echo abc", true, 1, ""},
      {"old text kept", "true", true, 100, ""},
      {"waits for a command that never ends", "yes", true, 5, "y\ny\n"},
  };
  for (const auto &row : rows) {
    SCOPED_TRACE(row.fault);
    char output[100] = "before", said[512] = "untouched";
    if (row.whole)
      EXPECT_EQ(tslb_exe_command_and_get_op(row.command, said, output, row.room), output);
    else
      EXPECT_EQ(tslb_run_cmd_and_get_last_line(row.command, row.room, output, said), 0);
    EXPECT_STREQ(output, row.output);
    EXPECT_EQ(said, row.whole ? "untouched" : std::string("Method called. Command = ") + row.command);
  }
  // A line longer than any stack.
  static const char kLong[] = "head -c 2000000 /dev/zero | tr '\\0' a";
  std::string line(3 << 20, '\0'), all = line;
  char said[512];
  EXPECT_EQ(tslb_run_cmd_and_get_last_line(kLong, 3 << 20, line.data(), said), 0);
  tslb_exe_command_and_get_op(kLong, nullptr, all.data(), 3 << 20);
  EXPECT_EQ(strlen(line.data()), 2000000u);
  EXPECT_EQ(strlen(all.data()), 2000000u);
}

TEST_F(Commands, RefusedOutput) {
  char out[8] = "before", said[513];
  said[512] = 'g';
  const std::string long_command = "true # " + std::string(1000, 'x');
  EXPECT_EQ(tslb_run_cmd_and_get_last_line(long_command.c_str(), 0, out, said), -1);
  EXPECT_LT(strlen(said), 511u);
  EXPECT_EQ(tslb_exe_command_and_get_op("true", said, out, 0), nullptr);
  EXPECT_EQ(tslb_exe_command_and_get_op("true", nullptr, out, -5), nullptr);
  EXPECT_STREQ(out, "before");
  const std::string report = stderr_of([&] {
    const fault_t fault(1);
    EXPECT_EQ(tslb_run_cmd_and_get_last_line("true", 5000, out, said), -1);
  });
  EXPECT_EQ(report, "Error: Error in executing command = true. Error = Cannot allocate memory\n");
  EXPECT_STREQ(out, "before");
  EXPECT_EQ(stderr_of([&] {
              const limit_t no_process_can_be_started(RLIMIT_NOFILE, 3);
              EXPECT_EQ(tslb_run_cmd_and_get_last_line("true", 8, out, said), -1);
              EXPECT_EQ(tslb_exe_command_and_get_op("true", said, out, 8), nullptr);
              EXPECT_EQ(tslb_exe_command_and_get_op("true", nullptr, out, 8), nullptr);
            }),
            "Error: Error in executing command = true. Error = Too many open files\n");
  EXPECT_STREQ(said, "command execution failed, error - Too many open files");
  EXPECT_EQ(said[512], 'g');
}
