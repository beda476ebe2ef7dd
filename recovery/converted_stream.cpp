#include "converted_stream.h"

#include <string.h>

namespace {

// ---- Output --------------------------------------------------------------------------------------------------------

struct output_t {
  int fd;
  uint32_t slot_bytes;
  int n_written;
};

int write_slots(DynamicArray_t array, void *block, int n_slots, size_t, int hdr_size, int level, int, int, void *user) {
  output_t *const output = static_cast<output_t *>(user);
  return tslb_dump_data_into_dds_file(array->ctx_name, static_cast<char *>(block) + hdr_size, n_slots,
                                      get_dyn_hdr(array), level, 0, output->slot_bytes, output->fd, &output->n_written,
                                      0);
}

// Writes the stream that tslb_create_dump_for_dynarr would write of an array with `n_direct` direct slots. The slots of
// `array` can be placed differently. Returns false after a failed write.
bool write_stream(dynarr_t *array, uint32_t n_direct, int fd) {
  DynArrHdr_t *const hdr = get_dyn_hdr(array);
  const uint32_t own_n_direct = hdr->n_direct, own_n_alloc = hdr->n_alloc;
  hdr->n_direct = n_direct;
  hdr->n_alloc = n_direct + tslb_stored_n_blocks(hdr->n_used, n_direct) * TSLB_SLOTS_PER_BLOCK;
  output_t output = {fd, tslb_da_get_slotsz(array, nullptr), 0};
  const bool has_headers =
      tslb_dump_data_into_dds_file(array->ctx_name, array->arr_base, 0, hdr, 0, tslb_dynmem_get_hdrsz(array),
                                   output.slot_bytes, fd, &output.n_written, 0) >= 0;
  hdr->n_direct = own_n_direct;
  hdr->n_alloc = own_n_alloc;
  if (!has_headers) return false;
  tslb_iterate_dyn_array_blocks(array, write_slots, &output);
  return static_cast<uint32_t>(output.n_written) == hdr->n_used;
}

// ---- Counts --------------------------------------------------------------------------------------------------------

uint32_t *count_of(uint32_t status, recovery_counts_t *counts) {
  switch (status) {
    case TSLB_DA_SLOT_ACTIVE:
      return &counts->n_active;
    case TSLB_DA_SLOT_FREE:
      return &counts->n_free;
    case TSLB_DA_SLOT_INACTIVE:
      return &counts->n_inactive;
    default:
      return &counts->n_other;
  }
}

recovery_counts_t count(dynarr_t *source, dynarr_t *destination) {
  recovery_counts_t counts = {};
  counts.n_records = tslb_da_get_size(source);
  counts.record_bytes_before = tslb_da_get_record_size(source);
  counts.record_bytes_after = tslb_da_get_record_size(destination);
  counts.stream_bytes_after = static_cast<uint64_t>(tslb_dynmem_get_hdrsz(destination)) +
                              uint64_t{counts.n_records} * tslb_da_get_slotsz(destination, nullptr);
  if (static_cast<const DynHdr_t *>(tslb_da_get_dynhdr(source))->lli_sz == 0) {
    counts.n_active = counts.n_records;
    return counts;
  }
  for (uint32_t idx = 0; idx < counts.n_records; ++idx) {
    node_fw node;
    memcpy(&node, static_cast<const char *>(tslb_da_get_ptr(source, idx)) - sizeof(node), sizeof(node));
    ++*count_of(node.status, &counts);
  }
  return counts;
}

}  // namespace

recovery_result_t finish_conversion(dynarr_t *source, dynarr_t *destination, uint32_t n_direct, bool dry_run, int fd,
                                    recovery_counts_t *counts, refusal_t *refusal) {
  if (!dry_run && !write_stream(destination, n_direct, fd)) {
    refusal->add("the converted array could not be written completely");
    return RECOVERY_NOT_WRITTEN;
  }
  *counts = count(source, destination);
  return RECOVERY_DONE;
}
