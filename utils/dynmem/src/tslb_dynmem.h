/* Chunk pools: chunks of any length, allocated front to back in large memory slots and named by compact addresses.
 *
 * A pool is a record array whose records are memory slots (MemSlot_t) and whose user header is DynMemHdr_t. One slot is
 * current. Threads reserve its bytes by a swap of the pool's cursor, without a lock. A chunk never crosses slots: if
 * the current slot has no room for a request, its remaining bytes are not used and another slot becomes current.
 *
 * Kinds
 *   big-buffer pool   addresses are maddr_t, slots 0 to 255. The pool stops the process when it needs a slot after slot
 *                     255, even if other slots are free; max_slots can refuse earlier.
 *   bit-vector pool   slot_type has bit 0x10. Addresses are maddrBV_t, slots 0 to 2040, lengths multiples of 8. Warns
 *                     every 255 slots, and stops the process when it needs a slot after slot 2040, even if others are
 *                     free.
 *   temporary pool    a bit-vector pool of MPOOL_TYPE_DRAM_TMP: slots 0 to 253, reused as a ring. Once 254 slots exist
 *                     it keeps every slot: chunks are overwritten round after round, and no slot is released.
 *
 * In a pool with MPOOL_FLAG_COMPAT every chunk begins with a compaction header (compat_t) of 16 bytes, which counts as
 * part of the chunk.
 *
 * A pool stores no pointers, so addresses stay valid wherever its blocks are mapped. */
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
    /* A big-buffer pool does not leave its current slot once memory exists for this many slots, even if other slots are
     * free; 0 for no limit. Memory exists for num_mslot slots at creation, and then grows by 16 slots at a time. With a
     * limit of num_mslot or less the pool allocates no chunk. In slot 255 the limit is not tested: the process
     * stops. */
    short max_slots;
  };
  u_int32_t mslot_sz;      /* bytes of a slot that chunks can use */
  u_int64_t cur_slot_addr; /* the cursor: a MemSlotAddr_t in one word */
  /* Bytes of the pool: the direct area at creation, later up to its highest slot. If threads take slots concurrently,
   * this figure and the growth records can keep the smaller size. */
  u_int64_t total_msz;
  u_int64_t total_mused;  /* bytes reserved for chunks; only grows */
  u_int64_t total_mwast;  /* 16 for each chunk, 8 for each slot that made the pool grow */
  u_int64_t total_mdel;   /* 0 */
  u_int64_t total_mavail; /* total_msz less headers, total_mused and total_mwast, at the last chunk */
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
  uint32_t bytes_del;             /* bytes of chunks deleted here, compaction headers included */
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

