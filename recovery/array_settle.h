/* Repairs the counters of a stored pool after its process was killed. */
#ifndef ARRAY_SETTLE_H
#define ARRAY_SETTLE_H

#include <tslb/dynamic_array.h>

TSLB_BEGIN_DECLS

/* Settles an array that was loaded (array_loader.h, block_files.h) or to which redo records were applied
 * (redo_applier.h). Call it once, after the last record and before the first allocation. The loaders and the applier do
 * not do this: they keep stored bytes as they are.
 *
 * An allocation reserves a chunk with the pool's cursor, and then adds the chunk to the slot's bytes_used. If the
 * process was killed between the two, or a replay ends there, the current slot has bytes that no counter includes. The
 * library would never release such a slot. This function adds these bytes to the slot's bytes_used and bytes_del.
 *
 * Result   0: the array is settled, or it is not a pool and is unchanged. A pool has a user header of 56 bytes, and its
 *          mslot_sz is record_size - 8. -1: the cursor names a slot that does not exist or has no memory; the array is
 *          unchanged.
 * Threads  no other thread uses the array.
 *
 * Writes no redo record. A second call changes nothing. */
int array_settle(DynamicArray_t array);

TSLB_END_DECLS

#endif
