/* What a host's recovery does with one stored array that is newer than the reader it is for: the snapshot stream of an
 * array in the layout that the version maps hold (tsdb_recovery_version_compatibility.h) goes in, the stream of the
 * same array in an older layout comes out.
 *
 * The array is brought back (array_loader.h), compared with its row of the map, converted in memory by the row's
 * routine (tsdb_recovery_version_downgrade_fn.h) and written (tslb_create_dump_for_dynarr). Three kinds of rows differ:
 *
 *   catalogue       Records are taken by position, whatever their slot's status: free, inactive and all other records
 *                   come out active, and their lists end up empty. The nodes' times are those of the conversion, and
 *                   the reuse policy is not carried: the host registers it again. The older array has the source's
 *                   flags and all records in its direct area, which limits them to what block 0 can hold (2,147,483,647
 *                   bytes).
 *   lib             Any array, of any flags: its headers go from lib_version 2 to 1, and nothing else changes. Slots,
 *                   lists and user header are carried by tsdb_recov_version_copy_rc, and then the routine runs. What
 *                   comes out is not for the loaders here, which read lib_version 2 alone.
 *   lib_bb, lib_bv  The routine is tsdb_recov_version_copy_rc. The version of a pool is stored nowhere: rec_version is
 *                   the host's, lib_version that of all headers. So THE CALLER ASSERTS, by calling, that the pool is
 *                   in the map's version (1), and is told so in version_is_asserted; a pool that was converted before
 *                   passes again. What is looked at is the kind of pool. The host's copy here changes no content.
 *
 * For the last three a user header of 56 bytes is read as a pool's, and refused if it contradicts itself. Such a pool is
 * settled (array_settle.h). A pool's last
 * slot that was cut comes out whole.
 *
 * Both arrays are in memory, with the slots whose bytes were read: a direct area that the headers claim and do not use
 * costs nothing. */
#ifndef RECOVERY_DRIVER_H
#define RECOVERY_DRIVER_H

#include <tslb/tslb_decl.h>

TSLB_BEGIN_DECLS

typedef enum recovery_result_t {
  RECOVERY_DONE,
  RECOVERY_NO_WAY,       /* no such record type, its own version, or no routine; nothing was read */
  RECOVERY_BAD_STREAM,   /* no array could be made of what was read */
  RECOVERY_DOES_NOT_FIT, /* an array, but not one of this type in the map's version */
  RECOVERY_FAILED,       /* the older array could not be made or filled */
  RECOVERY_NOT_WRITTEN   /* the output is broken where it failed; the other refusals write nothing to it */
} recovery_result_t;

/* What is wanted. */
typedef struct recovery_conversion_t {
  uint16_t rec_type;      /* a row of the map chosen */
  uint8_t is_lib_rc_type; /* 0: g_old_vermap. Any other value: g_old_lib_vermap */
  uint8_t target_version;
  uint8_t dry_run; /* not 0: everything is done but the writing */
} recovery_conversion_t;

/* What was found. Slots by their status in the source; without nodes all count as active. */
typedef struct recovery_counts_t {
  uint64_t stream_bytes_after;
  uint32_t n_records; /* ids in use, the sum of the next four */
  uint32_t n_active;
  uint32_t n_free;
  uint32_t n_inactive;
  uint32_t n_other; /* never taken, or marked by the host */
  uint32_t record_bytes_before;
  uint32_t record_bytes_after;
  uint32_t version_is_asserted; /* 1: nothing in the stream tells its version */
} recovery_counts_t;

/* Converts one stream.
 *
 * fd_in       open for reading, as array_load_stream takes it. Not closed; never written to.
 * fd_out      open for writing; written to at its position from the moment the older array is complete, and not synced,
 *             not closed. Not used in a dry run.
 * conversion  not null.
 * counts      receives the counts with RECOVERY_DONE, zeroes with all else.
 * error       of error_size bytes; receives one line without a line end, cut to fit, with each result but
 *             RECOVERY_DONE, and an empty text with that one. May be null with size 0. Where memory or the output was
 *             refused, a line of the library's goes to stderr as well.
 * Threads     any number, each with descriptors of its own. */
recovery_result_t recovery_convert_stream(int fd_in, int fd_out, const recovery_conversion_t *conversion,
                                          recovery_counts_t *counts, char *error, size_t error_size);

/* The record type's name, which is that of its RECTYPE_ constant in lower case: "g_mg". NULL outside the map. */
const char *recovery_type_name(uint16_t rec_type, uint8_t is_lib_rc_type);

/* Bytes of one record in a version, without nodes. 0 where no layout is known, and for the library's types, whose
 * arrays have records of any size. */
uint32_t recovery_record_bytes(uint16_t rec_type, uint8_t is_lib_rc_type, uint8_t version);

TSLB_END_DECLS

#endif
