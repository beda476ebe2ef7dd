#include "floor.h"

#include <stdlib.h>

#include "tslb_atomics.h"

// The library reads shared words so too: a load that is neither torn nor ordered.
template <class Word>
static inline Word load(const Word *word) {
  return __atomic_load_n(word, __ATOMIC_RELAXED);
}
static inline void *load_entry(void *const *entry) {
  return __atomic_load_n(entry, __ATOMIC_ACQUIRE);
}

// LEVEL 0 is the direct area. A level's first id is a constant here, since the caller knows the level.
template <unsigned LEVEL>
static inline void *find(DynamicArray_t array, uint32_t id) {
  char *const block0 = static_cast<char *>(array->arr_base);
  const DynHdr_t *const hdr = reinterpret_cast<const DynHdr_t *>(block0);
  char *const arr_hdr = block0 + sizeof(DynHdr_t) + hdr->hdr_size + hdr->lli_sz;
  const uint32_t *const words = reinterpret_cast<const uint32_t *>(arr_hdr);
  const uint32_t n_used = load(words + offsetof(DynArrHdr_t, n_used) / 4);
  const uint32_t n_direct = load(words + offsetof(DynArrHdr_t, n_direct) / 4);
  const uint64_t record_size = load(words + offsetof(DynArrHdr_t, record_size) / 4);
  if (id >= n_used) return nullptr;
  if (LEVEL == 0) return arr_hdr + sizeof(DynArrHdr_t) + id * record_size;

  constexpr uint32_t FIRST = 0x11111100u & ((1u << (4 * (LEVEL + 1))) - 1);
  const uint32_t place = id - n_direct - FIRST;
  void **entry =
      reinterpret_cast<void **>(load_entry(reinterpret_cast<void **>(&array->ir_base))) + LEVEL - 1;
#pragma GCC unroll 8
  for (unsigned shift = 4 * LEVEL; shift != 0; shift -= 4)
    entry = static_cast<void **>(load_entry(entry)) + (place >> shift) % 16;
  return static_cast<char *>(load_entry(entry)) + place % 16 * record_size;
}

void *floor_find_direct(DynamicArray_t array, uint32_t id, int64_t, const char *, uint8_t) {
  return find<0>(array, id);
}
void *floor_find_level1(DynamicArray_t array, uint32_t id, int64_t, const char *, uint8_t) {
  return find<1>(array, id);
}
void *floor_find_level3(DynamicArray_t array, uint32_t id, int64_t, const char *, uint8_t) {
  return find<3>(array, id);
}
void *floor_find_level5(DynamicArray_t array, uint32_t id, int64_t, const char *, uint8_t) {
  return find<5>(array, id);
}

int32_t floor_take_id(floor_ids_t *ids, void **record, char **own_block) {
  const uint32_t id = get_and_inc32(&ids->n_used, 1);
  if (id % 16 == 0) {
    *own_block = static_cast<char *>(calloc(1, size_t{16} * ids->record_size));
    cas64(&ids->entries[id / 16], 0, reinterpret_cast<uint64_t>(*own_block));
  }
  *record = *own_block + size_t{id % 16} * ids->record_size;
  return static_cast<int32_t>(id);
}

uint32_t floor_take_chunk(floor_pool_t *pool, uint32_t len) {
  DynMemHdr_t *const hdr = pool->hdr;
  GlobalMemStats_t *const totals = pool->totals;
  uint64_t seen = load(&hdr->cur_slot_addr);
  while (cas64(&hdr->cur_slot_addr, seen, seen + (uint64_t{len} << 32)) == 0)
    seen = load(&hdr->cur_slot_addr);
  get_and_inc32(pool->bytes_used, len);
  get_and_inc64(&hdr->total_mused, len);
  get_and_inc64(&totals->total_mused, len);
  get_and_inc64(&hdr->total_mwast, 16);
  const uint64_t avail = load(&hdr->total_msz) - load(&hdr->total_mused) - load(&hdr->total_mwast);
  cas64(&hdr->total_mavail, load(&hdr->total_mavail), avail);
  cas64(&totals->total_mavail, load(&totals->total_mavail), avail);
  return static_cast<uint32_t>(seen >> 32);
}
