#include "syscalls.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <string_view>
#include <utility>

namespace powercut {
namespace {

constexpr size_t LOG_BYTES = size_t{1} << 30;  // of address space; memory is used as needed
constexpr size_t MAX_FDS = 4096;

struct Entry {
  OpKind kind;
  MarkKind mark;
  bool is_folder;
  uint32_t file;
  uint64_t at;
  uint32_t path_bytes;
  uint32_t text_bytes;
};

// Shared with forked children. A child is not killed while it records, so the lock is free again.
struct Shared {
  std::atomic_flag lock = ATOMIC_FLAG_INIT;
  uint32_t n_opened = 0;
  size_t used = 0;
  std::atomic<uint64_t> calls_left = 0;  // until the fault
  unsigned fault_kind = 0;
  std::atomic<Struck> struck = Struck::no;
  const char *struck_call = "";
  char log[1];
};

Shared &shared() {
  static Shared *const all = [] {
    void *const memory =
        mmap(nullptr, LOG_BYTES, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED) std::abort();
    return new (memory) Shared;
  }();
  return *all;
}

std::string root;  // empty: nothing is recorded
uint64_t random_state = 0;
std::string_view fault_name;
std::function<void()> before_rename;
std::array<uint32_t, MAX_FDS> opened = {};  // number of the opening of a descriptor; 0: it is not below the root

// A call and its record are one step.
class Locked {
 public:
  Locked() {
    while (shared().lock.test_and_set(std::memory_order_acquire)) sched_yield();
  }
  ~Locked() { shared().lock.clear(std::memory_order_release); }
  Locked(const Locked &) = delete;
};

bool is_below_root(std::string_view path) {
  return !root.empty() && path.starts_with(root) && (path.size() == root.size() || path[root.size()] == '/');
}

std::string_view relative(std::string_view path) {
  return path.substr(std::min(path.size(), root.size() + 1));
}

uint32_t opening_of(int fd) {
  return !root.empty() && fd >= 0 && static_cast<size_t>(fd) < MAX_FDS ? opened[static_cast<size_t>(fd)] : 0;
}

void append(Entry entry, std::string_view path = {}, std::string_view text = {}) {
  Shared &all = shared();
  entry.path_bytes = static_cast<uint32_t>(path.size());
  entry.text_bytes = static_cast<uint32_t>(text.size());
  if (all.used + sizeof entry + path.size() + text.size() + sizeof all > LOG_BYTES) std::abort();
  for (const std::string_view part : {std::string_view(reinterpret_cast<char *>(&entry), sizeof entry), path, text}) {
    std::copy(part.begin(), part.end(), all.log + all.used);
    all.used += part.size();
  }
}

Entry entry_of(OpKind kind, uint32_t file = 0, uint64_t at = 0) {
  return {kind, MarkKind::begun, false, file, at, 0, 0};
}

// Returns 0, or the error of this call after setting errno, or one of these.
constexpr int SHORT = -1;  // half of the bytes are transferred
constexpr int FULL = -2;   // the same, and the next call fails with ENOSPC
int fault_of(const char *name, std::initializer_list<int> errors) {
  Shared &all = shared();
  if (!fault_name.empty() && fault_name != name) return 0;
  if (all.calls_left == 0 || all.calls_left.fetch_sub(1) != 1) return 0;
  if (all.fault_kind >= errors.size()) {
    if (all.struck == Struck::no) all.struck = Struck::no_such_error;
    return 0;
  }
  if (all.struck == Struck::no) all.struck_call = name;
  all.struck = Struck::fault;
  const int error = errors.begin()[all.fault_kind];
  if (error > 0) errno = error;
  return error;
}

// Performs call(count) with a fault. `count` are the bytes to transfer.
constexpr std::initializer_list<int> WRITE_ERRORS = {EIO, ENOSPC, EDQUOT, EFBIG, EINTR, SHORT, FULL};

// Makes the call after the one that is short fail, if the latter is FULL.
void fill_disk(int fault) {
  if (fault == FULL) shared().fault_kind = 1, shared().calls_left = 1;
}

template <class Call>
ssize_t transfer(const char *name, std::initializer_list<int> errors, size_t count, Call call) {
  const int fault = fault_of(name, errors);
  if (fault > 0) return -1;
  const ssize_t result = call(fault < 0 && count > 1 ? count / 2 : count);
  fill_disk(fault);
  return result;
}

template <class Call>
auto attempt(const char *name, std::initializer_list<int> errors, Call call) -> decltype(call()) {
  return fault_of(name, errors) != 0 ? -1 : call();
}

// Performs a call that writes bytes from `from` at a position, and records what was written.
template <class Call>
ssize_t write_recorded(int fd, std::string_view from, off_t at, Call call) {
  const uint32_t file = opening_of(fd);
  if (file == 0) return call();
  const Locked locked;
  if (at < 0) at = lseek(fd, 0, SEEK_CUR);
  const ssize_t written = call();
  if (written > 0)
    append(entry_of(OpKind::write, file, static_cast<uint64_t>(at)), {}, from.substr(0, static_cast<size_t>(written)));
  return written;
}

template <class Call>
int sync_recorded(const char *name, int fd, Call call) {
  const uint32_t file = opening_of(fd);
  if (fault_of(name, {EIO, ENOSPC, EDQUOT, EINTR}) != 0) {
    if (file != 0) {
      const Locked locked;
      append(entry_of(OpKind::failed_sync, file));
    }
    return -1;
  }
  if (file == 0) return call(fd);
  const Locked locked;
  const int result = call(fd);
  if (result == 0) append(entry_of(OpKind::sync, file));
  return result;
}

template <class Call>
int change_recorded(OpKind kind, const char *path, Call call, const char *to = "") {
  if (!is_below_root(path)) return call();
  const Locked locked;
  const int result = call();
  if (result == 0) append(entry_of(kind), relative(path), relative(to));
  return result;
}

}  // namespace

void begin_recording(const std::string &new_root) {
  root = new_root;
  opened = {};
  shared().n_opened = 0;
  shared().used = 0;
}

std::vector<Op> end_recording() {
  root.clear();
  std::vector<Op> ops;
  const Shared &all = shared();
  for (size_t at = 0; at < all.used;) {
    Entry entry;
    std::memcpy(&entry, all.log + at, sizeof entry);
    at += sizeof entry;
    Op op = {entry.kind, entry.file, entry.at, {}, {}, entry.is_folder, entry.mark};
    op.path.assign(all.log + at, entry.path_bytes);
    at += entry.path_bytes;
    op.text.assign(all.log + at, entry.text_bytes);
    at += entry.text_bytes;
    ops.push_back(std::move(op));
  }
  return ops;
}

void record_mark(MarkKind mark, uint32_t number) {
  if (root.empty()) return;
  const Locked locked;
  Entry entry = entry_of(OpKind::mark, 0, number);
  entry.mark = mark;
  append(entry);
}

void repeat_random_bytes(uint64_t seed) {
  random_state = seed;
}

void call_before_renames(std::function<void()> call) {
  before_rename = std::move(call);
}

void fail_call(uint64_t n, unsigned which, std::string_view name) {
  fault_name = name;
  shared().struck = Struck::no;
  shared().fault_kind = which;
  shared().calls_left = n;
}

Struck fault_struck() {
  return shared().struck;
}

std::string struck_call() {
  return shared().struck_call;
}

}  // namespace powercut

