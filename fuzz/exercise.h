// What the fuzz targets do with an input that was accepted.
#ifndef TSLB_FUZZ_EXERCISE_H
#define TSLB_FUZZ_EXERCISE_H

#include <stdint.h>

#include <tslb/array_loader.h>

// Options of a load, chosen by the input itself: by the version of its records, a byte that no check looks at.
array_load_options_t options_for(const uint8_t *data, size_t size);

// Reads every slot, stores the array again, takes and gives back slots or chunks, and destroys it. Stops the process if
// what is stored differs from the `size` bytes of `image` where it must not.
//
// pool_kind  how the user header was read: ARRAY_LOAD_*.
// image      what was loaded, as a flat image: it can lack the end of the last slot, and go on behind it.
void exercise(DynamicArray_t array, uint8_t pool_kind, const uint8_t *image, size_t size);

// A null array that was refused without a word stops the process too.
void expect_told(DynamicArray_t array, const char *error);

#endif
