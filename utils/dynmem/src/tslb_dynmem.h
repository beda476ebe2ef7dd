/* Chunk pools: chunks of any length, carved front to back from large memory slots and named by compact addresses.
 *
 * A pool is a record array whose records are memory slots (MemSlot_t) and whose user header is DynMemHdr_t. One slot
 * is current; its bytes are won by a swap of the pool's cursor, without a lock. A chunk never crosses a slot: when
 * the current one cannot hold a request, its tail is given up and the pool moves on.
 *
 * Kinds
 *   big-buffer pool   addresses are maddr_t, slots 0 to 255. A pool that has to go on behind slot 255 stops the process,
 *                     however many other slots are free; max_slots can refuse earlier.
 *   bit-vector pool   slot_type has bit 0x10. Addresses are maddrBV_t, slots 0 to 2040, lengths multiples of 8. Warns
 *                     every 255 slots, and stops the process when it has to go on behind slot 2040, likewise.
 *   temporary one     a bit-vector pool of MPOOL_TYPE_DRAM_TMP: slots 0 to 253, used again as a ring. It keeps every
 *                     slot once 254 exist: chunks are overwritten round after round, and none of their slots is
 *                     released.
 *
 * In a pool with MPOOL_FLAG_COMPAT every chunk begins with a compaction header (compat_t) of 16 bytes, which counts
 * as part of the chunk.
 *
 * Nothing stored in a pool is a pointer, so addresses hold wherever its blocks are mapped. */
#ifndef TSLB_DYNMEM_H
#define TSLB_DYNMEM_H

#include <sys/types.h>

#include "dynamic_array.h"

TSLB_BEGIN_DECLS

typedef DynArrHandle_t dynmem_t; /* a pool's handle is an array's */

/* Header of a pool: the user header of its array. */
typedef struct DynMemHdr_t {
  char flag;     /* MPOOL_FLAG_* */
  char pad_byte; /* 0 */
  __extension__ union {
    short pad_bytes;
    /* A big-buffer pool does not leave its slot once memory exists for this many, be others free or not; 0 for no
     * limit. Memory is the direct area, and 16 slots at a time beyond it: so the limit has to be above num_mslot for a
     * first chunk, and a pool that has come to it takes chunks in its current slot and in no other, for good. In slot
     * 255 it is not asked: the process stops. */
    short max_slots;
  };
  u_int32_t mslot_sz;      /* bytes of a slot that chunks can use */
  u_int64_t cur_slot_addr; /* the cursor, a MemSlotAddr_t in one word */
  /* Bytes of the pool: the direct area at creation, later up to its highest slot. Threads that take slots at the same
   * moment can leave it, and the growth records, at the smaller size. */
  u_int64_t total_msz;
  u_int64_t total_mused;  /* bytes reserved for chunks; only grows */
  u_int64_t total_mwast;  /* 16 for each chunk, 8 for each slot that made the pool grow */
  u_int64_t total_mdel;   /* 0 */
  u_int64_t total_mavail; /* what total_msz leaves beside headers, total_mused and total_mwast, at the last chunk */
} DynMemHdr_t;
TSLB_STORED_SIZE(DynMemHdr_t, 56);
TSLB_STORED_AT(DynMemHdr_t, flag, 0);
TSLB_STORED_AT(DynMemHdr_t, pad_byte, 1);
TSLB_STORED_AT(DynMemHdr_t, pad_bytes, 2);
TSLB_STORED_AT(DynMemHdr_t, max_slots, 2);
TSLB_STORED_AT(DynMemHdr_t, mslot_sz, 4);
TSLB_STORED_AT(DynMemHdr_t, cur_slot_addr, 8);
TSLB_STORED_AT(DynMemHdr_t, total_msz, 16);
TSLB_STORED_AT(DynMemHdr_t, total_mused, 24);
TSLB_STORED_AT(DynMemHdr_t, total_mwast, 32);
TSLB_STORED_AT(DynMemHdr_t, total_mdel, 40);
TSLB_STORED_AT(DynMemHdr_t, total_mavail, 48);

/* The two halves of the cursor. */
typedef struct MemSlotAddr_t {
  u_int32_t mslot_idx; /* low half: the current slot; 0xFFFFFFFF before the first chunk */
  u_int32_t byte_off;  /* high half: its first free byte */
} MemSlotAddr_t;
TSLB_STORED_SIZE(MemSlotAddr_t, 8);
TSLB_STORED_AT(MemSlotAddr_t, mslot_idx, 0);
TSLB_STORED_AT(MemSlotAddr_t, byte_off, 4);

