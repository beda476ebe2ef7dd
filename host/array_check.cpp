// The checks that the loaders and whoever keeps an array share. Positions are those of the flat image; what is read
// may contradict itself in any way.
#include "array_check.h"

#include <limits.h>
#include <stdio.h>
#include <string.h>

#include "array_check_internal.h"
#include "array_loader.h"
#include "tslb_dynmem.h"

constexpr uint8_t LIB_VERSION = 2;
constexpr uint32_t RING_SLOTS = 254;  // of a bit-vector pool of MPOOL_TYPE_DRAM_TMP

void refusal_t::add_values(const char *format, va_list values) {
  if (used_ >= size_) return;
  const int len = vsnprintf(text_ + used_, size_ - used_, format, values);
  if (len > 0) used_ += static_cast<size_t>(len);
}

void refusal_t::add(const char *format, ...) {
  va_list values;
  va_start(values, format);
  add_values(format, values);
  va_end(values);
}

void memory_places_t::tell_place(uint64_t pos, refusal_t *refusal) const {
  refusal->add("byte %llu", static_cast<unsigned long long>(pos));
}

bool image_check_t::refuse_at(uint64_t pos, const char *format, ...) {
  places_->tell_place(pos, refusal_);
  refusal_->add(": ");
  va_list values;
  va_start(values, format);
  refusal_->add_values(format, values);
  va_end(values);
  return false;
}

// ---- Headers -------------------------------------------------------------------------------------------------------

bool image_check_t::start_is_sound(const DynHdr_t &hdr) {
  // Ahead of all else: with another version or size the rest does not stand where we look.
  if (hdr.lib_version != LIB_VERSION)
    return refuse_at(offsetof(DynHdr_t, lib_version), "lib_version %u, which is not %u", hdr.lib_version, LIB_VERSION);
  if (hdr.lli_sz != 0 && hdr.lli_sz != sizeof(DynArrLLI_t))
    return refuse_at(offsetof(DynHdr_t, lli_sz), "lli_sz %u, which is neither 0 nor 60", hdr.lli_sz);
  hdr_ = hdr;
  shape_.header_bytes = arr_hdr_at() + sizeof(DynArrHdr_t);
  return true;
}

bool image_check_t::headers_are_sound(const char *headers, uint64_t max_block_bytes) {
  constexpr uint8_t LIST_FLAGS = TSLB_DA_DAFLAG_LL | TSLB_DA_DAFLAG_INLL;
  headers_ = headers;
  if (hdr_.lli_sz != 0) memcpy(&lli_, headers + lli_at(), sizeof(lli_));
  static_assert(sizeof(arr_hdr_) == sizeof(DynArrHdr_t), "its fields, without the tail");
  memcpy(&arr_hdr_, headers + arr_hdr_at(), sizeof(arr_hdr_));
  if (hdr_.lli_sz != 0 && (lli_.lltype & LIST_FLAGS) == 0)
    return refuse_at(lli_at() + offsetof(DynArrLLI_t, lltype), "lltype 0x%02x has no list, lli_sz says there is one",
                     lli_.lltype);
  shape_.daflag = lli_.lltype;
  shape_.shift = hdr_.lli_sz != 0 ? sizeof(node_fw) : 0;
  const uint64_t node_bytes = shape_.shift + ((shape_.daflag & TSLB_DA_DAFLAG_INLL) != 0 ? sizeof(node_bw) : 0);
  shape_.slot_bytes = arr_hdr_.record_size + node_bytes;
  shape_.n_direct = arr_hdr_.n_direct;
  shape_.n_used = arr_hdr_.n_used;
  return sizes_are_sound(max_block_bytes);
}

// What creation would refuse, and what would let a few bytes claim much memory.
bool image_check_t::sizes_are_sound(uint64_t max_block_bytes) {
  const uint64_t n_used_at = arr_hdr_at() + offsetof(DynArrHdr_t, n_used);
  const uint64_t record_size_at = arr_hdr_at() + offsetof(DynArrHdr_t, record_size);
  if (shape_.n_direct > INT_MAX)
    return refuse_at(arr_hdr_at() + offsetof(DynArrHdr_t, n_direct), "n_direct %u is beyond what an array can have",
                     shape_.n_direct);
  if (shape_.n_used > shape_.n_direct + IDS_BEYOND_DIRECT)
    return refuse_at(n_used_at, "n_used %u is beyond what an array with n_direct %u can have", shape_.n_used,
                     shape_.n_direct);
  // No number of bytes could vouch for the number of such slots.
  if (shape_.slot_bytes == 0 && shape_.n_used != 0)
    return refuse_at(record_size_at, "record_size 0 with %u slots in use", shape_.n_used);

  const uint64_t limit = max_block_bytes != 0 ? max_block_bytes : UINT64_MAX;
  // No overflow: a slot takes less than 2^33 bytes, and n_direct is below 2^31.
  const uint64_t block0_bytes = shape_.header_bytes + shape_.slot_bytes * shape_.n_direct;
  const uint64_t block_bytes = shape_.slot_bytes * SLOTS_PER_BLOCK;
  if (block_bytes > UINT32_MAX)
    return refuse_at(record_size_at, "record_size %u is beyond what an array can have", arr_hdr_.record_size);
  if (block0_bytes > INT_MAX || block0_bytes > limit)
    return refuse_at(arr_hdr_at() + offsetof(DynArrHdr_t, n_direct),
                     "n_direct %u with slots of %llu bytes takes more than block 0 may", shape_.n_direct,
                     static_cast<unsigned long long>(shape_.slot_bytes));
  if (shape_.n_used > shape_.n_direct && block_bytes > limit)
    return refuse_at(record_size_at, "record_size %u makes a block of 16 slots larger than it may be",
                     arr_hdr_.record_size);
  return true;
}

