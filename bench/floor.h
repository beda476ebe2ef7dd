// The floors: for each operation the bare sequence that its contract demands, with everything left out that
// an implementation adds. They stand in a shared library, as the real ones do, and reach the host's atomics
// the same way.
#ifndef TSLB_BENCH_FLOOR_H
#define TSLB_BENCH_FLOOR_H

#include <pthread.h>

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

// The loads of an address: the pool's flag, which says whether data stand behind a compaction header, and those of a
// lookup in a known level. Nothing tests the pool's kind or the offset. BB, BV and 64 are the kinds of address; signature
// and meaning as tslb_dynmem_get_maddr2ptr and tslb_dynmem_get_maddr2ptr64.
TSLB_API void *floor_resolve_bb_direct(dynmem_t *pool, maddr_t address);
TSLB_API void *floor_resolve_bb_level1(dynmem_t *pool, maddr_t address);
TSLB_API void *floor_resolve_bv_direct(dynmem_t *pool, maddr_t address);
TSLB_API void *floor_resolve_bv_level1(dynmem_t *pool, maddr_t address);
TSLB_API void *floor_resolve_64_direct(dynmem_t *pool, maddr64_t address);
TSLB_API void *floor_resolve_64_level1(dynmem_t *pool, maddr64_t address);

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

// Where the words of a slot array lie, known ahead: its lists are filled by the library, and all its slots are in the
// direct area.
typedef struct floor_slots_t {
  uint16_t *spinlock;
  DynArrLLI_t *lli;
  char *payload0;
  uint32_t slot_bytes, record_size;
  bool has_back_nodes;
} floor_slots_t;

// Taking the head of a free list that holds more than one slot: the clock, the lock, the three words of the list, the
// payload cleared, the nodes, the lock again, the gatekeeper word. The time is kept unscaled. Nothing tests the list,
// and no slot is looked up. Returns the payload.
TSLB_API void *floor_take_slot(const floor_slots_t *slots, uint32_t *idx);

// Freeing an active slot: the lock, its status, the old tail's link, two words of the list, status and link, the
// gatekeeper word, the lock again.
TSLB_API void floor_free_slot(const floor_slots_t *slots, uint32_t idx);

// Deleting a chunk whose place is known: flag and length read, the flag written, one get_and_inc32. Returns what
// `*bytes_del` came to.
TSLB_API uint32_t floor_delete_chunk(compat_t *chunk, uint32_t *bytes_del);

// A sweep over slots whose places are known: status and two counters of each; an active one whose counters agree is
// freed, the others are added up.
TSLB_API void floor_sweep(const floor_slots_t *slots, MemSlot_t *const *mslots, uint32_t count, size_t *used_sz,
                          size_t *del_sz);

// Records that lie one behind the other: the direct area or a data block.
typedef struct floor_run_t {
  const char *records;
  uint32_t count;
} floor_run_t;

// Conversions whose source is known run by run and whose destination is one area, the direct one behind `to`: the bytes that
// both layouts have, copied record by record, and one get_and_inc32 of the destination's count. The slots of the last one
// have two nodes, which are written as those of a slot just taken.
TSLB_API void floor_convert_g_mg_2_0(const floor_run_t *runs, uint32_t n_runs, DynArrHdr_t *to);
TSLB_API void floor_convert_g_mg_2_1(const floor_run_t *runs, uint32_t n_runs, DynArrHdr_t *to);
TSLB_API void floor_convert_g_mt_1_0(const floor_run_t *runs, uint32_t n_runs, DynArrHdr_t *to);
TSLB_API void floor_convert_tysub_1_0(const floor_run_t *runs, uint32_t n_runs, DynArrHdr_t *to);

// A block file under a name that is known: stat of its directory, open, ftruncate, mmap, close, and cas64 of the entry.
// Returns the mapping, or NULL.
TSLB_API void *floor_map_block(const char *dir, const char *file, size_t bytes, uint64_t *entry);

// msync of blocks that are known. Returns how many it refused.
TSLB_API uint32_t floor_sync(void *const *blocks, uint32_t count, size_t bytes);

// A log line that is formatted already, under one mutex: the clock, its conversion to local time with the signals
// blocked, stat of the file, write. Returns what write did.
typedef struct floor_log_t {
  pthread_mutex_t lock;
  const char *path;
  int fd;
} floor_log_t;
TSLB_API ssize_t floor_write_line(floor_log_t *log, const char *line, size_t len);

TSLB_END_DECLS

#endif
