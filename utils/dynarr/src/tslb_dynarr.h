/* Slot arrays: record arrays whose slots contain list nodes, so that a slot can be freed and taken again.
 *
 * A slot pointer (`slot_ptr`) is the address of the payload, the caller's record, and not of the slot's start: node_fw
 * is the 8 bytes before it, node_bw follows the record_size bytes of the payload. The first 32 bits of the payload are
 * the gatekeeper word: taking and freeing a slot store 0xFFFFFFFF there, and the library does not test it. A record
 * therefore has at least 4 bytes.
 *
 * Lists. Freed slots are on the free list, first in first out. With TSLB_DA_DAFLAG_INLL a slot can also be put on the
 * inactive list, with its record intact. Nodes link the slots by index; the roots are in DynArrLLI_t in block 0. The
 * handle's spin lock guards roots, counters and nodes.
 *
 * The distance between slots is the slot size, and the slots of block 0 begin where its headers end. The alignment of a
 * record follows from these sizes. A record type that needs a stricter alignment is declared TSLB_UNALIGNED or copied.
 *
 * An index has one owner at a time. Handles must be valid; a null handle is allowed only where stated. */
#ifndef TSLB_DYNARR_H
#define TSLB_DYNARR_H

#include <time.h>

#include "dynamic_array.h"

TSLB_BEGIN_DECLS

typedef DynArrHandle_t dynarr_t; /* a dynarr_t * is a DynamicArray_t; treat it as opaque */

/* List node before a slot's record. Files, snapshots and redo records use this layout. Records can have any size, so it
 * starts at any address. */
typedef struct TSLB_UNALIGNED DynArrSlotLLIFW_t {
  uint32_t status; /* TSLB_DA_SLOT_* */
  uint32_t next;   /* next slot on its list; TSLB_DA_NIL_IDX at the end of a list or on none */
} node_fw;
TSLB_STORED_SIZE(node_fw, 8);
TSLB_STORED_AT(node_fw, status, 0);
TSLB_STORED_AT(node_fw, next, 4);

/* List node after a slot's record, with TSLB_DA_DAFLAG_INLL. */
typedef struct TSLB_UNALIGNED DynArrSlotLLIBW_t {
  uint32_t prev; /* previous slot on the inactive list; TSLB_DA_NIL_IDX at its head or if not on it */
  uint32_t ts;   /* seconds of the library's clock: when it was taken, then when it was inactivated */
} node_bw;
TSLB_STORED_SIZE(node_bw, 8);
TSLB_STORED_AT(node_bw, prev, 0);
TSLB_STORED_AT(node_bw, ts, 4);

/* ---- Creation -----------------------------------------------------------------------------------------------------
 *
 * slot_sz      bytes of a record, without nodes.
 * n_slots      slots in block 0.
 * pool_type    MPOOL_TYPE_*.
 * ctx_name     name of the context or NULL; without a name, allocation is not redo logged.
 * tbl_id       table id.
 * daflag       TSLB_DA_DAFLAG_* and no other bits; tslb_da_init_v5 creates a plain array (0).
 * rec_version  version of the caller's records; 0 in the first two.
 * Result       the handle, or NULL after a line on stderr (get_default_dyn_array_ex_ex). */
TSLB_API dynarr_t *tslb_da_init_v5(int slot_sz, int n_slots, char pool_type, const char *ctx_name, int tbl_id);
TSLB_API dynarr_t *tslb_da_init_ll(int slot_sz, int n_slots, char pool_type, const char *ctx_name, int tbl_id,
                                   uint8_t daflag);
TSLB_API dynarr_t *tslb_da_init_ver(int slot_sz, int n_slots, char pool_type, const char *ctx_name, int tbl_id,
                                    uint8_t daflag, uint8_t rec_version);

/* ---- Accessors ----------------------------------------------------------------------------------------------------
 * None takes the lock: while other threads allocate, a result may be out of date. */

/* Return n_alloc, n_used and record_size; 0 for a null handle. */
TSLB_API unsigned int tslb_da_get_total_size(dynarr_t *h_dynarr);
TSLB_API unsigned int tslb_da_get_size(dynarr_t *h_dynarr);
TSLB_API unsigned int tslb_da_get_record_size(dynarr_t *h_dynarr);

/* Returns the slot size in bytes, nodes included; 0xFFFFFFFF for a null handle. If the slots have nodes and `shift` is
 * not null, stores 8 in `*shift`, the distance from the slot's start to its payload. Otherwise `*shift` is not changed,
 * so the caller initialises it to 0. */
