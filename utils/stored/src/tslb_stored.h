/* Facts about stored bytes: constants of the formats, offsets and sizes. Everything that reads or writes stored arrays
 * uses this header: the library, recovery, tools, hosts. For C11, and for C++17 and later. It calls no function of the
 * library.
 *
 * The structures are declared in the headers of their modules (dynamic_array.h, tslb_dynarr.h, tslb_dynmem.h), which
 * assert that their sizes are these. */
#ifndef TSLB_STORED_H
#define TSLB_STORED_H

#include <stdio.h>

#include "tslb_decl.h"

#ifdef __cplusplus
#define TSLB_STORED_INLINE constexpr
#else
#define TSLB_STORED_INLINE static inline
#endif

/* ---- Headers of block 0 ------------------------------------------------------------------------------------------
 *   0                       DynHdr_t
 *   8                       user header, hdr_size bytes
 *   8 + hdr_size            DynArrLLI_t, lli_sz bytes: 60 if slots have nodes, else 0
 *   8 + hdr_size + lli_sz   DynArrHdr_t
 *   24 + hdr_size + lli_sz  slot 0 */

#define TSLB_LIB_VERSION 2u /* DynHdr_t.lib_version of arrays that this library creates */

#define TSLB_DYN_HDR_BYTES 8u
#define TSLB_LLI_BYTES 60u
#define TSLB_ARR_HDR_BYTES 16u

/* Offset of the user header, of DynArrLLI_t, of DynArrHdr_t, and of slot 0. */
#define TSLB_USER_HDR_AT TSLB_DYN_HDR_BYTES
TSLB_STORED_INLINE size_t tslb_stored_lli_at(uint16_t hdr_size) {
  return (size_t)hdr_size + TSLB_USER_HDR_AT;
}
TSLB_STORED_INLINE size_t tslb_stored_arr_hdr_at(uint16_t hdr_size, uint16_t lli_sz) {
  return (size_t)hdr_size + lli_sz + TSLB_USER_HDR_AT;
}
/* A 32-bit sum; see docs/performance.md, "Chunk". */
TSLB_STORED_INLINE size_t tslb_stored_header_bytes(uint16_t hdr_size, uint16_t lli_sz) {
  return TSLB_DYN_HDR_BYTES + hdr_size + lli_sz + TSLB_ARR_HDR_BYTES;
}

/* ---- Slots --------------------------------------------------------------------------------------------------------
 *   no flag                 record
 *   TSLB_DA_DAFLAG_LL       node_fw (8), record
 *   TSLB_DA_DAFLAG_INLL     node_fw (8), record, node_bw (8) */

#define TSLB_DA_DAFLAG_LL 0x01   /* slots can be freed and taken again */
#define TSLB_DA_DAFLAG_INLL 0x02 /* and put on an inactive list; decides the slot's layout if both are set */

#define TSLB_NODE_BYTES 8u               /* of node_fw and of node_bw */
#define TSLB_DA_NIL_IDX 0xFFFFFFFFu      /* end of a list, no slot */
#define TSLB_GATEKEEPER_WORD 0xFFFFFFFFu /* first word of a record that was just taken or freed */

/* Slot status: one value, not a bit mask. Compared for equality only. */
#define TSLB_DA_SLOT_UNSET 0u              /* id issued, slot never allocated; on no list */
#define TSLB_DA_SLOT_FREE 1u               /* on the free list */
#define TSLB_DA_SLOT_ACTIVE 2u             /* owned by a caller; on no list */
#define TSLB_DA_SLOT_INACTIVE 3u           /* on the inactive list, record intact */
#define TSLB_DA_SLOT_NOT_READY 0xFFFFFFFFu /* only a host writes this one */

/* Offset of the record in its slot, and bytes of nodes in a slot. */
TSLB_STORED_INLINE uint32_t tslb_stored_shift(uint8_t daflag) {
  return (daflag & (TSLB_DA_DAFLAG_INLL | TSLB_DA_DAFLAG_LL)) != 0 ? TSLB_NODE_BYTES : 0;
}
TSLB_STORED_INLINE uint32_t tslb_stored_node_bytes(uint8_t daflag) {
  return tslb_stored_shift(daflag) + ((daflag & TSLB_DA_DAFLAG_INLL) != 0 ? TSLB_NODE_BYTES : 0);
}
TSLB_STORED_INLINE uint64_t tslb_stored_slot_bytes(uint32_t record_size, uint8_t daflag) {
  return (uint64_t)record_size + tslb_stored_node_bytes(daflag);
}

