/* Record arrays: growing arrays of fixed-size records, addressed by a 32-bit id.
 *
 * Ids are issued in order from 0. A record never moves, and a lookup takes no lock. An array starts as one piece of
 * memory, block 0: its headers and the first `n_direct` slots. Every later record lies in a data block of 16 slots.
 * Data blocks are reached through six levels of tables with 16 entries each. A lookup creates missing tables and blocks
 * on its path.
 *
 * Terms
 *   record      the caller's bytes, record_size of them.
 *   slot        a record with its list nodes: one element of the array, record_size + slotlli_sz bytes.
 *   slotlli_sz  bytes of list nodes in a slot: 16 with TSLB_DA_DAFLAG_INLL, else 8 with TSLB_DA_DAFLAG_LL, else 0.
 *   block 0     headers and direct area. Stored: it is the content of a block file and the start of a snapshot.
 *   data block  16 slots and nothing else, numbered from 1 in id order over all levels (block_num).
 *   flat image  block 0 followed by the data blocks: slot `id` at header size + id * slot size.
 *
 * Block 0, without padding between its parts
 *   0                       DynHdr_t, 8 bytes
 *   8                       user header, hdr_size bytes, zero at creation
 *   8 + hdr_size            DynArrLLI_t, lli_sz bytes: 60 if the slots have nodes, else 0
 *   8 + hdr_size + lli_sz   DynArrHdr_t, 16 bytes
 *   24 + hdr_size + lli_sz  direct area
 *
 * Slot, by flags
 *   neither bit             record
 *   TSLB_DA_DAFLAG_LL       node_fw (8), record
 *   TSLB_DA_DAFLAG_INLL     node_fw (8), record, node_bw (8)
 *
 * A failure is a null result and a line on the standard error stream. Functions here do not test handles for null. */
#ifndef DYNAMIC_ARRAY_H
#define DYNAMIC_ARRAY_H

#include "tslb_atomics.h"
#include "tslb_decl.h"
#include "tslb_stored.h"

TSLB_BEGIN_DECLS

/* Where the memory of an array's blocks comes from. An array has one value, which never changes. */
enum {
  MPOOL_TYPE_DRAM = 0,     /* process memory; the only kind whose slots are redo logged */
  MPOOL_TYPE_SHM = 1,      /* one mapped file per block */
  MPOOL_TYPE_PMEM = 2,     /* persistent memory; not available, creation fails */
  MPOOL_TYPE_PMEM_TMP = 3, /* process memory */
  MPOOL_TYPE_SHM_TMP = 4,  /* process memory */
  MPOOL_TYPE_DRAM_TMP = 5, /* process memory; a bit-vector pool of this kind is a ring */
  __LAST_MPOOL_TYPE__ = 6
};

/* First bytes of every block 0. */
typedef struct DynHdr_t {
  uint8_t lib_version; /* layout of the library's own headers: 2 at creation */
  uint8_t rec_version; /* layout of the caller's records; not read by the record array */
  uint16_t pad;        /* 0 */
  uint16_t hdr_size;   /* bytes of the user header */
  uint16_t lli_sz;     /* bytes of DynArrLLI_t: 60, or 0 for an array without nodes */
} DynHdr_t;
TSLB_STORED_SIZE(DynHdr_t, 8);
TSLB_STORED_AT(DynHdr_t, lib_version, 0);
TSLB_STORED_AT(DynHdr_t, rec_version, 1);
TSLB_STORED_AT(DynHdr_t, pad, 2);
TSLB_STORED_AT(DynHdr_t, hdr_size, 4);
TSLB_STORED_AT(DynHdr_t, lli_sz, 6);

/* One set of limits of a reuse policy. A set passes if n_used has reached min_overall_cnt and the share or the count of
 * inactive slots has reached its limit. */
