// Readers of the bytes that the library writes to streams and block files.
#ifndef STORED_IMAGE_H
#define STORED_IMAGE_H

#include <sys/mman.h>
#include <unistd.h>

#include <tslb/tslb_dynarr.h>
#include <tslb/tslb_rd_api.h>
#include <tslb/tslb_settings.h>
#include "system_support.h"

// Reads from the first byte, independent of the descriptor's position.
inline std::string content_of(int fd) {
  std::string content(static_cast<size_t>(lseek(fd, 0, SEEK_END)), '\0');
  EXPECT_EQ(pread(fd, content.data(), content.size(), 0), static_cast<ssize_t>(content.size()));
  return content;
}

// A file in memory. The destructor closes it.
class memory_file_t {
 public:
  explicit memory_file_t(const std::string &content = "") : fd_(memfd_create("stream", MFD_CLOEXEC)) {
    EXPECT_EQ(pwrite(fd_, content.data(), content.size(), 0), static_cast<ssize_t>(content.size()));
  }
  ~memory_file_t() { close(fd_); }
  memory_file_t(const memory_file_t &) = delete;
  int fd() const { return fd_; }

 private:
  const int fd_;
};

inline std::string stream_of(DynArrHandle_t *array) {
  const memory_file_t file;
  size_t total = 0;
  EXPECT_EQ(tslb_create_dump_for_dynarr(array, file.fd(), 0, &total), 0);
  return content_of(file.fd());
}

// During its lifetime, pools of the two fixed table ids are stored with a short last slot.
struct trim_settings_t {
  trim_settings_t() {
    tslb_test_mode = 0;
    lib_config.tslb_enable_file_trimming_flag = 1;
  }
  ~trim_settings_t() {
    tslb_test_mode = static_cast<char>(0xFF);
    lib_config.tslb_enable_file_trimming_flag = 0;
  }
};

inline std::string cut_stream_of(DynArrHandle_t *pool) {
  const trim_settings_t trimming;
  return stream_of(pool);
}

// A folder in which the library keeps block files.
struct base_path_t : temp_folder_t {
  base_path_t() { tslb_set_base_path(path.c_str()); }
  ~base_path_t() { tslb_set_base_path(""); }
};

#endif
