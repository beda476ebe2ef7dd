// The host's copy hook, for conversions that change no record. Copies the header fields that describe the content, and
// every slot with its nodes, to an empty array of the same geometry.
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

// Returns slot `idx` of `to`, and issues that id if it is the next one. Returns null if memory for it was refused.
// The id then stays issued, and another call that issues an id would return the next slot.
static void *slot_for_copy(dynarr_t *to, uint32_t idx) {
  if (idx < tslb_da_get_size(to)) return tslb_da_get_ptr(to, idx);
  void *slot = nullptr;
  get_dyn_arr_new_record_id_ex(to, &slot, to->daflag);
  return slot;
}

// Copies all slots. Returns false if memory was refused.
static bool copy_slots(dynarr_t *from, dynarr_t *to) {
  int shift = 0;
  const uint32_t slot_bytes = tslb_da_get_slotsz(from, &shift);
  const uint32_t n_used = tslb_da_get_size(from);
  for (uint32_t idx = 0; idx < n_used; ++idx) {
    void *const slot = slot_for_copy(to, idx);
    const void *const source = tslb_da_get_ptr(from, idx);
    if (slot == nullptr || source == nullptr) return false;
    char *const slot_start = static_cast<char *>(slot) - shift;
    const char *const source_start = static_cast<const char *>(source) - shift;
    // Writing zeroes to new memory would only allocate its pages.
    if (memcmp(slot_start, source_start, slot_bytes) != 0) memcpy(slot_start, source_start, slot_bytes);
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