typedef struct tsdb_inactive_thshld_policy_t {
  uint8_t inactive_threshold_pct;
  uint8_t reserved;
  uint16_t inactive_threshold_cnt;
  uint32_t min_days_since_inactive; /* read in `critical` only; in seconds of the library's clock */
  uint32_t min_overall_cnt;
} tsdb_inactive_thshld_policy_t;
TSLB_STORED_SIZE(tsdb_inactive_thshld_policy_t, 12);
TSLB_STORED_AT(tsdb_inactive_thshld_policy_t, inactive_threshold_pct, 0);
TSLB_STORED_AT(tsdb_inactive_thshld_policy_t, reserved, 1);
TSLB_STORED_AT(tsdb_inactive_thshld_policy_t, inactive_threshold_cnt, 2);
TSLB_STORED_AT(tsdb_inactive_thshld_policy_t, min_days_since_inactive, 4);
TSLB_STORED_AT(tsdb_inactive_thshld_policy_t, min_overall_cnt, 8);

/* Reuse policy of a slot array: when an allocation may take the oldest inactive slot. */
typedef struct tsdb_mem_pressure_config_t {
  uint8_t mvt_reuse_policy_use; /* 0: never */
  uint8_t reserved[3];
  tsdb_inactive_thshld_policy_t critical; /* tested second; its age limit applies to both sets */
  tsdb_inactive_thshld_policy_t major;    /* tested first */
} tsdb_mem_pressure_config_t;
TSLB_STORED_SIZE(tsdb_mem_pressure_config_t, 28);
TSLB_STORED_AT(tsdb_mem_pressure_config_t, mvt_reuse_policy_use, 0);
TSLB_STORED_AT(tsdb_mem_pressure_config_t, reserved, 1);
TSLB_STORED_AT(tsdb_mem_pressure_config_t, critical, 4);
TSLB_STORED_AT(tsdb_mem_pressure_config_t, major, 16);

/* Roots of the free list and the inactive list, one structure per array with nodes. Indices are slot indices,
 * 0xFFFFFFFF is none. It follows a user header of any size. It changes under the handle's spin lock. */
typedef struct TSLB_UNALIGNED DynArrLLI_t {
  uint32_t free_head;  /* the next slot that allocation takes */
  uint32_t free_tail;  /* the slot freed last */
  uint32_t inact_head; /* the slot that has been inactive longest */
  uint32_t inact_tail; /* the slot inactivated last */
  uint32_t n_inact;    /* slots on the inactive list */
  uint32_t n_act;      /* shown by the diagnostics; the library does not change it */
  uint32_t n_free;     /* slots on the free list */
  uint8_t lltype;      /* the flags given at creation; a stored block keeps them here */
  uint8_t pad1;        /* 0 */
  uint16_t pad2;       /* 0 */
  tsdb_mem_pressure_config_t mem_pressure_conf;
} DynArrLLI_t;
TSLB_STORED_SIZE(DynArrLLI_t, 60);
TSLB_STORED_AT(DynArrLLI_t, free_head, 0);
TSLB_STORED_AT(DynArrLLI_t, free_tail, 4);
TSLB_STORED_AT(DynArrLLI_t, inact_head, 8);
TSLB_STORED_AT(DynArrLLI_t, inact_tail, 12);
TSLB_STORED_AT(DynArrLLI_t, n_inact, 16);
TSLB_STORED_AT(DynArrLLI_t, n_act, 20);
TSLB_STORED_AT(DynArrLLI_t, n_free, 24);
TSLB_STORED_AT(DynArrLLI_t, lltype, 28);
TSLB_STORED_AT(DynArrLLI_t, pad1, 29);
TSLB_STORED_AT(DynArrLLI_t, pad2, 30);
TSLB_STORED_AT(DynArrLLI_t, mem_pressure_conf, 32);

/* Geometry and counts. It follows headers of any size. n_alloc and n_used change only by get_and_inc32. The other two
 * never change. */
