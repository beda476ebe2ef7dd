// What the explored program calls: the entry points that -fsanitize=thread puts before each access, the host's atomics,
// and the functions of the C library under the names that objcopy gives them (renames.txt).
#include "access.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/types.h>

#include <tslb/tslb_atomics.h>

#include "machine.h"

#define CALLER __builtin_return_address(0)

// ---- Words that are no scheduling points ----------------------------------------------------------------------------

static struct {
  uintptr_t first, end;
  word_use_t use;
} marked[16];
static int n_marked;

void unmark_words() {
  n_marked = 0;
}
void mark_words(const void *at, size_t bytes, word_use_t use) {
  if (n_marked == 16) abort();
  const uintptr_t first = reinterpret_cast<uintptr_t>(at);
  marked[n_marked++] = {first, first + bytes, use};
}
static bool is_marked(uintptr_t at, word_use_t use) {
  for (int i = 0; i < n_marked; ++i)
    if (at - marked[i].first < marked[i].end - marked[i].first && marked[i].use == use) return true;
  return false;
}

// ---- Accesses -------------------------------------------------------------------------------------------------------

static const char *const ACCESSES[] = {"read", "write", "atomic read", "atomic write"};

// Checks one access for races, and for memory that was released or never allocated.
static void check(const void *address, size_t bytes, access_t kind) {
  const uintptr_t at = reinterpret_cast<uintptr_t>(address);
  if (!machine.arena.contains(at)) return;
  if (!machine.arena.is_allocated(at, bytes)) {
    machine.violation("%s of %zu bytes at %#zx, which are not allocated", ACCESSES[kind], bytes, at);
    return;
  }
  const int thread = machine.thread();
  if (thread < 0) return;
  const int other = machine.clocks.access(thread, machine.arena.offset_of(at), bytes, kind);
  if (other >= 0)
    machine.violation("data race of thread %d with thread %d: %s of %zu bytes at %#zx", thread, other, ACCESSES[kind],
                      bytes, at);
}

// Waits for the search. Returns whether the word is shared between threads and its clocks matter.
static bool begin(const void *address, size_t bytes, op_kind_t kind, bool writes, const void *caller) {
  const uintptr_t at = reinterpret_cast<uintptr_t>(address);
  if (!machine.arena.contains(at) || machine.thread() < 0) return false;
  const bool commutes = kind == OP_ADD && is_marked(at, ADDITIONS_COMMUTE);
  if (!is_marked(at, NO_CHOICE)) machine.reach({at, static_cast<uint32_t>(bytes), kind, writes, commutes, caller});
  return true;
}

template <class Word>
static Word load(const volatile void *address, int order, const void *caller) {
  const Word *const at = const_cast<const Word *>(static_cast<const volatile Word *>(address));
  const bool is_shared = begin(at, sizeof(Word), OP_LOAD, false, caller);
  check(at, sizeof(Word), ATOMIC_READ);
  Word value;
  memcpy(&value, at, sizeof(value));
  if (is_shared) {
    machine.clocks.load(machine.thread(), machine.arena.offset_of(reinterpret_cast<uintptr_t>(at)), sizeof(Word),
                        order != __ATOMIC_RELAXED);
    if (!is_marked(reinterpret_cast<uintptr_t>(at), NO_CHOICE)) machine.executed(value, false);
  }
  return value;
}

template <class Word>
static void store(volatile void *address, Word value, int order, const void *caller) {
  Word *const at = const_cast<Word *>(static_cast<volatile Word *>(address));
  const bool is_shared = begin(at, sizeof(Word), OP_STORE, true, caller);
  check(at, sizeof(Word), ATOMIC_WRITE);
  memcpy(at, &value, sizeof(value));
  if (!is_shared) return;
  const int thread = machine.thread();
  machine.clocks.store(thread, machine.arena.offset_of(reinterpret_cast<uintptr_t>(at)), sizeof(Word),
                       order != __ATOMIC_RELAXED);
  machine.clocks.advance(thread);
  if (!is_marked(reinterpret_cast<uintptr_t>(at), NO_CHOICE)) machine.executed(value, true);
}

