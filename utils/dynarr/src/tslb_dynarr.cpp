// Slot arrays: creation, accessors, the spin lock and the one-line description.
#include "tslb_dynarr.h"

#include <stdio.h>

#include "dynarr_lock.h"
#include "dynarr_lookup.h"
// The only upward call in this file: pools and slot arrays have one creation function, which knows both.
#include "tslb_dynmem.h"

// ---- Creation -----------------------------------------------------------------------------------------------------

// compat_flag of a slot array. Without a pool header it has no effect; it only identifies slot arrays in a trace of
// calls.
constexpr char NO_COMPAT = -2;

dynarr_t *tslb_da_init_v5(int slot_sz, int n_slots, char pool_type, const char *ctx_name, int tbl_id) {
  return tslb_da_init_ll(slot_sz, n_slots, pool_type, ctx_name, tbl_id, 0);
}

dynarr_t *tslb_da_init_ll(int slot_sz, int n_slots, char pool_type, const char *ctx_name, int tbl_id, uint8_t daflag) {
  return tslb_init_dynmem(slot_sz, n_slots, NO_COMPAT, static_cast<unsigned char>(pool_type), MPOOL_SLOT_TYPE_DA,
                          ctx_name, tbl_id, daflag);
}

dynarr_t *tslb_da_init_ver(int slot_sz, int n_slots, char pool_type, const char *ctx_name, int tbl_id, uint8_t daflag,
                           uint8_t rec_version) {
  return tslb_init_dynmem_ex(slot_sz, n_slots, NO_COMPAT, static_cast<unsigned char>(pool_type), MPOOL_SLOT_TYPE_DA,
                             ctx_name, tbl_id, daflag, rec_version);
}

// ---- Accessors ----------------------------------------------------------------------------------------------------

unsigned int tslb_da_get_total_size(dynarr_t *h_dynarr) {
  return h_dynarr != nullptr ? get_dyn_total_allocated_records(h_dynarr) : 0;
}

unsigned int tslb_da_get_size(dynarr_t *h_dynarr) {
  return h_dynarr != nullptr ? get_dyn_arr_size(h_dynarr) : 0;
}

unsigned int tslb_da_get_record_size(dynarr_t *h_dynarr) {
  return h_dynarr != nullptr ? get_dyn_arr_record_sz(h_dynarr) : 0;
}

uint32_t tslb_da_get_slotsz(dynarr_t *h_dynarr, int *shift) {
  if (h_dynarr == nullptr) return UINT32_MAX;
  if (shift != nullptr && has_lists(h_dynarr)) *shift = static_cast<int>(tslb_stored_shift(h_dynarr->daflag));
  return slot_bytes_of(h_dynarr);
}

void *tslb_da_get_dynhdr(void *handle_dynarr) {
  return dyn_hdr_of(static_cast<dynarr_t *>(handle_dynarr));
}
void *tslb_da_get_usrhdr(void *handle_dynarr) {
  return user_hdr_of(static_cast<dynarr_t *>(handle_dynarr));
}
void *tslb_da_get_lli(void *handle_dynarr) {
  return lli_of(static_cast<dynarr_t *>(handle_dynarr));
}
void *tslb_da_get_dynarrhdr(void *handle_dynarr) {
  return arr_hdr_of(static_cast<dynarr_t *>(handle_dynarr));
}

void *tslb_da_get_ptr(dynarr_t *handle_dynarr, unsigned int idx) {
  return handle_dynarr != nullptr ? lookup_slot(handle_dynarr, idx) : nullptr;
}

char *tslb_da_get_hdr_str(DynamicArray_t dyn_handle) {
  static thread_local char text[512];
  if (dyn_handle == nullptr) return nullptr;
  const DynArrHdr_t *const hdr = arr_hdr_of(dyn_handle);
  // Printed as signed numbers, so that TSLB_DA_NIL_IDX shows as -1.
  const auto shown = [](const auto *at, auto field) { return static_cast<int>(get32(at, field)); };
  const int used_len = snprintf(
      text, sizeof(text), "dyn_arr ptr[%p], da_flag[%d], n_alloc[%d], n_used[%d], n_direct[%d], record_size[%d]",
      static_cast<void *>(dyn_handle), dyn_handle->daflag, shown(hdr, &DynArrHdr_t::n_alloc),
      shown(hdr, &DynArrHdr_t::n_used), shown(hdr, &DynArrHdr_t::n_direct), shown(hdr, &DynArrHdr_t::record_size));
  if (has_inactive_list(dyn_handle) && used_len >= 0 && static_cast<size_t>(used_len) < sizeof(text)) {
    const DynArrLLI_t *const lli = lli_of(dyn_handle);
    snprintf(text + used_len, sizeof(text) - static_cast<size_t>(used_len),
             ", n_inact[%d], n_free[%d], n_act[%d], inact_head[%d], inact_tail[%d], free_head[%d], free_tail[%d]",
             shown(lli, &DynArrLLI_t::n_inact), shown(lli, &DynArrLLI_t::n_free), shown(lli, &DynArrLLI_t::n_act),
             shown(lli, &DynArrLLI_t::inact_head), shown(lli, &DynArrLLI_t::inact_tail),
             shown(lli, &DynArrLLI_t::free_head), shown(lli, &DynArrLLI_t::free_tail));
  }
  return text;
}

// ---- Spin lock ----------------------------------------------------------------------------------------------------

void tslb_da_spin_lock16(uint16_t *spinlock) {
  spin_lock(spinlock);
}

void tslb_da_spin_unlock16(uint16_t *spinlock) {
  spin_unlock(spinlock);
}
