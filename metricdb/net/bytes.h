// Memory for what arrives over the network: blocks that go from hand to hand, and a buffer on one block.
//
// A connection holds a block only while part of a request lies in it, so thousands of silent ones cost nothing, and a
// busy one finds the block it just returned, warm in the cache. All blocks together have a bound.
//
// Threads: one.
#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <string_view>
#include <vector>

namespace metricdb {

struct Block {
  std::unique_ptr<char[]> bytes;
  size_t capacity = 0;
};

class BlockPool {
 public:
  // Least block, and so the most that a connection costs before it has sent much.
  static constexpr size_t LEAST_BYTES = size_t{64} << 10;

  explicit BlockPool(size_t most_bytes) : most_bytes_(most_bytes) {}

  // A block of at least that many bytes, not zeroed. Without bytes if the bound would be passed.
  Block lend(size_t bytes);
  void take_back(Block block);

  size_t lent_bytes() const { return lent_bytes_; }

 private:
  const size_t most_bytes_;
  size_t lent_bytes_ = 0;
  size_t spare_bytes_ = 0;
  std::array<std::vector<Block>, 64> spares_;  // by the power of two that is their size
};

// Bytes that come at the end and go at the front, always in one piece.
class ByteBuffer {
 public:
  explicit ByteBuffer(BlockPool &pool) : pool_(pool) {}
  ~ByteBuffer() { release(); }
  ByteBuffer(const ByteBuffer &) = delete;
  ByteBuffer &operator=(const ByteBuffer &) = delete;

  char *data() { return block_.bytes.get() + begin_; }
  size_t size() const { return end_ - begin_; }
  bool empty() const { return begin_ == end_; }
  std::string_view text() const { return {block_.bytes.get() + begin_, size()}; }

  char *tail() { return block_.bytes.get() + end_; }
  size_t room() const { return block_.capacity - end_; }

  // Makes room for `wanted` more bytes where hardly any is left; the bytes may move. False if the pool has no memory.
  bool make_room(size_t wanted);
  void append_room(size_t n) { end_ += n; }  // so many were written at `tail`
  void drop_front(size_t n);
  // Keeps `n` bytes from `from` on, which lies in the buffer.
  void keep(const char *from, size_t n);

 private:
  void release();

  BlockPool &pool_;
  Block block_;
  size_t begin_ = 0;
  size_t end_ = 0;
};

}  // namespace metricdb