bool image_check_t::records_are_expected(int16_t rec_version, uint32_t record_size) {
  if (rec_version != ARRAY_LOAD_ANY_VERSION && hdr_.rec_version != rec_version)
    return refuse_at(offsetof(DynHdr_t, rec_version), "rec_version %u, where %d is expected", hdr_.rec_version,
                     rec_version);
  if (record_size != ARRAY_LOAD_ANY_SIZE && arr_hdr_.record_size != record_size)
    return refuse_at(arr_hdr_at() + offsetof(DynArrHdr_t, record_size), "record_size %u, where %u is expected",
                     arr_hdr_.record_size, record_size);
  return true;
}

bool image_check_t::pool_is_sound(uint8_t kind, char mem_type) {
  const bool fits = hdr_.hdr_size == sizeof(DynMemHdr_t);
  if (kind == ARRAY_LOAD_ANY || (kind == ARRAY_LOAD_POOL_BY_SIZE && !fits)) return true;
  if (!fits) return refuse_at(offsetof(DynHdr_t, hdr_size), "hdr_size %u, a pool has 56", hdr_.hdr_size);

  DynMemHdr_t pool;
  memcpy(&pool, headers_ + sizeof(DynHdr_t), sizeof(pool));
  const uint64_t mslot_sz_at = sizeof(DynHdr_t) + offsetof(DynMemHdr_t, mslot_sz);
  if (uint64_t{pool.mslot_sz} + sizeof(MemSlot_t) != arr_hdr_.record_size)
    return refuse_at(mslot_sz_at, "mslot_sz %u does not go with record_size %u", pool.mslot_sz, arr_hdr_.record_size);
  // Every creator rounds up: the counters in a slot are aligned.
  if (pool.mslot_sz % sizeof(uint32_t) != 0)
    return refuse_at(mslot_sz_at, "mslot_sz %u is no multiple of 4", pool.mslot_sz);
  if (mem_type == MPOOL_TYPE_DRAM_TMP && (pool.flag & MPOOL_FLAG_BV) != 0 && shape_.n_used > RING_SLOTS)
    return refuse_at(arr_hdr_at() + offsetof(DynArrHdr_t, n_used), "n_used %u, and a ring has %u slots", shape_.n_used,
                     RING_SLOTS);
  return cursor_is_sound(pool.cur_slot_addr, pool.mslot_sz);
}

bool image_check_t::cursor_is_sound(uint64_t cursor, uint32_t mslot_sz) {
  MemSlotAddr_t at;
  memcpy(&at, &cursor, sizeof(at));
  const uint64_t cursor_at = sizeof(DynHdr_t) + offsetof(DynMemHdr_t, cur_slot_addr);
  if (at.mslot_idx != NO_SLOT && at.mslot_idx >= shape_.n_used)
    return refuse_at(cursor_at, "cur_slot_addr names slot %u of %u", at.mslot_idx, shape_.n_used);
  if (at.byte_off > mslot_sz)
    return refuse_at(cursor_at + offsetof(MemSlotAddr_t, byte_off), "cur_slot_addr stands at byte %u of a slot of %u",
                     at.byte_off, mslot_sz);
  if (at.mslot_idx != NO_SLOT && at.mslot_idx == shape_.n_used - 1)
    last_slot_bytes_ = uint64_t{at.byte_off} + shape_.shift + sizeof(MemSlot_t);
  return true;
}

// ---- Lists ---------------------------------------------------------------------------------------------------------

bool image_check_t::lists_are_sound(DynArrHandle_t *array) {
  array_ = array;
  if (hdr_.lli_sz == 0) return true;
  const auto at = [this](size_t offset) { return lli_at() + offset; };
  const list_t free_list = {"the free list",
                            lli_.free_head,
                            lli_.free_tail,
                            lli_.n_free,
                            at(offsetof(DynArrLLI_t, free_head)),
                            at(offsetof(DynArrLLI_t, free_tail)),
                            at(offsetof(DynArrLLI_t, n_free)),
                            TSLB_DA_SLOT_FREE,
                            false};
  const list_t inactive_list = {"the inactive list",
                                lli_.inact_head,
                                lli_.inact_tail,
                                lli_.n_inact,
                                at(offsetof(DynArrLLI_t, inact_head)),
                                at(offsetof(DynArrLLI_t, inact_tail)),
                                at(offsetof(DynArrLLI_t, n_inact)),
                                TSLB_DA_SLOT_INACTIVE,
                                true};
  const bool has_inactive = (shape_.daflag & TSLB_DA_DAFLAG_INLL) != 0;
  if (!has_inactive && (lli_.inact_head != NO_SLOT || lli_.inact_tail != NO_SLOT || lli_.n_inact != 0))
    return refuse_at(inactive_list.head_at, "an inactive list where lltype 0x%02x has none", lli_.lltype);
  return list_is_sound(free_list) && (!has_inactive || list_is_sound(inactive_list)) &&
         all_are_listed(free_list, inactive_list);
}