/* A memory slot: the record of a pool. */
typedef struct MemSlot_t {
  uint32_t bytes_used;            /* bytes of chunks reserved here, compaction headers included */
  uint32_t bytes_del;             /* bytes of chunks deleted here, likewise */
  TSLB_FLEXIBLE_TAIL(char, mslot) /* the chunks, back to back: DynMemHdr_t.mslot_sz bytes */
} MemSlot_t;
TSLB_STORED_SIZE(MemSlot_t, 8);
TSLB_STORED_AT(MemSlot_t, bytes_used, 0);
TSLB_STORED_AT(MemSlot_t, bytes_del, 4);
TSLB_STORED_AT(MemSlot_t, mslot, 8);

/* Address of a chunk in a big-buffer pool. Lowest bits first. */
typedef struct MemChunkAddr_t {
  u_int32_t mslot_idx : 8;
  u_int32_t mchunk_idx : 24; /* byte offset in the slot's chunks */
} maddr_t;
TSLB_STORED_SIZE(maddr_t, 4);

/* Address of a chunk in a bit-vector pool; passed as a maddr_t, and told apart by the pool's flag. */
typedef struct MemChunkAddrBV_t {
  u_int32_t mslot_idx : 8;      /* low bits of the slot index */
  u_int32_t mslotgroup_idx : 3; /* high bits of it */
  u_int32_t mchunk_idx : 21;    /* offset in units of 8 bytes */
} maddrBV_t;
TSLB_STORED_SIZE(maddrBV_t, 4);

/* Address of a chunk from the 64-bit allocator, in any pool. */
typedef struct MemChunkAddr64_t {
  u_int32_t mslot_idx;
  u_int32_t mchunk_idx; /* byte offset */
} maddr64_t;
TSLB_STORED_SIZE(maddr64_t, 8);
TSLB_STORED_AT(maddr64_t, mslot_idx, 0);
TSLB_STORED_AT(maddr64_t, mchunk_idx, 4);

/* The place in the caller's tables that refers to a chunk. Stored with it, read by nobody here. */
typedef struct DynMemSrcAddr_t {
  uint32_t tbl_id;
  uint32_t tbl_idx;
  short tbl_moff;
  char padding[2]; /* copied along */
} srcaddr_t;
TSLB_STORED_SIZE(srcaddr_t, 12);
TSLB_STORED_AT(srcaddr_t, tbl_id, 0);
TSLB_STORED_AT(srcaddr_t, tbl_idx, 4);
TSLB_STORED_AT(srcaddr_t, tbl_moff, 8);
TSLB_STORED_AT(srcaddr_t, padding, 10);

typedef struct DynMemSrcAddr64_t {
  uint32_t tbl_id;
  uint32_t tbl_idx;
  uint32_t tbl_moff;
} srcaddr64_t;
TSLB_STORED_SIZE(srcaddr64_t, 12);
TSLB_STORED_AT(srcaddr64_t, tbl_id, 0);
TSLB_STORED_AT(srcaddr64_t, tbl_idx, 4);
TSLB_STORED_AT(srcaddr64_t, tbl_moff, 8);

/* Compaction header: the first bytes of a chunk where the pool has MPOOL_FLAG_COMPAT. Chunks lie back to back, so it
 * stands at any address. */
typedef struct TSLB_UNALIGNED DynMemCompactAttr_t {
  srcaddr_t srcaddr;
  char flag;           /* MCHUNK_FLAG_DELETED; the other bits are left alone */
  char pad_bit;        /* never written */
  uint16_t mchunk_len; /* bytes of the caller's data, low 16 bits */
  TSLB_FLEXIBLE_TAIL(unsigned char, mchunk)
} compat_t;
TSLB_STORED_SIZE(compat_t, 16);
TSLB_STORED_AT(compat_t, srcaddr, 0);
TSLB_STORED_AT(compat_t, flag, 12);
TSLB_STORED_AT(compat_t, pad_bit, 13);
TSLB_STORED_AT(compat_t, mchunk_len, 14);
TSLB_STORED_AT(compat_t, mchunk, 16);

