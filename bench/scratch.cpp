#include "scratch.h"

#include <linux/magic.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/statfs.h>

#include <memory>

#include "temporary_folder.h"

constexpr char TMPFS[] = "/dev/shm";

static const char *folder() {
  const char *const given = getenv("TSLB_BENCH_FOLDER");
  return given != nullptr ? given : TMPFS;
}

// Returns whether the folder has `bytes` free, and is on a tmpfs if it is the default; false after a line on stderr.
static bool has_room(uint64_t bytes) {
  struct statfs found;
  if (statfs(folder(), &found) != 0 || (folder() == TMPFS && found.f_type != TMPFS_MAGIC)) {
    fprintf(stderr, "%s is not a %s; skipped\n", folder(), folder() == TMPFS ? "tmpfs" : "folder");
    return false;
  }
  if (found.f_bavail * static_cast<uint64_t>(found.f_bsize) >= bytes) return true;
  fprintf(stderr, "%s has less than %lu bytes to spare; skipped\n", folder(), static_cast<unsigned long>(bytes));
  return false;
}

const std::string &scratch_dir(uint64_t bytes) {
  static const std::unique_ptr<temporary_folder_t> scratch =
      has_room(bytes) ? std::make_unique<temporary_folder_t>(std::string(folder()) + "/tslb_bench.XXXXXX") : nullptr;
  static const std::string none;
  return scratch ? scratch->path() : none;
}