/* Address of a chunk in a bit-vector pool. It is passed as a maddr_t; the pool's flag gives its form. */
typedef struct MemChunkAddrBV_t {
  u_int32_t mslot_idx : 8;      /* low bits of the slot index */
  u_int32_t mslotgroup_idx : 3; /* high bits of the slot index */
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

/* The field of the caller's tables that refers to a chunk. Stored with the chunk; the library does not read it. */
typedef struct DynMemSrcAddr_t {
  uint32_t tbl_id;
  uint32_t tbl_idx;
  short tbl_moff;
  char padding[2]; /* copied with the rest */
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

/* Compaction header: the first bytes of a chunk in a pool with MPOOL_FLAG_COMPAT. Chunks lie back to back, so it starts
 * at any address. */
typedef struct TSLB_UNALIGNED DynMemCompactAttr_t {
  srcaddr_t srcaddr;
  char flag;           /* MCHUNK_FLAG_DELETED; the other bits are not changed */
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
  size_t pool_hdr_overhead; /* headers of all arrays and pools created */
  size_t total_msz;         /* direct areas of all arrays and pools created; later growth is not counted */
  size_t total_mused;       /* chunks of all pools */
  size_t total_mwaist;      /* 0 */
  size_t total_mavail;      /* total_mavail of the pool that allocated last, not a sum */
  size_t total_mdel;        /* 0 */
} GlobalMemStats_t;

extern TSLB_API GlobalMemStats_t g_mem_st;

/* Text of tslb_print_poolhdr: 2,048 bytes and a terminator, one per thread. The size variable is not used. */
extern TSLB_API __thread char g_mpool_hdr_str[2049];
extern TSLB_API __thread int g_mpool_hdr_str_sz;

/* ---- Creation -----------------------------------------------------------------------------------------------------
 *
 * Creates an empty pool, or a slot array if slot_type is MPOOL_SLOT_TYPE_DA. Takes no slot yet.
 *
 * mslot_sz     requested usable bytes of a slot, rounded up to a multiple of 4; at most 16,777,216 for 32-bit
 *              addresses. For a slot array the record size, used unchanged.
 * num_mslot    slots in block 0; further slots are added 16 at a time.
 * compat_flag  MPOOL_FLAG_COMPAT or 0.
 * mpool_type   MPOOL_TYPE_*.
 * slot_type    MPOOL_SLOT_TYPE_DA for a slot array, MPOOL_FLAG_BV for a bit-vector pool, 0 for a big-buffer pool.
 *              DynMemHdr_t.flag holds slot_type and compat_flag combined, further bits included: a 1 here is
 *              MPOOL_FLAG_COMPAT there.
 * ctx_name     name, or NULL; without a name the creation is not redo logged.
 * tbl_id       table id.
 * daflag       TSLB_DA_DAFLAG_*; slots can be released only if they have nodes.
 * rec_version  stored in DynHdr_t.
 * is_persist   not 0: the headers are written to the redo log at creation. 1: growth too (MPOOL_FLAG_PERSIST). The
 *              shorter forms use 1 for MPOOL_TYPE_DRAM, else 0.
 * max_slots    see DynMemHdr_t; 0 in the shorter forms.
 * Result       the handle, or NULL after a line on stderr; a failed call counts and logs nothing. */
TSLB_API dynmem_t *tslb_init_dynmem_ex1(int mslot_sz, int num_mslot, char compat_flag, unsigned char mpool_type,
                                        char slot_type, const char *ctx_name, int tbl_id, uint8_t daflag,
                                        uint8_t rec_version, uint8_t is_persist, short max_slots);
TSLB_API dynmem_t *tslb_init_dynmem_ex(int mslot_sz, int num_mslot, char compat_flag, unsigned char mpool_type,
                                       char slot_type, const char *ctx_name, int tbl_id, uint8_t daflag,
                                       uint8_t rec_version);
TSLB_API dynmem_t *tslb_init_dynmem(int mslot_sz, int num_mslot, char compat_flag, unsigned char mpool_type,
                                    char slot_type, const char *ctx_name, int tbl_id, uint8_t daflag);

/* Returns the bytes before the first slot of any array: hdr_size + lli_sz + 24. */
TSLB_API int tslb_dynmem_get_hdrsz(dynmem_t *dynmem_handle);

/* ---- Chunks -------------------------------------------------------------------------------------------------------
 *
 * Allocates a chunk of a pool.
 *
 * maddr       receives the address, in several writes: no other thread reads it before the call returns. Unchanged if
 *             the request is refused.
 * mchunk_len  bytes of the caller's data. In a pool with compaction headers at least 1 and at most 65,535. A larger
 *             chunk is reserved as requested, but the header keeps 16 bits of the length, deletion counts only these,
 *             and the slot is never released. In a bit-vector pool data and header together must be a multiple of 8:
 *             after another length two chunks share an address. Neither rule is checked.
 * saddr       stored in the compaction header; ignored without one.
 * Result      the chunk's first byte. If there is a compaction header, this is its first byte, and the data begins 16
 *             bytes later. NULL if the chunk is longer than a slot or negative (a line on stderr), or if a big-buffer
 *             pool is at its max_slots (no message); the pool is not changed.
 * Stops       abort after a line on stderr if the pool must leave the last slot that an address can name, even if other
 *             slots are free; a failed assertion if the array has no slot, for example because memory was refused.
 * Threads     any number. Lock-free within a slot; a change of the slot takes the handle's spin lock. */
TSLB_API void *tslb_dynmem_get_mchunk(dynmem_t *dynmem_handle, maddr_t *maddr, int mchunk_len, srcaddr_t saddr);

/* The same with a 64-bit address, in pools of any kind: no limit on slots, no warnings, no ring, any byte offset. These
 * chunks cannot be deleted one by one. */
TSLB_API void *tslb_dynmem_get_mchunk64(dynmem_t *dynmem_handle, maddr64_t *maddr, int mchunk_len, srcaddr64_t saddr);

/* Returns a pointer to a chunk's data, after its compaction header.
 *
 * data_sz   receives mchunk_len - 1 in a pool with compaction headers, else 0; also 0 if there is no such slot. Not
 *           null.
 * Result    the data; NULL if the address names a slot that the pool never took. The rest of the address is not
 *           checked: if it is from another pool, or its slot was released since, the pointer is to arbitrary bytes.
 * Threads   any number, concurrently with all other operations. Takes no lock. */
TSLB_API void *tslb_dynmem_get_maddr2ptr_ex(dynmem_t *dynmem_handle, maddr_t maddr, uint32_t *data_sz);
TSLB_API void *tslb_dynmem_get_maddr2ptr(dynmem_t *dynmem_handle, maddr_t maddr);

/* The same for an address of the 64-bit allocator. If data_sz is not null, `*data_sz` receives the whole mchunk_len.
 * The result is also NULL for an offset of 2^31 or more, the compaction header included. */
TSLB_API void *tslb_dynmem_get_maddr2ptr64_ex(dynmem_t *dynmem_handle, maddr64_t maddr, uint32_t *data_sz);
TSLB_API void *tslb_dynmem_get_maddr2ptr64(dynmem_t *dynmem_handle, maddr64_t maddr);

/* Marks a chunk deleted. The deletion that empties a slot returns it to the free list, unless it is current. Until then
 * the chunk's bytes stay and its address can be resolved. Without compaction headers the call does nothing. A second
 * deletion of a chunk counts nothing. In a pool without lists a slot cannot be freed (a line on stdout). A ring keeps
 * every slot once 254 exist.
 *
 * Threads  any number; a chunk has one owner, who deletes it once. */
TSLB_API void tslb_dynmem_del_mchunk(dynmem_t *dynmem_handle, maddr_t maddr);

/* Frees every empty slot that is not current and in which no reservation is pending, also slots that were emptied while
 * they were current. Adds up the other slots: `*used_sz` bytes of chunks, `*del_sz` of them deleted, in `*total_sz`
 * bytes of pool. None may be null. In a pool without compaction headers or without TSLB_DA_DAFLAG_LL the sums of used
 * and deleted bytes are 0 and nothing is freed. The time is linear in the number of slots.
 *
 * Threads  any number, also concurrently with allocation; slots taken during the call are left for the next sweep. */
TSLB_API void tslb_dynmem_update_free_list(dynmem_t *dynmem_handle, size_t *total_sz, size_t *used_sz, size_t *del_sz);

/* Compaction. Not implemented: it does nothing, on every pool. */
TSLB_API void tslb_dynmem_memcompat(dynmem_t *dynmem_handle);

/* ---- Diagnostics --------------------------------------------------------------------------------------------------
 * These functions read live headers without a lock: under load a line can mix values of different moments. */

/* Returns one line about any array or pool, without a line end, in g_mpool_hdr_str of the calling thread. */
TSLB_API char *tslb_print_poolhdr(void *h_pool);

/* Writes the list roots of an array with nodes to `out`, which has at least 2,048 bytes. Result: out; an empty text for
 * an array without nodes. */
TSLB_API char *tslb_dynarr_lli_string(void *h_pool, char *out);

TSLB_END_DECLS

#endif