/* Offset of slot `idx` in the flat image. */
TSLB_STORED_INLINE uint64_t tslb_stored_slot_at(uint32_t header_bytes, uint64_t slot_bytes, uint32_t idx) {
  return header_bytes + slot_bytes * idx;
}

/* ---- Blocks and levels --------------------------------------------------------------------------------------------
 * Block 0 has the first n_direct slots. All later slots lie in data blocks of 16 slots, numbered from 1 in id order.
 * `beyond` is an id less n_direct.
 *
 * In memory the data blocks are reached through six levels of tables with 16 entries. Level L holds 16^(L+1) ids. The
 * index of an id in its level, written in base 16, is its path: the lowest digit is the slot in the block, each other
 * digit is an entry of one table. */

#define TSLB_SLOTS_PER_BLOCK 16u
#define TSLB_ENTRIES_PER_TABLE 16u
#define TSLB_LEVELS 6u
#define TSLB_IDS_BEYOND_DIRECT 286331136u /* 16^2 + 16^3 + ... + 16^7: the capacity of the six levels */

TSLB_STORED_INLINE uint32_t tslb_stored_block_num(uint32_t beyond) {
  return beyond / TSLB_SLOTS_PER_BLOCK + 1;
}

/* Returns the number of data blocks that n_slots need. */
TSLB_STORED_INLINE uint32_t tslb_stored_n_blocks(uint32_t n_slots, uint32_t n_direct) {
  return n_slots <= n_direct ? 0 : (n_slots - n_direct - 1) / TSLB_SLOTS_PER_BLOCK + 1;
}

/* Returns the first `beyond` of a level: 0, 0x100, 0x1100 ... For level 7 it is the first id that no level holds. */
TSLB_STORED_INLINE uint32_t tslb_stored_first_of_level(unsigned level) {
  return (uint32_t)(0x11111100u & (((uint64_t)1 << (4 * (level + 1))) - 1));
}

/* Returns the level that holds `beyond`, 1 to 6; 7 if none does. */
TSLB_STORED_INLINE unsigned tslb_stored_level_of(uint32_t beyond) {
  unsigned level = 1;
  while (level <= TSLB_LEVELS && beyond >= tslb_stored_first_of_level(level + 1)) ++level;
  return level;
}

/* ---- Block files --------------------------------------------------------------------------------------------------- */

#define TSLB_BLOCK_FILE_SUFFIX ".darr"
#define TSLB_BLOCK_FILE_FORMAT "%d.%d" TSLB_BLOCK_FILE_SUFFIX /* table id, block number; 0 is block 0 */

/* Writes the name of a block file, as snprintf does. */
static inline int tslb_stored_block_file_name(char *text, size_t size, int32_t tbl_id, int32_t block_num) {
  return snprintf(text, size, TSLB_BLOCK_FILE_FORMAT, (int)tbl_id, (int)block_num);
}

/* ---- Chunk pools --------------------------------------------------------------------------------------------------- */

#define TSLB_POOL_HDR_BYTES 56u     /* DynMemHdr_t */
#define TSLB_POOL_MSLOT_SZ_AT 4u    /* offset of DynMemHdr_t.mslot_sz in it */
#define TSLB_POOL_CURSOR_AT 8u      /* offset of DynMemHdr_t.cur_slot_addr in it */
#define TSLB_MEM_SLOT_HDR_BYTES 8u  /* MemSlot_t, before its chunks */
#define TSLB_COMPAT_BYTES 16u       /* compat_t and compat64_t, before a chunk's data */
#define TSLB_COMPAT_LEN_MAX 65535u  /* maximum data length that a compaction header can keep */
#define TSLB_RING_SLOTS 254u        /* of a bit-vector pool of MPOOL_TYPE_DRAM_TMP */
#define TSLB_BIGBUF_LAST_SLOT 255u  /* the highest slot that 8 bits of an address can name */
#define TSLB_BITVEC_LAST_SLOT 2040u /* 11 bits could name slots up to 2047 */

#define MPOOL_SLOT_TYPE_DA 4     /* slot_type: a slot array, not a pool */
#define MPOOL_FLAG_COMPAT 0x01   /* every chunk begins with a compaction header */
#define MPOOL_FLAG_PERSIST 0x02  /* growth is written to the redo log */
#define MPOOL_FLAG_BV 0x10       /* bit-vector pool: addresses read as maddrBV_t */
#define MCHUNK_FLAG_DELETED 0x01 /* in a compaction header: the chunk was deleted */