TSLB_API uint32_t tslb_da_get_slotsz(dynarr_t *h_dynarr, int *shift);

/* Return the addresses of DynHdr_t, the user header, DynArrLLI_t and DynArrHdr_t in block 0. They are computed from the
 * sizes: for an array without a user header or without nodes, the second and third return the address of the next
 * part. */
TSLB_API void *tslb_da_get_dynhdr(void *handle_dynarr);
TSLB_API void *tslb_da_get_usrhdr(void *handle_dynarr);
TSLB_API void *tslb_da_get_lli(void *handle_dynarr);
TSLB_API void *tslb_da_get_dynarrhdr(void *handle_dynarr);

/* Returns the slot pointer of `idx`. NULL for a null handle, for an index that was not issued (such as
 * TSLB_DA_NIL_IDX), or if a missing block cannot be allocated. */
TSLB_API void *tslb_da_get_ptr(dynarr_t *handle_dynarr, unsigned int idx);

/* Returns one line about the array, without a line end, in a buffer of the calling thread that its next call
 * overwrites. NULL for a null handle. */
TSLB_API char *tslb_da_get_hdr_str(DynamicArray_t dyn_handle);

/* ---- Spin lock ----------------------------------------------------------------------------------------------------
 * For DynArrHandle_t.spinlock. Locking is a busy wait without a limit. The lock is not re-entrant and works within one
 * process only. Releasing a lock that is not held does nothing. */
TSLB_API void tslb_da_spin_lock16(uint16_t *spinlock);
TSLB_API void tslb_da_spin_unlock16(uint16_t *spinlock);

/* ---- Allocation ---------------------------------------------------------------------------------------------------
 *
 * A slot comes from the head of the free list, else from the head of the inactive list if the reuse policy allows it,
 * else it is a new id. The result is active, on no list, and has the gatekeeper word set. The rest of the payload is
 * zero if the slot was used before. For a new id it is the content of the block (zero in process memory). On a plain
 * array (daflag 0) it is always a new id, without nodes and without a lock.
 *
 * new_idx   receives the index; 0xFFFFFFFF if there is none.
 * lock_off  0: the caller already holds the handle's spin lock. Any other value: the call takes it.
 * Result    the slot pointer. NULL if the array is full or memory was refused (a line on stderr); the id of a failed
 *           call stays issued. tslb_da_get_newptr is the locking form. For a null handle it returns NULL and does not
 *           change `*new_idx`.
 * Threads   any number. */
TSLB_API void *tslb_da_get_newptr(dynarr_t *handle_dynarr, uint32_t *new_idx);
TSLB_API void *tslb_da_get_newptr_ex(dynarr_t *handle_dynarr, uint32_t *new_idx, uint8_t lock_off);

/* Takes `num_entries` slots of an array with lists under one hold of the lock.
 *
 * Result   the index of the first slot. The other indices follow it only if all slots were new ids. TSLB_DA_NIL_IDX for
 *          0 entries, or if one slot could not be taken: the slots taken before it stay taken, and their indices are
 *          lost. */
TSLB_API uint32_t tslb_da_get_range(dynarr_t *handle_dynarr, uint32_t num_entries);

/* Issues an id and uses no list, lock or node. For plain arrays. 0xFFFFFFFF if the array is full. */
TSLB_API unsigned int tslb_da_get_newidx(dynarr_t *handle_dynarr);

/* ---- Reuse of inactive slots ---------------------------------------------------------------------------------------
 *
 * Stores a copy of the policy that decides when an allocation may take the oldest inactive slot. The values are not
 * checked: a set of zeroes always passes, and then only the age decides. A null policy is ignored; an array without an
 * inactive list refuses it with a line on stderr.
 *
 * Threads  takes no lock: register the policy before the first allocation. */
TSLB_API void tslb_da_register_reuse_policy(dynarr_t *handle_dynarr, tsdb_mem_pressure_config_t *mvt_reuse_policy);

/* Returns 1 if `node_ts` is at least `days_since_node_for_reuse` SECONDS in the past on the library's clock, else 0.
 * The difference is computed in single precision: above 2^24 seconds its lowest bits are lost. Above 32 bits it
 * saturates. */
TSLB_API int tslb_validate_days_since_node_inact(time_t node_ts, int days_since_node_for_reuse);