using namespace powercut;

// Begins the definition of a call, after the declaration of the system's own. Shared libraries can refer to it too.
#define WRAP(result, name, ...)                 \
  extern "C" result __real_##name(__VA_ARGS__); \
  extern "C" __attribute__((visibility("default"))) result __wrap_##name(__VA_ARGS__)

WRAP(int, open, const char *path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  const bool creates = (flags & O_CREAT) != 0;
  if (fault_of("open", {EIO, EMFILE, EINTR, creates ? ENOSPC : EACCES, creates ? EDQUOT : ENFILE}) != 0) return -1;
  if (!is_below_root(path)) return __real_open(path, flags, mode);
  const Locked locked;
  const int fd = __real_open(path, flags, mode);
  if (fd < 0) return fd;
  if (static_cast<size_t>(fd) >= MAX_FDS || (flags & (O_TRUNC | O_APPEND)) != 0) std::abort();
  opened[static_cast<size_t>(fd)] = ++shared().n_opened;
  Entry entry = entry_of(OpKind::open, shared().n_opened);
  entry.is_folder = (flags & O_DIRECTORY) != 0;
  append(entry, relative(path));
  return fd;
}

WRAP(int, close, int fd) {
  if (fd >= 0 && static_cast<size_t>(fd) < MAX_FDS) opened[static_cast<size_t>(fd)] = 0;
  return __real_close(fd);
}

