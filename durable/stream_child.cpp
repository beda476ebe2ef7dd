#include "stream_child.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>

namespace tslb_durable {
namespace {

// The ends of a new pipe: to read, to write.
std::array<int, 2> new_pipe(const std::string &folder) {
  std::array<int, 2> ends;
  if (pipe2(ends.data(), O_CLOEXEC) != 0) fail_file(folder, "no pipe for a child process");
  return ends;
}

bool read_whole(int fd, void *to, size_t bytes) {
  auto *at = static_cast<char *>(to);
  while (bytes != 0) {
    const ssize_t got = read(fd, at, bytes);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    at += got;
    bytes -= static_cast<size_t>(got);
  }
  return true;
}

}  // namespace

StreamChild::StreamChild(const std::string &folder) : StreamChild(new_pipe(folder)) {}

StreamChild::StreamChild(const std::array<int, 2> &ends)
    : from_child_(File::adopt(ends[0], "a pipe")), to_parent_(File::adopt(ends[1], "a pipe")) {}

StreamChild::~StreamChild() {
  if (child_ <= 0) return;
  kill(child_, SIGKILL);
  while (waitpid(child_, nullptr, 0) < 0 && errno == EINTR) continue;
}

int StreamChild::start(std::vector<StreamResult> &results, int lock_fd, const std::function<void()> &write) {
  const pid_t parent = getpid();
  child_ = fork();
  if (child_ == 0) {
    // The child ends with the thread that waits for it, and does not hold the lock of the store.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    ::close(lock_fd);
    if (getppid() != parent) _exit(1);
    write();
    const size_t bytes = results.size() * sizeof results[0];
    const ssize_t sent = ::write(to_parent_->fd(), results.data(), bytes);
    _exit(sent == static_cast<ssize_t>(bytes) ? 0 : 1);
  }
  const int error = child_ < 0 ? errno : 0;
  // Otherwise the end of the child would not end the pipe.
  to_parent_.reset();
  return error;
}

bool StreamChild::receive(std::vector<StreamResult> &results) {
  const bool is_complete = read_whole(from_child_.fd(), results.data(), results.size() * sizeof results[0]);
  while (waitpid(child_, nullptr, 0) < 0 && errno == EINTR) continue;
  child_ = -1;
  return is_complete;
}

}  // namespace tslb_durable