/* Allocation that also returns the slot's previous state. Always takes the lock itself. Reuses an inactive slot only if
 * lib_config.tslb_mvt_reuse_enabled is also set. It writes only the redo record of a neighbour: the host logs header
 * and slot after filling them.
 *
 * new_idx           receives the index; 0xFFFFFFFF if there is none.
 * slot_last_ts      receives the current time. For a reused inactive slot it is the time of its inactivation. If the
 *                   oldest inactive slot was too young and a new id was taken, it is that slot's time of inactivation.
 * slot_last_status  receives TSLB_DA_SLOT_FREE or _INACTIVE for a used slot, 0 for a new one.
 * last_slot_val     receives the old payload of a used slot, record_size bytes; may be NULL.
 * Result            as tslb_da_get_newptr_ex. */
TSLB_API void *tslb_da_get_newptr_inll(dynarr_t *handle_dynarr, uint32_t *new_idx, uint32_t *slot_last_ts,
                                       uint8_t *slot_last_status);
TSLB_API void *tslb_da_get_newptr_inll_ex(dynarr_t *handle_dynarr, uint32_t *new_idx, uint32_t *slot_last_ts,
                                          uint8_t *slot_last_status, void *last_slot_val);

/* ---- Lifecycle -----------------------------------------------------------------------------------------------------
 * Each takes the lock for its list operations. Results: 0: done. 1: refused, nothing changed. -1: `idx` has no slot (no
 * message). Constant time: no list is walked. */

/* Moves an active or inactive slot to the tail of the free list. Its payload is not changed, except for the gatekeeper
 * word. Result 1 without a message if it is already free; 1 with a line on stdout on a plain array. A slot of any other
 * status is put on no list, and the result is 0. */
TSLB_API int tslb_da_free_idx(dynarr_t *handle_dynarr, uint32_t idx);

/* Moves an active slot to the tail of the inactive list, with its record intact. Its time is the low 32 bits of `ts`,
 * in seconds of tslb_get_time (tslb_util.h). A refusal writes a line (stdout: no inactive list; stderr: not active). */
TSLB_API int tslb_da_inactivate_idx(dynarr_t *handle_dynarr, uint32_t idx, time_t ts);

/* Takes an inactive slot off its list and makes it active. Record and time stay. Refusals as for
 * tslb_da_inactivate_idx. */
TSLB_API int tslb_da_activate_idx(dynarr_t *handle_dynarr, uint32_t idx);

/* A host can mark a slot as not ready (TSLB_DA_SLOT_NOT_READY in its node). tslb_da_make_ready makes such a slot active
 * and does not change a slot of another status. tslb_da_is_ready returns 0 for this mark and 1 otherwise; it does not
 * use the handle. Both need a slot with nodes. */
TSLB_API void tslb_da_make_ready(dynarr_t *handle_dynarr, void *slot_ptr);
TSLB_API int tslb_da_is_ready(dynarr_t *handle_dynarr, void *slot_ptr);

/* Returns the pointer of the slot that has been inactive longest, and its index in `*head_idx`. NULL and
 * TSLB_DA_NIL_IDX if there is none; NULL after a line on stdout for a null handle. For arrays with an inactive list.
 * Takes no lock: the result is out of date once another thread changes the list. */
TSLB_API void *tslb_da_get_inactive_head_ptr(dynarr_t *handle_dynarr, uint32_t *head_idx);

/* Returns the status of a slot (TSLB_DA_SLOT_*), for example to find the records of a loaded array. The array has lists, and
 * idx is below tslb_da_get_size. Any thread; out of date at once while others change the slot. The load acquires: what a thread
 * wrote before it gave the slot this status can be read. Not exported. */
static inline uint32_t tslb_da_slot_status(dynarr_t *handle_dynarr, uint32_t idx) {
  const char *const record = (const char *)tslb_da_get_ptr(handle_dynarr, idx);
  return record != NULL ? __atomic_load_n((const uint32_t *)(record - sizeof(node_fw)), __ATOMIC_ACQUIRE)
                        : (uint32_t)TSLB_DA_SLOT_FREE;
}

