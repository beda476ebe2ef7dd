// Makes the n-th allocation of the calling thread fail. Interposes calloc and malloc of the whole program.
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

#endif