typedef struct TSLB_UNALIGNED DynMemCompactAttr64_t {
  srcaddr64_t srcaddr;
  char flag;
  char pad_bit;
  uint16_t mchunk_len;
  TSLB_FLEXIBLE_TAIL(unsigned char, mchunk)
} compat64_t;
TSLB_STORED_SIZE(compat64_t, 16);
TSLB_STORED_AT(compat64_t, srcaddr, 0);
TSLB_STORED_AT(compat64_t, flag, 12);
TSLB_STORED_AT(compat64_t, pad_bit, 13);
TSLB_STORED_AT(compat64_t, mchunk_len, 14);
TSLB_STORED_AT(compat64_t, mchunk, 16);

/* Bytes of all arrays and pools of this process. Not stored. */
typedef struct GlobalMemStats_t {
  size_t pool_hdr_overhead; /* headers of all that were created */
  size_t total_msz;         /* direct areas of all that were created; does not grow with them */
  size_t total_mused;       /* chunks of all pools */
  size_t total_mwaist;      /* 0 */
  size_t total_mavail;      /* the figure of the pool that allocated last, not a sum */
  size_t total_mdel;        /* 0 */
} GlobalMemStats_t;

extern TSLB_API GlobalMemStats_t g_mem_st;

/* Text of tslb_print_poolhdr: 2,048 bytes and a 0, one per thread. The size beside it is not used. */
extern TSLB_API __thread char g_mpool_hdr_str[2049];
extern TSLB_API __thread int g_mpool_hdr_str_sz;

/* ---- Creation -----------------------------------------------------------------------------------------------------
 *
 * Makes an empty pool, or a slot array if slot_type is MPOOL_SLOT_TYPE_DA. No slot is taken yet.
 *
 * mslot_sz     usable bytes wanted of a slot, rounded up to a multiple of 4; at most 16,777,216 for 32-bit addresses.
 *              For a slot array the record size, as it is.
 * num_mslot    slots in block 0; more come 16 at a time.
 * compat_flag  MPOOL_FLAG_COMPAT or 0.
 * mpool_type   MPOOL_TYPE_*.
 * slot_type    MPOOL_SLOT_TYPE_DA, or a pool: MPOOL_FLAG_BV for a bit-vector pool, 0 for a big-buffer pool. Together
 *              with compat_flag it becomes DynMemHdr_t.flag, further bits included: a 1 here is MPOOL_FLAG_COMPAT
 *              there.
 * ctx_name     name, or NULL; without one the creation is not redo logged.
 * tbl_id       table id.
 * daflag       TSLB_DA_DAFLAG_*; slots can be released only with nodes.
 * rec_version  goes to DynHdr_t.
 * is_persist   not 0: the headers are written to the redo log at creation. 1: growth as well (MPOOL_FLAG_PERSIST).
 *              The shorter forms take 1 for MPOOL_TYPE_DRAM, else 0.
 * max_slots    see DynMemHdr_t; 0 in the shorter forms.
 * Result       the handle, or NULL after a line on stderr; nothing was counted or logged then. */
TSLB_API dynmem_t *tslb_init_dynmem_ex1(int mslot_sz, int num_mslot, char compat_flag, unsigned char mpool_type,
                                        char slot_type, const char *ctx_name, int tbl_id, uint8_t daflag,
                                        uint8_t rec_version, uint8_t is_persist, short max_slots);
TSLB_API dynmem_t *tslb_init_dynmem_ex(int mslot_sz, int num_mslot, char compat_flag, unsigned char mpool_type,
                                       char slot_type, const char *ctx_name, int tbl_id, uint8_t daflag,
                                       uint8_t rec_version);
TSLB_API dynmem_t *tslb_init_dynmem(int mslot_sz, int num_mslot, char compat_flag, unsigned char mpool_type,
                                    char slot_type, const char *ctx_name, int tbl_id, uint8_t daflag);

/* Bytes ahead of the first slot, of any array: hdr_size + lli_sz + 24. */
TSLB_API int tslb_dynmem_get_hdrsz(dynmem_t *dynmem_handle);

