// The floors: for each operation what its contract demands of whoever is asked with the same arguments, written down
// for the one case that a benchmark runs, on the same arrays. They stand in a shared library, as the real ones do, and
// reach the host's atomics, its redo handle and the library's clock the same way. What they leave out is what an
// implementation does for others: all other cases, reports, and code that is shared between operations. Where their
// case ends (a block is missing, a slot is full), they ask the library.
#ifndef TSLB_BENCH_FLOOR_H
#define TSLB_BENCH_FLOOR_H

#include <pthread.h>
#include <time.h>

#include <tslb/tslb_dynarr.h>
#include <tslb/tslb_dynmem.h>

TSLB_BEGIN_DECLS

// The signatures and meanings are those of the functions named.

// get_dyn_arr_record_position_ex. Demanded: the places of the headers, which block 0 tells; the bound n_used; the
// slot's size from record_size and the flag; n_direct, from the handle or the header as the memory type says; beyond
// the direct area the level, the root table, an entry for each tier, and that a missing one is noticed.
TSLB_API void *floor_find(DynamicArray_t array, uint32_t id, int64_t tbl_id, const char *ctx_name, uint8_t daflag);

// tslb_dynmem_get_maddr2ptr and tslb_dynmem_get_maddr2ptr64: the pool's kind and whether it has compaction headers, the
// address taken apart, and a lookup.
TSLB_API void *floor_resolve(dynmem_t *pool, maddr_t address);
TSLB_API void *floor_resolve_64(dynmem_t *pool, maddr64_t address);

// get_dyn_arr_new_record_id_ex: get_and_inc32 of n_used, n_alloc looked at, and a lookup.
TSLB_API int32_t floor_take_id(DynamicArray_t array, void **record, uint8_t daflag);

// tslb_dynmem_get_mchunk of a pool without compaction headers: the length tested, cas64 of the cursor, the slot looked
// up, the address put together, get_and_inc32 of the slot's counter, three get_and_inc64, and two cas64.
TSLB_API void *floor_take_chunk(dynmem_t *pool, maddr_t *address, int len, srcaddr_t source);

// tslb_da_get_newptr of an array whose free list holds a slot: the clock, the lock, head and count of the list looked
// at and the slot looked up, three words of the list, the payload cleared, the nodes, the lock again, whether somebody
// logs, the gatekeeper word.
TSLB_API void *floor_take_slot(dynarr_t *array, uint32_t *idx);

// tslb_da_free_idx of an active slot: the slot looked up, the lock, its status, the list looked at, the old tail looked
// up and linked, the list's words, status and link, the gatekeeper word, the lock again; who logs is asked twice.
TSLB_API int floor_free_slot(dynarr_t *array, uint32_t idx);

// tslb_da_get_newptr of an array whose free list is empty and whose policy gives back the oldest inactive slot: as
// above, but for the policy's arithmetic, a second reading of the clock, and the new head's back link.
TSLB_API void *floor_reuse_slot(dynarr_t *array, uint32_t *idx);

// tslb_da_inactivate_idx of an active slot: the slot looked up, its status, the lock, its status again, the old tail
// looked up and linked, the list's words, the nodes, the lock again; who logs is asked twice.
TSLB_API int floor_inactivate_slot(dynarr_t *array, uint32_t idx, time_t ts);

// tslb_dynmem_del_mchunk: the slot looked up, flag and length of the chunk, the flag written, get_and_inc32 of the
// slot's counter, both counters and the cursor compared; an emptied slot is freed as above, after a second look under
// the lock.
TSLB_API void floor_delete_chunk(dynmem_t *pool, maddr_t address);

// tslb_dynmem_update_free_list: a lookup for each 16 slots; status, two counters and where they agree the cursor for
// each slot; an emptied one is freed, the others are added up.
TSLB_API void floor_sweep(dynmem_t *pool, size_t *total_sz, size_t *used_sz, size_t *del_sz);

// The conversions of the version maps: a lookup of the source for each 16 records, and for each record a slot of the
// destination taken as tslb_da_get_newptr does (the clock, an id with its address, the gatekeeper word; the lock, the
// lists and the nodes where it has them), and the bytes that both layouts have.
TSLB_API void floor_convert_g_mg_2_0(dynarr_t *from, dynarr_t *to);
TSLB_API void floor_convert_g_mg_2_1(dynarr_t *from, dynarr_t *to);
TSLB_API void floor_convert_g_mt_1_0(dynarr_t *from, dynarr_t *to);
TSLB_API void floor_convert_tysub_1_0(dynarr_t *from, dynarr_t *to);

// A block file under a name that is known: stat of its directory, open, ftruncate, mmap, close, and cas64 of the entry.
// Returns the mapping, or NULL.
TSLB_API void *floor_map_block(const char *dir, const char *file, size_t bytes, uint64_t *entry);

// msync of blocks that are known. Returns how many it refused.
TSLB_API uint32_t floor_sync(void *const *blocks, uint32_t count, size_t bytes);

// Writes a formatted log line, under one mutex: the clock, its conversion to local time with signals blocked, stat of
// the file, write. Returns what write did.
typedef struct floor_log_t {
  pthread_mutex_t lock;
  const char *path;
  int fd;
} floor_log_t;
TSLB_API ssize_t floor_write_line(floor_log_t *log, const char *line, size_t len);

TSLB_END_DECLS

#endif
