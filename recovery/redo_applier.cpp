// Applies one redo record to an array in memory. Headers can be unaligned, so they are compared as bytes.
#include <tslb/redo_applier.h>

#include <stdarg.h>
#include <string.h>

#include <tslb/array_loader.h>
#include <tslb/tslb_dynmem.h>
#include <tslb/tslb_rd_api.h>
#include "array_check_internal.h"

namespace {

constexpr uint32_t NO_AUX = 0xFFFFFFFFu;

// A part of the headers that a record must not change.
struct fixed_part_t {
  uint64_t at;
  size_t bytes;
  const char *name;
};

class applier_t {
 public:
  applier_t(DynArrHandle_t *array, const redo_args_t *record, uint8_t kind, uint32_t max_slots, refusal_t *refusal)
      : array_(array), record_(record), kind_(kind), max_slots_(max_slots), refusal_(refusal) {
    const DynHdr_t *const hdr = static_cast<const DynHdr_t *>(tslb_da_get_dynhdr(array));
    hdr_size_ = hdr->hdr_size;
    lli_sz_ = hdr->lli_sz;
    slot_bytes_ = tslb_da_get_slotsz(array, &shift_);
  }

  bool apply() {
    if (!is_addressed()) return false;
    if (record_->rec_type == TSLB_REDO_GROWTH) return apply_growth();
    if (record_->data_ptr == nullptr || record_->data_sz == 0) return refuse("no bytes");
    return record_->data_off < header_bytes() ? apply_headers() : apply_slot();
  }

 private:
  bool is_addressed();
  bool apply_growth();
  bool apply_headers();
  bool apply_slot();
  bool part_is_kept(const fixed_part_t &part);
  bool fixed_parts_are_kept();
  bool make_slots(uint64_t count);
  bool refuse(const char *format, ...) __attribute__((format(printf, 2, 3)));

  bool is_pool() const {
    return kind_ != ARRAY_LOAD_ANY && hdr_size_ == sizeof(DynMemHdr_t) && slot_bytes_ >= sizeof(MemSlot_t);
  }
  uint64_t lli_at() const { return sizeof(DynHdr_t) + hdr_size_; }
  uint64_t arr_hdr_at() const { return lli_at() + lli_sz_; }
  uint64_t header_bytes() const { return arr_hdr_at() + sizeof(DynArrHdr_t); }
  const char *bytes() const { return static_cast<const char *>(record_->data_ptr); }

