/* Makes the lists of a stored array anew, when a kill or a power failure has left them inconsistent. */
#ifndef ARRAY_REBUILD_H
#define ARRAY_REBUILD_H

#include <tslb/dynamic_array.h>

TSLB_BEGIN_DECLS

/* Makes the free list, the inactive list and their counters from the statuses of the slots. The free list is in the order
 * of the indices. The inactive list is in the order of the times of inactivation, then of the indices. Slots of any other
 * status are on no list. Statuses, times, records and a pool's cursor and counters stay.
 *
 * For block files of an MPOOL_TYPE_SHM array, whose pages reach the disk in any order, and whose process can be killed
 * between the stores of a list operation. The loaders do this with ARRAY_LOAD_REBUILDS_LISTS, before they check
 * the array: without the option they refuse such files.
 *
 * What it cannot repair: a slot whose status was not stored is free or active as it was before; a record that was not
 * stored has its old bytes. The host checks its records.
 *
 * Result   0: the lists are made, or the array has none. -1: memory was refused; the array is unchanged.
 * Threads  no other thread uses the array. Writes no redo record. */
int array_rebuild_lists(DynamicArray_t array);

TSLB_END_DECLS

#endif
