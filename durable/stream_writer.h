// Writes the snapshot stream of an array, as tslb_create_dump_for_dynarr does, with few system calls, and computes its
// checksum on the way. A pool's last slot is cut after the last chunk if it is the current one. A compressed stream is one zstd
// frame.
#pragma once

#include <sys/uio.h>
#include <zstd.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "store_files.h"

namespace tslb_durable {

// Limits the writing of one process.
class Throttle {
 public:
  explicit Throttle(uint64_t bytes_per_s) : bytes_per_s_(bytes_per_s) {}
  // Waits until the limit allows what was written so far.
  void wrote(uint64_t bytes);

 private:
  uint64_t bytes_per_s_;
  uint64_t bytes_ = 0;
  int64_t start_ns_ = 0;
};

// Neither allocates memory nor throws after its construction, so a forked child of a process with threads can use it.
class StreamWriter {
 public:
  // compresses  whether write() gets arrays whose declarations ask for it
  StreamWriter(uint64_t bytes_per_s, bool compresses);

  // Writes the stream of `array` to an open, empty file. Returns 0 or an error number. No thread changes the array.
  int write(DynArrHandle_t *array, const ArrayDecl &decl, int fd, StoredFile &written);

 private:
  static int add_block(DynamicArray_t array, void *block, int n_block_elem, size_t bytes, int hdr_size, int level,
                       int record_size, int reserved, void *self);
  int add(char *from, size_t bytes);
  int add_pool_slot(char *slot, size_t bytes, const Geometry &geometry);
  int flush();
  int compress(bool is_end);
  int put(iovec *pieces, size_t n_pieces, size_t bytes);
  int spread();

  Throttle throttle_;
  std::vector<iovec> pieces_;  // allocated at construction
  size_t n_pieces_ = 0;
  size_t piece_bytes_ = 0;
  std::unique_ptr<ZSTD_CCtx, size_t (*)(ZSTD_CCtx *)> compressor_;  // null if no array is compressed
  std::vector<char> compressed_;
  std::vector<char> zeros_;
  DynArrHandle_t *array_ = nullptr;
  const ArrayDecl *decl_ = nullptr;
  int fd_ = -1;
  int error_ = 0;
  uint64_t bytes_left_ = 0;  // of the stream
  uint64_t on_disk_ = 0;     // bytes of the stream on the disk
  uint64_t on_way_ = 0;      // end of those that are written to it
  StoredFile written_;
};

}  // namespace tslb_durable
