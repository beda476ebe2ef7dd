// The debug log. One mutex is held from a line's time stamp to its write. Lines are therefore in the order of their
// stamps, and a rollover happens between two lines.
#include "tslb_dlog.h"

#include <errno.h>
#include <fcntl.h>
#include <libgen.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tslb_atomics.h"
#include "tslb_text.h"
#include "tslb_util.h"

TSLBDLog_t *g_dl = nullptr;
__thread int g_tid = -1;
__thread char g_thname[33];

constexpr char DEFAULT_BASE[] = "/tmp/tslb_dlog";
constexpr char FILE_HEADER[] = "#DateTime|FileName|LineNo|FunName|PID|TID|THName|Msg\n";
constexpr size_t FILE_HEADER_LEN = sizeof(FILE_HEADER) - 1;
constexpr size_t BASE_LEN = 1023;
constexpr size_t LINE_BYTES = 4096;  // with the newline
constexpr size_t NAME_LEN = 31;
constexpr int DEFAULT_MIB = 10;
constexpr int MIB_MAX = 2047;  // in bytes a larger value does not fit an int

// Acquire. Pairs with the barrier of the swap that published the log: a reader that sees the log also sees its
// settings.
static TSLBDLog_t *current_log() {
  return __atomic_load_n(&g_dl, __ATOMIC_ACQUIRE);
}

static void close_file(TSLBDLog_t *log) {
  const int fd = log->fd;
  // Before the close: a child forked in between must not close another file with the same number.
  log->fd = -1;
  if (fd > 0) close(fd);
}

// ---- Initialisation ------------------------------------------------------------------------------------------------

static void set_up(TSLBDLog_t *log, const char *dlog_fname, int dlevel, int fmax_sz) {
  // A copy, because dlog_fname can be the log's own path if the host changes only the level.
  char base[BASE_LEN + 1];
  const bool to_stdout = dlog_fname != nullptr && strcmp(dlog_fname, "stdout") == 0;
  snprintf(base, sizeof(base), "%s", to_stdout ? "" : dlog_fname != nullptr ? dlog_fname : DEFAULT_BASE);
  // Only files that the log opened. Standard output belongs to the process, also if the log was given it as a file.
  const bool owns_file = log->fname_abs[0] != '\0' && log->fd != STDOUT_FILENO;
  if (owns_file) close_file(log);
  const int mib = fmax_sz < 0 ? DEFAULT_MIB : fmax_sz > MIB_MAX ? MIB_MAX : fmax_sz;
  __atomic_store_n(&log->pid, getpid(), __ATOMIC_RELAXED);
  log->fver = -1;
  log->fmax_sz = mib << 20;
  log->fd = base[0] == '\0' ? STDOUT_FILENO : -1;
  memcpy(log->fname_abs, base, sizeof(base));
  __atomic_store_n(&log->level, dlevel, __ATOMIC_RELAXED);
}

// Returns a log that is set up and not published yet; null after a report.
static TSLBDLog_t *make_log(const char *dlog_fname, int dlevel, int fmax_sz) {
  TSLBDLog_t *const log = static_cast<TSLBDLog_t *>(calloc(1, sizeof(TSLBDLog_t)));
  if (log == nullptr) {
    fprintf(stderr, "Error: failed to allocate memory for DLOG handle of size %ld.\n",
            static_cast<long>(sizeof(TSLBDLog_t)));
    return nullptr;
  }
  pthread_mutex_init(&log->dl_thlock, nullptr);
  set_up(log, dlog_fname, dlevel, fmax_sz);
  return log;
}

void tslb_dl_init_internal(const char *dlog_fname, int dlevel, int fmax_sz) {
  TSLBDLog_t *log = current_log();
  if (log == nullptr) {
    log = make_log(dlog_fname, dlevel, fmax_sz);
    if (log == nullptr) return;
    if (cas64(reinterpret_cast<uint64_t *>(&g_dl), 0, reinterpret_cast<uint64_t>(log)) == 0) {
      free(log);  // another thread published its log first; it gets the new settings below
      log = nullptr;
    }
  } else {
    log = nullptr;
  }
  if (log == nullptr) {
    TSLBDLog_t *const running = current_log();
    // In a child of fork, a thread that does not exist in the child can hold the lock.
    if (__atomic_load_n(&running->pid, __ATOMIC_RELAXED) != getpid()) pthread_mutex_init(&running->dl_thlock, nullptr);
    pthread_mutex_lock(&running->dl_thlock);
    set_up(running, dlog_fname, dlevel, fmax_sz);
    pthread_mutex_unlock(&running->dl_thlock);
  }
  g_tid = -1;
  snprintf(g_thname, sizeof(g_thname), "-");
}

// ---- Threads -------------------------------------------------------------------------------------------------------

static void tslb_dl_set_thid(TSLBDLog_t *log) {
  if (g_tid == -1) g_tid = static_cast<int>(get_and_inc32(&log->n_threads, 1));
}

void tslb_dl_set_thname_internal(const char *thname) {
  TSLBDLog_t *const log = current_log();
  if (log == nullptr) return;
  const bool named = thname != nullptr && thname[0] != '\0';
  snprintf(g_thname, NAME_LEN + 1, "%s", named ? thname : "-");
  tslb_dl_set_thid(log);
}

// ---- Files ---------------------------------------------------------------------------------------------------------

#define REPORT_PLACE __FILE_NAME__, __LINE__, "tslb_dl_fwrite"

// Writes "base.pid.version". Returns false with errno set if it does not fit: a cut number would give all versions the
// same name.
static bool name_file(const TSLBDLog_t *log, char (&name)[BASE_LEN + 1]) {
  const int len = snprintf(name, sizeof(name), "%s.%d.%d", log->fname_abs, log->pid, log->fver);
  if (len >= 0 && static_cast<size_t>(len) < sizeof(name)) return true;
  errno = ENAMETOOLONG;
  return false;
}

