/* Slot arrays: record arrays whose slots carry list nodes, so that a slot can be given back and taken again.
 *
 * A slot pointer (`slot_ptr`) is the address of the payload, the caller's record, not of the slot's start: node_fw
 * lies 8 bytes ahead of it, node_bw record_size bytes behind it. The first 32 bits of the payload are the gatekeeper
 * word: taking and freeing a slot store 0xFFFFFFFF there, and nothing here tests it. So a record has 4 bytes or more.
 *
 * Lists. Slots that were freed wait on the free list, first in first out. With TSLB_DA_DAFLAG_INLL a slot can also be
 * parked on the inactive list with its record intact. Both are threaded through the slots by index; their roots are
 * DynArrLLI_t in block 0. The handle's spin lock guards roots, counters and nodes.
 *
 * Slots lie a slot size apart and block 0's begin where its headers end, so a record is aligned to no more than its
 * place allows. A record type with wider fields is declared TSLB_UNALIGNED or copied.
 *
 * An index belongs to one caller at a time. Handles must be valid where a null handle is not mentioned. */
#ifndef TSLB_DYNARR_H
#define TSLB_DYNARR_H

#include <time.h>

#include "dynamic_array.h"

TSLB_BEGIN_DECLS

typedef DynArrHandle_t dynarr_t; /* a dynarr_t * is a DynamicArray_t; treat it as opaque */

/* List node ahead of a slot's record. In files, snapshots and redo records as it lies here. Records can have any
 * size, so it stands at any address. */
typedef struct TSLB_UNALIGNED DynArrSlotLLIFW_t {
  uint32_t status; /* TSLB_DA_SLOT_* */
  uint32_t next;   /* next slot on its list; TSLB_DA_NIL_IDX at the end or on no list */
} node_fw;
TSLB_STORED_SIZE(node_fw, 8);
TSLB_STORED_AT(node_fw, status, 0);
TSLB_STORED_AT(node_fw, next, 4);

/* List node behind a slot's record, with TSLB_DA_DAFLAG_INLL. */
typedef struct TSLB_UNALIGNED DynArrSlotLLIBW_t {
  uint32_t prev; /* previous slot on the inactive list; TSLB_DA_NIL_IDX at its head or off that list */
  uint32_t ts;   /* seconds of the library's clock: when it was taken, then when it was inactivated */
} node_bw;
TSLB_STORED_SIZE(node_bw, 8);
TSLB_STORED_AT(node_bw, prev, 0);
TSLB_STORED_AT(node_bw, ts, 4);

/* ---- Creation -----------------------------------------------------------------------------------------------------
 *
 * slot_sz      bytes of a record; the nodes come on top.
 * n_slots      slots in block 0.
 * pool_type    MPOOL_TYPE_*.
 * ctx_name     name of the context or NULL; without a name, allocation is not redo logged.
 * tbl_id       table id.
 * daflag       TSLB_DA_DAFLAG_* and no other bits; tslb_da_init_v5 makes a plain array (0).
 * rec_version  version of the caller's records; 0 in the first two.
 * Result       the handle, or NULL after a line on stderr (get_default_dyn_array_ex_ex). */
TSLB_API dynarr_t *tslb_da_init_v5(int slot_sz, int n_slots, char pool_type, const char *ctx_name, int tbl_id);
TSLB_API dynarr_t *tslb_da_init_ll(int slot_sz, int n_slots, char pool_type, const char *ctx_name, int tbl_id,
                                   uint8_t daflag);
TSLB_API dynarr_t *tslb_da_init_ver(int slot_sz, int n_slots, char pool_type, const char *ctx_name, int tbl_id,
                                    uint8_t daflag, uint8_t rec_version);

/* ---- Accessors ----------------------------------------------------------------------------------------------------
 * None takes the lock: while others allocate, a value was true a moment ago. */

/* n_alloc, n_used and record_size; 0 for a null handle. */
TSLB_API unsigned int tslb_da_get_total_size(dynarr_t *h_dynarr);
TSLB_API unsigned int tslb_da_get_size(dynarr_t *h_dynarr);
TSLB_API unsigned int tslb_da_get_record_size(dynarr_t *h_dynarr);

