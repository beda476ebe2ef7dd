// Converts the stream of an array to an older layout. The array is checked, converted and compared in memory before the
// first byte of output is written. Memory is proportional to the stream: the unused part of a direct area exists only
// as n_direct in the headers that are written.
#include <tslb/recovery_driver.h>

#include <errno.h>
#include <string.h>

#include <iterator>

#include <tslb/array_loader.h>
#include <tslb/array_settle.h>
#include <tslb/tsdb_recovery_schema.h>
#include <tslb/tsdb_recovery_version_compatibility.h>
#include <tslb/tslb_dynarr.h>
#include <tslb/tslb_dynmem.h>
#include "array_reader.h"
#include "converted_stream.h"

namespace {

// ---- Record types --------------------------------------------------------------------------------------------------

struct type_t {
  int row;
  const char *name;
  uint32_t record_bytes[3] = {};  // by version
};

constexpr type_t CATALOGUE[] = {
    {RECTYPE_SUBJECT, "subject"},
    {RECTYPE_TYPE, "type", {sizeof(ty_sub_t_v0), sizeof(ty_sub_t_v1)}},
    {RECTYPE_G_MG, "g_mg", {sizeof(g_mg_t_v0), sizeof(g_mg_t_v1), sizeof(g_mg_t_v2)}},
    {RECTYPE_G_MT, "g_mt", {sizeof(g_mt_t_v0), sizeof(g_mt_t_v1)}},
    {RECTYPE_L_MG, "l_mg"},
    {RECTYPE_L_MT, "l_mt"},
    {RECTYPE_MSG, "msg"},
    {RECTYPE_TS_DATA_TYPE, "ts_data_type"},
    {RECTYPE_UMG, "umg"},
    {RECTYPE_OSP, "osp"},
    {RECTYPE_LOCAL_ROOT_SUBJECT, "local_root_subject", {sizeof(ty_sub_t_v0), sizeof(ty_sub_t_v1)}},
    {RECTYPE_OD, "od"},
    {RECTYPE_TT, "tt"},
    {RECTYPE_OD_IDX, "od_idx"},
    {RECTYPE_G_DMT_INFO, "g_dmt_info", {sizeof(derived_metric_t_v0), sizeof(derived_metric_t_v1)}},
    {RECTYPE_G_VMT, "g_vmt"},
    {RECTYPE_G_DMG, "g_dmg", {sizeof(g_mg_t_v0), sizeof(g_mg_t_v1), sizeof(g_mg_t_v2)}},
    {RECTYPE_G_CACHEQ, "g_cacheq"},
    {RECTYPE_G_RULET, "g_rulet"},
    {RECTYPE_DMT_MEMBER, "dmt_member", {sizeof(derived_var_value_t_v0), sizeof(derived_var_value_t_v1)}},
    {RECTYPE_DMT_SUBJECT, "dmt_subject", {sizeof(subject_value_t_v0), sizeof(subject_value_t_v1)}},
    {RECTYPE_TT_RSB, "tt_rsb"},
    {RECTYPE_TAG, "tag"},
    {RECTYPE_TAG_NAME, "tag_name"},
    {RECTYPE_TAG_VALUE, "tag_value"},
    {RECTYPE_UTVT_IDX, "utvt_idx"},
    {RECTYPE_AG, "ag"},
    {RECTYPE_ATTR, "attr"},
    {RECTYPE_ATTR_NAME, "attr_name"},
    {RECTYPE_ATTR_UTVT_IDX, "attr_utvt_idx"},
    {RECTYPE_ATTR_VALUE, "attr_value"},
    {RECTYPE_MG_TAG, "mg_tag"},
    {RECTYPE_MG_TAG_MAPPING, "mg_tag_mapping"},
};
constexpr type_t LIBRARY[] = {
    {RECTYPE_LIB, "lib"}, {RECTYPE_LIB_BB, "lib_bb"}, {RECTYPE_LIB_BV, "lib_bv"},
    {RECTYPE_TOC, "toc"}, {RECTYPE_TOT, "tot"},
};

template <size_t ROWS>
constexpr bool are_in_row_order(const type_t (&types)[ROWS]) {
  for (size_t row = 0; row < ROWS; ++row)
    if (types[row].row != static_cast<int>(row)) return false;
  return true;
}
static_assert(std::size(CATALOGUE) == __TSDB_RECORD_TYPES_LAST__ && are_in_row_order(CATALOGUE));
static_assert(std::size(LIBRARY) == __TSDB_LIB__RECORD_TYPESLAST__ && are_in_row_order(LIBRARY));

// Null outside the map.
const type_t *type_of(uint16_t rec_type, uint8_t is_lib) {
  if (is_lib != 0) return rec_type < std::size(LIBRARY) ? &LIBRARY[rec_type] : nullptr;
  return rec_type < std::size(CATALOGUE) ? &CATALOGUE[rec_type] : nullptr;
}

// 0 where no layout is known.
uint32_t record_bytes_of(const type_t &type, uint8_t version) {
  return version < std::size(type.record_bytes) ? type.record_bytes[version] : 0;
}

// ---- Plan ----------------------------------------------------------------------------------------------------------

struct plan_t {
  const type_t *type;
  const TSDBVerMap_t *row;
  bool is_lib;
  uint8_t target;
  void (*run)(void *);

