#include "scratch.h"

#include <linux/magic.h>
#include <stdio.h>
#include <sys/statfs.h>

#include <memory>

#include "temporary_folder.h"

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

const std::string &scratch_dir(uint64_t bytes) {
  static const std::unique_ptr<temporary_folder_t> scratch =
      has_room(bytes) ? std::make_unique<temporary_folder_t>(std::string(TMPFS) + "/tslb_bench.XXXXXX") : nullptr;
  static const std::string none;
  return scratch ? scratch->path() : none;
}
