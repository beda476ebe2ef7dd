// Conversions of stored arrays to older layouts. The seven record routines share one loop and differ in their copy
// step.
#include "tsdb_recovery_version_downgrade_fn.h"

#include <stddef.h>
#include <string.h>

#include "dynarr_lists.h"
#include "recovery_trace.h"
#include "tsdb_recovery_schema.h"
#include "tslb_dynarr.h"
#include "tslb_dynmem.h"

constexpr const char *COMPONENT = "TSDBRecovery";

// ---- Record loop ---------------------------------------------------------------------------------------------------

// Converts all records: copy(to, from) fills one new record of the destination. Records lie at any address.
template <class Copy>
static void convert(const char *function, void *cbargs, uint8_t target_version, Copy copy) {
  const TSDBVerCBArgs_t args = *static_cast<const TSDBVerCBArgs_t *>(cbargs);
  dynarr_t *const source = static_cast<dynarr_t *>(args.h_mpool_prev);
  dynarr_t *const destination = static_cast<dynarr_t *>(args.h_mpool_cur);
  static_cast<DynHdr_t *>(tslb_da_get_dynhdr(destination))->rec_version = target_version;
  RECOVERY_TRACE(1, COMPONENT, function, "Method called, h_mpool_newver = %p, h_mpool_oldver = %p, n_alloc = %u",
                 args.h_mpool_cur, args.h_mpool_prev, tslb_da_get_total_size(destination));
  if (source == nullptr) return;
  const uint32_t slot_bytes = slot_bytes_of(source);
  const bool plain = !has_lists(destination);
  const DynArrHdr_t *const hdr_cv = arr_hdr_of(destination);
  slot_run_t left = {nullptr, 0};
  for (uint32_t i = 0; i < get32(hdr_cv, &DynArrHdr_t::n_alloc); ++i) {
    if (left.count == 0) left = run_at(source, i, get_dyn_arr_size(source));
    if (left.slot == nullptr) return;
    uint32_t idx;
    void *const node_cv = plain ? take_plain_slot(destination, &idx) : lists_take(destination, &idx);
    if (node_cv == nullptr) return;
    copy(static_cast<char *>(node_cv), left.slot);
    left = {left.slot + slot_bytes, left.count - 1};
  }
}

// ---- Records whose older layout is the start of the newer one ------------------------------------------------------

template <class Older>
static void convert_by_prefix(const char *function, void *cbargs, uint8_t target_version) {
  convert(function, cbargs, target_version, [](char *to, const char *from) { memcpy(to, from, sizeof(Older)); });
}

void tsdb_recov_downgrade_g_mg_2_0(void *cbargs) {
  convert_by_prefix<g_mg_t_v0>(__func__, cbargs, 0);
}
void tsdb_recov_downgrade_g_mg_2_1(void *cbargs) {
  convert_by_prefix<g_mg_t_v1>(__func__, cbargs, 1);
}
void tsdb_recov_downgrade_g_mt_1_0(void *cbargs) {
  convert_by_prefix<g_mt_t_v0>(__func__, cbargs, 0);
}
void tsdb_recov_downgrade_derived_var_value_t_1_0(void *cbargs) {
  convert_by_prefix<derived_var_value_t_v0>(__func__, cbargs, 0);
}
// Copies all bytes: the dropped field stays where older readers see padding.
void tsdb_recov_downgrade_derived_metric_t_1_0(void *cbargs) {
  convert_by_prefix<derived_metric_t_v0>(__func__, cbargs, 0);
}

// ---- Records that change shape -------------------------------------------------------------------------------------

void tsdb_recov_downgrade_rc_tysub_1_0(void *cbargs) {
  convert(__func__, cbargs, 0, [](char *to, const char *from) {
    typedef ty_sub_t_v1 newer_t;
    typedef ty_sub_t_v0 older_t;
    // Copies the parts between the gaps. Both layouts agree up to the entries. The gaps keep the bytes of the new slot.
    memcpy(to, from, offsetof(older_t, gap10));
    memcpy(to + offsetof(older_t, nodes_group), from + offsetof(newer_t, nodes_group),
           offsetof(older_t, gap17) - offsetof(older_t, nodes_group));
    memcpy(to + offsetof(older_t, mg), from + offsetof(newer_t, mg), offsetof(older_t, gap29) - offsetof(older_t, mg));
    for (size_t j = 0; j < 5; ++j)
      memcpy(to + offsetof(older_t, rsb_arr) + j * sizeof(rsb_t_v0),
             from + offsetof(newer_t, rsb_arr) + j * sizeof(rsb_t_v1), offsetof(rsb_t_v1, stale_rsb));
    memcpy(to + offsetof(older_t, i_offline_dirpath), from + offsetof(newer_t, i_offline_dirpath),
           sizeof(older_t) - offsetof(older_t, i_offline_dirpath));
  });
}