typedef struct TSLB_UNALIGNED DynArrHdr_t {
  uint32_t n_alloc;                              /* slots whose memory exists */
  uint32_t n_used;                               /* ids issued; also the next id */
  uint32_t n_direct;                             /* slots in block 0 */
  uint32_t record_size;                          /* bytes of a record, without nodes */
  TSLB_FLEXIBLE_TAIL(unsigned char, elem_direct) /* the direct area */
} DynArrHdr_t;
TSLB_STORED_SIZE(DynArrHdr_t, 16);
TSLB_STORED_AT(DynArrHdr_t, n_alloc, 0);
TSLB_STORED_AT(DynArrHdr_t, n_used, 4);
TSLB_STORED_AT(DynArrHdr_t, n_direct, 8);
TSLB_STORED_AT(DynArrHdr_t, record_size, 12);
TSLB_STORED_AT(DynArrHdr_t, elem_direct, 16);

/* Pointers into the tables: each type adds one level of tables. */
typedef void *Data_t;
typedef Data_t *DynArr_ptr_1;
typedef DynArr_ptr_1 *DynArr_ptr_2;
typedef DynArr_ptr_2 *DynArr_ptr_3;
typedef DynArr_ptr_3 *DynArr_ptr_4;
typedef DynArr_ptr_4 *DynArr_ptr_5;
typedef DynArr_ptr_5 *DynArr_ptr_6;

/* Root table: the root of each level, null until an id of that level is looked up. Tables are process memory. */
typedef struct PtrTbl_t {
  DynArr_ptr_1 ir1;
  DynArr_ptr_2 ir2;
  DynArr_ptr_3 ir3;
  DynArr_ptr_4 ir4;
  DynArr_ptr_5 ir5;
  DynArr_ptr_6 ir6;
} PtrTbl_t;

/* The handle of an array. Process memory, allocated at creation, never stored. Callers use the pointer that creation
 * returned and never copy the structure: further memory of the library follows these 64 bytes, and pools read it. */
typedef struct DynArrHandle_t {
  void *arr_base;    /* block 0 */
  PtrTbl_t *ir_base; /* null until an id after the direct area is looked up */
  char ctx_name[33]; /* name of the context, cut to 32 characters; all zero if none was given */
  uint32_t tbl_id;   /* low 32 bits of the table id given at creation */
  char mem_type;     /* MPOOL_TYPE_* */
  uint8_t daflag;    /* TSLB_DA_DAFLAG_* */
  uint16_t spinlock; /* 0 free, 1 held: tslb_da_spin_lock16 */
  uint32_t n_direct; /* as in DynArrHdr_t, but not writable by other processes through a mapped file */
} DynArrHandle_t;
static_assert(sizeof(DynArrHandle_t) == 64, "a handle is one cache line");

typedef DynArrHandle_t *DynamicArray_t;

/* Number of ids that each level holds: 16 to the power level + 1. These values describe the addressing and do not
 * configure it: tables and blocks always have 16 entries. */
extern TSLB_API uint32_t single_redirection_elements_count;
extern TSLB_API uint32_t second_redirection_elements_count;
extern TSLB_API uint32_t third_redirection_elements_count;
extern TSLB_API uint32_t fourth_redirection_elements_count;
extern TSLB_API uint32_t fifth_redirection_elements_count;
extern TSLB_API uint32_t sixth_redirection_elements_count;

/* ---- Block files -------------------------------------------------------------------------------------------------
 * An MPOOL_TYPE_SHM array has one file per block: "base/ctx_name/tbl_id.block_id.darr". Block 0 has id 0, data blocks
 * count from 1. Without a base path the file is "ctx_name/tbl_id.block_id.darr", while the folder is created as
 * "/ctx_name": hosts set a base path. A file holds its block's memory image and nothing else, and has its length. Files
 * outlive the process. No function attaches to old files: creation zeroes file 0, and an existing data block file is
 * mapped with its old bytes. Tables are process memory and are in no file. */