// The count bounds the walk, and n_used the count: links that run in a ring end it too.
bool image_check_t::list_is_sound(const list_t &list) {
  if (list.count > shape_.n_used)
    return refuse_at(list.count_at, "%s counts %u slots of %u", list.name, list.count, shape_.n_used);
  uint64_t link_at = list.head_at;
  uint32_t before = NO_SLOT, n_members = 0;
  for (uint32_t idx = list.head; idx != NO_SLOT; idx = fw_of(idx)->next) {
    if (idx >= shape_.n_used) return refuse_at(link_at, "%s names slot %u of %u", list.name, idx, shape_.n_used);
    if (n_members == list.count)
      return refuse_at(list.count_at, "%s counts %u slots and goes on behind them", list.name, list.count);
    if (!member_is_sound(list, idx, before)) return false;
    link_at = slot_at(idx) + offsetof(node_fw, next);
    before = idx;
    ++n_members;
  }
  if (n_members != list.count)
    return refuse_at(list.count_at, "%s counts %u slots and has %u", list.name, list.count, n_members);
  if (before != list.tail)
    return refuse_at(list.tail_at, "tail %u of %s, which ends with %u", list.tail, list.name, before);
  return true;
}

bool image_check_t::member_is_sound(const list_t &list, uint32_t idx, uint32_t before) {
  const uint32_t status = fw_of(idx)->status;
  if (status != list.status) return refuse_at(slot_at(idx), "status %u on %s, slot %u", status, list.name, idx);
  if (!list.has_prev) return true;
  const uint32_t prev = bw_of(idx)->prev;
  if (prev != before)
    return refuse_at(slot_at(idx) + shape_.shift + arr_hdr_.record_size,
                     "prev %u of slot %u on %s, where %u comes before it", prev, idx, list.name, before);
  return true;
}

// A slot that claims to be on a list and is not would pull the list apart when it leaves. Members are distinct, so
// counting is enough.
bool image_check_t::all_are_listed(const list_t &free_list, const list_t &inactive_list) {
  uint32_t n_free = 0, n_inactive = 0;
  for (uint32_t idx = 0; idx < shape_.n_used; ++idx) {
    const uint32_t status = fw_of(idx)->status;
    n_free += status == TSLB_DA_SLOT_FREE ? 1 : 0;
    n_inactive += status == TSLB_DA_SLOT_INACTIVE ? 1 : 0;
  }
  if (n_free != free_list.count)
    return refuse_at(free_list.count_at, "%u slots say that they are free, n_free counts %u", n_free, free_list.count);
  if (n_inactive != inactive_list.count)
    return refuse_at(inactive_list.count_at, "%u slots say that they are inactive, n_inact counts %u", n_inactive,
                     inactive_list.count);
  return true;
}

// ---- In memory -----------------------------------------------------------------------------------------------------

// The handle is what the library goes by, the headers are what is stored.
static bool handle_agrees(const DynArrHandle_t *array, const image_check_t &check, refusal_t *refusal) {
  const image_shape_t &shape = check.shape();
  if (array->daflag == shape.daflag && array->n_direct == shape.n_direct) return true;
  refusal->add("the headers say lltype 0x%02x and n_direct %u, the handle 0x%02x and %u", shape.daflag, shape.n_direct,
               array->daflag, array->n_direct);
  return false;
}

static bool all_have_memory(DynArrHandle_t *array, uint32_t n_used, refusal_t *refusal) {
  for (uint32_t idx = 0; idx < n_used; ++idx) {
    if (tslb_da_get_ptr(array, idx) != nullptr) continue;
    refusal->add("no memory for slot %u", idx);
    return false;
  }
  return true;
}

int array_check(DynamicArray_t array, uint8_t kind, char *error, size_t error_size) {
  refusal_t refusal(error, error_size);
  const memory_places_t places;
  image_check_t check(&places, &refusal);
  const char *const headers = static_cast<const char *>(array->arr_base);
  DynHdr_t hdr;
  memcpy(&hdr, headers, sizeof(hdr));
  const bool is_sound = check.start_is_sound(hdr) && check.headers_are_sound(headers, 0) &&
                        handle_agrees(array, check, &refusal) && check.pool_is_sound(kind, array->mem_type) &&
                        all_have_memory(array, check.shape().n_used, &refusal) && check.lists_are_sound(array);
  return is_sound ? 0 : -1;
}
