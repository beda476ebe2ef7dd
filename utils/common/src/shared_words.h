// Words of stored structures that one thread reads while another writes. Private.
//
// A word is named by its field, so that a field of another width does not compile. Stored structures can stand at any
// address; the processor keeps each access whole all the same, except where a word crosses a cache line, which no reader
// without the lock depends on.
//
// Relaxed: the spin lock, or the full barrier in the host's atomics, orders what must be ordered.
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
// Through the host's hook: a full barrier.
template <class Struct>
static inline uint32_t add32(Struct *at, uint32_t Struct::*field, uint32_t amount) {
  return get_and_inc32(shared_word(at, field), amount);
}

// Counters of 64 bits that other threads change at the same time. Each reading is true of some moment, and nothing is
// read through it.
template <class Word, class Struct>
static inline Word get64(const Struct *at, Word Struct::*field) {
  static_assert(sizeof(Word) == 8);
  return __atomic_load_n(shared_word(at, field), __ATOMIC_RELAXED);
}

#endif