/* ---- Chunks -------------------------------------------------------------------------------------------------------
 *
 * Takes a chunk of a pool.
 *
 * maddr       receives the address, in steps: nobody else reads it until the call is back. Untouched if refused.
 * mchunk_len  bytes of the caller's data. In a pool with compaction headers at least 1, and at most 65,535: more is
 *             reserved as asked, but the header keeps 16 bits of the length, deletion counts only these, and the slot
 *             is never released. In a bit-vector pool a multiple of 8 together with the header: after another length
 *             two chunks share an address. Neither is checked.
 * saddr       goes to the compaction header; ignored without one.
 * Result      the chunk's first byte, which is the compaction header where there is one: the data then begins 16
 *             bytes further on. NULL if the chunk is longer than a slot or negative (a line on stderr), or if a
 *             big-buffer pool is at its max_slots (silent); the pool is unchanged.
 * Stops       abort after a line on stderr when the pool has to leave the last slot that an address can name, free
 *             slots or not; a failed assertion when the array itself has no slot, for instance for want of memory.
 * Threads     any number. Lock-free within a slot; the change of slot takes the handle's spin lock. */
TSLB_API void *tslb_dynmem_get_mchunk(dynmem_t *dynmem_handle, maddr_t *maddr, int mchunk_len, srcaddr_t saddr);

/* The same under a 64-bit address, in pools of any kind: no limit on slots, none of the warnings, no ring, any byte
 * offset. Chunks named so are not deleted one by one. */
TSLB_API void *tslb_dynmem_get_mchunk64(dynmem_t *dynmem_handle, maddr64_t *maddr, int mchunk_len, srcaddr64_t saddr);

/* Turns an address into a pointer to the chunk's data, behind its compaction header.
 *
 * data_sz   receives mchunk_len - 1 in a pool with compaction headers, else 0; 0 too if there is no such slot. Not
 *           null.
 * Result    the data; NULL if the address names a slot that the pool never took. The rest of an address is trusted:
 *           one that did not come from this pool, or whose slot was released since, points into whatever is there.
 * Threads   any number, beside all other operations. No lock. */
TSLB_API void *tslb_dynmem_get_maddr2ptr_ex(dynmem_t *dynmem_handle, maddr_t maddr, uint32_t *data_sz);
TSLB_API void *tslb_dynmem_get_maddr2ptr(dynmem_t *dynmem_handle, maddr_t maddr);

/* The same for an address of the 64-bit allocator. `*data_sz`, where data_sz is not null, receives the whole
 * mchunk_len. NULL too for an offset from 2^31 on, the compaction header included. */
TSLB_API void *tslb_dynmem_get_maddr2ptr64_ex(dynmem_t *dynmem_handle, maddr64_t maddr, uint32_t *data_sz);
TSLB_API void *tslb_dynmem_get_maddr2ptr64(dynmem_t *dynmem_handle, maddr64_t maddr);

/* Marks a chunk deleted. The slot goes back to the free list with the deletion that empties it, unless it is current;
 * until then the chunk's bytes stay, and resolve. Without compaction headers nothing happens; a second deletion counts
 * nothing; in a pool without lists a slot cannot go back (a line on stdout), and a ring keeps every
 * slot once 254 exist.
 *
 * Threads  any number; a chunk has one owner, who deletes it once. */
TSLB_API void tslb_dynmem_del_mchunk(dynmem_t *dynmem_handle, maddr_t maddr);

/* Gives back every emptied slot that is not current and that no chunk is on its way to, those among them that were
 * emptied while they were current. Adds up the others: `*used_sz` bytes of chunks, `*del_sz` of them deleted, in
 * `*total_sz` bytes of pool. None may be null. The sums are 0 and nothing is given back in a pool without compaction
 * headers or without TSLB_DA_DAFLAG_LL. Linear in the slots.
 *
 * Threads  any number, also beside allocation; slots taken meanwhile wait for the next sweep. */
TSLB_API void tslb_dynmem_update_free_list(dynmem_t *dynmem_handle, size_t *total_sz, size_t *used_sz, size_t *del_sz);

/* Compaction, which moves nothing yet. Harmless on every pool. */
TSLB_API void tslb_dynmem_memcompat(dynmem_t *dynmem_handle);

/* ---- Diagnostics --------------------------------------------------------------------------------------------------
 * Plain reads of live headers: under load a line can mix values of different moments. */

/* One line about any array or pool, without a line end, in g_mpool_hdr_str of the calling thread. */
TSLB_API char *tslb_print_poolhdr(void *h_pool);

/* The list roots of an array with nodes, into `out` of at least 2,048 bytes. Result: out; an empty text for an array
 * without nodes. */
TSLB_API char *tslb_dynarr_lli_string(void *h_pool, char *out);

TSLB_END_DECLS

#endif