// The name of the open file, under the log's lock. It is formatted once per file, not per line.
static char open_file[BASE_LEN + 1];

static bool stat_current(const TSLBDLog_t *log, struct stat *file) {
  if (log->fd >= 0) return stat(open_file, file) == 0;
  char name[BASE_LEN + 1];
  return name_file(log, name) && stat(name, file) == 0;
}

// Closes the file if it has reached its size. If it was deleted, version numbers begin again at 0.
static void roll_over(TSLBDLog_t *log) {
  struct stat file;
  if (!stat_current(log, &file)) {
    close_file(log);
    log->fver = -1;
  } else if (file.st_size >= log->fmax_sz) {
    close_file(log);
  }
}

// Opens the next version and writes its header; false after a report.
static bool open_next(TSLBDLog_t *log, char (&name)[BASE_LEN + 1]) {
  ++log->fver;
  if (name_file(log, name)) log->fd = open(name, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (log->fd < 0) {
    const int err = errno;
    fprintf(stderr, "%s|%d|%s|Error: failed to open file %s. err(%d)=%s\n", REPORT_PLACE, log->fname_abs, err,
            strerror(err));
    return false;
  }
  memcpy(open_file, name, sizeof(open_file));
  if (write(log->fd, FILE_HEADER, FILE_HEADER_LEN) >= 0) return true;
  const int err = errno;
  fprintf(stderr, "%s|%d|%s|Error: failed to write file header into file = %s, fd = %d. err(%d)=%s\n", REPORT_PLACE,
          name, log->fd, err, strerror(err));
  return false;
}

// Writes one line to the current file, after a rollover if one is due. The caller holds the lock.
static void tslb_dl_fwrite(TSLBDLog_t *log, const char *msg, size_t msg_len) {
  char name[BASE_LEN + 1] = "";
  if (log->fname_abs[0] != '\0') {
    roll_over(log);
    if (log->fd == -1 && !open_next(log, name)) return;
  }
  if (write(log->fd, msg, msg_len) >= 0) return;
  const int err = errno;
  if (log->fname_abs[0] != '\0') name_file(log, name);
  fprintf(stderr, "%s|%d|%s|Error: failed to write into file = %s, fd = %d. err(%d)=%s\n", REPORT_PLACE, name, log->fd,
          err, strerror(err));
}

// ---- Lines ---------------------------------------------------------------------------------------------------------

// Returns the base name of a path. A path that ends in a slash is copied, since basename may change its argument. If it
// is too long for the copy, its start is dropped.
static const char *base_name_of(const char *path, char (&copy)[1024]) {
  if (path == nullptr) return "-";
  const char *const slash = strrchr(path, '/');
  const char *const name = slash == nullptr ? path : slash + 1;
  if (name[0] != '\0') return name;
  const size_t len = strlen(path);
  const size_t skipped = len < sizeof(copy) ? 0 : len - sizeof(copy) + 1;
  memcpy(copy, path + skipped, len - skipped + 1);
  return basename(copy);
}

// The functions below write at `at`, up to `end`, and return the next position. Text that does not fit is cut.

// Writes a field and the bar after it.
static char *put_field(char *at, char *end, const char *field) {
  const size_t len = strlen(field);
  const size_t room = static_cast<size_t>(end - at);
  memcpy(at, field, len < room ? len : room);
  if (len >= room) return end;
  at[len] = '|';
  return at + len + 1;
}
static char *put_field(char *at, char *end, int number) {
  if (end - at <= NUMBER_LEN) {
    char digits[NUMBER_LEN + 1];
    *put_number(digits, number) = '\0';
    return put_field(at, end, digits);
  }
  at = put_number(at, number);
  *at = '|';
  return at + 1;
}

// Writes the message. `end` has room for the terminator.
__attribute__((format(printf, 3, 0))) static char *put_message(char *at, char *end, const char *fmt, va_list values) {
  const int wanted = vsnprintf(at, static_cast<size_t>(end - at) + 1, fmt, values);
  return wanted < 0 ? at : wanted < end - at ? at + wanted : end;
}

void tslb_dl_logging(int dlevel, const char *file_name, const char *fun_name, int line_no, const char *fmt, ...) {
  TSLBDLog_t *const log = current_log();
  if (log == nullptr || dlevel > __atomic_load_n(&log->level, __ATOMIC_RELAXED)) return;
  const int caller_errno = errno;
  tslb_dl_set_thid(log);
  char base[1024], date_time[65], line[LINE_BYTES];
  char *const end = line + sizeof(line) - 1;  // leaves room for the newline
  const char *const file = base_name_of(file_name, base);

  pthread_mutex_lock(&log->dl_thlock);
  // Every line converts its time. A kept result could be wrong after tzset: no value of the C library shows every change
  // of the time zone.
  char *at = put_field(line, end, tslb_get_cur_date_time(date_time, 1));
  at = put_field(at, end, file);
  at = put_field(at, end, line_no);
  at = put_field(at, end, fun_name != nullptr ? fun_name : "-");
  at = put_field(at, end, log->pid);
  at = put_field(at, end, g_tid);
  at = put_field(at, end, g_thname);
  va_list values;
  va_start(values, fmt);
  errno = caller_errno;  // for %m
  at = put_message(at, end, fmt, values);
  va_end(values);
  *at++ = '\n';
  tslb_dl_fwrite(log, line, static_cast<size_t>(at - line));
  pthread_mutex_unlock(&log->dl_thlock);
  errno = caller_errno;
}
