/* Applies redo records to a replica. A replica is an array or pool in process memory, loaded from a snapshot of the
 * logged array or created with the same parameters. Apply all records in the order in which the hook received them. The
 * replica then has every logged change. The host logs the changes that the library does not log itself (tslb_dynarr.h).
 * n_alloc counts the replica's own memory.
 *
 * For a pool without nodes growth records are not enough: if several threads take slots at the same time, it is
 * possible that no record names the highest slot. The host therefore logs the pool's header with each batch. Of two
 * growth records of such a pool the larger size is kept.
 *
 * The applier trusts no record. It compares each one with the geometry of the replica. A record must contain all of the
 * headers or lie within one slot. List roots, links and a pool's cursor are consistent at the end of a batch, not after
 * each record. Check the replica with array_check.h after the last record, and do not use it before. */
#ifndef REDO_APPLIER_H
#define REDO_APPLIER_H

#include <stddef.h>

#include <tslb/dynamic_array.h>

TSLB_BEGIN_DECLS

/* Arguments of the hook (tslb_rd_api.h). data_ptr points to data_sz bytes. */
typedef struct redo_args_t {
  uint64_t txn_id; /* ignored */
  char rec_type;   /* TSLB_REDO_GROWTH, or any other value for a record of bytes */
  const char *ctx_name;
  size_t ctx_name_len; /* ctx_name may lack a terminator */
  uint32_t tbl_id;
  uint64_t data_off;
  uint32_t aux_idx;
  const void *data_ptr;
  uint32_t data_sz;
} redo_args_t;

/* Applies one record.
 *
 * array      the replica. Not of MPOOL_TYPE_SHM or _PMEM; name and table id are those of the record.
 * record     all headers (at position 0), bytes within one slot, or the growth of a pool. Headers must have the
 *            replica's sizes, flags and n_direct, and an n_used that is not less than the replica's.
 * kind       ARRAY_LOAD_* of array_loader.h: interpretation of the user header. A growth record is refused if the array
 *            is not a pool.
 * max_slots  maximum number of ids. The applier issues the ids that records name, and allocates their memory.
 * error      error_size bytes; receives one line without a line end, cut to fit: "record at 4096: ...". Empty on
 *            success. May be null with size 0.
 * Result     0, or -1 if the record is refused. The replica is then unchanged, except that it can have more ids if
 *            memory ran out (also a line on stderr).
 *
 * Writes no redo record and counts nothing in g_mem_st. Takes no lock.
 *
 * Threads    no other thread uses the replica. */
int redo_apply(DynamicArray_t array, const redo_args_t *record, uint8_t kind, uint32_t max_slots, char *error,
               size_t error_size);

TSLB_END_DECLS

#endif