  DynArrHandle_t *const array_;
  const redo_args_t *const record_;
  const uint8_t kind_;
  const uint32_t max_slots_;
  refusal_t *const refusal_;
  uint32_t hdr_size_, lli_sz_, slot_bytes_;
  int shift_ = 0;
};

bool applier_t::refuse(const char *format, ...) {
  refusal_->add("record at %llu: ", static_cast<unsigned long long>(record_->data_off));
  va_list values;
  va_start(values, format);
  refusal_->add_values(format, values);
  va_end(values);
  return false;
}

bool applier_t::is_addressed() {
  if (array_->mem_type == MPOOL_TYPE_SHM || array_->mem_type == MPOOL_TYPE_PMEM)
    return refuse("the array is of mem_type %d, not in process memory", array_->mem_type);
  if (record_->tbl_id != array_->tbl_id)
    return refuse("table id %d, but the array has %d", static_cast<int>(record_->tbl_id),
                  static_cast<int>(array_->tbl_id));
  const size_t len = strlen(array_->ctx_name);
  if (record_->ctx_name_len != len || (len != 0 && memcmp(record_->ctx_name, array_->ctx_name, len) != 0))
    return refuse("the context name is not \"%s\"", array_->ctx_name);
  if (record_->aux_idx != NO_AUX) return refuse("aux_idx %u is not supported", record_->aux_idx);
  return true;
}

// ---- Growth --------------------------------------------------------------------------------------------------------

// The position of a growth record is the pool's size. In a pool without nodes no other record shows that a slot was
// taken. The size of such a pool never shrinks: a smaller size comes from a thread whose record was written late. The
// size of a pool with nodes shrinks if a 64-bit chunk is put into a reused slot.
bool applier_t::apply_growth() {
  if (!is_pool()) return refuse("growth of an array that is not a pool");
  if (record_->data_sz != 0) return refuse("growth with %u bytes", record_->data_sz);
  const uint64_t size = record_->data_off;
  const uint64_t slots = array_->n_direct > max_slots_ ? array_->n_direct : max_slots_;
  if (size < header_bytes() || size > header_bytes() + slots * slot_bytes_)
    return refuse("growth to a size out of range for %llu slots", static_cast<unsigned long long>(slots));
  if (lli_sz_ == 0 && !make_slots((size - header_bytes()) / slot_bytes_)) return false;
  DynMemHdr_t *const pool = static_cast<DynMemHdr_t *>(tslb_da_get_usrhdr(array_));
  if (lli_sz_ != 0 || size > pool->total_msz) pool->total_msz = size;
  return true;
}

// Issues ids until `count` are in use. This allocates their memory.
bool applier_t::make_slots(uint64_t count) {
  if (count > max_slots_)
    return refuse("slot %llu, but the maximum is %u slots", static_cast<unsigned long long>(count - 1), max_slots_);
  if (count > array_->n_direct + TSLB_IDS_BEYOND_DIRECT)
    return refuse("slot %llu is more than an array can have", static_cast<unsigned long long>(count - 1));
  while (tslb_da_get_size(array_) < count) {
    void *record;
    get_dyn_arr_new_record_id_ex(array_, &record, array_->daflag);
    if (record == nullptr) return refuse("no memory for slot %u", tslb_da_get_size(array_) - 1);
  }
  return true;
}

// ---- Bytes ---------------------------------------------------------------------------------------------------------

bool applier_t::part_is_kept(const fixed_part_t &part) {
  if (memcmp(bytes() + part.at, static_cast<const char *>(array_->arr_base) + part.at, part.bytes) == 0) return true;
  return refuse("%s differs from the array's", part.name);
}

bool applier_t::fixed_parts_are_kept() {
  const fixed_part_t parts[] = {{0, sizeof(DynHdr_t), "DynHdr_t"},
                                {arr_hdr_at() + offsetof(DynArrHdr_t, n_direct), 8, "n_direct or record_size"}};
  const fixed_part_t list_parts[] = {{lli_at() + offsetof(DynArrLLI_t, lltype), 4, "lltype"}};
  const fixed_part_t pool_parts[] = {{sizeof(DynHdr_t) + offsetof(DynMemHdr_t, flag), 2, "the pool's flag"},
                                     {sizeof(DynHdr_t) + offsetof(DynMemHdr_t, mslot_sz), 4, "mslot_sz"}};
  for (const fixed_part_t &part : parts)
    if (!part_is_kept(part)) return false;
  for (const fixed_part_t &part : list_parts)
    if (lli_sz_ != 0 && !part_is_kept(part)) return false;
  for (const fixed_part_t &part : pool_parts)
    if (is_pool() && !part_is_kept(part)) return false;
  return true;
}

bool applier_t::apply_headers() {
  if (record_->data_off != 0 || record_->data_sz != header_bytes())
    return refuse("%u bytes, but the headers are %llu bytes at 0", record_->data_sz,
                  static_cast<unsigned long long>(header_bytes()));
  if (!fixed_parts_are_kept()) return false;
  uint32_t n_used;
  memcpy(&n_used, bytes() + arr_hdr_at() + offsetof(DynArrHdr_t, n_used), sizeof(n_used));
  if (n_used < tslb_da_get_size(array_))
    return refuse("n_used %u, but %u ids are in use", n_used, tslb_da_get_size(array_));
  if (n_used != 0 && !make_slots(n_used)) return false;
  // DynArrHdr_t is not copied: n_used is correct after make_slots, and the other fields are the replica's.
  memcpy(array_->arr_base, bytes(), arr_hdr_at());
  return true;
}

bool applier_t::apply_slot() {
  if (slot_bytes_ == 0) return refuse("bytes for an array whose slots have none");
  const uint64_t idx = (record_->data_off - header_bytes()) / slot_bytes_;
  const uint64_t within = (record_->data_off - header_bytes()) % slot_bytes_;
  if (within + record_->data_sz > slot_bytes_)
    return refuse("%u bytes at byte %llu of slot %llu, but the slot has %u", record_->data_sz,
                  static_cast<unsigned long long>(within), static_cast<unsigned long long>(idx), slot_bytes_);
  if (!make_slots(idx + 1)) return false;
  char *const record = static_cast<char *>(tslb_da_get_ptr(array_, static_cast<uint32_t>(idx)));
  if (record == nullptr) return refuse("no memory for slot %llu", static_cast<unsigned long long>(idx));
  memcpy(record - shift_ + within, bytes(), record_->data_sz);
  return true;
}

}  // namespace

int redo_apply(DynamicArray_t array, const redo_args_t *record, uint8_t kind, uint32_t max_slots, char *error,
               size_t error_size) {
  refusal_t refusal(error, error_size);
  return applier_t(array, record, kind, max_slots, &refusal).apply() ? 0 : -1;
}
