#include "fault_alloc.h"

#include <dlfcn.h>
#include <errno.h>
#include <stddef.h>

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
unsigned long allocations_so_far() {
  return count;
}

[[maybe_unused]] static bool strikes() {
  ++count;
  if (to_go == 0 || --to_go != 0) return false;
  struck_once = true;
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
