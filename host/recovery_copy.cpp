// The copy that stands behind conversions that change no record: every header field that describes the
// content, and every slot with its nodes, from one array into a fresh one of the same geometry.
#include <stdio.h>
#include <string.h>

#include <tslb/tsdb_recovery_version_compatibility.h>
#include <tslb/tslb_dynarr.h>

static bool same_geometry(dynarr_t *from, dynarr_t *to) {
  const DynHdr_t *const a = static_cast<const DynHdr_t *>(tslb_da_get_dynhdr(from));
  const DynHdr_t *const b = static_cast<const DynHdr_t *>(tslb_da_get_dynhdr(to));
  return a->hdr_size == b->hdr_size && a->lli_sz == b->lli_sz && from->daflag == to->daflag &&
         tslb_da_get_record_size(from) == tslb_da_get_record_size(to);
}

// Issues ids in `to` until it has as many as `from`, then copies slot by slot. False if `to` ran full.
static bool copy_slots(dynarr_t *from, dynarr_t *to) {
  int shift = 0;
  const uint32_t slot_bytes = tslb_da_get_slotsz(from, &shift);
  const uint32_t n_used = tslb_da_get_size(from);
  for (uint32_t idx = 0; idx < n_used; ++idx) {
    void *slot = idx < tslb_da_get_size(to) ? tslb_da_get_ptr(to, idx) : nullptr;
    if (slot == nullptr) get_dyn_arr_new_record_id_ex(to, &slot, to->daflag);
    const void *const source = tslb_da_get_ptr(from, idx);
    if (slot == nullptr || source == nullptr) return false;
    memcpy(static_cast<char *>(slot) - shift, static_cast<const char *>(source) - shift, slot_bytes);
  }
  return true;
}

void tsdb_recov_version_copy_rc(void *cbargs) {
  const TSDBVerCBArgs_t *const args = static_cast<const TSDBVerCBArgs_t *>(cbargs);
  dynarr_t *const from = static_cast<dynarr_t *>(args->h_mpool_prev);
  dynarr_t *const to = static_cast<dynarr_t *>(args->h_mpool_cur);
  if (!same_geometry(from, to) || tslb_da_get_size(to) > tslb_da_get_size(from) || !copy_slots(from, to)) {
    fprintf(stderr, "record type %u: an array cannot be copied into one of another geometry or without room\n",
            args->rec_type);
    return;
  }
  const DynHdr_t *const hdr = static_cast<const DynHdr_t *>(tslb_da_get_dynhdr(from));
  memcpy(tslb_da_get_usrhdr(to), tslb_da_get_usrhdr(from), hdr->hdr_size);
  memcpy(tslb_da_get_lli(to), tslb_da_get_lli(from), hdr->lli_sz);
}
