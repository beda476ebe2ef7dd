/* Checks an array or a pool that stands in memory: after redo records were applied to it, or whenever a host wants to
 * know. What holds afterwards is what holds of an array that array_loader.h brings back: slots have a status that exists,
 * list roots and links name slots, lists are as long as their counters say and end where their tails say, each slot that
 * claims to be on a list is on it once, a pool's cursor stands in one of its slots, and the counters of memory slots stay
 * within the slot and the cursor. Totals of a pool's header are not compared: a killed process leaves them behind. */
#ifndef ARRAY_CHECK_H
#define ARRAY_CHECK_H

#include <stddef.h>

#include <tslb/dynamic_array.h>

TSLB_BEGIN_DECLS

/* Checks a whole array.
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

/* Checks a pool as array_check does, and the chunks of a pool with compaction headers: in each slot they lie one after the
 * other up to bytes_used, and those that are marked as deleted come to bytes_del.
 *
 * error   as above.
 * Result  0, or -1: not a pool, or something does not hold.
 *
 * Some slots say less than others. Where a chunk can be longer than 65,535 bytes, of which its header has the low 16
 * bits, only that there are lengths which fill the slot. Nothing where a killed process left bytes that it had reserved
 * and not written: the current slot while its counter lags behind the cursor, and what follows a header of zeroes. Nothing
 * in a bit-vector pool of 254 slots: a ring, whose slots keep old chunks, looks the same.
 *
 * Linear in the bytes of the chunks.
 *
 * Threads  nobody changes the pool meanwhile. */
int pool_check(DynamicArray_t pool, char *error, size_t error_size);

TSLB_END_DECLS

#endif
