/* Applies redo records to a replica: an array or pool in process memory that was loaded from a snapshot of the logged
 * one, or freshly created with the same parameters. One record after the other, in the order in which the hook got
 * them, makes the replica what the logged array was, as far as it was logged: what the library does not log of itself,
 * the host has to (tslb_dynarr.h), and n_alloc is always the replica's own.
 *
 * Growth records alone do not make a replica of a pool without nodes: if several threads take slots at the same moment,
 * no record may name the highest one. A host logs the pool's header with each batch. Of two growth records of such a pool
 * the larger size stays.
 *
 * Nothing in a record is trusted. Each is compared with the geometry of the replica and stays within one slot or is all
 * of the headers. What the bytes mean, list roots, links and a pool's cursor, is only true of the end of a batch and
 * not of each record: array_check.h looks at it there. Until then nothing may use the replica but this. */
#ifndef REDO_APPLIER_H
#define REDO_APPLIER_H

#include <stddef.h>

#include <tslb/dynamic_array.h>

TSLB_BEGIN_DECLS

/* The arguments of the hook (tslb_rd_api.h), and data_sz bytes where data_ptr points. */
typedef struct redo_args_t {
  uint64_t txn_id; /* not looked at */
  char rec_type;   /* TSLB_REDO_GROWTH is a kind of its own; all others are bytes */
  const char *ctx_name;
  size_t ctx_name_len; /* ctx_name needs no terminator */
  uint32_t tbl_id;
  uint64_t data_off;
  uint32_t aux_idx;
  const void *data_ptr;
  uint32_t data_sz;
} redo_args_t;

/* Applies one record.
 *
 * array      the replica: not of MPOOL_TYPE_SHM or _PMEM, and with the name and table id of the record.
 * record     headers (at 0, all of them), bytes within one slot, or the growth of a pool. Headers must say the sizes,
 *            flags and counts that the replica was created with, and at least as many ids in use as it has.
 * kind       ARRAY_LOAD_* of array_loader.h: how the user header is read. Growth is refused where that is no pool.
 * max_slots  ids are issued as records name them, and their memory is made; this many at most.
 * error      of error_size bytes; receives one line without a line end, as in "record at 4096: ...", cut to fit. An
 *            empty text on success. May be null with size 0.
 * Result     0, or -1 if the record is refused: the replica is as it was, but after a lack of memory (with a line on
 *            stderr too) it can have more ids.
 *
 * Writes no redo record and counts nothing in g_mem_st. Takes no lock.
 *
 * Threads    nobody else uses the replica. */
int redo_apply(DynamicArray_t array, const redo_args_t *record, uint8_t kind, uint32_t max_slots, char *error,
               size_t error_size);

TSLB_END_DECLS

#endif
