// Helpers for tests of chunk pools: pools of every kind, their headers and slots, and chunks to take and delete.
#ifndef TSLB_TESTS_POOL_SUPPORT_H
#define TSLB_TESTS_POOL_SUPPORT_H

#include "array_support.h"

struct kind_t {
  char compat = MPOOL_FLAG_COMPAT;
  uint8_t daflag = TSLB_DA_DAFLAG_LL;
  char slot_type = 0;
  short max_slots = 0;
  unsigned char mem_type = MPOOL_TYPE_DRAM;
  uint8_t is_persist = 1;
};

inline array_t pool_of(kind_t kind = {}, int n_slots = 4, int slot_bytes = 1000) {
  return array_t(tslb_init_dynmem_ex1(slot_bytes, n_slots, kind.compat, kind.mem_type, kind.slot_type, "pool", -4,
                                      kind.daflag, 0, kind.is_persist, kind.max_slots));
}

inline DynMemHdr_t &hdr_of(const array_t &pool) {
  return *static_cast<DynMemHdr_t *>(get_user_hdr(pool.get()));
}
inline uint32_t cursor_slot(const array_t &pool) {
  return static_cast<uint32_t>(hdr_of(pool).cur_slot_addr);
}
inline uint32_t cursor_off(const array_t &pool) {
  return static_cast<uint32_t>(hdr_of(pool).cur_slot_addr >> 32);
}
inline void set_cursor(const array_t &pool, uint32_t slot, uint32_t off) {
  hdr_of(pool).cur_slot_addr = slot | (uint64_t{off} << 32);
}
inline MemSlot_t &slot_at(const array_t &pool, uint32_t idx) {
  return *static_cast<MemSlot_t *>(tslb_da_get_ptr(pool.get(), idx));
}
inline void expect_counted(const array_t &pool, uint32_t idx, uint32_t used, uint32_t deleted) {
  EXPECT_EQ(slot_at(pool, idx).bytes_used, used);
  EXPECT_EQ(slot_at(pool, idx).bytes_del, deleted);
}
inline int chunk_header_of(const array_t &pool) {
  return (hdr_of(pool).flag & MPOOL_FLAG_COMPAT) != 0 ? 16 : 0;
}

// Takes a chunk of `len` bytes, including its header if there is one, and fills it with x.
inline maddr_t take(const array_t &pool, int len = 250) {
  const int hdr_bytes = chunk_header_of(pool);
  maddr_t address = {};
  char *const chunk = bytes_of(tslb_dynmem_get_mchunk(pool.get(), &address, len - hdr_bytes, srcaddr_t{}));
  if (chunk == nullptr)
    ADD_FAILURE() << "no chunk of " << len;
  else
    memset(chunk + hdr_bytes, 'x', static_cast<size_t>(len - hdr_bytes));
  return address;
}
inline std::vector<maddr_t> take_several(const array_t &pool, int count, int len = 250) {
  std::vector<maddr_t> addresses;
  for (int i = 0; i < count; ++i) addresses.push_back(take(pool, len));
  return addresses;
}
// The same with a 64-bit address.
inline maddr64_t take64(const array_t &pool, int len = 250) {
  maddr64_t address = {77, 77};
  EXPECT_NE(tslb_dynmem_get_mchunk64(pool.get(), &address, len - chunk_header_of(pool), srcaddr64_t{}), nullptr);
  return address;
}
inline void del(const array_t &pool, maddr_t address) {
  tslb_dynmem_del_mchunk(pool.get(), address);
}
inline void del(const array_t &pool, const std::vector<maddr_t> &addresses) {
  for (const maddr_t address : addresses) del(pool, address);
}

#endif
