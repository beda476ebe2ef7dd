// Loads any bytes as block files. They must be refused with an error text or give a usable array. The input is the
// concatenated files. It is split according to its own headers, so that most changes reach the code after the
// comparison of sizes. Remaining bytes go to a file that is too short.
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include <tslb/block_files.h>
#include <tslb/tslb_dynarr.h>
#include "exercise.h"

static std::string folder;

static std::string file_of(unsigned block_num) {
  return folder + "/fuzz/7." + std::to_string(block_num) + ".darr";
}

static void remove_folder() {
  rmdir((folder + "/fuzz").c_str());
  rmdir(folder.c_str());
}

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  const char *const shared_memory = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
  folder = std::string(shared_memory) + "/tslb_fuzz_XXXXXX";
  if (mkdtemp(folder.data()) == nullptr || mkdir((folder + "/fuzz").c_str(), 0700) != 0) {
    perror(folder.c_str());
    exit(1);
  }
  atexit(remove_folder);
  return 0;
}

static void write_file(unsigned block_num, const uint8_t *data, size_t size) {
  const int fd = open(file_of(block_num).c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0 || write(fd, data, size) != static_cast<ssize_t>(size)) {
    perror(folder.c_str());
    exit(1);
  }
  close(fd);
}

// Sizes of block 0 and of a data block, and the end of the used slots in block 0. If the headers are implausible, block
// 0 is the whole input.
struct sizes_t {
  size_t headers, slot, block0;
};

static sizes_t sizes_of(const uint8_t *data, size_t size) {
  DynHdr_t hdr;
  if (size < sizeof(hdr)) return {size, 0, size};
  memcpy(&hdr, data, sizeof(hdr));
  const size_t headers = sizeof(hdr) + hdr.hdr_size + hdr.lli_sz + sizeof(DynArrHdr_t);
  if (size < headers) return {size, 0, size};
  uint32_t counts[4];  // n_alloc, n_used, n_direct, record_size
  memcpy(counts, data + headers - sizeof(counts), sizeof(counts));
  size_t slot = counts[3];
  if (hdr.lli_sz != 0) {
    const uint8_t lltype = data[std::min(sizeof(hdr) + hdr.hdr_size + offsetof(DynArrLLI_t, lltype), size - 1)];
    slot += (lltype & TSLB_DA_DAFLAG_INLL) != 0 ? 16 : 8;
  }
  return {headers, slot, std::min(size, headers + slot * counts[2])};
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const sizes_t sizes = sizes_of(data, size);
  unsigned n_files = 0;
  write_file(n_files++, data, sizes.block0);
  for (size_t at = sizes.block0; at < size && sizes.slot != 0 && n_files < 40;) {
    const size_t bytes = std::min(size - at, sizes.slot * 16);
    write_file(n_files++, data + at, bytes);
    at += bytes;
  }

  const array_load_options_t options = options_for(data, size);
  char error[512];
  const DynamicArray_t array = array_load_block_files(folder.c_str(), &options, error, sizeof(error));
  expect_error_text(array, error);
  for (unsigned block_num = 0; block_num < n_files; ++block_num) unlink(file_of(block_num).c_str());
  if (array == nullptr) return 0;

  // In the flat image the used slots of block 0 are followed by data blocks, in the file by unused slots.
  const size_t used_in_block0 = sizes.headers + sizes.slot * std::min(tslb_da_get_size(array), array->n_direct);
  exercise(array, options.kind, data, tslb_da_get_size(array) > array->n_direct ? size : used_in_block0);
  return 0;
}