/* Root of the block files; empty at load. It is read without a lock. */
extern TSLB_API char g_base_path[1025];

/* Sets the root; called before the first MPOOL_TYPE_SHM array is created. Up to 1,023 characters are stored whole; a
 * path of 1,024 characters loses its last. A longer path ends the process with status 1 after a line on stderr. */
TSLB_API void tslb_set_base_path(const char *base_path);

/* Maps a block file and swaps the mapping into an entry that is null.
 *
 * chunk_size  bytes; an existing file is cut or extended to this size.
 * ctx_name    NULL counts as empty. A missing directory of this name is created, but none above it. If it cannot be
 *             created, the process ends with status 1 after a line on stderr.
 * tbl_id, block_id
 *             name the file, as signed numbers.
 * addr        address of the entry, aligned to 8 bytes.
 * Result      1 if this call filled the entry. 0 if another thread's mapping is in the entry, or if there is none. If
 *             there is none, errno is set and a line on stderr gives the reason, except for a file that cannot be
 *             sized. The entry distinguishes the two cases.
 * Threads     any number, also for the same entry. */
TSLB_API int32_t get_shm_block(int64_t chunk_size, const char *ctx_name, int32_t tbl_id, int32_t block_id, void *addr);

/* The same for persistent memory, which is not available: does not change the entry and returns 1. */
TSLB_API int32_t get_pmem_block(int64_t chunk_size, const char *ctx_name, int32_t tbl_id, int32_t block_id, void *addr);

/* ---- Creation ---------------------------------------------------------------------------------------------------- */

/* Creates an empty array.
 *
 * usrhdr_sz    bytes of user header, 0 to 65,535. A multiple of 4 if threads look up ids while others take new ones:
 *              otherwise n_used can cross a cache line, and a lookup can read half of an old and half of a new count.
 * size_of_single_data_slot
 *              bytes of a record, without nodes. A data block of 16 slots must be smaller than 4 GiB.
 * number_of_direct_slots
 *              slots in block 0, 0 or more. Block 0 with its headers takes at most 2,147,483,647 bytes.
 * mem_type     MPOOL_TYPE_*. An unknown value means process memory.
 * tbl_id       table id; the low 32 bits are kept.
 * ctx_name     name of the context, or NULL; the handle keeps 32 characters.
 * daflag       TSLB_DA_DAFLAG_*; 0 for an array without nodes. Stored unchanged.
 * rec_version  stored in DynHdr_t.
 * Result       the handle, which the caller owns. NULL after a line on stderr if memory is refused or an argument is
 *              invalid (errno EINVAL if it is negative, EOVERFLOW above a limit, ENOTSUP for a memory type that is not
 *              available).
 * Threads      any number; a call shares nothing with other calls. */
TSLB_API DynamicArray_t get_default_dyn_array_ex_ex(int32_t usrhdr_sz, int32_t size_of_single_data_slot,
                                                    int32_t number_of_direct_slots, char mem_type, int64_t tbl_id,
                                                    const char *ctx_name, uint8_t daflag, uint8_t rec_version);

/* The same with rec_version 0. */
TSLB_API DynamicArray_t get_default_dyn_array_ex(int32_t usrhdr_sz, int32_t size_of_single_data_slot,
                                                 int32_t number_of_direct_slots, char mem_type, int64_t tbl_id,
                                                 const char *ctx_name, uint8_t daflag);

/* The same without user header, table id, name and nodes. */
TSLB_API DynamicArray_t get_default_dyn_array(int32_t size_of_single_data_slot, int32_t number_of_direct_slots,
                                              char mem_type);

/* Return headers of block 0. They belong to the array and live as long. get_user_hdr returns NULL if hdr_size is 0. */
TSLB_API DynArrHdr_t *get_dyn_hdr(DynamicArray_t array);
TSLB_API void *get_user_hdr(DynamicArray_t array);

