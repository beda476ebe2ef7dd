// Decodes the stored headers into fields.
#include <fmt/format.h>

#include <cstring>

#include "analysis_internal.h"

namespace inspect {
namespace {

struct shape_t {
  const char *name;
  size_t offset;
  uint32_t bytes;
  bool is_signed;
};
#define FIELD(type, field) \
  { #field, offsetof(type, field), sizeof(type::field), false }
#define POLICY_FIELD(set, field)                                                               \
  {                                                                                            \
    "mem_pressure_conf." #set "." #field,                                                      \
        offsetof(DynArrLLI_t, mem_pressure_conf) + offsetof(tsdb_mem_pressure_config_t, set) + \
            offsetof(tsdb_inactive_thshld_policy_t, field),                                    \
        sizeof(tsdb_inactive_thshld_policy_t::field), false                                    \
  }
#define POLICY_FIELDS(set)                                                                                           \
  POLICY_FIELD(set, inactive_threshold_pct), POLICY_FIELD(set, reserved), POLICY_FIELD(set, inactive_threshold_cnt), \
      POLICY_FIELD(set, min_days_since_inactive), POLICY_FIELD(set, min_overall_cnt)

const shape_t START[] = {FIELD(DynHdr_t, lib_version), FIELD(DynHdr_t, rec_version), FIELD(DynHdr_t, pad),
                         FIELD(DynHdr_t, hdr_size), FIELD(DynHdr_t, lli_sz)};

constexpr size_t CURSOR_AT = offsetof(DynMemHdr_t, cur_slot_addr);
const shape_t POOL[] = {
    FIELD(DynMemHdr_t, flag),
    FIELD(DynMemHdr_t, pad_byte),
    {"max_slots", offsetof(DynMemHdr_t, max_slots), sizeof(DynMemHdr_t::max_slots), true},
    FIELD(DynMemHdr_t, mslot_sz),
    {"cur_slot_addr.mslot_idx", CURSOR_AT + offsetof(MemSlotAddr_t, mslot_idx), sizeof(MemSlotAddr_t::mslot_idx),
     false},
    {"cur_slot_addr.byte_off", CURSOR_AT + offsetof(MemSlotAddr_t, byte_off), sizeof(MemSlotAddr_t::byte_off), false},
    FIELD(DynMemHdr_t, total_msz),
    FIELD(DynMemHdr_t, total_mused),
    FIELD(DynMemHdr_t, total_mwast),
    FIELD(DynMemHdr_t, total_mdel),
    FIELD(DynMemHdr_t, total_mavail)};

constexpr size_t POLICY_AT = offsetof(DynArrLLI_t, mem_pressure_conf);
const shape_t LISTS[] = {
    FIELD(DynArrLLI_t, free_head),
    FIELD(DynArrLLI_t, free_tail),
    FIELD(DynArrLLI_t, inact_head),
    FIELD(DynArrLLI_t, inact_tail),
    FIELD(DynArrLLI_t, n_inact),
    FIELD(DynArrLLI_t, n_act),
    FIELD(DynArrLLI_t, n_free),
    FIELD(DynArrLLI_t, lltype),
    FIELD(DynArrLLI_t, pad1),
    FIELD(DynArrLLI_t, pad2),
    {"mem_pressure_conf.mvt_reuse_policy_use", POLICY_AT, 1, false},
    {"mem_pressure_conf.reserved", POLICY_AT + offsetof(tsdb_mem_pressure_config_t, reserved), 3, false},
    POLICY_FIELDS(critical),
    POLICY_FIELDS(major)};

const shape_t ARRAY[] = {FIELD(DynArrHdr_t, n_alloc), FIELD(DynArrHdr_t, n_used), FIELD(DynArrHdr_t, n_direct),
                         FIELD(DynArrHdr_t, record_size)};

template <size_t COUNT>
header_t decode(const char *name, uint64_t offset, uint64_t size, const shape_t (&shapes)[COUNT],
                const std::string &bytes) {
  header_t header = {name, offset, size, {}, {}};
  for (const shape_t &shape : shapes) {
    if (shape.offset + shape.bytes > bytes.size()) break;
    uint64_t value = 0;
    std::memcpy(&value, bytes.data() + shape.offset, shape.bytes);
    header.fields.push_back({shape.name, offset + shape.offset, shape.bytes, value, shape.is_signed, ""});
  }
  return header;
}

void explain(header_t *header, const std::string &name, const std::string &meaning) {
  for (field_t &field : header->fields)
    if (field.name == name) field.meaning = meaning;
}

void explain_indices(header_t *header) {
  for (field_t &field : header->fields)
    if (field.bytes == sizeof(uint32_t) && field.value == TSLB_DA_NIL_IDX) field.meaning = "none";
}

std::string join(const std::string &left, const std::string &right) {
  return left.empty() ? right : left + ", " + right;
}

std::string pool_flags(uint64_t flag) {
  std::string text;
  if ((flag & MPOOL_FLAG_COMPAT) != 0) text = join(text, "compaction headers");
  if ((flag & MPOOL_FLAG_PERSIST) != 0) text = join(text, "growth logged");
  return join(text, (flag & MPOOL_FLAG_BV) != 0 ? "bit-vector" : "big-buffer");
}

std::string list_flags(uint64_t lltype) {
  if ((lltype & TSLB_DA_DAFLAG_INLL) != 0) return "free and inactive list";
  return (lltype & TSLB_DA_DAFLAG_LL) != 0 ? "free list" : "no list";
}

uint64_t value_of(const header_t &header, const std::string &name) {
  for (const field_t &field : header.fields)
    if (field.name == name) return field.value;
  return 0;
}

}  // namespace

header_t start_fields(const std::string &bytes) {
  return decode("DynHdr_t", 0, sizeof(DynHdr_t), START, bytes);
}

header_t pool_fields(uint64_t offset, const std::string &bytes) {
  header_t header = decode("DynMemHdr_t", offset, sizeof(DynMemHdr_t), POOL, bytes);
  explain_indices(&header);
  explain(&header, "flag", pool_flags(value_of(header, "flag")));
  if (value_of(header, "max_slots") == 0) explain(&header, "max_slots", "no limit");
  const auto available = static_cast<int64_t>(value_of(header, "total_mavail"));
  if (available < 0) explain(&header, "total_mavail", fmt::format("{}, negative", available));
  return header;
}

header_t user_header(uint64_t offset, uint64_t size, const std::string &bytes) {
  return {"user header", offset, size, {}, bytes};
}

header_t list_fields(uint64_t offset, const std::string &bytes) {
  header_t header = decode("DynArrLLI_t", offset, sizeof(DynArrLLI_t), LISTS, bytes);
  explain_indices(&header);
  explain(&header, "lltype", list_flags(value_of(header, "lltype")));
  if (value_of(header, "mem_pressure_conf.mvt_reuse_policy_use") == 0)
    explain(&header, "mem_pressure_conf.mvt_reuse_policy_use", "inactive slots are not reused");
  return header;
}

header_t array_fields(uint64_t offset, const std::string &bytes) {
  return decode("DynArrHdr_t", offset, sizeof(DynArrHdr_t), ARRAY, bytes);
}

}  // namespace inspect