// change(old, &fresh) returns whether the word changes.
template <class Word, class Change>
static Word modify(Word *at, op_kind_t kind, const void *caller, Change change) {
  const bool is_shared = begin(at, sizeof(Word), kind, true, caller);
  Word old, fresh;
  memcpy(&old, at, sizeof(old));
  const bool writes = change(old, &fresh);
  check(at, sizeof(Word), writes ? ATOMIC_WRITE : ATOMIC_READ);
  if (writes) memcpy(at, &fresh, sizeof(fresh));
  if (!is_shared) return old;
  const int thread = machine.thread();
  machine.clocks.full_barrier(thread, machine.arena.offset_of(reinterpret_cast<uintptr_t>(at)), sizeof(Word), writes);
  machine.clocks.advance(thread);
  if (!is_marked(reinterpret_cast<uintptr_t>(at), NO_CHOICE)) machine.executed(writes ? fresh : old, writes);
  return old;
}

template <class Word>
static int32_t swap(Word *at, Word expected, Word desired, op_kind_t kind, const void *caller) {
  return modify(at, kind, caller, [=](Word old, Word *fresh) {
           *fresh = desired;
           return old == expected;
         }) == expected;
}

template <class Word>
static Word add(Word *at, Word amount, const void *caller) {
  return modify(at, OP_ADD, caller, [=](Word old, Word *fresh) {
    *fresh = static_cast<Word>(old + amount);
    return true;
  });
}

void note_access(const void *at, size_t bytes, bool writes) {
  check(at, bytes, writes ? PLAIN_WRITE : PLAIN_READ);
}

uint64_t explore_load(const uint64_t *at, int order) {
  return load<uint64_t>(at, order, CALLER);
}
void explore_store(uint64_t *at, uint64_t value, int order) {
  store<uint64_t>(at, value, order, CALLER);
}

int32_t swap_lock(uint16_t *word, uint16_t expected, uint16_t desired, const void *caller) {
  return swap(word, expected, desired, expected == 0 ? OP_LOCK : OP_UNLOCK, caller);
}
void explore_store16(uint16_t *at, uint16_t value, const void *caller) {
  store(at, value, __ATOMIC_RELAXED, caller);
}
uint64_t exchange_zero(uint64_t *at, const void *caller) {
  return modify(at, OP_SWAP, caller, [](uint64_t, uint64_t *fresh) {
    *fresh = 0;
    return true;
  });
}
void await_zero(const uint16_t *at, const void *caller) {
  const uintptr_t address = reinterpret_cast<uintptr_t>(at);
  machine.reach({address, sizeof(*at), OP_AWAIT, false, false, caller, 1});
  check(at, sizeof(*at), ATOMIC_READ);
  machine.clocks.load(machine.thread(), machine.arena.offset_of(address), sizeof(*at), true);
  machine.executed(*at, false);
}

void reach_hook(const void *data, size_t bytes, const void *caller) {
  if (machine.reach({reinterpret_cast<uintptr_t>(data), static_cast<uint32_t>(bytes), OP_HOOK, false, false, caller}))
    machine.executed(bytes, false);
  // The hook copies live memory while other threads may change it. Each word is read whole.
  if (bytes != 0) check(data, bytes, ATOMIC_READ);
}

// ---- The host's atomics ---------------------------------------------------------------------------------------------

extern "C" {

int32_t cas16(uint16_t *word, uint16_t expected, uint16_t desired) {
  return swap_lock(word, expected, desired, CALLER);
}
int32_t cas64(uint64_t *word, uint64_t expected, uint64_t desired) {
  return swap(word, expected, desired, OP_SWAP, CALLER);
}
uint32_t get_and_inc32(uint32_t *word, uint32_t amount) {
  return add(word, amount, CALLER);
}
uint64_t get_and_inc64(uint64_t *word, uint64_t amount) {
  return add(word, amount, CALLER);
}

// ---- Entry points of the instrumentation ----------------------------------------------------------------------------

void __tsan_init() {}
void __tsan_func_entry(void *) {}
void __tsan_func_exit() {}

#define PLAIN(BYTES)                                  \
  void __tsan_read##BYTES(void *at) {                 \
    check(at, BYTES, PLAIN_READ);                     \
  }                                                   \
  void __tsan_write##BYTES(void *at) {                \
    check(at, BYTES, PLAIN_WRITE);                    \
  }                                                   \
  void __tsan_unaligned_read##BYTES(const void *at) { \
    check(at, BYTES, PLAIN_READ);                     \
  }                                                   \
  void __tsan_unaligned_write##BYTES(void *at) {      \
    check(at, BYTES, PLAIN_WRITE);                    \
  }
