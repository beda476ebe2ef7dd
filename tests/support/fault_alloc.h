// Makes the n-th allocation of the calling thread fail. Interposes calloc, malloc and free of the whole program.
#ifndef TSLB_TESTS_FAULT_ALLOC_H
#define TSLB_TESTS_FAULT_ALLOC_H

struct fault_t {
  explicit fault_t(int nth);  // 1: the next allocation fails, once
  ~fault_t();
  fault_t(const fault_t &) = delete;
  bool struck() const;
  static bool works();  // not under ThreadSanitizer, which allocates before it can be interposed
};

// Returns the number of allocations of the calling thread since its start.
unsigned long allocations_so_far();

// If set, called with each block that the calling thread frees. Not under a sanitizer, which needs its own free before
// symbols can be looked up.
extern __thread void (*on_free)(void *block);

#endif