/* ---- Redo logging -------------------------------------------------------------------------------------------------
 *
 * These functions write records through tslb_redo_log_ex. They write nothing if g_redo_handle is null, if the array is
 * not of MPOOL_TYPE_DRAM, or if `sidx` has no slot. They take no lock: no other thread changes the slot during the
 * call.
 *
 * sidx          slot index; not used by tslb_redo_log_da_hdr.
 * txn_id        passed to the hook.
 * rec_type      passed to the hook; 0 becomes 2, except for a header.
 * rec_hdr_only  non-zero: at most the first 8 bytes of the slot (its node_fw).
 * field_offset, field_size
 *               a range of the payload in bytes. It is used if the offset is at least 0 and the size at least 1;
 *               rec_hdr_only is then ignored, and the range is not compared with record_size. Otherwise the whole slot
 *               is logged. */
TSLB_API void tslb_redo_log_da(dynarr_t *h_dynarr, unsigned int sidx, uint64_t txn_id, char rec_type);
TSLB_API void tslb_redo_log_da_ex(dynarr_t *h_dynarr, unsigned int sidx, uint64_t txn_id, char rec_type,
                                  char rec_hdr_only);
TSLB_API void tslb_redo_log_da_field(dynarr_t *h_dynarr, unsigned int sidx, uint64_t txn_id, char rec_type,
                                     int field_offset, int field_size);
TSLB_API void tslb_redo_log_da_internal(dynarr_t *h_dynarr, unsigned int sidx, uint64_t txn_id, char rec_type,
                                        char rec_hdr_only, int field_offset, int field_size);
TSLB_API void tslb_redo_log_da_hdr(dynarr_t *h_dynarr, unsigned int sidx, uint64_t txn_id, char rec_type);

/* ---- Whole arrays --------------------------------------------------------------------------------------------------
 * Walks over all blocks in id order, of any array or pool. They take no lock and change nothing. Concurrent changes are
 * visible, so a host that needs a consistent state stops its writers. Slots issued after the start are not visited. */

/* Called for each block; a result other than 0 ends the walk.
 *
 * array         the array.
 * block         block 0: its headers; else the data block.
 * n_block_elem  slots in use in this block.
 * bytes         size of these slots and of the headers.
 * hdr_size      bytes of headers at the block's start; 0 for a data block.
 * level         0 for block 0, 1 to 6 for a data block.
 * record_size   bytes of a record, without nodes.
 * reserved      0.
 * user_data     as given to the walk. */
typedef int (*tslb_dyn_arr_block_iterator_t)(DynamicArray_t array, void *block, int n_block_elem, size_t bytes,
                                             int hdr_size, int level, int record_size, int reserved, void *user_data);

TSLB_API void tslb_iterate_dyn_array_blocks(DynamicArray_t dyn_handle, tslb_dyn_arr_block_iterator_t iterator_fn,
                                            void *user_data);

/* Writes the snapshot stream: the flat image of the array up to its last slot, without any framing. Slot i is at
 * tslb_dynmem_get_hdrsz + i * slot size. Tables are not written.
 *
 * The last slot is cut after the bytes below the pool's cursor if the array's table id is BBP_TBLID or BVP_TBLID, its
 * current slot is its last one, tslb_test_mode is not 0xFF and has bit 0 clear, and
 * lib_config.tslb_enable_file_trimming_flag has bit 0 set. The stream does not show the cut.
 *
 * fd      written to at its position; not synced, not closed.
 * flag    not used.
 * total_write_sz
 *         the bytes of the blocks are added to it, also for a failed block. A cut slot counts in full.
 * Result  0, or -1 after a failed write (a line on stderr; the stream ends there) or if slots are missing because
 *         memory was refused earlier. */
TSLB_API int tslb_create_dump_for_dynarr(DynamicArray_t dyn_handle, int fd, uint8_t flag, size_t *total_write_sz);

/* Writes one block of a snapshot: `hdr_size` bytes of headers and `num_elements` slots of `record_sz` bytes, from
 * blk_ptr. Repeats a write that a signal interrupted and continues a short write.
 *
 * dyn_handle_hdr  the array's header, for its n_used and for the report; depth and ctx_name are for the report.
 * num_elem_dumped running count of slots; increased if everything was written.
 * last_slot_byte_off
 *                 0, or the number of bytes to write of the last of these slots.
 * Result          -1 after a failed write (a line on stderr), 1 if the count has reached n_used, else 0. */
TSLB_API int tslb_dump_data_into_dds_file(const char *ctx_name, void *blk_ptr, int num_elements,
                                          DynArrHdr_t *dyn_handle_hdr, int depth, int hdr_size, unsigned int record_sz,
                                          int fd, int *num_elem_dumped, uint32_t last_slot_byte_off);

TSLB_END_DECLS

#endif
