// A host on an installed library: a chunk in a pool. It uses no symbol of the stand-in. The archive is on the linker's
// line only for the undefined symbols of the library.
#include <tslb/tslb.h>

#include <cstdio>
#include <cstring>

int main() {
  dynmem_t *pool = tslb_init_dynmem(1000, 2, MPOOL_FLAG_COMPAT, MPOOL_TYPE_DRAM, 0, "names", BBP_TBLID, 0);
  const srcaddr_t source = {};
  maddr_t address;
  auto *chunk = static_cast<compat_t *>(tslb_dynmem_get_mchunk(pool, &address, 5, source));
  if (chunk == nullptr) return 1;
  std::memcpy(chunk->mchunk, "hill", 5);
  uint32_t bytes = 0;
  std::printf("a chunk: %s\n", static_cast<const char *>(tslb_dynmem_get_maddr2ptr_ex(pool, address, &bytes)));
  destroy_dyn_arr(pool);
}
