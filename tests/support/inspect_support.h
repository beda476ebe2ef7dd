// Arrays that tests of the inspector store.
#ifndef TSLB_TESTS_INSPECT_SUPPORT_H
#define TSLB_TESTS_INSPECT_SUPPORT_H

#include "array_support.h"
#include "tool_support.h"

// 20 slots, 3 of them direct. Free: 4, 2, 9. Inactive: 7, 5. Record i begins with the word i.
inline array_t two_lists(char mem_type = MPOOL_TYPE_DRAM, const char *ctx_name = nullptr) {
  array_t array(tslb_da_init_ver(12, 3, mem_type, ctx_name, 12, TSLB_DA_DAFLAG_INLL, 5));
  for (uint32_t i = 0; i < 20; ++i) {
    uint32_t idx;
    write_at(tslb_da_get_newptr(array.get(), &idx), 0, i);
  }
  for (const uint32_t idx : {4u, 2u, 9u}) tslb_da_free_idx(array.get(), idx);
  for (const uint32_t idx : {7u, 5u}) tslb_da_inactivate_idx(array.get(), idx, 1000);
  return array;
}
constexpr size_t SLOT_BYTES = 28, HEADER_BYTES = 84;
inline size_t slot(size_t idx) {
  return HEADER_BYTES + idx * SLOT_BYTES;
}

// Slots of 64 bytes. Slot 0 is freed; slot 1 has 32 of 56 bytes deleted; slot 2 is current and has 24.
inline array_t chunk_pool() {
  array_t pool(tslb_init_dynmem_ex1(64, 2, MPOOL_FLAG_COMPAT, MPOOL_TYPE_DRAM, 1, nullptr, BBP_TBLID, TSLB_DA_DAFLAG_LL,
                                    7, 0, 0));
  std::vector<maddr_t> chunks;
  for (const int bytes : {40, 16, 8, 8}) {
    maddr_t address;
    tslb_dynmem_get_mchunk(pool.get(), &address, bytes, srcaddr_t{1, 2, 3, {0, 0}});
    chunks.push_back(address);
  }
  for (const size_t i : {0u, 1u}) tslb_dynmem_del_mchunk(pool.get(), chunks[i]);
  return pool;
}
constexpr size_t POOL_SLOT_BYTES = 80, POOL_HEADER_BYTES = 140;

#endif
