/* Loads an MPOOL_TYPE_SHM array from its block files into process memory. Checks and result are those of
 * array_loader.h. The files are only read, and the loaded array does not refer to them. */
#ifndef BLOCK_FILES_H
#define BLOCK_FILES_H

#include <tslb/array_loader.h>

TSLB_BEGIN_DECLS

/* What a kill can leave. Every store of the process is in its files, in the order of the stores. So a list operation that
 * was interrupted leaves links, counters and statuses that disagree, and this function refuses the files. After a power
 * failure, pages of any age can be there as well. With ARRAY_LOAD_REBUILDS_LISTS the lists are made from the statuses, which
 * are one word each (array_rebuild.h); records are as they were stored, whole or not.
 *
 * To go on in files: load them, check the records, create an array of MPOOL_TYPE_SHM in another folder, copy the records
 * to it, and sync it. Creation over existing files uses their old bytes (dynamic_array.h), so a host creates arrays in a
 * folder that has none: block_files_exist. */

/* Returns 1 if the folder has a block file of this array, of any block; 0 if not; -1 with errno if it cannot be read. */
int block_files_exist(const char *base_path, const char *ctx_name, int32_t tbl_id);

/* Reads "base_path/ctx_name/tbl_id.0.darr" and the data blocks that hold used slots.
 *
 * base_path  root of the block files. NULL or empty: paths begin with the context's name. g_base_path is not used.
 * options    as for a stream. ctx_name and tbl_id name the files and the new array. File 0 is in the folder with the
 *            whole context name. Data blocks are in the folder with its first 32 characters, where the library creates
 *            them.
 * error      as for a stream; the line begins with the file's path: "data/metrics/12.2.darr: byte 8: ...".
 * Result     as for a stream. The headers in file 0 determine the size of each file, and a file of another size is
 *            refused. Unused slots of the last block are zero in the array, whatever the file contains. Files of unused
 *            blocks are not read.
 * Threads    any number, while no thread writes the files. */
DynamicArray_t array_load_block_files(const char *base_path, const array_load_options_t *options, char *error,
                                      size_t error_size);

TSLB_END_DECLS

#endif
