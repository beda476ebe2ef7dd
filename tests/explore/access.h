// Accesses of the explored program, as scenarios and the self-check make them.
#ifndef TSLB_EXPLORE_ACCESS_H
#define TSLB_EXPLORE_ACCESS_H

#include <stddef.h>
#include <stdint.h>

// How an atomic word takes part in the search. Other words are scheduling points, and each order of accesses counts.
enum word_use_t {
  NO_CHOICE,          // no switch of threads before an access: a figure that nothing decides on
  ADDITIONS_COMMUTE,  // the results of its additions are not used
};
void unmark_words();
void mark_words(const void *at, size_t bytes, word_use_t use);

// A plain access by the calling thread, as if the explored program had made it.
void note_access(const void *at, size_t bytes, bool writes);

// Atomic accesses by the calling thread; each is a scheduling point.
uint64_t explore_load(const uint64_t *at, int order);
void explore_store(uint64_t *at, uint64_t value, int order);

// Operations of locks and condition variables (sync.cpp). `caller` is shown in reports.
int32_t swap_lock(uint16_t *word, uint16_t expected, uint16_t desired, const void *caller);
void explore_store16(uint16_t *at, uint16_t value, const void *caller);
// Waits until the word is 0, in one step.
void await_zero(const uint16_t *at, const void *caller);
// Stores 0 and returns the value before.
uint64_t exchange_zero(uint64_t *at, const void *caller);

// A scheduling point: the redo hook was called with these bytes.
void reach_hook(const void *data, size_t bytes, const void *caller);

// Whether every allocation by a thread fails.
void refuse_memory(bool refuses);

#endif
