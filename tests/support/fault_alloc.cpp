#include "fault_alloc.h"

#include <dlfcn.h>
#include <errno.h>
#include <stddef.h>
#include <stdlib.h>
#include <sys/mman.h>

#include <atomic>

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
  std::atomic<int> to_go{0};
  std::atomic<bool> struck{false};
};
static everywhere_t none;
static std::atomic<everywhere_t *> everywhere{&none};  // shared with children
static __thread bool is_exempt;

fault_everywhere_t::fault_everywhere_t(int nth) {
  if (everywhere == &none) {
    void *const memory = mmap(nullptr, sizeof(everywhere_t), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) abort();
    everywhere = new (memory) everywhere_t;
  }
  is_exempt = true;
  everywhere.load()->struck = false;
  everywhere.load()->to_go = nth;
}
fault_everywhere_t::~fault_everywhere_t() {
  everywhere.load()->to_go = 0;
  is_exempt = false;
}
bool fault_everywhere_t::struck() const {
  return everywhere.load()->struck;
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

[[maybe_unused]] static bool strikes() {
  ++count;
  everywhere_t &all = *everywhere.load();
  if (!is_exempt && all.to_go > 0 && all.to_go.fetch_sub(1) == 1) {
    all.struck = true;
  } else {
    if (to_go == 0 || --to_go != 0) return false;
    struck_once = true;
  }
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
