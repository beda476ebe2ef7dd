#include "net/bytes.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <utility>

namespace metricdb {
namespace {

// Unused memory that the pool keeps; more is freed.
constexpr size_t MAX_SPARE_BYTES = size_t{64} << 20;

// With less room than this a call of recv is not worthwhile.
constexpr size_t MIN_ROOM = 4096;

}  // namespace

Block BlockPool::lend(size_t bytes) {
  const size_t capacity = std::bit_ceil(std::max(bytes, MIN_BYTES));
  while (!fits(capacity))
    if (!reclaim_ || !reclaim_()) return {};
  lent_bytes_ += capacity;
  std::vector<Block> &spares = spares_[static_cast<size_t>(std::countr_zero(capacity))];
  if (spares.empty()) return {std::make_unique_for_overwrite<char[]>(capacity), capacity};
  Block block = std::move(spares.back());
  spares.pop_back();
  spare_bytes_ -= capacity;
  return block;
}

void BlockPool::take_back(Block block) {
  lent_bytes_ -= block.capacity;
  if (block.capacity > MAX_SPARE_BYTES - spare_bytes_) return;
  spare_bytes_ += block.capacity;
  spares_[static_cast<size_t>(std::countr_zero(block.capacity))].push_back(std::move(block));
}

void ByteBuffer::release() {
  if (block_.bytes) pool_.take_back(std::exchange(block_, {}));
  begin_ = end_ = 0;
}

bool ByteBuffer::make_room(size_t wanted) {
  if (room() >= std::min(wanted, MIN_ROOM)) return true;
  if (size() + wanted <= block_.capacity) {
    std::memmove(block_.bytes.get(), data(), size());
    end_ = size();
    begin_ = 0;
    return true;
  }
  Block larger = pool_.lend(size() + wanted);
  if (!larger.bytes) return false;
  const size_t kept = size();
  if (kept != 0) std::memcpy(larger.bytes.get(), data(), kept);
  release();
  block_ = std::move(larger);
  end_ = kept;
  return true;
}

void ByteBuffer::drop_front(size_t n) {
  begin_ += n;
  if (empty()) release();
}

void ByteBuffer::keep(const char *from, size_t n) {
  begin_ = static_cast<size_t>(from - block_.bytes.get());
  end_ = begin_ + n;
  if (empty()) release();
}

}  // namespace metricdb
