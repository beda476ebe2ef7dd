// Finds data races by vector clocks: two accesses of one byte by different threads, at least one of them a write and at
// least one of them not atomic, without an ordering of the C++ memory model between them. A race is found in whichever
// order the two run.
#ifndef TSLB_EXPLORE_CLOCKS_H
#define TSLB_EXPLORE_CLOCKS_H

#include <stddef.h>
#include <stdint.h>

#include <array>
#include <memory>

#include "operation.h"

enum access_t : uint8_t { PLAIN_READ, PLAIN_WRITE, ATOMIC_READ, ATOMIC_WRITE };

class clocks_t {
 public:
  using clock_t = std::array<uint16_t, MAX_THREADS>;
  // By access_t, then by thread.
  typedef uint16_t clocks_of_byte_t __attribute__((vector_size(MAX_THREADS * 4 * sizeof(uint16_t)), aligned(4)));

  // offsets: positions in the arena, from 0 to `bytes` - 1.
  explicit clocks_t(size_t bytes);

  void reset();
  // Begins a step of the thread.
  void advance(int thread) { ++threads_[thread].now[thread]; }

  // Returns the other thread of a race, or -1.
  int access(int thread, size_t offset, size_t bytes, access_t kind);

  // Orders that atomic operations cause. `bytes` 8 stands for both halves.
  void load(int thread, size_t offset, size_t bytes, bool acquires);
  void store(int thread, size_t offset, size_t bytes, bool releases);
  // One of the host's atomics, which are full barriers. A failed swap stores nothing.
  void full_barrier(int thread, size_t offset, size_t bytes, bool stores);

 private:
  struct thread_t {
    clock_t now = {};
    clock_t read = {};    // by relaxed loads; a barrier acquires it
    clock_t fenced = {};  // at the last barrier; relaxed stores release it
  };
  struct cell_t {
    uint32_t run;
    clocks_of_byte_t last;
  };
  struct word_t {
    uint32_t run = 0;
    uint32_t key = 0;
    clock_t released = {};
  };
  static constexpr size_t N_WORDS = 4096;

  clock_t &released_by(size_t offset);
  template <class Work>
  void for_halves(size_t offset, size_t bytes, Work work);

  uint32_t run_ = 0;
  thread_t threads_[MAX_THREADS];
  cell_t *const cells_;
  std::unique_ptr<word_t[]> words_;
};

#endif