  bool is_pool() const { return is_lib && type->row != RECTYPE_LIB; }
  bool is_bitvector() const { return is_lib && type->row == RECTYPE_LIB_BV; }
};

bool make_plan(const recovery_conversion_t &wanted, plan_t *plan, refusal_t *refusal) {
  plan->is_lib = wanted.is_lib_rc_type != 0;
  plan->type = type_of(wanted.rec_type, wanted.is_lib_rc_type);
  plan->target = wanted.target_version;
  if (plan->type == nullptr) {
    refusal->add("record type %u is not in the %s's version map", wanted.rec_type,
                 plan->is_lib ? "library" : "catalogue");
    return false;
  }
  plan->row = &(plan->is_lib ? g_old_lib_vermap : g_old_vermap)[wanted.rec_type];
  if (plan->target == plan->row->version) {
    refusal->add("%s is already in version %u", plan->type->name, plan->target);
    return false;
  }
  plan->run = reinterpret_cast<void (*)(void *)>(
      tsdb_recovery_version_get_downgrade_fn_ptr(wanted.rec_type, plan->target, wanted.is_lib_rc_type));
  if (plan->run != nullptr) return true;
  refusal->add("%s has no conversion from version %u to %u", plan->type->name, plan->row->version, plan->target);
  return false;
}

// ---- Checks of the source ------------------------------------------------------------------------------------------

const DynHdr_t *dyn_hdr_of(dynarr_t *array) {
  return static_cast<const DynHdr_t *>(tslb_da_get_dynhdr(array));
}

// Compares the flags. An array without nodes does not store its flags.
bool flags_fit(const plan_t &plan, dynarr_t *source, refusal_t *refusal) {
  if (dyn_hdr_of(source)->lli_sz == 0 || source->daflag == plan.row->daflag) return true;
  refusal->add("lltype 0x%02x, but the version map has 0x%02x for %s", source->daflag, plan.row->daflag,
               plan.type->name);
  return false;
}

bool pool_fits(const plan_t &plan, dynarr_t *source, refusal_t *refusal) {
  const DynMemHdr_t *const pool = static_cast<const DynMemHdr_t *>(get_user_hdr(source));
  if (((pool->flag & MPOOL_FLAG_BV) != 0) == plan.is_bitvector()) return flags_fit(plan, source, refusal);
  refusal->add("the pool's flag 0x%02x is that of a %s pool, not of %s", static_cast<uint8_t>(pool->flag),
               plan.is_bitvector() ? "big-buffer" : "bit-vector", plan.type->name);
  return false;
}

bool records_fit(const plan_t &plan, dynarr_t *source, refusal_t *refusal) {
  const uint32_t record_bytes = tslb_da_get_record_size(source);
  const uint32_t expected_bytes = record_bytes_of(*plan.type, plan.row->version);
  if (record_bytes != expected_bytes) {
    refusal->add("record_size %u, but %s has %u in version %u", record_bytes, plan.type->name, expected_bytes,
                 plan.row->version);
    return false;
  }
  // The routines do not copy the user header, so a conversion would silently lose the host's data in it.
  const uint32_t hdr_size = dyn_hdr_of(source)->hdr_size;
  if (hdr_size == 0) return flags_fit(plan, source, refusal);
  refusal->add("a user header of %u bytes, which the conversion would lose", hdr_size);
  return false;
}

bool source_fits(const plan_t &plan, dynarr_t *source, refusal_t *refusal) {
  if (plan.is_pool()) return pool_fits(plan, source, refusal);
  const DynHdr_t *const hdr = dyn_hdr_of(source);
  const uint8_t stored = plan.is_lib ? hdr->lib_version : hdr->rec_version;
  if (stored == plan.row->version) return plan.is_lib || records_fit(plan, source, refusal);
  refusal->add("%s %u, but the version map has %u for %s", plan.is_lib ? "lib_version" : "rec_version", stored,
               plan.row->version, plan.type->name);
  return false;
}

// ---- Conversion ----------------------------------------------------------------------------------------------------

array_t load(const plan_t &plan, int fd, refusal_t *refusal, uint32_t *n_direct) {
  const uint8_t library_kind = plan.is_pool() ? ARRAY_LOAD_POOL : ARRAY_LOAD_POOL_BY_SIZE;
  // Accepts any layout: source_fits checks it and returns its own result.
  const array_load_options_t options = {.ctx_name = nullptr,
                                        .tbl_id = 0,
                                        .mem_type = MPOOL_TYPE_DRAM,
                                        .kind = plan.is_lib ? library_kind : uint8_t{ARRAY_LOAD_ANY},
                                        .max_block_bytes = 0,
                                        .rec_version = ARRAY_LOAD_ANY_VERSION,
                                        .record_size = ARRAY_LOAD_ANY_SIZE};
  array_t array(load_stream_for_conversion(fd, &options, refusal, n_direct));
  // The older reader may lack array_settle. This cannot fail, because the loader has checked the cursor.
  if (array != nullptr && plan.is_lib) array_settle(array.get());
  return array;
}

// Creates an array without a name, so that nothing is redo logged. Its table id is not a pool's, so that the last slot
// is written whole.
array_t make_destination(const plan_t &plan, dynarr_t *source) {
  const auto make = [&](uint32_t hdr_size, uint32_t record_bytes, uint32_t n_direct, uint8_t rec_version) {
    return array_t(get_default_dyn_array_ex_ex(static_cast<int32_t>(hdr_size), static_cast<int32_t>(record_bytes),
                                               static_cast<int32_t>(n_direct), MPOOL_TYPE_DRAM, 0, nullptr,
                                               source->daflag, rec_version));
  };
  const DynHdr_t *const hdr = dyn_hdr_of(source);
  if (plan.is_lib)
    return make(hdr->hdr_size, tslb_da_get_record_size(source), get_dyn_hdr(source)->n_direct, hdr->rec_version);
  return make(0, record_bytes_of(*plan.type, plan.target), tslb_da_get_size(source), 0);
}

// The copy is the host's routine and has no result, so its effect is compared.
bool has_all_of(dynarr_t *source, dynarr_t *destination) {
  const DynHdr_t *const hdr = dyn_hdr_of(source);
  const uint32_t n_used = tslb_da_get_size(source);
  if (tslb_da_get_size(destination) != n_used ||
      memcmp(tslb_da_get_usrhdr(destination), tslb_da_get_usrhdr(source), hdr->hdr_size) != 0 ||
      memcmp(tslb_da_get_lli(destination), tslb_da_get_lli(source), hdr->lli_sz) != 0)
    return false;
  int shift = 0;
  const uint32_t slot_bytes = tslb_da_get_slotsz(source, &shift);
  for (uint32_t idx = 0; idx < n_used; ++idx) {
    const char *const from = static_cast<const char *>(tslb_da_get_ptr(source, idx));
    const char *const to = static_cast<const char *>(tslb_da_get_ptr(destination, idx));
    if (to == nullptr || memcmp(to - shift, from - shift, slot_bytes) != 0) return false;
  }
  return true;
}

bool convert(const plan_t &plan, dynarr_t *source, dynarr_t *destination) {
  TSDBVerCBArgs_t args = {static_cast<uint16_t>(plan.type->row), source, destination};
  // The routine for `lib` converts the headers only. The copy transfers slots, lists and user header.
  if (plan.is_lib && !plan.is_pool()) tsdb_recov_version_copy_rc(&args);
  plan.run(&args);
  // The routine for `lib` clears the handle's flags. Without them the library would treat nodes as records and omit the
  // last slots from the stream.
  destination->daflag = source->daflag;
  return plan.is_lib ? has_all_of(source, destination) : tslb_da_get_size(destination) == tslb_da_get_size(source);
}

}  // namespace

