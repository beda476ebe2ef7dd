// Redo records of slots and headers: offsets in the flat image, and the bytes in memory.
//
// Offsets are 64-bit sums: in an image of 4 GiB or more a 32-bit sum would name the wrong bytes.
#include "dynarr_lookup.h"
#include "dynarr_redo.h"
#include "tslb_dynarr.h"

static uint64_t image_offset_of(const DynArrHandle_t *array, uint32_t idx) {
  return header_bytes_of(array) + uint64_t{slot_bytes_of(array)} * idx;
}

static void write_record(DynArrHandle_t *array, uint64_t txn_id, char rec_type, uint64_t data_off, void *data_ptr,
                         uint32_t data_sz) {
  tslb_redo_log_ex(txn_id, rec_type, array->ctx_name, array->tbl_id, data_off, NO_AUX, data_ptr, data_sz);
}

void redo_header(DynArrHandle_t *array, uint64_t txn_id, char rec_type) {
  write_record(array, txn_id, rec_type, 0, array->arr_base, header_bytes_of(array));
}

void redo_nodes(DynArrHandle_t *array, uint32_t idx, void *slot_ptr) {
  const uint64_t base = image_offset_of(array, idx);
  write_record(array, NO_TXN, TSLB_REDO_SLOT, base, fw_of(slot_ptr), TSLB_NODE_BYTES);
  if (!has_inactive_list(array)) return;
  const uint32_t record_size = arr_hdr_of(array)->record_size;
  write_record(array, NO_TXN, TSLB_REDO_SLOT, base + TSLB_NODE_BYTES + record_size, bw_of(slot_ptr, record_size),
               TSLB_NODE_BYTES);
}

void tslb_redo_log_da(dynarr_t *h_dynarr, unsigned int sidx, uint64_t txn_id, char rec_type) {
  tslb_redo_log_da_ex(h_dynarr, sidx, txn_id, rec_type, 0);
}

void tslb_redo_log_da_ex(dynarr_t *h_dynarr, unsigned int sidx, uint64_t txn_id, char rec_type, char rec_hdr_only) {
  tslb_redo_log_da_internal(h_dynarr, sidx, txn_id, rec_type, rec_hdr_only, -1, -1);
}

void tslb_redo_log_da_field(dynarr_t *h_dynarr, unsigned int sidx, uint64_t txn_id, char rec_type, int field_offset,
                            int field_size) {
  tslb_redo_log_da_internal(h_dynarr, sidx, txn_id, rec_type, 0, field_offset, field_size);
}

void tslb_redo_log_da_internal(dynarr_t *h_dynarr, unsigned int sidx, uint64_t txn_id, char rec_type, char rec_hdr_only,
                               int field_offset, int field_size) {
  if (!redo_is_on(h_dynarr)) return;
  char *const slot_ptr = static_cast<char *>(lookup_slot(h_dynarr, sidx));
  if (slot_ptr == nullptr) return;
  if (rec_type == 0) rec_type = TSLB_REDO_DEFAULT;

  const uint64_t base = image_offset_of(h_dynarr, sidx);
  const uint32_t shift = tslb_stored_shift(h_dynarr->daflag);
  if (field_offset >= 0 && field_size >= 1) {
    write_record(h_dynarr, txn_id, rec_type, base + shift + static_cast<uint32_t>(field_offset),
                 slot_ptr + field_offset, static_cast<uint32_t>(field_size));
  } else {
    // A plain slot can be shorter than a node. The bytes after it are not part of it.
    const uint32_t slot_bytes = slot_bytes_of(h_dynarr);
    const bool node_only = rec_hdr_only != 0 && slot_bytes > TSLB_NODE_BYTES;
    write_record(h_dynarr, txn_id, rec_type, base, slot_ptr - shift, node_only ? TSLB_NODE_BYTES : slot_bytes);
  }
}

void tslb_redo_log_da_hdr(dynarr_t *h_dynarr, unsigned int, uint64_t txn_id, char rec_type) {
  if (redo_is_on(h_dynarr)) redo_header(h_dynarr, txn_id, rec_type);
}
