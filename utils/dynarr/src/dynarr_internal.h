// What the modules that work on arrays share: where the parts of block 0 lie, the geometry of slots and
// levels, the lookup, and the shapes of redo records. Private: never installed.
#ifndef DYNARR_INTERNAL_H
#define DYNARR_INTERNAL_H

#include "dynamic_array.h"
#include "tslb_dynarr.h"
#include "tslb_probes.h"
#include "tslb_rd_api.h"
#include "tslb_util.h"

// ---- Shared words --------------------------------------------------------------------------------------------------
// Words of stored structures that one thread reads while another writes. They can lie at any address, hence the untyped
// pointers. Relaxed: what must be ordered is ordered by the spin lock or by the barrier in the host's atomics.

static inline uint32_t get32(const void *word) {
  return __atomic_load_n(static_cast<const uint32_t *>(word), __ATOMIC_RELAXED);
}
static inline void set32(void *word, uint32_t value) {
  __atomic_store_n(static_cast<uint32_t *>(word), value, __ATOMIC_RELAXED);
}
static inline void set64(void *word, uint64_t value) {
  __atomic_store_n(static_cast<uint64_t *>(word), value, __ATOMIC_RELAXED);
}
static inline uint32_t add32(void *word, uint32_t amount) {
  return get_and_inc32(static_cast<uint32_t *>(word), amount);
}

// ---- Behind the handle ---------------------------------------------------------------------------------------------
// What belongs to an array, lives in process memory and concerns no caller: it follows the handle in one allocation.

// A memory slot that stopped being current while reservations in it had not reached its counter yet.
struct unsettled_slot_t {
  unsettled_slot_t *next;
  uint32_t slot_idx;
  uint32_t bytes_reserved;  // what bytes_used comes to when all have
};

struct array_private_t {
  DynArrHandle_t handle;
  unsettled_slot_t *unsettled;  // under the spin lock; a handful, as many as threads were caught in between
};

static inline array_private_t *private_of(DynArrHandle_t *array) {
  return reinterpret_cast<array_private_t *>(array);
}

// ---- Parts of block 0 ---------------------------------------------------------------------------------------------

constexpr uint32_t LLI_BYTES = sizeof(DynArrLLI_t);
constexpr uint32_t FIXED_HDR_BYTES = sizeof(DynHdr_t) + sizeof(DynArrHdr_t);

static inline char *block0_of(const DynArrHandle_t *array) {
  return static_cast<char *>(array->arr_base);
}
static inline DynHdr_t *dyn_hdr_of(const DynArrHandle_t *array) {
  return static_cast<DynHdr_t *>(array->arr_base);
}

static inline void *user_hdr_of(const DynArrHandle_t *array) {
  return block0_of(array) + sizeof(DynHdr_t);
}

// Points at DynArrHdr_t where there are no nodes.
static inline DynArrLLI_t *lli_of(const DynArrHandle_t *array) {
  return reinterpret_cast<DynArrLLI_t *>(block0_of(array) + sizeof(DynHdr_t) + dyn_hdr_of(array)->hdr_size);
}

static inline DynArrHdr_t *arr_hdr_of(const DynArrHandle_t *array) {
  const DynHdr_t *const hdr = dyn_hdr_of(array);
  return reinterpret_cast<DynArrHdr_t *>(block0_of(array) + sizeof(DynHdr_t) + hdr->hdr_size + hdr->lli_sz);
}

// Bytes ahead of slot 0.
static inline uint32_t header_bytes_of(const DynArrHandle_t *array) {
  const DynHdr_t *const hdr = dyn_hdr_of(array);
  return FIXED_HDR_BYTES + hdr->hdr_size + hdr->lli_sz;
}

// ---- Geometry of slots --------------------------------------------------------------------------------------------

constexpr uint32_t SLOTS_PER_BLOCK = 16;
constexpr uint32_t ENTRIES_PER_TABLE = 16;
constexpr uint32_t NODE_BYTES = sizeof(node_fw);
static_assert(sizeof(node_fw) == sizeof(node_bw), "a slot has one node on each side, of one size");

// Bytes of list nodes in a slot. The second node lies behind the record, so the record's own place in the
// slot, its shift, is one node for both kinds of list.
static inline constexpr uint32_t shift_of(uint8_t daflag) {
  return (daflag & (TSLB_DA_DAFLAG_INLL | TSLB_DA_DAFLAG_LL)) != 0 ? NODE_BYTES : 0;
}
static inline constexpr uint32_t node_bytes_of(uint8_t daflag) {
  return shift_of(daflag) + ((daflag & TSLB_DA_DAFLAG_INLL) != 0 ? NODE_BYTES : 0);
}

