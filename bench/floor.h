// The floors: for each operation the minimum that its contract requires with the same arguments, written for the one
// case that a benchmark runs, on the same arrays. They are in a shared library, like the operations, and use the host's
// atomics, its redo handle and the library's clock in the same way. They omit what an implementation needs for other
// callers: other cases, reports, and code shared between operations. If their case does not apply (a block is missing,
// a slot is full), they call the library.
#ifndef TSLB_BENCH_FLOOR_H
#define TSLB_BENCH_FLOOR_H

#include <pthread.h>
#include <time.h>

#include <tslb/tslb_dynarr.h>
#include <tslb/tslb_dynmem.h>

TSLB_BEGIN_DECLS

// Signatures and contracts are those of the named functions.

// get_dyn_arr_record_position_ex. Required: the offsets of the headers, from block 0; the bound n_used; the slot size
// from record_size and the flag; n_direct, from the handle or the header depending on the memory type; after the direct
// area the level, the root table, one entry per table level, and a test for missing entries.
TSLB_API void *floor_find(DynamicArray_t array, uint32_t id, int64_t tbl_id, const char *ctx_name, uint8_t daflag);

// tslb_dynmem_get_maddr2ptr and tslb_dynmem_get_maddr2ptr64: the pool's kind, whether it has compaction headers, the
// decoding of the address, and a lookup.
TSLB_API void *floor_resolve(dynmem_t *pool, maddr_t address);
TSLB_API void *floor_resolve_64(dynmem_t *pool, maddr64_t address);

// get_dyn_arr_new_record_id_ex: get_and_inc32 of n_used, a test of n_alloc, and a lookup.
TSLB_API int32_t floor_take_id(DynamicArray_t array, void **record, uint8_t daflag);

// tslb_dynmem_get_mchunk of a pool without compaction headers: the test of the length, cas64 of the cursor, the lookup
// of the slot, the encoding of the address, get_and_inc32 of the slot's counter, three get_and_inc64, and two cas64.
TSLB_API void *floor_take_chunk(dynmem_t *pool, maddr_t *address, int len, srcaddr_t source);

// tslb_da_get_newptr of an array with a slot on its free list: the clock, the lock, tests of the list's head and count,
// the lookup of the slot, three words of the list, clearing the payload, the nodes, the unlock, the test of the redo
// handle, the gatekeeper word.
TSLB_API void *floor_take_slot(dynarr_t *array, uint32_t *idx);

// tslb_da_free_idx of an active slot: the lookup of the slot, the lock, its status, tests of the list, the lookup of
// the old tail and its link, the list's words, status and link, the gatekeeper word, the unlock, and two tests of the
// redo handle.
TSLB_API int floor_free_slot(dynarr_t *array, uint32_t idx);

// tslb_da_get_newptr of an array with an empty free list and a policy that allows the reuse of the oldest inactive
// slot: as above, with the policy's computation, a second reading of the clock, and the new head's back link.
TSLB_API void *floor_reuse_slot(dynarr_t *array, uint32_t *idx);

// tslb_da_inactivate_idx of an active slot: the lookup of the slot, its status, the lock, its status again, the lookup
// of the old tail and its link, the list's words, the nodes, the unlock, and two tests of the redo handle.
TSLB_API int floor_inactivate_slot(dynarr_t *array, uint32_t idx, time_t ts);

// tslb_dynmem_del_mchunk: the lookup of the slot, flag and length of the chunk, the write of the flag, get_and_inc32 of
// the slot's counter, tests of both counters and the cursor. An empty slot is freed as above, after a second test under
// the lock.
TSLB_API void floor_delete_chunk(dynmem_t *pool, maddr_t address);

// tslb_dynmem_update_free_list: one lookup per 16 slots; per slot its status and two counters, and the cursor if they
// are equal. An empty slot is freed, the others are added up.
TSLB_API void floor_sweep(dynmem_t *pool, size_t *total_sz, size_t *used_sz, size_t *del_sz);

// The conversions of the version maps: one lookup of the source per 16 records. Per record a slot of the destination,
// taken as tslb_da_get_newptr does (the clock, an id with its address, the gatekeeper word; the lock, the lists and the
// nodes if it has them), and the bytes that both layouts have.
TSLB_API void floor_convert_g_mg_2_0(dynarr_t *from, dynarr_t *to);
TSLB_API void floor_convert_g_mg_2_1(dynarr_t *from, dynarr_t *to);
TSLB_API void floor_convert_g_mt_1_0(dynarr_t *from, dynarr_t *to);
TSLB_API void floor_convert_tysub_1_0(dynarr_t *from, dynarr_t *to);

// Maps a block file with a known name: stat of its directory, open, ftruncate, mmap, close, and cas64 of the entry.
// Returns the mapping, or NULL.
TSLB_API void *floor_map_block(const char *dir, const char *file, size_t bytes, uint64_t *entry);

// msync of known blocks. Returns the number of failures.
TSLB_API uint32_t floor_sync(void *const *blocks, uint32_t count, size_t bytes);

// Writes a formatted log line, under one mutex: the clock, its conversion to local time with signals blocked, stat of
// the file, write. Returns the result of write.
typedef struct floor_log_t {
  pthread_mutex_t lock;
  const char *path;
  int fd;
} floor_log_t;
TSLB_API ssize_t floor_write_line(floor_log_t *log, const char *line, size_t len);

TSLB_END_DECLS

#endif
