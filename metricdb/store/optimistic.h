// Reading without a lock while one thread writes. It depends on nothing else, so other hosts can copy this file.
//
// The writer counts a version up before a change and after it, so it is odd meanwhile. A reader remembers the version,
// copies what it needs, and uses the copy only if the version is even and has not changed. If it has, it tries again; after
// some attempts it takes the lock under which the writer makes its changes.
//
// The copy is made while another thread may write, so it can be a mixture of old and new bytes, and nothing in it may be
// used, not even as an index or an address, before the version was compared. This needs memory that stays mapped: arrays
// and pools of tslb are not given back before they are destroyed.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace metricdb {

class Version {
 public:
  // Writer. One thread at a time.
  void begin_change() {
    value_.store(value_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    std::atomic_thread_fence(std::memory_order_release);  // before the bytes of the change
  }
  void end_change() { value_.store(value_.load(std::memory_order_relaxed) + 1, std::memory_order_release); }

  // Readers.
  uint32_t begin_read() const { return value_.load(std::memory_order_acquire); }
  static bool is_changing(uint32_t seen) { return seen % 2 != 0; }
  // Whether what was copied since `begin_read` returned `seen` is of one moment.
  bool is_unchanged(uint32_t seen) const {
    std::atomic_thread_fence(std::memory_order_acquire);  // after the bytes that were copied
    return !is_changing(seen) && value_.load(std::memory_order_relaxed) == seen;
  }

 private:
  std::atomic<uint32_t> value_{0};
};

// Copies bytes that another thread may be writing. Not with memcpy, which may read a byte twice, and without
// ThreadSanitizer, which would report exactly what the version makes harmless.
__attribute__((no_sanitize("thread"))) inline void copy_racing(void *to, const void *from, size_t bytes) {
  auto *target = static_cast<char *>(to);
  const auto *source = static_cast<const char *>(from);
  // At any alignment, and whatever the bytes are.
  struct __attribute__((packed, may_alias)) Word {
    uint64_t value;
  };
  for (; bytes >= sizeof(Word); bytes -= sizeof(Word), target += sizeof(Word), source += sizeof(Word))
    reinterpret_cast<Word *>(target)->value = reinterpret_cast<const volatile Word *>(source)->value;
  for (; bytes != 0; --bytes) *target++ = *reinterpret_cast<const volatile char *>(source++);
}

// Reads a count that the writer stores with release order. The bytes that it counts can be copied afterwards.
__attribute__((no_sanitize("thread"))) inline uint32_t read_count_racing(const void *count) {
  const uint32_t value = *static_cast<const volatile uint32_t *>(count);
  std::atomic_thread_fence(std::memory_order_acquire);
  return value;
}

}  // namespace metricdb
