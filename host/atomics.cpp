// The four atomic hooks, implemented with compiler builtins.
#include <tslb/tslb_atomics.h>

template <class Word>
static int32_t swap(Word *word, Word expected, Word desired) {
  return __atomic_compare_exchange_n(word, &expected, desired, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST) ? 1 : 0;
}

int32_t cas16(uint16_t *word, uint16_t expected, uint16_t desired) {
  return swap(word, expected, desired);
}
int32_t cas64(uint64_t *word, uint64_t expected, uint64_t desired) {
  return swap(word, expected, desired);
}

uint32_t get_and_inc32(uint32_t *word, uint32_t amount) {
  return __atomic_fetch_add(word, amount, __ATOMIC_SEQ_CST);
}
uint64_t get_and_inc64(uint64_t *word, uint64_t amount) {
  return __atomic_fetch_add(word, amount, __ATOMIC_SEQ_CST);
}
