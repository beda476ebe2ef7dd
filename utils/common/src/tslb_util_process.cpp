// Checks whether processes run: by process id, with /proc and kill; by pid file, with ps.
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tslb_settings.h"
#include "tslb_util_common.h"

constexpr size_t ERROR_BUFFER_ROOM = 511;
constexpr size_t COMM_LEN = 15;  // the kernel, and so ps, keeps this much of a process's name
constexpr size_t LINE_ROOM = 1024;

// Path of a file of /proc for one process.
struct proc_path_t {
  char text[64];
  proc_path_t(pid_t pid, const char *file) { snprintf(text, sizeof(text), "/proc/%d%s", pid, file); }
};

// ---- By number -----------------------------------------------------------------------------------------------------

int tslb_check_is_process_zombie(pid_t pid) {
  FILE *const status = fopen(proc_path_t(pid, "/status").text, "r");
  if (status == nullptr) return 2;
  int answer = 2;
  char line[100];
  while (fgets(line, sizeof(line), status) != nullptr) {
    if (strncmp(line, "State:", 6) != 0) continue;
    const char *state = line + 7;
    state += strspn(state, " \t");
    answer = *state == 'Z' ? 0 : 1;
    break;
  }
  fclose(status);
  return answer;
}

// A process whose name cannot be read counts as a match.
static bool has_name(pid_t pid, const char *proc_name) {
  FILE *const comm = fopen(proc_path_t(pid, "/comm").text, "r");
  if (comm == nullptr) return true;
  char name[COMM_LEN + 1] = "";
  if (fgets(name, sizeof(name), comm) == nullptr) name[0] = '\0';
  fclose(comm);
  name[strcspn(name, "\n")] = '\0';
  return strncmp(proc_name, name, sizeof(name)) == 0;
}

int tslb_check_pid_alive(pid_t pid, const char *proc_name) {
  // kill treats a negative number as a process group. No process has such a number.
  if (pid <= 0) return 0;
  if (tslb_check_is_process_zombie(pid) == 0) return 0;
  if (kill(pid, 0) == 0) return proc_name == nullptr || has_name(pid, proc_name) ? 1 : 0;
  if (errno != EPERM) return 0;
  struct stat ignored;
  return stat(proc_path_t(pid, "").text, &ignored) == 0 ? 1 : 0;
}

// ---- By pid file ---------------------------------------------------------------------------------------------------

// Reads the name that ps gives a process. `name` is empty if ps does not know the process.
static void name_by_ps(int pid, char (&name)[LINE_ROOM], char *error_buffer) {
  char command[64];
  snprintf(command, sizeof(command), "ps -p %d -o comm=", pid);
  name[0] = '\0';
  tslb_run_cmd_and_get_last_line(command, sizeof(name), name, error_buffer);
}

// Reads the process id on a file's first line; 0 after a text on stdout.
static int read_pid(FILE *file, const char *component) {
  char line[8];
  if (fgets(line, sizeof(line), file) == nullptr) {
    printf("Component: %s, Error in reading pid, so returning.", component);
    return 0;
  }
  line[strcspn(line, "\n")] = '\0';
  const int pid = atoi(line);
  if (pid == 0) printf("Component: %s, invalid pid [%s] found, so returning.", component, line);
  return pid;
}

// Compares the 15 characters that ps shows or, for a name with a dot, the part before the dot.
static bool names_match(const char *running, const char *expected) {
  if (strncmp(running, expected, COMM_LEN) == 0) return true;
  const char *const dot = strchr(running, '.');
  if (dot == nullptr) return false;
  const size_t len = static_cast<size_t>(dot - running);
  return strncmp(running, expected, len) == 0;
}

// Writes the text, cut to the buffer if the path is long.
static void report_no_file(char *error_buffer, const char *path) {
  const int shown = snprintf(error_buffer, ERROR_BUFFER_ROOM, "Not able to open %s file, so returning.\n", path);
  if (shown < 0) error_buffer[0] = '\0';
}

int tslb_get_pid(const char *base_dir, const char *component, const char *bin_name, char *error_buffer) {
  char path[LINE_ROOM];
  const int path_len = snprintf(path, sizeof(path), "%s/.%s.pid", base_dir, component);
  // A path that does not fit is refused: cut, it could name another file.
  const bool fits = path_len >= 0 && static_cast<size_t>(path_len) < sizeof(path);
  FILE *const file = fits ? fopen(path, "r") : nullptr;
  if (file == nullptr) {
    report_no_file(error_buffer, path);
    return -1;
  }
  const int i_pid = read_pid(file, component);
  fclose(file);
  if (i_pid == 0) return -2;

  char cmd_out[LINE_ROOM], tmp_cmd_out[LINE_ROOM];
  name_by_ps(i_pid, cmd_out, error_buffer);
  if (cmd_out[0] == '\0') return -5;
  if (bin_name != nullptr)
    snprintf(tmp_cmd_out, sizeof(tmp_cmd_out), "%s", bin_name);
  else
    name_by_ps(getpid(), tmp_cmd_out, error_buffer);
  if (bin_name == nullptr && tmp_cmd_out[0] == '\0') return -5;
  if (names_match(cmd_out, tmp_cmd_out)) return i_pid;
  printf("Binary name not matched.\n");
  return -4;
}

int check_tarnhub_pid_alive_ex(int test_num) {
  const char *const work_dir = getenv("QX_WDIR");
  if (work_dir == nullptr) return -1;
  char base_dir[256];
  const int len = snprintf(base_dir, sizeof(base_dir), "%s/logs/TR%d/.pidfiles", work_dir, test_num);
  if (len < 0 || static_cast<size_t>(len) >= sizeof(base_dir)) return -1;
  char error_buff[512];
  return tslb_get_pid(base_dir, "TarnHub", "velomark", error_buff);
}

int check_tarnhub_pid_alive_tr(int test_num) {
  return check_tarnhub_pid_alive_ex(test_num);
}
int check_tarnhub_pid_alive(void) {
  return check_tarnhub_pid_alive_ex(tslb_testidx);
}
