// The allocators with which chunks and slots are compared: that of the C library, and mimalloc and jemalloc if they are
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

// Returns the same list at every call, "malloc" first. The other allocators are opened at run time and their symbols
// are local. Linked, they would replace malloc for all candidates.
const std::vector<allocator_t> &allocators();

#endif
