// A folder of this process.
#ifndef TSLB_BENCH_TEMPORARY_FOLDER_H
#define TSLB_BENCH_TEMPORARY_FOLDER_H

#include <sys/types.h>

#include <string>

// It is removed with its contents when the program ends for any reason: by a child process, which waits at a pipe whose
// other end no other process has.
class temporary_folder_t {
 public:
  // `pattern` ends with XXXXXX, as for mkdtemp. On failure the path is empty, after a line on stderr. Made before any
  // thread starts.
  explicit temporary_folder_t(const std::string &pattern);
  ~temporary_folder_t();
  temporary_folder_t(const temporary_folder_t &) = delete;
  temporary_folder_t &operator=(const temporary_folder_t &) = delete;

  const std::string &path() const { return path_; }

 private:
  std::string path_;
  int pipe_end_ = -1;
  pid_t remover_ = -1;
};

#endif
