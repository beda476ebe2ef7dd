// What the library writes into a stream, for tests that look at its bytes.
#ifndef STORED_IMAGE_H
#define STORED_IMAGE_H

#include <gtest/gtest.h>
#include <stdio.h>
#include <unistd.h>

#include <string>

#include "tslb_dynarr.h"
#include "tslb_settings.h"

inline std::string stream_of(DynArrHandle_t *array) {
  FILE *const file = tmpfile();
  size_t total = 0;
  EXPECT_EQ(tslb_create_dump_for_dynarr(array, fileno(file), 0, &total), 0);
  std::string stream(static_cast<size_t>(lseek(fileno(file), 0, SEEK_END)), '\0');
  EXPECT_EQ(pread(fileno(file), stream.data(), stream.size(), 0), static_cast<ssize_t>(stream.size()));
  fclose(file);
  return stream;
}

// While it lives, pools of the two fixed table ids are stored with a short last slot.
struct trimming_t {
  trimming_t() {
    tslb_test_mode = 0;
    lib_config.tslb_enable_file_trimming_flag = 1;
  }
  ~trimming_t() {
    tslb_test_mode = static_cast<char>(0xFF);
    lib_config.tslb_enable_file_trimming_flag = 0;
  }
};

#endif
