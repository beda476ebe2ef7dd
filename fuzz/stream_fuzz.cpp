// Loads any bytes as a snapshot stream. They must be refused with an error text or give a usable array.
#include <sys/mman.h>
#include <unistd.h>

#include "exercise.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const int fd = memfd_create("stream", MFD_CLOEXEC);
  if (fd < 0 || write(fd, data, size) != static_cast<ssize_t>(size) || lseek(fd, 0, SEEK_SET) != 0) return -1;
  const array_load_options_t options = options_for(data, size);
  char error[256];
  const DynamicArray_t array = array_load_stream(fd, &options, error, sizeof(error));
  close(fd);
  expect_error_text(array, error);
  if (array != nullptr) exercise(array, options.kind, data, size);
  return 0;
}
