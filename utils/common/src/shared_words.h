// Access to words of stored structures that one thread reads while another thread writes them. Private.
//
// A word is named by its field, so a field of another width does not compile. A stored structure can start at any
// address. The processor reads and writes each word whole unless it crosses a cache line. n_used can cross one if a user
// header's size is not a multiple of 4 (dynamic_array.h); other words that are read without the lock are aligned or are
// only confirmed under the lock.
//
// Relaxed: the spin lock or the full barrier in the host's atomics provides the required order.
#ifndef SHARED_WORDS_H
#define SHARED_WORDS_H

#include "tslb_atomics.h"

template <class Word, class Struct>
static inline Word *shared_word(const Struct *at, Word Struct::*field) {
  return const_cast<Word *>(&(at->*field));
}

template <class Struct>
static inline uint32_t get32(const Struct *at, uint32_t Struct::*field) {
  return __atomic_load_n(shared_word(at, field), __ATOMIC_RELAXED);
}
template <class Struct>
static inline void set32(Struct *at, uint32_t Struct::*field, uint32_t value) {
  __atomic_store_n(shared_word(at, field), value, __ATOMIC_RELAXED);
}
// Calls the host's hook, which is a full barrier.
template <class Struct>
static inline uint32_t add32(Struct *at, uint32_t Struct::*field, uint32_t amount) {
  return get_and_inc32(shared_word(at, field), amount);
}

// 64-bit counters that other threads change concurrently. A read returns the value at some moment. No pointer is read
// through it.
template <class Word, class Struct>
static inline Word get64(const Struct *at, Word Struct::*field) {
  static_assert(sizeof(Word) == 8);
  return __atomic_load_n(shared_word(at, field), __ATOMIC_RELAXED);
}

#endif