/* The cursor, DynMemHdr_t.cur_slot_addr: slot index in the low half, first free byte of the slot's chunks in the high
 * half. The slot index is TSLB_DA_NIL_IDX before the first chunk. */
TSLB_STORED_INLINE uint64_t tslb_stored_cursor(uint32_t slot_idx, uint32_t byte_off) {
  return slot_idx | ((uint64_t)byte_off << 32);
}
TSLB_STORED_INLINE uint32_t tslb_stored_cursor_slot(uint64_t cursor) {
  return (uint32_t)cursor;
}
TSLB_STORED_INLINE uint32_t tslb_stored_cursor_off(uint64_t cursor) {
  return (uint32_t)(cursor >> 32);
}

/* A chunk's place, for every kind of address. */
typedef struct tslb_chunk_place_t {
  uint32_t slot_idx;
  uint32_t byte_off; /* from the start of the slot's chunks */
} tslb_chunk_place_t;

/* 32-bit addresses as whole words. Big-buffer pool: slot in bits 0 to 7, byte offset in bits 8 to 31. Bit-vector pool:
 * slot in bits 0 to 10, offset in units of 8 bytes in bits 11 to 31. Values that do not fit are cut. */
#define TSLB_BV_UNIT_BYTES 8u
#define TSLB_BV_SLOT_BITS 11u

TSLB_STORED_INLINE uint32_t tslb_stored_encode_bigbuffer(tslb_chunk_place_t place) {
  return (place.slot_idx & 0xFFu) | place.byte_off << 8;
}
TSLB_STORED_INLINE uint32_t tslb_stored_encode_bitvector(tslb_chunk_place_t place) {
  return (place.slot_idx & ((1u << TSLB_BV_SLOT_BITS) - 1)) | place.byte_off / TSLB_BV_UNIT_BYTES << TSLB_BV_SLOT_BITS;
}
TSLB_STORED_INLINE tslb_chunk_place_t tslb_stored_decode_bigbuffer(uint32_t word) {
  const tslb_chunk_place_t place = {word & 0xFFu, word >> 8};
  return place;
}
TSLB_STORED_INLINE tslb_chunk_place_t tslb_stored_decode_bitvector(uint32_t word) {
  const tslb_chunk_place_t place = {word & ((1u << TSLB_BV_SLOT_BITS) - 1),
                                    (word >> TSLB_BV_SLOT_BITS) * TSLB_BV_UNIT_BYTES};
  return place;
}

/* ---- Rules --------------------------------------------------------------------------------------------------------
 * Rules for headers, lists, slots and the counters of pools: each has an identifier and the text of a violation. The
 * loaders, array_check and tslb-inspect share this list and the code that checks it.
 *
 * A violated rule is a fault or a remark. A fault contradicts an assumption of the library or of the format: the
 * loaders and array_check refuse at the first fault. A remark is an unusual state of a usable array: a killed process
 * can leave counters of a pool that lag, and hosts can set their own bits in a pool's flag. The loaders do not check
 * remarks. An identifier begins with the structure or list of its rule. Rules that begin with CHUNK are checked only by
 * pool_check. */

/* X(identifier, FAULT or REMARK, text). In a text {} is replaced by the next value, {x} by the next value in
 * hexadecimal, {list} by the name of a list (TSLB_RULE_FREE_LIST or _INACTIVE_LIST), and {state} by the status of its
 * slots. */
