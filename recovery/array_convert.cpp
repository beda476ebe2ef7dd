// Converts an array record by record. The new array is complete before it is returned or written.
#include <tslb/array_convert.h>

#include <errno.h>
#include <limits.h>
#include <string.h>

#include <algorithm>

#include <tslb/array_loader.h>
#include <tslb/block_files.h>
#include "array_reader.h"
#include "block_files_internal.h"
#include "converted_stream.h"

namespace {

const DynHdr_t *dyn_hdr_of(dynarr_t *array) {
  return static_cast<const DynHdr_t *>(tslb_da_get_dynhdr(array));
}

struct layout_t {
  explicit layout_t(dynarr_t *array) {
    int shift_bytes = 0;
    const uint32_t slot_bytes = tslb_da_get_slotsz(array, &shift_bytes);
    front_bytes = static_cast<uint32_t>(shift_bytes);
    record_bytes = tslb_da_get_record_size(array);
    back_bytes = slot_bytes - front_bytes - record_bytes;
  }
  uint32_t front_bytes, record_bytes, back_bytes;  // forward node, record, back node
};

bool fits(dynarr_t *from, const array_conversion_t &conversion, refusal_t *refusal) {
  const DynHdr_t *const hdr = dyn_hdr_of(from);
  const uint32_t record_bytes = tslb_da_get_record_size(from);
  if (hdr->rec_version != conversion.from_version)
    refusal->add("rec_version %u, but the conversion is from version %u", hdr->rec_version, conversion.from_version);
  else if (record_bytes != conversion.from_bytes)
    refusal->add("record_size %u, but the conversion is from %u bytes", record_bytes, conversion.from_bytes);
  else if (conversion.to_bytes < (hdr->lli_sz != 0 ? sizeof(uint32_t) : 1))
    refusal->add("the conversion is to %u bytes, too few for a record", conversion.to_bytes);
  else
    return true;
  return false;
}

// Returns whether creation would not touch existing files.
bool is_new(char mem_type, const char *ctx_name, int32_t tbl_id, refusal_t *refusal) {
  if (mem_type != MPOOL_TYPE_SHM) return true;
  const int exist = block_files_exist(g_base_path, ctx_name != nullptr ? ctx_name : "", tbl_id);
  if (exist == 0) return true;
  if (exist > 0)
    refusal->add("block files of table %d exist", tbl_id);
  else
    refusal->add("block files of table %d: %s", tbl_id, strerror(errno));
  return false;
}

// Returns how many converted slots fit block 0, which has at most INT_MAX bytes.
uint32_t direct_room(dynarr_t *from, uint32_t to_bytes) {
  const uint64_t node_bytes = tslb_da_get_slotsz(from, nullptr) - tslb_da_get_record_size(from);
  const uint64_t room = static_cast<uint64_t>(INT_MAX - tslb_dynmem_get_hdrsz(from));
  return static_cast<uint32_t>(room / std::max<uint64_t>(node_bytes + to_bytes, 1));
}

// Issues ids until `array` has as many as requested, with their memory.
bool issue_ids(dynarr_t *array, uint32_t n_used) {
  while (tslb_da_get_size(array) < n_used) {
    void *record = nullptr;
    get_dyn_arr_new_record_id_ex(array, &record, array->daflag);
    if (record == nullptr) return false;
  }
  return true;
}

// The array that a conversion makes.
struct destination_t {
  uint32_t n_direct;
  char mem_type;
  const char *ctx_name;
  int32_t tbl_id;
};

array_t make_array(dynarr_t *from, const array_conversion_t &conversion, const destination_t &destination,
                   refusal_t *refusal) {
  const uint32_t n_used = tslb_da_get_size(from);
  array_t to(get_default_dyn_array_ex_ex(
      dyn_hdr_of(from)->hdr_size, static_cast<int32_t>(conversion.to_bytes), static_cast<int32_t>(destination.n_direct),
      destination.mem_type, destination.tbl_id, destination.ctx_name, from->daflag, conversion.to_version));
  if (to != nullptr && issue_ids(to.get(), n_used)) return to;
  refusal->add("cannot create an array of version %u for %u records: %s", conversion.to_version, n_used,
               strerror(errno));
  return nullptr;
}

// Converts one record of an array with nodes or without. Returns the result of the converter.
int convert_record(const array_conversion_t &conversion, bool is_free, const char *from, char *to) {
  if (is_free) {
    memcpy(to, from, sizeof(uint32_t));  // the gatekeeper word
    return 0;
  }
  return conversion.convert(conversion.arg, conversion.from_version, from, conversion.from_bytes, to,
                            conversion.to_bytes);
}

bool convert_slots(dynarr_t *from, dynarr_t *to, const array_conversion_t &conversion, refusal_t *refusal) {
  const layout_t old_layout(from), layout(to);
  for (uint32_t idx = 0; idx < tslb_da_get_size(from); ++idx) {
    const char *const old_record = static_cast<const char *>(tslb_da_get_ptr(from, idx));
    char *const record = static_cast<char *>(tslb_da_get_ptr(to, idx));
    if (old_record == nullptr || record == nullptr) {
      refusal->add("record %u has no memory", idx);
      return false;
    }
    memcpy(record - layout.front_bytes, old_record - layout.front_bytes, layout.front_bytes);
    memcpy(record + layout.record_bytes, old_record + old_layout.record_bytes, layout.back_bytes);
    uint32_t status = TSLB_DA_SLOT_ACTIVE;
    if (layout.front_bytes != 0)
      memcpy(&status, old_record - layout.front_bytes + offsetof(node_fw, status), sizeof status);
    if (const int result = convert_record(conversion, status == TSLB_DA_SLOT_FREE, old_record, record); result != 0) {
      refusal->add("record %u cannot be converted from version %u to %u: the converter returned %d", idx,
                   conversion.from_version, conversion.to_version, result);
      return false;
    }
  }
  return true;
}

// Copies the user header and the list roots, with the reuse policy.
void copy_roots(dynarr_t *from, dynarr_t *to) {
  const DynHdr_t *const hdr = dyn_hdr_of(from);
  memcpy(tslb_da_get_usrhdr(to), tslb_da_get_usrhdr(from), size_t{hdr->hdr_size} + hdr->lli_sz);
}

recovery_result_t make_converted(dynarr_t *from, const array_conversion_t &conversion, const destination_t &destination,
                                 array_t *to, refusal_t *refusal) {
  *to = make_array(from, conversion, destination, refusal);
  if (*to == nullptr) return RECOVERY_FAILED;
  copy_roots(from, to->get());
  return convert_slots(from, to->get(), conversion, refusal) ? RECOVERY_DONE : RECOVERY_DOES_NOT_FIT;
}

recovery_result_t convert(dynarr_t *from, const array_conversion_t &conversion, const destination_t &destination,
                          array_t *to, refusal_t *refusal) {
  const auto &[n_direct, mem_type, ctx_name, tbl_id] = destination;
  if (!fits(from, conversion, refusal)) return RECOVERY_DOES_NOT_FIT;
  if (!is_new(mem_type, ctx_name, tbl_id, refusal)) return RECOVERY_FAILED;
  const recovery_result_t result = make_converted(from, conversion, destination, to, refusal);
  if (result == RECOVERY_DONE) return result;
  to->reset();
  // A part of the records would load as a sound array.
  if (mem_type == MPOOL_TYPE_SHM && remove_block_files(g_base_path, ctx_name, tbl_id) != 0)
    refusal->add("; block files of table %d were not removed: %s", tbl_id, strerror(errno));
  return result;
}

}  // namespace