// Copies a string to a field that is not longer than its source field, and terminates it. A string that does not fit or
// has no terminator is cut. Returns its length.
template <size_t OLDER, size_t NEWER>
static uint8_t copy_text(char (&older)[OLDER], const char (&newer)[NEWER]) {
  static_assert(OLDER <= NEWER && OLDER - 1 <= UINT8_MAX, "the length has one byte");
  const size_t len = strnlen(newer, OLDER - 1);
  memcpy(older, newer, len);
  older[len] = '\0';
  return static_cast<uint8_t>(len);
}

void tsdb_recov_downgrade_derived_subject_value_t_1_0(void *cbargs) {
  const char *const function = __func__;
  convert(function, cbargs, 0, [function](char *to, const char *from) {
    subject_value_t_v1 newer;
    memcpy(&newer, from, sizeof(newer));
    subject_value_t_v0 older = {};
    older.tag_len = copy_text(older.tag, newer.tag);
    older.value_len = copy_text(older.value, newer.value);
    older.mode = newer.mode;
    memcpy(&older.regex, &newer.regex, sizeof(older.regex));
    memcpy(to, &older, sizeof(older));
    RECOVERY_TRACE(2, COMPONENT, function, "Subjet:- %s:%s, mode:- %d", older.tag, older.value, older.mode);
  });
}

// ---- The library's own layouts -------------------------------------------------------------------------------------

void tsdb_recov_downgrade_rc_lib_2_1(void *cbargs) {
  const TSDBVerCBArgs_t args = *static_cast<const TSDBVerCBArgs_t *>(cbargs);
  RECOVERY_TRACE(2, COMPONENT, __func__, "Method called, rec_type = %hu, args.h_mpool_prev = %p, args.h_mpool_cur = %p",
                 args.rec_type, args.h_mpool_prev, args.h_mpool_cur);
  const DynHdr_t *const dyn_hdr_pv = static_cast<const DynHdr_t *>(tslb_da_get_dynhdr(args.h_mpool_prev));
  DynHdr_t *const dyn_hdr_cv = static_cast<DynHdr_t *>(tslb_da_get_dynhdr(args.h_mpool_cur));
  dyn_hdr_cv->lib_version = 1;
  dyn_hdr_cv->rec_version = dyn_hdr_pv->rec_version;
  // Only the handle's flags change. The flags stored in the array's block stay.
  static_cast<DynArrHandle_t *>(args.h_mpool_cur)->daflag = 0;
  if (dyn_hdr_pv->hdr_size == 0) return;
  if (dyn_hdr_pv->hdr_size == dyn_hdr_cv->hdr_size) {
    const size_t bytes = dyn_hdr_pv->hdr_size < sizeof(DynMemHdr_t) ? dyn_hdr_pv->hdr_size : sizeof(DynMemHdr_t);
    memcpy(tslb_da_get_usrhdr(args.h_mpool_cur), tslb_da_get_usrhdr(args.h_mpool_prev), bytes);
    return;
  }
  RECOVERY_TRACE(2, COMPONENT, __func__, "DynMemHdr size for rec_type = %d, mismatched, prev_sz = %hu, cur_sz = %hu",
                 args.rec_type, dyn_hdr_pv->hdr_size, dyn_hdr_cv->hdr_size);
}

void tsdb_recov_downgrade_rc_lib_bb_1_0(void *cbargs) {
  tsdb_recov_version_copy_rc(cbargs);
}
void tsdb_recov_downgrade_rc_lib_bv_1_0(void *cbargs) {
  tsdb_recov_version_copy_rc(cbargs);
}
