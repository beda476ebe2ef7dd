#include "clocks.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>

#include <algorithm>

static void join(clocks_t::clock_t *into, const clocks_t::clock_t &from) {
  for (int i = 0; i < MAX_THREADS; ++i) (*into)[i] = std::max((*into)[i], from[i]);
}

static void *map_zeroes(size_t bytes) {
  void *const mapped = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (mapped != MAP_FAILED) return mapped;
  perror("memory for clocks");
  exit(2);
}

// Mapped, not allocated: most cells are never touched.
clocks_t::clocks_t(size_t bytes)
    : cells_(static_cast<cell_t *>(map_zeroes(bytes * sizeof(cell_t)))), words_(std::make_unique<word_t[]>(N_WORDS)) {}

void clocks_t::reset() {
  ++run_;
  for (int i = 0; i < MAX_THREADS; ++i) {
    threads_[i] = {};
    threads_[i].now[i] = 1;
  }
}

namespace {
// For each kind of access and thread: all ones for the clocks with which it has no race.
struct exempt_t {
  clocks_t::clocks_of_byte_t of[4][MAX_THREADS];
  exempt_t() {
    // Two reads and two atomic accesses do not race.
    static constexpr bool RACES[4][4] = {{false, true, false, true},  // by access_t
                                         {true, true, true, true},
                                         {false, true, false, false},
                                         {true, true, false, false}};
    for (int kind = 0; kind < 4; ++kind)
      for (int thread = 0; thread < MAX_THREADS; ++thread)
        for (int i = 0; i < MAX_THREADS * 4; ++i)
          of[kind][thread][i] = RACES[kind][i / MAX_THREADS] && i % MAX_THREADS != thread ? 0 : UINT16_MAX;
  }
};
const exempt_t exempt;
}  // namespace

// Compares all clocks of a byte at once.
int clocks_t::access(int thread, size_t offset, size_t bytes, access_t kind) {
  const clock_t &now = threads_[thread].now;
  clocks_of_byte_t ordered;  // what each clock may be at most
  for (size_t i = 0; i < 4; ++i) memcpy(reinterpret_cast<char *>(&ordered) + i * sizeof(now), &now, sizeof(now));
  ordered |= exempt.of[kind][thread];
  for (cell_t *cell = cells_ + offset; cell != cells_ + offset + bytes; ++cell) {
    if (cell->run != run_) {
      cell->run = run_;
      cell->last = clocks_of_byte_t{};
    }
    const auto later = cell->last > ordered;
    cell->last[kind * MAX_THREADS + thread] = now[static_cast<size_t>(thread)];
    uint64_t parts[sizeof(later) / 8];
    memcpy(parts, &later, sizeof(later));
    if (__builtin_expect((parts[0] | parts[1] | parts[2] | parts[3]) == 0, 1)) continue;
    for (int i = 0; i < MAX_THREADS * 4; ++i)
      if (later[i] != 0) return i % MAX_THREADS;
  }
  return -1;
}

clocks_t::clock_t &clocks_t::released_by(size_t offset) {
  const uint32_t key = static_cast<uint32_t>(offset);
  for (size_t i = key * 2654435761u % N_WORDS, n = 0; n < N_WORDS; i = (i + 1) % N_WORDS, ++n) {
    word_t &word = words_[i];
    if (word.run == run_ && word.key != key) continue;
    if (word.run != run_) word = {run_, key, {}};
    return word.released;
  }
  fputs("too many atomic words in one schedule\n", stderr);
  exit(2);
}

template <class Work>
void clocks_t::for_halves(size_t offset, size_t bytes, Work work) {
  work(released_by(offset));
  if (bytes == 8) work(released_by(offset + 4));
}

void clocks_t::load(int thread, size_t offset, size_t bytes, bool acquires) {
  thread_t &at = threads_[thread];
  for_halves(offset, bytes, [&](const clock_t &released) { join(acquires ? &at.now : &at.read, released); });
}

void clocks_t::store(int thread, size_t offset, size_t bytes, bool releases) {
  const thread_t &at = threads_[thread];
  for_halves(offset, bytes, [&](clock_t &released) { released = releases ? at.now : at.fenced; });
}

void clocks_t::full_barrier(int thread, size_t offset, size_t bytes, bool stores) {
  thread_t &at = threads_[thread];
  join(&at.now, at.read);
  for_halves(offset, bytes, [&](const clock_t &released) { join(&at.now, released); });
  at.fenced = at.now;
  if (stores) for_halves(offset, bytes, [&](clock_t &released) { join(&released, at.now); });
}
