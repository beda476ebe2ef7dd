/* Loads an MPOOL_TYPE_SHM array from its block files into process memory. Checks and result are those of
 * array_loader.h. The files are only read, and the loaded array does not refer to them. */
#ifndef BLOCK_FILES_H
#define BLOCK_FILES_H

#include <tslb/array_loader.h>

TSLB_BEGIN_DECLS

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
