// The floors: for each operation the bare sequence that its contract demands, with everything left out that
// an implementation adds. They stand in a shared library, as the real ones do, and reach the host's atomics
// the same way.
#ifndef TSLB_BENCH_FLOOR_H
#define TSLB_BENCH_FLOOR_H

#include "tslb_dynmem.h"

TSLB_BEGIN_DECLS

// The loads of a lookup in a known level: arr_base, hdr_size, lli_sz, n_used, record_size, n_direct; beyond
// the direct area also ir_base, the root entry and one entry per tier. Nothing finds the level, no entry is
// tested for null, and slots have no nodes. Signature and meaning as get_dyn_arr_record_position_ex.
TSLB_API void *floor_find_direct(DynamicArray_t array, uint32_t id, int64_t tbl_id, const char *ctx_name,
                                 uint8_t daflag);
TSLB_API void *floor_find_level1(DynamicArray_t array, uint32_t id, int64_t tbl_id, const char *ctx_name,
                                 uint8_t daflag);
TSLB_API void *floor_find_level3(DynamicArray_t array, uint32_t id, int64_t tbl_id, const char *ctx_name,
                                 uint8_t daflag);
TSLB_API void *floor_find_level5(DynamicArray_t array, uint32_t id, int64_t tbl_id, const char *ctx_name,
                                 uint8_t daflag);

// What threads share while they take ids: the counter and one entry for each 16 ids.
typedef struct floor_ids_t {
  alignas(64) uint32_t n_used;
  uint32_t record_size;
  uint64_t *entries;
} floor_ids_t;

// get_and_inc32, and for each 16th id calloc of a block and cas64 of its entry. `*own_block` is the block
// that the calling thread made last, in which it is given its records: with one thread these are the records
// of the ids, with more they are as many bytes of as many blocks.
TSLB_API int32_t floor_take_id(floor_ids_t *ids, void **record, char **own_block);

// The words that a chunk allocation changes.
typedef struct floor_pool_t {
  DynMemHdr_t *hdr;
  uint32_t *bytes_used;
  GlobalMemStats_t *totals;
} floor_pool_t;

// cas64 of the cursor until it is won, get_and_inc32 of the slot's counter, three get_and_inc64, and two
// cas64 that are tried once. Nothing tests the length or the room, and no slot is looked up. Returns the
// offset won.
TSLB_API uint32_t floor_take_chunk(floor_pool_t *pool, uint32_t len);

TSLB_END_DECLS

#endif
