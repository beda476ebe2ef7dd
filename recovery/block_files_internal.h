// Block files of an array that this process creates and does not keep.
#ifndef BLOCK_FILES_INTERNAL_H
#define BLOCK_FILES_INTERNAL_H

#include <stdint.h>

// Removes all block files of an array, which is not mapped. Their folder stays. Returns 0, or -1 with errno.
int remove_block_files(const char *base_path, const char *ctx_name, int32_t tbl_id);

#endif