static inline bool has_lists(const DynArrHandle_t *array) {
  return shift_of(array->daflag) != 0;
}
static inline bool has_inactive_list(const DynArrHandle_t *array) {
  return (array->daflag & TSLB_DA_DAFLAG_INLL) != 0;
}

static inline uint32_t slot_bytes_of(const DynArrHandle_t *array) {
  return arr_hdr_of(array)->record_size + node_bytes_of(array->daflag);
}

static inline node_fw *fw_of(void *slot_ptr) {
  return reinterpret_cast<node_fw *>(static_cast<char *>(slot_ptr) - NODE_BYTES);
}
static inline node_bw *bw_of(void *slot_ptr, uint32_t record_size) {
  return reinterpret_cast<node_bw *>(static_cast<char *>(slot_ptr) + record_size);
}

// First word of a payload after taking or freeing it.
constexpr uint32_t GATEKEEPER = 0xFFFFFFFFu;

// A slot's status is read without the lock, and what it says about the slot's contents must be there to see: stored
// with release, loaded with acquire.
static inline uint32_t status_of(const void *slot_ptr) {
  return __atomic_load_n(reinterpret_cast<const uint32_t *>(static_cast<const char *>(slot_ptr) - NODE_BYTES),
                         __ATOMIC_ACQUIRE);
}
static inline void set_status(void *slot_ptr, uint32_t status) {
  __atomic_store_n(reinterpret_cast<uint32_t *>(static_cast<char *>(slot_ptr) - NODE_BYTES), status, __ATOMIC_RELEASE);
}

// ---- Geometry of levels -------------------------------------------------------------------------------------------

constexpr unsigned LEVELS = 6;

// First id of a level, past the direct area: in base 16 they run 0, 100, 1100, 11100 ..., low digits of one constant.
// That of level 7 is the first id that no level holds.
static inline constexpr uint32_t first_of_level(unsigned level) {
  return static_cast<uint32_t>(0x11111100u & ((uint64_t{1} << (4 * (level + 1))) - 1));
}

// Where an id beyond the direct area lies. Written in base 16, actual_id is the path through the level's
// tables: its highest digit picks an entry of the top one, its lowest the slot in the data block.
struct place_t {
  unsigned level;      // 1 to 6; 7 if no level holds the id
  uint32_t actual_id;  // the id's place in its level
};

// `beyond` is the id less n_direct.
static inline place_t place_of(uint32_t beyond) {
  unsigned level = 1;
  while (level <= LEVELS && beyond >= first_of_level(level + 1)) ++level;
  return {level, beyond - first_of_level(level)};
}

// Data blocks are numbered over all levels, since every level holds a multiple of 16 ids.
static inline uint32_t block_num_of(uint32_t beyond) {
  return beyond / SLOTS_PER_BLOCK + 1;
}

// ---- Lookup -------------------------------------------------------------------------------------------------------

// The byte `shift` of the slot of the id `beyond` past the direct area; its memory is made if it is missing. Null after
// a report.
void *dynarr_record_beyond(DynArrHandle_t *array, uint32_t beyond, uint64_t slot_bytes, uint64_t shift);

// The header of a mapped file is within others' reach; the handle is not.
static inline uint32_t n_direct_of(const DynArrHandle_t *array, const DynArrHdr_t *hdr) {
  return array->mem_type == MPOOL_TYPE_SHM ? array->n_direct : hdr->n_direct;
}

// The byte `shift` of the slot of an id that was issued; `hdr` is the array's. Null after a report.
static inline void *slot_byte_of(DynArrHandle_t *array, DynArrHdr_t *hdr, uint32_t id, uint32_t slot_bytes,
                                 uint32_t shift) {
  const uint32_t n_direct = n_direct_of(array, hdr);
  if (id < n_direct) return hdr->elem_direct + uint64_t{id} * slot_bytes + shift;
  // The last thing done: nothing waits on the stack for its result.
  return dynarr_record_beyond(array, id - n_direct, slot_bytes, shift);
}

// The record of an id that was issued, or the byte `byte_off` past its start. A flag of 0 is asked for first: a plain
// array adds nothing, and a jump that goes one way for an array is cheaper than two sizes computed from the flag.
static inline void *issued_position_of(DynArrHandle_t *array, DynArrHdr_t *hdr, uint32_t id, uint8_t daflag,
                                       uint32_t byte_off = 0) {
  if (shift_of(daflag) == 0) return slot_byte_of(array, hdr, id, hdr->record_size, byte_off);
  return slot_byte_of(array, hdr, id, hdr->record_size + node_bytes_of(daflag), NODE_BYTES + byte_off);
}

