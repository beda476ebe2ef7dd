// The allocators that chunks and slots are measured against: the C library's, and mimalloc and jemalloc where they are
// installed.
#ifndef TSLB_BENCH_ALLOCATORS_H
#define TSLB_BENCH_ALLOCATORS_H

#include <stddef.h>

#include <vector>

struct allocator_t {
  const char *name;
  void *(*take)(size_t bytes);
  void (*give)(void *memory);
};

// The same ones at every call, "malloc" first. The others are opened while the program runs and out of everybody else's
// sight: linked, they would put themselves in the place of malloc for all rivals.
const std::vector<allocator_t> &allocators();

#endif