/* Slot size in bytes, nodes included; 0xFFFFFFFF for a null handle. Stores 8, the distance from the slot's start to
 * its payload, in `*shift` if that is not null and the slots have nodes; else leaves it, so the caller starts it at
 * 0. */
TSLB_API uint32_t tslb_da_get_slotsz(dynarr_t *h_dynarr, int *shift);

/* Parts of block 0: DynHdr_t, user header, DynArrLLI_t, DynArrHdr_t. Plain sums: on an array without a user header or
 * without nodes, the second and third give the address of what follows. */
TSLB_API void *tslb_da_get_dynhdr(void *handle_dynarr);
TSLB_API void *tslb_da_get_usrhdr(void *handle_dynarr);
TSLB_API void *tslb_da_get_lli(void *handle_dynarr);
TSLB_API void *tslb_da_get_dynarrhdr(void *handle_dynarr);

/* Slot pointer of `idx`. NULL for a null handle, for an index not handed out (TSLB_DA_NIL_IDX among them), or if a
 * block that is missing cannot be had. */
TSLB_API void *tslb_da_get_ptr(dynarr_t *handle_dynarr, unsigned int idx);

/* One line about the array, without a line end, in a buffer of the calling thread that its next call overwrites. NULL
 * for a null handle. */
TSLB_API char *tslb_da_get_hdr_str(DynamicArray_t dyn_handle);

/* ---- Spin lock ----------------------------------------------------------------------------------------------------
 * For DynArrHandle_t.spinlock. A busy wait without bound, not re-entrant, known to this process alone. Releasing a
 * lock that is not held does nothing. */
TSLB_API void tslb_da_spin_lock16(uint16_t *spinlock);
TSLB_API void tslb_da_spin_unlock16(uint16_t *spinlock);

/* ---- Allocation ---------------------------------------------------------------------------------------------------
 *
 * A slot comes from the head of the free list, else from the head of the inactive list where the reuse policy allows
 * it, else it is a fresh id. It comes out active, on no list, with the gatekeeper word set; the rest of the payload
 * is zero if the slot was used before, and what the block holds (zero in process memory) if it is fresh. On a plain
 * array (daflag 0) it is always a fresh id, without nodes and without a lock.
 *
 * new_idx   receives the index; 0xFFFFFFFF if there is none.
 * lock_off  0: the caller holds the handle's spin lock already. Any other value: the call takes it.
 * Result    the slot pointer. NULL if the array is full or memory was refused (a line on stderr); an id that failed so
 *           stays issued. tslb_da_get_newptr is the locking form, and gives NULL for a null handle with `*new_idx`
 *           untouched.
 * Threads   any number. */
TSLB_API void *tslb_da_get_newptr(dynarr_t *handle_dynarr, uint32_t *new_idx);
TSLB_API void *tslb_da_get_newptr_ex(dynarr_t *handle_dynarr, uint32_t *new_idx, uint8_t lock_off);

/* Takes `num_entries` slots of a list array under one hold of the lock.
 *
 * Result   the index of the first. The others follow it only if all were fresh ids. TSLB_DA_NIL_IDX for 0 entries, or
 *          if one could not be had: those taken before it stay taken, and their indices are lost. */
TSLB_API uint32_t tslb_da_get_range(dynarr_t *handle_dynarr, uint32_t num_entries);

/* Issues an id and nothing else: no list, no lock, no node. For plain arrays. 0xFFFFFFFF if the array is full. */
TSLB_API unsigned int tslb_da_get_newidx(dynarr_t *handle_dynarr);

/* ---- Reuse of inactive slots ---------------------------------------------------------------------------------------
 *
 * Stores a copy of the policy that says when an allocation may take the oldest inactive slot. Nothing is validated: a
 * set of zeroes passes always, and then the age alone decides. A null policy is ignored; an array without an inactive
 * list refuses it with a line on stderr.
 *
 * Threads  without the lock: register it before the array is allocated from. */
TSLB_API void tslb_da_register_reuse_policy(dynarr_t *handle_dynarr, tsdb_mem_pressure_config_t *mvt_reuse_policy);

