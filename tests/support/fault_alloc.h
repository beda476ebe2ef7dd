// Lets the n-th allocation fail. Interposes calloc and malloc of the whole program, and acts on the calling
// thread alone while a fault_t lives.
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

#endif
