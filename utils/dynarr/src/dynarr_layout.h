// Pointers to the parts of block 0 and of slots. Their offsets come from tslb_stored.h. Private.
#ifndef DYNARR_LAYOUT_H
#define DYNARR_LAYOUT_H

#include "dynamic_array.h"
#include "shared_words.h"
#include "tslb_dynarr.h"
#include "tslb_stored.h"

static_assert(sizeof(DynHdr_t) == TSLB_DYN_HDR_BYTES && sizeof(DynArrLLI_t) == TSLB_LLI_BYTES &&
              sizeof(DynArrHdr_t) == TSLB_ARR_HDR_BYTES);
static_assert(sizeof(node_fw) == TSLB_NODE_BYTES && sizeof(node_bw) == TSLB_NODE_BYTES);

// ---- Block 0 -------------------------------------------------------------------------------------------------------

static inline char *block0_of(const DynArrHandle_t *array) {
  return static_cast<char *>(array->arr_base);
}
static inline DynHdr_t *dyn_hdr_of(const DynArrHandle_t *array) {
  return static_cast<DynHdr_t *>(array->arr_base);
}

static inline void *user_hdr_of(const DynArrHandle_t *array) {
  return block0_of(array) + TSLB_USER_HDR_AT;
}

// Returns the address of DynArrHdr_t if there are no nodes.
static inline DynArrLLI_t *lli_of(const DynArrHandle_t *array) {
  return reinterpret_cast<DynArrLLI_t *>(block0_of(array) + tslb_stored_lli_at(dyn_hdr_of(array)->hdr_size));
}

static inline DynArrHdr_t *arr_hdr_of(const DynArrHandle_t *array) {
  const DynHdr_t *const hdr = dyn_hdr_of(array);
  return reinterpret_cast<DynArrHdr_t *>(block0_of(array) + tslb_stored_arr_hdr_at(hdr->hdr_size, hdr->lli_sz));
}

// Bytes before slot 0.
static inline uint32_t header_bytes_of(const DynArrHandle_t *array) {
  const DynHdr_t *const hdr = dyn_hdr_of(array);
  return static_cast<uint32_t>(tslb_stored_header_bytes(hdr->hdr_size, hdr->lli_sz));
}

// ---- Slots ---------------------------------------------------------------------------------------------------------
// A slot pointer is the address of the record, after the slot's first node if there is one.

static inline bool has_lists(const DynArrHandle_t *array) {
  return tslb_stored_shift(array->daflag) != 0;
}
static inline bool has_inactive_list(const DynArrHandle_t *array) {
  return (array->daflag & TSLB_DA_DAFLAG_INLL) != 0;
}

static inline uint32_t slot_bytes_of(const DynArrHandle_t *array) {
  return arr_hdr_of(array)->record_size + tslb_stored_node_bytes(array->daflag);
}

static inline node_fw *fw_of(void *slot_ptr) {
  return reinterpret_cast<node_fw *>(static_cast<char *>(slot_ptr) - TSLB_NODE_BYTES);
}
static inline const node_fw *fw_of(const void *slot_ptr) {
  return reinterpret_cast<const node_fw *>(static_cast<const char *>(slot_ptr) - TSLB_NODE_BYTES);
}
static inline node_bw *bw_of(void *slot_ptr, uint32_t record_size) {
  return reinterpret_cast<node_bw *>(static_cast<char *>(slot_ptr) + record_size);
}

// Status is read without the lock, and the reader relies on it for the slot's contents. The release store pairs with
// the acquire load.
static inline uint32_t status_of(const void *slot_ptr) {
  return __atomic_load_n(shared_word(fw_of(slot_ptr), &node_fw::status), __ATOMIC_ACQUIRE);
}
static inline void set_status(void *slot_ptr, uint32_t status) {
  __atomic_store_n(shared_word(fw_of(slot_ptr), &node_fw::status), status, __ATOMIC_RELEASE);
}

// Stores the gatekeeper word, the mark of a record that was just taken or freed. The record can start at any address.
static inline void set_gatekeeper(void *slot_ptr) {
  __atomic_store_n(static_cast<uint32_t *>(slot_ptr), TSLB_GATEKEEPER_WORD, __ATOMIC_RELAXED);
}

#endif