// ---- Public --------------------------------------------------------------------------------------------------------

recovery_result_t recovery_convert_stream(int fd_in, int fd_out, const recovery_conversion_t *conversion,
                                          recovery_counts_t *counts, char *error, size_t error_size) {
  *counts = {};
  refusal_t refusal(error, error_size);
  plan_t plan;
  if (!make_plan(*conversion, &plan, &refusal)) return RECOVERY_UNSUPPORTED;
  uint32_t n_direct = 0;
  const array_t source = load(plan, fd_in, &refusal, &n_direct);
  if (source == nullptr) return RECOVERY_BAD_STREAM;
  if (!source_fits(plan, source.get(), &refusal)) return RECOVERY_DOES_NOT_FIT;

  const array_t destination = make_destination(plan, source.get());
  if (destination == nullptr) {
    const int err = errno;
    refusal.add("cannot create an array of version %u for %u records: %s", plan.target, tslb_da_get_size(source.get()),
                strerror(err));
    return RECOVERY_FAILED;
  }
  if (!convert(plan, source.get(), destination.get())) {
    refusal.add("the conversion of %s to version %u lost records", plan.type->name, plan.target);
    return RECOVERY_FAILED;
  }
  // All records of a catalogue type become direct.
  if (!plan.is_lib) n_direct = get_dyn_hdr(destination.get())->n_direct;
  const recovery_result_t result =
      finish_conversion(source.get(), destination.get(), n_direct, conversion->dry_run != 0, fd_out, counts, &refusal);
  if (result == RECOVERY_DONE) counts->version_is_asserted = plan.is_pool() ? 1 : 0;
  return result;
}

const char *recovery_type_name(uint16_t rec_type, uint8_t is_lib_rc_type) {
  const type_t *const type = type_of(rec_type, is_lib_rc_type);
  return type != nullptr ? type->name : nullptr;
}

uint32_t recovery_record_bytes(uint16_t rec_type, uint8_t is_lib_rc_type, uint8_t version) {
  const type_t *const type = type_of(rec_type, is_lib_rc_type);
  return type != nullptr ? record_bytes_of(*type, version) : 0;
}
