// Conditions and functions for the library's redo records. Private.
#ifndef DYNARR_REDO_H
#define DYNARR_REDO_H

#include "dynamic_array.h"
#include "tslb_rd_api.h"

constexpr uint64_t NO_TXN = ~uint64_t{0};
constexpr uint32_t NO_AUX = 0xFFFFFFFFu;

static inline bool redo_log_exists() {
  return __atomic_load_n(&g_redo_handle, __ATOMIC_RELAXED) != nullptr;
}

// Only arrays of MPOOL_TYPE_DRAM are logged: the others have files or are temporary.
static inline bool redo_is_on(const DynArrHandle_t *array) {
  return redo_log_exists() && array->mem_type == MPOOL_TYPE_DRAM;
}

// The slot layer's own records also need a name, by which a replay finds the array.
static inline bool redo_is_on_by_name(const DynArrHandle_t *array) {
  return redo_is_on(array) && array->ctx_name[0] != '\0';
}

// Write the library's records of an array's header and of a slot's nodes. Callers test one of the functions above
// first.
void redo_header(DynArrHandle_t *array, uint64_t txn_id = NO_TXN, char rec_type = TSLB_REDO_SLOT);
void redo_nodes(DynArrHandle_t *array, uint32_t idx, void *slot_ptr);

#endif
