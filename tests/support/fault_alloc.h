// Makes the n-th allocation fail. Interposes calloc and malloc of the whole program.
#ifndef TSLB_TESTS_FAULT_ALLOC_H
#define TSLB_TESTS_FAULT_ALLOC_H

// Of the calling thread.
struct fault_t {
  explicit fault_t(int nth);  // 1: the next allocation fails, once
  ~fault_t();
  fault_t(const fault_t &) = delete;
  bool struck() const;
  static bool works();  // not under ThreadSanitizer, which allocates before it can be interposed
};

// Counts the allocations of all threads and forked children; those of the thread that makes this object only while it has a
// counted_t.
struct fault_everywhere_t {
  explicit fault_everywhere_t(int nth);
  ~fault_everywhere_t();
  fault_everywhere_t(const fault_everywhere_t &) = delete;
  bool struck() const;
};
struct counted_t {
  counted_t();
  ~counted_t();
  counted_t(const counted_t &) = delete;
};

// Returns the number of allocations of the calling thread since its start.
unsigned long allocations_so_far();

#endif
