/* Checks an array or a pool that stands in memory: after redo records were applied to it, or whenever a host wants to
 * know. What holds afterwards is what holds of an array that array_loader.h brings back: list roots and links name
 * slots, lists are as long as their counters say and end where their tails say, each slot that claims to be on a list
 * is on it once, and a pool's cursor stands in one of its slots. */
#ifndef ARRAY_CHECK_H
#define ARRAY_CHECK_H

#include <stddef.h>

#include <tslb/dynamic_array.h>

TSLB_BEGIN_DECLS

/* Looks at a whole array.
 *
 * kind    how the user header is read: ARRAY_LOAD_* of array_loader.h.
 * error   of error_size bytes; receives one line without a line end, cut to fit, as in "byte 92: status 2 on the free
 *         list, slot 0"; the byte is that of the flat image. An empty text on success. May be null with size 0.
 * Result  0, or -1 if something does not hold: the first thing that was met.
 *
 * Linear in the slots. Makes the memory of slots that have none yet, and changes nothing else.
 *
 * Threads  nobody changes the array meanwhile. */
int array_check(DynamicArray_t array, uint8_t kind, char *error, size_t error_size);

TSLB_END_DECLS

#endif