/* clang-format off */
#define TSLB_STORED_RULES(X)                                                                                   \
  X(HDR_LIB_VERSION, FAULT, "lib_version {}, expected {}")                                                     \
  X(HDR_PAD, REMARK, "pad {}, but the field is reserved")                                                      \
  X(HDR_LLI_SIZE, FAULT, "lli_sz {}, expected 0 or {}")                                                        \
  X(LLI_NO_LIST, FAULT, "lltype {x} has no list flag, but lli_sz is not 0")                                    \
  X(LLI_TYPE_BITS, REMARK, "lltype {x} has unknown bits")                                                      \
  X(ARR_N_DIRECT, FAULT, "n_direct {} is more than an array can have")                                         \
  X(ARR_N_USED, FAULT, "n_used {} is more than an array with n_direct {} can have")                            \
  X(ARR_NO_BYTES, FAULT, "record_size 0 with {} slots in use")                                                 \
  X(ARR_RECORD_SIZE, FAULT, "record_size {} is more than an array can have")                                   \
  X(ARR_BLOCK0, FAULT, "n_direct {} with slots of {} bytes exceeds the maximum size of block 0")               \
  X(ARR_DATA_BLOCK, FAULT, "record_size {} makes a block of 16 slots larger than the maximum")                 \
  X(ARR_N_ALLOC, REMARK, "n_alloc {}, but direct area and data blocks have {} slots")                          \
  X(POOL_HDR_SIZE, FAULT, "hdr_size {}, but a pool has {}")                                                    \
  X(POOL_MSLOT_SIZE, FAULT, "mslot_sz {} does not match record_size {}")                                       \
  X(POOL_MSLOT_STEP, FAULT, "mslot_sz {} is not a multiple of {}")                                             \
  X(POOL_RING, FAULT, "n_used {}, but a ring has {} slots")                                                    \
  X(POOL_CURSOR_SLOT, FAULT, "cur_slot_addr names slot {} of {}")                                              \
  X(POOL_CURSOR_BYTE, FAULT, "cur_slot_addr is at byte {} of a slot of {}")                                    \
  X(POOL_FLAG_BITS, REMARK, "flag {x} has unknown bits")                                                       \
  X(POOL_PAD, REMARK, "pad_byte {}, but the field is reserved")                                                \
  X(POOL_TOTAL_SIZE, REMARK, "total_msz {} is less than the {} bytes of headers")                              \
  X(POOL_TOTAL_USED, REMARK, "total_mused {}, but the slots have {}")                                          \
  X(POOL_TOTAL_DELETED, REMARK, "total_mdel {}, but the library never sets it")                                \
  X(SLOT_STATUS, FAULT, "status {} of slot {} does not exist")                                                 \
  X(SLOT_NOT_INACTIVE, FAULT, "status {} of slot {}, but there is no inactive list")                           \
  X(SLOT_NEXT, FAULT, "active slot {} has a link to {}")                                                       \
  X(SLOT_PREV, FAULT, "active slot {} has a back link to {}")                                                  \
  X(LIST_NONE, FAULT, "roots of an inactive list, but lltype {x} has none")                                    \
  X(LIST_LINK, FAULT, "the {list} names slot {} of {}")                                                        \
  X(LIST_ABSENT, FAULT, "the {list} continues with slot {}, which is missing")                                 \
  X(LIST_RING, FAULT, "the {list} returns to slot {}")                                                         \
  X(LIST_STATUS, FAULT, "status {} on the {list}, slot {}")                                                    \
  X(LIST_PREV, FAULT, "prev {} of slot {} on the {list}, expected {}")                                         \
  X(LIST_COUNT_RANGE, FAULT, "the {list} counts {} slots of {}")                                               \
  X(LIST_COUNT, FAULT, "the {list} counts {} slots, but has {}")                                               \
  X(LIST_TAIL, FAULT, "tail {} of the {list}, but its last slot is {}")                                        \
  X(LIST_STRAY, FAULT, "slot {} has the status {state}, but is not on that list")                              \
  X(POOL_SLOT_CURRENT, FAULT, "status {} of the current slot, {}")                                             \
  X(POOL_SLOT_DELETED, FAULT, "bytes_del {} of slot {}, but bytes_used is {}")                                 \
  X(POOL_SLOT_USED, FAULT, "bytes_used {} of slot {}, but the slot has {}")                                    \
  X(POOL_SLOT_CURSOR, FAULT, "bytes_used {} of the current slot, {}, is more than the cursor's {}")            \
  X(POOL_SLOT_LAGS, REMARK, "bytes_used {} of the current slot, {}, is less than the cursor's {}")             \
  X(POOL_SLOT_NEVER_CURRENT, REMARK, "slot {} was taken and never became current")                             \
  X(CHUNK_LENGTH, FAULT, "the chunk at byte {} of slot {} has {} bytes, but the slot's chunks end at byte {}") \
  X(CHUNK_DELETED, FAULT, "bytes_del {} of slot {}, but its deleted chunks have {}")
/* clang-format on */

typedef enum tslb_rule_t {
#define TSLB_RULE_ID(id, severity, text) TSLB_RULE_##id,
  TSLB_STORED_RULES(TSLB_RULE_ID)
#undef TSLB_RULE_ID
      TSLB_N_RULES
} tslb_rule_t;

enum { TSLB_RULE_FREE_LIST = 0, TSLB_RULE_INACTIVE_LIST = 1 }; /* values for {list} and {state} */
enum { TSLB_RULE_MAX_VALUES = 4 };

#endif