// get_dyn_arr_record_position_ex, inlined where a lookup is part of a hot path. An offset is added on the way, so that
// whoever wants a place in the record need not wait for it either.
static inline void *position_of(DynArrHandle_t *array, uint32_t id, uint8_t daflag, uint32_t byte_off = 0) {
  DynArrHdr_t *const hdr = arr_hdr_of(array);
  // Relaxed: whoever was given the id sees a count above it; for anybody else it is a bound, not a publication.
  return id < get32(&hdr->n_used) ? issued_position_of(array, hdr, id, daflag, byte_off) : nullptr;
}

static inline void *slot_ptr_of(DynArrHandle_t *array, uint32_t idx) {
  return position_of(array, idx, array->daflag);
}

// Reports an array that is full; -1.
__attribute__((cold)) int32_t dynarr_refuse_id(uint32_t n_alloc);

// Issues the next id; find(id) gives its record, or null. Result and `*ptr` as get_dyn_arr_new_record_id_ex.
template <class Find>
static inline int32_t issue_id(DynArrHdr_t *hdr, void **ptr, Find find) {
  const uint32_t id = add32(&hdr->n_used, 1);
  const uint32_t n_alloc = get32(&hdr->n_alloc);
  *ptr = __builtin_expect(n_alloc == UINT32_MAX, 0) ? nullptr : find(id);
  if (__builtin_expect(*ptr != nullptr, 1)) return static_cast<int32_t>(id);
  return n_alloc == UINT32_MAX ? dynarr_refuse_id(n_alloc) : -1;
}

static inline int32_t new_record_id(DynArrHandle_t *array, void **ptr, uint8_t daflag) {
  DynArrHdr_t *const hdr = arr_hdr_of(array);
  return issue_id(hdr, ptr, [=](uint32_t id) { return issued_position_of(array, hdr, id, daflag); });
}

// tslb_da_get_newptr of an array without lists. The clock is read for every slot, also for one that keeps no time.
static inline void *take_plain_slot(DynArrHandle_t *array, uint32_t *idx) {
  tslb_get_time(nullptr);
  void *slot_ptr;
  *idx = static_cast<uint32_t>(new_record_id(array, &slot_ptr, array->daflag));
  if (slot_ptr == nullptr) return nullptr;
  set32(slot_ptr, GATEKEEPER);
  TSLB_PROBE_SLOT_TAKEN(array, *idx, slot_ptr);
  return slot_ptr;
}

// Slots that lie side by side: those of the direct area or of one data block, from one of them on.
struct slot_run_t {
  char *slot;      // null: memory was refused, which was reported
  uint32_t count;  // 0: no id below the end
};

// The run that begins at `idx` and ends ahead of id `end`: who goes through an array looks up once for each block.
static inline slot_run_t run_at(DynArrHandle_t *array, uint32_t idx, uint32_t end) {
  if (idx >= end) return {nullptr, 0};
  const uint32_t n_direct = n_direct_of(array, arr_hdr_of(array));
  const uint32_t room = idx < n_direct ? n_direct - idx : SLOTS_PER_BLOCK - (idx - n_direct) % SLOTS_PER_BLOCK;
  return {static_cast<char *>(slot_ptr_of(array, idx)), room < end - idx ? room : end - idx};
}

// ---- Spin lock -----------------------------------------------------------------------------------------------------
// tslb_da_spin_lock16 and tslb_da_spin_unlock16, without the call around the host's swap.

static inline void spin_lock(uint16_t *word) {
  while (__builtin_expect(cas16(word, 0, 1) == 0, 0)) {
  }
}
static inline void spin_unlock(uint16_t *word) {
  cas16(word, 1, 0);
}

// ---- Redo records -------------------------------------------------------------------------------------------------

constexpr uint64_t NO_TXN = ~uint64_t{0};
constexpr uint32_t NO_AUX = 0xFFFFFFFFu;

// Only arrays in process memory are logged: the others have files, or are not meant to last.
static inline bool redo_is_on(const DynArrHandle_t *array) {
  return __atomic_load_n(&g_redo_handle, __ATOMIC_RELAXED) != nullptr && array->mem_type == MPOOL_TYPE_DRAM;
}

// What the slot layer logs of its own accord needs a name as well, under which a replay could find the array.
static inline bool redo_is_on_by_name(const DynArrHandle_t *array) {
  return redo_is_on(array) && array->ctx_name[0] != '\0';
}

// Library's own records of an array's header and of a slot's nodes, untested: callers ask one of the two
// above.
void redo_header(DynArrHandle_t *array, uint64_t txn_id = NO_TXN, char rec_type = TSLB_REDO_SLOT);
void redo_nodes(DynArrHandle_t *array, uint32_t idx, void *slot_ptr);

#endif
