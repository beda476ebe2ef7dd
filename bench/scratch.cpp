#include "scratch.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/statfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <system_error>

constexpr char TMPFS[] = "/dev/shm";

// Returns whether there is a tmpfs with `bytes` free; false after a line on stderr.
static bool has_room(uint64_t bytes) {
  struct statfs found;
  if (statfs(TMPFS, &found) != 0 || found.f_type != TMPFS_MAGIC) {
    fprintf(stderr, "%s is not a tmpfs; skipped\n", TMPFS);
    return false;
  }
  if (found.f_bavail * static_cast<uint64_t>(found.f_bsize) >= bytes) return true;
  fprintf(stderr, "%s has less than %lu bytes to spare; skipped\n", TMPFS, static_cast<unsigned long>(bytes));
  return false;
}

// A child removes the directory when this process ends for any reason. It waits at a pipe whose other end no other
// process has.
struct scratch_t {
  std::string path;
  int pipe_end = -1;
  pid_t remover = -1;

  explicit scratch_t(uint64_t bytes) {
    std::string name = std::string(TMPFS) + "/tslb_bench.XXXXXX";
    int ends[2];
    if (!has_room(bytes)) return;
    if (pipe2(ends, O_CLOEXEC) != 0 || mkdtemp(name.data()) == nullptr) {
      perror(TMPFS);
      return;
    }
    remover = fork();
    if (remover == 0) {
      setsid();  // signals to the process group do not reach the child
      close(ends[1]);
      char ignored_byte;
      std::error_code ignored;
      while (read(ends[0], &ignored_byte, 1) > 0) {
      }
      std::filesystem::remove_all(name, ignored);
      _exit(0);
    }
    close(ends[0]);
    pipe_end = ends[1];
    if (remover > 0) {
      path = name;
    } else {
      perror("fork");
      rmdir(name.c_str());
    }
  }
  ~scratch_t() {
    if (pipe_end >= 0) close(pipe_end);
    if (remover > 0) waitpid(remover, nullptr, 0);
  }
};

const std::string &scratch_dir(uint64_t bytes) {
  static const scratch_t scratch(bytes);
  return scratch.path;
}
