#include "fault_alloc.h"

#include <dlfcn.h>
#include <errno.h>
#include <stddef.h>
#include <stdlib.h>
#include <sys/mman.h>

static __thread int to_go;  // 0: no fault is armed
static __thread bool struck_once;
static __thread unsigned long count;

fault_t::fault_t(int nth) {
  struck_once = false;
  to_go = nth;
}
fault_t::~fault_t() {
  to_go = 0;
}
bool fault_t::struck() const {
  return struck_once;
}

struct everywhere_t {
  int to_go;
  bool struck;
};
static everywhere_t none;
static everywhere_t *everywhere = &none;  // shared with children
static __thread bool is_exempt;

fault_everywhere_t::fault_everywhere_t(int nth) {
  if (everywhere == &none) {
    void *const memory = mmap(nullptr, sizeof(everywhere_t), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) abort();
    __atomic_store_n(&everywhere, static_cast<everywhere_t *>(memory), __ATOMIC_RELEASE);
  }
  is_exempt = true;
  __atomic_store_n(&everywhere->struck, false, __ATOMIC_RELAXED);
  __atomic_store_n(&everywhere->to_go, nth, __ATOMIC_RELEASE);
}
fault_everywhere_t::~fault_everywhere_t() {
  __atomic_store_n(&everywhere->to_go, 0, __ATOMIC_RELAXED);
  is_exempt = false;
}
bool fault_everywhere_t::struck() const {
  return __atomic_load_n(&everywhere->struck, __ATOMIC_ACQUIRE);
}
counted_t::counted_t() {
  is_exempt = false;
}
counted_t::~counted_t() {
  is_exempt = true;
}

unsigned long allocations_so_far() {
  return count;
}

// Not instrumented: a sanitizer allocates before the memory in which it notes accesses is there.
[[maybe_unused, gnu::no_sanitize_address]] static bool strikes_everywhere() {
  everywhere_t *const all = __atomic_load_n(&everywhere, __ATOMIC_ACQUIRE);
  if (is_exempt || __atomic_load_n(&all->to_go, __ATOMIC_ACQUIRE) <= 0) return false;
  if (__atomic_fetch_sub(&all->to_go, 1, __ATOMIC_ACQ_REL) != 1) return false;
  __atomic_store_n(&all->struck, true, __ATOMIC_RELEASE);
  return true;
}

[[maybe_unused]] static bool strikes() {
  ++count;
  const bool strikes_here = to_go != 0 && --to_go == 0;
  if (strikes_here) struck_once = true;
  if (!strikes_everywhere() && !strikes_here) return false;
  errno = ENOMEM;
  return true;
}

#if defined(TSLB_SANITIZES_THREAD)
bool fault_t::works() {
  return false;
}
#else
bool fault_t::works() {
  return true;
}

template <class Function>
static Function next(const char *name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

// Calls the next definition: that of the C library, or of the sanitizer, which then sees every block.
extern "C" __attribute__((visibility("default"))) void *calloc(size_t n, size_t size) {
  static const auto real = next<void *(*)(size_t, size_t)>("calloc");
  return strikes() ? nullptr : real(n, size);
}

extern "C" __attribute__((visibility("default"))) void *malloc(size_t size) {
  static const auto real = next<void *(*)(size_t)>("malloc");
  return strikes() ? nullptr : real(size);
}
#endif
