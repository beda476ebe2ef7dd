/* Record arrays: growing arrays of fixed-size records, addressed by a 32-bit id.
 *
 * Ids are issued in order from 0. A record never moves, and reaching one takes no lock. An array starts as one piece
 * of memory, block 0: its headers and the first `n_direct` slots. Every later record lies in a data block of 16
 * slots, reached through six levels of 16-way tables, which a lookup makes on its way where they are missing.
 *
 * Terms
 *   record      the caller's bytes, record_size of them.
 *   slot        a record with its list nodes: one element of the array, record_size + slotlli_sz bytes.
 *   slotlli_sz  bytes of list nodes in a slot: 16 with TSLB_DA_DAFLAG_INLL, else 8 with TSLB_DA_DAFLAG_LL, else 0.
 *   block 0     headers and direct area. Stored: it is the content of a block file and the head of a snapshot.
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
 * Failures are a null result and a line on the standard error stream. Handles are not tested for null here. */
#ifndef DYNAMIC_ARRAY_H
#define DYNAMIC_ARRAY_H

#include "tslb_atomics.h"
#include "tslb_decl.h"
#include "tslb_stored.h"

TSLB_BEGIN_DECLS

/* Where an array's blocks come from. One value per array, for good. */
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

/* One set of limits of a reuse policy. A set passes when n_used has reached min_overall_cnt and either the share or
 * the count of inactive slots has reached its limit. */
typedef struct tsdb_inactive_thshld_policy_t {
  uint8_t inactive_threshold_pct;
  uint8_t reserved;
  uint16_t inactive_threshold_cnt;
  uint32_t min_days_since_inactive; /* read in `critical` only, and it is seconds of the library's clock */
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
  tsdb_inactive_thshld_policy_t critical; /* tested second; gives the age limit whichever set passed */
  tsdb_inactive_thshld_policy_t major;    /* tested first */
} tsdb_mem_pressure_config_t;
TSLB_STORED_SIZE(tsdb_mem_pressure_config_t, 28);
TSLB_STORED_AT(tsdb_mem_pressure_config_t, mvt_reuse_policy_use, 0);
TSLB_STORED_AT(tsdb_mem_pressure_config_t, reserved, 1);
TSLB_STORED_AT(tsdb_mem_pressure_config_t, critical, 4);
TSLB_STORED_AT(tsdb_mem_pressure_config_t, major, 16);

/* Roots of the free list and the inactive list, one per array with nodes. Indices are slot indices, 0xFFFFFFFF is
 * none. Stands behind a user header of any size. Changed under the handle's spin lock. */
