// Memory for received bytes: a pool of blocks, and a buffer on one block.
//
// A connection has a block only while part of a request is in it, so idle connections need no memory. A busy connection
// gets the block that it returned last, which is in the cache. The size of all blocks in use is limited.
//
// Threads: one.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <functional>
#include <memory>
#include <string_view>
#include <utility>
#include <vector>

namespace metricdb {

struct Block {
  std::unique_ptr<char[]> bytes;
  size_t capacity = 0;
};

class BlockPool {
 public:
  // The smallest block, and the memory of a connection that has received little.
  static constexpr size_t MIN_BYTES = size_t{64} << 10;

  explicit BlockPool(size_t max_bytes) : max_bytes_(max_bytes) {}

  // Returns a block of at least that many bytes, not zeroed. Its `bytes` are null if the limit would be exceeded.
  Block lend(size_t bytes);
  // Sets the function that returns blocks to the pool when a block would exceed the limit. It is called until the block
  // fits or it returns false.
  void set_reclaim(std::function<bool()> reclaim) { reclaim_ = std::move(reclaim); }
  void take_back(Block block);

  size_t lent_bytes() const { return lent_bytes_; }

 private:
  bool fits(size_t bytes) const { return bytes <= max_bytes_ - std::min(lent_bytes_, max_bytes_); }

  const size_t max_bytes_;
  std::function<bool()> reclaim_;
  size_t lent_bytes_ = 0;
  size_t spare_bytes_ = 0;
  std::array<std::vector<Block>, 64> spares_;  // by the logarithm of their size
};

// A queue of bytes in contiguous memory.
class ByteBuffer {
 public:
  explicit ByteBuffer(BlockPool &pool) : pool_(pool) {}
  ~ByteBuffer() { release(); }
  ByteBuffer(const ByteBuffer &) = delete;
  ByteBuffer &operator=(const ByteBuffer &) = delete;

  char *data() { return block_.bytes.get() + begin_; }
  size_t size() const { return end_ - begin_; }
  size_t capacity() const { return block_.capacity; }
  bool empty() const { return begin_ == end_; }
  std::string_view text() const { return {block_.bytes.get() + begin_, size()}; }

  char *tail() { return block_.bytes.get() + end_; }
  size_t room() const { return block_.capacity - end_; }

  // Makes room for about `wanted` more bytes, unless there is room already. The bytes may move. Returns false without
  // memory.
  bool make_room(size_t wanted);
  void append_room(size_t n) { end_ += n; }  // bytes that were written at `tail`
  void drop_front(size_t n);
  // Keeps only the `n` bytes from `from` on, which are in the buffer.
  void keep(const char *from, size_t n);

 private:
  void release();

  BlockPool &pool_;
  Block block_;
  size_t begin_ = 0;
  size_t end_ = 0;
};

}  // namespace metricdb