WRAP(int, fstat, int fd, struct stat *about) {
  return attempt("fstat", {EIO}, [=] { return __real_fstat(fd, about); });
}

WRAP(int, eventfd, unsigned count, int flags) {
  return attempt("eventfd", {EMFILE, ENOMEM}, [=] { return __real_eventfd(count, flags); });
}

WRAP(ssize_t, read, int fd, void *to, size_t count) {
  return transfer("read", {EIO, EINTR, SHORT}, count, [=](size_t part) { return __real_read(fd, to, part); });
}

WRAP(ssize_t, pread, int fd, void *to, size_t count, off_t at) {
  return transfer("pread", {EIO, EINTR, SHORT}, count, [=](size_t part) { return __real_pread(fd, to, part, at); });
}

WRAP(ssize_t, write, int fd, const void *from, size_t count) {
  return transfer("write", WRITE_ERRORS, count, [=](size_t part) {
    return write_recorded(fd, {static_cast<const char *>(from), part}, -1,
                          [=] { return __real_write(fd, from, part); });
  });
}

WRAP(ssize_t, pwrite, int fd, const void *from, size_t count, off_t at) {
  return transfer("pwrite", WRITE_ERRORS, count, [=](size_t part) {
    return write_recorded(fd, {static_cast<const char *>(from), part}, at,
                          [=] { return __real_pwrite(fd, from, part, at); });
  });
}

WRAP(ssize_t, writev, int fd, const iovec *pieces, int n_pieces) {
  const int fault = fault_of("writev", WRITE_ERRORS);
  if (fault > 0) return -1;
  if (fault < 0) {  // within the first piece
    const ssize_t written = __wrap_write(fd, pieces[0].iov_base, (pieces[0].iov_len + 1) / 2);
    fill_disk(fault);
    return written;
  }
  if (opening_of(fd) == 0) return __real_writev(fd, pieces, n_pieces);
  ssize_t total = 0;
  for (int i = 0; i < n_pieces; ++i) {
    const std::string_view from = {static_cast<const char *>(pieces[i].iov_base), pieces[i].iov_len};
    const ssize_t written = write_recorded(fd, from, -1, [=] { return __real_write(fd, from.data(), from.size()); });
    if (written < 0) return total != 0 ? total : -1;
    total += written;
    if (static_cast<size_t>(written) < from.size()) break;
  }
  return total;
}

WRAP(int, fsync, int fd) {
  return sync_recorded("fsync", fd, __real_fsync);
}

WRAP(int, fdatasync, int fd) {
  return sync_recorded("fdatasync", fd, __real_fdatasync);
}

// Promises nothing.
WRAP(int, sync_file_range, int fd, off_t at, off_t count, unsigned flags) {
  return attempt("sync_file_range", {EIO, ENOSPC, ENOSYS},
                 [=] { return __real_sync_file_range(fd, at, count, flags); });
}