recovery_result_t array_convert(DynamicArray_t from, const array_conversion_t *conversion, char mem_type,
                                const char *ctx_name, int32_t tbl_id, DynamicArray_t *to, char *error,
                                size_t error_size) {
  refusal_t refusal(error, error_size);
  array_t converted;
  const destination_t destination = {get_dyn_hdr(from)->n_direct, mem_type, ctx_name, tbl_id};
  const recovery_result_t result = convert(from, *conversion, destination, &converted, &refusal);
  *to = converted.release();
  return result;
}

recovery_result_t array_convert_stream(int fd_in, int fd_out, const array_conversion_t *conversion, int dry_run,
                                       recovery_counts_t *counts, char *error, size_t error_size) {
  *counts = {};
  refusal_t refusal(error, error_size);
  const array_load_options_t options = {.ctx_name = nullptr,
                                        .tbl_id = 0,
                                        .mem_type = MPOOL_TYPE_DRAM,
                                        .kind = ARRAY_LOAD_ANY,
                                        .max_block_bytes = 0,
                                        .rec_version = ARRAY_LOAD_ANY_VERSION,
                                        .record_size = ARRAY_LOAD_ANY_SIZE};
  uint32_t n_direct = 0;
  const array_t from(load_stream_for_conversion(fd_in, &options, &refusal, &n_direct));
  if (from == nullptr) return RECOVERY_BAD_STREAM;
  array_t to;
  // The ids of slots do not depend on n_direct, so records that became longer can be in data blocks.
  const uint32_t room = direct_room(from.get(), conversion->to_bytes);
  const destination_t destination = {std::min(uint32_t{get_dyn_hdr(from.get())->n_direct}, room), MPOOL_TYPE_DRAM,
                                     nullptr, 0};
  const recovery_result_t result = convert(from.get(), *conversion, destination, &to, &refusal);
  if (result != RECOVERY_DONE) return result;
  return finish_conversion(from.get(), to.get(), std::min(n_direct, room), dry_run != 0, fd_out, counts, &refusal);
}