/* 1 if `node_ts` lies at least `days_since_node_for_reuse` SECONDS back on the library's clock, else 0. The difference
 * is taken in single precision: beyond 2^24 seconds its lowest bits are gone. Beyond 32 bits it saturates. */
TSLB_API int tslb_validate_days_since_node_inact(time_t node_ts, int days_since_node_for_reuse);

/* Allocation that tells what the slot was. Always takes the lock itself, and reuses an inactive slot only if
 * lib_config.tslb_mvt_reuse_enabled is set too. Of the redo records it writes the one of a neighbour alone: the host
 * logs header and slot when it has filled them.
 *
 * new_idx           receives the index; 0xFFFFFFFF if there is none.
 * slot_last_ts      receives the time now; of a reused inactive slot the time of its inactivation, and so too if the
 *                   oldest inactive slot was too young and a fresh id was taken.
 * slot_last_status  receives TSLB_DA_SLOT_FREE or _INACTIVE for a used slot, 0 for a fresh one.
 * last_slot_val     receives the old payload of a used slot, record_size bytes; may be NULL.
 * Result            as tslb_da_get_newptr_ex. */
TSLB_API void *tslb_da_get_newptr_inll(dynarr_t *handle_dynarr, uint32_t *new_idx, uint32_t *slot_last_ts,
                                       uint8_t *slot_last_status);
TSLB_API void *tslb_da_get_newptr_inll_ex(dynarr_t *handle_dynarr, uint32_t *new_idx, uint32_t *slot_last_ts,
                                          uint8_t *slot_last_status, void *last_slot_val);

/* ---- Lifecycle -----------------------------------------------------------------------------------------------------
 * Each takes the lock for its list work. 0: done. 1: refused, nothing changed. -1: `idx` has no slot (silent).
 * Constant time: no list is walked. */

/* Puts an active or inactive slot at the tail of the free list. Its payload stays but for the gatekeeper word. 1, in
 * silence, if it is free already; 1 with a line on stdout on a plain array. A slot of any other status goes on no list,
 * and the result is 0. */
TSLB_API int tslb_da_free_idx(dynarr_t *handle_dynarr, uint32_t idx);

/* Parks an active slot at the tail of the inactive list, record intact, stamped with the low 32 bits of `ts`: seconds
 * of tslb_get_time. Refusals write a line (stdout: no inactive list; stderr: not active). */
TSLB_API int tslb_da_inactivate_idx(dynarr_t *handle_dynarr, uint32_t idx, time_t ts);

/* Takes an inactive slot off its list; record and time stay. Refusals as above. */
TSLB_API int tslb_da_activate_idx(dynarr_t *handle_dynarr, uint32_t idx);

/* A host that marks a slot not ready (TSLB_DA_SLOT_NOT_READY in its node) has it made active here; any other status is
 * left alone. tslb_da_is_ready answers 0 for that mark and 1 for all else; it does not use the handle. Both need a slot
 * with nodes. */
TSLB_API void tslb_da_make_ready(dynarr_t *handle_dynarr, void *slot_ptr);
TSLB_API int tslb_da_is_ready(dynarr_t *handle_dynarr, void *slot_ptr);

/* A look at the slot that has been inactive for longest: its pointer, and its index in `*head_idx`. NULL and
 * TSLB_DA_NIL_IDX if there is none; NULL after a line on stdout for a null handle. For arrays with an inactive list.
 * Without the lock: out of date when others change the list. */
TSLB_API void *tslb_da_get_inactive_head_ptr(dynarr_t *handle_dynarr, uint32_t *head_idx);

/* ---- Redo logging -------------------------------------------------------------------------------------------------
 *
 * These write records through tslb_redo_log_ex, and nothing if g_redo_handle is null, if the array is not of
 * MPOOL_TYPE_DRAM, or if `sidx` has no slot. They take no lock: whoever logs a slot keeps it quiet meanwhile.
 *
 * sidx          slot index; not used by tslb_redo_log_da_hdr.
 * txn_id        passed on.
 * rec_type      passed on; 0 becomes 2, but not for a header.
 * rec_hdr_only  non-zero: at most the first 8 bytes of the slot (its node_fw).
 * field_offset, field_size
 *               a range of the payload in bytes. Taken if the offset is 0 or more and the size 1 or more, ahead of
 *               rec_hdr_only and not compared with record_size; else the whole slot is logged. */