/* Return n_used, record_size and n_alloc. Threads: any. While other threads issue ids the counts may be out of date,
 * and n_used can be larger than the number of slots whose memory exists. */
TSLB_API uint32_t get_dyn_arr_size(DynamicArray_t array);
TSLB_API uint32_t get_dyn_arr_record_sz(DynamicArray_t array);
TSLB_API uint32_t get_dyn_total_allocated_records(DynamicArray_t array);

/* Always returns NULL. Kept for hosts that link it. Use get_dyn_arr_record_position for records. */
TSLB_API void *dyn_array_record(DynamicArray_t array, int32_t pos);

/* Returns record `id`. Creates the tables and the data block on its path if they are missing.
 *
 * id       0 to n_used - 1: an array index, not a byte offset.
 * tbl_id, ctx_name
 *          ignored: block files are named from the handle. Callers pass the handle's values.
 * daflag   the array's own flags. They give the slot size for this call. With other flags the returned address is
 *          wrong, and so is the size of a block that the call creates.
 * Result   the record, after the slot's first node if there is one. It belongs to the array, never moves and lives
 *          until destroy_dyn_arr. NULL if `id` was not issued (no message), if it is larger than the sixth level holds
 *          or if memory was refused (a line on stderr); the array stays usable.
 * Threads  any number, also while the array grows. Takes no lock. Writes nothing if the memory exists. */
TSLB_API void *get_dyn_arr_record_position_ex(DynamicArray_t array, uint32_t id, int64_t tbl_id, const char *ctx_name,
                                              uint8_t daflag);

/* The same for an array with daflag 0. */
TSLB_API void *get_dyn_arr_record_position(DynamicArray_t array, uint32_t id);

/* Issues the next id.
 *
 * ptr      receives the record, or NULL.
 * daflag   the array's own flags, as above.
 * Result   the id; -1 with a null `*ptr` if the array is full or memory was refused (a line on stderr). The id of a
 *          failed call stays issued: a later lookup tries again.
 * Threads  any number; each thread receives different ids. */
TSLB_API int32_t get_dyn_arr_new_record_id_ex(DynamicArray_t array, void **ptr, uint8_t daflag);

/* The same for an array with daflag 0, without the pointer. */
TSLB_API int32_t get_dyn_arr_new_record_id(DynamicArray_t array);

/* Fill an empty table entry with a zeroed table of `count` pointers, or with a data block of `count` slots.
 *
 * addr         address of the entry, aligned to 8 bytes. It is null, or another thread fills it concurrently.
 * record_size  bytes of one slot, nodes included.
 * block_num    number of the block, from 1; part of its file name.
 * Result       none. Afterwards `*addr` holds the memory of this call or of another thread. It is still null if memory
 *              was refused (a line on stderr). Only the call that filled it adds `count` to n_alloc.
 * Threads      any number, also for the same entry. */
TSLB_API void get_dyn_array_of_pointers(int32_t count, void *addr);
TSLB_API void get_dyn_data_array(DynamicArray_t array, uint32_t record_size, int32_t count, int32_t block_num,
                                 void *addr);

/* ---- Whole arrays ------------------------------------------------------------------------------------------------ */

/* Writes the blocks of an MPOOL_TYPE_SHM array to their files, up to the last one in use, and waits until they are
 * written. If a block fails, a line (without a line end) is written to stderr and the walk continues.
 *
 * Threads  concurrently with writers of records, whose later bytes need another sync; not while an id is being
 *          issued. */
TSLB_API void tslb_syn_shm_dynarr(DynamicArray_t array);

/* Releases an array: its blocks, tables and handle. Block files are unmapped and stay. A null handle is ignored.
 *
 * Threads  the array must be out of use: no record pointer, lookup or new id on any thread, now or later. */
TSLB_API void destroy_dyn_arr(DynamicArray_t array);

TSLB_END_DECLS

#endif