WRAP(int, ftruncate, int fd, off_t size) {
  return attempt("ftruncate", {EIO, EINTR, ENOSPC, EDQUOT}, [=] {
    const uint32_t file = opening_of(fd);
    if (file == 0) return __real_ftruncate(fd, size);
    const Locked locked;
    const int result = __real_ftruncate(fd, size);
    if (result == 0) append(entry_of(OpKind::truncate, file, static_cast<uint64_t>(size)));
    return result;
  });
}

// With FALLOC_FL_KEEP_SIZE it changes neither bytes nor size, so it is not recorded, and not done: in a file system in
// memory it takes longer than all else.
WRAP(int, fallocate, int fd, int mode, off_t at, off_t count) {
  if (mode != FALLOC_FL_KEEP_SIZE) std::abort();
  return attempt("fallocate", {EIO, ENOSPC, EDQUOT, EINTR, EOPNOTSUPP, EFBIG},
                 [=] { return opening_of(fd) != 0 ? 0 : __real_fallocate(fd, mode, at, count); });
}

WRAP(int, mkdir, const char *path, mode_t mode) {
  return attempt("mkdir", {EIO, ENOSPC, EDQUOT, ENOMEM},
                 [=] { return change_recorded(OpKind::make_folder, path, [=] { return __real_mkdir(path, mode); }); });
}

WRAP(int, rename, const char *from, const char *to) {
  if (before_rename) before_rename();
  return attempt("rename", {EIO, ENOSPC, EDQUOT, ENOMEM}, [=] {
    return change_recorded(
        OpKind::rename, from, [=] { return __real_rename(from, to); }, to);
  });
}

WRAP(int, unlink, const char *path) {
  return attempt("unlink", {EIO, ENOMEM},
                 [=] { return change_recorded(OpKind::remove, path, [=] { return __real_unlink(path); }); });
}

WRAP(int, rmdir, const char *path) {
  return attempt("rmdir", {EIO, ENOMEM},
                 [=] { return change_recorded(OpKind::remove_folder, path, [=] { return __real_rmdir(path); }); });
}

WRAP(DIR *, opendir, const char *path) {
  return fault_of("opendir", {EIO, EMFILE, ENOMEM}) != 0 ? nullptr : __real_opendir(path);
}

WRAP(dirent *, readdir, DIR *folder) {
  return fault_of("readdir", {EIO}) != 0 ? nullptr : __real_readdir(folder);
}

WRAP(int, flock, int fd, int operation) {
  return attempt("flock", {ENOLCK, EINTR}, [=] { return __real_flock(fd, operation); });
}

WRAP(int, pipe2, int *ends, int flags) {
  return attempt("pipe2", {EMFILE, ENFILE}, [=] { return __real_pipe2(ends, flags); });
}

WRAP(pid_t, fork, void) {
  return attempt("fork", {EAGAIN, ENOMEM}, [] {
    const pid_t child = __real_fork();
    siginfo_t ended;
    if (child > 0 && !root.empty()) waitid(P_PID, static_cast<id_t>(child), &ended, WEXITED | WNOWAIT);
    return child;
  });
}

WRAP(pid_t, waitpid, pid_t child, int *status, int options) {
  return attempt("waitpid", {EINTR}, [=] { return __real_waitpid(child, status, options); });
}

WRAP(ssize_t, getrandom, void *to, size_t count, unsigned flags) {
  return transfer("getrandom", {EINTR, SHORT}, count, [=](size_t part) {
    if (random_state == 0) return __real_getrandom(to, part, flags);
    for (size_t i = 0; i < part; ++i) {
      random_state = random_state * 6364136223846793005 + 1442695040888963407;
      static_cast<char *>(to)[i] = static_cast<char>(random_state >> 56);
    }
    return static_cast<ssize_t>(part);
  });
}
