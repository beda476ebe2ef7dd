#include "temporary_folder.h"

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <system_error>

temporary_folder_t::temporary_folder_t(const std::string &pattern) {
  std::string name = pattern;
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0 || mkdtemp(name.data()) == nullptr) {
    perror(pattern.c_str());
    return;
  }
  remover_ = fork();
  if (remover_ == 0) {
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
  pipe_end_ = ends[1];
  if (remover_ > 0) {
    path_ = name;
  } else {
    perror("fork");
    rmdir(name.c_str());
  }
}

temporary_folder_t::~temporary_folder_t() {
  if (pipe_end_ >= 0) close(pipe_end_);
  if (remover_ > 0) waitpid(remover_, nullptr, 0);
}
