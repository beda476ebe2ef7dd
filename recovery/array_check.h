/* Checks an array or a pool in memory, for example after redo records were applied to it. The rules are those of
 * array_loader.h:
 *   - Each slot has a status that exists.
 *   - List roots and links name slots. The length of a list is its counter, and its last slot is its tail.
 *   - Each slot with the status of a list is on that list once.
 *   - A pool's cursor is in one of its slots. The counters of memory slots do not exceed the slot and the cursor.
 * The totals of a pool's header are not compared, because a killed process leaves them too small. */
#ifndef ARRAY_CHECK_H
#define ARRAY_CHECK_H

#include <stddef.h>

#include <tslb/dynamic_array.h>

TSLB_BEGIN_DECLS

/* Checks a whole array.
 *
 * kind    how the user header is read: ARRAY_LOAD_* of array_loader.h. ARRAY_LOAD_ANY for an array that is no pool.
 * error   error_size bytes; receives one line without a line end, cut to fit: "byte 92: status 2 on the free list, slot
 *         0". The byte is a position in the flat image. Empty on success. May be null with size 0.
 * Result  0, or -1 if a rule is violated. error has the first violation found.
 *
 * Linear in the slots. Allocates the memory of slots that have none yet, and changes nothing else.
 *
 * Threads  no other thread changes the array during the call. */
int array_check(DynamicArray_t array, uint8_t kind, char *error, size_t error_size);

/* Checks a pool as array_check does. Also checks the chunks of a pool with compaction headers: in each slot the chunks
 * follow each other up to bytes_used, and the chunks marked as deleted have bytes_del bytes in total.
 *
 * error   as for array_check.
 * Result  0, or -1 if the array is not a pool or a rule is violated.
 *
 * The check of chunks has these limits:
 *   - If chunks can be longer than 65,535 bytes, it only checks that possible lengths fill the slot: a compaction
 *     header has the low 16 bits of a length.
 *   - It skips bytes that a killed process reserved and did not write. These are in the current slot if bytes_used is
 *     less than the cursor, and after a header of zeroes.
 *   - It skips a bit-vector pool with 254 slots. A ring has the same stored form, and its slots keep old chunks.
 *
 * Linear in the bytes of the chunks.
 *
 * Threads  no other thread changes the pool during the call. */
int pool_check(DynamicArray_t pool, char *error, size_t error_size);

TSLB_END_DECLS

#endif
