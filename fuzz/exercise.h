// Operations of the fuzz targets on an accepted input.
#ifndef TSLB_FUZZ_EXERCISE_H
#define TSLB_FUZZ_EXERCISE_H

#include <stdint.h>

#include <tslb/array_loader.h>

// Returns options of a load. The input selects them by the version of its records, a byte that no check reads.
array_load_options_t options_for(const uint8_t *data, size_t size);

// Reads every slot, stores the array again, takes and frees slots or chunks, and destroys it. Stops the process if the
// stored bytes differ from the `size` bytes of `image` where they must be equal.
//
// pool_kind  how the user header was read: ARRAY_LOAD_*.
// image      the loaded bytes as a flat image: it can lack the end of the last slot, and can have further bytes after
//            it.
void exercise(DynamicArray_t array, uint8_t pool_kind, const uint8_t *image, size_t size);

// Stops the process if a null array comes without an error text.
void expect_error_text(DynamicArray_t array, const char *error);

#endif
