/* Repairs what the end of a process leaves in a stored pool, before it is used again. */
#ifndef ARRAY_SETTLE_H
#define ARRAY_SETTLE_H

#include <tslb/dynamic_array.h>

TSLB_BEGIN_DECLS

/* Settles an array that was loaded (array_loader.h, block_files.h) or brought up to date by redo records
 * (redo_applier.h). Call it once, after the last record and before the first allocation. The loaders and the applier
 * keep stored bytes as they are.
 *
 * A chunk is reserved by the pool's cursor, and its bytes reach the slot's bytes_used a moment later. A process that was
 * killed in between, or a replay that ends there, leaves bytes of the current slot that nobody accounts for: the slot
 * would never be released. They are added to the slot's bytes_used and bytes_del, as reserved and deleted.
 *
 * Result   0: the array is settled, or it is no pool and was left alone. A pool is told by its user header: 56 bytes,
 *          and mslot_sz is record_size - 8. -1: the cursor names a slot that does not exist or has no memory; the array
 *          is unchanged.
 * Threads  nobody else uses the array. Writes no redo record. A second call changes nothing. */
int array_settle(DynamicArray_t array);

TSLB_END_DECLS

#endif