typedef struct TSLB_UNALIGNED DynArrLLI_t {
  uint32_t free_head;  /* what allocation takes next */
  uint32_t free_tail;  /* freed last */
  uint32_t inact_head; /* inactive for longest */
  uint32_t inact_tail; /* inactivated last */
  uint32_t n_inact;    /* slots on the inactive list */
  uint32_t n_act;      /* shown by the diagnostics; the library leaves it alone */
  uint32_t n_free;     /* slots on the free list */
  uint8_t lltype;      /* the flags of creation; a stored block carries them here */
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

/* Geometry and counts. Stands behind headers of any size; n_alloc and n_used change by get_and_inc32 alone, the other
 * two never. */
typedef struct TSLB_UNALIGNED DynArrHdr_t {
  uint32_t n_alloc;                              /* slots that memory exists for */
  uint32_t n_used;                               /* ids issued so far, which is the next id */
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

/* Pointers into the tables: each type adds one tier. */
typedef void *Data_t;
typedef Data_t *DynArr_ptr_1;
typedef DynArr_ptr_1 *DynArr_ptr_2;
typedef DynArr_ptr_2 *DynArr_ptr_3;
typedef DynArr_ptr_3 *DynArr_ptr_4;
typedef DynArr_ptr_4 *DynArr_ptr_5;
typedef DynArr_ptr_5 *DynArr_ptr_6;

/* Root table: the root of each level, null until an id of that level is looked up. Process memory, like all tables. */
typedef struct PtrTbl_t {
  DynArr_ptr_1 ir1;
  DynArr_ptr_2 ir2;
  DynArr_ptr_3 ir3;
  DynArr_ptr_4 ir4;
  DynArr_ptr_5 ir5;
  DynArr_ptr_6 ir6;
} PtrTbl_t;

/* The handle of an array. Process memory, made by creation, never stored. Reached through the pointer that creation
 * returned and never copied: more memory of the library follows these 64 bytes, and a pool reads it. */
typedef struct DynArrHandle_t {
  void *arr_base;    /* block 0 */
  PtrTbl_t *ir_base; /* null until an id beyond the direct area is looked up */
  char ctx_name[33]; /* name of the context, cut to 32 characters; all zero if none was given */
  uint32_t tbl_id;   /* low 32 bits of what creation was given */
  char mem_type;     /* MPOOL_TYPE_* */
  uint8_t daflag;    /* TSLB_DA_DAFLAG_* */
  uint16_t spinlock; /* 0 free, 1 held: tslb_da_spin_lock16 */
  uint32_t n_direct; /* as in DynArrHdr_t, out of reach of whoever can write a mapped file */
} DynArrHandle_t;
static_assert(sizeof(DynArrHandle_t) == 64, "a handle is one cache line");

typedef DynArrHandle_t *DynamicArray_t;

/* Ids that each level holds: 16 to the power level + 1. They describe the addressing, whose tables and blocks have 16
 * entries for good; they do not tune it. */
extern TSLB_API uint32_t single_redirection_elements_count;
extern TSLB_API uint32_t second_redirection_elements_count;
extern TSLB_API uint32_t third_redirection_elements_count;
extern TSLB_API uint32_t fourth_redirection_elements_count;
extern TSLB_API uint32_t fifth_redirection_elements_count;
extern TSLB_API uint32_t sixth_redirection_elements_count;

/* ---- Block files -------------------------------------------------------------------------------------------------
 * An MPOOL_TYPE_SHM array has one file per block: "base/ctx_name/tbl_id.block_id.darr", block 0 with id 0, data blocks
 * from 1. Without a base path that is "ctx_name/tbl_id.block_id.darr", while the folder is made as "/ctx_name": hosts
 * set a base path. A file is its block's memory image and nothing else, just as long. Files outlive the process. Nothing
 * attaches to old ones: creation zeroes file 0, and a data block file that was there before comes back with its old
 * bytes. Tables are process memory and in no file. */

/* Root of the block files; empty at load. Read without a lock. */
extern TSLB_API char g_base_path[1025];

/* Sets it, ahead of the first MPOOL_TYPE_SHM array. At most 1,023 characters are stored whole, 1,024 are cut by one;
 * more end the process with status 1 after a line on stderr. */
TSLB_API void tslb_set_base_path(const char *base_path);

/* Maps a block file and swaps the mapping into an entry that is null.
 *
 * chunk_size  bytes; an existing file is cut or extended to that.
 * ctx_name    NULL counts as empty. Its directory is made if it is missing, but none above it; one that cannot be made
 *             ends the process with status 1 after a line on stderr.
 * tbl_id, block_id
 *             name the file, as signed numbers.
 * addr        address of the entry, aligned to 8 bytes.
 * Result      1 if this call filled the entry. 0 if a rival's mapping serves, or if there is none: then a line on
 *             stderr says why, but for a file that cannot be sized, and errno is set. The entry tells the two apart.
 * Threads     any number, on the same entry too. */
TSLB_API int32_t get_shm_block(int64_t chunk_size, const char *ctx_name, int32_t tbl_id, int32_t block_id, void *addr);

/* The same for persistent memory, which is not available: leaves the entry alone and returns 1. */
TSLB_API int32_t get_pmem_block(int64_t chunk_size, const char *ctx_name, int32_t tbl_id, int32_t block_id, void *addr);

/* ---- Creation ---------------------------------------------------------------------------------------------------- */

/* Makes an empty array.
 *
 * usrhdr_sz    bytes of user header, 0 to 65,535.
 * size_of_single_data_slot
 *              bytes of a record, without nodes. A data block of 16 slots must stay below 4 GiB.
 * number_of_direct_slots
 *              slots in block 0, 0 or more. Block 0 with its headers takes at most 2,147,483,647 bytes.
 * mem_type     MPOOL_TYPE_*. An unknown value is process memory.
 * tbl_id       table id; the low 32 bits are kept.
 * ctx_name     name of the context, or NULL; the handle keeps 32 characters.
 * daflag       TSLB_DA_DAFLAG_*; 0 for an array without nodes. Stored as it is.
 * rec_version  goes to DynHdr_t.
 * Result       the handle, which the caller owns. NULL after a line on stderr if an argument is refused (errno EINVAL
 *              for a negative one, EOVERFLOW beyond a limit, ENOTSUP for a type that is not available) or memory is.
 * Threads      shares nothing with other calls. */
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

/* Headers of block 0. They belong to the array and live as long. get_user_hdr gives NULL if hdr_size is 0. */
TSLB_API DynArrHdr_t *get_dyn_hdr(DynamicArray_t array);
TSLB_API void *get_user_hdr(DynamicArray_t array);

/* n_used, record_size and n_alloc. Threads: any; while ids are being issued the counts are true of a moment ago, and
 * n_used can be ahead of the memory that exists. */
TSLB_API uint32_t get_dyn_arr_size(DynamicArray_t array);
TSLB_API uint32_t get_dyn_arr_record_sz(DynamicArray_t array);
TSLB_API uint32_t get_dyn_total_allocated_records(DynamicArray_t array);

/* Always NULL: kept for hosts that link it. Records are reached by get_dyn_arr_record_position. */
TSLB_API void *dyn_array_record(DynamicArray_t array, int32_t pos);

/* Returns record `id`, making the tables and the data block on the way to it if they are missing.
 *
 * id       0 to n_used - 1: a position in the array, not a byte offset.
 * tbl_id, ctx_name
 *          not consulted: block files are named from the handle. Callers pass the handle's values.
 * daflag   the array's own flags. They give the slot size of this call: with others the address is wrong, and so is
 *          the size of a block that the call makes.
 * Result   the record, behind the slot's first node if there is one. It belongs to the array, never moves and lives
 *          until destroy_dyn_arr. NULL if `id` was not issued (silent), lies beyond the sixth level or memory was
 *          refused (a line on stderr); the array stays usable.
 * Threads  any number, also while the array grows. No lock; writes nothing once the memory exists. */
TSLB_API void *get_dyn_arr_record_position_ex(DynamicArray_t array, uint32_t id, int64_t tbl_id, const char *ctx_name,
                                              uint8_t daflag);

/* The same for an array with daflag 0. */
TSLB_API void *get_dyn_arr_record_position(DynamicArray_t array, uint32_t id);

/* Issues the next id.
 *
 * ptr      receives the record, or NULL.
 * daflag   the array's own flags, as above.
 * Result   the id; -1 with a null `*ptr` if the array is full or its memory was refused (a line on stderr). An id
 *          that failed so stays issued: a later lookup tries again.
 * Threads  any number; each gets ids of its own. */
TSLB_API int32_t get_dyn_arr_new_record_id_ex(DynamicArray_t array, void **ptr, uint8_t daflag);

/* The same for an array with daflag 0, without the pointer. */
TSLB_API int32_t get_dyn_arr_new_record_id(DynamicArray_t array);

/* Fill an empty table entry: with a zeroed table of `count` pointers, or with a data block of `count` slots.
 *
 * addr         address of the entry, aligned to 8 bytes, which holds null or becomes non-null by another thread.
 * record_size  bytes of one slot, nodes included.
 * block_num    number of the block, from 1; names its file.
 * Result       none. `*addr` is filled afterwards, by this call or a rival's; still null if memory was refused (a line
 *              on stderr). Only the call that filled it adds `count` to n_alloc.
 * Threads      any number, on the same entry too. */
TSLB_API void get_dyn_array_of_pointers(int32_t count, void *addr);
TSLB_API void get_dyn_data_array(DynamicArray_t array, uint32_t record_size, int32_t count, int32_t block_num,
                                 void *addr);

/* ---- Whole arrays ------------------------------------------------------------------------------------------------ */

/* Forces the blocks of an MPOOL_TYPE_SHM array out to their files, up to the last one in use. A block that fails gets a
 * line on stderr (without a line end), and the walk goes on.
 *
 * Threads  beside writers of records, whose later bytes wait for the next sync; not while an id is being taken. */
TSLB_API void tslb_syn_shm_dynarr(DynamicArray_t array);

/* Gives back an array: its blocks, tables and handle. Block files are unmapped and stay. A null handle is left alone.
 *
 * Threads  the array must be out of use: no record pointer, lookup or new id on any thread, now or later. */
TSLB_API void destroy_dyn_arr(DynamicArray_t array);

TSLB_END_DECLS

#endif