PLAIN(1)
PLAIN(2)
PLAIN(4)
PLAIN(8)
PLAIN(16)

void __tsan_read_range(void *at, size_t bytes) {
  if (bytes != 0) check(at, bytes, PLAIN_READ);
}
void __tsan_write_range(void *at, size_t bytes) {
  if (bytes != 0) check(at, bytes, PLAIN_WRITE);
}

#define ATOMIC(BITS)                                                                     \
  uint##BITS##_t __tsan_atomic##BITS##_load(const volatile void *at, int order) {        \
    return load<uint##BITS##_t>(at, order, CALLER);                                      \
  }                                                                                      \
  void __tsan_atomic##BITS##_store(volatile void *at, uint##BITS##_t value, int order) { \
    store<uint##BITS##_t>(at, value, order, CALLER);                                     \
  }
ATOMIC(8)
ATOMIC(16)
ATOMIC(32)
ATOMIC(64)

// Of std::atomic; each is sequentially consistent.
uint32_t __tsan_atomic32_fetch_add(volatile void *at, uint32_t amount, int) {
  return add(const_cast<uint32_t *>(static_cast<volatile uint32_t *>(at)), amount, CALLER);
}
uint32_t __tsan_atomic32_fetch_sub(volatile void *at, uint32_t amount, int) {
  return add(const_cast<uint32_t *>(static_cast<volatile uint32_t *>(at)), 0 - amount, CALLER);
}

// ---- The C library --------------------------------------------------------------------------------------------------

static bool refuses_memory;

void *explored_calloc(size_t count, size_t bytes) {
  if (refuses_memory && machine.thread() >= 0) return nullptr;
  void *const block = machine.arena.allocate(machine.thread() + 1, count * bytes);
  // Zeroing is a write: a thread that finds the block through a relaxed load has a race with it.
  if (block != nullptr && count * bytes != 0) check(block, count * bytes, PLAIN_WRITE);
  return block;
}
void *explored_malloc(size_t bytes) {
  return explored_calloc(1, bytes);
}
void explored_free(void *block) {
  if (block == nullptr) return;
  note_access(block, 1, true);  // a race with a later user of the block
  if (!machine.arena.release(block)) machine.violation("free of %p, which is no block, or was released before", block);
}
void *explored_memset(void *to, int value, size_t bytes) {
  if (bytes != 0) check(to, bytes, PLAIN_WRITE);
  return memset(to, value, bytes);
}
void *explored_memcpy(void *to, const void *from, size_t bytes) {
  if (bytes != 0) {
    check(from, bytes, PLAIN_READ);
    check(to, bytes, PLAIN_WRITE);
  }
  return memcpy(to, from, bytes);
}

void explored_abort() {
  machine.violation("the program stops: abort");
  abort();
}
void explored_assert_fail(const char *text, const char *, unsigned, const char *) {
  machine.violation("the program stops: assertion %s", text);
  abort();
}

// Messages are dropped. The one about a lost list means that an operation broke it.
int explored_fprintf(FILE *, const char *format, ...) {
  if (strstr(format, "resetting n_") != nullptr) machine.violation("a list is lost: %s", format);
  return 0;
}
int explored_printf(const char *, ...) {
  return 0;
}
int explored_puts(const char *) {
  return 0;
}

// One moment for the whole exploration: a clock that moves would change decisions from one schedule to the next.
time_t explored_time(time_t *) {
  return 1'000'000;
}
}

void refuse_memory(bool refuses) {
  refuses_memory = refuses;
}
