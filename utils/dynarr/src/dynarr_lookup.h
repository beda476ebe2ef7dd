// Inline functions for lookup and for issuing ids. Private.
#ifndef DYNARR_LOOKUP_H
#define DYNARR_LOOKUP_H

#include "dynarr_layout.h"

// Returns byte `shift` of the slot of id `beyond`, counted from the end of the direct area. Creates missing memory.
// Returns null after a report.
void *dynarr_record_beyond(DynArrHandle_t *array, uint32_t beyond, uint64_t slot_bytes, uint64_t shift);

// Other processes can write the header of a mapped file, but not the handle.
static inline uint32_t n_direct_of(const DynArrHandle_t *array, const DynArrHdr_t *hdr) {
  return array->mem_type == MPOOL_TYPE_SHM ? array->n_direct : hdr->n_direct;
}

// Returns byte `byte_off` of the slot of an issued id; `hdr` is the array's. Returns null after a report.
static inline void *lookup_byte(DynArrHandle_t *array, DynArrHdr_t *hdr, uint32_t id, uint32_t slot_bytes,
                                uint32_t byte_off) {
  const uint32_t n_direct = n_direct_of(array, hdr);
  if (id < n_direct) return hdr->elem_direct + uint64_t{id} * slot_bytes + byte_off;
  // Tail call; see docs/performance.md, "Lookup".
  return dynarr_record_beyond(array, id - n_direct, slot_bytes, byte_off);
}

// Returns byte `byte_off` of the record of an issued id. Arrays without nodes are tested first; see
// docs/performance.md, "Lookup".
static inline void *lookup_issued(DynArrHandle_t *array, DynArrHdr_t *hdr, uint32_t id, uint8_t daflag,
                                  uint32_t byte_off = 0) {
  if (tslb_stored_shift(daflag) == 0) return lookup_byte(array, hdr, id, hdr->record_size, byte_off);
  return lookup_byte(array, hdr, id, hdr->record_size + tslb_stored_node_bytes(daflag), TSLB_NODE_BYTES + byte_off);
}

// get_dyn_arr_record_position_ex, with an offset into the record.
static inline void *lookup(DynArrHandle_t *array, uint32_t id, uint8_t daflag, uint32_t byte_off = 0) {
  DynArrHdr_t *const hdr = arr_hdr_of(array);
  // Relaxed: a caller that received the id sees a larger count. For other callers the count is only a bound; it
  // publishes nothing.
  return id < get32(hdr, &DynArrHdr_t::n_used) ? lookup_issued(array, hdr, id, daflag, byte_off) : nullptr;
}

// Returns the record of a slot, using the array's own flags.
static inline void *lookup_slot(DynArrHandle_t *array, uint32_t idx) {
  return lookup(array, idx, array->daflag);
}

// Consecutive slots in the direct area or in one data block.
struct slot_run_t {
  char *slot;      // null: memory was refused and the failure was reported
  uint32_t count;  // 0: no id below the end
};

// Returns the run that begins at `idx` and ends before id `end`. A full scan does one lookup per block.
static inline slot_run_t run_at(DynArrHandle_t *array, uint32_t idx, uint32_t end) {
  if (idx >= end) return {nullptr, 0};
  const uint32_t n_direct = n_direct_of(array, arr_hdr_of(array));
  const uint32_t room =
      idx < n_direct ? n_direct - idx : TSLB_SLOTS_PER_BLOCK - (idx - n_direct) % TSLB_SLOTS_PER_BLOCK;
  return {static_cast<char *>(lookup_slot(array, idx)), room < end - idx ? room : end - idx};
}

// ---- New ids -------------------------------------------------------------------------------------------------------

// Reports an array that is full. Returns -1.
__attribute__((cold)) int32_t dynarr_refuse_id(uint32_t n_alloc);

// Issues the next id; find(id) returns its record, or null. Result and `*ptr` as get_dyn_arr_new_record_id_ex.
template <class Find>
static inline int32_t issue_id(DynArrHdr_t *hdr, void **ptr, Find find) {
  const uint32_t id = add32(hdr, &DynArrHdr_t::n_used, 1);
  const uint32_t n_alloc = get32(hdr, &DynArrHdr_t::n_alloc);
  *ptr = __builtin_expect(n_alloc == UINT32_MAX, 0) ? nullptr : find(id);
  if (__builtin_expect(*ptr != nullptr, 1)) return static_cast<int32_t>(id);
  return n_alloc == UINT32_MAX ? dynarr_refuse_id(n_alloc) : -1;
}

static inline int32_t new_record_id(DynArrHandle_t *array, void **ptr, uint8_t daflag) {
  DynArrHdr_t *const hdr = arr_hdr_of(array);
  return issue_id(hdr, ptr, [=](uint32_t id) { return lookup_issued(array, hdr, id, daflag); });
}

#endif
