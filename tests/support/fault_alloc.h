// Lets the n-th allocation fail. Interposes calloc, malloc and free of the whole program, and acts on the
// calling thread alone.
#ifndef TSLB_TESTS_FAULT_ALLOC_H
#define TSLB_TESTS_FAULT_ALLOC_H

struct fault_t {
  explicit fault_t(int nth);  // 1: the next allocation fails, once
  ~fault_t();
  fault_t(const fault_t &) = delete;
  bool struck() const;
  static bool works();  // not under ThreadSanitizer, whose own start needs the allocator that it would stand before
};

// Allocations of the calling thread since its start.
unsigned long allocations_so_far();

// Called with each block that the calling thread is about to free, while it is set. Not under a sanitizer, which needs
// its own free before symbols can be looked up.
extern __thread void (*on_free)(void *block);

#endif
