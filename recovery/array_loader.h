/* Loads an array or pool from a snapshot stream, as tslb_create_dump_for_dynarr writes it. The array is in process
 * memory and has the stored records, nodes, lists, user header and counts. block_files.h loads the files of an
 * MPOOL_TYPE_SHM array.
 *
 * The loader trusts no byte that it reads. It refuses an image as a whole if a rule of the format is violated
 * (tslb_stored.h). A loaded array fulfils these conditions, on which the library relies:
 *   - Each slot has a status that exists.
 *   - List roots and links name slots. The length of a list is its counter, and its last slot is its tail.
 *   - Each slot with the status of a list is on that list once.
 *   - A pool's cursor is in one of its slots. The counters of memory slots do not exceed the slot and the cursor.
 *
 * The loader does not check the contents of records, chunks and a user header that is not a pool's. pool_check
 * (array_check.h) checks chunks. A host that knows the layout of its records gives it in the options. The loader then
 * refuses an array of another version or record size, to which the host would write at wrong offsets.
 *
 * Memory is allocated while bytes arrive: block 0, one data block, and an amount proportional to the bytes read. A
 * stream whose headers claim more than it contains does not need more memory. */
#ifndef ARRAY_LOADER_H
#define ARRAY_LOADER_H

#include <tslb/dynamic_array.h>

TSLB_BEGIN_DECLS

/* Interpretation of the user header. */
enum {
  ARRAY_LOAD_ANY = 0,          /* none: the user header is copied unchecked */
  ARRAY_LOAD_POOL = 1,         /* a pool's (DynMemHdr_t); anything else is refused */
  ARRAY_LOAD_POOL_BY_SIZE = 2, /* a pool's if it has 56 bytes, else none */

  /* Added to one of these: the stored lists are ignored, and made from the statuses (array_rebuild.h). */
  ARRAY_LOAD_REBUILDS_LISTS = 0x80
};

/* Values that match every array. */
#define ARRAY_LOAD_ANY_VERSION (-1) /* for rec_version */
#define ARRAY_LOAD_ANY_SIZE 0u      /* for record_size */

/* If an initializer omits rec_version it is 0, and other versions are refused. */
typedef struct array_load_options_t {
  const char *ctx_name;     /* name of the new array, or NULL */
  int64_t tbl_id;           /* its table id; the low 32 bits are used */
  char mem_type;            /* MPOOL_TYPE_* of process memory: not _SHM, not _PMEM */
  uint8_t kind;             /* ARRAY_LOAD_* */
  uint64_t max_block_bytes; /* maximum size of block 0 and of a data block; 0: the maximum of creation */
  int16_t rec_version;      /* version of the host's records, 0 to 255, or ARRAY_LOAD_ANY_VERSION */
  uint32_t record_size;     /* bytes of a record without nodes, or ARRAY_LOAD_ANY_SIZE */
} array_load_options_t;

/* Loads one stream.
 *
 * fd       open for reading: a file (from its current position), a pipe or a socket. The function continues after a
 *          short or interrupted read; a read that would block is an error. It does not close fd. On success it has read
 *          to the end. On refusal it has read to an unspecified position after the fault.
 * options  not null. With MPOOL_TYPE_DRAM_TMP a bit-vector pool becomes a ring, which has at most 254 slots.
 * error    error_size bytes; receives one line without a line end, cut to fit: "byte 92: status 2 on the free list,
 *          slot 0". Empty on success. May be null with size 0.
 * Result   the array; the caller owns it (destroy_dyn_arr). It is not counted in g_mem_st, and no redo record was
 *          written. n_alloc counts the memory of the new array; all other fields are as stored. NULL on a fault in the
 *          stream or the options, and if memory ran out (also a line on stderr). NULL leaves nothing allocated.
 *
 * The stream has no end mark: it ends where the descriptor ends. Bytes after the last slot are refused. A pool's last
 * slot may be cut if it is the current slot and ends exactly at the cursor. The rest of a cut slot is zero, and the
 * slot is not on the inactive list.
 *
 * Threads  any number, each with its own descriptor. */
DynamicArray_t array_load_stream(int fd, const array_load_options_t *options, char *error, size_t error_size);

TSLB_END_DECLS

#endif
