/* Converts the snapshot stream of an array to an older layout, for a reader that does not know the newer one. The input
 * has the layout of the version maps (tsdb_recovery_version_compatibility.h).
 *
 * The array is loaded (array_loader.h), compared with its row of the map, converted in memory by the row's routine
 * (tsdb_recovery_version_downgrade_fn.h) and written as tslb_create_dump_for_dynarr writes it. The rows differ:
 *
 *   catalogue       Records are converted by position, whatever the status of their slots. All records become active,
 *                   and both lists become empty. The times in the nodes are those of the conversion. The reuse policy
 *                   is not copied, and the host registers it again. The older array has the source's flags. All of its
 *                   records are direct, so they must fit in block 0 (2,147,483,647 bytes).
 *   lib             Any array, with any flags. The headers change from lib_version 2 to 1, and nothing else changes.
 *                   tsdb_recov_version_copy_rc copies slots, lists and user header, and then the routine runs. The
 *                   loaders here do not read the result: they accept lib_version 2 only.
 *   lib_bb, lib_bv  The routine is tsdb_recov_version_copy_rc. The version of a pool is not stored: rec_version is the
 *                   host's, and lib_version is that of the headers. The driver checks the kind of pool and ASSUMES that
 *                   the pool has the map's version (1); version_is_asserted reports this. A pool that was already
 *                   converted is therefore accepted again. The stand-in's copy routine changes no content.
 *
 * For lib, lib_bb and lib_bv a user header of 56 bytes is read as a pool's, and refused if it is inconsistent. Such a
 * pool is settled (array_settle.h). A last slot that was cut is written whole.
 *
 * Both arrays are in memory, with the slots that were read. An unused direct area takes no memory. */
#ifndef RECOVERY_DRIVER_H
#define RECOVERY_DRIVER_H

#include <tslb/tslb_decl.h>

TSLB_BEGIN_DECLS

typedef enum recovery_result_t {
  RECOVERY_DONE,
  RECOVERY_UNSUPPORTED,  /* no such record type, the type's own version, or no routine; nothing was read */
  RECOVERY_BAD_STREAM,   /* the loader refused the stream, or memory ran out */
  RECOVERY_DOES_NOT_FIT, /* the array is not of this type in the map's version */
  RECOVERY_FAILED,       /* the older array could not be created or filled */
  RECOVERY_NOT_WRITTEN   /* a write failed; the output is incomplete. With other failures nothing is written */
} recovery_result_t;

/* A requested conversion. */
typedef struct recovery_conversion_t {
  uint16_t rec_type;      /* a row of the map */
  uint8_t is_lib_rc_type; /* 0: g_old_vermap. Any other value: g_old_lib_vermap */
  uint8_t target_version;
  uint8_t dry_run; /* not 0: convert in memory and write nothing */
} recovery_conversion_t;

/* Result of a conversion. Slots are counted by their status in the source; without nodes all are active. */
typedef struct recovery_counts_t {
  uint64_t stream_bytes_after;
  uint32_t n_records; /* ids in use: n_active + n_free + n_inactive + n_other */
  uint32_t n_active;
  uint32_t n_free;
  uint32_t n_inactive;
  uint32_t n_other; /* never taken, or marked by the host */
  uint32_t record_bytes_before;
  uint32_t record_bytes_after;
  uint32_t version_is_asserted; /* 1: the stream does not store its version */
} recovery_counts_t;

/* Converts one stream.
 *
 * fd_in       open for reading, as for array_load_stream. Not closed; never written to.
 * fd_out      open for writing. Written at its position after the older array is complete. Not synced and not closed.
 *             Not used in a dry run.
 * conversion  not null.
 * counts      receives the counts with RECOVERY_DONE, else zeroes.
 * error       error_size bytes; receives one line without a line end, cut to fit. Empty with RECOVERY_DONE. May be null
 *             with size 0. If memory ran out or a write failed, the library also writes a line to stderr.
 * Threads     any number, each with its own descriptors. */
recovery_result_t recovery_convert_stream(int fd_in, int fd_out, const recovery_conversion_t *conversion,
                                          recovery_counts_t *counts, char *error, size_t error_size);

/* Returns the name of a record type: its RECTYPE_ constant in lower case, as in "g_mg". NULL if the map has no such
 * row. */
const char *recovery_type_name(uint16_t rec_type, uint8_t is_lib_rc_type);

/* Returns the bytes of one record in a version, without nodes. 0 if the layout is unknown, and for the library's types,
 * whose arrays have records of any size. */
uint32_t recovery_record_bytes(uint16_t rec_type, uint8_t is_lib_rc_type, uint8_t version);

TSLB_END_DECLS

#endif
