/* Converts the records of an array to another version, with a converter of the host for one record. The direction does
 * not matter: to a newer version at an upgrade, or to an older one. Indices, statuses, nodes, lists with their order,
 * reuse policy and user header stay. recovery_driver.h has the conversions of the catalogue, which keep less. */
#ifndef ARRAY_CONVERT_H
#define ARRAY_CONVERT_H

#include <tslb/dynamic_array.h>
#include <tslb/recovery_driver.h>

TSLB_BEGIN_DECLS

/* Converts one record: fills `to`, which is zeroed, with the gatekeeper word of a slot array too. Called in the order of
 * the indices for each slot that is not free, including inactive slots. A result other than 0 fails the conversion.
 * A free slot keeps its gatekeeper word; the rest of its record is zero. */
typedef int (*tslb_record_converter_t)(void *arg, uint8_t from_version, const void *from, uint32_t from_bytes, void *to,
                                       uint32_t to_bytes);

/* A conversion of one record type. Pools have no records of the host: do not describe one. */
typedef struct array_conversion_t {
  const char *name; /* of the record type, for the user of tslb-convert; not used otherwise */
  uint8_t from_version;
  uint8_t to_version;
  uint32_t from_bytes; /* bytes of a record, without nodes */
  uint32_t to_bytes;   /* with nodes at least 4 */
  tslb_record_converter_t convert;
  void *arg; /* its first argument; may be null */
} array_conversion_t;

/* Converts an array in memory.
 *
 * from      not changed. Its record size and rec_version are compared with the conversion.
 * mem_type, ctx_name, tbl_id
 *           of the new array, as at creation. An MPOOL_TYPE_SHM array is refused if block files with its name exist in
 *           g_base_path; on failure the files that were created are removed. With a name, the new array writes redo
 *           records as every array does.
 * to        receives the new array, which the caller owns; null on failure. n_direct is that of `from`.
 * error     error_size bytes; receives one line without a line end, cut to fit. Empty with RECOVERY_DONE. May be null
 *           with size 0.
 * Result    RECOVERY_DONE. RECOVERY_DOES_NOT_FIT: another version or size, or the converter failed; the line has the
 *           index. RECOVERY_FAILED: the new array could not be created or filled.
 * Threads   no other thread changes `from`. */
recovery_result_t array_convert(DynamicArray_t from, const array_conversion_t *conversion, char mem_type,
                                const char *ctx_name, int32_t tbl_id, DynamicArray_t *to, char *error,
                                size_t error_size);

/* Converts a snapshot stream to a snapshot stream. Descriptors, counts, error and result are those of
 * recovery_convert_stream. Both arrays are in memory, with the slots that were read. n_direct of the new stream is less
 * if block 0 would have more than INT_MAX bytes with the new records.
 *
 * dry_run   not 0: converts in memory and writes nothing. */
recovery_result_t array_convert_stream(int fd_in, int fd_out, const array_conversion_t *conversion, int dry_run,
                                       recovery_counts_t *counts, char *error, size_t error_size);

/* Not a function of this library. A host defines it in a shared object for tslb-convert --converters FILE
 * (examples/converters). It returns the host's conversions, which stay valid, and sets their number. */
TSLB_API const array_conversion_t *tslb_converters(uint32_t *n_conversions);

TSLB_END_DECLS

#endif