TSLB_API void tslb_redo_log_da(dynarr_t *h_dynarr, unsigned int sidx, uint64_t txn_id, char rec_type);
TSLB_API void tslb_redo_log_da_ex(dynarr_t *h_dynarr, unsigned int sidx, uint64_t txn_id, char rec_type,
                                  char rec_hdr_only);
TSLB_API void tslb_redo_log_da_field(dynarr_t *h_dynarr, unsigned int sidx, uint64_t txn_id, char rec_type,
                                     int field_offset, int field_size);
TSLB_API void tslb_redo_log_da_internal(dynarr_t *h_dynarr, unsigned int sidx, uint64_t txn_id, char rec_type,
                                        char rec_hdr_only, int field_offset, int field_size);
TSLB_API void tslb_redo_log_da_hdr(dynarr_t *h_dynarr, unsigned int sidx, uint64_t txn_id, char rec_type);

/* ---- Whole arrays --------------------------------------------------------------------------------------------------
 * Walks over all blocks in id order, on any array or pool. They take no lock and change nothing; what others change
 * meanwhile is met as it stands, so a host that wants one moment's picture keeps writers out. Slots issued after the
 * start are not reached. */

/* Called for each block; a result other than 0 ends the walk.
 *
 * array         the array being walked.
 * block         block 0: its headers; else the data block.
 * n_block_elem  slots in use here.
 * bytes         what they take, with the headers.
 * hdr_size      bytes of headers at the block's start; 0 for a data block.
 * level         0 for block 0, 1 to 6 for a data block.
 * record_size   bytes of a record, without nodes.
 * reserved      0.
 * user_data     as given to the walk. */
typedef int (*tslb_dyn_arr_block_iterator_t)(DynamicArray_t array, void *block, int n_block_elem, size_t bytes,
                                             int hdr_size, int level, int record_size, int reserved, void *user_data);

TSLB_API void tslb_iterate_dyn_array_blocks(DynamicArray_t dyn_handle, tslb_dyn_arr_block_iterator_t iterator_fn,
                                            void *user_data);

/* Writes the snapshot stream: the flat image of the array up to its last slot, without any framing. Slot i stands at
 * tslb_dynmem_get_hdrsz + i * slot size. Tables are not in it.
 *
 * The last slot is cut behind the bytes that the pool's cursor has reached if the array's table id is BBP_TBLID or
 * BVP_TBLID, its current slot is its last one, tslb_test_mode is not 0xFF and has bit 0 clear, and
 * lib_config.tslb_enable_file_trimming_flag has bit 0 set. Nothing in the stream says so.
 *
 * fd      written to at its position; not synced, not closed.
 * flag    not used.
 * total_write_sz
 *         the blocks' bytes are added to it, a cut slot in full, a failed block too.
 * Result  0, or -1 after a failed write (a line on stderr; the stream is broken where it failed) or if slots are
 *         missing because the memory of some was once refused. */
TSLB_API int tslb_create_dump_for_dynarr(DynamicArray_t dyn_handle, int fd, uint8_t flag, size_t *total_write_sz);

/* One write of a snapshot: `num_elements` slots of `record_sz` bytes behind `hdr_size` bytes of headers, from blk_ptr
 * on. Repeats what a signal interrupted and continues what was written short.
 *
 * dyn_handle_hdr  the array's header, for its n_used and for the report; depth and ctx_name are for the report.
 * num_elem_dumped running count of slots; raised if all was written.
 * last_slot_byte_off
 *                 0, or the length of the last of these slots.
 * Result          -1 after a failed write (a line on stderr), 1 if the count has reached n_used, else 0. */
TSLB_API int tslb_dump_data_into_dds_file(const char *ctx_name, void *blk_ptr, int num_elements,
                                          DynArrHdr_t *dyn_handle_hdr, int depth, int hdr_size, unsigned int record_sz,
                                          int fd, int *num_elem_dumped, uint32_t last_slot_byte_off);

TSLB_END_DECLS

#endif
