// Memory for blocks outside the process allocator: mapped files, and the interface for persistent memory.
//
// A mapping is published like every block: it is swapped into an entry that must be null. Threads that race for one
// block open, size and map the same file at the same size, and each loser unmaps its own mapping.
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "dynamic_array.h"
#include "tslb_report.h"

char g_base_path[1025];

constexpr int BASE_PATH_ROOM = 1024;  // terminator included; a path of exactly this length loses its last character
constexpr mode_t DIR_MODE = 0744;
constexpr mode_t FILE_MODE = 0666;

void tslb_set_base_path(const char *base_path) {
  const int len = snprintf(g_base_path, BASE_PATH_ROOM, "%s", base_path);
  if (len < 0 || len > BASE_PATH_ROOM) {
    const int err = errno;
    fprintf(stderr, "Error (%s:%d): Fail to store PMEM path. err(%d) = %s\n", TSLB_FUNC_LINE, err, strerror(err));
    exit(1);
  }
  g_base_path[len] = '\0';
}

// ---- Paths ---------------------------------------------------------------------------------------------------------

struct path_t {
  char text[4096];
};

// Returns false with errno set if the path does not fit.
__attribute__((format(printf, 2, 3))) static bool format_path(path_t *path, const char *format, ...) {
  va_list values;
  va_start(values, format);
  const int len = vsnprintf(path->text, sizeof(path->text), format, values);
  va_end(values);
  if (len >= 0 && static_cast<size_t>(len) < sizeof(path->text)) return true;
  errno = ENAMETOOLONG;
  return false;
}

static bool format_file_path(path_t *path, const char *ctx_name, int32_t tbl_id, int32_t block_id) {
  if (g_base_path[0] != '\0')
    return format_path(path, "%s/%s/" TSLB_BLOCK_FILE_FORMAT, g_base_path, ctx_name, tbl_id, block_id);
  return format_path(path, "%s/" TSLB_BLOCK_FILE_FORMAT, ctx_name, tbl_id, block_id);
}

// Creates the directory if it is missing, but none above it. A block without a directory ends the process.
static void need_directory(const path_t *dir) {
  struct stat ignored;
  if (stat(dir->text, &ignored) == 0 || mkdir(dir->text, DIR_MODE) == 0 || errno == EEXIST) return;
  const int err = errno;
  fprintf(stderr, "Erro(%s:%d): failed to create pmem path %s. err(%d)=%s\n", "get_shm_block", __LINE__, dir->text, err,
          strerror(err));
  exit(1);
}

// ---- Blocks --------------------------------------------------------------------------------------------------------

// Opens and sizes the file; -1 with errno set after a report. The callers report a file that cannot be sized.
static int open_sized(const path_t *file, int64_t bytes) {
  const int fd = open(file->text, O_RDWR | O_CREAT | O_CLOEXEC, FILE_MODE);
  if (fd < 0) {
    const int err = errno;
    perror("open");
    errno = err;
    return -1;
  }
  if (ftruncate(fd, bytes) == 0) return fd;
  const int err = errno;
  close(fd);
  errno = err;
  return -1;
}

// Maps the whole file and closes its descriptor; null with errno set after a report.
static void *map_file(const path_t *file, int64_t bytes) {
  const int fd = open_sized(file, bytes);
  if (fd < 0) return nullptr;
  void *const block = mmap(nullptr, static_cast<size_t>(bytes), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  const int err = errno;
  close(fd);
  if (block != MAP_FAILED) return block;
  fprintf(stderr, "mmap file failed: %s\n", strerror(err));
  errno = err;
  return nullptr;
}

int32_t get_shm_block(int64_t chunk_size, const char *ctx_name, int32_t tbl_id, int32_t block_id, void *addr) {
  if (ctx_name == nullptr) ctx_name = "";
  path_t file, dir;
  if (!format_file_path(&file, ctx_name, tbl_id, block_id) || !format_path(&dir, "%s/%s", g_base_path, ctx_name)) {
    const int err = errno;
    fprintf(stderr, "Error(%s:%d): path of block %d of table %d is too long. err(%d)=%s\n", TSLB_FUNC_LINE, block_id,
            tbl_id, err, strerror(err));
    errno = err;
    return 0;
  }
  need_directory(&dir);
  void *const block = map_file(&file, chunk_size);
  if (block == nullptr) return 0;
  if (cas64(static_cast<uint64_t *>(addr), 0, reinterpret_cast<uint64_t>(block)) != 0) return 1;
  munmap(block, static_cast<size_t>(chunk_size));
  return 0;
}

// Not implemented. Returns "published" and does nothing.
int32_t get_pmem_block(int64_t, const char *, int32_t, int32_t, void *) {
  return 1;
}
