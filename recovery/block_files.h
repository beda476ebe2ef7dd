/* Brings an MPOOL_TYPE_SHM array back from its block files, as an array in process memory. The checks, and what comes
 * back, are those of array_loader.h. The files are only read; afterwards the array has nothing to do with them. */
#ifndef BLOCK_FILES_H
#define BLOCK_FILES_H

#include <tslb/array_loader.h>

TSLB_BEGIN_DECLS

/* Reads "base_path/ctx_name/tbl_id.0.darr" and the data blocks that hold used slots.
 *
 * base_path  root of the block files; NULL or empty: the path begins with the context's name. g_base_path is not used.
 * options    as for a stream. ctx_name and tbl_id name the files and the new array: file 0 lies under the whole name,
 *            data blocks under its first 32 characters, which is where the library puts them.
 * error      as for a stream; the line begins with the file's path, as in "data/metrics/12.2.darr: byte 8: ...".
 * Result     as for a stream. Each file has exactly the size that the headers in file 0 give it, or is refused. Slots
 *            of the last block that are not in use yet come back zero, whatever the file holds there, and files of
 *            further blocks are not looked at.
 * Threads    any number, while nobody writes the files. */
DynamicArray_t array_load_block_files(const char *base_path, const array_load_options_t *options, char *error,
                                      size_t error_size);

TSLB_END_DECLS

#endif
