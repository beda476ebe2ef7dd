#include "allocators.h"

#include <dlfcn.h>
#include <stdlib.h>

static void add_if_installed(std::vector<allocator_t> *found, const char *name, const char *library, const char *take,
                             const char *give) {
  void *const opened = dlopen(library, RTLD_NOW | RTLD_LOCAL);
  if (opened == nullptr) return;
  const allocator_t allocator = {name, reinterpret_cast<void *(*)(size_t)>(dlsym(opened, take)),
                                 reinterpret_cast<void (*)(void *)>(dlsym(opened, give))};
  if (allocator.take != nullptr && allocator.give != nullptr) found->push_back(allocator);
}

const std::vector<allocator_t> &allocators() {
  static const std::vector<allocator_t> all = [] {
    std::vector<allocator_t> found = {{"malloc", malloc, free}};
    add_if_installed(&found, "mimalloc", "libmimalloc.so.2", "mi_malloc", "mi_free");
    add_if_installed(&found, "jemalloc", "libjemalloc.so.2", "malloc", "free");
    return found;
  }();
  return all;
}
