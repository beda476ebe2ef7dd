#include "stored_array.h"

#include <fmt/format.h>
#include <tslb/tslb_stored.h>

#include <algorithm>
#include <cstring>
#include <string_view>

#include "checksum.h"
#include "store_error.h"

namespace tslb_durable {
namespace {

constexpr size_t MAX_NAME_BYTES = 31;
constexpr uint32_t MAX_MSLOT_BYTES = 1u << 24;
constexpr uint8_t PERSISTENT = 1;
// The limit of the library counts slots that have memory, and stops a pool that has free slots. ChunkRoom has its own.
constexpr int16_t NO_LIMIT = 0;

[[noreturn]] void refuse_memory(const std::string &name) {
  throw StoreError(TSLB_DURABLE_NO_MEMORY, fmt::format("array \"{}\": memory was refused", name));
}

bool is_name(std::string_view name) {
  constexpr std::string_view ALLOWED = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-";
  return !name.empty() && name.size() <= MAX_NAME_BYTES && name.find_first_not_of(ALLOWED) == name.npos;
}

// Returns why a declaration is invalid; empty if it is not.
std::string fault_of(const tslb_array_decl_t &decl) {
  if (const int kind = raw_value(decl.kind); kind < TSLB_ARRAY_RECORDS || kind > TSLB_POOL_BIT_VECTOR)
    return fmt::format("unknown kind {}", kind);
  constexpr uint8_t LIST_FLAGS = TSLB_DA_DAFLAG_LL | TSLB_DA_DAFLAG_INLL;
  if ((decl.daflag & ~LIST_FLAGS) != 0) return fmt::format("unknown bits in daflag {:#x}", decl.daflag);
  if (decl.kind == TSLB_ARRAY_RECORDS && decl.daflag != 0) return "a record array has no lists";
  if (decl.kind == TSLB_ARRAY_SLOTS && decl.daflag == 0) return "a slot array needs TSLB_DA_DAFLAG_LL or _INLL";
  if (decl.record_bytes == 0) return "records without bytes";
  if (decl.kind == TSLB_ARRAY_SLOTS && decl.record_bytes < sizeof(uint32_t))
    return "a slot's record has 4 bytes or more";
  if (is_pool(decl.kind) && (decl.record_bytes % 4 != 0 || decl.record_bytes > MAX_MSLOT_BYTES))
    return fmt::format("memory slots of {} bytes: must be a multiple of 4, and at most {}", decl.record_bytes,
                       MAX_MSLOT_BYTES);
  if (!is_pool(decl.kind) && (decl.has_compat != 0 || decl.max_slots != 0))
    return "has_compat and max_slots are for pools";
  if (decl.max_slots < 0) return fmt::format("max_slots {}", decl.max_slots);
  if (decl.reuse_policy != nullptr && (decl.daflag & TSLB_DA_DAFLAG_INLL) == 0)
    return "a reuse policy needs TSLB_DA_DAFLAG_INLL";
  if (decl.description != nullptr && std::strchr(decl.description, '\n') != nullptr) return "a description is one line";
  return {};
}

ArrayDecl copied(const tslb_array_decl_t &decl) {
  ArrayDecl own;
  own.name = decl.name;
  own.kind = decl.kind;
  own.tbl_id = decl.tbl_id;
  own.record_bytes = decl.record_bytes + (is_pool(decl.kind) ? TSLB_MEM_SLOT_HDR_BYTES : 0);
  own.n_direct = decl.n_direct;
  own.daflag = decl.daflag;
  own.rec_version = decl.rec_version;
  own.has_compat = decl.has_compat != 0;
  own.max_slots = decl.max_slots;
  if (decl.reuse_policy != nullptr) own.reuse_policy = *decl.reuse_policy;
  if (decl.description != nullptr) own.description = decl.description;
  own.convert = decl.convert;
  own.convert_arg = decl.convert_arg;
  own.converts_newer = decl.converts_newer != 0;
  own.compresses = decl.compresses != 0;
  return own;
}

const DynHdr_t *dyn_hdr_of(DynArrHandle_t *array) {
  return static_cast<const DynHdr_t *>(tslb_da_get_dynhdr(array));
}

uint32_t arr_hdr_at(DynArrHandle_t *array) {
  return static_cast<uint32_t>(sizeof(DynHdr_t) + dyn_hdr_of(array)->hdr_size + dyn_hdr_of(array)->lli_sz);
}

// Issues ids until `array` has as many as requested, with their memory.
void issue_ids(DynArrHandle_t *array, uint32_t n_used) {
  while (tslb_da_get_size(array) < n_used) {
    void *record = nullptr;
    get_dyn_arr_new_record_id_ex(array, &record, array->daflag);
    if (record == nullptr) refuse_memory(array->ctx_name);
  }
}

std::string different(const char *what, uint64_t stored, uint64_t declared) {
  return stored == declared ? "" : fmt::format("{} {} is stored, but {} is declared", what, stored, declared);
}

}  // namespace

std::vector<ArrayDecl> checked_decls(const tslb_array_decl_t *decls, uint32_t n_decls) {
  std::vector<ArrayDecl> own;
  for (uint32_t i = 0; i < n_decls; ++i) {
    if (decls[i].name == nullptr || !is_name(decls[i].name))
      throw StoreError(TSLB_DURABLE_INVALID, fmt::format("declaration {}: the name is missing or has other characters "
                                                         "than a-z, A-Z, 0-9, '_' and '-', or more than {}",
                                                         i, MAX_NAME_BYTES));
    std::string fault = fault_of(decls[i]);
    for (const ArrayDecl &other : own)
      if (other.name == decls[i].name) fault = "the name is declared twice";
    if (!fault.empty()) throw StoreError(TSLB_DURABLE_INVALID, fmt::format("array \"{}\": {}", decls[i].name, fault));
    own.push_back(copied(decls[i]));
  }
  return own;
}

Geometry::Geometry(DynArrHandle_t *array) {
  int shift_bytes = 0;
  header_bytes = static_cast<uint32_t>(tslb_dynmem_get_hdrsz(array));
  slot_bytes = tslb_da_get_slotsz(array, &shift_bytes);
  shift = static_cast<uint32_t>(shift_bytes);
  record_bytes = tslb_da_get_record_size(array);
}

char *slot_start(DynArrHandle_t *array, const Geometry &geometry, uint32_t idx) {
  char *const record = static_cast<char *>(tslb_da_get_ptr(array, idx));
  if (record == nullptr) refuse_memory(array->ctx_name);
  return record - geometry.shift;
}

uint32_t n_alloc_at(DynArrHandle_t *array) {
  return arr_hdr_at(array) + static_cast<uint32_t>(offsetof(DynArrHdr_t, n_alloc));
}

size_t bytes_to_unused(const char *slot, const Geometry &geometry) {
  MemSlot_t head;
  std::memcpy(&head, slot + geometry.shift, sizeof head);
  const bool is_free = geometry.shift != 0 && reinterpret_cast<const node_fw *>(slot)->status == TSLB_DA_SLOT_FREE;
  const size_t unused = geometry.shift + sizeof head + (is_free ? 0 : head.bytes_used);
  return std::min<size_t>(unused, geometry.shift + geometry.record_bytes);
}

Digest digest_of(DynArrHandle_t *array) {
  const Geometry geometry(array);
  const auto *const headers = static_cast<const char *>(array->arr_base);
  const uint32_t hidden = n_alloc_at(array), zero = 0, after = hidden + static_cast<uint32_t>(sizeof zero);
  uint32_t checksum = crc32c(headers, hidden);
  checksum = crc32c(&zero, sizeof zero, checksum);
  checksum = crc32c(headers + after, geometry.header_bytes - after, checksum);
  const bool has_unused =
      dyn_hdr_of(array)->hdr_size == TSLB_POOL_HDR_BYTES && (pool_header_of(array)->flag & MPOOL_FLAG_COMPAT) != 0;
  const size_t end = geometry.shift + geometry.record_bytes;
  const uint32_t n_used = tslb_da_get_size(array);
  for (uint32_t idx = 0; idx < n_used; ++idx) {
    const char *const slot = slot_start(array, geometry, idx);
    checksum = crc32c(slot, has_unused ? bytes_to_unused(slot, geometry) : end, checksum);
    checksum = crc32c(slot + end, geometry.slot_bytes - end, checksum);
  }
  return {checksum, tslb_stored_slot_at(geometry.header_bytes, geometry.slot_bytes, n_used)};
}

uint8_t rec_version_of(DynArrHandle_t *array) {
  return dyn_hdr_of(array)->rec_version;
}

Array create_array(const ArrayDecl &decl) {
  const auto n_direct = static_cast<int>(decl.n_direct);
  Array array(is_pool(decl.kind)
                  ? tslb_init_dynmem_ex1(static_cast<int>(decl.record_bytes - TSLB_MEM_SLOT_HDR_BYTES), n_direct,
                                         decl.has_compat ? MPOOL_FLAG_COMPAT : 0, MPOOL_TYPE_DRAM,
                                         decl.kind == TSLB_POOL_BIT_VECTOR ? MPOOL_FLAG_BV : 0, decl.name.c_str(),
                                         decl.tbl_id, decl.daflag, decl.rec_version, PERSISTENT, NO_LIMIT)
                  : tslb_da_init_ver(static_cast<int>(decl.record_bytes), n_direct, MPOOL_TYPE_DRAM, decl.name.c_str(),
                                     decl.tbl_id, decl.daflag, decl.rec_version));
  if (!array) refuse_memory(decl.name);
  return array;
}

Array copy_of(DynArrHandle_t *array) {
  Array copy(get_default_dyn_array_ex_ex(
      dyn_hdr_of(array)->hdr_size, static_cast<int32_t>(tslb_da_get_record_size(array)),
      static_cast<int32_t>(array->n_direct), MPOOL_TYPE_DRAM, static_cast<int32_t>(array->tbl_id), array->ctx_name,
      array->daflag, rec_version_of(array)));
  if (!copy) refuse_memory(array->ctx_name);
  copy_content(array, copy.get());
  return copy;
}

void copy_content(DynArrHandle_t *from, DynArrHandle_t *to) {
  const Geometry geometry(from);
  const uint32_t n_used = tslb_da_get_size(from);
  issue_ids(to, n_used);
  for (uint32_t idx = 0; idx < n_used; ++idx)
    std::memcpy(slot_start(to, geometry, idx), slot_start(from, geometry, idx), geometry.slot_bytes);
  for (uint32_t idx = n_used; idx < tslb_da_get_size(to); ++idx)
    std::memset(slot_start(to, geometry, idx), 0, geometry.slot_bytes);
  // The user header and the list roots.
  std::memcpy(tslb_da_get_usrhdr(to), tslb_da_get_usrhdr(from),
              size_t{dyn_hdr_of(from)->hdr_size} + dyn_hdr_of(from)->lli_sz);
  std::memcpy(static_cast<char *>(to->arr_base) + arr_hdr_at(to) + offsetof(DynArrHdr_t, n_used), &n_used,
              sizeof n_used);
}

Array converted(DynArrHandle_t *from, const ArrayDecl &decl, const std::string &folder) {
  const array_conversion_t conversion = {
      nullptr,           rec_version_of(from), decl.rec_version, tslb_da_get_record_size(from),
      decl.record_bytes, decl.convert,         decl.convert_arg};
  DynamicArray_t to = nullptr;
  char why[256];
  const recovery_result_t result = array_convert(from, &conversion, MPOOL_TYPE_DRAM, from->ctx_name,
                                                 static_cast<int32_t>(from->tbl_id), &to, why, sizeof why);
  if (result == RECOVERY_FAILED) refuse_memory(decl.name);
  if (result != RECOVERY_DONE)
    throw StoreError(TSLB_DURABLE_MISMATCH, fmt::format("{}: array \"{}\": {}", folder, decl.name, why), folder);
  return Array(to);
}

std::string mismatch_of(DynArrHandle_t *array, const ArrayDecl &decl, bool compare_record_bytes) {
  const uint32_t own_bytes = is_pool(decl.kind) ? TSLB_MEM_SLOT_HDR_BYTES : 0;  // which the host does not declare
  std::string why = different("daflag", array->daflag, decl.daflag);
  if (why.empty() && compare_record_bytes)
    why = different("record_bytes", tslb_da_get_record_size(array) - own_bytes, decl.record_bytes - own_bytes);
  if (!why.empty() || !is_pool(decl.kind)) return why;
  const DynMemHdr_t *const pool = pool_header_of(array);
  const auto flag = static_cast<unsigned char>(pool->flag);
  why = different("a compaction flag of", flag & MPOOL_FLAG_COMPAT, decl.has_compat ? MPOOL_FLAG_COMPAT : 0);
  if (why.empty())
    why = different("a kind flag of", flag & MPOOL_FLAG_BV, decl.kind == TSLB_POOL_BIT_VECTOR ? MPOOL_FLAG_BV : 0);
  return why;
}

}  // namespace tslb_durable
