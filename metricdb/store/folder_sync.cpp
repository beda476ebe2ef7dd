#include "store/folder_sync.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "store/durable_arrays.h"

namespace metricdb {

void sync_folder(const std::string &folder) {
  const int fd = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const bool is_synced = fd >= 0 && fsync(fd) == 0;
  const int error = errno;
  if (fd >= 0) close(fd);
  if (!is_synced) throw DatabaseError(fmt::format("{}: cannot be synced: {}", folder, std::strerror(error)));
}

}  // namespace metricdb
