/* Brings a stored array back from a snapshot stream: what tslb_create_dump_for_dynarr wrote becomes an array or pool in
 * process memory again, with its records, nodes, lists, user header and counts. block_files.h does the same from the
 * files of an MPOOL_TYPE_SHM array.
 *
 * Nothing that is read is trusted. An array that comes out holds what the library relies on: slots have a status that
 * exists, list roots and links name slots, lists are as long as their counters say and end where their tails say, each
 * slot that claims to be on a list is on it once, a pool's cursor stands in one of its slots, and the counters of memory
 * slots stay within the slot and the cursor. An image that contradicts that is refused as a whole. The contents of
 * records, of chunks (pool_check of array_check.h looks at those) and of a user header that is not a pool's are the
 * host's to judge. What the host knows of its records' layout it gives with the options: an array of another
 * version or size is refused, since every write to it would go to the wrong place.
 *
 * Memory is taken as bytes arrive: at any moment block 0, one data block, and an amount that grows in step with what
 * was read. A stream that claims more than it holds costs no more. */
#ifndef ARRAY_LOADER_H
#define ARRAY_LOADER_H

#include <tslb/dynamic_array.h>

TSLB_BEGIN_DECLS

/* How the user header is read. */
enum {
  ARRAY_LOAD_ANY = 0,          /* not at all: it comes back as it is */
  ARRAY_LOAD_POOL = 1,         /* as a pool's (DynMemHdr_t); anything else is refused */
  ARRAY_LOAD_POOL_BY_SIZE = 2, /* as a pool's if it has the size of one, 56 bytes */
};

/* What matches every array. */
#define ARRAY_LOAD_ANY_VERSION (-1) /* for rec_version */
#define ARRAY_LOAD_ANY_SIZE 0u      /* for record_size */

/* A field that is left out is 0: rec_version then expects version 0. */
typedef struct array_load_options_t {
  const char *ctx_name;     /* name of the new array, or NULL */
  int64_t tbl_id;           /* its table id; the low 32 bits are kept */
  char mem_type;            /* MPOOL_TYPE_*, but neither of _SHM and _PMEM: it is made in process memory */
  uint8_t kind;             /* ARRAY_LOAD_* */
  uint64_t max_block_bytes; /* what block 0, or a data block of 16 slots, may take; 0: as much as creation allows */
  int16_t rec_version;      /* version of the host's records, 0 to 255, or ARRAY_LOAD_ANY_VERSION */
  uint32_t record_size;     /* bytes of a record without nodes, or ARRAY_LOAD_ANY_SIZE */
} array_load_options_t;

/* Reads one stream to its end.
 *
 * fd       open for reading: a file from its position on, a pipe or a socket. A read that comes short or that a signal
 *          interrupts is continued, and one that would block is an error. Not closed; read to its end on success, to
 *          somewhere behind the fault on refusal.
 * options  not null. MPOOL_TYPE_DRAM_TMP makes a bit-vector pool a ring, which has at most 254 slots.
 * error    of error_size bytes; receives one line without a line end, as in "byte 92: status 2 on the free list, slot
 *          0", cut to fit. An empty text on success. May be null with size 0.
 * Result   the array, which the caller owns (destroy_dyn_arr). It was not counted in g_mem_st, and nothing was logged.
 *          n_alloc is its own; everything else is as it was written. NULL if anything is refused: a fault in the
 *          stream, in the options, or memory (then with a line on stderr too). Nothing is left behind.
 *
 * The stream has no end mark, so its end is told by the descriptor: bytes behind the last slot are refused. A pool's
 * last slot may be cut: if it is the cursor's, and just the bytes that the cursor has reached are there. The rest of
 * such a slot comes back zero, on no inactive list.
 *
 * Threads  any number, each with a descriptor of its own. */
DynamicArray_t array_load_stream(int fd, const array_load_options_t *options, char *error, size_t error_size);

TSLB_END_DECLS

#endif
